#include "detail/checks.hpp"
#include "permute/dispatch.hpp"
#include "permute/execute.hpp"
#include "qel_permute/permute.hpp"

namespace qel_permute {

template <std::size_t N>
void ParallelPermute(void const* src, void* dst, std::size_t numDims, std::size_t const* sizes,
                     std::size_t const* permutation, long const*, long const*) {
  if (NERVA_CHECKED_BUILD)
    nerva::detail::check_permutation("qel_permute::ParallelPermute", permutation, numDims);
  detail::permute_parallel(detail::best_isa(), N, src, dst, numDims, sizes, permutation);
}

template void ParallelPermute<1>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);
template void ParallelPermute<4>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);
template void ParallelPermute<8>(void const*, void*, std::size_t, std::size_t const*,
                                 std::size_t const*, long const*, long const*);

}  // namespace qel_permute
