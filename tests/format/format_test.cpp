#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <new>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::SharedMemoryPool;
using V = std::vector<size_t>;
using Increments = std::vector<long>;

V map_of(const FormattedArray& a) {
  return V(a.GetDimensionPermutation(), a.GetDimensionPermutation() + a.NumDimensions());
}
V sizes_of(const FormattedArray& a) {
  return V(a.GetSizesInDefaultFormat(), a.GetSizesInDefaultFormat() + a.NumDimensions());
}
Increments increments_of(const FormattedArray& a) {
  return Increments(a.DataIncrements(), a.DataIncrements() + a.NumDataDimensions());
}
V permutation(const FormattedArray& a, size_t c, size_t o, nerva::FirstDataDims order) {
  auto block = a.BuildPermutationVector(c, o, order);
  return V(static_cast<size_t*>(block->data), static_cast<size_t*>(block->data) + 5);
}

const size_t kSizes[] = {3, 4, 5, 2, 3};

// Two data dimensions in the KORVAL and the chained layout: the map, the increments, the format
// tests and the 1-based permutation vectors out of each layout to chained (in order and swapped;
// an order byte other than 1 is in order) and to KORVAL.
TEST(FormattedArray, WorkedExamplesOfBothLayouts) {
  counting::LeakCheck check;
  struct Case {
    size_t c, o;
    V map;
    Increments increments;
    V channel_observation_increments, to_chained, to_chained_swapped, to_korval;
  };
  const Case cases[] = {
      {2, 3, {0, 1, 2, 3, 4}, {1, 3}, {12, 60}, {3, 4, 1, 2, 5}, {3, 4, 2, 1, 5}, {1, 2, 3, 4, 5}},
      {0, 1, {2, 3, 0, 1, 4}, {10, 30}, {1, 5}, {1, 2, 3, 4, 5}, {1, 2, 4, 3, 5}, {3, 4, 1, 2, 5}}};
  for (const Case& c : cases) {
    FormattedArray a(2, c.c, c.o, 4, counting::functions(), 1);
    EXPECT_EQ(sizes_of(a), V(5, 0));  // until a size setter runs
    a.SetSizesInDefaultFormat(kSizes, 5);
    EXPECT_EQ(map_of(a), c.map);
    EXPECT_EQ(increments_of(a), c.increments);
    EXPECT_EQ((V{a.ChannelIncrement(), a.ObservationIncrement()}),
              c.channel_observation_increments);
    EXPECT_EQ(a.IsInKORVALFormat(), c.c == 2);
    EXPECT_EQ(a.IsInChainedFormat(), c.c == 0);
    EXPECT_EQ(permutation(a, 0, 1, nerva::InOrder), c.to_chained);
    EXPECT_EQ(permutation(a, 0, 1, nerva::Swapped), c.to_chained_swapped);
    EXPECT_EQ(permutation(a, 0, 1, static_cast<nerva::FirstDataDims>(7)), c.to_chained);
    EXPECT_EQ(permutation(a, 2, 3, nerva::InOrder), c.to_korval);
  }
}

// Chained needs the channel at 0 and the observation at 1, whatever the sequence; KORVAL also
// needs the sequence last.
TEST(FormattedArray, FormatTests) {
  counting::LeakCheck check;
  // data dimensions, channel, observation and sequence positions, KORVAL, chained
  const size_t cases[][6] = {{0, 0, 1, 2, 1, 1}, {0, 0, 1, 7, 0, 1}, {0, 1, 0, 2, 0, 0},
                             {0, 0, 2, 1, 0, 0}, {0, 2, 1, 0, 0, 0}, {1, 0, 2, 3, 0, 0},
                             {1, 2, 1, 3, 0, 0}};
  for (auto const& [n, c, o, s, korval, chained] : cases) {
    FormattedArray a(n, c, o, s, counting::functions(), 1);
    EXPECT_EQ(a.IsInKORVALFormat(), korval == 1) << n << c << o << s;
    EXPECT_EQ(a.IsInChainedFormat(), chained == 1) << n << c << o << s;
  }
}

