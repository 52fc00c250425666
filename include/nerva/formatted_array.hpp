/// \file
/// Layout metadata of N-D arrays: the dimension model, the two named layouts,
/// permutation vectors, the data reformatting, and per-dimension split
/// parameters (see \ref layouts).
#pragma once

#include <cstddef>
#include <memory>

#include "nerva/config.hpp"
#include "nerva/detail/export.hpp"
#include "nerva/memory.hpp"

namespace nerva {

#if NERVA_CHECKED
namespace detail {
/// Checked build only: throw std::invalid_argument with "<function>: <what>
/// index <index> out of range (<count> <unit>)", or with `message`.
[[noreturn]] NERVA_API void ThrowIndexOutOfRange(char const* function, char const* what,
                                                 size_t index, size_t count, char const* unit);
[[noreturn]] NERVA_API void ThrowInvalidArgument(char const* message);
}  // namespace detail
#endif

/// Order of the first two data dimensions in a layout. Only Swapped (1) is
/// acted upon; any other value behaves as InOrder.
enum FirstDataDims : unsigned char { InOrder = 0, Swapped = 1 };
/// \var InOrder
/// Data dimension 0 precedes data dimension 1.

/// \var Swapped
/// Data dimension 1 precedes data dimension 0 (the spatial axes transposed).

/// Named target layouts for `Reformat`. KORVAL (the host's): data dimensions,
/// channel, observation, sequence. Chained: channel, observation, data
/// dimensions, sequence. Any non-zero value acts as ChainedFormat.
enum PreferredFormat : unsigned char { KORVALFormat = 0, ChainedFormat = 1 };
/// \var KORVALFormat
/// Channel at position n, observation at n + 1, data dimensions in order.

/// \var ChainedFormat
/// Channel at position 0, observation at 1, data dimensions in order.

/// Tag of the reformat overloads that move the elements with the parallel
/// permutation (qel_permute::ParallelPermute) on the TBB workers of the
/// calling process, e.g. `array.Reformat(ChainedFormat, Parallel)`. Same
/// bytes, same metadata and same pool traffic as the overload without it
/// (see \ref threading).
struct ParallelTag {
  /// Explicit, so that `{}` does not select a tagged overload by accident.
  explicit constexpr ParallelTag() = default;
};
/// The value to pass for ParallelTag.
inline constexpr ParallelTag Parallel{};

/// Layout metadata of an N-D array with n data (spatial) dimensions followed
/// by channel, observation and sequence: n + 3 logical dimensions (see
/// \ref layouts). `sizes` and `dim_map` are indexed by logical dimension;
/// `dim_map[k]` is the layout position of dimension k, position 0 varying
/// fastest. Increments, sizes and map share one block of 3n + 6 eight-byte
/// entries. It owns no element data; the array templates add that.
///
/// Arguments are trusted: no index, position or size is checked (except
/// the indices of DataSize, DataIncrement and DataDimension in the checked
/// build). One array is used by one thread at a time.
class NERVA_API FormattedArray {
 public:
  /// Metadata for `num_data_dims` data dimensions with the channel,
  /// observation and sequence at the given layout positions (see
  /// PopulateDimMap); all sizes and increments start at 0, so one of the size
  /// setters must run before the array is used.
  /// \cost One block of 3n + 6 eight-byte words, made with `fns` directly (not
  /// pooled) and freed with the array.
  /// \failure A failed allocation is not detected; an exception from the
  /// callback passes through.
  FormattedArray(size_t num_data_dims, size_t channel_position, size_t observation_position,
                 size_t sequence_position, AllocatorFunctions fns, long base_increment);

  FormattedArray(const FormattedArray&) = delete;
  FormattedArray& operator=(const FormattedArray&) = delete;
  FormattedArray(FormattedArray&&) = delete;
  FormattedArray& operator=(FormattedArray&&) = delete;

  /// The number n of data (spatial) dimensions.
  size_t NumDataDimensions() const { return num_data_dims; }
  /// n + 3: the data dimensions, channel, observation and sequence.
  size_t NumDimensions() const { return num_data_dims + 3; }
  /// Size of logical dimension `i` (any of the n + 3, not only data
  /// dimensions). An inline load; the checked build verifies `i` first.
  size_t DataSize(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims + 3)
      detail::ThrowIndexOutOfRange("FormattedArray::DataSize", "dimension", i, num_data_dims + 3,
                                   "dimensions");
#endif
    return sizes[i];
  }
  /// Size of the channel dimension.
  size_t NumChannels() const { return sizes[num_data_dims]; }
  /// Size of the observation (batch) dimension.
  size_t NumObservations() const { return sizes[num_data_dims + 1]; }
  /// Product of the data sizes; 1 when there are none.
  size_t NumDataElem() const;
  /// Channels times observations; the sequence size is not included.
  size_t NumNonDataElem() const { return NumChannels() * NumObservations(); }
  /// Product of all n + 3 sizes, the sequence included.
  size_t TotalNumElem() const;
  /// True when every data dimension has size 1 (also when n is 0); channel,
  /// observation and sequence are not looked at.
  bool IsScalar() const;

