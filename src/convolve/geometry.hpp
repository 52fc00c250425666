#pragma once

// The tiling of a forward convolution: what every output tile multiplies,
// worked out once per call before the parallel loop.

#include <cstddef>
#include <vector>

#include "nerva/convolve.hpp"

namespace nerva::convolve_detail {

// Data dimensions a convolution handles (the tiles keep per-dimension state
// on the stack) and products per batch-reduce call.
constexpr std::size_t kMaxDims = 12;
constexpr long kMaxBatch = 256;

// Columns of one product: a run of output positions along data dimension 0
// whose window taps along that dimension all lie inside the input, or all
// leave it at the same side by the same amount.
struct ColumnGroup {
  long in_offset;   // input element of column 0 at tap 0, channel 0 (dimension 0 part)
  long out_offset;  // output element of column 0, channel 0
  long columns, ldb, ldc;
  long tap_first, tap_last;  // the taps along dimension 0 that read the input
};

struct Geometry {
  std::size_t n = 0;         // data dimensions
  long C = 0, K = 0, N = 0;  // input channels, output channels, observations
  long block_channels = 1;   // output channels per weight block (rows of a product)
  long channel_block = 1;    // input channels per product (k)
  long batch_limit = 1;      // products per call
  // Per data dimension: the output's first position, stride and count of
  // positions; the padding before the input, window extent and input size;
  // the input's and the output's element increments.
  std::vector<long> first, stride, count, pad, extent, size, in_inc, out_inc;
  std::size_t blocks = 0;  // blocks of output channels
  std::size_t rows = 0;    // positions along the data dimensions but the first
  std::vector<ColumnGroup> groups;

  std::size_t items() const { return blocks * rows * groups.size(); }
};

template <typename T>
Geometry make_geometry(FormattedInputArray<T> const& input, ConvolutionWeights<T> const& weights,
                       std::size_t const* padding_before, FormattedOutputArray<T> const& output);

// Sets every element of the output's padding to 0.
template <typename T>
void zero_border(FormattedOutputArray<T>& output, Geometry const& g);

}  // namespace nerva::convolve_detail