// Sizes in current format go by layout position, trailing positions from `count` on are 1.
// Reverse flips the data increments only, survives a recomputation and undoes itself; the swap
// renames channel and observation in place. Scalar: every data size 1.
TEST(FormattedArray, SizesByPositionReverseAndSwap) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  const size_t by_position[] = {3, 2, 5, 7, 4};
  a.SetSizesInCurrentFormat(by_position, 3);
  EXPECT_EQ(sizes_of(a), (V{5, 1, 3, 2, 1}));
  a.SetSizesInDefaultFormat(kSizes, 5);
  a.Reverse();
  a.UpdateDataIncrements();
  EXPECT_EQ(increments_of(a), (Increments{-10, -30}));
  a.Reverse();
  EXPECT_EQ(increments_of(a), (Increments{10, 30}));
  a.SwapChannelAndObservations();
  EXPECT_EQ(sizes_of(a), (V{3, 4, 2, 5, 3}));
  EXPECT_EQ(map_of(a), (V{2, 3, 1, 0, 4}));
  EXPECT_EQ(a.ChannelIncrement(), 5u);   // the former observation's
  a.SetSizesInDefaultFormat(kSizes, 4);  // the sequence from the default 1
  EXPECT_EQ(sizes_of(a), (V{3, 4, 5, 2, 1}));
  const size_t flat[] = {1, 4}, unit[] = {1, 1};
  a.OverrideSizes(flat, 6, 7);  // the sequence stays
  EXPECT_EQ(sizes_of(a), (V{1, 4, 6, 7, 1}));
  EXPECT_FALSE(a.IsScalar());
  a.OverrideSizes(unit, 6, 7);
  EXPECT_TRUE(a.IsScalar());
}

// A dimension splits only when strictly above its threshold (the first data dimension has its
// own); a throwing second allocation leaks nothing.
TEST(ParallelParameters, SplitsStrictlyAboveTheThresholds) {
  counting::LeakCheck check;
  FormattedArray a(3, 3, 4, 5, counting::functions(), 1);
  for (const V& sizes : {V{100, 20, 16, 1, 1, 1}, V{64, 16, 1, 500, 500, 500}}) {
    a.SetSizesInDefaultFormat(sizes.data(), 6);
    nerva::ParallelParameters p(&a, 64, 16, counting::functions());
    EXPECT_EQ(V(p.thresholds, p.thresholds + 3), (V{64, 16, 16}));
    EXPECT_EQ(std::vector<bool>(p.split, p.split + 3),
              (std::vector<bool>{sizes[0] > 64, sizes[1] > 16, false}));
    EXPECT_EQ(p.any_split, sizes[0] == 100);
  }
  counting::throw_at(2);
  EXPECT_THROW(nerva::ParallelParameters(&a, 64, 16, counting::functions()), std::bad_alloc);
}

// ReformatData with and without the Parallel tag: each test runs both and expects the same.
template <typename T>
std::unique_ptr<CNNMemoryBlock> reformat(bool parallel, FormattedArray& a, const T* src, size_t c,
                                         size_t o, nerva::FirstDataDims order,
                                         std::unique_ptr<CNNMemoryBlock> dst,
                                         SharedMemoryPool& pool) {
  return parallel ? a.ReformatData<T>(src, c, o, order, std::move(dst), pool, nerva::Parallel)
                  : a.ReformatData<T>(src, c, o, order, std::move(dst), pool);
}

// A layout lists the logical dimensions fastest first. The element with KORVAL offset k is
// distinct, and for 8-byte types both halves vary.
using Layout = std::array<size_t, 5>;
template <typename T>
T value_at(size_t k) {
  if constexpr (sizeof(T) == 8) return static_cast<T>((static_cast<long>(k) << 33) - 7 * k - 1);
  return static_cast<T>(k + 1);
}

// Every element, the map (the inverse of the layout) and the array's own increments agree with
// the dense layout, computed index by index.
template <typename T>
void expect_layout(const FormattedArray& a, const CNNMemoryBlock& block, const Layout& order) {
  ASSERT_EQ(block.allocated_size(), 360 * sizeof(T));
  size_t stride[5], wrong = 0;
  for (size_t p = 0, s = 1; p < 5; s *= kSizes[order[p++]]) stride[order[p]] = s;
  for (size_t p = 0; p < 5; ++p) EXPECT_EQ(a.GetDimensionPermutation()[order[p]], p);
  EXPECT_EQ(increments_of(a), (Increments{long(stride[0]), long(stride[1])}));
  EXPECT_EQ((V{a.ChannelIncrement(), a.ObservationIncrement()}), (V{stride[2], stride[3]}));
  for (size_t k = 0; k < 360; ++k) {
    size_t off = 0;
    for (size_t d = 0, rest = k; d < 5; rest /= kSizes[d++]) off += rest % kSizes[d] * stride[d];
    wrong += !(static_cast<const T*>(block.data)[off] == value_at<T>(k));
  }
  EXPECT_EQ(wrong, 0u);
}

