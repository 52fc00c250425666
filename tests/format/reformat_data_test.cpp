#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::SharedMemoryPool;

// Logical sizes of the test arrays: two data dimensions, channel, observation,
// sequence.
const size_t kSizes[5] = {3, 4, 5, 2, 3};

// Element offset of logical index `idx` in a dense layout that stores the
// logical dimensions `order` fastest first.
size_t offset(const size_t (&order)[5], const size_t* idx) {
  size_t off = 0, stride = 1;
  for (size_t p = 0; p < 5; ++p) {
    off += idx[order[p]] * stride;
    stride *= kSizes[order[p]];
  }
  return off;
}

const size_t kKORVAL[5] = {0, 1, 2, 3, 4};
const size_t kChained[5] = {2, 3, 0, 1, 4};
const size_t kChainedSwapped[5] = {2, 3, 1, 0, 4};

// Visits every logical index of kSizes.
template <typename F>
void for_each_index(F f) {
  size_t idx[5];
  for (idx[4] = 0; idx[4] < kSizes[4]; ++idx[4])
    for (idx[3] = 0; idx[3] < kSizes[3]; ++idx[3])
      for (idx[2] = 0; idx[2] < kSizes[2]; ++idx[2])
        for (idx[1] = 0; idx[1] < kSizes[1]; ++idx[1])
          for (idx[0] = 0; idx[0] < kSizes[0]; ++idx[0]) f(idx);
}

template <typename T>
T value_at(const size_t* idx) {
  // Distinct for every index; for 8-byte types both halves vary.
  const size_t code = offset(kKORVAL, idx);
  if constexpr (sizeof(T) == 8)
    return static_cast<T>((static_cast<long>(code) << 33) - 7 * code - 1);
  return static_cast<T>(code + 1);
}

template <typename T>
std::vector<T> korval_data() {
  std::vector<T> data(360);
  for_each_index([&](const size_t* idx) { data[offset(kKORVAL, idx)] = value_at<T>(idx); });
  return data;
}

template <typename T>
void expect_layout(const T* data, const size_t (&order)[5]) {
  size_t wrong = 0;
  for_each_index([&](const size_t* idx) {
    if (!(data[offset(order, idx)] == value_at<T>(idx))) ++wrong;
  });
  EXPECT_EQ(wrong, 0u);
}

// Property: the array's own increments agree with the hand-written layout.
void expect_increments(const FormattedArray& a, const size_t (&order)[5]) {
  size_t unit0[5] = {1, 0, 0, 0, 0}, unit1[5] = {0, 1, 0, 0, 0};
  size_t unitc[5] = {0, 0, 1, 0, 0}, unito[5] = {0, 0, 0, 1, 0};
  EXPECT_EQ(a.DataIncrement(0), static_cast<long>(offset(order, unit0)));
  EXPECT_EQ(a.DataIncrement(1), static_cast<long>(offset(order, unit1)));
  EXPECT_EQ(a.ChannelIncrement(), offset(order, unitc));
  EXPECT_EQ(a.ObservationIncrement(), offset(order, unito));
}

std::vector<size_t> map_of(const FormattedArray& a) {
  const size_t* m = a.GetDimensionPermutation();
  return std::vector<size_t>(m, m + a.NumDimensions());
}

template <typename T>
class ReformatDataPerType : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(ReformatDataPerType, ElementTypes);

TYPED_TEST(ReformatDataPerType, KORVALToChainedAndBackRestoresData) {
  using T = TypeParam;
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<T> src = korval_data<T>();

  auto chained = a.ReformatData<T>(src.data(), 0, 1, nerva::InOrder, nullptr, pool);
  ASSERT_TRUE(chained);
  EXPECT_EQ(chained->allocated_size(), 360 * sizeof(T));
  EXPECT_TRUE(a.IsInChainedFormat());
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 0, 1, 4}));
  expect_layout(static_cast<const T*>(chained->data), kChained);
  expect_increments(a, kChained);

  auto back =
      a.ReformatData<T>(static_cast<const T*>(chained->data), 2, 3, nerva::InOrder, nullptr, pool);
  ASSERT_TRUE(back);
  EXPECT_TRUE(a.IsInKORVALFormat());
  expect_increments(a, kKORVAL);
  const T* restored = static_cast<const T*>(back->data);
  EXPECT_EQ(std::vector<T>(restored, restored + 360), src);
  // Only the two destinations and the array's metadata are still alive.
  EXPECT_EQ(counting::live_blocks(), 3u);
}

