// Placeholder: a plain loop until the per-instruction-set kernels land.
#include "nerva/batch_gemm.hpp"

namespace nerva {

template <typename T>
void batch_reduce_gemm(long m, long n, long k, T const* const* A, long lda, T const* const* B,
                       long ldb, long count, T* C, long ldc, T beta) {
  for (long j = 0; j < n; ++j)
    for (long r = 0; r < m; ++r) {
      T sum = 0;
      for (long i = 0; i < count; ++i)
        for (long p = 0; p < k; ++p) sum += A[i][r + p * lda] * B[i][p + j * ldb];
      T& c = C[r + j * ldc];
      c = beta == T(0) ? sum : beta * c + sum;
    }
}

template NERVA_API void batch_reduce_gemm<float>(long, long, long, float const* const*, long,
                                                 float const* const*, long, long, float*, long,
                                                 float);
template NERVA_API void batch_reduce_gemm<double>(long, long, long, double const* const*, long,
                                                  double const* const*, long, long, double*, long,
                                                  double);

}  // namespace nerva
