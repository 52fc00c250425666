#pragma once

#include <cstddef>
#include <vector>

// What a ranged copy must leave in `dst`: each group of `group` elements inside both extent grids
// (level 0 fastest) comes from the source, every other element keeps its value.
template <class T>
std::vector<T> ranged_copy_reference(std::vector<T> const& src,
                                     std::vector<std::size_t> const& srcSizes, std::vector<T> dst,
                                     std::vector<std::size_t> const& dstSizes, std::size_t group) {
  std::vector<std::size_t> idx(dstSizes.size(), 0);
  for (std::size_t e = 0; e < dst.size(); e += group) {
    bool inside = true;
    std::size_t at = 0, pitch = group;
    for (std::size_t i = 0; i < idx.size(); ++i) {
      inside = inside && idx[i] < srcSizes[i];
      at += idx[i] * pitch;
      pitch *= srcSizes[i];
    }
    for (std::size_t g = 0; g < group && inside; ++g) dst[e + g] = src[at + g];
    for (std::size_t i = 0; i < idx.size() && ++idx[i] == dstSizes[i]; ++i) idx[i] = 0;
  }
  return dst;
}
