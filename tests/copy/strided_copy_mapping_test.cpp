#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "nerva/copy.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"
#include "tbb_probe.hpp"

namespace {

// Hands out memory filled with a marker byte, so unwritten words are known.
void* marked_allocate(std::size_t bytes) {
  void* p = std::malloc(bytes == 0 ? 1 : bytes);
  if (p != nullptr) std::memset(p, 0xAB, bytes);
  return p;
}
constexpr std::size_t kMarker = 0xABABABABABABABABull;

std::unique_ptr<nerva::CNNMemoryBlock> build(Selection const& s) {
  return nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                     s.increments.data(), s.numDims(), counting::functions());
}

// Offsets, then strides, then counts, all checked against the naive walk.
void expect_table(Selection const& s, nerva::CNNMemoryBlock const& block) {
  std::vector<std::size_t> const offsets = reference_offsets(s);
  std::size_t const n = s.numDims();
  ASSERT_EQ(block.allocated_size(), (offsets.size() + 2 * n) * sizeof(std::size_t));
  auto const* words = static_cast<std::size_t const*>(block.data);
  for (std::size_t k = 0; k < offsets.size(); ++k)
    ASSERT_EQ(words[k], offsets[k]) << "offset " << k;
  std::size_t stride = 1;
  for (std::size_t i = 0; i < n; ++i) {
    EXPECT_EQ(words[offsets.size() + i], stride) << "stride " << i;
    stride *= s.sizes[i];
    if (s.lasts[i] > s.firsts[i]) {
      std::size_t count = 0;
      for (std::size_t x = s.firsts[i]; x < s.lasts[i]; x += s.increments[i]) ++count;
      EXPECT_EQ(words[offsets.size() + n + i], count) << "count " << i;
    }
  }
}

TEST(StridedCopyMapping, RandomSelectionsMatchTheNaiveWalk) {
  counting::LeakCheck check;
  std::mt19937 rng(1234);
  for (int round = 0; round < 300; ++round) {
    Selection const s = random_selection(rng, 6, 9, 1);
    auto block = build(s);
    ASSERT_NO_FATAL_FAILURE(expect_table(s, *block)) << "round " << round;
  }
}

TEST(StridedCopyMapping, NoDimensionsGiveTheSingleOffsetZero) {
  counting::LeakCheck check;
  std::size_t const sizes[2] = {3, 4};
  auto block =
      nerva::strided_copy_mapping(sizes, nullptr, nullptr, nullptr, 0, counting::functions());
  // One offset plus the stride word written behind it, all inside the block.
  ASSERT_EQ(block->allocated_size(), 2 * sizeof(std::size_t));
  EXPECT_EQ(static_cast<std::size_t*>(block->data)[0], 0u);
}

TEST(StridedCopyMapping, EmptyDimensionLeavesOnlyStridesAndCounts) {
  counting::LeakCheck check;
  Selection s{{6, 5, 7, 2, 2}, {1, 3, 0}, {5, 3, 7}, {2, 1, 3}};
  auto block = build(s);
  ASSERT_EQ(block->allocated_size(), 6 * sizeof(std::size_t));
  auto const* words = static_cast<std::size_t const*>(block->data);
  EXPECT_EQ(words[0], 1u);
  EXPECT_EQ(words[1], 6u);
  EXPECT_EQ(words[2], 30u);
  EXPECT_EQ(words[3], 2u);
  EXPECT_EQ(words[5], 3u);
  // An empty dimension further in still leaves an empty table.
  s.lasts = {1, 5, 7};
  EXPECT_EQ(build(s)->allocated_size(), 6 * sizeof(std::size_t));
}

// Up to 128 offsets the table is filled on the calling thread; 129 go to TBB
// (whose work does not run inside a cancelled group).
TEST(StridedCopyMapping, SerialUpTo128OffsetsParallelAbove) {
  Selection const serial{{16, 40, 1, 1}, {0, 1}, {16, 17}, {1, 2}};  // 16 x 8 = 128
  Selection const parallel{{129, 1, 1}, {0}, {129}, {1}};            // 129
  nerva::AllocatorFunctions const marked{&marked_allocate, &std::free};
  auto table = [&](Selection const& s) {
    return nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                       s.increments.data(), s.numDims(), marked);
  };
  std::unique_ptr<nerva::CNNMemoryBlock> a, b;
  run_in_cancelled_group([&] {
    a = table(serial);
    b = table(parallel);
  });
  ASSERT_NO_FATAL_FAILURE(expect_table(serial, *a));
  ASSERT_EQ(b->allocated_size(), 131 * sizeof(std::size_t));
  auto const* words = static_cast<std::size_t const*>(b->data);
  for (std::size_t k = 0; k < 129; ++k) ASSERT_EQ(words[k], kMarker) << "offset " << k;
  EXPECT_EQ(words[129], 1u);  // strides and counts are written before the split
  EXPECT_EQ(words[130], 129u);
  ASSERT_NO_FATAL_FAILURE(expect_table(parallel, *table(parallel)));
}

TEST(StridedCopyMapping, LargeTablesInParallel) {
  counting::LeakCheck check;
  Selection s{{301, 7, 13, 2, 3}, {2, 0, 1}, {300, 7, 13}, {3, 2, 1}};
  ASSERT_NO_FATAL_FAILURE(expect_table(s, *build(s)));
}

}  // namespace
