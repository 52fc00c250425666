#include "qel_permute/permute.hpp"

#include "detail/checks.hpp"
#include "permute/dispatch.hpp"
#include "permute/execute.hpp"

namespace qel_permute {

template <std::size_t N>
void Permute(void const* src, void* dst, std::size_t numDims, std::size_t const* sizes,
             std::size_t const* permutation, long const*, long const*) {
  if (NERVA_CHECKED_BUILD)
    nerva::detail::check_permutation("qel_permute::Permute", permutation, numDims);
  detail::permute(detail::best_isa(), N, src, dst, numDims, sizes, permutation);
}

template void Permute<1>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);
template void Permute<4>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);
template void Permute<8>(void const*, void*, std::size_t, std::size_t const*, std::size_t const*,
                         long const*, long const*);

}  // namespace qel_permute
