/// \file
/// nerva::FormattedOutputArray, the buffer a layer writes its result into, and
/// bypassPoolOrAllocate.
#pragma once

#include <cstddef>
#include <memory>

#include "nerva/convolution.hpp"
#include "nerva/detail/export.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/input_array.hpp"
#include "nerva/memory.hpp"

namespace nerva {

/// How an output buffer is prepared. Any value other than Zeros and
/// Unallocated behaves as Uninitialized.
enum AllocateOutputAs : unsigned char { Zeros = 0, Uninitialized = 1, Unallocated = 2 };
/// \var Zeros
/// Lease a buffer for all elements and set every element to 0.

/// \var Uninitialized
/// Lease a buffer for all elements and leave its contents as leased.

/// \var Unallocated
/// Compute the sizes but lease nothing: the caller supplies the buffer
/// (SetAllocatedBlock, bypassPoolOrAllocate).

/// The buffer a layer writes its result into: the layout of a FormattedArray,
/// up to two data blocks leased from a pool (the current data are in
/// `staging_block` when it is set, else in `allocated_block`; see
/// \ref blocks) and the data bounds per data dimension (first, exclusive
/// last, optional stride, optional padding before and after) from which the
/// sizes follow (see \ref bounds). Data blocks go back to the pool when the
/// array dies; the bounds block and the layout never do.
///
/// The pool must outlive the array. One array is used by one thread at a
/// time; no argument is validated. Every constructor releases what it made
/// before an exception leaves it. Instantiated for float, double,
/// unsigned char and long.
template <typename T>
class NERVA_API FormattedOutputArray : public FormattedArray {
 public:
  /// The layout, base increment and extents of `format` (sequence size 1),
  /// with firsts 0 and lasts the data sizes; a buffer as `how` says.
  /// \cost The layout and bounds blocks (pool's allocator functions,
  /// directly); one lease and, for Zeros, a fill (on TBB workers above 65536
  /// floats, 32768 doubles or longs, 262144 bytes), unless Unallocated or
  /// empty.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedArray const* format, AllocateOutputAs how);
  /// From data sizes, channel and observation positions (sequence last), with
  /// firsts 0 and lasts the sizes; a buffer as `how` says. Cost and failure as
  /// above.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* data_sizes, size_t num_data_dims,
                       size_t num_channels, size_t num_observations, size_t channel_position,
                       size_t observation_position, AllocateOutputAs how);
  /// From data bounds (`num_data_dims` entries each, `padding` 2n: before,
  /// then after); `strides` and `padding` may be null. The data sizes are the
  /// sampled counts plus padding; a buffer as `how` says. Cost and failure as
  /// above; the bounds are copied.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* firsts, size_t const* lasts,
                       size_t const* strides, size_t num_data_dims, size_t num_channels,
                       size_t num_observations, size_t channel_position,
                       size_t observation_position, size_t const* padding, AllocateOutputAs how);
  /// From data bounds, in the KORVAL format.
  FormattedOutputArray(SharedMemoryPool& pool, size_t const* firsts, size_t const* lasts,
                       size_t const* strides, size_t num_data_dims, size_t num_channels,
                       size_t num_observations, size_t const* padding, AllocateOutputAs how);
  /// Takes over the current data buffer of `source` (source->Relinquish()),
  /// without copying, with its layout and bounds.
  /// \ownership The new array owns the buffer and gives it back to `pool`, not
  /// to the source's pool.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedOutputArray<T>* source);
  /// The shape of `like` with another number of observations; the contents are
  /// as leased (no fill). The layout metadata come from the process heap
  /// (malloc and free), the bounds and data from the pool.
  FormattedOutputArray(SharedMemoryPool& pool, FormattedOutputArray<T> const* like,
                       size_t num_observations);
  /// Checks the data blocks in, the staging block first, then the allocated
  /// one; frees the bounds and the layout.
  ~FormattedOutputArray();

  /// Sizes from the bounds: strided counts plus padding; sequence size 1.
  /// Then updates the increments. Allocates nothing.
  void SetSizeArray(size_t num_channels, size_t num_observations);
  /// Sizes as above, then a fresh buffer as `how` says (none when Unallocated
  /// or empty). A previous allocated block is freed, not pooled.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error;
  /// the new sizes stay and the previous block is untouched.
  void SetSizesAndAllocate(size_t num_channels, size_t num_observations, AllocateOutputAs how);
  /// Copies the bounds into one new block (replacing the old one); `strides`
  /// and `padding` may be null. Sizes are not recomputed.
  void CopyDataBounds(size_t const* firsts, size_t const* lasts, size_t const* strides,
                      size_t const* padding);
  /// Installs `block` as the allocated buffer; an empty `block` changes
  /// nothing.
  /// \ownership The array owns `block`; the old allocated block is freed, not
  /// pooled. The staging block is not touched.
  void SetAllocatedBlock(std::unique_ptr<CNNMemoryBlock> block);
  /// Hands out the staging block if there is one, else the allocated block
  /// (possibly empty): one block per call, the current data first.
  /// \ownership The caller owns the result.
  std::unique_ptr<CNNMemoryBlock> Relinquish();

  /// The current data: the staging block's if there is one, else the allocated
  /// block's, else null. Padding included (see UnpaddedData()).
  T* Data() { return static_cast<T*>(CurrentData()); }
  /// As above, read-only.
  T const* Data() const { return static_cast<T const*>(CurrentData()); }
  /// The pool the array leases from and checks in to.
  SharedMemoryPool& Pool() const { return *pool; }

  /// The first position of the data range, per data dimension.
  size_t const* Firsts() const { return firsts; }
  /// True when the array has a stride table.
  bool IsStrided() const { return strides != nullptr; }
  /// The stride of data dimension `dim`. Valid only when IsStrided(); the
  /// checked build verifies that and the index.
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
  /// First element of the data region: Data() advanced past the leading
  /// padding (padding[i] times DataIncrement(i), summed over i).
  T* UnpaddedData();
  /// New extents of the data dimensions keeping the contents (anchored at index
  /// 0 of every dimension, the rest zero). The array must be in the chained
  /// format with its data in the allocated block. The bounds are not changed,
  /// and the data increments keep the values of the old sizes.
  /// \cost Nothing when the sizes are unchanged; otherwise one lease, a zero
  /// fill and a ranged_copy (both on TBB workers), and one checkin of the old
  /// block.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error,
  /// with the new sizes already in place and the data in the old buffer.
  void SetDataRanges(size_t const* data_sizes);

  /// New channel and observation positions; no element moves and no block
  /// changes.
  void ShallowReformat(size_t channel_position, size_t observation_position);
  /// Moves the elements to the layout with the channel and observation at the
  /// given positions (data dimensions in order), alternating between the two
  /// data blocks: the first move leases the staging block, later ones
  /// exchange the blocks and permute into the spare. Nothing happens when the
  /// channel and observation already lie there.
  /// \cost At most one lease, on the first move; the permutation runs on the
  /// calling thread.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error
  /// and leaves the array as it was. An array that has elements but no buffer
  /// must not be reformatted (the checked build throws).
  void Reformat(size_t channel_position, size_t observation_position);
  /// As above for a named format.
  void Reformat(PreferredFormat format);
  /// The same move with the parallel permutation on the TBB workers of the
  /// calling process: same blocks, same pool traffic, same bytes.
  void Reformat(size_t channel_position, size_t observation_position, ParallelTag);
  /// The named-format move with the parallel permutation.
  void Reformat(PreferredFormat format, ParallelTag);

  /// Convolution geometry of data dimension `dim`: the data range and the
  /// output increment from this array, window and input pairs from the caller
  /// (stored as given). On a strided array the stride is ignored.
  /// \ownership The caller owns the record.
  std::unique_ptr<ConvolutionDimensionDescriptor> ConvolutionDescriptor(size_t dim,
                                                                        size_t windowExtent,
                                                                        long windowIncrement,
                                                                        size_t inputExtent,
                                                                        long inputIncrement) const;
  /// As above with this array's stride; `last` becomes one past the last
  /// sampled position. Only for strided arrays.
  /// \ownership The caller owns the record.
  std::unique_ptr<StridedConvolutionDimensionDescriptor> StridedConvolutionDescriptor(
      size_t dim, size_t windowExtent, long windowIncrement, size_t inputExtent,
      long inputIncrement) const;
  /// All data dimensions at once; each pointer addresses NumDataDimensions()
  /// entries. Null window increments give zero window increments; the input
  /// increments must not be null.
  /// \ownership The caller owns the record and its arrays.
  std::unique_ptr<ConvolutionNDDescriptor> ConvolutionDescriptorND(
      size_t const* windowExtents, long const* windowIncrements, size_t const* inputExtents,
      long const* inputIncrements) const;
  /// All data dimensions at once with this array's strides and tightened ends,
  /// as StridedConvolutionDescriptor. Only for strided arrays; no pointer may
  /// be null.
  /// \ownership The caller owns the record and its arrays.
  std::unique_ptr<StridedConvolutionNDDescriptor> StridedConvolutionDescriptorND(
      size_t const* windowExtents, long const* windowIncrements, size_t const* inputExtents,
      long const* inputIncrements) const;

 protected:
  /// The pool given at construction; never null.
  SharedMemoryPool* pool;
  /// The main data buffer; holds the current data when there is no staging
  /// block.
  std::unique_ptr<CNNMemoryBlock> allocated_block;
  /// The second data buffer that reformats write into; holds the current data
  /// when set.
  std::unique_ptr<CNNMemoryBlock> staging_block;
  /// Owns the four bound tables; made with the pool's allocator functions,
  /// never pooled.
  std::unique_ptr<CNNMemoryBlock> bounds_block;
  /// n first positions of the data range.
  size_t* firsts = nullptr;
  /// n exclusive ends of the data range.
  size_t* lasts = nullptr;
  /// n strides, or null when the array is not strided.
  size_t* strides = nullptr;
  /// 2n padding counts (n before, then n after), or null.
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

/// Gives `out` a buffer: the input's handed-over block when the input no
/// longer reads it (FormattedInputArray::RelinquishSourceIfUnused) and it
/// holds at least as many elements as the output needs, else a block leased
/// from the input's pool (a too-small handed-over block goes back to that
/// pool). Meant for outputs made with Unallocated: an allocated block that
/// `out` already had is freed, not pooled. The contents are not filled.
/// \ownership `out` owns the buffer from then on.
/// \cost No lease when the handed-over block fits, otherwise one.
/// \failure A failed lease reports through SharedMemoryPool::lease_or_error.
/// Instantiated for float and double.
template <typename T>
NERVA_API void bypassPoolOrAllocate(FormattedOutputArray<T>* out, FormattedInputArray<T>* in);

extern template NERVA_API void bypassPoolOrAllocate<float>(FormattedOutputArray<float>*,
                                                           FormattedInputArray<float>*);
extern template NERVA_API void bypassPoolOrAllocate<double>(FormattedOutputArray<double>*,
                                                            FormattedInputArray<double>*);

}  // namespace nerva
