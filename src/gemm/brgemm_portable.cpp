// The portable kernels: plain scalar code for CPUs without AVX2, built with
// the compiler's default flags.
#include "gemm/brgemm_tiles.hpp"

namespace nerva::gemm_detail {
namespace {

// One element per "register"; no masks are ever needed (L is 1).
template <typename E>
struct Scalar {
  using T = E;
  using Reg = E;
  using Mask = int;
  static constexpr int L = 1;
  static constexpr long kPrefetch = 0;
  static Mask mask(int) { return 1; }
  static Reg zero() { return E(0); }
  static Reg set1(T x) { return x; }
  static Reg load(T const* p) { return *p; }
  static Reg load(T const* p, Mask) { return *p; }
  static void store(T* p, Reg r) { *p = r; }
  static void store(T* p, Reg r, Mask) { *p = r; }
  static Reg fma(Reg a, Reg b, Reg c) { return a * b + c; }
  static Reg mul(Reg a, Reg b) { return a * b; }
};

}  // namespace

// Four rows by two columns: eight accumulators, four elements of A and the
// element of B in the 16 registers of the baseline x86-64.
void brgemm_portable(BrgemmArgs<float> const& args) { run_tiles<Scalar<float>, 4, 2>(args); }
void brgemm_portable(BrgemmArgs<double> const& args) { run_tiles<Scalar<double>, 4, 2>(args); }

}  // namespace nerva::gemm_detail
