#pragma once

#include <cstddef>
#include <memory>

#include "nerva/config.hpp"
#include "nerva/detail/export.hpp"
#include "nerva/memory.hpp"

namespace nerva {

#if NERVA_CHECKED
namespace detail {
// Checked build only: throw std::invalid_argument with "<function>: <what>
// index <index> out of range (<count> <unit>)", or with `message`.
[[noreturn]] NERVA_API void ThrowIndexOutOfRange(char const* function, char const* what,
                                                 size_t index, size_t count, char const* unit);
[[noreturn]] NERVA_API void ThrowInvalidArgument(char const* message);
}  // namespace detail
#endif

// Order of the first two data dimensions in a layout. Only Swapped (1) is
// acted upon; any other value behaves as InOrder.
enum FirstDataDims : unsigned char { InOrder = 0, Swapped = 1 };

// Named target layouts. KORVAL: data dimensions, channel, observation,
// sequence. Chained: channel, observation, data dimensions, sequence.
enum PreferredFormat : unsigned char { KORVALFormat = 0, ChainedFormat = 1 };

// Tag of the reformat overloads that move the elements with the parallel
// permutation (qel_permute::ParallelPermute) on the TBB workers of the
// calling process, e.g. `array.Reformat(ChainedFormat, Parallel)`. Same
// bytes, same metadata and same pool traffic as the overload without it.
struct ParallelTag {
  explicit constexpr ParallelTag() = default;
};
inline constexpr ParallelTag Parallel{};

// Layout metadata of an N-D array with n data (spatial) dimensions followed by
// channel, observation and sequence: n + 3 logical dimensions. `sizes` and
// `dim_map` are indexed by logical dimension; `dim_map[k]` is the layout
// position of dimension k, position 0 varying fastest. Increments, sizes and
// map share one block of 3n + 6 eight-byte entries. Arguments are trusted.
class NERVA_API FormattedArray {
 public:
  FormattedArray(size_t num_data_dims, size_t channel_position, size_t observation_position,
                 size_t sequence_position, AllocatorFunctions fns, long base_increment);

  FormattedArray(const FormattedArray&) = delete;
  FormattedArray& operator=(const FormattedArray&) = delete;
  FormattedArray(FormattedArray&&) = delete;
  FormattedArray& operator=(FormattedArray&&) = delete;

  size_t NumDataDimensions() const { return num_data_dims; }
  size_t NumDimensions() const { return num_data_dims + 3; }
  // The three indexed accessors are inline loads; the checked build verifies
  // the index first (any logical dimension for DataSize and DataDimension, a
  // data dimension for DataIncrement).
  size_t DataSize(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims + 3)
      detail::ThrowIndexOutOfRange("FormattedArray::DataSize", "dimension", i, num_data_dims + 3,
                                   "dimensions");
#endif
    return sizes[i];
  }
  size_t NumChannels() const { return sizes[num_data_dims]; }
  size_t NumObservations() const { return sizes[num_data_dims + 1]; }
  // Product of the data sizes; 1 when there are none.
  size_t NumDataElem() const;
  // Channels times observations; the sequence size is not included.
  size_t NumNonDataElem() const { return NumChannels() * NumObservations(); }
  // Product of all n + 3 sizes.
  size_t TotalNumElem() const;
  // True when every data dimension has size 1.
  bool IsScalar() const;

