#include <utility>

#include "nerva/formatted_array.hpp"

namespace nerva {

void FormattedArray::PopulateDimMap(size_t channel_position, size_t observation_position,
                                    size_t sequence_position) {
  const size_t n = num_data_dims;
  dim_map[n] = channel_position;
  dim_map[n + 1] = observation_position;
  dim_map[n + 2] = sequence_position;
  for (size_t d = 0; d < n; ++d) {
    size_t p = d;
    for (;;) {
      bool taken = p == channel_position || p == observation_position;
      for (size_t e = 0; e < d && !taken; ++e) taken = dim_map[e] == p;
      if (!taken) break;
      ++p;
    }
    dim_map[d] = p;
  }
}

void FormattedArray::UpdateDataIncrements() {
  for (size_t d = 0; d < num_data_dims; ++d)
    data_increments[d] = base_increment * static_cast<long>(IncrementAt(dim_map[d]));
}

bool FormattedArray::IsInKORVALFormat() const {
  for (size_t k = 0; k < num_data_dims + 3; ++k)
    if (dim_map[k] != k) return false;
  return true;
}

bool FormattedArray::IsInChainedFormat() const {
  if (dim_map[num_data_dims] != 0 || dim_map[num_data_dims + 1] != 1) return false;
  for (size_t d = 0; d < num_data_dims; ++d)
    if (dim_map[d] != d + 2) return false;
  return true;
}

void FormattedArray::Reverse() {
  base_increment = -base_increment;
  for (size_t d = 0; d < num_data_dims; ++d) data_increments[d] = -data_increments[d];
}

void FormattedArray::SwapChannelAndObservations() {
  const size_t n = num_data_dims;
  std::swap(sizes[n], sizes[n + 1]);
  std::swap(dim_map[n], dim_map[n + 1]);
}

}  // namespace nerva
