#pragma once

#include <algorithm>
#include <cstddef>
#include <random>
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
    std::size_t n = 1;
    for (std::size_t i = 0; i < numDims(); ++i) n *= sizes[i];
    return n;
  }
};

// 0 to 6 dimensions of extent 1 to 16, each selection starting in the lower third and mostly
// running far, with increments 1 to 3 (1 half the time); now and then an empty dimension (first ==
// last, increment 1). Trailing extents 0 to 5 and 1 to 5; at most 20000 source elements.
inline Selection random_selection(std::mt19937& rng) {
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  Selection s;
  do {
    s = Selection{};
    for (std::size_t i = 0, n = pick(0, 6); i < n; ++i) {
      std::size_t const size = pick(1, 16);
      bool const empty = pick(0, 15) == 0;
      std::size_t const first = empty ? pick(0, size) : pick(0, (size - 1) / 3);
      s.sizes.push_back(size);
      s.firsts.push_back(first);
      s.lasts.push_back(empty ? first : pick(pick(first + 1, size), size));
      s.increments.push_back(empty ? 1 : std::max<std::size_t>(1, pick(0, 3)));
    }
    s.sizes.push_back(pick(0, 5));
    s.sizes.push_back(pick(1, 5));
  } while (s.planeSize() * std::max<std::size_t>(s.planes(), 1) > 20000);
  return s;
}

// Offsets within one plane of the selected elements, dimension 0 fastest, by
// nested loops over each dimension's selected indices, the last outermost.
inline void collect(Selection const& s, std::size_t dims, std::size_t offset,
                    std::vector<std::size_t>& out) {
  if (dims == 0) return out.push_back(offset);
  std::size_t stride = 1;
  for (std::size_t i = 0; i + 1 < dims; ++i) stride *= s.sizes[i];
  for (std::size_t x = s.firsts[dims - 1]; x < s.lasts[dims - 1]; x += s.increments[dims - 1])
    collect(s, dims - 1, offset + x * stride, out);
}

// Offsets of every selected element, dimension 0 fastest.
inline std::vector<std::size_t> reference_offsets(Selection const& s) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < s.numDims(); ++i)
    if (s.lasts[i] <= s.firsts[i]) return out;
  collect(s, s.numDims(), 0, out);
  return out;
}
