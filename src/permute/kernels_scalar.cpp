// Portable micro-kernels: plain element moves, blocked for the caches.
#include <cstdint>

#include "permute/transpose_loops.hpp"

namespace qel_permute::detail {
namespace {

template <class E>
struct ScalarKernel {
  using Elem = E;
  static constexpr std::size_t kTile = 4;
  using Small = void;
  struct Vec {
    Elem e[kTile];
  };
  static constexpr std::size_t kBlockA = 128 / sizeof(E) < 16 ? 16 : 128 / sizeof(E);
  static constexpr std::size_t kBlockB = 32;
  static constexpr std::size_t kChunkA = 4 * kBlockA;
  static void transpose(Elem const* s, std::size_t sA, Vec* rows) {
    for (std::size_t i = 0; i < kTile; ++i) {
      for (std::size_t j = 0; j < kTile; ++j) move_element(&rows[j].e[i], s + i * sA + j);
    }
  }
  static Vec load(Elem const* s) {
    Vec v;
    for (std::size_t i = 0; i < kTile; ++i) move_element(&v.e[i], s + i);
    return v;
  }
  static void store(Elem* d, Vec const& v) {
    for (std::size_t i = 0; i < kTile; ++i) move_element(d + i, &v.e[i]);
  }
  static void stream(Elem* d, Vec const& v) { store(d, v); }
  static void fence() {}
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
