// Portable micro-kernels: plain element moves, blocked for the caches.
#include <cstdint>

#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

template <class E>
struct ScalarKernel {
  using Elem = E;
  static constexpr std::size_t kTile = 4;
  static constexpr std::size_t kBlock = 64 / sizeof(E) < 16 ? 16 : 64 / sizeof(E);
  static void tile(Elem const* s, std::size_t sA, Elem* d, std::size_t dB) {
    for (std::size_t j = 0; j < kTile; ++j) {
      for (std::size_t i = 0; i < kTile; ++i) d[j * dB + i] = s[i * sA + j];
    }
  }
};

}  // namespace

TransposeFn transpose_scalar(std::size_t width) {
  switch (width) {
    case 1:
      return &transpose_planes<ScalarKernel<std::uint8_t>>;
    case 4:
      return &transpose_planes<ScalarKernel<std::uint32_t>>;
    case 8:
      return &transpose_planes<ScalarKernel<std::uint64_t>>;
    default:
      return nullptr;
  }
}

}  // namespace qel_permute::detail
