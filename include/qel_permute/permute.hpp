#pragma once

#include <cstddef>

#if defined(__GNUC__)
#define QEL_PERMUTE_API __attribute__((visibility("default")))
#else
#define QEL_PERMUTE_API
#endif

namespace qel_permute {

// Dense N-dimensional permutation of N-byte elements. `sizes` are the source
// extents, dimension 0 fastest; destination dimension i is source dimension
// permutation[i] - 1 (one-based). The stride arguments are ignored: both
// arrays are dense. Runs on the calling thread; src and dst do not overlap.
template <std::size_t N>
QEL_PERMUTE_API void Permute(void const* src, void* dst, std::size_t numDims,
                             std::size_t const* sizes, std::size_t const* permutation,
                             long const* srcStrides, long const* dstStrides);

extern template void Permute<1>(void const*, void*, std::size_t, std::size_t const*,
                                std::size_t const*, long const*, long const*);
extern template void Permute<4>(void const*, void*, std::size_t, std::size_t const*,
                                std::size_t const*, long const*, long const*);
extern template void Permute<8>(void const*, void*, std::size_t, std::size_t const*,
                                std::size_t const*, long const*, long const*);

// The same permutation, byte for byte, with the work split across the TBB
// workers of the calling process by a blocking parallel_for. Safe to call
// from inside a TBB task; starts no threads and takes no locks.
template <std::size_t N>
QEL_PERMUTE_API void ParallelPermute(void const* src, void* dst, std::size_t numDims,
                                     std::size_t const* sizes, std::size_t const* permutation,
                                     long const* srcStrides, long const* dstStrides);

extern template void ParallelPermute<1>(void const*, void*, std::size_t, std::size_t const*,
                                        std::size_t const*, long const*, long const*);
extern template void ParallelPermute<4>(void const*, void*, std::size_t, std::size_t const*,
                                        std::size_t const*, long const*, long const*);
extern template void ParallelPermute<8>(void const*, void*, std::size_t, std::size_t const*,
                                        std::size_t const*, long const*, long const*);

}  // namespace qel_permute
