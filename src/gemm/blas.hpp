#pragma once

// Fortran-interface GEMM routines of the ILP64 BLAS linked into the library: every integer is
// 64-bit and every argument is passed by address.
extern "C" {
void sgemm_(char const* transa, char const* transb, long const* m, long const* n, long const* k,
            float const* alpha, float const* A, long const* lda, float const* B, long const* ldb,
            float const* beta, float* C, long const* ldc);
void dgemm_(char const* transa, char const* transb, long const* m, long const* n, long const* k,
            double const* alpha, double const* A, long const* lda, double const* B, long const* ldb,
            double const* beta, double* C, long const* ldc);
}
