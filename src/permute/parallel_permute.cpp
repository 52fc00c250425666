#include "detail/checks.hpp"
#include "qel_permute/permute.hpp"

namespace qel_permute {

// Placeholder until the tiled loop nest is split across workers: the serial
// routine gives the same bytes.
template <std::size_t N>
void ParallelPermute(void const* src, void* dst, std::size_t numDims, std::size_t const* sizes,
                     std::size_t const* permutation, long const* srcStrides,
                     long const* dstStrides) {
  Permute<N>(src, dst, numDims, sizes, permutation, srcStrides, dstStrides);
}

template void ParallelPermute<1>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);
template void ParallelPermute<4>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);
template void ParallelPermute<8>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);

}  // namespace qel_permute
