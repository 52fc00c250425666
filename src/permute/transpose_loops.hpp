#pragma once

// Cache-blocked loop nest around a register-level micro-kernel. Included by
// each kernel file, which compiles it for its own instruction set. Everything
// here, like the kernel types, has internal linkage, so no function compiled
// for one instruction set can be merged with its twin built for another.
//
// A kernel type K provides:
//   using Elem;                       // unsigned integer of the element width
//   using Vec;                        // one destination row of a micro-tile
//   using Small;                      // kernel for narrower planes, or void
//   static constexpr size_t kTile;    // the micro-tile is kTile x kTile
//   static constexpr size_t kBlockA;  // cache block: destination columns ...
//   static constexpr size_t kBlockB;  // ... and rows, multiples of a line tile
//   static constexpr size_t kChunkA;  // columns per chunk of a batch of planes
//   static void transpose(Elem const* s, size_t sA, Vec* rows);
//     // rows[j] holds s[i * sA + j] for i < kTile
//   static Vec load(Elem const* s);      // plain load of one row
//   static void store(Elem* d, Vec v);   // plain store of one row
//   static void stream(Elem* d, Vec v);  // non-temporal store, d 64-byte aligned
//   static void fence();                 // orders the non-temporal stores
// and may provide
//   template <class Put> static void transpose_to(Elem const* s, size_t sA, Put&& put);
//     // the same, calling put(j, row) for each row j as soon as it is made:
//     // for tiles larger than the register file, which would otherwise go
//     // through an array on the stack
//   static bool thin(Elem const* src, Elem* dst, size_t A, size_t B, size_t sA, size_t dB);
//     // a plane narrower than a tile, done by a kernel of its own; false when
//     // the shape is not one it takes

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "permute/kernels.hpp"

namespace qel_permute::detail {
namespace {

constexpr std::size_t kLineBytes = 64;

// Elements are opaque bytes and need not be aligned to their width (short
// runs of bytes move as 4- or 8-byte elements), so single elements move by
// memcpy, which compiles to one plain move.
template <class Elem>
inline void move_element(Elem* d, Elem const* s) {
  std::memcpy(d, s, sizeof(Elem));
}

// Planes of two or three destination columns (the channels of an image with
// one observation, say) with the column count known at compile time: the
// inner loop unrolls, and when destination rows are packed the compiler
// turns the interleave into vector shuffles. Source and destination never
// overlap.
template <class Elem, std::size_t A>
__attribute__((noinline)) void transpose_thin_plane(Elem const* __restrict src,
                                                    Elem* __restrict dst, std::size_t B,
                                                    std::size_t sA, std::size_t dB) {
  if (dB == A) {
    for (std::size_t b = 0; b < B; ++b) {
      for (std::size_t a = 0; a < A; ++a) move_element(dst + b * A + a, src + a * sA + b);
    }
    return;
  }
  for (std::size_t b = 0; b < B; ++b) {
    for (std::size_t a = 0; a < A; ++a) move_element(dst + b * dB + a, src + a * sA + b);
  }
}

// The reverse: two or three source columns, split into as many destination
// rows; with packed source rows the compiler vectorizes the de-interleave.
template <class Elem, std::size_t B>
__attribute__((noinline)) void transpose_thin_rows(Elem const* __restrict src, Elem* __restrict dst,
                                                   std::size_t A, std::size_t sA, std::size_t dB) {
  if (sA == B) {
    for (std::size_t a = 0; a < A; ++a) {
      for (std::size_t b = 0; b < B; ++b) move_element(dst + b * dB + a, src + a * B + b);
    }
    return;
  }
  for (std::size_t a = 0; a < A; ++a) {
    for (std::size_t b = 0; b < B; ++b) move_element(dst + b * dB + a, src + a * sA + b);
  }
}

// Element by element, for planes thinner than a micro-tile.
template <class Elem>
inline void transpose_scalar_plane(Elem const* src, Elem* dst, std::size_t A, std::size_t B,
                                   std::size_t sA, std::size_t dB) {
  if (A == 2) return transpose_thin_plane<Elem, 2>(src, dst, B, sA, dB);
  if (A == 3) return transpose_thin_plane<Elem, 3>(src, dst, B, sA, dB);
  if (B == 2) return transpose_thin_rows<Elem, 2>(src, dst, A, sA, dB);
  if (B == 3) return transpose_thin_rows<Elem, 3>(src, dst, A, sA, dB);
  for (std::size_t b = 0; b < B; ++b) {
    Elem* d = dst + b * dB;
    for (std::size_t a = 0; a < A; ++a) move_element(d + a, src + a * sA + b);
  }
}

template <class K, class = void>
struct HasThin : std::false_type {};
template <class K>
struct HasThin<K, std::void_t<decltype(&K::thin)>> : std::true_type {};

template <class K, class = void>
struct HasTransposeTo : std::false_type {};
template <class K>
struct HasTransposeTo<K, std::void_t<decltype(K::transpose_to(
                             std::declval<typename K::Elem const*>(), std::size_t{},
                             std::declval<void (*)(std::size_t, typename K::Vec)>()))>>
    : std::true_type {};

template <class K>
struct Tiles {
  using Elem = typename K::Elem;
  using Vec = typename K::Vec;
  static constexpr std::size_t T = K::kTile;
  // Micro-tiles side by side that fill whole cache lines of each destination row.
  static constexpr std::size_t L = kLineBytes / (T * sizeof(Elem)) > 0
                                       ? kLineBytes / (T * sizeof(Elem))
                                       : 1;
  static constexpr std::size_t kLine = L * T;

