// AVX2 micro-kernels, compiled with -mavx2 and called only on CPUs that have
// it.
#include <immintrin.h>

#include <cstdint>

#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

inline __m256i load(void const* p) { return _mm256_loadu_si256(static_cast<__m256i const*>(p)); }

template <class E>
struct Avx2Base {
  using Elem = E;
  using Vec = __m256i;
  static void store(Elem* d, Vec v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(d), v); }
  static void stream(Elem* d, Vec v) { _mm256_stream_si256(reinterpret_cast<__m256i*>(d), v); }
  static void fence() { _mm_sfence(); }
};

// 32 x 32 bytes. Rows 0-15 and 16-31 are each transposed as two 16 x 16 byte
// tiles side by side in the 128-bit lanes (four rounds of in-lane byte
// interleaves, see the SSE2 kernel); the lane halves are then recombined.
struct Avx2U8 : Avx2Base<std::uint8_t> {
  static constexpr std::size_t kTile = 32;
  static constexpr std::size_t kBlockA = 128;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void half(Elem const* s, std::size_t sA, Vec* r) {
    Vec t[16];
    for (int i = 0; i < 16; ++i) r[i] = load(s + i * sA);
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

// 8 x 8 elements of 4 bytes.
struct Avx2U32 : Avx2Base<std::uint32_t> {
  static constexpr std::size_t kTile = 8;
  static constexpr std::size_t kBlockA = 32;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* out) {
    __m256 r[8], t[8], u[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm256_castsi256_ps(load(s + i * sA));
    for (int i = 0; i < 8; i += 2) {
      t[i] = _mm256_unpacklo_ps(r[i], r[i + 1]);
      t[i + 1] = _mm256_unpackhi_ps(r[i], r[i + 1]);
    }
    for (int i = 0; i < 8; i += 4) {
      u[i] = _mm256_shuffle_ps(t[i], t[i + 2], 0x44);
      u[i + 1] = _mm256_shuffle_ps(t[i], t[i + 2], 0xEE);
      u[i + 2] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0x44);
      u[i + 3] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0xEE);
    }
    for (int j = 0; j < 4; ++j) {
      out[j] = _mm256_castps_si256(_mm256_permute2f128_ps(u[j], u[j + 4], 0x20));
      out[j + 4] = _mm256_castps_si256(_mm256_permute2f128_ps(u[j], u[j + 4], 0x31));
    }
  }
};

// 4 x 4 elements of 8 bytes.
struct Avx2U64 : Avx2Base<std::uint64_t> {
  static constexpr std::size_t kTile = 4;
  static constexpr std::size_t kBlockA = 16;
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* out) {
    __m256d const r0 = _mm256_castsi256_pd(load(s)), r1 = _mm256_castsi256_pd(load(s + sA));
    __m256d const r2 = _mm256_castsi256_pd(load(s + 2 * sA));
    __m256d const r3 = _mm256_castsi256_pd(load(s + 3 * sA));
    __m256d const t0 = _mm256_unpacklo_pd(r0, r1), t1 = _mm256_unpackhi_pd(r0, r1);
    __m256d const t2 = _mm256_unpacklo_pd(r2, r3), t3 = _mm256_unpackhi_pd(r2, r3);
    out[0] = _mm256_castpd_si256(_mm256_permute2f128_pd(t0, t2, 0x20));
    out[1] = _mm256_castpd_si256(_mm256_permute2f128_pd(t1, t3, 0x20));
    out[2] = _mm256_castpd_si256(_mm256_permute2f128_pd(t0, t2, 0x31));
    out[3] = _mm256_castpd_si256(_mm256_permute2f128_pd(t1, t3, 0x31));
  }
};

}  // namespace

TransposeFn transpose_avx2(std::size_t width) {
  switch (width) {
    case 1:
      return &transpose_planes<Avx2U8>;
    case 4:
      return &transpose_planes<Avx2U32>;
    case 8:
      return &transpose_planes<Avx2U64>;
    default:
      return nullptr;
  }
}

}  // namespace qel_permute::detail
