#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedArray;

static_assert(sizeof(nerva::FirstDataDims) == 1 && sizeof(nerva::PreferredFormat) == 1);
static_assert(nerva::InOrder == 0 && nerva::Swapped == 1);
static_assert(nerva::KORVALFormat == 0 && nerva::ChainedFormat == 1);
static_assert(!std::is_copy_constructible_v<FormattedArray> &&
              !std::is_move_constructible_v<FormattedArray>);

std::vector<size_t> permutation(const FormattedArray& a, size_t c, size_t o,
                                nerva::FirstDataDims order) {
  auto block = a.BuildPermutationVector(c, o, order);
  EXPECT_EQ(block->allocated_size(), a.NumDimensions() * sizeof(size_t));
  EXPECT_EQ(block->allocator_functions.deallocate, counting::functions().deallocate);
  auto* p = static_cast<size_t*>(block->data);
  return std::vector<size_t>(p, p + a.NumDimensions());
}

std::vector<size_t> map_of(const FormattedArray& a) {
  const size_t* m = a.GetDimensionPermutation();
  return std::vector<size_t>(m, m + a.NumDimensions());
}

TEST(Formats, FreshArraysAreInTheNamedFormats) {
  counting::LeakCheck check;
  for (size_t n : {1, 2, 3}) {
    FormattedArray korval(n, n, n + 1, n + 2, counting::functions(), 1);
    EXPECT_TRUE(korval.IsInKORVALFormat());
    EXPECT_FALSE(korval.IsInChainedFormat());
    FormattedArray chained(n, 0, 1, n + 2, counting::functions(), 1);
    EXPECT_TRUE(chained.IsInChainedFormat());
    EXPECT_FALSE(chained.IsInKORVALFormat());
  }
}

TEST(Formats, NoDataDimensions) {
  counting::LeakCheck check;
  FormattedArray both(0, 0, 1, 2, counting::functions(), 1);
  EXPECT_TRUE(both.IsInKORVALFormat());
  EXPECT_TRUE(both.IsInChainedFormat());

  FormattedArray odd_sequence(0, 0, 1, 7, counting::functions(), 1);
  EXPECT_FALSE(odd_sequence.IsInKORVALFormat());
  EXPECT_TRUE(odd_sequence.IsInChainedFormat());  // the sequence is not looked at

  FormattedArray swapped(0, 1, 0, 2, counting::functions(), 1);
  EXPECT_FALSE(swapped.IsInKORVALFormat());
  EXPECT_FALSE(swapped.IsInChainedFormat());
}

TEST(Formats, PermutationVectorsFromKORVAL) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  EXPECT_EQ(permutation(a, 0, 1, nerva::InOrder), (std::vector<size_t>{3, 4, 1, 2, 5}));
  EXPECT_EQ(permutation(a, 0, 1, nerva::Swapped), (std::vector<size_t>{3, 4, 2, 1, 5}));
  EXPECT_EQ(permutation(a, 2, 3, nerva::InOrder), (std::vector<size_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(permutation(a, 2, 3, nerva::Swapped), (std::vector<size_t>{2, 1, 3, 4, 5}));
  EXPECT_EQ(permutation(a, 1, 0, nerva::InOrder), (std::vector<size_t>{4, 3, 1, 2, 5}));
  // Any value other than 1 is in order.
  EXPECT_EQ(permutation(a, 0, 1, static_cast<nerva::FirstDataDims>(7)),
            (std::vector<size_t>{3, 4, 1, 2, 5}));
  EXPECT_EQ(counting::live_blocks(), 1u);
}

TEST(Formats, PermutationVectorsFromChained) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  EXPECT_EQ(permutation(a, 2, 3, nerva::InOrder), (std::vector<size_t>{3, 4, 1, 2, 5}));
  EXPECT_EQ(permutation(a, 0, 1, nerva::InOrder), (std::vector<size_t>{1, 2, 3, 4, 5}));
}

TEST(Formats, LastEntryIsAlwaysTheSequence) {
  counting::LeakCheck check;
  // Channel asked for the last position: the sequence overwrites it.
  FormattedArray a(1, 1, 2, 3, counting::functions(), 1);
  EXPECT_EQ(permutation(a, 3, 0, nerva::InOrder), (std::vector<size_t>{3, 1, 0, 4}));
  // Sequence not last in the current layout: its current position is carried.
  FormattedArray b(1, 2, 3, 0, counting::functions(), 1);
  EXPECT_EQ(permutation(b, 1, 2, nerva::InOrder), (std::vector<size_t>{1, 3, 4, 1}));
}

TEST(Formats, SwappedWithOneDataDimensionTakesTheChannelPosition) {
  counting::LeakCheck check;
  FormattedArray a(1, 1, 2, 3, counting::functions(), 1);
  EXPECT_EQ(permutation(a, 0, 2, nerva::Swapped), (std::vector<size_t>{2, 2, 3, 4}));
}

TEST(Formats, ReverseTwiceRestoresIncrements) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  const size_t s[] = {5, 7, 3, 2, 1};
  a.SetSizesInDefaultFormat(s, 5);
  a.Reverse();
  EXPECT_EQ(a.BaseIncrement(), -1);
  EXPECT_EQ(a.DataIncrement(0), -6);
  EXPECT_EQ(a.DataIncrement(1), -30);
  EXPECT_EQ(a.ChannelIncrement(), 1u);
  EXPECT_EQ(a.ObservationIncrement(), 3u);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 0, 1, 4}));
  // Recomputing after a reverse keeps the direction.
  a.UpdateDataIncrements();
  EXPECT_EQ(a.DataIncrement(1), -30);
  a.Reverse();
  EXPECT_EQ(a.BaseIncrement(), 1);
  EXPECT_EQ(a.DataIncrement(0), 6);
  EXPECT_EQ(a.DataIncrement(1), 30);
}

TEST(Formats, SwapChannelAndObservationsLeavesIncrements) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t s[] = {5, 7, 3, 2, 1};
  a.SetSizesInDefaultFormat(s, 5);
  a.SwapChannelAndObservations();
  const size_t* sizes = a.GetSizesInDefaultFormat();
  EXPECT_EQ(std::vector<size_t>(sizes, sizes + 5), (std::vector<size_t>{5, 7, 2, 3, 1}));
  EXPECT_EQ(map_of(a), (std::vector<size_t>{0, 1, 3, 2, 4}));
  EXPECT_EQ(a.DataIncrement(0), 1);
  EXPECT_EQ(a.DataIncrement(1), 5);
  EXPECT_EQ(a.ChannelIncrement(), 105u);  // the old observation, at position 3
  EXPECT_EQ(a.ObservationIncrement(), 35u);
}

}  // namespace
