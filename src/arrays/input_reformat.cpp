#include <utility>

#include "nerva/input_array.hpp"

namespace nerva {

template <typename T>
void FormattedInputArray<T>::Reformat(size_t channel_position, size_t observation_position,
                                      FirstDataDims order) {
  MoveTo(channel_position, observation_position, order, false);
}

template <typename T>
void FormattedInputArray<T>::Reformat(size_t channel_position, size_t observation_position,
                                      FirstDataDims order, ParallelTag) {
  MoveTo(channel_position, observation_position, order, true);
}

template <typename T>
void FormattedInputArray<T>::Reformat(PreferredFormat format) {
  MoveTo(format, false);
}

template <typename T>
void FormattedInputArray<T>::Reformat(PreferredFormat format, ParallelTag) {
  MoveTo(format, true);
}

template <typename T>
void FormattedInputArray<T>::MoveTo(size_t channel_position, size_t observation_position,
                                    FirstDataDims order, bool parallel) {
  // A requested order other than 0 or 1 never matches, so it always moves.
  const unsigned current = dim_map[1] < dim_map[0] ? 1u : 0u;
  if (current == static_cast<unsigned char>(order) &&
      observation_position == ObservationDimension() && channel_position == ChannelDimension()) {
    return;
  }
  if (TotalNumElem() != 0) {
    // Always permutes from the source; an existing own block is reused as the
    // destination. An empty result (no element had to move) means the source
    // matches the new layout again.
    std::unique_ptr<CNNMemoryBlock> destination = std::move(reformatted);
    reformatted = parallel ? ReformatData<T>(source, channel_position, observation_position, order,
                                             std::move(destination), *pool, Parallel)
                           : ReformatData<T>(source, channel_position, observation_position, order,
                                             std::move(destination), *pool);
    uses_reformatted = reformatted != nullptr;
  } else {
    ShallowReformat(channel_position, observation_position, std::move(reformatted));
  }
}

template <typename T>
void FormattedInputArray<T>::MoveTo(PreferredFormat format, bool parallel) {
  const size_t n = num_data_dims;
  if (static_cast<unsigned char>(format) == KORVALFormat) {
    if (IsInKORVALFormat()) return;
    MoveTo(n, n + 1, InOrder, parallel);
  } else {
    if (IsInChainedFormat()) return;
    MoveTo(0, 1, InOrder, parallel);
  }
}

#define NERVA_INPUT_REFORMAT(T)                                                               \
  template void FormattedInputArray<T>::Reformat(size_t, size_t, FirstDataDims);              \
  template void FormattedInputArray<T>::Reformat(size_t, size_t, FirstDataDims, ParallelTag); \
  template void FormattedInputArray<T>::Reformat(PreferredFormat);                            \
  template void FormattedInputArray<T>::Reformat(PreferredFormat, ParallelTag);               \
  template void FormattedInputArray<T>::MoveTo(size_t, size_t, FirstDataDims, bool);          \
  template void FormattedInputArray<T>::MoveTo(PreferredFormat, bool);

NERVA_INPUT_REFORMAT(float)
NERVA_INPUT_REFORMAT(double)
NERVA_INPUT_REFORMAT(unsigned char)
#undef NERVA_INPUT_REFORMAT

}  // namespace nerva
