#pragma once

#include <algorithm>
#include <cstddef>

namespace nerva {

// One past the last position sampled with stride `s` from [first, last):
// first + (c - 1) * s + 1 for c sampled positions. Empty ranges, stride 1 and
// a remainder of 1 keep `last`.
inline std::size_t TightenedLast(std::size_t first, std::size_t last, std::size_t s) {
  if (first >= last || s == 1) return last;
  std::size_t r = (last - first) % s;
  if (r == 0) r = s;
  if (r == 1) return last;
  return std::max(last, r - 1) - (r - 1);
}

}  // namespace nerva
