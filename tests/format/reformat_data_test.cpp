#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::SharedMemoryPool;

// Logical sizes of the test arrays: two data dimensions, channel, observation,
// sequence; a layout lists the logical dimensions fastest first.
const size_t kSizes[5] = {3, 4, 5, 2, 3};
using Layout = std::array<size_t, 5>;
const Layout kKORVAL = {0, 1, 2, 3, 4};

// Element distance between neighbours along logical dimension d in a dense
// layout: the product of the sizes of the dimensions before it.
size_t stride(const Layout& order, size_t d) {
  size_t s = 1;
  for (size_t p = 0; order[p] != d; ++p) s *= kSizes[order[p]];
  return s;
}

// The element with KORVAL offset k; distinct, and for 8-byte types both
// halves vary.
template <typename T>
T value_at(size_t k) {
  if constexpr (sizeof(T) == 8) return static_cast<T>((static_cast<long>(k) << 33) - 7 * k - 1);
  return static_cast<T>(k + 1);
}

// Every element, the map (the inverse of the layout) and the array's own
// increments agree with the layout, computed index by index.
template <typename T>
void expect_layout(const FormattedArray& a, const CNNMemoryBlock& block, const Layout& order) {
  ASSERT_EQ(block.allocated_size(), 360 * sizeof(T));
  for (size_t p = 0; p < 5; ++p) EXPECT_EQ(a.GetDimensionPermutation()[order[p]], p);
  EXPECT_EQ(a.DataIncrement(0), static_cast<long>(stride(order, 0)));
  EXPECT_EQ(a.DataIncrement(1), static_cast<long>(stride(order, 1)));
  EXPECT_EQ(a.ChannelIncrement(), stride(order, 2));
  EXPECT_EQ(a.ObservationIncrement(), stride(order, 3));
  size_t wrong = 0;
  for (size_t k = 0; k < 360; ++k) {
    size_t off = 0;
    for (size_t d = 0, rest = k; d < 5; rest /= kSizes[d++])
      off += rest % kSizes[d] * stride(order, d);
    wrong += !(static_cast<const T*>(block.data)[off] == value_at<T>(k));
  }
  EXPECT_EQ(wrong, 0u);
}

template <typename T>
class ReformatData : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(ReformatData, ElementTypes);

// KORVAL to chained with the data dimensions swapped, to chained, back to
// KORVAL; then to KORVAL again into a given block: the identity is not
// short-cut, the data is copied into that block and the block is returned.
TYPED_TEST(ReformatData, ChainOfLayoutsMatchesTheNaiveIndexing) {
  using T = TypeParam;
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  std::vector<T> src(360);
  for (size_t k = 0; k < 360; ++k) src[k] = value_at<T>(k);
  const T* from = src.data();
  std::unique_ptr<CNNMemoryBlock> data;
  auto step = [&](size_t c, size_t o, nerva::FirstDataDims order, const Layout& layout,
                  std::unique_ptr<CNNMemoryBlock> given) {
    auto out = a.ReformatData<T>(from, c, o, order, std::move(given), pool);
    ASSERT_TRUE(out);
    expect_layout<T>(a, *out, layout);
    from = static_cast<const T*>(out->data);
    data = std::move(out);
  };
  step(0, 1, nerva::Swapped, {2, 3, 1, 0, 4}, nullptr);
  step(0, 1, nerva::InOrder, {2, 3, 0, 1, 4}, nullptr);
  step(2, 3, nerva::InOrder, kKORVAL, nullptr);
  auto given = std::make_unique<CNNMemoryBlock>(360 * sizeof(T), counting::functions());
  void* const given_data = given->data;
  const size_t allocations = counting::stats().allocations;
  step(2, 3, nerva::InOrder, kKORVAL, std::move(given));
  EXPECT_EQ(data->data, given_data);
  EXPECT_EQ(counting::stats().allocations, allocations + 2);  // permutation, extents; no lease
}

// All data extents 1: with channel and observation in the same order only the
// metadata change and a given block goes back to the pool; exchanged, the
// data moves.
TEST(ReformatDataUnitExtents, OnlyMetadataChangeUnlessChannelAndObservationSwap) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t sizes[] = {1, 1, 3, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);
  const std::vector<unsigned char> src = {0, 1, 2, 10, 11, 12};  // channel fastest
  auto given = std::make_unique<CNNMemoryBlock>(4096, counting::functions());
  void* const given_data = given->data;
  EXPECT_FALSE(
      a.ReformatData<unsigned char>(src.data(), 0, 1, nerva::InOrder, std::move(given), pool));
  ASSERT_EQ(pool.blocks.size(), 1u);
  EXPECT_EQ(pool.blocks[0]->data, given_data);
  EXPECT_EQ(counting::stats().allocations, 2u);  // the array's metadata and the given block
  EXPECT_TRUE(a.IsInChainedFormat());
  EXPECT_EQ(a.DataIncrement(1), 6);

  auto out = a.ReformatData<unsigned char>(src.data(), 1, 0, nerva::InOrder, nullptr, pool);
  ASSERT_TRUE(out);
  const auto* d = static_cast<const unsigned char*>(out->data);
  EXPECT_EQ(std::vector<unsigned char>(d, d + 6),
            (std::vector<unsigned char>{0, 10, 1, 11, 2, 12}));
}

// Whichever allocation throws (permutation, extents, result) or when the lease
// fails, nothing leaks and the metadata stay as they were.
TEST(ReformatDataFailures, LeaveMetadataAndLeakNothing) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<float> src(360);
  for (size_t k = 1; k <= 4; ++k) {
    if (k < 4)
      counting::throw_at(k);
    else
      counting::fail_at(3);
    EXPECT_ANY_THROW(a.ReformatData<float>(src.data(), 0, 1, nerva::InOrder, nullptr, pool)) << k;
    EXPECT_TRUE(a.IsInKORVALFormat()) << k;
    EXPECT_EQ(a.DataIncrement(1), 3) << k;
    EXPECT_EQ(counting::live_blocks(), 1u) << k;
  }
}

}  // namespace
