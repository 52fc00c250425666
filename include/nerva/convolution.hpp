#pragma once

#include <cstddef>

#include "nerva/detail/export.hpp"

namespace nerva {

// Geometry of one data dimension of a convolution over an output array:
// the output's data range [first, last) and increment, and the extents and
// increments of the window and input operands that the caller supplies.
struct NERVA_API ConvolutionDimensionDescriptor {
  ConvolutionDimensionDescriptor(std::size_t first, std::size_t last, std::size_t windowExtent,
                                 std::size_t inputExtent);

  std::size_t first;
  std::size_t last;
  long outputIncrement = 1;
  std::size_t windowExtent;
  long windowIncrement = 1;
  std::size_t inputExtent;
  long inputIncrement = 1;
};

// As above for an output that keeps every stride-th position of its range;
// `last` is tightened to one past the last sampled position. The fields are
// repeated rather than inherited, so that no owner of the plain record can
// take (and half-destroy) a strided one.
struct NERVA_API StridedConvolutionDimensionDescriptor {
  StridedConvolutionDimensionDescriptor(std::size_t first, std::size_t last,
                                        std::size_t windowExtent, std::size_t inputExtent,
                                        std::size_t stride);

  std::size_t first;
  std::size_t last;
  long outputIncrement = 1;
  std::size_t windowExtent;
  long windowIncrement = 1;
  std::size_t inputExtent;
  long inputIncrement = 1;
  std::size_t stride;
};

// The same geometry for all data dimensions at once, as owned arrays of
// `dimensionCount` entries indexed by dimension.
struct NERVA_API ConvolutionNDDescriptor {
  // Copies dimensionCount = max(windowCount, inputCount) firsts and lasts,
  // pads the extents with 1 and gives the increments their dense defaults.
  ConvolutionNDDescriptor(std::size_t const* firsts, std::size_t const* lasts,
                          std::size_t const* windowExtents, std::size_t windowCount,
                          std::size_t const* inputExtents, std::size_t inputCount);
  ~ConvolutionNDDescriptor();

  ConvolutionNDDescriptor(const ConvolutionNDDescriptor&) = delete;
  ConvolutionNDDescriptor& operator=(const ConvolutionNDDescriptor&) = delete;

  // Dense first-dimension-fastest increments of output, window and input.
  // The output extent of a dimension is the number of positions sampled from
  // its range with `strides` (null: every position).
  void SetDenseIncrements(std::size_t const* strides);

  std::size_t* firsts = nullptr;
  std::size_t* lasts = nullptr;
  std::size_t* windowExtents = nullptr;
  std::size_t* inputExtents = nullptr;
  long* outputIncrements = nullptr;
  long* windowIncrements = nullptr;
  long* inputIncrements = nullptr;
  std::size_t dimensionCount;
  std::size_t windowDimensionCount;
  std::size_t inputDimensionCount;
};

// The N-D record with the output's strides; the fields of the plain record
// are repeated, not inherited (see the strided per-dimension record).
struct NERVA_API StridedConvolutionNDDescriptor {
  StridedConvolutionNDDescriptor(std::size_t const* firsts, std::size_t const* lasts,
                                 std::size_t const* windowExtents, std::size_t windowCount,
                                 std::size_t const* inputExtents, std::size_t inputCount);
  // Releases `strides` first, then the arrays of the plain record.
  ~StridedConvolutionNDDescriptor();

  StridedConvolutionNDDescriptor(const StridedConvolutionNDDescriptor&) = delete;
  StridedConvolutionNDDescriptor& operator=(const StridedConvolutionNDDescriptor&) = delete;

  void SetDenseIncrements(std::size_t const* strides);

  std::size_t* firsts = nullptr;
  std::size_t* lasts = nullptr;
  std::size_t* windowExtents = nullptr;
  std::size_t* inputExtents = nullptr;
  long* outputIncrements = nullptr;
  long* windowIncrements = nullptr;
  long* inputIncrements = nullptr;
  std::size_t dimensionCount;
  std::size_t windowDimensionCount;
  std::size_t inputDimensionCount;
  std::size_t* strides = nullptr;
};

}  // namespace nerva