  /// Signed element increment of data dimension `i`: BaseIncrement() times
  /// the product of the sizes at smaller layout positions. The checked build
  /// verifies `i`.
  long DataIncrement(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims)
      detail::ThrowIndexOutOfRange("FormattedArray::DataIncrement", "data dimension", i,
                                   num_data_dims, "data dimensions");
#endif
    return data_increments[i];
  }
  /// The n data increments, owned by the array.
  const long* DataIncrements() const { return data_increments; }
  /// The signed unit of every data increment: 1, or -1 after Reverse().
  long BaseIncrement() const { return base_increment; }

  /// Layout position of logical dimension `i` (`dim_map[i]`; any of the
  /// n + 3). The checked build verifies `i`.
  size_t DataDimension(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims + 3)
      detail::ThrowIndexOutOfRange("FormattedArray::DataDimension", "dimension", i,
                                   num_data_dims + 3, "dimensions");
#endif
    return dim_map[i];
  }
  /// Layout position of the channel.
  size_t ChannelDimension() const { return dim_map[num_data_dims]; }
  /// Layout position of the observation.
  size_t ObservationDimension() const { return dim_map[num_data_dims + 1]; }
  /// Layout position of the sequence.
  size_t SequenceDimension() const { return dim_map[num_data_dims + 2]; }
  /// Element increment of the channel: the product of the sizes at smaller
  /// layout positions, without BaseIncrement().
  size_t ChannelIncrement() const { return IncrementAt(dim_map[num_data_dims]); }
  /// Element increment of the observation, as ChannelIncrement().
  size_t ObservationIncrement() const { return IncrementAt(dim_map[num_data_dims + 1]); }

  /// The n + 3 sizes indexed by logical dimension; the array's own storage,
  /// not a copy.
  const size_t* GetSizesInDefaultFormat() const { return sizes; }
  /// A new block of n + 3 sizes indexed by layout position.
  /// \ownership The caller owns the block; it is made with the allocator
  /// functions of this array's storage (not pooled).
  std::unique_ptr<CNNMemoryBlock> GetSizesInCurrentFormat() const;
  /// The dimension map: layout position of each logical dimension; the array's
  /// own storage.
  const size_t* GetDimensionPermutation() const { return dim_map; }

  /// True when every logical dimension k lies at layout position k.
  bool IsInKORVALFormat() const;
  /// True when the channel lies at position 0, the observation at 1 and data
  /// dimension d at d + 2. The sequence position is not looked at.
  bool IsInChainedFormat() const;

  /// One-based order vector for a move from the current layout to one with
  /// the channel at `channel_position`, the observation at
  /// `observation_position`, the data dimensions in the free positions (data
  /// dimensions 0 and 1 exchanged for Swapped) and the sequence last: entry p
  /// is 1 + the current position of the dimension that goes to position p.
  /// \ownership The caller owns the block of n + 3 `size_t` entries, made with
  /// the allocator functions of this array's storage.
  std::unique_ptr<CNNMemoryBlock> BuildPermutationVector(size_t channel_position,
                                                         size_t observation_position,
                                                         FirstDataDims order) const;

  /// Places channel, observation and sequence, then gives the data dimensions
  /// the lowest free positions in their natural order. The sequence position
  /// is not treated as taken: callers pass the last position for it.
  /// Increments are not recomputed.
  void PopulateDimMap(size_t channel_position, size_t observation_position,
                      size_t sequence_position);
  /// Recomputes the data increments from the sizes, the map and
  /// BaseIncrement().
  void UpdateDataIncrements();
  /// Sets the sizes from `given`, indexed by layout position; positions from
  /// `count` on are 1. Then updates the increments.
  void SetSizesInCurrentFormat(const size_t* given, size_t count);
  /// Sets the sizes from `given`, indexed by logical dimension; dimensions
  /// from `count` on are 1. Then updates the increments.
  void SetSizesInDefaultFormat(const size_t* given, size_t count);
  /// Sets n data sizes, channels and observations; the sequence size stays.
  /// Then updates the increments.
  void OverrideSizes(const size_t* data_sizes, size_t channels, size_t observations);

  /// Traverses every data dimension the other way round: negates the data
  /// increments and BaseIncrement(); sizes and map stay, no element moves.
  void Reverse();
  /// Renames channel to observation and back (their sizes and positions are
  /// exchanged); no element moves, and the increments stay valid.
  void SwapChannelAndObservations();

  /// Moves the elements of `src` (laid out as this array currently says) into
  /// the layout with the channel at `channelDim`, the observation at
  /// `observationDim` and the first two data dimensions in `firstDataDims`,
  /// and updates the metadata to match, after the elements have moved. The
  /// permutation (qel_permute::Permute) runs on the calling thread.
  ///
  /// When every data dimension has extent 1 and the channel and observation
  /// keep their relative order, no element has to move: only the metadata
  /// change, `dst` goes back to `pool` and the result is empty.
  /// \ownership Consumes `dst`. Returns the block that now holds the elements:
  /// `dst` when given (it must hold TotalNumElem() elements), else a block
  /// leased from `pool`; empty in the metadata-only case. `src` is only read.
  /// \cost One lease when `dst` is empty, two small blocks (order vector and
  /// extents) made with the storage's allocator functions, one pass over the
  /// elements.
  /// \failure A failed lease reports through SharedMemoryPool::lease_or_error
  /// and leaves the metadata unchanged. Instantiated for float, double,
  /// unsigned char and long.
  template <typename T>
  NERVA_API std::unique_ptr<CNNMemoryBlock> ReformatData(T const* src, size_t channelDim,
                                                         size_t observationDim,
                                                         FirstDataDims firstDataDims,
                                                         std::unique_ptr<CNNMemoryBlock> dst,
                                                         SharedMemoryPool& pool);
  /// As above, with the elements moved by qel_permute::ParallelPermute on the
  /// TBB workers of the calling process: the same decisions, blocks, pool
  /// traffic and bytes.
  template <typename T>
  NERVA_API std::unique_ptr<CNNMemoryBlock> ReformatData(T const* src, size_t channelDim,
                                                         size_t observationDim,
                                                         FirstDataDims firstDataDims,
                                                         std::unique_ptr<CNNMemoryBlock> dst,
                                                         SharedMemoryPool& pool, ParallelTag);

 protected:
  /// Owns the increments, sizes and map (3n + 6 eight-byte entries).
  std::unique_ptr<CNNMemoryBlock> storage;
  /// n signed data increments, in `storage`.
  long* data_increments;
  /// n + 3 sizes by logical dimension, in `storage`.
  size_t* sizes;
  /// n + 3 layout positions by logical dimension, in `storage`.
  size_t* dim_map;
  /// n, the number of data dimensions.
  size_t num_data_dims;
  /// Signed unit of the data increments: 1, or -1 after Reverse().
  long base_increment;

 private:
  // Product of the sizes of all dimensions at layout positions below `position`.
  size_t IncrementAt(size_t position) const;
  // The common body of both ReformatData overloads.
  template <typename T>
  std::unique_ptr<CNNMemoryBlock> ReformatDataWith(T const* src, size_t channelDim,
                                                   size_t observationDim,
                                                   FirstDataDims firstDataDims,
                                                   std::unique_ptr<CNNMemoryBlock> dst,
                                                   SharedMemoryPool& pool, bool parallel);
};

extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<float>(
    float const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>,
    SharedMemoryPool&);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<double>(
    double const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>,
    SharedMemoryPool&);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock>
FormattedArray::ReformatData<unsigned char>(unsigned char const*, size_t, size_t, FirstDataDims,
                                            std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<long>(
    long const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<float>(
    float const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&,
    ParallelTag);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<double>(
    double const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>,
    SharedMemoryPool&, ParallelTag);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock>
FormattedArray::ReformatData<unsigned char>(unsigned char const*, size_t, size_t, FirstDataDims,
                                            std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&,
                                            ParallelTag);
extern template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<long>(
    long const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&,
    ParallelTag);

/// Which data dimensions of an array are large enough to split across
/// threads: the first data dimension is compared with `first_threshold`, the
/// others with `other_threshold`. The fields are read by the code that plans
/// parallel work; the library only constructs the record.
class NERVA_API ParallelParameters {
 public:
  /// Marks data dimension d for splitting when its size is strictly greater
  /// than its threshold. The array must have at least one data dimension.
  /// \cost Two blocks (n words, n bytes) made with `fns` directly, freed with
  /// the record.
  /// \failure A failed allocation is not detected; if one throws, the block
  /// made before it is released.
  ParallelParameters(const FormattedArray* array, size_t first_threshold, size_t other_threshold,
                     AllocatorFunctions fns);

  /// Owns `thresholds`.
  std::unique_ptr<CNNMemoryBlock> threshold_block;
  /// Owns `split`.
  std::unique_ptr<CNNMemoryBlock> split_block;
  /// Threshold of each data dimension.
  size_t* thresholds;
  /// True for each data dimension whose size exceeds its threshold.
  bool* split;
  /// True when any entry of `split` is.
  bool any_split;
};

}  // namespace nerva
