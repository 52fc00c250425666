#include <algorithm>
#include <cstdint>
#include <utility>

#include "detail/checks.hpp"
#include "nerva/output_array.hpp"

// The bounds tables of output arrays and the position of the data region.

namespace nerva {

// One block holds firsts, lasts, then strides and padding when given: 2n to
// 5n entries. The new block is filled before the old one is freed, so the
// arguments may point into the current tables.
template <typename T>
void FormattedOutputArray<T>::CopyDataBounds(size_t const* firsts_, size_t const* lasts_,
                                             size_t const* strides_, size_t const* padding_) {
  const size_t n = num_data_dims;
  // A zero stride over a non-empty range divides by zero in SetSizeArray.
  for (size_t i = 0; NERVA_CHECKED_BUILD && strides_ != nullptr && i < n; ++i)
    NERVA_CHECK(strides_[i] != 0 || lasts_[i] <= firsts_[i],
                "FormattedOutputArray::CopyDataBounds: stride 0 in data dimension ", i,
                " with the non-empty range [", firsts_[i], ", ", lasts_[i], ")");
  size_t entries = 2 * n;
  if (strides_ != nullptr) entries += n;
  if (padding_ != nullptr) entries += 2 * n;
  auto block =
      std::make_unique<CNNMemoryBlock>(entries * sizeof(size_t), pool->allocator_functions);

  size_t* table = static_cast<size_t*>(block->data);
  size_t* new_firsts = table;
  size_t* new_lasts = table + n;
  size_t* new_strides = nullptr;
  size_t* new_padding = nullptr;
  if (n != 0) {
    std::copy_n(firsts_, n, new_firsts);
    std::copy_n(lasts_, n, new_lasts);
  }
  size_t next = 2 * n;
  if (strides_ != nullptr) {
    new_strides = table + next;
    std::copy_n(strides_, n, new_strides);
    next += n;
  }
  if (padding_ != nullptr) {
    new_padding = table + next;
    std::copy_n(padding_, 2 * n, new_padding);
  }

  bounds_block = std::move(block);
  firsts = new_firsts;
  lasts = new_lasts;
  strides = new_strides;
  padding = new_padding;
}

// Only the leading padding counts; channel and observation offsets are 0.
// The offset is applied in integer arithmetic so that an array without a
// block still reports where its data region would start, without forming an
// out-of-bounds pointer from null.
template <typename T>
T* FormattedOutputArray<T>::UnpaddedData() {
  T* data = Data();
  if (padding == nullptr || num_data_dims == 0) return data;
  long offset = 0;
  for (size_t i = 0; i < num_data_dims; ++i) {
    offset += static_cast<long>(padding[i]) * data_increments[i];
  }
  auto address = reinterpret_cast<std::uintptr_t>(data);
  address += static_cast<std::uintptr_t>(offset * static_cast<long>(sizeof(T)));
  return reinterpret_cast<T*>(address);
}

#define NERVA_OUTPUT_BOUNDS(T)                                                         \
  template void FormattedOutputArray<T>::CopyDataBounds(size_t const*, size_t const*,  \
                                                        size_t const*, size_t const*); \
  template T* FormattedOutputArray<T>::UnpaddedData();

NERVA_OUTPUT_BOUNDS(float)
NERVA_OUTPUT_BOUNDS(double)
NERVA_OUTPUT_BOUNDS(unsigned char)
NERVA_OUTPUT_BOUNDS(long)
#undef NERVA_OUTPUT_BOUNDS

}  // namespace nerva
