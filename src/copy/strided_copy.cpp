#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <algorithm>
#include <cstddef>
#include <memory>

#include "copy/simple_copy.hpp"
#include "detail/checks.hpp"
#include "nerva/copy.hpp"

namespace nerva {
namespace {

// Positions gathered per task within one plane.
constexpr std::size_t kGatherBlock = 256;

// The gather is bound by the latency of the scattered source reads, so the
// source of the element 1 KiB worth of elements ahead is prefetched (a hint
// only; it never faults) once per group of positions.
template <class T>
struct GatherPrefetch {
  static constexpr std::size_t ahead = 1024 / sizeof(T);
  static constexpr std::size_t every = sizeof(T) == 1 ? 32 : 8;
};

template <class T>
inline void gather_block(T* dstPlane, T const* srcPlane, std::size_t const* offsets,
                         std::size_t start, std::size_t end, std::size_t numSelected) {
  constexpr std::size_t ahead = GatherPrefetch<T>::ahead;
  constexpr std::size_t every = GatherPrefetch<T>::every;
  std::size_t const prefetchEnd = numSelected > ahead ? numSelected - ahead : 0;
  std::size_t j = start;
  for (; j + every <= end; j += every) {
    if (j < prefetchEnd) __builtin_prefetch(srcPlane + offsets[j + ahead]);
    for (std::size_t i = j; i < j + every; ++i) dstPlane[i] = srcPlane[offsets[i]];
  }
  for (; j < end; ++j) dstPlane[j] = srcPlane[offsets[j]];
}

// Trailing dimensions outermost: every plane gathers the same offsets.
template <class T>
void gather_planes(T* dst, T const* src, std::size_t const* offsets, std::size_t numSelected,
                   std::size_t planes, std::size_t planeSize) {
  tbb::parallel_for(
      std::size_t{0}, planes, std::size_t{1},
      [=](std::size_t p) {
        T const* const srcPlane = src + p * planeSize;
        T* const dstPlane = dst + p * numSelected;
        tbb::parallel_for(
            std::size_t{0}, numSelected, kGatherBlock,
            [=](std::size_t start) {
              std::size_t const end = std::min(start + kGatherBlock, numSelected);
              gather_block(dstPlane, srcPlane, offsets, start, end, numSelected);
            },
            tbb::auto_partitioner());
      },
      tbb::auto_partitioner());
}

// Asks for the lines of the next run while this one is copied: each run
// starts cold, on a page of its own, where the hardware prefetchers start over.
template <class T>
inline void prefetch_run(T const* run, std::size_t n) {
  auto const at = reinterpret_cast<std::uintptr_t>(run);
  for (std::size_t b = 0; b < n * sizeof(T); b += 64) {
    __builtin_prefetch(reinterpret_cast<void const*>(at + b));
  }
}

// Trailing dimensions innermost: every selected element is a contiguous run.
template <class T>
void copy_runs(T* dst, T const* src, std::size_t const* offsets, std::size_t numSelected,
               std::size_t planes) {
  // A gather too large for the caches writes runs of at most one copy chunk
  // with non-temporal stores (longer runs stream inside the simple copy).
  bool const stream =
      numSelected * planes >= detail::kStreamBytes / sizeof(T) && planes <= simple_copy_grain<T>;
  tbb::parallel_for(
      std::size_t{0}, numSelected, std::size_t{1},
      [=](std::size_t k) {
        if (stream) {
          if (k + 1 < numSelected) prefetch_run(src + planes * offsets[k + 1], planes);
          detail::stream_copy_run(dst + planes * k, src + planes * offsets[k], planes);
        } else {
          execute_simple_copy<T>(dst + planes * k, src + planes * offsets[k], planes);
        }
      },
      tbb::auto_partitioner());
}

}  // namespace

template <class T>
std::unique_ptr<CNNMemoryBlock> strided_copy(SharedMemoryPool& pool, T const* src,
                                             std::size_t const* sizes, std::size_t const* firsts,
                                             std::size_t const* lasts,
                                             std::size_t const* increments, std::size_t numDims,
                                             std::size_t channelDim, std::size_t const* mapping) {
  // The element count below has no guard for empty ranges: an empty range
  // with an increment above 1 wraps to a huge count.
  for (std::size_t i = 0; NERVA_CHECKED_BUILD && i < numDims; ++i) {
    NERVA_CHECK(increments[i] != 0, "strided_copy: increment 0 in dimension ", i,
                " with the range [", firsts[i], ", ", lasts[i], ")");
    NERVA_CHECK(lasts[i] > firsts[i] || (lasts[i] == firsts[i] && increments[i] == 1),
                "strided_copy: empty range [", firsts[i], ", ", lasts[i], ") with increment ",
                increments[i], " in dimension ", i);
  }
  // A table built here lives only for this call, whichever way it ends.
  std::unique_ptr<CNNMemoryBlock> own_mapping;
  if (mapping == nullptr) {
    own_mapping =
        strided_copy_mapping(sizes, firsts, lasts, increments, numDims, pool.allocator_functions);
    mapping = static_cast<std::size_t const*>(own_mapping->data);
  }

  std::size_t numSelected = 1;
  std::size_t planeSize = 1;
  for (std::size_t i = 0; i < numDims; ++i) {
    numSelected *= (lasts[i] - 1 - firsts[i]) / increments[i] + 1;
    planeSize *= sizes[i];
  }
  std::size_t const planes = sizes[numDims] * sizes[numDims + 1];

  std::unique_ptr<CNNMemoryBlock> result = pool.lease_or_error(numSelected * sizeof(T) * planes);
  T* const dst = static_cast<T*>(result->data);

  if (channelDim != 0) {
    if (planes != 0) gather_planes(dst, src, mapping, numSelected, planes, planeSize);
  } else {
    if (numSelected != 0) copy_runs(dst, src, mapping, numSelected, planes);
  }
  return result;
}

template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<double>(
    SharedMemoryPool&, double const*, std::size_t const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t, std::size_t, std::size_t const*);
template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<float>(
    SharedMemoryPool&, float const*, std::size_t const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t, std::size_t, std::size_t const*);
template NERVA_API std::unique_ptr<CNNMemoryBlock> strided_copy<unsigned char>(
    SharedMemoryPool&, unsigned char const*, std::size_t const*, std::size_t const*,
    std::size_t const*, std::size_t const*, std::size_t, std::size_t, std::size_t const*);

}  // namespace nerva
