#pragma once

#include <cstddef>
#include <memory>

#include "nerva/convolution.hpp"
#include "nerva/detail/export.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/input_array.hpp"
#include "nerva/memory.hpp"

namespace nerva {

// How an output buffer is prepared. Any value other than Zeros and
// Unallocated behaves as Uninitialized.
enum AllocateOutputAs : unsigned char { Zeros = 0, Uninitialized = 1, Unallocated = 2 };

// The buffer a layer writes its result into: the layout of a FormattedArray,
// up to two data blocks leased from a pool (the current data are in
// `staging_block` when it is set, else in `allocated_block`) and the data
// bounds per data dimension (first, exclusive last, optional stride, optional
// padding before and after) from which the sizes follow. Data blocks go back
// to the pool when the array dies; the bounds block and the layout never do.
// Instantiated for float, double, unsigned char and long.
template <typename T>
class NERVA_API FormattedOutputArray : public FormattedArray {
 public:
  // The layout and extents of `format` (sequence size 1), no bounds beyond
  // firsts 0 and lasts the data sizes.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedArray const* format, AllocateOutputAs how);
  // From data sizes, channel and observation positions.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* data_sizes, size_t num_data_dims,
                       size_t num_channels, size_t num_observations, size_t channel_position,
                       size_t observation_position, AllocateOutputAs how);
  // From data bounds; `strides` and `padding` may be null.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* firsts, size_t const* lasts,
                       size_t const* strides, size_t num_data_dims, size_t num_channels,
                       size_t num_observations, size_t channel_position,
                       size_t observation_position, size_t const* padding, AllocateOutputAs how);
  // From data bounds, in the KORVAL format.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* firsts, size_t const* lasts,
                       size_t const* strides, size_t num_data_dims, size_t num_channels,
                       size_t num_observations, size_t const* padding, AllocateOutputAs how);
  // Takes over the current data buffer of `source`, without copying.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedOutputArray<T>* source);
  // The shape of `like` with another number of observations; the contents are
  // as leased. The layout metadata come from the process heap.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedOutputArray<T> const* like,
                       size_t num_observations);
  ~FormattedOutputArray();

  // Sizes from the bounds: strided counts plus padding; sequence size 1.
  void SetSizeArray(size_t num_channels, size_t num_observations);
  // Sizes as above, then a fresh buffer as `how` says (none when Unallocated
  // or empty). A previous allocated block is freed, not pooled.
  void SetSizesAndAllocate(size_t num_channels, size_t num_observations, AllocateOutputAs how);
  // Copies the bounds into one new block; `strides` and `padding` may be null.
  void CopyDataBounds(size_t const* firsts, size_t const* lasts, size_t const* strides,
                      size_t const* padding);
  // Installs `block` as the allocated buffer (the old one is freed, not
  // pooled); an empty `block` changes nothing.
  void SetAllocatedBlock(std::unique_ptr<CNNMemoryBlock> block);
  // Hands out the staging block if there is one, else the allocated block.
  std::unique_ptr<CNNMemoryBlock> Relinquish();

  T* Data() { return static_cast<T*>(CurrentData()); }
  T const* Data() const { return static_cast<T const*>(CurrentData()); }
  SharedMemoryPool& Pool() const { return *pool; }

  size_t const* Firsts() const { return firsts; }
  bool IsStrided() const { return strides != nullptr; }
  // Valid only when IsStrided(); the checked build verifies that and the index.
  size_t Stride(size_t dim) const {
#if NERVA_CHECKED
    if (strides == nullptr)
      detail::ThrowInvalidArgument("FormattedOutputArray::Stride: the array has no strides");
    if (dim >= num_data_dims)
      detail::ThrowIndexOutOfRange("FormattedOutputArray::Stride", "data dimension", dim,
                                   num_data_dims, "data dimensions");
#endif
    return strides[dim];
  }
  // First element of the data region, past the leading padding.
  T* UnpaddedData();
  // New extents of the data dimensions keeping the contents (anchored at index
  // 0 of every dimension, the rest zero). The array must be in the chained
  // format. The data increments keep the values of the old sizes.
  void SetDataRanges(size_t const* data_sizes);

  // New channel and observation positions; no element moves.
  void ShallowReformat(size_t channel_position, size_t observation_position);
  // Moves the elements to the layout with the channel and observation at the
  // given positions, alternating between the two data blocks.
  void Reformat(size_t channel_position, size_t observation_position);
  void Reformat(PreferredFormat format);
  // The same moves with the parallel permutation: same blocks, same pool
  // traffic, same bytes.
  void Reformat(size_t channel_position, size_t observation_position, ParallelTag);
  void Reformat(PreferredFormat format, ParallelTag);

  // Convolution geometry of data dimension `dim`: the data range and the
  // output increment from this array, window and input pairs from the caller.
  std::unique_ptr<ConvolutionDimensionDescriptor> ConvolutionDescriptor(size_t dim,
                                                                        size_t windowExtent,
                                                                        long windowIncrement,
                                                                        size_t inputExtent,
                                                                        long inputIncrement) const;
  // As above with this array's stride; `last` becomes one past the last
  // sampled position. Only for strided arrays.
  std::unique_ptr<StridedConvolutionDimensionDescriptor> StridedConvolutionDescriptor(
      size_t dim, size_t windowExtent, long windowIncrement, size_t inputExtent,
      long inputIncrement) const;
  // All data dimensions at once. Null window increments give zero increments.
  std::unique_ptr<ConvolutionNDDescriptor> ConvolutionDescriptorND(
      size_t const* windowExtents, long const* windowIncrements, size_t const* inputExtents,
      long const* inputIncrements) const;
  std::unique_ptr<StridedConvolutionNDDescriptor> StridedConvolutionDescriptorND(
      size_t const* windowExtents, long const* windowIncrements, size_t const* inputExtents,
      long const* inputIncrements) const;

 protected:
  SharedMemoryPool* pool;
  std::unique_ptr<CNNMemoryBlock> allocated_block;
  std::unique_ptr<CNNMemoryBlock> staging_block;
  std::unique_ptr<CNNMemoryBlock> bounds_block;
  size_t* firsts = nullptr;
  size_t* lasts = nullptr;
  size_t* strides = nullptr;
  size_t* padding = nullptr;

 private:
  void* CurrentData() const {
    if (staging_block) return staging_block->data;
    if (allocated_block) return allocated_block->data;
    return nullptr;
  }
  // Makes a bounds block of 2n entries with firsts 0 and lasts `data_sizes`.
  void BoundsFromSizes(size_t const* data_sizes);
  // The common body of both Reformat(c, o) overloads.
  void MoveTo(size_t channel_position, size_t observation_position, bool parallel);
};

extern template class NERVA_API FormattedOutputArray<float>;
extern template class NERVA_API FormattedOutputArray<double>;
extern template class NERVA_API FormattedOutputArray<unsigned char>;
extern template class NERVA_API FormattedOutputArray<long>;

// Gives `out` a buffer: the input's handed-over block when the input no longer
// reads it and it holds at least as many elements as the output needs, else a
// block leased from the input's pool (a too-small handed-over block goes back
// to that pool). Meant for outputs made with Unallocated.
// Instantiated for float and double.
template <typename T>
NERVA_API void bypassPoolOrAllocate(FormattedOutputArray<T>* out, FormattedInputArray<T>* in);

extern template NERVA_API void bypassPoolOrAllocate<float>(FormattedOutputArray<float>*,
                                                           FormattedInputArray<float>*);
extern template NERVA_API void bypassPoolOrAllocate<double>(FormattedOutputArray<double>*,
                                                            FormattedInputArray<double>*);

}  // namespace nerva
