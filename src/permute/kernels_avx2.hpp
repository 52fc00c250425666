#pragma once

// AVX2 micro-kernels, compiled with -mavx2 and called only on CPUs that have
// it. Each names the SSE2 kernel of its width for narrow planes.
#include <immintrin.h>

#include <cstdint>

#include "permute/kernels_sse2.hpp"
#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

inline __m256i load256(void const* p) { return _mm256_loadu_si256(static_cast<__m256i const*>(p)); }

template <class E>
struct Avx2Base {
  using Elem = E;
  using Vec = __m256i;
  static Vec load(Elem const* s) { return load256(s); }
  static void store(Elem* d, Vec v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), v); }
  static void stream(Elem* d, Vec v) { _mm256_stream_si256(reinterpret_cast<__m256i*>(d), v); }
  static void fence() { _mm_sfence(); }
};

// 32 x 32 bytes. Rows 0-15 and 16-31 are each transposed as two 16 x 16 byte
// tiles side by side in the 128-bit lanes (four rounds of in-lane byte
// interleaves, see the SSE2 kernel); the lane halves are then recombined.
struct Avx2U8 : Avx2Base<std::uint8_t> {
  using Small = Sse2U8;
  static constexpr std::size_t kTile = 32;
  static constexpr std::size_t kBlockA = 128;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void half(Elem const* s, std::size_t sA, Vec* r) {
    Vec t[16];
    for (int i = 0; i < 16; ++i) r[i] = load256(s + i * sA);
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 8; ++i) {
        t[2 * i] = _mm256_unpacklo_epi8(r[i], r[i + 8]);
        t[2 * i + 1] = _mm256_unpackhi_epi8(r[i], r[i + 8]);
      }
      for (int i = 0; i < 16; ++i) r[i] = t[i];
    }
  }
  static void transpose(Elem const* s, std::size_t sA, Vec* r) {
    Vec x[16], y[16];
    half(s, sA, x);
    half(s + 16 * sA, sA, y);
    for (int j = 0; j < 16; ++j) {
      r[j] = _mm256_permute2x128_si256(x[j], y[j], 0x20);
      r[j + 16] = _mm256_permute2x128_si256(x[j], y[j], 0x31);
    }
  }
};

// Row i and row i + H (H half the tile) of one 16-byte column group share a
// register: lane 0 from row i, lane 1 from row i + H. Loading the lanes
// straight from memory replaces the lane-crossing shuffles of a register
// transpose; what is left is a transpose within each lane.
inline __m256i load_lanes(void const* lo, void const* hi) {
  __m128i const l = _mm_loadu_si128(static_cast<__m128i const*>(lo));
  __m128i const h = _mm_loadu_si128(static_cast<__m128i const*>(hi));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(l), h, 1);
}

// 8 x 8 elements of 4 bytes: two 4 x 4 in-lane transposes.
struct Avx2U32 : Avx2Base<std::uint32_t> {
  using Small = Sse2U32;
  static constexpr std::size_t kTile = 8;
  static constexpr std::size_t kBlockA = 32;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* out) {
    for (int g = 0; g < 2; ++g) {
      __m256 r[4];
      for (int i = 0; i < 4; ++i) {
        r[i] = _mm256_castsi256_ps(load_lanes(s + i * sA + 4 * g, s + (i + 4) * sA + 4 * g));
      }
      __m256 const t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
      __m256 const t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
      out[4 * g] = _mm256_castps_si256(_mm256_shuffle_ps(t0, t2, 0x44));
      out[4 * g + 1] = _mm256_castps_si256(_mm256_shuffle_ps(t0, t2, 0xEE));
      out[4 * g + 2] = _mm256_castps_si256(_mm256_shuffle_ps(t1, t3, 0x44));
      out[4 * g + 3] = _mm256_castps_si256(_mm256_shuffle_ps(t1, t3, 0xEE));
    }
  }
};

// 4 x 4 elements of 8 bytes: two 2 x 2 in-lane transposes.
struct Avx2U64 : Avx2Base<std::uint64_t> {
  using Small = Sse2U64;
  static constexpr std::size_t kTile = 4;
  static constexpr std::size_t kBlockA = 16;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* out) {
    for (int g = 0; g < 2; ++g) {
      __m256i const r0 = load_lanes(s + 2 * g, s + 2 * sA + 2 * g);
      __m256i const r1 = load_lanes(s + sA + 2 * g, s + 3 * sA + 2 * g);
      out[2 * g] = _mm256_unpacklo_epi64(r0, r1);
      out[2 * g + 1] = _mm256_unpackhi_epi64(r0, r1);
    }
  }
};

}  // namespace
}  // namespace qel_permute::detail
