#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <random>
#include <stdexcept>
#include <vector>

#include "nerva/copy.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

// The gathered elements are compared with the naive walk by the strided-copy fuzz target, which
// runs as a test too; these tests cover the table's other words, empty selections and failures.
namespace {

using Block = std::unique_ptr<nerva::CNNMemoryBlock>;

Block build(Selection const& s) {
  return nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                     s.increments.data(), s.numDims(), counting::functions());
}

Block gather(nerva::SharedMemoryPool& pool, Selection const& s, std::vector<float> const& src,
             std::size_t channelDim, Block const* table) {
  return nerva::strided_copy<float>(
      pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(), s.increments.data(),
      s.numDims(), channelDim, table ? static_cast<std::size_t const*>((*table)->data) : nullptr);
}

// Offsets, then strides, then counts, against the nested loops (with no dimensions: the offset 0
// and the stride word 1); empty selections and no planes still lease (and return) a 0-byte block.
TEST(StridedCopy, TableWordsAndResultSizes) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::mt19937 rng(42);
  for (int round = 0; round < 300; ++round) {
    Selection const s = random_selection(rng);
    std::vector<std::size_t> const offsets = reference_offsets(s);
    std::size_t const n = s.numDims(), k = offsets.size();
    Block const table = build(s);
    ASSERT_EQ(table->allocated_size(), (k + 2 * n + (n == 0)) * sizeof(std::size_t));
    auto const* w = static_cast<std::size_t const*>(table->data);
    std::vector<std::size_t> want(offsets);
    want.push_back(1);
    for (std::size_t i = 1; i < n; ++i) want.push_back(want.back() * s.sizes[i - 1]);
    for (std::size_t i = 0; i < n; ++i)
      want.push_back(s.lasts[i] > s.firsts[i] ? (s.lasts[i] - s.firsts[i] - 1) / s.increments[i] + 1
                                              : 0);
    ASSERT_EQ(std::vector<std::size_t>(w, w + want.size()), want) << "round " << round;
    std::vector<float> const src(s.planeSize() * s.planes());
    Block block = gather(pool, s, src, round % 2, nullptr);
    ASSERT_EQ(block->allocated_size(), k * s.planes() * sizeof(float));
    pool.checkin(std::move(block));
  }
  // An empty range may carry any increment, 0 included: no offsets, strides 1 and 4, counts 4, 0.
  Block const table = build(Selection{{4, 4, 1, 1}, {0, 2}, {4, 2}, {1, 0}});
  auto const* w = static_cast<std::size_t const*>(table->data);
  EXPECT_EQ(std::vector<std::size_t>(w, w + 4), (std::vector<std::size_t>{1, 4, 4, 0}));
}

// A failed or throwing allocation (the temporary table's or the result's) leaks nothing, and a
// table given by the caller stays alive.
TEST(StridedCopy, FailedAllocationsLeakNothing) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{20, 20, 8, 4}, {0, 1}, {20, 20}, {2, 3}};
  std::vector<float> const src(20 * 20 * 8 * 4, 1.0f);
  Block const table = build(s);
  for (bool given : {false, true})
    for (std::size_t channelDim : {0u, 2u}) {
      std::size_t const lease = given ? 1 : 2;  // the allocation that leases the result
      counting::fail_at(lease);
      EXPECT_THROW(gather(pool, s, src, channelDim, given ? &table : nullptr), std::runtime_error);
      for (std::size_t k = 1; k <= lease; ++k) {
        counting::throw_at(k);
        EXPECT_THROW(gather(pool, s, src, channelDim, given ? &table : nullptr), std::bad_alloc);
      }
      EXPECT_EQ(counting::live_blocks(), 1u);
    }
}

}  // namespace