  // Planes, or bands of columns, narrower than a tile: the next smaller
  // kernel, or element by element.
  static void narrow(Elem const* src, Elem* dst, std::size_t A, std::size_t B, std::size_t sA,
                     std::size_t dB) {
    if constexpr (HasThin<K>::value) {
      if (K::thin(src, dst, A, B, sA, dB)) return;
    }
    if constexpr (std::is_void_v<typename K::Small>) {
      transpose_scalar_plane(src, dst, A, B, sA, dB);
    } else {
      Tiles<typename K::Small>::plane(src, dst, A, B, sA, dB, false);
    }
  }

  // One micro-tile; only destination rows [first, T) are stored.
  static void one(Elem const* s, std::size_t sA, Elem* d, std::size_t dB, std::size_t first) {
    if constexpr (HasTransposeTo<K>::value) {
      K::transpose_to(s, sA, [d, dB, first](std::size_t j, Vec v) {
        if (j >= first) K::store(d + j * dB, v);
      });
    } else {
      Vec rows[T];
      K::transpose(s, sA, rows);
      for (std::size_t j = first; j < T; ++j) K::store(d + j * dB, rows[j]);
    }
  }

  // Asks for the next line of `rows` source rows, which the tiles after
  // this one read. A tile reads up to one line from each of its rows, more
  // rows than the hardware prefetchers follow at once (measured: 1.1x to 1.5x
  // faster out of L2, neutral within it). A prefetch never faults, so the
  // address may lie past the end of the source; it is formed as an integer.
  static void prefetch_next(Elem const* s, std::size_t sA, std::size_t rows) {
    auto const at = reinterpret_cast<std::uintptr_t>(s) + kLineBytes;
    for (std::size_t i = 0; i < rows; ++i) {
      __builtin_prefetch(reinterpret_cast<void const*>(at + i * sA * sizeof(Elem)));
    }
  }

  // kTile destination rows of kLine elements; each row is written whole,
  // back to back, so non-temporal stores fill complete lines.
  template <bool Stream>
  static void line(Elem const* s, std::size_t sA, Elem* d, std::size_t dB) {
    if constexpr (HasTransposeTo<K>::value && L == 1) {
      prefetch_next(s, sA, T);
      K::transpose_to(s, sA, [d, dB](std::size_t j, Vec v) { put<Stream>(d + j * dB, v); });
      return;
    }
    Vec rows[L][T];
    prefetch_next(s, sA, L * T);
    for (std::size_t l = 0; l < L; ++l) K::transpose(s + l * T * sA, sA, rows[l]);
    for (std::size_t j = 0; j < T; ++j) {
      for (std::size_t l = 0; l < L; ++l) put<Stream>(d + j * dB + l * T, rows[l][j]);
    }
  }

  // The same, storing only rows [first, T).
  template <bool Stream>
  static void line_tail(Elem const* s, std::size_t sA, Elem* d, std::size_t dB, std::size_t first) {
    if constexpr (HasTransposeTo<K>::value && L == 1) {
      K::transpose_to(s, sA, [d, dB, first](std::size_t j, Vec v) {
        if (j >= first) put<Stream>(d + j * dB, v);
      });
      return;
    }
    Vec rows[L][T];
    for (std::size_t l = 0; l < L; ++l) K::transpose(s + l * T * sA, sA, rows[l]);
    for (std::size_t j = first; j < T; ++j) {
      for (std::size_t l = 0; l < L; ++l) put<Stream>(d + j * dB + l * T, rows[l][j]);
    }
  }