template <typename T>
class ReformatData : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(ReformatData, ElementTypes);

// KORVAL to chained with the data dimensions swapped, to chained, back to KORVAL; then to KORVAL
// again into a given block: the identity is not short-cut, the data is copied into that block
// and the block is returned.
TYPED_TEST(ReformatData, ChainOfLayoutsMatchesTheNaiveIndexing) {
  using T = TypeParam;
  for (bool parallel : {false, true}) {
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
      auto out = reformat<T>(parallel, a, from, c, o, order, std::move(given), pool);
      ASSERT_TRUE(out);
      expect_layout<T>(a, *out, layout);
      from = static_cast<const T*>(out->data);
      data = std::move(out);
    };
    step(0, 1, nerva::Swapped, {2, 3, 1, 0, 4}, nullptr);
    step(0, 1, nerva::InOrder, {2, 3, 0, 1, 4}, nullptr);
    step(2, 3, nerva::InOrder, {0, 1, 2, 3, 4}, nullptr);
    auto given = std::make_unique<CNNMemoryBlock>(360 * sizeof(T), counting::functions());
    void* const given_data = given->data;
    const size_t allocations = counting::stats().allocations;
    step(2, 3, nerva::InOrder, {0, 1, 2, 3, 4}, std::move(given));
    EXPECT_EQ(data->data, given_data);
    EXPECT_EQ(counting::stats().allocations, allocations + 2);  // permutation, extents; no lease
  }
}

class ReformatDataBothWays : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(SerialAndParallel, ReformatDataBothWays, ::testing::Bool());

// All data extents 1: with channel and observation in the same order only the metadata change
// and a given block goes back to the pool; exchanged, the data moves.
TEST_P(ReformatDataBothWays, UnitExtentsMoveOnlyWhenChannelAndObservationSwap) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t sizes[] = {1, 1, 3, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);
  const std::vector<unsigned char> src = {0, 1, 2, 10, 11, 12};  // channel fastest
  auto given = std::make_unique<CNNMemoryBlock>(4096, counting::functions());
  void* const given_data = given->data;
  EXPECT_FALSE(reformat(GetParam(), a, src.data(), 0, 1, nerva::InOrder, std::move(given), pool));
  ASSERT_EQ(pool.blocks.size(), 1u);
  EXPECT_EQ(pool.blocks[0]->data, given_data);
  EXPECT_EQ(counting::stats().allocations, 2u);  // the array's metadata and the given block
  EXPECT_TRUE(a.IsInChainedFormat());
  EXPECT_EQ(a.DataIncrement(1), 6);

  auto out = reformat(GetParam(), a, src.data(), 1, 0, nerva::InOrder, nullptr, pool);
  ASSERT_TRUE(out);
  const auto* d = static_cast<const unsigned char*>(out->data);
  EXPECT_EQ(std::vector<unsigned char>(d, d + 6),
            (std::vector<unsigned char>{0, 10, 1, 11, 2, 12}));
}

// Whichever allocation throws (permutation, extents, result) or when the lease fails, nothing
// leaks and the metadata stay as they were.
TEST_P(ReformatDataBothWays, FailuresLeaveMetadataAndLeakNothing) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  const std::vector<float> src(360);
  for (size_t k = 1; k <= 4; ++k) {
    (k < 4 ? counting::throw_at : counting::fail_at)(k < 4 ? k : 3);
    EXPECT_ANY_THROW(reformat(GetParam(), a, src.data(), 0, 1, nerva::InOrder, nullptr, pool));
    EXPECT_TRUE(a.IsInKORVALFormat()) << k;
    EXPECT_EQ(a.DataIncrement(1), 3) << k;
    EXPECT_EQ(counting::live_blocks(), 1u) << k;
  }
}

}  // namespace
