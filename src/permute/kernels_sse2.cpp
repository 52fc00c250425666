#include "permute/kernels_sse2.hpp"

namespace qel_permute::detail {

TransposeFn transpose_sse2(std::size_t width) {
  switch (width) {
    case 1:
      return &transpose_planes<Sse2U8>;
    case 4:
      return &transpose_planes<Sse2U32>;
    case 8:
      return &transpose_planes<Sse2U64>;
    default:
      return nullptr;
  }
}

}  // namespace qel_permute::detail