  long DataIncrement(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims)
      detail::ThrowIndexOutOfRange("FormattedArray::DataIncrement", "data dimension", i,
                                   num_data_dims, "data dimensions");
#endif
    return data_increments[i];
  }
  const long* DataIncrements() const { return data_increments; }
  long BaseIncrement() const { return base_increment; }

  size_t DataDimension(size_t i) const {
#if NERVA_CHECKED
    if (i >= num_data_dims + 3)
      detail::ThrowIndexOutOfRange("FormattedArray::DataDimension", "dimension", i,
                                   num_data_dims + 3, "dimensions");
#endif
    return dim_map[i];
  }
  size_t ChannelDimension() const { return dim_map[num_data_dims]; }
  size_t ObservationDimension() const { return dim_map[num_data_dims + 1]; }
  size_t SequenceDimension() const { return dim_map[num_data_dims + 2]; }
  // Products of the sizes at smaller layout positions, without base_increment.
  size_t ChannelIncrement() const { return IncrementAt(dim_map[num_data_dims]); }
  size_t ObservationIncrement() const { return IncrementAt(dim_map[num_data_dims + 1]); }

  const size_t* GetSizesInDefaultFormat() const { return sizes; }
  // A new block of n + 3 sizes indexed by layout position, made with the
  // allocator functions of this array's storage.
  std::unique_ptr<CNNMemoryBlock> GetSizesInCurrentFormat() const;
  const size_t* GetDimensionPermutation() const { return dim_map; }

  bool IsInKORVALFormat() const;
  // The sequence position is not looked at.
  bool IsInChainedFormat() const;

  // One-based order vector for a move from the current layout to one with the
  // channel at `channel_position`, the observation at `observation_position`,
  // the data dimensions in the free positions and the sequence last: entry p
  // is 1 + the current position of the dimension that goes to position p.
  std::unique_ptr<CNNMemoryBlock> BuildPermutationVector(size_t channel_position,
                                                         size_t observation_position,
                                                         FirstDataDims order) const;

  // Places channel, observation and sequence, then gives the data dimensions
  // the lowest free positions in their natural order. The sequence position
  // is not treated as taken: callers pass the last position for it.
  void PopulateDimMap(size_t channel_position, size_t observation_position,
                      size_t sequence_position);
  void UpdateDataIncrements();
  // `given` is indexed by layout position; positions from `count` on are 1.
  void SetSizesInCurrentFormat(const size_t* given, size_t count);
  // `given` is indexed by logical dimension; dimensions from `count` on are 1.
  void SetSizesInDefaultFormat(const size_t* given, size_t count);
  // Sets n data sizes, channels and observations; the sequence size stays.
  void OverrideSizes(const size_t* data_sizes, size_t channels, size_t observations);

  // Traverses every data dimension the other way round (negates the data
  // increments and base_increment); sizes and map stay.
  void Reverse();
  // Renames channel to observation and back; no data moves, increments stay.
  void SwapChannelAndObservations();

  // Moves the elements of `src` (laid out as this array currently says) into
  // the layout with channel and observation at the given positions and
  // updates the metadata to match. Writes into `dst` when given, else into a
  // block leased from `pool`, and returns that block. When no element has to
  // move, only the metadata change, `dst` goes back to the pool and the
  // result is empty. Instantiated for float, double, unsigned char and long.
  template <typename T>
  NERVA_API std::unique_ptr<CNNMemoryBlock> ReformatData(T const* src, size_t channelDim,
                                                         size_t observationDim,
                                                         FirstDataDims firstDataDims,
                                                         std::unique_ptr<CNNMemoryBlock> dst,
                                                         SharedMemoryPool& pool);
  // As above, with the elements moved by the parallel permutation.
  template <typename T>
  NERVA_API std::unique_ptr<CNNMemoryBlock> ReformatData(T const* src, size_t channelDim,
                                                         size_t observationDim,
                                                         FirstDataDims firstDataDims,
                                                         std::unique_ptr<CNNMemoryBlock> dst,
                                                         SharedMemoryPool& pool, ParallelTag);

 protected:
  std::unique_ptr<CNNMemoryBlock> storage;
  long* data_increments;
  size_t* sizes;
  size_t* dim_map;
  size_t num_data_dims;
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

// Which data dimensions of an array are large enough to split across threads:
// the first data dimension is compared with `first_threshold`, the others with
// `other_threshold`. The array must have at least one data dimension.
class NERVA_API ParallelParameters {
 public:
  ParallelParameters(const FormattedArray* array, size_t first_threshold, size_t other_threshold,
                     AllocatorFunctions fns);

  std::unique_ptr<CNNMemoryBlock> threshold_block;
  std::unique_ptr<CNNMemoryBlock> split_block;
  size_t* thresholds;
  bool* split;
  bool any_split;
};

}  // namespace nerva
