#include <gtest/gtest.h>

#include <new>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedArray;
using nerva::ParallelParameters;

TEST(ParallelParameters, SplitsOnlyDimensionsStrictlyAboveTheirThreshold) {
  counting::LeakCheck check;
  FormattedArray a(3, 3, 4, 5, counting::functions(), 1);
  const size_t big[] = {100, 20, 16, 500, 500, 500};
  a.SetSizesInDefaultFormat(big, 6);
  {
    ParallelParameters p(&a, 64, 16, counting::functions());
    EXPECT_EQ(p.threshold_block->allocated_size(), 3 * sizeof(size_t));
    EXPECT_EQ(p.split_block->allocated_size(), 3u);
    EXPECT_EQ(p.thresholds[0], 64u);
    EXPECT_EQ(p.thresholds[1], 16u);
    EXPECT_EQ(p.thresholds[2], 16u);
    EXPECT_TRUE(p.split[0]);
    EXPECT_TRUE(p.split[1]);
    EXPECT_FALSE(p.split[2]);  // equal does not split
    EXPECT_TRUE(p.any_split);
    EXPECT_EQ(counting::live_blocks(), 3u);
  }
  EXPECT_EQ(counting::live_blocks(), 1u);

  const size_t edge[] = {64, 16, 1, 500, 500, 500};  // non-data sizes play no part
  a.SetSizesInDefaultFormat(edge, 6);
  ParallelParameters q(&a, 64, 16, counting::functions());
  EXPECT_FALSE(q.split[0] || q.split[1] || q.split[2]);
  EXPECT_FALSE(q.any_split);
}

TEST(ParallelParameters, OneDataDimensionUsesFirstThresholdOnly) {
  counting::LeakCheck check;
  FormattedArray a(1, 1, 2, 3, counting::functions(), 1);
  const size_t s[] = {10, 1, 1, 1};
  a.SetSizesInDefaultFormat(s, 4);
  ParallelParameters low(&a, 9, 100, counting::functions());
  EXPECT_TRUE(low.split[0]);
  EXPECT_TRUE(low.any_split);
  ParallelParameters high(&a, 10, 0, counting::functions());
  EXPECT_FALSE(high.split[0]);
  EXPECT_FALSE(high.any_split);
}

TEST(ParallelParameters, ThrowingSecondAllocationLeaksNothing) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t s[] = {100, 20, 1, 1, 1};
  a.SetSizesInDefaultFormat(s, 5);
  counting::throw_at(2);
  EXPECT_THROW(ParallelParameters(&a, 64, 16, counting::functions()), std::bad_alloc);
  EXPECT_EQ(counting::live_blocks(), 1u);  // only the array's own metadata
}

}  // namespace
