#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "nerva/copy.hpp"

namespace nerva {
namespace {

// Slices (or rows of groups at the innermost level) per task.
constexpr std::size_t kSlicesPerTask = 4;

}  // namespace

template <class T>
void ranged_copy(T const* src, std::size_t const* srcSizes, T* dst, std::size_t const* dstSizes,
                 std::size_t level, long groupLength) {
  std::size_t const rows = std::min(srcSizes[level], dstSizes[level]);
  if (rows == 0) return;
  std::size_t const group = static_cast<std::size_t>(groupLength);

  if (level == 0) {
    // Rows of groups are contiguous in both arrays: one memmove per task.
    tbb::parallel_for(
        std::size_t{0}, rows, kSlicesPerTask,
        [=](std::size_t r) {
          std::size_t const end = std::min(r + kSlicesPerTask, rows);
          std::size_t const bytes = (end - r) * group * sizeof(T);
          if (bytes != 0) std::memmove(dst + r * group, src + r * group, bytes);
        },
        tbb::auto_partitioner());
    return;
  }

  std::size_t srcPitch = group;
  std::size_t dstPitch = group;
  for (std::size_t i = 0; i < level; ++i) {
    srcPitch *= srcSizes[i];
    dstPitch *= dstSizes[i];
  }
  tbb::parallel_for(
      std::size_t{0}, rows, kSlicesPerTask,
      [=](std::size_t r) {
        std::size_t const end = std::min(r + kSlicesPerTask, rows);
        T const* s = src + r * srcPitch;
        T* d = dst + r * dstPitch;
        for (; r < end; ++r, s += srcPitch, d += dstPitch)
          ranged_copy<T>(s, srcSizes, d, dstSizes, level - 1, groupLength);
      },
      tbb::auto_partitioner());
}

template NERVA_API void ranged_copy<double>(double const*, std::size_t const*, double*,
                                            std::size_t const*, std::size_t, long);
template NERVA_API void ranged_copy<float>(float const*, std::size_t const*, float*,
                                           std::size_t const*, std::size_t, long);
template NERVA_API void ranged_copy<unsigned char>(unsigned char const*, std::size_t const*,
                                                   unsigned char*, std::size_t const*, std::size_t,
                                                   long);
template NERVA_API void ranged_copy<long>(long const*, std::size_t const*, long*,
                                          std::size_t const*, std::size_t, long);

}  // namespace nerva
