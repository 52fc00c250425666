/// \file
/// Copy kernels over N-D arrays: a strided gather of a regular sub-grid into a
/// dense block leased from the pool, and the copy of the common corner of two
/// arrays of different extents. Both run on the TBB workers of the caller and
/// block until done.
#pragma once

#include <cstddef>
#include <memory>

#include "nerva/detail/export.hpp"
#include "nerva/memory.hpp"

namespace nerva {

/// Offset table of a strided selection. In each of the `numDims` leading
/// dimensions (dimension 0 fastest) indices firsts[i], firsts[i] +
/// increments[i], ... below lasts[i] are selected. The block holds the
/// element offset of every selected element within one plane of the source
/// (dimension 0 least significant), then the `numDims` source strides, then
/// the `numDims` per-dimension counts. An empty dimension leaves the table
/// without offsets. With numDims = 0 the single offset is 0, followed by the
/// stride word 1. Build it once to reuse it across strided_copy calls.
/// \ownership The caller owns the block, allocated with `alloc` directly (not
/// pooled).
/// \cost Up to 128 offsets are filled on the calling thread, more on TBB
/// workers.
/// \failure A failed allocation is not detected; increments must be at
/// least 1 (the checked build throws for 0 over a non-empty range).
NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy_mapping(
    std::size_t const* sizes, std::size_t const* firsts, std::size_t const* lasts,
    std::size_t const* increments, std::size_t numDims, AllocatorFunctions alloc);

/// Gathers the selection described above out of `src` (extents `sizes`, with
/// numDims + 2 entries; the two trailing dimensions are taken whole) into a
/// dense block leased with lease_or_error. With channelDim != 0 the trailing
/// dimensions are outermost and each plane is gathered element by element;
/// with channelDim == 0 they are innermost and each selected element is a
/// contiguous run. `mapping` is the offset table of the same selection or null
/// to build a temporary one with the pool's allocator. Every dimension must
/// select at least one index.
/// \ownership The caller owns the result; a given `mapping` is only read.
/// \cost One lease (plus a temporary table when `mapping` is null); the
/// gather runs on TBB workers and is done on return.
/// \failure A failed lease reports through SharedMemoryPool::lease_or_error;
/// the temporary table is released on every path.
/// Instantiated for double, float and unsigned char.
template <class T>
NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy(
    SharedMemoryPool& pool, T const* src, std::size_t const* sizes, std::size_t const* firsts,
    std::size_t const* lasts, std::size_t const* increments, std::size_t numDims,
    std::size_t channelDim, std::size_t const* mapping);

extern template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<double>(
    SharedMemoryPool&, double const*, std::size_t const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t, std::size_t, std::size_t const*);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<float>(
    SharedMemoryPool&, float const*, std::size_t const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t, std::size_t, std::size_t const*);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<unsigned char>(
    SharedMemoryPool&, unsigned char const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t const*, std::size_t, std::size_t, std::size_t const*);

/// Copies the first min(srcSizes[i], dstSizes[i]) indices of every dimension
/// 0..level from `src` to `dst`; the rest of `dst` is left untouched. The
/// innermost unit is a group of `groupLength` contiguous elements, the same in
/// both arrays. Source and destination must not overlap.
/// \cost No allocation; the copy runs on TBB workers, four slices (or rows)
/// per task, and is done on return.
/// Instantiated for double, float, unsigned char and long.
template <class T>
NERVA_API void ranged_copy(T const* src, std::size_t const* srcSizes, T* dst,
                           std::size_t const* dstSizes, std::size_t level, long groupLength);

extern template NERVA_API void ranged_copy<double>(double const*, std::size_t const*, double*,
                                                   std::size_t const*, std::size_t, long);
extern template NERVA_API void ranged_copy<float>(float const*, std::size_t const*, float*,
                                                  std::size_t const*, std::size_t, long);
extern template NERVA_API void ranged_copy<unsigned char>(unsigned char const*, std::size_t const*,
                                                          unsigned char*, std::size_t const*,
                                                          std::size_t, long);
extern template NERVA_API void ranged_copy<long>(long const*, std::size_t const*, long*,
                                                 std::size_t const*, std::size_t, long);

}  // namespace nerva
