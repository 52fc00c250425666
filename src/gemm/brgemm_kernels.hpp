#pragma once

// The batch-reduce product's kernels, one set per instruction set, and the
// choice among them. The public nerva::batch_reduce_gemm adds the checked
// build's argument checks and runs the best set this CPU has; the tests call
// each set by name.

namespace nerva::gemm_detail {

// Instruction sets with kernels of their own, in increasing order.
enum class BrgemmIsa { Portable, Avx2, Avx512 };

// C := beta * C + sum over i < count of A[i] * B[i], column-major (see
// nerva/batch_gemm.hpp for the sizes and leading dimensions).
template <typename T>
struct BrgemmArgs {
  long m, n, k;
  T const* const* A;
  long lda;
  T const* const* B;
  long ldb;
  long count;
  T* C;
  long ldc;
  T beta;
};

// The kernels of one instruction set, for m, n >= 1 and k, count >= 0. Only
// call a set the CPU supports.
void brgemm_portable(BrgemmArgs<float> const& args);
void brgemm_portable(BrgemmArgs<double> const& args);
void brgemm_avx2(BrgemmArgs<float> const& args);
void brgemm_avx2(BrgemmArgs<double> const& args);
void brgemm_avx512(BrgemmArgs<float> const& args);
void brgemm_avx512(BrgemmArgs<double> const& args);

// The widest set this CPU runs, found once per process.
BrgemmIsa brgemm_best_isa();
bool brgemm_isa_supported(BrgemmIsa isa);

// The bytes of A that one pass over C may read: half of this CPU's L2, so
// that A stays there while every column block of C reads it.
long brgemm_batch_bytes();

// The whole product on the kernels of `isa` (which the CPU must support):
// m <= 0 or n <= 0 does nothing, and with k == 0 or count == 0 neither A nor
// B is read. A batch whose matrices A[i] (m x k each) exceed `batch_bytes`
// runs as several passes over C. Does not check its arguments.
template <typename T>
void brgemm_run(BrgemmIsa isa, BrgemmArgs<T> args, long batch_bytes);

}  // namespace nerva::gemm_detail
