/// \file
/// nerva::FormattedInputArray, the read-only view of a layer's input.
#pragma once

#include <cstddef>
#include <memory>

#include "nerva/detail/export.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/memory.hpp"

namespace nerva {

/// Read-only view of an input array: the layout of a FormattedArray plus the
/// elements. The elements are the caller's memory (never written, never
/// freed), a block handed over to the array, or a block the array made itself
/// by reformatting or subsampling; Data() always yields the elements that
/// match the current layout (see \ref blocks). Owned data blocks go back to
/// the pool when the array dies unless the caller takes them out first.
///
/// The pool must outlive the array. One array is used by one thread at a
/// time; no argument is validated. Instantiated for float, double and
/// unsigned char.
template <typename T>
class NERVA_API FormattedInputArray : public FormattedArray {
 public:
  /// Over caller elements at `data`; `sizes` are given in layout order,
  /// positions from `count` on are taken as 1. The sequence lies last.
  /// \ownership `data` and `upsampling_factors` stay the caller's and must
  /// outlive the array; they are never written or freed.
  /// \cost The layout metadata block, made with the pool's allocator
  /// functions directly; no data is copied.
  FormattedInputArray(SharedMemoryPool& pool, const T* data, const size_t* sizes, size_t count,
                      size_t num_data_dims, size_t channel_position, size_t observation_position,
                      const size_t* upsampling_factors);
  /// Over caller elements at `data`, laid out as `format` says (its sizes,
  /// positions and base increment are copied).
  /// \ownership As above; `format` is only read.
  FormattedInputArray(SharedMemoryPool& pool, const T* data, const FormattedArray* format);
  /// Over a block handed over by the caller, laid out as `format` says.
  /// \ownership The array owns `block` (the adopted source) from then on and
  /// gives it back to the pool when it dies, unless RelinquishSourceIfUnused()
  /// hands it out first.
  FormattedInputArray(SharedMemoryPool& pool, std::unique_ptr<CNNMemoryBlock> block,
                      const FormattedArray* format);
  /// Checks the owned data blocks in: the own block together with the adopted
  /// source as one pair (the own block's size decides for both), or whichever
  /// exists alone. The attached metadata block and the layout are freed.
  ~FormattedInputArray();

  /// The elements that match the current layout: the array's own block while
  /// it uses one, else the source.
  const T* Data() const {
    return uses_reformatted ? static_cast<const T*>(reformatted->data) : source;
  }

  /// Keeps a block of caller-defined auxiliary data, never looked into.
  /// \ownership The array owns `block` and frees it (never pools it) when it
  /// dies or when another block is attached.
  void Attach(std::unique_ptr<CNNMemoryBlock> block);
  /// The holder of the attached block itself, by reference.
  std::unique_ptr<CNNMemoryBlock>& MetaData() { return metadata; }

  /// Hands the array's own data block (from a reformat or a subsample) to the
  /// caller; empty when there is none. Data() then yields the source elements
  /// again, but the layout is left as it is: it still describes the block
  /// handed out.
  /// \ownership The caller owns the result.
  std::unique_ptr<CNNMemoryBlock> Relinquish();

  /// New channel and observation positions without moving any element;
  /// `block` holds the elements in the new layout (empty: the source does).
  /// \ownership The array owns `block`; a previous own block is freed, not
  /// pooled.
  void ShallowReformat(size_t channel_position, size_t observation_position,
                       std::unique_ptr<CNNMemoryBlock> block);

  /// Keeps indices firsts[d], firsts[d] + increments[d], ... below lasts[d] of
  /// every data dimension d, and all channels, observations and sequence
  /// steps, gathering them with strided_copy from the own block if there is
  /// one, else from the source. The data sizes become the selected counts.
  /// `mapping` is a prepared offset table of the same selection (see
  /// strided_copy_mapping) or null.
  /// \ownership The gathered block becomes the array's own block; the
  /// previous own block goes back to the pool.
  /// \cost One lease; the copy runs on TBB workers and is done on return.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error.
  void Subsample(const size_t* firsts, const size_t* lasts, const size_t* increments,
                 const size_t* mapping);

  /// The handed-over source block, once the array reads its own copy instead
  /// (the source pointer then becomes null); otherwise empty and nothing
  /// changes. bypassPoolOrAllocate uses it to reuse the block as an output.
  /// \ownership The caller owns the result.
  std::unique_ptr<CNNMemoryBlock> RelinquishSourceIfUnused();

  /// The pool the array leases from and checks in to.
  SharedMemoryPool& Pool() const { return *pool; }

  /// The caller's per-dimension upsampling factors, or null; stored only.
  const size_t* UpsamplingFactors() const { return upsampling_factors; }
  /// Replaces the pointer to the upsampling factors (no copy; the caller keeps
  /// ownership).
  void UpsamplingFactors(const size_t* factors) { upsampling_factors = factors; }
  /// Upsampling factor `i`; neither the pointer nor `i` is checked.
  size_t UpsamplingFactor(size_t i) const { return upsampling_factors[i]; }

  /// Moves the elements to the layout with the channel at `channel_position`,
  /// the observation at `observation_position` and the first two data
  /// dimensions in `order`, reading the source elements (never an earlier own
  /// block) into the own block, which is reused when it exists and leased
  /// otherwise. Nothing happens when all three already hold; an array without
  /// elements only changes its layout. Data() then yields the own block.
  /// \cost At most one lease; the permutation runs on the calling thread.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error
  /// and leaves the array as it was.
  void Reformat(size_t channel_position, size_t observation_position, FirstDataDims order);
  /// As above for a named format, with the data dimensions in order; nothing
  /// happens when the array is in it already.
  void Reformat(PreferredFormat format);
  /// The same move with the parallel permutation on the TBB workers of the
  /// calling process: same blocks, same pool traffic, same bytes.
  void Reformat(size_t channel_position, size_t observation_position, FirstDataDims order,
                ParallelTag);
  /// The named-format move with the parallel permutation.
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
