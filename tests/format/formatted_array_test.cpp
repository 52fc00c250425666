#include "nerva/formatted_array.hpp"

#include <gtest/gtest.h>

#include <new>
#include <vector>

#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedArray;
using V = std::vector<size_t>;

V map_of(const FormattedArray& a) {
  return V(a.GetDimensionPermutation(), a.GetDimensionPermutation() + a.NumDimensions());
}

std::vector<long> increments_of(const FormattedArray& a) {
  return std::vector<long>(a.DataIncrements(), a.DataIncrements() + a.NumDataDimensions());
}

V permutation(const FormattedArray& a, size_t c, size_t o, nerva::FirstDataDims order) {
  auto block = a.BuildPermutationVector(c, o, order);
  return V(static_cast<size_t*>(block->data), static_cast<size_t*>(block->data) + 5);
}

const size_t kSizes[] = {5, 7, 3, 2, 1};

// Two data dimensions in the KORVAL and the chained layout: the map, the
// increments, the format tests and the 1-based permutation vectors out of
// each layout to chained (in order and swapped) and to KORVAL.
TEST(FormattedArray, WorkedExamplesOfBothLayouts) {
  counting::LeakCheck check;
  struct Case {
    size_t c, o;
    V map;
    std::vector<long> increments;
    V channel_observation_increments, to_chained, to_chained_swapped, to_korval;
  };
  const Case cases[] = {
      {2, 3, {0, 1, 2, 3, 4}, {1, 5}, {35, 105}, {3, 4, 1, 2, 5}, {3, 4, 2, 1, 5}, {1, 2, 3, 4, 5}},
      {0, 1, {2, 3, 0, 1, 4}, {6, 30}, {1, 3}, {1, 2, 3, 4, 5}, {1, 2, 4, 3, 5}, {3, 4, 1, 2, 5}}};
  for (const Case& c : cases) {
    FormattedArray a(2, c.c, c.o, 4, counting::functions(), 1);
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

// With no data dimensions only channel and observation decide the chained
// format; KORVAL also needs the sequence last.
TEST(FormattedArray, FormatsWithoutDataDimensions) {
  counting::LeakCheck check;
  FormattedArray both(0, 0, 1, 2, counting::functions(), 1);
  FormattedArray odd_sequence(0, 0, 1, 7, counting::functions(), 1);
  FormattedArray swapped(0, 1, 0, 2, counting::functions(), 1);
  EXPECT_TRUE(both.IsInKORVALFormat() && both.IsInChainedFormat());
  EXPECT_TRUE(!odd_sequence.IsInKORVALFormat() && odd_sequence.IsInChainedFormat());
  EXPECT_FALSE(swapped.IsInKORVALFormat() || swapped.IsInChainedFormat());
}

// Sizes in current format are indexed by layout position; positions from
// `count` on are trailing dimensions of size 1.
TEST(FormattedArray, SizesInCurrentFormatGoByPosition) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  const size_t by_position[] = {3, 2, 5, 7, 4};
  a.SetSizesInCurrentFormat(by_position, 3);
  EXPECT_EQ(V(a.GetSizesInDefaultFormat(), a.GetSizesInDefaultFormat() + 5), (V{5, 1, 3, 2, 1}));
  EXPECT_EQ(increments_of(a), (std::vector<long>{6, 30}));
}

// Reverse flips the data increments only, survives a recomputation and undoes
// itself; the swap renames channel and observation in place.
TEST(FormattedArray, ReverseAndSwapChangeOnlyMetadata) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  a.Reverse();
  a.UpdateDataIncrements();
  EXPECT_EQ(increments_of(a), (std::vector<long>{-6, -30}));
  EXPECT_EQ(a.ChannelIncrement(), 1u);
  a.Reverse();
  EXPECT_EQ(increments_of(a), (std::vector<long>{6, 30}));
  a.SwapChannelAndObservations();
  EXPECT_EQ(V(a.GetSizesInDefaultFormat(), a.GetSizesInDefaultFormat() + 5), (V{5, 7, 2, 3, 1}));
  EXPECT_EQ(map_of(a), (V{2, 3, 1, 0, 4}));
  EXPECT_EQ(a.ChannelIncrement(), 3u);  // the former observation's
}

// A dimension splits only when strictly above its threshold (the first data
// dimension has its own); a throwing second allocation leaks nothing.
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

}  // namespace
