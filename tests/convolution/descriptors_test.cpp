#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "nerva/convolution.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using namespace nerva;

// An owner of a plain record must not be able to take a strided one: without a virtual
// destructor it would free only part of it (the strides leak).
template <class From, class To>
constexpr bool kConverts = std::is_convertible_v<std::unique_ptr<From>, std::unique_ptr<To>>;
static_assert(!kConverts<StridedConvolutionNDDescriptor, ConvolutionNDDescriptor>);
static_assert(!kConverts<StridedConvolutionDimensionDescriptor, ConvolutionDimensionDescriptor>);

using Sizes = std::vector<std::size_t>;

struct Pooled {
  counting::LeakCheck check;
  SharedMemoryPool pool{counting::functions(), &counting::throwing_error};

  // A strided KORVAL output with 3 channels and 2 observations.
  template <typename T>
  std::unique_ptr<FormattedOutputArray<T>> output(Sizes firsts, Sizes lasts, Sizes strides) {
    return std::make_unique<FormattedOutputArray<T>>(pool, firsts.data(), lasts.data(),
                                                     strides.data(), firsts.size(), 3, 2, nullptr,
                                                     Unallocated);
  }
};

// The seven shared fields of a per-dimension record, or of dimension d of an N-D record.
template <class R>
std::vector<long> fields(R const& r) {
  return {long(r.first),     long(r.last),        r.outputIncrement, long(r.windowExtent),
          r.windowIncrement, long(r.inputExtent), r.inputIncrement};
}
template <class R>
std::vector<long> fields(R const& r, std::size_t d) {
  return {long(r.firsts[d]),        long(r.lasts[d]),      r.outputIncrements[d],
          long(r.windowExtents[d]), r.windowIncrements[d], long(r.inputExtents[d]),
          r.inputIncrements[d]};
}

// Random ranges (empty ones, stride 1 and every remainder among them) against a walk over the
// samples; the plain form ignores the stride.
TEST(ConvolutionDescriptor, StridedEndsFollowTheSamples) {
  Pooled p;
  std::mt19937 rng(7);
  for (int i = 0; i < 300; ++i) {
    std::size_t const first = rng() % 20, last = rng() % 40, stride = 1 + rng() % 6;
    std::size_t end = first;
    while (end + stride < last) end += stride;
    auto out = p.output<float>({first}, {last}, {stride});
    auto strided = out->StridedConvolutionDescriptor(0, 3, 1, 10, 1);
    EXPECT_EQ(strided->last, first >= last ? last : end + 1)
        << first << ".." << last << " by " << stride;
    EXPECT_EQ(strided->stride, out->Stride(0));
    EXPECT_EQ(out->ConvolutionDescriptor(0, 3, 1, 10, 1)->last, last);
  }
}

template <typename T>
class NDDescriptor : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(NDDescriptor, ElementTypes);

// Both N-D forms agree, dimension by dimension, with the per-dimension forms, for every element
// type.
TYPED_TEST(NDDescriptor, MatchesThePerDimensionForm) {
  Pooled p;
  auto out = p.template output<TypeParam>({0, 2, 1}, {9, 10, 10}, {3, 4, 1});
  const std::size_t window[] = {3, 5, 2}, input[] = {11, 12, 13};
  const long windowInc[] = {1, 3, 15}, inputInc[] = {-1, -11, -132};
  auto nd = out->StridedConvolutionDescriptorND(window, windowInc, input, inputInc);
  auto plain = out->ConvolutionDescriptorND(window, windowInc, input, inputInc);
  EXPECT_EQ((Sizes{nd->dimensionCount, nd->windowDimensionCount, nd->inputDimensionCount,
                   plain->dimensionCount}),
            Sizes(4, 3));
  for (std::size_t d = 0; d < 3; ++d) {
    auto one = out->StridedConvolutionDescriptor(d, window[d], windowInc[d], input[d], inputInc[d]);
    auto flat = out->ConvolutionDescriptor(d, window[d], windowInc[d], input[d], inputInc[d]);
    EXPECT_EQ(fields(*nd, d), fields(*one)) << d;
    EXPECT_EQ(fields(*plain, d), fields(*flat)) << d;
    EXPECT_EQ(nd->strides[d], one->stride);
  }
  // KORVAL: data extents 3, 2, 9; the caller's increments pass through as given.
  EXPECT_EQ(fields(*nd, 1), (std::vector<long>{2, 7, 3, 5, 3, 12, -11}));
  out->Reverse();
  EXPECT_EQ(out->ConvolutionDescriptor(1, 5, 1, 30, 1)->outputIncrement, -3);
}

// Without window increments the plain form gives zeros. Records built directly pad the shorter
// extents with 1 and have dense increments; products beyond 64 bits wrap (no signed overflow,
// which the sanitized build would stop at): (2^33 + 1)^2 = 2^34 + 1 modulo 2^64.
template <class Record>
void expect_direct_records() {
  const std::size_t firsts[] = {1, 0, 4}, lasts[] = {5, 3, 2}, w2[] = {3, 2}, in1[] = {9};
  Record record(firsts, lasts, w2, 2, in1, 1);
  EXPECT_EQ(record.inputDimensionCount, 1u);
  EXPECT_EQ(fields(record, 1), (std::vector<long>{0, 3, 4, 2, 3, 1, 9}));
  const std::size_t big = (std::size_t{1} << 33) + 1, zeros[] = {0, 0, 0}, ends[] = {big, big, 1};
  Record huge(zeros, ends, ends, 3, ends, 3);
  EXPECT_EQ(fields(huge, 2),
            (std::vector<long>{0, 1, (1L << 34) + 1, 1, (1L << 34) + 1, 1, (1L << 34) + 1}));
}

TEST(NDDescriptor, MissingWindowIncrementsAndDirectRecords) {
  Pooled p;
  auto out = p.output<float>({0, 0}, {6, 7}, {1, 1});
  const std::size_t window[] = {3, 3}, input[] = {8, 9};
  const long inputInc[] = {8, 64};
  auto nd = out->ConvolutionDescriptorND(window, nullptr, input, inputInc);
  EXPECT_EQ(fields(*nd, 1), (std::vector<long>{0, 7, 6, 3, 0, 9, 64}));
  EXPECT_EQ(nd->windowIncrements[0], 0);
  expect_direct_records<ConvolutionNDDescriptor>();
  expect_direct_records<StridedConvolutionNDDescriptor>();
}

}  // namespace
