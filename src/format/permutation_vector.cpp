#include <cstring>

#include "nerva/formatted_array.hpp"

namespace nerva {

std::unique_ptr<CNNMemoryBlock> FormattedArray::BuildPermutationVector(size_t channel_position,
                                                                       size_t observation_position,
                                                                       FirstDataDims order) const {
  const size_t n = num_data_dims;
  auto block =
      std::make_unique<CNNMemoryBlock>((n + 3) * sizeof(size_t), storage->allocator_functions);
  auto* entries = static_cast<size_t*>(block->data);
  std::memset(entries, 0, (n + 3) * sizeof(size_t));
  entries[channel_position] = dim_map[n] + 1;
  entries[observation_position] = dim_map[n + 1] + 1;
  // Data dimensions fill the free target positions in order; Swapped takes
  // data dimension 1 before data dimension 0.
  for (size_t p = 0, j = 0; j < n; ++p) {
    if (entries[p] != 0) continue;
    entries[p] = (order == Swapped ? dim_map[1 - j] : dim_map[j]) + 1;
    ++j;
  }
  // The sequence always ends up last, whatever was placed there above.
  entries[n + 2] = dim_map[n + 2] + 1;
  return block;
}

}  // namespace nerva
