/// \file
/// The dense N-dimensional permutation routines (library nerva::qel_permute).
#pragma once

#include <cstddef>

/// \def QEL_PERMUTE_API
/// Marks a public name of the permutation library for export (it is built
/// with hidden visibility).

#if defined(__GNUC__)
#define QEL_PERMUTE_API __attribute__((visibility("default")))
#else
#define QEL_PERMUTE_API
#endif

/// Dense N-dimensional permutation of N-byte elements; a library of its own
/// that depends on nothing else.
namespace qel_permute {

/// Dense N-dimensional permutation of N-byte elements. `sizes` are the source
/// extents, dimension 0 fastest; destination dimension i is source dimension
/// permutation[i] - 1 (one-based; see \ref layouts). The stride arguments are
/// ignored: both arrays are dense. Runs on the calling thread; src and dst do
/// not overlap. Elements are moved as opaque bytes.
/// \cost No allocation; one pass over the elements, with kernels chosen for
/// the processor at run time.
/// \failure Nothing is checked (the checked build throws
/// std::invalid_argument when `permutation` is not a permutation of 1..numDims).
/// Instantiated for N = 1, 4 and 8.
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

/// The same permutation, byte for byte, with the work split across the TBB
/// workers of the calling process by a blocking parallel_for. Safe to call
/// from inside a TBB task; starts no threads and takes no locks.
/// Instantiated for N = 1, 4 and 8.
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
