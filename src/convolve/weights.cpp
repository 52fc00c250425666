#include <algorithm>
#include <cstring>

#include "detail/checks.hpp"
#include "nerva/convolve.hpp"

namespace nerva {
namespace {

// Output channels per packed block: the row count of the batch-reduce calls.
// 64 fills whole register tiles of the kernels for both element types and
// keeps a block's matrices of all taps for 64 input channels at 147 KiB
// (float), within the second-level cache next to the input rows it meets.
constexpr size_t kBlockChannels = 64;

}  // namespace

template <typename T>
ConvolutionWeights<T>::ConvolutionWeights(SharedMemoryPool& pool_, T const* host,
                                          size_t out_channels_, size_t in_channels_,
                                          size_t num_window_dims_, size_t const* window_extents)
    : pool(&pool_),
      extents(nullptr),
      out_channels(out_channels_),
      in_channels(in_channels_),
      num_window_dims(num_window_dims_),
      num_taps(1),
      block_channels(std::max<size_t>(1, std::min(out_channels_, kBlockChannels))) {
  NERVA_CHECK(host != nullptr || out_channels == 0 || in_channels == 0,
              "ConvolutionWeights: the host weights are null");
  NERVA_CHECK(window_extents != nullptr || num_window_dims == 0,
              "ConvolutionWeights: the window extents are null");
  extents_block = std::make_unique<CNNMemoryBlock>(
      std::max<size_t>(1, num_window_dims) * sizeof(size_t), pool->allocator_functions);
  if (extents_block->data == nullptr) throw std::bad_alloc();
  auto* const e = static_cast<size_t*>(extents_block->data);
  for (size_t d = 0; d < num_window_dims; ++d) {
    NERVA_CHECK(window_extents[d] > 0, "ConvolutionWeights: window extent ", d, " is 0");
    e[d] = window_extents[d];
    num_taps *= e[d];
  }
  extents = e;

  size_t const total = out_channels * in_channels * num_taps;
  packed = pool->lease_or_error(total * sizeof(T));
  T* const dst = static_cast<T*>(packed->data);
  // Host element (k, c, t) is at (k C + c) taps + t; packed, block b = k / Kb
  // holds for each tap a Kb' x C column-major matrix (Kb' the block's rows).
  for (size_t k0 = 0; k0 < out_channels; k0 += block_channels) {
    size_t const rows = std::min(block_channels, out_channels - k0);
    for (size_t t = 0; t < num_taps; ++t) {
      T* const matrix = dst + (k0 * num_taps + t * rows) * in_channels;
      for (size_t c = 0; c < in_channels; ++c)
        for (size_t r = 0; r < rows; ++r)
          matrix[c * rows + r] = host[((k0 + r) * in_channels + c) * num_taps + t];
    }
  }
}

template <typename T>
ConvolutionWeights<T>::~ConvolutionWeights() {
  if (packed) pool->checkin(std::move(packed));
}

template <typename T>
void ConvolutionWeights<T>::CopyToHost(T* host) const {
  T const* const src = static_cast<T const*>(packed->data);
  for (size_t k0 = 0; k0 < out_channels; k0 += block_channels) {
    size_t const rows = std::min(block_channels, out_channels - k0);
    for (size_t t = 0; t < num_taps; ++t) {
      T const* const matrix = src + (k0 * num_taps + t * rows) * in_channels;
      for (size_t c = 0; c < in_channels; ++c)
        for (size_t r = 0; r < rows; ++r)
          host[((k0 + r) * in_channels + c) * num_taps + t] = matrix[c * rows + r];
    }
  }
}

template class ConvolutionWeights<float>;
template class ConvolutionWeights<double>;

}  // namespace nerva
