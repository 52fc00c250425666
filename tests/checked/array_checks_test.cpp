#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

#include "expect_invalid.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

TEST(CheckedArrays, StrideNeedsStridesAndADataDimension) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::size_t const sizes[] = {4, 3};
  FormattedOutputArray<float> plain(pool, sizes, 2, 2, 1, 2, 3, nerva::Zeros);
  expect_invalid([&] { plain.Stride(0); },
                 "FormattedOutputArray::Stride: the array has no strides");

  std::size_t const firsts[] = {0, 0}, lasts[] = {8, 6}, strides[] = {2, 3};
  FormattedOutputArray<float> strided(pool, firsts, lasts, strides, 2, 2, 1, nullptr, nerva::Zeros);
  EXPECT_EQ(strided.Stride(1), 3u);
  expect_invalid(
      [&] { strided.Stride(2); },
      "FormattedOutputArray::Stride: data dimension index 2 out of range (2 data dimensions)");
}

TEST(CheckedArrays, BoundsRejectAZeroStrideOverANonEmptyRange) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::size_t const firsts[] = {0, 0}, lasts[] = {4, 5}, strides[] = {1, 0};
  expect_invalid(
      [&] {
        FormattedOutputArray<double> out(pool, firsts, lasts, strides, 2, 3, 1, nullptr,
                                         nerva::Zeros);
      },
      "FormattedOutputArray::CopyDataBounds: stride 0 in data dimension 1 with the non-empty "
      "range [0, 5)");
  // Over an empty range the stride is never divided by.
  std::size_t const emptyLasts[] = {4, 0};
  FormattedOutputArray<double> empty(pool, firsts, emptyLasts, strides, 2, 3, 1, nullptr,
                                     nerva::Zeros);
  EXPECT_EQ(empty.DataSize(1), 0u);
}

TEST(CheckedArrays, ReformatNeedsADataBuffer) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::size_t const sizes[] = {4, 3};
  FormattedOutputArray<long> out(pool, sizes, 2, 2, 1, 2, 3, nerva::Unallocated);
  expect_invalid([&] { out.Reformat(nerva::ChainedFormat); },
                 "FormattedOutputArray::Reformat: the array has no data buffer (24 elements)");
  EXPECT_TRUE(out.IsInKORVALFormat());  // nothing changed
}

TEST(CheckedArrays, DescriptorsNeedADataDimensionStridesAndIncrements) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::size_t const sizes[] = {4, 3};
  FormattedOutputArray<float> plain(pool, sizes, 2, 2, 1, 2, 3, nerva::Zeros);
  std::size_t const extents[] = {3, 3};
  long const increments[] = {1, 3};

  expect_invalid([&] { plain.ConvolutionDescriptor(2, 3, 1, 6, 1); },
                 "FormattedOutputArray::ConvolutionDescriptor: data dimension index 2 out of "
                 "range (2 data dimensions)");
  expect_invalid([&] { plain.StridedConvolutionDescriptor(0, 3, 1, 6, 1); },
                 "FormattedOutputArray::StridedConvolutionDescriptor: the array has no strides");
  expect_invalid([&] { plain.ConvolutionDescriptorND(extents, increments, extents, nullptr); },
                 "FormattedOutputArray::ConvolutionDescriptorND: null input increments");
  expect_invalid(
      [&] { plain.StridedConvolutionDescriptorND(extents, increments, extents, increments); },
      "FormattedOutputArray::StridedConvolutionDescriptorND: the array has no strides");
  // A null window increments array is allowed in the plain form.
  EXPECT_NE(plain.ConvolutionDescriptorND(extents, nullptr, extents, increments), nullptr);

  std::size_t const firsts[] = {0, 0}, lasts[] = {8, 6}, strides[] = {2, 3};
  FormattedOutputArray<float> strided(pool, firsts, lasts, strides, 2, 2, 1, nullptr, nerva::Zeros);
  expect_invalid([&] { strided.StridedConvolutionDescriptor(5, 3, 1, 6, 1); },
                 "FormattedOutputArray::StridedConvolutionDescriptor: data dimension index 5 out "
                 "of range (2 data dimensions)");
  expect_invalid(
      [&] { strided.StridedConvolutionDescriptorND(extents, nullptr, extents, increments); },
      "FormattedOutputArray::StridedConvolutionDescriptorND: null window increments");
  expect_invalid(
      [&] { strided.StridedConvolutionDescriptorND(extents, increments, extents, nullptr); },
      "FormattedOutputArray::StridedConvolutionDescriptorND: null input increments");
  EXPECT_NE(strided.StridedConvolutionDescriptorND(extents, increments, extents, increments),
            nullptr);
}

}  // namespace