  template <bool Stream>
  static void put(Elem* d, Vec v) {
    if constexpr (Stream) {
      K::stream(d, v);
    } else {
      K::store(d, v);
    }
  }

  // Columns [a0, a1) (a multiple of kLine wide) by line tiles in cache
  // blocks; rows [0, Bt) with Bt a multiple of T, then, when B is not, the
  // last B % T rows from a tile that ends at row B.
  template <bool Stream>
  static void lines(Elem const* src, Elem* dst, std::size_t a0, std::size_t a1, std::size_t B,
                    std::size_t sA, std::size_t dB) {
    std::size_t const Bt = B - B % T;
    for (std::size_t ab = a0; ab < a1; ab += K::kBlockA) {
      std::size_t const ae = ab + K::kBlockA < a1 ? ab + K::kBlockA : a1;
      for (std::size_t bb = 0; bb < Bt; bb += K::kBlockB) {
        std::size_t const be = bb + K::kBlockB < Bt ? bb + K::kBlockB : Bt;
        for (std::size_t b = bb; b < be; b += T) {
          for (std::size_t a = ab; a < ae; a += kLine) {
            line<Stream>(src + a * sA + b, sA, dst + b * dB + a, dB);
          }
        }
      }
      if (Bt < B) {
        std::size_t const b = B - T;
        for (std::size_t a = ab; a < ae; a += kLine) {
          line_tail<Stream>(src + a * sA + b, sA, dst + b * dB + a, dB, T - B % T);
        }
      }
    }
  }

  // Streaming when destination rows are not a whole number of lines apart,
  // so each row starts at its own offset within a line. Windows of kWindow
  // columns are transposed, a band of T rows at a time, into a stage in L1;
  // each row then streams the whole lines of its own window, which starts at
  // the row's first line boundary at or after the window's first column
  // (so the stage holds one line tile more than a window). The partial lines
  // at both ends of a row get plain stores. Narrow windows keep few source
  // rows in flight, which the hardware prefetchers follow (measured on cold
  // memory: two lines per window beat four by up to 25%). Needs
  // A >= 2 * kLine, B >= T and a destination aligned to its element width.
  static constexpr std::size_t kWindow = 2 * kLine;
  static constexpr std::size_t kStageCols = kWindow + kLine;

  static void staged(Elem const* src, Elem* dst, std::size_t A, std::size_t B, std::size_t sA,
                     std::size_t dB) {
    alignas(kLineBytes) Elem stage[T * kStageCols];
    auto const addr = reinterpret_cast<std::uintptr_t>(dst);
    std::size_t const rowBytes = dB * sizeof(Elem);
    for (std::size_t c0 = 0; c0 < A; c0 += kWindow) {
      // The stage holds columns [base, lim) of the band's rows; the last
      // line tile is shifted to end at lim.
      std::size_t const lim = c0 + kStageCols < A ? c0 + kStageCols : A;
      std::size_t const base = lim - c0 < kLine ? lim - kLine : c0;
      auto band = [&](std::size_t b, std::size_t first) {
        for (std::size_t a = base; a < lim; a += kLine) {
          std::size_t const at = a + kLine <= lim ? a : lim - kLine;
          prefetch_next(src + at * sA + b, sA, L * T);
          for (std::size_t l = 0; l < L; ++l) {
            one(src + (at + l * T) * sA + b, sA, stage + (at - base) + l * T, kStageCols, 0);
          }
        }
        for (std::size_t j = first; j < T; ++j) {
          std::size_t const off = (addr + (b + j) * rowBytes) % kLineBytes / sizeof(Elem);
          std::size_t const w0 = c0 + (kLine - off) % kLine;
          if (w0 >= A) continue;
          Elem* d = dst + (b + j) * dB;
          Elem const* st = stage + j * kStageCols - base;  // st[c] is column c
          if (c0 == 0) std::memcpy(d, st, w0 * sizeof(Elem));
          std::size_t const we = w0 + kWindow < A ? w0 + kWindow : A;
          std::size_t const le = w0 + (we - w0) / kLine * kLine;
          for (std::size_t c = w0; c < le; c += kLine) {
            for (std::size_t l = 0; l < L; ++l) K::stream(d + c + l * T, K::load(st + c + l * T));
          }
          if (we == A) std::memcpy(d + le, st + le, (A - le) * sizeof(Elem));
        }
      };
      std::size_t const Bt = B - B % T;
      for (std::size_t b = 0; b < Bt; b += T) band(b, 0);
      if (Bt < B) band(B - T, T - B % T);
    }
  }

