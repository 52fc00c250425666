#pragma once

// AVX-512 micro-kernels (F and BW), compiled with -mavx512f -mavx512bw and
// called only on CPUs that have both. A destination row of a tile is one
// 64-byte register, so every row store writes a whole line. The tile
// transposes are always inlined into the loops: a call makes the rows go
// through memory, and GCC stops inlining them once the unit grows (measured:
// 0.8x on 4-byte elements).
#include <cstdint>

#include "permute/avx512_intrinsics.hpp"
#include "permute/kernels_avx2.hpp"
#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

inline __m512i load512(void const* p) { return _mm512_loadu_si512(p); }

// Transposes the 4 x 4 grid of 128-bit lanes of x[0..3]: lane l of out[k]
// becomes lane k of x[l].
[[gnu::always_inline]] inline void transpose_lanes(__m512i const* x, __m512i* out) {
  __m512i const p = _mm512_shuffle_i64x2(x[0], x[1], 0x44);
  __m512i const q = _mm512_shuffle_i64x2(x[0], x[1], 0xEE);
  __m512i const r = _mm512_shuffle_i64x2(x[2], x[3], 0x44);
  __m512i const s = _mm512_shuffle_i64x2(x[2], x[3], 0xEE);
  out[0] = _mm512_shuffle_i64x2(p, r, 0x88);
  out[1] = _mm512_shuffle_i64x2(p, r, 0xDD);
  out[2] = _mm512_shuffle_i64x2(q, s, 0x88);
  out[3] = _mm512_shuffle_i64x2(q, s, 0xDD);
}

// Lane l holds the 16 bytes at p + l * stride.
[[gnu::always_inline]] inline __m512i load_lanes(void const* p, std::size_t stride) {
  auto const at = [p, stride](std::size_t l) {
    return _mm_loadu_si128(
        reinterpret_cast<__m128i const*>(static_cast<char const*>(p) + l * stride));
  };
  __m512i v = _mm512_castsi128_si512(at(0));
  v = _mm512_inserti32x4(v, at(1), 1);
  v = _mm512_inserti32x4(v, at(2), 2);
  return _mm512_inserti32x4(v, at(3), 3);
}

template <class E>
struct Avx512Base {
  using Elem = E;
  using Vec = __m512i;
  static Vec load(Elem const* s) { return load512(s); }
  static void store(Elem* d, Vec v) { _mm512_storeu_si512(d, v); }
  static void stream(Elem* d, Vec v) { _mm512_stream_si512(reinterpret_cast<__m512i*>(d), v); }
  static void fence() { _mm_sfence(); }
};

// 64 x 64 bytes. Each group of 16 rows is four 16 x 16 byte tiles side by
// side in the lanes (four rounds of in-lane byte interleaves); a lane
// transpose across the four groups then assembles whole destination rows,
// which go out as they are made: the tile is twice the register file.
struct Avx512U8 : Avx512Base<std::uint8_t> {
  using Small = Avx2U8;
  static constexpr std::size_t kTile = 64;
  static constexpr std::size_t kBlockA = 128;
  static constexpr std::size_t kBlockB = 64;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  [[gnu::always_inline]] static void group(Elem const* s, std::size_t sA, Vec* r) {
    for (int i = 0; i < 16; ++i) r[i] = load512(s + i * sA);
    interleave_rounds(r);
  }
  [[gnu::always_inline]] static void interleave_rounds(Vec* r) {
    Vec t[16];
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 8; ++i) {
        t[2 * i] = _mm512_unpacklo_epi8(r[i], r[i + 8]);
        t[2 * i + 1] = _mm512_unpackhi_epi8(r[i], r[i + 8]);
      }
      for (int i = 0; i < 16; ++i) r[i] = t[i];
    }
  }
  [[gnu::always_inline]] static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    transpose_to(s, sA, [rows](std::size_t j, Vec v) { rows[j] = v; });
  }
  template <class Put>
  [[gnu::always_inline]] static void transpose_to(Elem const* s, std::size_t sA, Put&& put) {
    Vec g[4][16];
    for (int k = 0; k < 4; ++k) group(s + 16 * k * sA, sA, g[k]);
    for (int j = 0; j < 16; ++j) {
      Vec const x[4] = {g[0][j], g[1][j], g[2][j], g[3][j]};
      Vec out[4];
      transpose_lanes(x, out);
      for (int l = 0; l < 4; ++l) put(16 * l + j, out[l]);
    }
  }
};

// The same tile for source rows that do not start on a line boundary, where a
// 64-byte load reads two lines: register j holds in lane l 16 bytes of row
// 16 * l + j, loads that cross a line a quarter of the time at most. The
// rounds of interleaves alone then leave whole destination rows, 16 at a time.
struct Avx512U8Unaligned : Avx512U8 {
  [[gnu::always_inline]] static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    transpose_to(s, sA, [rows](std::size_t j, Vec v) { rows[j] = v; });
  }
  template <class Put>
  [[gnu::always_inline]] static void transpose_to(Elem const* s, std::size_t sA, Put&& put) {
    for (int c = 0; c < 4; ++c) {
      Vec r[16];
      for (int i = 0; i < 16; ++i) r[i] = load_lanes(s + i * sA + 16 * c, 16 * sA);
      interleave_rounds(r);
      for (int i = 0; i < 16; ++i) put(16 * c + i, r[i]);
    }
  }
};

