#include "nerva/output_array.hpp"

#include <cstdlib>
#include <utility>

#include "copy/simple_copy.hpp"
#include "detail/sampled_count.hpp"

// Construction, sizing, allocation and hand-over of output buffers. Every
// constructor builds the base first and then its holders in declaration
// order, so an exception from a later step frees what was made before it.

namespace nerva {

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_, FormattedArray const* format,
                                              AllocateOutputAs how)
    : FormattedArray(format->NumDataDimensions(), format->ChannelDimension(),
                     format->ObservationDimension(), format->SequenceDimension(),
                     pool_.allocator_functions, format->BaseIncrement()),
      pool(&pool_) {
  BoundsFromSizes(format->GetSizesInDefaultFormat());
  SetSizesAndAllocate(format->NumChannels(), format->NumObservations(), how);
}

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_, size_t const* data_sizes,
                                              size_t num_data_dims_, size_t num_channels,
                                              size_t num_observations, size_t channel_position,
                                              size_t observation_position, AllocateOutputAs how)
    : FormattedArray(num_data_dims_, channel_position, observation_position, num_data_dims_ + 2,
                     pool_.allocator_functions, 1),
      pool(&pool_) {
  BoundsFromSizes(data_sizes);
  SetSizeArray(num_channels, num_observations);
  SetSizesAndAllocate(num_channels, num_observations, how);
}

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_, size_t const* firsts_,
                                              size_t const* lasts_, size_t const* strides_,
                                              size_t num_data_dims_, size_t num_channels,
                                              size_t num_observations, size_t channel_position,
                                              size_t observation_position, size_t const* padding_,
                                              AllocateOutputAs how)
    : FormattedArray(num_data_dims_, channel_position, observation_position, num_data_dims_ + 2,
                     pool_.allocator_functions, 1),
      pool(&pool_) {
  CopyDataBounds(firsts_, lasts_, strides_, padding_);
  SetSizesAndAllocate(num_channels, num_observations, how);
}

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_, size_t const* firsts_,
                                              size_t const* lasts_, size_t const* strides_,
                                              size_t num_data_dims_, size_t num_channels,
                                              size_t num_observations, size_t const* padding_,
                                              AllocateOutputAs how)
    : FormattedOutputArray(pool_, firsts_, lasts_, strides_, num_data_dims_, num_channels,
                           num_observations, num_data_dims_, num_data_dims_ + 1, padding_, how) {}

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_,
                                              FormattedOutputArray<T>* source)
    : FormattedArray(source->NumDataDimensions(), source->ChannelDimension(),
                     source->ObservationDimension(), source->SequenceDimension(),
                     pool_.allocator_functions, source->BaseIncrement()),
      pool(&pool_) {
  CopyDataBounds(source->firsts, source->lasts, source->strides, source->padding);
  SetSizeArray(source->NumChannels(), source->NumObservations());
  allocated_block = source->Relinquish();
}

template <typename T>
FormattedOutputArray<T>::FormattedOutputArray(SharedMemoryPool& pool_,
                                              FormattedOutputArray<T> const* like,
                                              size_t num_observations)
    : FormattedArray(like->NumDataDimensions(), like->ChannelDimension(),
                     like->ObservationDimension(), like->SequenceDimension(),
                     AllocatorFunctions{&std::malloc, &std::free}, 1),
      pool(&pool_) {
  CopyDataBounds(like->firsts, like->lasts, like->strides, like->padding);
  SetSizeArray(like->NumChannels(), num_observations);
  const size_t bytes = TotalNumElem() * sizeof(T);
  if (bytes != 0) allocated_block = pool->lease_or_error(bytes);
}

// Data blocks go back to the pool, staging first; the bounds block and then
// the base's storage are freed as members and base are destroyed.
template <typename T>
FormattedOutputArray<T>::~FormattedOutputArray() {
  if (staging_block) pool->checkin(std::move(staging_block));
  if (allocated_block) pool->checkin(std::move(allocated_block));
}

template <typename T>
void FormattedOutputArray<T>::BoundsFromSizes(size_t const* data_sizes) {
  const size_t n = num_data_dims;
  bounds_block =
      std::make_unique<CNNMemoryBlock>(2 * n * sizeof(size_t), pool->allocator_functions);
  firsts = static_cast<size_t*>(bounds_block->data);
  lasts = firsts + n;
  for (size_t i = 0; i < n; ++i) {
    firsts[i] = 0;
    lasts[i] = data_sizes[i];
  }
}

template <typename T>
void FormattedOutputArray<T>::SetSizeArray(size_t num_channels, size_t num_observations) {
  const size_t n = num_data_dims;
  sizes[n] = num_channels;
  sizes[n + 1] = num_observations;
  sizes[n + 2] = 1;
  for (size_t i = 0; i < n; ++i) {
    size_t count = detail::SampledCount(firsts[i], lasts[i], strides ? strides[i] : 1);
    if (padding != nullptr) count += padding[i] + padding[n + i];
    sizes[i] = count;
  }
  UpdateDataIncrements();
}

template <typename T>
void FormattedOutputArray<T>::SetSizesAndAllocate(size_t num_channels, size_t num_observations,
                                                  AllocateOutputAs how) {
  SetSizeArray(num_channels, num_observations);
  const size_t total = TotalNumElem();
  if (static_cast<unsigned char>(how) == Unallocated) return;
  if (total * sizeof(T) == 0) return;
  // The block that was there is freed, not pooled.
  allocated_block = pool->lease_or_error(total * sizeof(T));
  if (static_cast<unsigned char>(how) == Zeros) {
    execute_simple_fill<T>(static_cast<T*>(allocated_block->data), total, T(0));
  }
}

template <typename T>
void FormattedOutputArray<T>::SetAllocatedBlock(std::unique_ptr<CNNMemoryBlock> block) {
  if (block) allocated_block = std::move(block);
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedOutputArray<T>::Relinquish() {
  if (staging_block) return std::move(staging_block);
  return std::move(allocated_block);
}

// Members defined in the other files of this class are instantiated there.
template class FormattedOutputArray<float>;
template class FormattedOutputArray<double>;
template class FormattedOutputArray<unsigned char>;
template class FormattedOutputArray<long>;

}  // namespace nerva
