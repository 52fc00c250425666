#pragma once

#include <cstddef>

namespace qel_permute::detail {

// One dimension of a permutation, listed in destination order. Strides are in
// elements.
struct Dim {
  std::size_t extent;
  std::size_t srcStride;
  std::size_t dstStride;
};

// A permutation reduced to its essential shape: no extent-1 dimensions, and
// every run of dimensions that is adjacent in both source and destination
// merged into one. `dims` is caller storage with room for numDims entries.
struct Plan {
  Dim* dims;
  std::size_t rank;  // 0 when a single element moves
  bool empty;        // some extent is zero: nothing to move
};

Plan make_plan(std::size_t numDims, std::size_t const* sizes, std::size_t const* permutation,
               Dim* storage);

}  // namespace qel_permute::detail
