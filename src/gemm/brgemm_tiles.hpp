#pragma once

// The register-tile loops of the batch-reduce product, shared by every
// instruction set. Each kernel file includes this header with the flags of its
// instruction set and instantiates it with its own vector type V; everything
// here has internal linkage, so no copy built for one instruction set can
// stand in for another's at link time.
//
// V describes one vector register of L elements of type T:
//   Reg, Mask, L, T, kPrefetch (columns of A to prefetch ahead, 0 for none)
//   zero(), set1(x), load(p), load(p, mask), store(p, r), store(p, r, mask),
//   fma(a, b, c) = a * b + c, mul(a, b), mask(lanes) for 1 <= lanes <= L.
// The masked forms touch only the first `lanes` elements at p: rows past m
// are never read or written, even in the padding of a leading dimension.

#include <cstdint>
#include <utility>

#include "gemm/brgemm_kernels.hpp"

namespace nerva::gemm_detail {
namespace {

// The tile of C at rows [r0, r0 + MV * L) and columns [c0, c0 + NR) (with
// Masked, the last vector holds only the rows that `mask` selects): loaded
// once, or started from zero when beta is 0, it takes every product of the
// batch and is stored once.
//
// Per step p of a product: MV vectors of column p of A, and NR elements of
// row p of B, each broadcast straight from memory into its multiply-adds.
template <class V, int MV, int NR, bool Masked>
void tile(BrgemmArgs<typename V::T> const& a, long r0, long c0, typename V::Mask mask) {
  using T = typename V::T;
  using Reg = typename V::Reg;
  constexpr int L = V::L;
  // Lines of the next columns of A that the hardware would otherwise fetch
  // only on demand: the columns of all products are one stream from L2.
  constexpr int kLines = (MV * L * int(sizeof(T)) + 63) / 64;
  auto load = [mask](T const* p, int v) {
    return Masked && v == MV - 1 ? V::load(p, mask) : V::load(p);
  };
  long const lda = a.lda, ldb = a.ldb, ldc = a.ldc;
  T* const c = a.C + r0 + c0 * ldc;

  Reg acc[MV][NR];
  if (a.beta == T(0)) {
#pragma GCC unroll 16
    for (int j = 0; j < NR; ++j)
#pragma GCC unroll 4
      for (int v = 0; v < MV; ++v) acc[v][j] = V::zero();
  } else {
    Reg const beta = V::set1(a.beta);
    bool const scale = a.beta != T(1);
#pragma GCC unroll 16
    for (int j = 0; j < NR; ++j)
#pragma GCC unroll 4
      for (int v = 0; v < MV; ++v) {
        acc[v][j] = load(c + j * ldc + v * L, v);
        if (scale) acc[v][j] = V::mul(acc[v][j], beta);
      }
  }

  T const* const* const A = a.A;
  T const* const* const B = a.B;
  long const b0 = c0 * ldb;
  for (long i = 0; i < a.count; ++i) {
    T const* pa = A[i] + r0;
    T const* pb = B[i] + b0;
    T const* const pb_end = pb + a.k;
    // An address, not a pointer: it runs past the end of A[i] into the next
    // product's columns (which the next product's first steps then find in
    // the cache when the products lie one after another).
    std::uintptr_t pf = reinterpret_cast<std::uintptr_t>(pa) + V::kPrefetch * lda * sizeof(T);
#pragma GCC unroll 2
    for (; pb != pb_end; ++pb, pa += lda, pf += lda * sizeof(T)) {
      if constexpr (V::kPrefetch > 0) {
#pragma GCC unroll 8
        for (int line = 0; line < kLines; ++line)
          __builtin_prefetch(reinterpret_cast<void const*>(pf + 64 * line), 0, 3);
      }
      Reg col[MV];
#pragma GCC unroll 4
      for (int v = 0; v < MV; ++v) col[v] = load(pa + v * L, v);
#pragma GCC unroll 16
      for (int j = 0; j < NR; ++j) {
        Reg const b = V::set1(pb[j * ldb]);
#pragma GCC unroll 4
        for (int v = 0; v < MV; ++v) acc[v][j] = V::fma(col[v], b, acc[v][j]);
      }
    }
  }

#pragma GCC unroll 16
  for (int j = 0; j < NR; ++j)
#pragma GCC unroll 4
    for (int v = 0; v < MV; ++v) {
      T* const out = c + j * ldc + v * L;
      if (Masked && v == MV - 1)
        V::store(out, acc[v][j], mask);
      else
        V::store(out, acc[v][j]);
    }
}

template <class V>
using TileFn = void (*)(BrgemmArgs<typename V::T> const&, long, long, typename V::Mask);

// tile<V, mv, nr, Masked> for mv in 1..MV and nr in 1..NR, at [mv - 1][nr - 1].
template <class V, int MV, int NR, bool Masked>
struct TileTable {
  TileFn<V> fn[MV][NR];

  constexpr TileTable() : fn() { fill(std::make_index_sequence<MV * NR>()); }

 private:
  template <std::size_t... I>
  constexpr void fill(std::index_sequence<I...>) {
    ((fn[I / NR][I % NR] = &tile<V, int(I / NR) + 1, int(I % NR) + 1, Masked>), ...);
  }
};

// The whole product with tiles of at most MV vectors by NR columns. Columns
// are cut into blocks of nearly equal width (16 columns by a 6-column tile
// are blocks of 6, 5 and 5, not 6, 6 and 4), so that every block keeps as
// many independent accumulators as it can. Within a column block the row
// blocks follow each other and share its columns of B in the cache.
template <class V, int MV, int NR>
void run_tiles(BrgemmArgs<typename V::T> const& a) {
  static constexpr TileTable<V, MV, NR, false> full{};
  static constexpr TileTable<V, MV, NR, true> masked{};
  constexpr long MR = long(MV) * V::L;

  long const full_rows = a.m / MR * MR, rest = a.m - full_rows;
  int const rest_vectors = int((rest + V::L - 1) / V::L);
  int const tail = int(rest - (rest_vectors - 1) * V::L);  // rows in the last vector
  bool const rest_masked = rest > 0 && tail != V::L;
  typename V::Mask const tail_mask = V::mask(rest_masked ? tail : V::L);

  long const blocks = (a.n + NR - 1) / NR, narrow = a.n / blocks, wide = a.n % blocks;
  long c0 = 0;
  for (long b = 0; b < blocks; ++b) {
    int const nr = int(narrow + (b < wide ? 1 : 0));
    TileFn<V> const body = full.fn[MV - 1][nr - 1];
    for (long r0 = 0; r0 < full_rows; r0 += MR) body(a, r0, c0, tail_mask);
    if (rest > 0) {
      auto const& table = rest_masked ? masked.fn : full.fn;
      table[rest_vectors - 1][nr - 1](a, full_rows, c0, tail_mask);
    }
    c0 += nr;
  }
}

}  // namespace
}  // namespace nerva::gemm_detail
