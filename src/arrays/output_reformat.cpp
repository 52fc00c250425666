#include <utility>

#include "detail/checks.hpp"
#include "nerva/output_array.hpp"

namespace nerva {

template <typename T>
void FormattedOutputArray<T>::ShallowReformat(size_t channel_position,
                                              size_t observation_position) {
  PopulateDimMap(channel_position, observation_position, num_data_dims + 2);
  UpdateDataIncrements();
}

// The two data blocks alternate: the current data move into the spare (or
// into a block leased on the first move), and the old layout's buffer becomes
// the next spare. Only the channel and observation positions are compared.
template <typename T>
void FormattedOutputArray<T>::Reformat(size_t channel_position, size_t observation_position) {
  MoveTo(channel_position, observation_position, false);
}

template <typename T>
void FormattedOutputArray<T>::Reformat(size_t channel_position, size_t observation_position,
                                       ParallelTag) {
  MoveTo(channel_position, observation_position, true);
}

template <typename T>
void FormattedOutputArray<T>::MoveTo(size_t channel_position, size_t observation_position,
                                     bool parallel) {
  if (observation_position == ObservationDimension() && channel_position == ChannelDimension()) {
    return;
  }
  if (staging_block) std::swap(allocated_block, staging_block);
  if (TotalNumElem() == 0) {
    ShallowReformat(channel_position, observation_position);
    return;
  }
  NERVA_CHECK(allocated_block != nullptr,
              "FormattedOutputArray::Reformat: the array has no data buffer (", TotalNumElem(),
              " elements)");
  std::unique_ptr<CNNMemoryBlock> spare = std::move(staging_block);
  T const* const src = static_cast<T const*>(allocated_block->data);
  staging_block = parallel ? ReformatData<T>(src, channel_position, observation_position, InOrder,
                                             std::move(spare), *pool, Parallel)
                           : ReformatData<T>(src, channel_position, observation_position, InOrder,
                                             std::move(spare), *pool);
}

template <typename T>
void FormattedOutputArray<T>::Reformat(PreferredFormat format) {
  const size_t n = num_data_dims;
  if (static_cast<unsigned char>(format) == KORVALFormat) {
    Reformat(n, n + 1);
  } else {
    Reformat(0, 1);
  }
}

template <typename T>
void FormattedOutputArray<T>::Reformat(PreferredFormat format, ParallelTag) {
  const size_t n = num_data_dims;
  if (static_cast<unsigned char>(format) == KORVALFormat) {
    MoveTo(n, n + 1, true);
  } else {
    MoveTo(0, 1, true);
  }
}

#define NERVA_OUTPUT_REFORMAT(T)                                                 \
  template void FormattedOutputArray<T>::ShallowReformat(size_t, size_t);        \
  template void FormattedOutputArray<T>::Reformat(size_t, size_t);               \
  template void FormattedOutputArray<T>::Reformat(size_t, size_t, ParallelTag);  \
  template void FormattedOutputArray<T>::Reformat(PreferredFormat);              \
  template void FormattedOutputArray<T>::Reformat(PreferredFormat, ParallelTag); \
  template void FormattedOutputArray<T>::MoveTo(size_t, size_t, bool);

NERVA_OUTPUT_REFORMAT(float)
NERVA_OUTPUT_REFORMAT(double)
NERVA_OUTPUT_REFORMAT(unsigned char)
NERVA_OUTPUT_REFORMAT(long)
#undef NERVA_OUTPUT_REFORMAT

}  // namespace nerva
