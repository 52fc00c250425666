// The batch-reduce product against the tests' naive triple loop: element type, sizes, count,
// padding of the leading dimensions and beta from the input, through the public routine,
// through each instruction set's kernels (where this CPU runs them), and in passes over C that
// each read a few products. Elements are small integers, so results are exact; beta 0 runs on a
// C of NaNs, and the padding rows and spare column of C must keep their bits.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "../tests/gemm/batch_gemm_reference.hpp"
#include "fuzz_support.hpp"
#include "gemm/brgemm_kernels.hpp"
#include "nerva/batch_gemm.hpp"

namespace {

using nerva::gemm_detail::BrgemmIsa;

template <typename T>
void run(FuzzInput& in) {
  std::size_t room = std::size_t(1) << 20;  // multiply-adds of the naive loop
  long const m = long(in.extent(1, 150, room)), n = long(in.extent(1, 40, room));
  long const k = long(in.extent(0, 70, room)), count = long(in.extent(0, 12, room));
  long const pad_a = long(in.in(0, 9)), pad_b = long(in.in(0, 9)), pad_c = long(in.in(0, 9));
  T const betas[] = {T(0), T(1), T(-2), T(0.5)};
  T const beta = betas[in.in(0, 3)];
  // 0: the public routine; 1-3: the kernels of instruction set path - 1; 4: passes over C.
  std::size_t const path = in.in(0, 4);
  batch_gemm_test::Batch<T> b(m, n, k, count, pad_a, pad_b, pad_c, in.byte());
  if (beta == T(0)) b.poison();
  std::vector<T> const want = b.expected(beta);

  nerva::gemm_detail::BrgemmArgs<T> const args{
      m, n, k, b.A.data(), b.lda, b.B.data(), b.ldb, count, b.C.data(), b.ldc, beta};
  if (path == 0) {
    nerva::batch_reduce_gemm<T>(m, n, k, b.A.data(), b.lda, b.B.data(), b.ldb, count, b.C.data(),
                                b.ldc, beta);
  } else if (path == 4) {
    long const product = m * k * long(sizeof(T));
    nerva::gemm_detail::brgemm_run(nerva::gemm_detail::brgemm_best_isa(), args,
                                   long(in.in(1, std::size_t(product * 3 + 1))));
  } else {
    BrgemmIsa isa = static_cast<BrgemmIsa>(path - 1);
    if (!nerva::gemm_detail::brgemm_isa_supported(isa)) isa = BrgemmIsa::Portable;
    nerva::gemm_detail::brgemm_run(isa, args, nerva::gemm_detail::brgemm_batch_bytes());
  }
  FUZZ_CHECK(b.mismatch(want) == -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  with_type<float, double>(in.in(0, 1), [&](auto zero) { run<decltype(zero)>(in); });
  return 0;
}
