#pragma once
// Work splitting for the engine. Layers split their batch into contiguous chunks of samples;
// each chunk runs as one task with its own scratch, so results do not depend on the number of
// threads. The tasks run on the engine's own worker threads plus the caller's; each matrix
// product runs on the thread of its task.
#include <cstdint>
#include <functional>

namespace deepnet {

/// Threads the engine uses for one forward pass (default 1).
void deepnet_set_num_threads(int n);
int deepnet_num_threads();

/// Number of chunks a batch of `count` samples is split into.
uint64_t deepnet_chunk_count(uint64_t count);

/// Runs fn(chunk, first, last) for each of `chunks` contiguous chunks of [0, count), in parallel
/// when the engine has more than one thread. Layers fix `chunks` when they size their scratch.
void deepnet_parallel_chunks(uint64_t count, uint64_t chunks,
                             const std::function<void(uint64_t, uint64_t, uint64_t)>& fn);

}  // namespace deepnet
