// GCC 12's AVX-512 intrinsics initialise their pass-through operand from
// itself, which -Wuninitialized reports at every use; the header is included
// first with that warning off (the diagnostic is tied to the header's lines).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#endif

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
