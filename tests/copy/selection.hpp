#pragma once

#include <cstddef>
#include <functional>
#include <numeric>
#include <vector>

// Strided selections and a naive reference for the offsets they select, shared
// by the copy tests and the strided-copy fuzz target.

// A strided selection over the leading dimensions plus the two trailing
// dimensions, which are taken whole.
struct Selection {
  std::vector<std::size_t> sizes;  // numDims + 2 entries
  std::vector<std::size_t> firsts, lasts, increments;
  std::size_t numDims() const { return firsts.size(); }
  std::size_t planes() const { return sizes[numDims()] * sizes[numDims() + 1]; }
  std::size_t planeSize() const {
    return std::accumulate(sizes.begin(), sizes.end() - 2, std::size_t{1}, std::multiplies<>());
  }
};

// Appends the offsets within one plane of the elements that dimensions [0, dims) select, dimension
// 0 fastest (none when a range is empty), by nested loops over each dimension's selected indices,
// the last outermost.
inline void collect(Selection const& s, std::size_t dims, std::size_t offset,
                    std::vector<std::size_t>& out) {
  if (dims == 0) return out.push_back(offset);
  std::size_t stride = 1;
  for (std::size_t i = 0; i + 1 < dims; ++i) stride *= s.sizes[i];
  for (std::size_t x = s.firsts[dims - 1]; x < s.lasts[dims - 1]; x += s.increments[dims - 1])
    collect(s, dims - 1, offset + x * stride, out);
}
