#include <algorithm>
#include <memory>

#include "convolution/strided_end.hpp"
#include "detail/checks.hpp"
#include "nerva/output_array.hpp"

namespace nerva {
namespace {

// Checked build: `dim` names a data dimension of an array with `n` of them.
void CheckDim(char const* function, size_t dim, size_t n) {
  NERVA_CHECK(dim < n, function, ": data dimension index ", dim, " out of range (", n,
              " data dimensions)");
}

// Checked build: the array has strides and none is 0 over a non-empty range.
void CheckStrides(char const* function, size_t const* strides, size_t const* firsts,
                  size_t const* lasts, size_t begin, size_t end) {
  NERVA_CHECK(strides != nullptr, function, ": the array has no strides");
  for (size_t d = begin; NERVA_CHECKED_BUILD && d < end; ++d)
    NERVA_CHECK(strides[d] != 0 || lasts[d] <= firsts[d], function, ": stride 0 in data dimension ",
                d, " with the non-empty range [", firsts[d], ", ", lasts[d], ")");
}

// Copies `count` values and repeats the last one up to `total` entries.
void CopyFillLast(long* dst, std::size_t total, long const* src, std::size_t count) {
  std::copy(src, src + count, dst);
  if (count > 0) std::fill(dst + count, dst + total, src[count - 1]);
}

}  // namespace

template <typename T>
std::unique_ptr<ConvolutionDimensionDescriptor> FormattedOutputArray<T>::ConvolutionDescriptor(
    size_t dim, size_t windowExtent, long windowIncrement, size_t inputExtent,
    long inputIncrement) const {
  CheckDim("FormattedOutputArray::ConvolutionDescriptor", dim, num_data_dims);
  auto record = std::make_unique<ConvolutionDimensionDescriptor>(firsts[dim], lasts[dim],
                                                                 windowExtent, inputExtent);
  record->outputIncrement = DataIncrement(dim);
  record->windowIncrement = windowIncrement;
  record->inputIncrement = inputIncrement;
  return record;
}

template <typename T>
std::unique_ptr<StridedConvolutionDimensionDescriptor>
FormattedOutputArray<T>::StridedConvolutionDescriptor(size_t dim, size_t windowExtent,
                                                      long windowIncrement, size_t inputExtent,
                                                      long inputIncrement) const {
  if (NERVA_CHECKED_BUILD) {
    CheckDim("FormattedOutputArray::StridedConvolutionDescriptor", dim, num_data_dims);
    CheckStrides("FormattedOutputArray::StridedConvolutionDescriptor", strides, firsts, lasts, dim,
                 dim + 1);
  }
  const size_t s = strides[dim];
  auto record = std::make_unique<StridedConvolutionDimensionDescriptor>(
      firsts[dim], lasts[dim], windowExtent, inputExtent, s);
  record->last = TightenedLast(record->first, record->last, s);
  record->outputIncrement = DataIncrement(dim);
  record->windowIncrement = windowIncrement;
  record->inputIncrement = inputIncrement;
  return record;
}

template <typename T>
std::unique_ptr<ConvolutionNDDescriptor> FormattedOutputArray<T>::ConvolutionDescriptorND(
    size_t const* windowExtents, long const* windowIncrements, size_t const* inputExtents,
    long const* inputIncrements) const {
  const size_t n = NumDataDimensions();
  NERVA_CHECK(inputIncrements != nullptr || n == 0,
              "FormattedOutputArray::ConvolutionDescriptorND: null input increments");
  auto record =
      std::make_unique<ConvolutionNDDescriptor>(firsts, lasts, windowExtents, n, inputExtents, n);
  std::copy(DataIncrements(), DataIncrements() + n, record->outputIncrements);
  if (windowIncrements != nullptr) {
    CopyFillLast(record->windowIncrements, n, windowIncrements, record->windowDimensionCount);
  } else if (n > 0) {
    // No window increments: zero throughout, deliberately not the dense ones.
    record->windowIncrements[0] = 0;
    for (size_t k = 1; k < n; ++k)
      record->windowIncrements[k] =
          record->windowIncrements[k - 1] * static_cast<long>(record->windowExtents[k - 1]);
  }
  CopyFillLast(record->inputIncrements, n, inputIncrements, record->inputDimensionCount);
  return record;
}

template <typename T>
std::unique_ptr<StridedConvolutionNDDescriptor>
FormattedOutputArray<T>::StridedConvolutionDescriptorND(size_t const* windowExtents,
                                                        long const* windowIncrements,
                                                        size_t const* inputExtents,
                                                        long const* inputIncrements) const {
  const size_t n = NumDataDimensions();
  if (NERVA_CHECKED_BUILD) {
    char const* const self = "FormattedOutputArray::StridedConvolutionDescriptorND";
    CheckStrides(self, strides, firsts, lasts, 0, n);
    NERVA_CHECK(windowIncrements != nullptr || n == 0, self, ": null window increments");
    NERVA_CHECK(inputIncrements != nullptr || n == 0, self, ": null input increments");
  }
  auto record = std::make_unique<StridedConvolutionNDDescriptor>(firsts, lasts, windowExtents, n,
                                                                 inputExtents, n);
  record->strides = new size_t[n];
  std::copy(strides, strides + n, record->strides);

  for (size_t d = 0; d < n; ++d) {
    record->lasts[d] = TightenedLast(record->firsts[d], record->lasts[d], record->strides[d]);
  }
  record->SetDenseIncrements(record->strides);

  std::copy(DataIncrements(), DataIncrements() + n, record->outputIncrements);
  CopyFillLast(record->windowIncrements, n, windowIncrements, record->windowDimensionCount);
  CopyFillLast(record->inputIncrements, n, inputIncrements, record->inputDimensionCount);
  return record;
}

#define NERVA_INSTANTIATE_DESCRIPTORS(T)                                                           \
  template std::unique_ptr<ConvolutionDimensionDescriptor>                                         \
  FormattedOutputArray<T>::ConvolutionDescriptor(size_t, size_t, long, size_t, long) const;        \
  template std::unique_ptr<StridedConvolutionDimensionDescriptor>                                  \
  FormattedOutputArray<T>::StridedConvolutionDescriptor(size_t, size_t, long, size_t, long) const; \
  template std::unique_ptr<ConvolutionNDDescriptor>                                                \
  FormattedOutputArray<T>::ConvolutionDescriptorND(size_t const*, long const*, size_t const*,      \
                                                   long const*) const;                             \
  template std::unique_ptr<StridedConvolutionNDDescriptor>                                         \
  FormattedOutputArray<T>::StridedConvolutionDescriptorND(size_t const*, long const*,              \
                                                          size_t const*, long const*) const;

NERVA_INSTANTIATE_DESCRIPTORS(float)
NERVA_INSTANTIATE_DESCRIPTORS(double)
NERVA_INSTANTIATE_DESCRIPTORS(unsigned char)
NERVA_INSTANTIATE_DESCRIPTORS(long)

}  // namespace nerva
