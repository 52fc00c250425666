#pragma once

// Cache-blocked loop nest around a register-level micro-kernel. Included by
// each kernel file, which compiles it for its own instruction set; the kernel
// types live in anonymous namespaces there, so every instance stays local to
// its file.
//
// A kernel type K provides:
//   using Elem;                      // an unsigned integer of the element width
//   static constexpr size_t kTile;   // the micro-tile is kTile x kTile
//   static constexpr size_t kBlock;  // cache block edge, a multiple of kTile
//   static void tile(Elem const* s, size_t sA, Elem* d, size_t dB);
//     // d[j * dB + i] = s[i * sA + j] for i, j < kTile

#include <cstddef>

#include "permute/kernels.hpp"

namespace qel_permute::detail {

template <class Elem>
inline void transpose_edge(Elem const* src, Elem* dst, std::size_t a0, std::size_t a1,
                           std::size_t b0, std::size_t b1, std::size_t sA, std::size_t dB) {
  for (std::size_t b = b0; b < b1; ++b) {
    Elem* d = dst + b * dB;
    for (std::size_t a = a0; a < a1; ++a) d[a] = src[a * sA + b];
  }
}

template <class K>
inline void transpose_plane(typename K::Elem const* src, typename K::Elem* dst, std::size_t A,
                            std::size_t B, std::size_t sA, std::size_t dB) {
  constexpr std::size_t T = K::kTile;
  constexpr std::size_t BL = K::kBlock;
  std::size_t const Af = A - A % T;
  std::size_t const Bf = B - B % T;
  for (std::size_t a0 = 0; a0 < Af; a0 += BL) {
    std::size_t const a1 = a0 + BL < Af ? a0 + BL : Af;
    for (std::size_t b0 = 0; b0 < Bf; b0 += BL) {
      std::size_t const b1 = b0 + BL < Bf ? b0 + BL : Bf;
      for (std::size_t b = b0; b < b1; b += T) {
        for (std::size_t a = a0; a < a1; a += T) {
          K::tile(src + a * sA + b, sA, dst + b * dB + a, dB);
        }
      }
    }
  }
  if (Bf < B) transpose_edge(src, dst, 0, Af, Bf, B, sA, dB);
  if (Af < A) transpose_edge(src, dst, Af, A, 0, B, sA, dB);
}

template <class K>
void transpose_planes(void const* src, void* dst, TransposeShape const& s) {
  using Elem = typename K::Elem;
  auto const* in = static_cast<Elem const*>(src);
  auto* out = static_cast<Elem*>(dst);
  for (std::size_t c = 0; c < s.count; ++c) {
    transpose_plane<K>(in + c * s.sC, out + c * s.dC, s.A, s.B, s.sA, s.dB);
  }
}

}  // namespace qel_permute::detail
