#include "permute/kernels_avx2.hpp"

namespace qel_permute::detail {

TransposeFn transpose_avx2(std::size_t width) {
  switch (width) {
    case 1:
      return &transpose_planes<Avx2U8>;
    case 4:
      return &transpose_planes<Avx2U32>;
    case 8:
      return &transpose_planes<Avx2U64>;
    default:
      return nullptr;
  }
}

}  // namespace qel_permute::detail
