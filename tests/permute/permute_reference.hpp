#pragma once

// Test helpers: a naive index-arithmetic permutation, random data, and a
// destination buffer with guard bytes on both sides.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <vector>

namespace permute_test {

using Bytes = std::vector<unsigned char>;

// dst element k (destination index tuple i) comes from the source element at
// sum_d i[d] * srcStride[permutation[d] - 1].
inline void reference_permute(std::size_t width, unsigned char const* src, unsigned char* dst,
                              std::vector<std::size_t> const& sizes,
                              std::vector<std::size_t> const& permutation) {
  std::size_t const n = sizes.size();
  std::vector<std::size_t> srcStride(n), dstExtent(n);
  std::size_t total = 1;
  for (std::size_t d = 0; d < n; ++d) {
    srcStride[d] = total;
    total *= sizes[d];
  }
  for (std::size_t d = 0; d < n; ++d) dstExtent[d] = sizes[permutation[d] - 1];
  for (std::size_t k = 0; k < total; ++k) {
    std::size_t rest = k, offset = 0;
    for (std::size_t d = 0; d < n; ++d) {
      offset += (rest % dstExtent[d]) * srcStride[permutation[d] - 1];
      rest /= dstExtent[d];
    }
    std::memcpy(dst + k * width, src + offset * width, width);
  }
}

inline std::size_t element_count(std::vector<std::size_t> const& sizes) {
  std::size_t total = 1;
  for (std::size_t s : sizes) total *= s;
  return total;
}

inline Bytes random_bytes(std::size_t n, std::mt19937_64& rng) {
  Bytes b(n);
  for (auto& x : b) x = static_cast<unsigned char>(rng());
  return b;
}

// A destination of `size` bytes between two guard zones of a known pattern.
class GuardedBuffer {
 public:
  static constexpr std::size_t kGuard = 256;
  static constexpr unsigned char kPattern = 0xA5;

  // `shift` moves the destination off its natural alignment.
  explicit GuardedBuffer(std::size_t size, std::size_t shift = 0)
      : size_(size), shift_(shift), bytes_(size + 2 * kGuard + shift, kPattern) {}
  unsigned char* data() { return bytes_.data() + kGuard + shift_; }
  bool guards_intact() const {
    for (std::size_t i = 0; i < kGuard; ++i) {
      if (bytes_[i + shift_] != kPattern || bytes_[kGuard + shift_ + size_ + i] != kPattern) {
        return false;
      }
    }
    return true;
  }
  bool equals(Bytes const& expected) const {
    return expected.size() == size_ &&
           (size_ == 0 ||
            std::memcmp(expected.data(), bytes_.data() + kGuard + shift_, size_) == 0);
  }

 private:
  std::size_t size_;
  std::size_t shift_;
  Bytes bytes_;
};

// A random shape of 1 to maxRank dimensions with at most maxTotal elements,
// sometimes with extent-1 or zero extents, and a random permutation.
struct Case {
  std::vector<std::size_t> sizes;
  std::vector<std::size_t> permutation;
};

inline Case random_case(std::mt19937_64& rng, std::size_t maxRank, std::size_t maxTotal) {
  Case c;
  std::size_t const rank = 1 + rng() % maxRank;
  std::size_t total = 1;
  for (std::size_t d = 0; d < rank; ++d) {
    std::size_t const room = maxTotal / total;
    std::size_t extent;
    switch (rng() % 8) {
      case 0:
        extent = 1;
        break;
      case 1:
        extent = rng() % 40 == 0 ? 0 : 1 + rng() % 3;
        break;
      case 2:
        extent = 1 + rng() % 70;  // beyond one tile, rarely a multiple of it
        break;
      default:
        extent = 1 + rng() % 12;
        break;
    }
    if (extent > room) extent = room < 1 ? 1 : room;
    c.sizes.push_back(extent);
    total *= extent == 0 ? 1 : extent;
  }
  for (std::size_t d = 0; d < rank; ++d) c.permutation.push_back(d + 1);
  std::shuffle(c.permutation.begin(), c.permutation.end(), rng);
  return c;
}

}  // namespace permute_test
