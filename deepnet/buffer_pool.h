#pragma once
// Recycles large engine buffers between forward passes.
//
// A runnable network is built afresh for every query and sized for its batch. Large blocks
// freed by one query would go back to the operating system and come back as fresh pages that
// fault and are zeroed on first touch: at batch 10 of a typical network that is tens of
// megabytes per query. The pool keeps freed blocks for the next query instead.
#include <cstddef>

namespace deepnet {

/// A block of at least `bytes` bytes, 64-byte aligned: a kept one when one fits, else new.
/// Throws std::bad_alloc.
void* buffer_pool_take(size_t bytes, size_t& capacity);
/// Returns a block from buffer_pool_take; the pool keeps it or frees it.
void buffer_pool_give(void* block, size_t capacity) noexcept;
/// Frees every kept block (e.g. when an engine is shut down).
void deepnet_release_cached_buffers() noexcept;
/// Bytes currently kept by the pool.
size_t deepnet_cached_buffer_bytes() noexcept;

}  // namespace deepnet
