/// \file
/// Records of convolution geometry, made by the output arrays (see
/// \ref bounds).
#pragma once

#include <cstddef>

#include "nerva/detail/export.hpp"

namespace nerva {

/// Geometry of one data dimension of a convolution over an output array:
/// the output's data range [first, last) and increment, and the extents and
/// increments of the window and input operands that the caller supplies. The
/// library attaches no meaning to the window and input pairs and never reads
/// the record; the caller owns it.
struct NERVA_API ConvolutionDimensionDescriptor {
  /// Stores the four values; the increments start at 1 (the factory sets them).
  ConvolutionDimensionDescriptor(std::size_t first, std::size_t last, std::size_t windowExtent,
                                 std::size_t inputExtent);

  /// First position of the output's data range.
  std::size_t first;
  /// Exclusive end of the output's data range.
  std::size_t last;
  /// Element increment between neighbouring outputs (negative for a reversed
  /// layout).
  long outputIncrement = 1;
  /// Extent of the window operand (filter or pooling window).
  std::size_t windowExtent;
  /// Element increment of the window operand.
  long windowIncrement = 1;
  /// Extent of the input operand.
  std::size_t inputExtent;
  /// Element increment of the input operand.
  long inputIncrement = 1;
};

/// The geometry of ConvolutionDimensionDescriptor for an output that keeps
/// every stride-th position of its range; `last` is tightened to one past the
/// last sampled position. The fields are
/// repeated rather than inherited, so that no owner of the plain record can
/// take (and half-destroy) a strided one.
struct NERVA_API StridedConvolutionDimensionDescriptor {
  /// Stores the values as given; the factory tightens `last`.
  StridedConvolutionDimensionDescriptor(std::size_t first, std::size_t last,
                                        std::size_t windowExtent, std::size_t inputExtent,
                                        std::size_t stride);

  /// \copydoc ConvolutionDimensionDescriptor::first
  std::size_t first;
  /// \copydoc ConvolutionDimensionDescriptor::last
  std::size_t last;
  /// \copydoc ConvolutionDimensionDescriptor::outputIncrement
  long outputIncrement = 1;
  /// \copydoc ConvolutionDimensionDescriptor::windowExtent
  std::size_t windowExtent;
  /// \copydoc ConvolutionDimensionDescriptor::windowIncrement
  long windowIncrement = 1;
  /// \copydoc ConvolutionDimensionDescriptor::inputExtent
  std::size_t inputExtent;
  /// \copydoc ConvolutionDimensionDescriptor::inputIncrement
  long inputIncrement = 1;
  /// The output's sampling stride along the dimension.
  std::size_t stride;
};

/// The same geometry for all data dimensions at once, as owned arrays of
/// `dimensionCount` entries indexed by dimension. Not copyable; the caller
/// owns the record, whose destructor frees the arrays.
struct NERVA_API ConvolutionNDDescriptor {
  /// Copies dimensionCount = max(windowCount, inputCount) firsts and lasts,
  /// pads the extents with 1 and gives the increments their dense defaults.
  /// \cost Seven arrays allocated with `new[]`.
  /// \failure std::bad_alloc passes through; arrays made before it are freed.
  ConvolutionNDDescriptor(std::size_t const* firsts, std::size_t const* lasts,
                          std::size_t const* windowExtents, std::size_t windowCount,
                          std::size_t const* inputExtents, std::size_t inputCount);
  /// Frees the seven arrays.
  ~ConvolutionNDDescriptor();

  ConvolutionNDDescriptor(const ConvolutionNDDescriptor&) = delete;
  ConvolutionNDDescriptor& operator=(const ConvolutionNDDescriptor&) = delete;

  /// Dense first-dimension-fastest increments of output, window and input.
  /// The output extent of a dimension is the number of positions sampled from
  /// its range with `strides` (null: every position).
  void SetDenseIncrements(std::size_t const* strides);

  /// First position of the output's data range, per dimension.
  std::size_t* firsts = nullptr;
  /// Exclusive end of the output's data range, per dimension.
  std::size_t* lasts = nullptr;
  /// Extent of the window operand, per dimension.
  std::size_t* windowExtents = nullptr;
  /// Extent of the input operand, per dimension.
  std::size_t* inputExtents = nullptr;
  /// Element increment of the output, per dimension.
  long* outputIncrements = nullptr;
  /// Element increment of the window operand, per dimension.
  long* windowIncrements = nullptr;
  /// Element increment of the input operand, per dimension.
  long* inputIncrements = nullptr;
  /// Entries in every array: the larger of the next two counts.
  std::size_t dimensionCount;
  /// Number of window extents given to the constructor.
  std::size_t windowDimensionCount;
  /// Number of input extents given to the constructor.
  std::size_t inputDimensionCount;
};

/// The N-D record with the output's strides; the fields of the plain record
/// are repeated, not inherited (see the strided per-dimension record).
struct NERVA_API StridedConvolutionNDDescriptor {
  /// \copydoc ConvolutionNDDescriptor::ConvolutionNDDescriptor
  StridedConvolutionNDDescriptor(std::size_t const* firsts, std::size_t const* lasts,
                                 std::size_t const* windowExtents, std::size_t windowCount,
                                 std::size_t const* inputExtents, std::size_t inputCount);
  /// Releases `strides` first, then the arrays of the plain record.
  ~StridedConvolutionNDDescriptor();

  StridedConvolutionNDDescriptor(const StridedConvolutionNDDescriptor&) = delete;
  StridedConvolutionNDDescriptor& operator=(const StridedConvolutionNDDescriptor&) = delete;

  /// \copydoc ConvolutionNDDescriptor::SetDenseIncrements
  void SetDenseIncrements(std::size_t const* strides);

  /// \copydoc ConvolutionNDDescriptor::firsts
  std::size_t* firsts = nullptr;
  /// \copydoc ConvolutionNDDescriptor::lasts
  std::size_t* lasts = nullptr;
  /// \copydoc ConvolutionNDDescriptor::windowExtents
  std::size_t* windowExtents = nullptr;
  /// \copydoc ConvolutionNDDescriptor::inputExtents
  std::size_t* inputExtents = nullptr;
  /// \copydoc ConvolutionNDDescriptor::outputIncrements
  long* outputIncrements = nullptr;
  /// \copydoc ConvolutionNDDescriptor::windowIncrements
  long* windowIncrements = nullptr;
  /// \copydoc ConvolutionNDDescriptor::inputIncrements
  long* inputIncrements = nullptr;
  /// \copydoc ConvolutionNDDescriptor::dimensionCount
  std::size_t dimensionCount;
  /// \copydoc ConvolutionNDDescriptor::windowDimensionCount
  std::size_t windowDimensionCount;
  /// \copydoc ConvolutionNDDescriptor::inputDimensionCount
  std::size_t inputDimensionCount;
  /// The output's sampling stride, per dimension (owned array).
  std::size_t* strides = nullptr;
};

}  // namespace nerva
