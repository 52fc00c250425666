// Byte kernels for CPUs with AVX-512 VBMI, compiled with -mavx512vbmi and
// called only on CPUs that have it. The square tiles are those of AVX-512;
// what VBMI adds is the byte permute across a whole register (and across two),
// which interleaves three byte planes into packed triples, and splits them
// again, with two permutes per 64 bytes. The generic loop for such planes (an
// RGB image into or out of planes, say) runs at about half of memcpy's speed.
#include <array>

#include "permute/kernels_avx512.hpp"

namespace qel_permute::detail {
namespace {

// Three result registers, each from 128 bytes of two sources through one
// two-register permute (`pair`), then from a third source through a masked
// one-register permute (`last`, on the bytes of `lastMask`).
struct ThreeSourceIndex {
  std::array<std::uint8_t, 64> pair[3];
  std::array<std::uint8_t, 64> last[3];
  std::uint64_t lastMask[3];
  constexpr void set(int r, int k, bool fromLast, int at) {
    pair[r][k] = static_cast<std::uint8_t>(fromLast ? 0 : at);
    last[r][k] = static_cast<std::uint8_t>(fromLast ? at : 0);
    if (fromLast) lastMask[r] |= std::uint64_t{1} << k;
  }
};

// Byte k of packed register o is byte 64 * o + k of the triples: component
// e % 3 of element e / 3, taken from plane (component) e % 3.
constexpr ThreeSourceIndex make_triple_index() {
  ThreeSourceIndex t{};
  for (int o = 0; o < 3; ++o) {
    for (int k = 0; k < 64; ++k) {
      int const e = 64 * o + k, component = e % 3, element = e / 3;
      t.set(o, k, component == 2, element + 64 * (component == 1));
    }
  }
  return t;
}

// Byte k of plane c is byte 3 * k + c of the 192 packed bytes: from the first
// two registers when below 128, else from the third.
constexpr ThreeSourceIndex make_plane_index() {
  ThreeSourceIndex t{};
  for (int c = 0; c < 3; ++c) {
    for (int k = 0; k < 64; ++k) {
      int const at = 3 * k + c;
      t.set(c, k, at >= 128, at < 128 ? at : at - 128);
    }
  }
  return t;
}

constexpr ThreeSourceIndex kTriples = make_triple_index();
constexpr ThreeSourceIndex kPlanes = make_plane_index();

inline __m512i index(std::array<std::uint8_t, 64> const& a) { return _mm512_loadu_si512(a.data()); }

inline __mmask64 first(std::size_t n) { return n >= 64 ? ~__mmask64{0} : (__mmask64{1} << n) - 1; }

// dst[3 * b + a] = src[a * sA + b] for a < 3, b < B.
void interleave3(std::uint8_t const* src, std::uint8_t* dst, std::size_t B, std::size_t sA) {
  __m512i pair[3], last[3];
  for (int o = 0; o < 3; ++o) {
    pair[o] = index(kTriples.pair[o]);
    last[o] = index(kTriples.last[o]);
  }
  for (std::size_t b = 0; b < B; b += 64) {
    std::size_t const n = B - b < 64 ? B - b : 64;
    __mmask64 const in = first(n);
    __m512i const p0 = _mm512_maskz_loadu_epi8(in, src + b);
    __m512i const p1 = _mm512_maskz_loadu_epi8(in, src + sA + b);
    __m512i const p2 = _mm512_maskz_loadu_epi8(in, src + 2 * sA + b);
    for (std::size_t o = 0; o < 3; ++o) {
      __m512i v = _mm512_permutex2var_epi8(p0, pair[o], p1);
      v = _mm512_mask_permutexvar_epi8(v, kTriples.lastMask[o], last[o], p2);
      std::size_t const bytes = 3 * n;
      if (bytes <= 64 * o) break;
      _mm512_mask_storeu_epi8(dst + 3 * b + 64 * o, first(bytes - 64 * o), v);
    }
  }
}

// dst[b * dB + a] = src[3 * a + b] for a < A, b < 3.
void split3(std::uint8_t const* src, std::uint8_t* dst, std::size_t A, std::size_t dB) {
  __m512i pair[3], last[3];
  for (int c = 0; c < 3; ++c) {
    pair[c] = index(kPlanes.pair[c]);
    last[c] = index(kPlanes.last[c]);
  }
  for (std::size_t a = 0; a < A; a += 64) {
    std::size_t const n = A - a < 64 ? A - a : 64, bytes = 3 * n;
    std::uint8_t const* s = src + 3 * a;
    __m512i const q0 = _mm512_maskz_loadu_epi8(first(bytes), s);
    __m512i const q1 = _mm512_maskz_loadu_epi8(bytes > 64 ? first(bytes - 64) : 0, s + 64);
    __m512i const q2 = _mm512_maskz_loadu_epi8(bytes > 128 ? first(bytes - 128) : 0, s + 128);
    for (std::size_t c = 0; c < 3; ++c) {
      __m512i v = _mm512_permutex2var_epi8(q0, pair[c], q1);
      v = _mm512_mask_permutexvar_epi8(v, kPlanes.lastMask[c], last[c], q2);
      _mm512_mask_storeu_epi8(dst + c * dB + a, first(n), v);
    }
  }
}

// A byte kernel of AVX-512 that also takes three packed planes, either way.
template <class Base>
struct WithTriples : Base {
  using Elem = typename Base::Elem;
  // False leaves the plane to the generic loops.
  static bool thin(Elem const* src, Elem* dst, std::size_t A, std::size_t B, std::size_t sA,
                   std::size_t dB) {
    if (A == 3 && dB == 3) {
      interleave3(src, dst, B, sA);
      return true;
    }
    if (B == 3 && sA == 3) {
      split3(src, dst, A, dB);
      return true;
    }
    return false;
  }
};

}  // namespace

TransposeFn transpose_avx512vbmi(std::size_t width) {
  if (width != 1) return transpose_avx512(width);
  return &transpose_by_rows<WithTriples<Avx512U8>, WithTriples<Avx512U8Unaligned>>;
}

}  // namespace qel_permute::detail
