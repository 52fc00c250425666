#pragma once

// A naive index-arithmetic permutation: destination element k, read as an
// index tuple in destination order, comes from the source element at
// sum_d i[d] * srcStride[permutation[d] - 1].

#include <cstddef>
#include <cstring>
#include <vector>

namespace permute_test {

inline void reference_permute(std::size_t width, unsigned char const* src, unsigned char* dst,
                              std::vector<std::size_t> const& sizes,
                              std::vector<std::size_t> const& permutation) {
  std::size_t const n = sizes.size();
  std::vector<std::size_t> srcStride(n + 1, 1);
  for (std::size_t d = 0; d < n; ++d) srcStride[d + 1] = srcStride[d] * sizes[d];
  for (std::size_t k = 0; k < srcStride[n]; ++k) {
    std::size_t rest = k, offset = 0;
    for (std::size_t p : permutation) {
      offset += rest % sizes[p - 1] * srcStride[p - 1];
      rest /= sizes[p - 1];
    }
    std::memcpy(dst + k * width, src + offset * width, width);
  }
}

}  // namespace permute_test
