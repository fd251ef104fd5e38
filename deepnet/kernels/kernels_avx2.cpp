// The engine's kernels for AVX2 with FMA: eight-float vectors, sixteen registers.
#define DEEPNET_ISA_NAMESPACE isa_avx2
#define DEEPNET_ISA_NAME "avx2"
#define DEEPNET_TABLE kernels_avx2
#define DEEPNET_LANES 8
#define DEEPNET_MR 6
#include "deepnet/kernels/isa_kernels.inc"
