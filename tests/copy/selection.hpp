#pragma once

#include <cstddef>
#include <random>
#include <vector>

// A strided selection over the leading dimensions of an N-D array plus the
// two trailing dimensions, and a naive reference for the offsets it selects.
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

// Random selection of 1 to maxDims dimensions (each non-empty), increments
// 1 to 4, trailing extents 0 to maxTrailing.
inline Selection random_selection(std::mt19937& rng, std::size_t maxDims, std::size_t maxExtent,
                                  std::size_t maxTrailing) {
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  Selection s;
  std::size_t const n = pick(1, maxDims);
  for (std::size_t i = 0; i < n; ++i) {
    std::size_t const size = pick(1, maxExtent);
    std::size_t const first = pick(0, size - 1);
    s.sizes.push_back(size);
    s.firsts.push_back(first);
    s.lasts.push_back(pick(first + 1, size));
    s.increments.push_back(pick(1, 4));
  }
  s.sizes.push_back(pick(0, maxTrailing));
  s.sizes.push_back(pick(1, maxTrailing));
  return s;
}

// Element offsets within one plane of every selected element, dimension 0
// varying fastest: the selected indices of each dimension are listed first and
// their Cartesian product is walked with a plain odometer.
inline std::vector<std::size_t> reference_offsets(Selection const& s) {
  std::size_t const n = s.numDims();
  std::vector<std::vector<std::size_t>> picked(n);
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t x = s.firsts[i]; x < s.lasts[i]; x += s.increments[i]) picked[i].push_back(x);
  for (auto const& p : picked)
    if (p.empty()) return {};

  std::vector<std::size_t> result;
  std::vector<std::size_t> at(n, 0);
  for (;;) {
    std::size_t offset = 0, stride = 1;
    for (std::size_t i = 0; i < n; ++i) {
      offset += picked[i][at[i]] * stride;
      stride *= s.sizes[i];
    }
    result.push_back(offset);
    std::size_t i = 0;
    while (i < n && ++at[i] == picked[i].size()) at[i++] = 0;
    if (i == n) return result;
  }
}
