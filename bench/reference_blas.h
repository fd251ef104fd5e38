#pragma once
// The reference BLAS the engine's own products are measured against (OpenBLAS, Fortran calling
// convention, 32-bit sizes).
extern "C" {
void sgemm_(const char* transa, const char* transb, const int* m, const int* n, const int* k, const float* alpha,
            const float* a, const int* lda, const float* b, const int* ldb, const float* beta, float* c,
            const int* ldc);
void openblas_set_num_threads(int num_threads);
}

namespace deepnet {

/// Column-major C = alpha·op(A)·op(B) + beta·C with op given by 't' or 'n'; does nothing when
/// any extent is 0 (the BLAS would reject the zero leading dimensions that come with it).
inline void sgemm(char transa, char transb, int m, int n, int k, float alpha, const float* a, int lda, const float* b,
                  int ldb, float beta, float* c, int ldc) {
  if (m <= 0 || n <= 0 || k <= 0) return;
  sgemm_(&transa, &transb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc);
}

}  // namespace deepnet
