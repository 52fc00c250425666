#include <oneapi/tbb/blocked_range2d.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <cstdint>

#include "gemm/gemm_serial_limit.hpp"
#include "nerva/gemm.hpp"

namespace nerva {

template <typename T>
void tbb_gemm(char* transa, char* transb, long* m, long* n, long* k, T const* A, long* lda,
              T const* B, long* ldb, T* C, long* ldc, T beta,
              T /*alpha: the product enters as is*/) {
  constexpr std::uint64_t limit = GemmSerialLimit<T>;
  long const rows = *m;
  long const cols = *n;
  // Exactly 'N' is "not transposed"; anything else, a lowercase 'n' included, is transposed.
  bool const transA = transa[0] != 'N';
  bool const transB = transb[0] != 'N';

  // Unsigned, so that a negative size is never taken as small.
  if (static_cast<std::uint64_t>(rows) <= limit && static_cast<std::uint64_t>(cols) <= limit) {
    gemm(transa, transb, m, n, k, A, lda, B, ldb, C, ldc, beta, T(1));
    return;
  }
  if (rows <= 0 || cols <= 0) return;

  // Element distance between consecutive rows of op(A) and consecutive columns of op(B).
  long const rowStepA = transA ? *lda : 1;
  long const colStepB = transB ? 1 : *ldb;
  long const colStepC = *ldc;

  // The simple partitioner cuts both sides down to the grain whatever the number of workers;
  // every block uses the whole of k, so each element of C comes from exactly one BLAS call.
  tbb::parallel_for(
      tbb::blocked_range2d<long, long>(0, rows, limit, 0, cols, limit),
      [=](tbb::blocked_range2d<long, long> const& block) {
        long const i0 = block.rows().begin();
        long const j0 = block.cols().begin();
        long blockRows = block.rows().end() - i0;
        long blockCols = block.cols().end() - j0;
        gemm(transa, transb, &blockRows, &blockCols, k, A + i0 * rowStepA, lda, B + j0 * colStepB,
             ldb, C + i0 + j0 * colStepC, ldc, beta, T(1));
      },
      tbb::simple_partitioner());
}

template NERVA_API void tbb_gemm<float>(char*, char*, long*, long*, long*, float const*, long*,
                                        float const*, long*, float*, long*, float, float);
template NERVA_API void tbb_gemm<double>(char*, char*, long*, long*, long*, double const*, long*,
                                         double const*, long*, double*, long*, double, double);

}  // namespace nerva
