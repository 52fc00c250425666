#include "permute/kernels_avx512.hpp"

namespace qel_permute::detail {

TransposeFn transpose_avx512(std::size_t width) {
  switch (width) {
    case 1:
      return &transpose_by_rows<Avx512U8, Avx512U8Unaligned>;
    case 4:
      return &transpose_by_rows<Avx512U32, Avx512U32Unaligned>;
    case 8:
      return &transpose_planes<Avx512U64>;
    default:
      return nullptr;
  }
}

}  // namespace qel_permute::detail
