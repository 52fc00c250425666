#include <utility>

#include "copy/simple_copy.hpp"
#include "nerva/copy.hpp"
#include "nerva/output_array.hpp"

namespace nerva {

// Carries the common corner of old and new extents into a fresh zero-filled
// buffer, whole channel x observation groups at a time. Relies on the chained
// format (channel and observation at positions 0 and 1) and on the data being
// in `allocated_block`. The increments are left as computed for the old sizes.
template <typename T>
void FormattedOutputArray<T>::SetDataRanges(size_t const* data_sizes) {
  const size_t n = num_data_dims;
  bool same = true;
  for (size_t i = 0; i < n; ++i) {
    if (data_sizes[i] != sizes[i]) same = false;
  }
  if (same) return;

  std::unique_ptr<CNNMemoryBlock> old_extents = GetSizesInCurrentFormat();
  for (size_t i = 0; i < n; ++i) sizes[i] = data_sizes[i];
  std::unique_ptr<CNNMemoryBlock> new_extents = GetSizesInCurrentFormat();

  const size_t total = TotalNumElem();
  std::unique_ptr<CNNMemoryBlock> fresh = pool->lease_or_error(total * sizeof(T));
  staging_block.reset();  // a leftover spare is dropped unread
  T* dst = static_cast<T*>(fresh->data);
  execute_simple_fill<T>(dst, total, T(0));
  ranged_copy<T>(static_cast<T const*>(allocated_block->data),
                 static_cast<size_t const*>(old_extents->data) + 2, dst,
                 static_cast<size_t const*>(new_extents->data) + 2, n - 1,
                 static_cast<long>(NumChannels() * NumObservations()));

  std::unique_ptr<CNNMemoryBlock> old = std::move(allocated_block);
  allocated_block = std::move(fresh);
  pool->checkin(std::move(old));
}

template void FormattedOutputArray<float>::SetDataRanges(size_t const*);
template void FormattedOutputArray<double>::SetDataRanges(size_t const*);
template void FormattedOutputArray<unsigned char>::SetDataRanges(size_t const*);
template void FormattedOutputArray<long>::SetDataRanges(size_t const*);

}  // namespace nerva
