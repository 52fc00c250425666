#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "nerva/convolution.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

// One past the last sampled position, found by walking the samples.
std::size_t last_sample_end(std::size_t first, std::size_t last, std::size_t s) {
  if (first >= last) return last;
  std::size_t p = first;
  while (p + s < last) p += s;
  return p + 1 == last || s == 1 ? last : p + 1;
}

template <typename T>
std::unique_ptr<FormattedOutputArray<T>> strided_output(SharedMemoryPool& pool,
                                                        std::vector<std::size_t> firsts,
                                                        std::vector<std::size_t> lasts,
                                                        std::vector<std::size_t> strides) {
  return std::make_unique<FormattedOutputArray<T>>(pool, firsts.data(), lasts.data(),
                                                   strides.data(), firsts.size(), 3, 2, nullptr,
                                                   nerva::Unallocated);
}

TEST(ConvolutionDescriptor, StridedEndsFollowTheSamples) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  struct Case {
    std::size_t first, last, stride, end;
  } cases[] = {{0, 10, 3, 10}, {0, 9, 3, 7}, {0, 8, 3, 7}, {0, 7, 3, 7}, {2, 10, 4, 7},
               {1, 10, 4, 10}, {5, 5, 3, 5}, {7, 2, 3, 2}, {0, 9, 1, 9}};
  for (const Case& c : cases) {
    auto out = strided_output<float>(pool, {c.first}, {c.last}, {c.stride});
    auto strided = out->StridedConvolutionDescriptor(0, 3, 1, 10, 1);
    auto plain = out->ConvolutionDescriptor(0, 3, 1, 10, 1);
    EXPECT_EQ(strided->first, c.first);
    EXPECT_EQ(strided->last, c.end) << c.first << ".." << c.last << " by " << c.stride;
    EXPECT_EQ(strided->stride, c.stride);
    EXPECT_EQ(plain->last, c.last);  // the plain form ignores the stride
  }
  std::mt19937 rng(7);
  for (int i = 0; i < 500; ++i) {
    std::size_t first = rng() % 20, last = rng() % 40, s = 1 + rng() % 6;
    auto out = strided_output<double>(pool, {first}, {last}, {s});
    EXPECT_EQ(out->StridedConvolutionDescriptor(0, 1, 1, 1, 1)->last,
              last_sample_end(first, last, s));
  }
}

TEST(ConvolutionDescriptor, IncrementsComeFromTheArrayAndTheCaller) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto out = strided_output<long>(pool, {0, 1}, {8, 9}, {1, 2});
  // KORVAL layout: data 0 (size 8), data 1 (size 4), channel 3, observation 2.
  auto d1 = out->StridedConvolutionDescriptor(1, 5, -7, 30, -11);
  EXPECT_EQ(d1->outputIncrement, 8);
  EXPECT_EQ(d1->windowExtent, 5u);
  EXPECT_EQ(d1->windowIncrement, -7);
  EXPECT_EQ(d1->inputExtent, 30u);
  EXPECT_EQ(d1->inputIncrement, -11);
  out->Reverse();
  EXPECT_EQ(out->ConvolutionDescriptor(1, 5, 1, 30, 1)->outputIncrement, -8);
  EXPECT_EQ(out->ConvolutionDescriptor(0, 5, 1, 30, 1)->outputIncrement, -1);
}

template <typename T>
class NDDescriptor : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(NDDescriptor, ElementTypes);

TYPED_TEST(NDDescriptor, MatchesThePerDimensionFormDimensionByDimension) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto out = strided_output<TypeParam>(pool, {0, 2, 1}, {9, 10, 10}, {3, 4, 1});
  const std::size_t window[] = {3, 5, 2}, input[] = {11, 12, 13};
  const long windowInc[] = {1, 3, 15}, inputInc[] = {-1, -11, -132};

  auto nd = out->StridedConvolutionDescriptorND(window, windowInc, input, inputInc);
  auto plain = out->ConvolutionDescriptorND(window, windowInc, input, inputInc);
  ASSERT_EQ(nd->dimensionCount, 3u);
  EXPECT_EQ(nd->windowDimensionCount, 3u);
  EXPECT_EQ(nd->inputDimensionCount, 3u);
  EXPECT_EQ(plain->dimensionCount, 3u);
  for (std::size_t d = 0; d < 3; ++d) {
    auto one = out->StridedConvolutionDescriptor(d, window[d], windowInc[d], input[d], inputInc[d]);
    EXPECT_EQ(nd->firsts[d], one->first);
    EXPECT_EQ(nd->lasts[d], one->last);
    EXPECT_EQ(nd->strides[d], one->stride);
    EXPECT_EQ(nd->outputIncrements[d], one->outputIncrement);
    EXPECT_EQ(nd->windowExtents[d], one->windowExtent);
    EXPECT_EQ(nd->windowIncrements[d], one->windowIncrement);
    EXPECT_EQ(nd->inputExtents[d], one->inputExtent);
    EXPECT_EQ(nd->inputIncrements[d], one->inputIncrement);

    auto flat = out->ConvolutionDescriptor(d, window[d], windowInc[d], input[d], inputInc[d]);
    EXPECT_EQ(plain->lasts[d], flat->last);
    EXPECT_EQ(plain->outputIncrements[d], flat->outputIncrement);
    EXPECT_EQ(plain->windowIncrements[d], windowInc[d]);
  }
  EXPECT_EQ(nd->lasts[0], 7u);   // [0, 9) by 3 samples 0, 3, 6
  EXPECT_EQ(nd->lasts[1], 7u);   // [2, 10) by 4 samples 2, 6
  EXPECT_EQ(nd->lasts[2], 10u);  // stride 1 keeps the end
}

TEST(NDDescriptor, MissingWindowIncrementsGiveZeros) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  const std::size_t sizes[] = {6, 7};
  FormattedOutputArray<float> out(pool, sizes, 2, 4, 2, 0, 1, nerva::Unallocated);
  const std::size_t window[] = {3, 3}, input[] = {8, 9};
  const long inputInc[] = {8, 64};
  auto nd = out.ConvolutionDescriptorND(window, nullptr, input, inputInc);
  EXPECT_EQ(nd->windowIncrements[0], 0);
  EXPECT_EQ(nd->windowIncrements[1], 0);
  EXPECT_EQ(nd->firsts[1], 0u);
  EXPECT_EQ(nd->lasts[1], 7u);
  // Chained layout: channel 4, observation 2, then the data dimensions.
  EXPECT_EQ(nd->outputIncrements[0], 8);
  EXPECT_EQ(nd->outputIncrements[1], 48);
  EXPECT_EQ(nd->inputIncrements[1], 64);
}

TEST(NDDescriptorRecord, PadsExtentsAndGivesDenseIncrements) {
  const std::size_t firsts[] = {1, 0, 4}, lasts[] = {5, 3, 2}, window[] = {3, 2}, input[] = {9};
  nerva::ConvolutionNDDescriptor record(firsts, lasts, window, 2, input, 1);
  ASSERT_EQ(record.dimensionCount, 2u);
  EXPECT_EQ(record.windowDimensionCount, 2u);
  EXPECT_EQ(record.inputDimensionCount, 1u);
  EXPECT_EQ(record.inputExtents[1], 1u);
  EXPECT_EQ(record.outputIncrements[0], 1);
  EXPECT_EQ(record.outputIncrements[1], 4);
  EXPECT_EQ(record.windowIncrements[1], 3);
  EXPECT_EQ(record.inputIncrements[1], 9);
}

}  // namespace
