#pragma once

// Contiguous copy and fill of one run of elements, split over TBB workers when
// the run is longer than one chunk. Internal to the library (not exported):
// the templates are defined here so that every kernel and the tests can
// instantiate them for the element types that have a grain below.

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace nerva {

// Grains (and serial thresholds) in elements: 128 KiB per copy chunk and
// 256 KiB per fill chunk. Only the listed element types have one (0 = none).
// A run of at most one chunk is done on the calling thread without TBB.
// Explicit specializations are not implicitly inline, hence `inline` on each.
template <class T>
inline constexpr std::size_t simple_copy_grain = 0;
template <>
inline constexpr std::size_t simple_copy_grain<unsigned char> = 131072;
template <>
inline constexpr std::size_t simple_copy_grain<float> = 32768;
template <>
inline constexpr std::size_t simple_copy_grain<double> = 16384;

template <class T>
inline constexpr std::size_t simple_fill_grain = 0;
template <>
inline constexpr std::size_t simple_fill_grain<unsigned char> = 262144;
template <>
inline constexpr std::size_t simple_fill_grain<float> = 65536;
template <>
inline constexpr std::size_t simple_fill_grain<double> = 32768;
template <>
inline constexpr std::size_t simple_fill_grain<long> = 32768;

namespace detail {

template <class T>
inline void copy_run(T* dst, T const* src, std::size_t n) {
  if (n != 0) std::memmove(dst, src, n * sizeof(T));
}

template <class T>
inline void fill_run(T* data, std::size_t n, T value) {
  if constexpr (sizeof(T) == 1) {
    if (n != 0) std::memset(data, static_cast<unsigned char>(value), n);
  } else {
    for (std::size_t i = 0; i < n; ++i) data[i] = value;
  }
}

}  // namespace detail

// Copies src[0, n) to dst[0, n); every chunk is one memmove.
template <class T>
void execute_simple_copy(T* dst, T const* src, std::size_t n) {
  static_assert(simple_copy_grain<T> != 0,
                "execute_simple_copy exists for unsigned char, float and double only");
  constexpr std::size_t grain = simple_copy_grain<T>;
  if (n <= grain) {
    detail::copy_run(dst, src, n);
    return;
  }
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, n, grain),
      [dst, src](tbb::blocked_range<std::size_t> const& r) {
        detail::copy_run(dst + r.begin(), src + r.begin(), r.size());
      },
      tbb::auto_partitioner());
}

// Sets data[0, n) to value; every chunk is one store loop (memset for bytes).
template <class T>
void execute_simple_fill(T* data, std::size_t n, T value) {
  static_assert(simple_fill_grain<T> != 0,
                "execute_simple_fill exists for unsigned char, float, double and long only");
  constexpr std::size_t grain = simple_fill_grain<T>;
  if (n <= grain) {
    detail::fill_run(data, n, value);
    return;
  }
  tbb::parallel_for(
      tbb::blocked_range<std::size_t>(0, n, grain),
      [data, value](tbb::blocked_range<std::size_t> const& r) {
        detail::fill_run(data + r.begin(), r.size(), value);
      },
      tbb::auto_partitioner());
}

}  // namespace nerva