// 16 x 16 elements of 4 bytes: interleave pairs of rows, then pairs of
// pairs, within lanes; lane transposes finish the columns.
struct Avx512U32 : Avx512Base<std::uint32_t> {
  using Small = Avx2U32;
  static constexpr std::size_t kTile = 16;
  static constexpr std::size_t kBlockA = 32;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  [[gnu::always_inline]] static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    __m512 r[16], t[16];
    Vec u[16];
    for (int i = 0; i < 16; ++i) r[i] = _mm512_castsi512_ps(load512(s + i * sA));
    for (int i = 0; i < 16; i += 2) {
      t[i] = _mm512_unpacklo_ps(r[i], r[i + 1]);
      t[i + 1] = _mm512_unpackhi_ps(r[i], r[i + 1]);
    }
    for (int i = 0; i < 16; i += 4) {
      u[i] = _mm512_castps_si512(_mm512_shuffle_ps(t[i], t[i + 2], 0x44));
      u[i + 1] = _mm512_castps_si512(_mm512_shuffle_ps(t[i], t[i + 2], 0xEE));
      u[i + 2] = _mm512_castps_si512(_mm512_shuffle_ps(t[i + 1], t[i + 3], 0x44));
      u[i + 3] = _mm512_castps_si512(_mm512_shuffle_ps(t[i + 1], t[i + 3], 0xEE));
    }
    // Lane l of u[4 * i + j] holds column 4 * l + j of rows 4 * i .. 4 * i + 3.
    for (int j = 0; j < 4; ++j) {
      Vec const x[4] = {u[j], u[4 + j], u[8 + j], u[12 + j]};
      Vec out[4];
      transpose_lanes(x, out);
      for (int l = 0; l < 4; ++l) rows[4 * l + j] = out[l];
    }
  }
};

// The same for source rows that do not start on a line boundary: register j
// of band c holds in lane l four elements of row 4 * l + j, so one in-lane
// 4 x 4 transpose leaves whole destination rows.
struct Avx512U32Unaligned : Avx512U32 {
  [[gnu::always_inline]] static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    for (int c = 0; c < 4; ++c) {
      __m512 r[4];
      for (int j = 0; j < 4; ++j) {
        r[j] = _mm512_castsi512_ps(load_lanes(s + j * sA + 4 * c, 4 * sA * sizeof(Elem)));
      }
      __m512 const t0 = _mm512_unpacklo_ps(r[0], r[1]), t1 = _mm512_unpackhi_ps(r[0], r[1]);
      __m512 const t2 = _mm512_unpacklo_ps(r[2], r[3]), t3 = _mm512_unpackhi_ps(r[2], r[3]);
      rows[4 * c] = _mm512_castps_si512(_mm512_shuffle_ps(t0, t2, 0x44));
      rows[4 * c + 1] = _mm512_castps_si512(_mm512_shuffle_ps(t0, t2, 0xEE));
      rows[4 * c + 2] = _mm512_castps_si512(_mm512_shuffle_ps(t1, t3, 0x44));
      rows[4 * c + 3] = _mm512_castps_si512(_mm512_shuffle_ps(t1, t3, 0xEE));
    }
  }
};

// Source rows on line boundaries (and batches of planes that keep them there)
// take the first kernel, others the second; one choice per call.
template <class Aligned, class Unaligned>
void transpose_by_rows(void const* src, void* dst, TransposeShape const& s) {
  std::size_t const w = sizeof(typename Aligned::Elem);
  auto const bits = reinterpret_cast<std::uintptr_t>(src) | s.sA * w | (s.count > 1 ? s.sC * w : 0);
  if (bits % kLineBytes == 0) {
    transpose_planes<Aligned>(src, dst, s);
  } else {
    transpose_planes<Unaligned>(src, dst, s);
  }
}

// 8 x 8 elements of 8 bytes.
struct Avx512U64 : Avx512Base<std::uint64_t> {
  using Small = Avx2U64;
  static constexpr std::size_t kTile = 8;
  static constexpr std::size_t kBlockA = 16;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  [[gnu::always_inline]] static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    __m512d r[8];
    Vec t[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm512_castsi512_pd(load512(s + i * sA));
    for (int i = 0; i < 8; i += 2) {
      t[i] = _mm512_castpd_si512(_mm512_unpacklo_pd(r[i], r[i + 1]));
      t[i + 1] = _mm512_castpd_si512(_mm512_unpackhi_pd(r[i], r[i + 1]));
    }
    // Lane l of t[2 * i + h] holds column 2 * l + h of rows 2 * i, 2 * i + 1.
    for (int h = 0; h < 2; ++h) {
      Vec const x[4] = {t[h], t[2 + h], t[4 + h], t[6 + h]};
      Vec out[4];
      transpose_lanes(x, out);
      for (int l = 0; l < 4; ++l) rows[2 * l + h] = out[l];
    }
  }
};

}  // namespace
}  // namespace qel_permute::detail
