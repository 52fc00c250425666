#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <new>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using namespace nerva;
using V = std::vector<size_t>;
using Increments = std::vector<long>;

V sizes_of(const FormattedArray& a) {
  return V(a.GetSizesInDefaultFormat(), a.GetSizesInDefaultFormat() + a.NumDimensions());
}
Increments increments_of(const FormattedArray& a) {
  return Increments(a.DataIncrements(), a.DataIncrements() + a.NumDataDimensions());
}

const size_t kSizes[] = {3, 4, 5, 2, 3};

// Chained needs the channel at 0 and the observation at 1, whatever the sequence; KORVAL also
// needs the sequence last.
TEST(FormattedArray, FormatTests) {
  // data dimensions, channel, observation and sequence positions, KORVAL, chained
  const size_t cases[][6] = {{0, 0, 1, 2, 1, 1}, {0, 0, 1, 7, 0, 1}, {0, 1, 0, 2, 0, 0},
                             {0, 0, 2, 1, 0, 0}, {0, 2, 1, 0, 0, 0}, {1, 0, 2, 3, 0, 0},
                             {1, 2, 1, 3, 0, 0}, {2, 2, 3, 4, 1, 0}, {2, 0, 1, 4, 0, 1}};
  for (auto const& [n, c, o, s, korval, chained] : cases) {
    FormattedArray a(n, c, o, s, counting::functions(), 1);
    EXPECT_EQ(a.IsInKORVALFormat(), korval == 1) << n << c << o << s;
    EXPECT_EQ(a.IsInChainedFormat(), chained == 1) << n << c << o << s;
  }
}

// Sizes start at 0; in current format they go by layout position, trailing positions from
// `count` on are 1. Reverse flips the data increments and survives a recomputation; the swap
// renames channel and observation in place. Scalar: every data size 1.
TEST(FormattedArray, SizesByPositionReverseAndSwap) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  EXPECT_EQ(sizes_of(a), V(5, 0));
  const size_t by_position[] = {3, 2, 5, 7, 4};
  a.SetSizesInCurrentFormat(by_position, 3);
  EXPECT_EQ(sizes_of(a), (V{5, 1, 3, 2, 1}));
  a.SetSizesInDefaultFormat(kSizes, 5);
  a.Reverse();
  a.UpdateDataIncrements();
  EXPECT_EQ(increments_of(a), (Increments{-10, -30}));
  a.SwapChannelAndObservations();
  EXPECT_EQ(sizes_of(a), (V{3, 4, 2, 5, 3}));
  EXPECT_EQ(V(a.GetDimensionPermutation(), a.GetDimensionPermutation() + 5), (V{2, 3, 1, 0, 4}));
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

// A layout lists the logical dimensions fastest first. The element with KORVAL offset k is
// distinct, and both halves of it vary.
using Layout = std::array<size_t, 5>;
long value_at(size_t k) { return static_cast<long>((k << 33) - 7 * k - 1); }

// Every element, the map (the inverse of the layout) and the array's own increments agree with
// the dense layout, computed index by index.
void expect_layout(const FormattedArray& a, const CNNMemoryBlock& block, const Layout& order) {
  ASSERT_EQ(block.allocated_size(), 360 * sizeof(long));
  size_t stride[5], wrong = 0;
  for (size_t p = 0, s = 1; p < 5; s *= kSizes[order[p++]]) stride[order[p]] = s;
  for (size_t p = 0; p < 5; ++p) EXPECT_EQ(a.GetDimensionPermutation()[order[p]], p);
  EXPECT_EQ(increments_of(a), (Increments{long(stride[0]), long(stride[1])}));
  EXPECT_EQ(a.ChannelIncrement(), stride[2]);
  EXPECT_EQ(a.ObservationIncrement(), stride[3]);
  for (size_t k = 0; k < 360; ++k) {
    size_t off = 0;
    for (size_t d = 0, rest = k; d < 5; rest /= kSizes[d++]) off += rest % kSizes[d] * stride[d];
    wrong += !(static_cast<const long*>(block.data)[off] == value_at(k));
  }
  EXPECT_EQ(wrong, 0u);
}

// Serial and parallel: KORVAL to chained with the data dimensions swapped, to chained, back to
// KORVAL; then to KORVAL again into a given block: the identity is not short-cut, the data is
// copied into that block and the block is returned. Then all data extents 1 with channel and
// observation in the same order: only the metadata change and a given block goes back to the
// pool. Other element types, unit extents that do move and failed allocations are the array
// tests' and the output-array fuzz target's.
TEST(ReformatData, ChainOfLayoutsMatchesTheNaiveIndexing) {
  for (bool parallel : {false, true}) {
    counting::LeakCheck check;
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
    a.SetSizesInDefaultFormat(kSizes, 5);
    std::vector<long> src(360);
    for (size_t k = 0; k < 360; ++k) src[k] = value_at(k);
    const long* from = src.data();
    std::unique_ptr<CNNMemoryBlock> data;
    auto reformat = [&](size_t c, size_t o, nerva::FirstDataDims order,
                        std::unique_ptr<CNNMemoryBlock> given) {
      return parallel ? a.ReformatData(from, c, o, order, std::move(given), pool, nerva::Parallel)
                      : a.ReformatData(from, c, o, order, std::move(given), pool);
    };
    auto step = [&](size_t c, size_t o, nerva::FirstDataDims order, const Layout& layout,
                    std::unique_ptr<CNNMemoryBlock> given) {
      data = reformat(c, o, order, std::move(given));  // `from` is read before the old block goes
      ASSERT_TRUE(data);
      expect_layout(a, *data, layout);
      from = static_cast<const long*>(data->data);
    };
    step(0, 1, nerva::Swapped, {2, 3, 1, 0, 4}, nullptr);
    step(0, 1, nerva::InOrder, {2, 3, 0, 1, 4}, nullptr);
    step(2, 3, nerva::InOrder, {0, 1, 2, 3, 4}, nullptr);
    auto given = std::make_unique<CNNMemoryBlock>(360 * sizeof(long), counting::functions());
    size_t allocations = counting::stats().allocations;
    step(2, 3, nerva::InOrder, {0, 1, 2, 3, 4}, std::move(given));
    EXPECT_EQ(counting::stats().allocations, allocations + 2);  // permutation, extents; no lease

    const size_t unit[] = {1, 1, 3, 2, 1};
    a.SetSizesInDefaultFormat(unit, 5);
    given = std::make_unique<CNNMemoryBlock>(4096, counting::functions());
    allocations = counting::stats().allocations;
    EXPECT_FALSE(reformat(0, 1, nerva::InOrder, std::move(given)));
    EXPECT_EQ(counting::stats().allocations, allocations);
    ASSERT_EQ(pool.blocks.size(), 1u);
    EXPECT_EQ(pool.blocks[0]->allocated_size(), 4096u);
    EXPECT_TRUE(a.IsInChainedFormat());
    EXPECT_EQ(a.DataIncrement(1), 6);
  }
}

}  // namespace
