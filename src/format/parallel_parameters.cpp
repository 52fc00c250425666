#include "nerva/formatted_array.hpp"

namespace nerva {

// Both holders are members, so a block made before a throwing allocation is
// released as the exception leaves the constructor.
ParallelParameters::ParallelParameters(const FormattedArray* array, size_t first_threshold,
                                       size_t other_threshold, AllocatorFunctions fns)
    : thresholds(nullptr), split(nullptr), any_split(false) {
  const size_t n = array->NumDataDimensions();
  threshold_block = std::make_unique<CNNMemoryBlock>(n * sizeof(size_t), fns);
  thresholds = static_cast<size_t*>(threshold_block->data);
  thresholds[0] = first_threshold;
  for (size_t d = 1; d < n; ++d) thresholds[d] = other_threshold;

  split_block = std::make_unique<CNNMemoryBlock>(n * sizeof(bool), fns);
  split = static_cast<bool*>(split_block->data);
  const size_t* sizes = array->GetSizesInDefaultFormat();
  for (size_t d = 0; d < n; ++d) {
    split[d] = sizes[d] > thresholds[d];
    any_split |= split[d];
  }
}

}  // namespace nerva
