// The engine's kernels for AVX-512F with FMA: sixteen-float vectors, thirty-two registers, so
// the product's micro-tile is twice as tall.
#define DEEPNET_ISA_NAMESPACE isa_avx512
#define DEEPNET_ISA_NAME "avx512"
#define DEEPNET_TABLE kernels_avx512
#define DEEPNET_LANES 16
#define DEEPNET_MR 12
#include "deepnet/kernels/isa_kernels.inc"
