#pragma once

#include <cstddef>

namespace qel_permute::detail {

// Instruction sets with their own micro-kernels, in increasing order.
enum class Isa { Scalar, Sse2, Avx2, Avx512, Avx512Vbmi };

// A batch of `count` 2-D transposes, strides in elements:
//   dst[c * dC + b * dB + a] = src[c * sC + a * sA + b]
// for c < count, a < A, b < B. Dimension a is contiguous in the destination,
// dimension b in the source.
// With `stream` set, whole destination lines are written with non-temporal
// stores where alignment allows (for destinations larger than the caches).
struct TransposeShape {
  std::size_t A, B;
  std::size_t sA, dB;
  std::size_t count, sC, dC;
  bool stream;
};

using TransposeFn = void (*)(void const* src, void* dst, TransposeShape const& shape);

// Transpose routines of one instruction set for an element width of 1, 4 or
// 8 bytes. Only call a routine whose instruction set the CPU supports.
TransposeFn transpose_scalar(std::size_t width);
TransposeFn transpose_sse2(std::size_t width);
TransposeFn transpose_avx2(std::size_t width);
TransposeFn transpose_avx512(std::size_t width);
TransposeFn transpose_avx512vbmi(std::size_t width);

}  // namespace qel_permute::detail
