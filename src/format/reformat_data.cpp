#include <utility>

#include "detail/checks.hpp"
#include "nerva/formatted_array.hpp"
#include "qel_permute/permute.hpp"

namespace nerva {

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData(T const* src, size_t channelDim,
                                                             size_t observationDim,
                                                             FirstDataDims firstDataDims,
                                                             std::unique_ptr<CNNMemoryBlock> dst,
                                                             SharedMemoryPool& pool) {
  return ReformatDataWith(src, channelDim, observationDim, firstDataDims, std::move(dst), pool,
                          false);
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData(T const* src, size_t channelDim,
                                                             size_t observationDim,
                                                             FirstDataDims firstDataDims,
                                                             std::unique_ptr<CNNMemoryBlock> dst,
                                                             SharedMemoryPool& pool, ParallelTag) {
  return ReformatDataWith(src, channelDim, observationDim, firstDataDims, std::move(dst), pool,
                          true);
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatDataWith(
    T const* src, size_t channelDim, size_t observationDim, FirstDataDims firstDataDims,
    std::unique_ptr<CNNMemoryBlock> dst, SharedMemoryPool& pool, bool parallel) {
  const size_t n = num_data_dims;

  // All data extents 1 and channel/observation keep their relative order: the
  // elements already lie in the wanted order, only the description changes.
  if (NumDataElem() == 1 &&
      (ChannelDimension() < ObservationDimension()) == (channelDim < observationDim)) {
    PopulateDimMap(channelDim, observationDim, n + 2);
    UpdateDataIncrements();
    if (dst) pool.checkin(std::move(dst));
    return nullptr;
  }

  // Both are read from the current map, before it changes.
  const std::unique_ptr<CNNMemoryBlock> permutation =
      BuildPermutationVector(channelDim, observationDim, firstDataDims);
  const std::unique_ptr<CNNMemoryBlock> extents = GetSizesInCurrentFormat();
  if (NERVA_CHECKED_BUILD)
    detail::check_permutation("FormattedArray::ReformatData",
                              static_cast<size_t*>(permutation->data), n + 3);

  if (!dst) dst = pool.lease_or_error(TotalNumElem() * sizeof(T));
  const auto permute =
      parallel ? &qel_permute::ParallelPermute<sizeof(T)> : &qel_permute::Permute<sizeof(T)>;
  permute(src, dst->data, n + 3, static_cast<size_t*>(extents->data),
          static_cast<size_t*>(permutation->data), nullptr, nullptr);

  // The metadata follow only once the elements have moved. PopulateDimMap
  // keeps data dimensions in ascending order; the permutation above already
  // swapped the first two for Swapped, so the map does the same.
  PopulateDimMap(channelDim, observationDim, n + 2);
  if (firstDataDims == Swapped) std::swap(dim_map[0], dim_map[1]);
  UpdateDataIncrements();
  return dst;
}

#define NERVA_REFORMAT_DATA(T)                                                                     \
  template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<T>(              \
      T const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>,                    \
      SharedMemoryPool&);                                                                          \
  template NERVA_API std::unique_ptr<CNNMemoryBlock> FormattedArray::ReformatData<T>(              \
      T const*, size_t, size_t, FirstDataDims, std::unique_ptr<CNNMemoryBlock>, SharedMemoryPool&, \
      ParallelTag);

NERVA_REFORMAT_DATA(float)
NERVA_REFORMAT_DATA(double)
NERVA_REFORMAT_DATA(unsigned char)
NERVA_REFORMAT_DATA(long)
#undef NERVA_REFORMAT_DATA

}  // namespace nerva
