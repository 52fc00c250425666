#include "qel_permute/permute.hpp"

#include <cstring>
#include <vector>

namespace qel_permute {

// Placeholder: a plain index loop, replaced by the blocked transposition.
template <std::size_t N>
void Permute(void const* src, void* dst, std::size_t numDims, std::size_t const* sizes,
             std::size_t const* permutation, long const*, long const*) {
  std::size_t total = 1;
  for (std::size_t d = 0; d < numDims; ++d) total *= sizes[d];
  if (total == 0) return;
  std::vector<std::size_t> srcStride(numDims), idx(numDims, 0);
  for (std::size_t d = 0, s = 1; d < numDims; s *= sizes[d], ++d) srcStride[d] = s;
  auto const* in = static_cast<unsigned char const*>(src);
  auto* out = static_cast<unsigned char*>(dst);
  for (std::size_t k = 0; k < total; ++k) {
    std::size_t offset = 0;
    for (std::size_t i = 0; i < numDims; ++i) offset += idx[i] * srcStride[permutation[i] - 1];
    std::memcpy(out + k * N, in + offset * N, N);
    for (std::size_t i = 0; i < numDims; ++i) {
      if (++idx[i] < sizes[permutation[i] - 1]) break;
      idx[i] = 0;
    }
  }
}

template void Permute<1>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);
template void Permute<4>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);
template void Permute<8>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);

}  // namespace qel_permute
