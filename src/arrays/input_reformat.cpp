#include <utility>

#include "nerva/input_array.hpp"

namespace nerva {

template <typename T>
void FormattedInputArray<T>::Reformat(size_t channel_position, size_t observation_position,
                                      FirstDataDims order) {
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
    reformatted = ReformatData<T>(source, channel_position, observation_position, order,
                                  std::move(destination), *pool);
    uses_reformatted = reformatted != nullptr;
  } else {
    ShallowReformat(channel_position, observation_position, std::move(reformatted));
  }
}

template <typename T>
void FormattedInputArray<T>::Reformat(PreferredFormat format) {
  const size_t n = num_data_dims;
  if (static_cast<unsigned char>(format) == KORVALFormat) {
    if (IsInKORVALFormat()) return;
    Reformat(n, n + 1, InOrder);
  } else {
    if (IsInChainedFormat()) return;
    Reformat(0, 1, InOrder);
  }
}

template void FormattedInputArray<float>::Reformat(size_t, size_t, FirstDataDims);
template void FormattedInputArray<float>::Reformat(PreferredFormat);
template void FormattedInputArray<double>::Reformat(size_t, size_t, FirstDataDims);
template void FormattedInputArray<double>::Reformat(PreferredFormat);
template void FormattedInputArray<unsigned char>::Reformat(size_t, size_t, FirstDataDims);
template void FormattedInputArray<unsigned char>::Reformat(PreferredFormat);

}  // namespace nerva
