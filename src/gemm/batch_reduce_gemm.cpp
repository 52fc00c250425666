#include "detail/checks.hpp"
#include "gemm/brgemm_kernels.hpp"
#include "nerva/batch_gemm.hpp"

namespace nerva {

template <typename T>
void batch_reduce_gemm(long m, long n, long k, T const* const* A, long lda, T const* const* B,
                       long ldb, long count, T* C, long ldc, T beta) {
  char const* const fn = "batch_reduce_gemm";
  NERVA_CHECK(k >= 0, fn, ": k is ", k, ", below 0");
  NERVA_CHECK(count >= 0, fn, ": count is ", count, ", below 0");
  if (NERVA_CHECKED_BUILD && m > 0 && n > 0) {
    NERVA_CHECK(C != nullptr, fn, ": null C");
    NERVA_CHECK(ldc >= m, fn, ": ldc ", ldc, " is below m ", m);
    if (k > 0 && count > 0) {
      NERVA_CHECK(A != nullptr, fn, ": null A");
      NERVA_CHECK(B != nullptr, fn, ": null B");
      NERVA_CHECK(lda >= m, fn, ": lda ", lda, " is below m ", m);
      NERVA_CHECK(ldb >= k, fn, ": ldb ", ldb, " is below k ", k);
      for (long i = 0; i < count; ++i) {
        NERVA_CHECK(A[i] != nullptr, fn, ": null A[", i, "]");
        NERVA_CHECK(B[i] != nullptr, fn, ": null B[", i, "]");
      }
    }
  }
  gemm_detail::brgemm_run<T>(gemm_detail::brgemm_best_isa(),
                             {m, n, k, A, lda, B, ldb, count, C, ldc, beta},
                             gemm_detail::brgemm_batch_bytes());
}

template NERVA_API void batch_reduce_gemm<float>(long, long, long, float const* const*, long,
                                                 float const* const*, long, long, float*, long,
                                                 float);
template NERVA_API void batch_reduce_gemm<double>(long, long, long, double const* const*, long,
                                                  double const* const*, long, long, double*, long,
                                                  double);

}  // namespace nerva
