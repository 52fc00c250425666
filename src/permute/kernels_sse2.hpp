#pragma once

// SSE2 micro-kernels (the x86-64 baseline). The wider instruction sets use
// them too, for planes narrower than their own tiles. Each transposes a square tile of
// one 128-bit register per row by repeated interleaving: interleaving row i
// with row i + T/2 rotates the bits of the (row, column) index by one, so
// log2(T) rounds leave the tile transposed.
#include <emmintrin.h>

#include <cstdint>

#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

inline __m128i load128(void const* p) { return _mm_loadu_si128(static_cast<__m128i const*>(p)); }

template <class E>
struct Sse2Base {
  using Elem = E;
  using Vec = __m128i;
  using Small = void;
  static Vec load(Elem const* s) { return load128(s); }
  static void store(Elem* d, Vec v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(d), v); }
  static void stream(Elem* d, Vec v) { _mm_stream_si128(reinterpret_cast<__m128i*>(d), v); }
  static void fence() { _mm_sfence(); }
};

// 16 x 16 bytes: four rounds of byte interleaves.
struct Sse2U8 : Sse2Base<std::uint8_t> {
  static constexpr std::size_t kTile = 16;
  static constexpr std::size_t kBlockA = 128;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* r) {
    Vec t[16];
    for (int i = 0; i < 16; ++i) r[i] = load128(s + i * sA);
    for (int round = 0; round < 4; ++round) {
      for (int i = 0; i < 8; ++i) {
        t[2 * i] = _mm_unpacklo_epi8(r[i], r[i + 8]);
        t[2 * i + 1] = _mm_unpackhi_epi8(r[i], r[i + 8]);
      }
      for (int i = 0; i < 16; ++i) r[i] = t[i];
    }
  }
};

// 4 x 4 elements of 4 bytes.
struct Sse2U32 : Sse2Base<std::uint32_t> {
  static constexpr std::size_t kTile = 4;
  static constexpr std::size_t kBlockA = 32;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* r) {
    Vec const r0 = load128(s), r1 = load128(s + sA), r2 = load128(s + 2 * sA),
              r3 = load128(s + 3 * sA);
    Vec const t0 = _mm_unpacklo_epi32(r0, r1), t1 = _mm_unpacklo_epi32(r2, r3);
    Vec const t2 = _mm_unpackhi_epi32(r0, r1), t3 = _mm_unpackhi_epi32(r2, r3);
    r[0] = _mm_unpacklo_epi64(t0, t1);
    r[1] = _mm_unpackhi_epi64(t0, t1);
    r[2] = _mm_unpacklo_epi64(t2, t3);
    r[3] = _mm_unpackhi_epi64(t2, t3);
  }
};

// 2 x 2 elements of 8 bytes.
struct Sse2U64 : Sse2Base<std::uint64_t> {
  static constexpr std::size_t kTile = 2;
  static constexpr std::size_t kBlockA = 16;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* r) {
    Vec const r0 = load128(s), r1 = load128(s + sA);
    r[0] = _mm_unpacklo_epi64(r0, r1);
    r[1] = _mm_unpackhi_epi64(r0, r1);
  }
};

}  // namespace
}  // namespace qel_permute::detail
