/// \file
/// The batch-reduce matrix product: the one small kernel that nerva's
/// convolution passes are built on.
#pragma once

#include "nerva/detail/export.hpp"

namespace nerva {

/// C := beta * C + sum over i < count of A[i] * B[i], column-major as in the
/// BLAS: A[i] is m x k with leading dimension lda, B[i] is k x n with leading
/// dimension ldb, C is m x n with leading dimension ldc.
///
/// Each register tile of C is loaded (or, with beta 0, started from zero) once,
/// accumulates the products of the whole batch and is stored once, so a
/// convolution hands over all its window taps and input channels in one call
/// instead of re-reading its output per product. The operands are read where
/// they are: nothing is packed.
///
/// With beta == 0, what C holds on entry is never read (NaN or garbage in C
/// does not reach the result). count == 0 or k == 0 leaves beta * C (zeros for
/// beta 0); m <= 0 or n <= 0 does nothing. Rows past m in the padding of C are
/// never touched.
/// \cost Runs on the calling thread; allocates nothing and takes no lock. The
/// micro-kernels are chosen once per process for the CPU (AVX-512, AVX2 with
/// FMA, or portable code). Every block of columns of C reads all of A: a batch
/// whose matrices A[i] (m x k each) together exceed half of the CPU's L2 cache
/// runs as several passes over C, each with as many products as fit (the first
/// with beta, the others adding to what it stored), so that A comes from L2.
/// \failure The checked build throws std::invalid_argument for negative k or
/// count, leading dimensions below m (lda, ldc) or k (ldb), and null arrays or
/// array entries that would be read; the default build trusts its caller.
/// Calls on disjoint parts of C may run concurrently. Instantiated for float
/// and double.
template <typename T>
NERVA_API void batch_reduce_gemm(long m, long n, long k, T const* const* A, long lda,
                                 T const* const* B, long ldb, long count, T* C, long ldc, T beta);

extern template NERVA_API void batch_reduce_gemm<float>(long, long, long, float const* const*,
                                                        long, float const* const*, long, long,
                                                        float*, long, float);
extern template NERVA_API void batch_reduce_gemm<double>(long, long, long, double const* const*,
                                                         long, double const* const*, long, long,
                                                         double*, long, double);

}  // namespace nerva
