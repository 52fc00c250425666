/// \file
/// Convolution passes over nerva's arrays: weights packed once for the
/// batch-reduce kernel, and the forward convolution of a chained input into a
/// chained output (see \ref convolve).
#pragma once

#include <cstddef>
#include <memory>

#include "nerva/detail/export.hpp"
#include "nerva/input_array.hpp"
#include "nerva/memory.hpp"
#include "nerva/output_array.hpp"

namespace nerva {

/// What the forward pass does with the output's padding (the border that the
/// output's bounds put around its data region).
enum ConvolutionBorder : unsigned char { KeepBorder = 0, ZeroBorder = 1 };
/// \var KeepBorder
/// Write the data region only; the padding keeps what the buffer held.

/// \var ZeroBorder
/// Also set every padding element to 0, so that a next layer can read the
/// output as a zero-padded input (an output allocated Uninitialized then needs
/// no fill).

/// The weights of one convolution layer, packed once into the order the
/// batch-reduce kernel reads: for each block of output channels and each
/// window tap, a column-major matrix of the block's output channels by all
/// input channels.
///
/// The packed block is leased from the pool and checked back in when the
/// object dies. Instantiated for float and double.
template <typename T>
class NERVA_API ConvolutionWeights {
 public:
  /// Packs `host`, the weights in the host's order: out_channels x
  /// in_channels x window, window dimension 0 fastest, so that element
  /// (k, c, w_0, ..., w_{d-1}) is at
  /// w_0 + R_0 (w_1 + R_1 (... + R_{d-1} (c + in_channels k))) with R_i =
  /// `window_extents[i]` (PyTorch's order for 2-D: K x C x height x width,
  /// with data dimension 0 the width).
  /// \ownership `host` and `window_extents` are only read.
  /// \cost One lease of K C R_0 ... R_{d-1} elements and one serial pass over
  /// them; a small block for the extents, from the pool's functions directly.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error;
  /// nothing is kept.
  ConvolutionWeights(SharedMemoryPool& pool, T const* host, size_t out_channels, size_t in_channels,
                     size_t num_window_dims, size_t const* window_extents);
  /// Checks the packed block in to the pool.
  ~ConvolutionWeights();
  ConvolutionWeights(ConvolutionWeights const&) = delete;
  ConvolutionWeights& operator=(ConvolutionWeights const&) = delete;

  /// K, the number of output channels.
  size_t OutChannels() const { return out_channels; }
  /// C, the number of input channels.
  size_t InChannels() const { return in_channels; }
  /// The number of window dimensions.
  size_t NumWindowDimensions() const { return num_window_dims; }
  /// R_i, the window's extent along data dimension i.
  size_t WindowExtent(size_t i) const { return extents[i]; }
  /// The number of taps, R_0 ... R_{d-1}.
  size_t NumTaps() const { return num_taps; }
  /// The number of output channels per packed block; the last block may be
  /// shorter.
  size_t BlockChannels() const { return block_channels; }
  /// The packed matrix of output-channel block `b` and tap `t` (tap index
  /// with window dimension 0 fastest): BlockChannels() rows (fewer in the last
  /// block) by InChannels() columns, its leading dimension the rows.
  T const* Packed(size_t b, size_t t) const {
    size_t const k0 = b * block_channels;
    size_t const rows = out_channels - k0 < block_channels ? out_channels - k0 : block_channels;
    return static_cast<T const*>(packed->data) + (k0 * num_taps + t * rows) * in_channels;
  }
  /// Unpacks into `host` in the host's order (the inverse of the packing).
  void CopyToHost(T* host) const;

 private:
  SharedMemoryPool* pool;
  std::unique_ptr<CNNMemoryBlock> packed;
  std::unique_ptr<CNNMemoryBlock> extents_block;
  size_t const* extents;
  size_t out_channels, in_channels, num_window_dims, num_taps, block_channels;
};

/// The forward convolution of `input` into `output`, both in the chained
/// layout (channel fastest, then observation, then the data dimensions in
/// order), for any number of data dimensions.
///
/// Geometry, per data dimension d, with R_d the window extent, X_d the
/// input's size and P_d = `padding_before[d]`: the output's positions
/// p = first_d, first_d + stride_d, ... below last_d (its bounds; stride 1
/// when the output has no strides) are the window's start in the input padded
/// by P_d zeros, so tap t reads input index p + t - P_d, and indices outside
/// [0, X_d) read zero (the padding after the input is wherever the window
/// reaches past it). A usual convolution with padding P and stride S has
/// first 0, last X + 2P - R + 1 and stride S. The result of output position
/// j (p = first + j stride) lands at index j of the output's data region
/// (UnpaddedData()).
///
/// The input must have InChannels() channels and the output OutChannels(),
/// both the same number of observations, and the weights as many window
/// dimensions as the arrays have data dimensions.
/// \cost One blocking tbb::parallel_for over output tiles (blocks of output
/// channels by runs of output positions), each tile one or a few
/// batch_reduce_gemm calls over all its taps and input channels; border taps
/// are left out of a tile's batch, never read from a zero-filled copy. No
/// lease, no lock; the two descriptor records and a table of the tiles are
/// allocated before the loop, none inside it.
/// \failure The checked build throws std::invalid_argument when the layouts
/// are not chained or the channel, observation or dimension counts disagree.
/// Instantiated for float and double.
template <typename T>
NERVA_API void convolution_forward(FormattedInputArray<T> const& input,
                                   ConvolutionWeights<T> const& weights,
                                   size_t const* padding_before, FormattedOutputArray<T>& output,
                                   ConvolutionBorder border = KeepBorder);

extern template class NERVA_API ConvolutionWeights<float>;
extern template class NERVA_API ConvolutionWeights<double>;
extern template NERVA_API void convolution_forward<float>(FormattedInputArray<float> const&,
                                                          ConvolutionWeights<float> const&,
                                                          size_t const*,
                                                          FormattedOutputArray<float>&,
                                                          ConvolutionBorder);
extern template NERVA_API void convolution_forward<double>(FormattedInputArray<double> const&,
                                                           ConvolutionWeights<double> const&,
                                                           size_t const*,
                                                           FormattedOutputArray<double>&,
                                                           ConvolutionBorder);

}  // namespace nerva
