/// \file
/// Matrix products: the BLAS front end and the TBB-blocked product.
#pragma once

#include "nerva/detail/export.hpp"

namespace nerva {

/// Column-major general matrix product in the BLAS conventions: C := alpha*op(A)*op(B) + beta*C,
/// with op(A) m x k, op(B) k x n and C m x n. Integers and transposition characters are passed by
/// address, as the BLAS receives them. The scalars come last, beta before alpha.
/// \cost One call of the single-threaded BLAS on the calling thread; no allocation by nerva.
/// \failure Argument errors are the BLAS's to report. Safe to call from several threads.
NERVA_API void gemm(char* transa, char* transb, long* m, long* n, long* k, float const* A,
                    long* lda, float const* B, long* ldb, float* C, long* ldc, float beta,
                    float alpha);
/// The double-precision product, as above.
NERVA_API void gemm(char* transa, char* transb, long* m, long* n, long* k, double const* A,
                    long* lda, double const* B, long* ldb, double* C, long* ldc, double beta,
                    double alpha);

/// C := op(A)*op(B) + beta*C, with C cut into blocks of at most 256 x 256 (float) or 128 x 128
/// (double) elements that are computed by `gemm` on TBB workers. A product that fits in one block
/// is one `gemm` call on the calling thread. The last argument is not used: the product always
/// enters with factor 1. Only the uppercase 'N' means "not transposed" here.
/// \cost No allocation and no copy: blocks are views through the leading dimensions; every block
/// uses the whole of k. A negative m or n, or a zero one while the other exceeds the block size,
/// returns without a BLAS call.
/// \failure An exception in a task reaches the caller; blocks already computed stay written.
/// Instantiated for float and double.
template <typename T>
NERVA_API void tbb_gemm(char* transa, char* transb, long* m, long* n, long* k, T const* A,
                        long* lda, T const* B, long* ldb, T* C, long* ldc, T beta, T alpha);

extern template NERVA_API void tbb_gemm<float>(char*, char*, long*, long*, long*, float const*,
                                               long*, float const*, long*, float*, long*, float,
                                               float);
extern template NERVA_API void tbb_gemm<double>(char*, char*, long*, long*, long*, double const*,
                                                long*, double const*, long*, double*, long*, double,
                                                double);

}  // namespace nerva
