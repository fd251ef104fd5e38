// The engine's kernels for every x86-64 processor: four-float vectors, no fused multiply-add.
#define DEEPNET_ISA_NAMESPACE isa_sse2
#define DEEPNET_ISA_NAME "sse2"
#define DEEPNET_TABLE kernels_sse2
#define DEEPNET_LANES 4
#define DEEPNET_MR 6
#include "deepnet/kernels/isa_kernels.inc"