TYPED_TEST(ReformatDataPerType, SwappedTransposesTheFirstTwoDataDimensions) {
  using T = TypeParam;
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<T> src = korval_data<T>();

  auto out = a.ReformatData<T>(src.data(), 0, 1, nerva::Swapped, nullptr, pool);
  ASSERT_TRUE(out);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{3, 2, 0, 1, 4}));
  EXPECT_FALSE(a.IsInChainedFormat());
  expect_layout(static_cast<const T*>(out->data), kChainedSwapped);
  expect_increments(a, kChainedSwapped);
}

TEST(ReformatData, SameLayoutIsStillCopiedIntoTheGivenBlock) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<double> src = korval_data<double>();
  auto dst = std::make_unique<CNNMemoryBlock>(360 * sizeof(double), counting::functions());
  void* given = dst->data;
  const size_t allocations = counting::stats().allocations;

  auto out = a.ReformatData<double>(src.data(), 2, 3, nerva::InOrder, std::move(dst), pool);
  ASSERT_TRUE(out);
  EXPECT_EQ(out->data, given);
  // Only the permutation vector and the extents were made, nothing leased.
  EXPECT_EQ(counting::stats().allocations, allocations + 2);
  EXPECT_EQ(counting::live_blocks(), 2u);
  EXPECT_TRUE(pool.blocks.empty());
  const double* copy = static_cast<const double*>(out->data);
  EXPECT_EQ(std::vector<double>(copy, copy + 360), src);
  EXPECT_TRUE(a.IsInKORVALFormat());
}

TEST(ReformatData, UnitDataExtentsOnlyChangeTheMetadata) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t sizes[] = {1, 1, 600, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);
  const std::vector<float> src(1200, 1.0f);
  auto dst = pool.lease(1200 * sizeof(float));
  void* given = dst->data;
  const size_t allocations = counting::stats().allocations;

  auto out = a.ReformatData<float>(src.data(), 0, 1, nerva::InOrder, std::move(dst), pool);
  EXPECT_FALSE(out);
  ASSERT_EQ(pool.blocks.size(), 1u);
  EXPECT_EQ(pool.blocks[0]->data, given);
  EXPECT_EQ(counting::stats().allocations, allocations);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 0, 1, 4}));
  EXPECT_EQ(a.DataIncrement(0), 1200);
  EXPECT_EQ(a.DataIncrement(1), 1200);

  // No block passed: still nothing made.
  EXPECT_FALSE(a.ReformatData<float>(src.data(), 2, 3, nerva::InOrder, nullptr, pool));
  EXPECT_TRUE(a.IsInKORVALFormat());
  EXPECT_EQ(counting::stats().allocations, allocations);
}

TEST(ReformatData, UnitDataExtentsWithChannelAndObservationExchangedMoveData) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t sizes[] = {1, 1, 3, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);
  const std::vector<unsigned char> src = {0, 1, 2, 10, 11, 12};  // channel fastest

  auto out = a.ReformatData<unsigned char>(src.data(), 1, 0, nerva::InOrder, nullptr, pool);
  ASSERT_TRUE(out);
  const auto* d = static_cast<const unsigned char*>(out->data);
  EXPECT_EQ(std::vector<unsigned char>(d, d + 6),
            (std::vector<unsigned char>{0, 10, 1, 11, 2, 12}));
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 1, 0, 4}));
  EXPECT_EQ(a.ChannelIncrement(), 2u);
}

TEST(ReformatData, FailedLeaseLeaksNothingAndKeepsMetadata) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t sizes[] = {16, 16, 8, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);
  const std::vector<float> src(4096);

  counting::fail_above(1024);  // metadata temporaries fit, the data block does not
  EXPECT_THROW(a.ReformatData<float>(src.data(), 0, 1, nerva::InOrder, nullptr, pool),
               std::runtime_error);
  counting::fail_above(SIZE_MAX);
  EXPECT_TRUE(a.IsInKORVALFormat());
  EXPECT_EQ(a.DataIncrement(1), 16);
  EXPECT_EQ(counting::live_blocks(), 1u);
  EXPECT_TRUE(pool.blocks.empty());
}

TEST(ReformatData, ThrowingTemporaryAllocationKeepsMetadata) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<long> src = korval_data<long>();
  counting::throw_at(2);  // the extents block, after the permutation vector
  EXPECT_THROW(a.ReformatData<long>(src.data(), 0, 1, nerva::InOrder, nullptr, pool),
               std::bad_alloc);
  EXPECT_TRUE(a.IsInKORVALFormat());
  EXPECT_EQ(counting::live_blocks(), 1u);
}

}  // namespace
