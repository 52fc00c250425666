#pragma once

#include <cstddef>

namespace nerva::detail {

// Number of positions first, first + step, ... below last: 0 for an empty
// range, last - first for step 1 (no division on the common path).
inline std::size_t SampledCount(std::size_t first, std::size_t last, std::size_t step) {
  if (last <= first) return 0;
  if (step == 1) return last - first;
  return (last - 1 - first) / step + 1;
}

}  // namespace nerva::detail
