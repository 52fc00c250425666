#pragma once

#include <cstddef>
#include <memory>

#include "nerva/detail/export.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/memory.hpp"

namespace nerva {

// Read-only view of an input array: the layout of a FormattedArray plus the
// elements. The elements are the caller's memory (never written, never freed),
// a block handed over to the array, or a block the array made itself by
// reformatting or subsampling; Data() always yields the elements that match
// the current layout. Owned data blocks go back to the pool when the array
// dies unless the caller takes them out first.
// Instantiated for float, double and unsigned char.
template <typename T>
class NERVA_API FormattedInputArray : public FormattedArray {
 public:
  // Over caller elements; `sizes` are given in layout order, positions from
  // `count` on are taken as 1. The sequence lies last.
  FormattedInputArray(SharedMemoryPool& pool, const T* data, const size_t* sizes, size_t count,
                      size_t num_data_dims, size_t channel_position, size_t observation_position,
                      const size_t* upsampling_factors);
  // Over caller elements laid out as `format` says.
  FormattedInputArray(SharedMemoryPool& pool, const T* data, const FormattedArray* format);
  // Over a block handed over by the caller, laid out as `format` says.
  FormattedInputArray(SharedMemoryPool& pool, std::unique_ptr<CNNMemoryBlock> block,
                      const FormattedArray* format);
  ~FormattedInputArray();

  const T* Data() const {
    return uses_reformatted ? static_cast<const T*>(reformatted->data) : source;
  }

  // Keeps a block of caller-defined auxiliary data; a previous one is freed.
  void Attach(std::unique_ptr<CNNMemoryBlock> block);
  std::unique_ptr<CNNMemoryBlock>& MetaData() { return metadata; }

  // Hands the array's own data block to the caller. Data() then yields the
  // source elements again; the layout is left as it is.
  std::unique_ptr<CNNMemoryBlock> Relinquish();

  // New channel and observation positions without moving any element;
  // `block` holds the elements in the new layout (empty: the source does).
  void ShallowReformat(size_t channel_position, size_t observation_position,
                       std::unique_ptr<CNNMemoryBlock> block);

  // Keeps indices firsts[d], firsts[d] + increments[d], ... below lasts[d] of
  // every data dimension d, and all channels, observations and sequence
  // steps. `mapping` is a prepared offset table of the same selection or null.
  void Subsample(const size_t* firsts, const size_t* lasts, const size_t* increments,
                 const size_t* mapping);

  // The handed-over source block, once the array reads its own copy instead;
  // otherwise empty.
  std::unique_ptr<CNNMemoryBlock> RelinquishSourceIfUnused();

  SharedMemoryPool& Pool() const { return *pool; }

  const size_t* UpsamplingFactors() const { return upsampling_factors; }
  void UpsamplingFactors(const size_t* factors) { upsampling_factors = factors; }
  size_t UpsamplingFactor(size_t i) const { return upsampling_factors[i]; }

  // Moves the elements to the layout with the channel at `channel_position`,
  // the observation at `observation_position` and the first two data
  // dimensions in `order`, reading the source elements. Nothing happens when
  // all three already hold.
  void Reformat(size_t channel_position, size_t observation_position, FirstDataDims order);
  // As above for a named format; nothing happens when the array is in it.
  void Reformat(PreferredFormat format);
  // The same moves with the parallel permutation: same blocks, same pool
  // traffic, same bytes.
  void Reformat(size_t channel_position, size_t observation_position, FirstDataDims order,
                ParallelTag);
  void Reformat(PreferredFormat format, ParallelTag);

 private:
  // The common body of both Reformat(c, o, order) overloads.
  void MoveTo(size_t channel_position, size_t observation_position, FirstDataDims order,
              bool parallel);
  void MoveTo(PreferredFormat format, bool parallel);

  SharedMemoryPool* pool;
  std::unique_ptr<CNNMemoryBlock> metadata;
  std::unique_ptr<CNNMemoryBlock> reformatted;
  std::unique_ptr<CNNMemoryBlock> source_block;
  const T* source;
  const size_t* upsampling_factors;
  bool uses_reformatted;
};

extern template class NERVA_API FormattedInputArray<float>;
extern template class NERVA_API FormattedInputArray<double>;
extern template class NERVA_API FormattedInputArray<unsigned char>;

}  // namespace nerva
