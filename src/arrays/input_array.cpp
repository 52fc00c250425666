#include "nerva/input_array.hpp"

#include <utility>

namespace nerva {

template <typename T>
FormattedInputArray<T>::FormattedInputArray(SharedMemoryPool& pool_, const T* data,
                                            const size_t* sizes_, size_t count,
                                            size_t num_data_dims_, size_t channel_position,
                                            size_t observation_position,
                                            const size_t* upsampling_factors_)
    : FormattedArray(num_data_dims_, channel_position, observation_position, num_data_dims_ + 2,
                     pool_.allocator_functions, 1),
      pool(&pool_),
      source(data),
      upsampling_factors(upsampling_factors_),
      uses_reformatted(false) {
  SetSizesInCurrentFormat(sizes_, count);
}

template <typename T>
FormattedInputArray<T>::FormattedInputArray(SharedMemoryPool& pool_, const T* data,
                                            const FormattedArray* format)
    : FormattedArray(format->NumDataDimensions(), format->ChannelDimension(),
                     format->ObservationDimension(), format->SequenceDimension(),
                     pool_.allocator_functions, format->BaseIncrement()),
      pool(&pool_),
      source(nullptr),
      upsampling_factors(nullptr),
      uses_reformatted(false) {
  SetSizesInDefaultFormat(format->GetSizesInDefaultFormat(), format->NumDimensions());
  source = data;
}

template <typename T>
FormattedInputArray<T>::FormattedInputArray(SharedMemoryPool& pool_,
                                            std::unique_ptr<CNNMemoryBlock> block,
                                            const FormattedArray* format)
    : FormattedArray(format->NumDataDimensions(), format->ChannelDimension(),
                     format->ObservationDimension(), format->SequenceDimension(),
                     pool_.allocator_functions, format->BaseIncrement()),
      pool(&pool_),
      source_block(std::move(block)),
      source(nullptr),
      upsampling_factors(nullptr),
      uses_reformatted(false) {
  SetSizesInDefaultFormat(format->GetSizesInDefaultFormat(), format->NumDimensions());
  if (source_block) source = static_cast<const T*>(source_block->data);
}

// Owned data go back to the pool. The reformatted block and the handed-over
// source go in under one lock; the size of the reformatted block alone decides
// whether both are kept or both freed.
template <typename T>
FormattedInputArray<T>::~FormattedInputArray() {
  if (reformatted) {
    if (source_block) {
      pool->checkin(std::move(reformatted), std::move(source_block));
    } else {
      pool->checkin(std::move(reformatted));
    }
    uses_reformatted = false;
  } else if (source_block) {
    pool->checkin(std::move(source_block));
  }
  // The remaining holders, then `metadata`, then the base's storage are
  // destroyed in reverse order of declaration.
}

template <typename T>
void FormattedInputArray<T>::Attach(std::unique_ptr<CNNMemoryBlock> block) {
  metadata = std::move(block);
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedInputArray<T>::Relinquish() {
  uses_reformatted = false;
  return std::move(reformatted);
}

template <typename T>
void FormattedInputArray<T>::ShallowReformat(size_t channel_position, size_t observation_position,
                                             std::unique_ptr<CNNMemoryBlock> block) {
  reformatted = std::move(block);
  PopulateDimMap(channel_position, observation_position, num_data_dims + 2);
  UpdateDataIncrements();
  uses_reformatted = reformatted != nullptr;
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedInputArray<T>::RelinquishSourceIfUnused() {
  if (!source_block || !uses_reformatted) return nullptr;
  source = nullptr;
  return std::move(source_block);
}

// Members defined in the other files of this class are instantiated there.
template class FormattedInputArray<float>;
template class FormattedInputArray<double>;
template class FormattedInputArray<unsigned char>;

}  // namespace nerva
