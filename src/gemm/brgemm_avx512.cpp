// The AVX-512 kernels, built with -mavx512f and called only on CPUs that have
// it. Rows past m are masked in every load and store.

// GCC 12's masked-load intrinsics initialise their pass-through operand from
// itself, which -Wuninitialized reports at every use; the diagnostic is tied
// to the header's lines, so it is turned off around this one include.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif

#include "gemm/brgemm_tiles.hpp"

namespace nerva::gemm_detail {
namespace {

struct Avx512Float {
  using T = float;
  using Reg = __m512;
  using Mask = __mmask16;
  static constexpr int L = 16;
  // The hardware prefetchers keep up: software prefetches of A measured 3-5%
  // slower on the layer shapes (faster only where A fills most of L2).
  static constexpr long kPrefetch = 0;
  static Mask mask(int lanes) { return Mask((1u << lanes) - 1); }
  static Reg zero() { return _mm512_setzero_ps(); }
  static Reg set1(T x) { return _mm512_set1_ps(x); }
  static Reg load(T const* p) { return _mm512_loadu_ps(p); }
  static Reg load(T const* p, Mask m) { return _mm512_maskz_loadu_ps(m, p); }
  static void store(T* p, Reg r) { _mm512_storeu_ps(p, r); }
  static void store(T* p, Reg r, Mask m) { _mm512_mask_storeu_ps(p, m, r); }
  static Reg fma(Reg a, Reg b, Reg c) { return _mm512_fmadd_ps(a, b, c); }
  static Reg mul(Reg a, Reg b) { return _mm512_mul_ps(a, b); }
};

struct Avx512Double {
  using T = double;
  using Reg = __m512d;
  using Mask = __mmask8;
  static constexpr int L = 8;
  static constexpr long kPrefetch = 0;  // as for float
  static Mask mask(int lanes) { return Mask((1u << lanes) - 1); }
  static Reg zero() { return _mm512_setzero_pd(); }
  static Reg set1(T x) { return _mm512_set1_pd(x); }
  static Reg load(T const* p) { return _mm512_loadu_pd(p); }
  static Reg load(T const* p, Mask m) { return _mm512_maskz_loadu_pd(m, p); }
  static void store(T* p, Reg r) { _mm512_storeu_pd(p, r); }
  static void store(T* p, Reg r, Mask m) { _mm512_mask_storeu_pd(p, m, r); }
  static Reg fma(Reg a, Reg b, Reg c) { return _mm512_fmadd_pd(a, b, c); }
  static Reg mul(Reg a, Reg b) { return _mm512_mul_pd(a, b); }
};

}  // namespace

// Four vectors of rows by six columns for float (64 rows: one block of output
// channels), by seven for double: 24 or 28 accumulators and the four vectors
// of A in at most 32 registers, B broadcast from memory into each
// multiply-add. Measured against 32 x 14, 48 x 8 and 32 x 12 (float) and
// 16 x 14 (double) on the layer shapes: 64 x 6 is as fast as the best of
// them everywhere, and keeps a large power-of-two ldb from overflowing a
// cache set (14 columns of B in one set of 12 ways); for double, 32 x 7 was
// 3-10% faster than 32 x 6 except on 16 columns.
void brgemm_avx512(BrgemmArgs<float> const& args) { run_tiles<Avx512Float, 4, 6>(args); }
void brgemm_avx512(BrgemmArgs<double> const& args) { run_tiles<Avx512Double, 4, 7>(args); }

}  // namespace nerva::gemm_detail
