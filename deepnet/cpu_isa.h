#pragma once
// The instruction sets the engine has kernels for, and the one it runs. The choice is made once
// per process from the processor's feature bits (and what the operating system saves on a
// context switch), never from its name: a processor newer than every table still gets the
// widest kernels it can run.
#include <optional>
#include <string_view>

namespace deepnet {

/// Kernel families, each a superset of the one before.
enum class isa { sse2 = 0, avx2 = 1, avx512 = 2 };

/// "sse2", "avx2" (AVX2 with FMA) or "avx512" (AVX-512F with FMA).
const char* isa_name(isa which);
std::optional<isa> parse_isa(std::string_view name);

/// The widest family this processor and operating system can run.
isa detected_isa();

/// The family the engine uses: detected_isa(), or a narrower one named by the environment
/// variable FONTRIX_ISA (so every path can be run on one machine). A name the processor cannot
/// run, or no family at all, is said once on standard error and the detected family used.
isa active_isa();

}  // namespace deepnet
