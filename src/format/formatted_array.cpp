#include "nerva/formatted_array.hpp"

#include <cstring>

#include "detail/checks.hpp"

namespace nerva {

FormattedArray::FormattedArray(size_t num_data_dims_, size_t channel_position,
                               size_t observation_position, size_t sequence_position,
                               AllocatorFunctions fns, long base_increment_)
    : storage(std::make_unique<CNNMemoryBlock>((3 * num_data_dims_ + 6) * sizeof(long), fns)),
      data_increments(static_cast<long*>(storage->data)),
      sizes(reinterpret_cast<size_t*>(data_increments + num_data_dims_)),
      dim_map(sizes + num_data_dims_ + 3),
      num_data_dims(num_data_dims_),
      base_increment(base_increment_) {
  // Sizes start at 0 and increments stay 0 until a size setter runs.
  std::memset(storage->data, 0, (3 * num_data_dims_ + 6) * sizeof(long));
  PopulateDimMap(channel_position, observation_position, sequence_position);
}

#if NERVA_CHECKED_BUILD
namespace detail {

void ThrowIndexOutOfRange(char const* function, char const* what, size_t index, size_t count,
                          char const* unit) {
  invalid_argument(function, ": ", what, " index ", index, " out of range (", count, " ", unit,
                   ")");
}

void ThrowInvalidArgument(char const* message) { invalid_argument(message); }

}  // namespace detail
#endif

size_t FormattedArray::NumDataElem() const {
  size_t product = 1;
  for (size_t d = 0; d < num_data_dims; ++d) product *= sizes[d];
  return product;
}

size_t FormattedArray::TotalNumElem() const {
  size_t product = 1;
  for (size_t k = 0; k < num_data_dims + 3; ++k) product *= sizes[k];
  return product;
}

bool FormattedArray::IsScalar() const {
  for (size_t d = 0; d < num_data_dims; ++d)
    if (sizes[d] != 1) return false;
  return true;
}

size_t FormattedArray::IncrementAt(size_t position) const {
  size_t product = 1;
  for (size_t k = 0; k < num_data_dims + 3; ++k)
    if (dim_map[k] < position) product *= sizes[k];
  return product;
}

std::unique_ptr<CNNMemoryBlock> FormattedArray::GetSizesInCurrentFormat() const {
  const size_t count = num_data_dims + 3;
  auto block =
      std::make_unique<CNNMemoryBlock>(count * sizeof(size_t), storage->allocator_functions);
  auto* out = static_cast<size_t*>(block->data);
  std::memset(out, 0, count * sizeof(size_t));
  for (size_t k = 0; k < count; ++k) out[dim_map[k]] = sizes[k];
  return block;
}

void FormattedArray::SetSizesInCurrentFormat(const size_t* given, size_t count) {
  for (size_t k = 0; k < num_data_dims + 3; ++k)
    sizes[k] = dim_map[k] < count ? given[dim_map[k]] : 1;
  UpdateDataIncrements();
}

void FormattedArray::SetSizesInDefaultFormat(const size_t* given, size_t count) {
  // `given` may be this array's own sizes, hence memmove.
  std::memmove(sizes, given, count * sizeof(size_t));
  for (size_t k = count; k < num_data_dims + 3; ++k) sizes[k] = 1;
  UpdateDataIncrements();
}

void FormattedArray::OverrideSizes(const size_t* data_sizes, size_t channels, size_t observations) {
  std::memmove(sizes, data_sizes, num_data_dims * sizeof(size_t));
  sizes[num_data_dims] = channels;
  sizes[num_data_dims + 1] = observations;
  UpdateDataIncrements();
}

}  // namespace nerva
