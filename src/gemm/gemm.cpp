#include "nerva/gemm.hpp"

#include "gemm/blas.hpp"

namespace nerva {

// The scalars arrive as beta, alpha and go to the BLAS's alpha and beta positions.
void gemm(char* transa, char* transb, long* m, long* n, long* k, float const* A, long* lda,
          float const* B, long* ldb, float* C, long* ldc, float beta, float alpha) {
  float const a = alpha;
  float const b = beta;
  sgemm_(transa, transb, m, n, k, &a, A, lda, B, ldb, &b, C, ldc);
}

void gemm(char* transa, char* transb, long* m, long* n, long* k, double const* A, long* lda,
          double const* B, long* ldb, double* C, long* ldc, double beta, double alpha) {
  double const a = alpha;
  double const b = beta;
  dgemm_(transa, transb, m, n, k, &a, A, lda, B, ldb, &b, C, ldc);
}

}  // namespace nerva
