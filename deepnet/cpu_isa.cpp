#include "deepnet/cpu_isa.h"

#include <cstdio>
#include <cstdlib>

namespace deepnet {

const char* isa_name(isa which) {
  switch (which) {
    case isa::avx512:
      return "avx512";
    case isa::avx2:
      return "avx2";
    case isa::sse2:
      break;
  }
  return "sse2";
}

std::optional<isa> parse_isa(std::string_view name) {
  for (isa which : {isa::sse2, isa::avx2, isa::avx512})
    if (name == isa_name(which)) return which;
  return std::nullopt;
}

isa detected_isa() {
  // The compiler's run-time checks read CPUID and XGETBV: a feature counts only when the
  // operating system also saves its registers.
  static const isa detected = [] {
    __builtin_cpu_init();
    const bool fma = __builtin_cpu_supports("fma");
    if (fma && __builtin_cpu_supports("avx512f")) return isa::avx512;
    if (fma && __builtin_cpu_supports("avx2")) return isa::avx2;
    return isa::sse2;
  }();
  return detected;
}

isa active_isa() {
  static const isa active = [] {
    const isa detected = detected_isa();
    const char* asked = std::getenv("FONTRIX_ISA");
    if (!asked || !*asked) return detected;
    const auto which = parse_isa(asked);
    if (!which)
      std::fprintf(stderr, "fontrix: FONTRIX_ISA=%s is not one of sse2, avx2, avx512; using %s\n", asked,
                   isa_name(detected));
    else if (*which > detected)
      std::fprintf(stderr, "fontrix: this processor cannot run FONTRIX_ISA=%s; using %s\n", asked, isa_name(detected));
    else
      return *which;
    return detected;
  }();
  return active;
}

}  // namespace deepnet