  // The whole plane; with streaming and rows that are not whole lines apart,
  // the staged walk above. Line tiles cover the middle columns; with streaming
  // they start at the first 64-byte boundary of the destination rows, and
  // every streamed line is written exactly once. The columns after them use
  // micro-tiles; the last few columns, and with streaming the columns before
  // the first boundary, go to the narrower kernel.
  static void plane(Elem const* src, Elem* dst, std::size_t A, std::size_t B, std::size_t sA,
                    std::size_t dB, bool stream) {
    if (A < T || B < T) {
      narrow(src, dst, A, B, sA, dB);
      return;
    }
    std::size_t head = 0;
    if (stream && (dB * sizeof(Elem)) % kLineBytes != 0) {
      if (A >= 2 * kLine && reinterpret_cast<std::uintptr_t>(dst) % sizeof(Elem) == 0) {
        staged(src, dst, A, B, sA, dB);
        return;
      }
      stream = false;
    }
    if (stream) {
      auto const addr = reinterpret_cast<std::uintptr_t>(dst);
      std::size_t const gap = (kLineBytes - addr % kLineBytes) % kLineBytes;
      stream = gap % sizeof(Elem) == 0 && (dB * sizeof(Elem)) % kLineBytes == 0 &&
               gap / sizeof(Elem) + kLine <= A;
      if (stream) head = gap / sizeof(Elem);
    }
    std::size_t const mid = head + (A - head) / kLine * kLine;
    if (stream) {
      lines<true>(src, dst, head, mid, B, sA, dB);
    } else {
      lines<false>(src, dst, head, mid, B, sA, dB);
    }
    // Columns [mid, A): whole micro-tiles, then the rest. Without streaming
    // the rest is one more tile ending at column A, rewriting a few elements.
    std::size_t const rest = mid + (A - mid) / T * T;
    bool const shifted = rest < A && !stream;
    if (mid < rest || shifted) {
      auto band = [&](std::size_t b, std::size_t first) {
        for (std::size_t a = mid; a < rest; a += T) {
          one(src + a * sA + b, sA, dst + b * dB + a, dB, first);
        }
        if (shifted) one(src + (A - T) * sA + b, sA, dst + b * dB + (A - T), dB, first);
      };
      std::size_t const Bt = B - B % T;
      for (std::size_t b = 0; b < Bt; b += T) band(b, 0);
      if (Bt < B) band(B - T, T - B % T);
    }
    if (rest < A && stream) narrow(src + rest * sA, dst + rest, A - rest, B, sA, dB);
    if (head > 0) narrow(src, dst, head, B, sA, dB);
  }
};

// A batch of planes is walked in chunks of destination columns, each chunk
// through all planes, so the source rows of a chunk are read front to back
// while they are in the caches. Chunks start at 64-byte boundaries of the
// first plane's destination.
template <class K>
void transpose_planes(void const* src, void* dst, TransposeShape const& s) {
  using Elem = typename K::Elem;
  auto const* in = static_cast<Elem const*>(src);
  auto* out = static_cast<Elem*>(dst);
  std::size_t const chunk = s.count > 1 ? K::kChunkA : s.A;
  auto const addr = reinterpret_cast<std::uintptr_t>(dst);
  std::size_t const gap = (kLineBytes - addr % kLineBytes) % kLineBytes / sizeof(Elem);
  std::size_t a0 = 0;
  while (a0 < s.A) {
    std::size_t a1 = (a0 == 0 ? gap : a0) + chunk;
    if (a1 + chunk > s.A) a1 = s.A;
    for (std::size_t c = 0; c < s.count; ++c) {
      Tiles<K>::plane(in + c * s.sC + a0 * s.sA, out + c * s.dC + a0, a1 - a0, s.B, s.sA, s.dB,
                      s.stream);
    }
    a0 = a1;
  }
  if (s.stream) K::fence();
}

}  // namespace
}  // namespace qel_permute::detail
