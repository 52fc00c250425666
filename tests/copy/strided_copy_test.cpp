#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <stdexcept>
#include <vector>

#include "nerva/copy.hpp"
#include "selection.hpp"
#include "support/cancelled_group.hpp"
#include "support/counting_allocator.hpp"

namespace {

using Block = std::unique_ptr<nerva::CNNMemoryBlock>;

// Offsets, then strides, then counts, all checked against the nested loops.
// With no dimensions the table is the offset 0 and the stride word 1.
void expect_table(Selection const& s, std::vector<std::size_t> const& offsets, Block const& table) {
  std::size_t const n = s.numDims();
  ASSERT_EQ(table->allocated_size(), (offsets.size() + 2 * n + (n == 0)) * sizeof(std::size_t));
  auto const* w = static_cast<std::size_t const*>(table->data);
  for (std::size_t k = 0; k < offsets.size(); ++k) ASSERT_EQ(w[k], offsets[k]) << "offset " << k;
  w += offsets.size();
  EXPECT_EQ(w[0], 1u);  // the first stride, written even with no dimensions
  for (std::size_t i = 0, stride = 1; i < n; stride *= s.sizes[i++]) {
    std::size_t count = 0;
    for (std::size_t x = s.firsts[i]; x < s.lasts[i]; x += s.increments[i]) ++count;
    EXPECT_EQ(w[i], stride) << "stride " << i;
    EXPECT_EQ(w[n + i], count) << "count " << i;
  }
}

Block build(Selection const& s) {
  return nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                     s.increments.data(), s.numDims(), counting::functions());
}

template <class T>
Block gather(nerva::SharedMemoryPool& pool, Selection const& s, std::vector<T> const& src,
             std::size_t channelDim, Block const* table) {
  return nerva::strided_copy<T>(pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                s.increments.data(), s.numDims(), channelDim,
                                table ? static_cast<std::size_t const*>((*table)->data) : nullptr);
}

template <class T>
class StridedCopy : public ::testing::Test {};
using Types = ::testing::Types<unsigned char, float, double>;
TYPED_TEST_SUITE(StridedCopy, Types);

// The table, and the gather in both layouts (planes outermost unless the
// channel is at position 0) with a temporary table and with the caller's.
// Empty selections and no planes still lease (and return) a 0-byte block.
TYPED_TEST(StridedCopy, RandomShapesMatchTheNaiveGather) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::mt19937 rng(42);
  for (int round = 0; round < 300; ++round) {
    Selection const s = random_selection(rng);
    std::size_t const planes = s.planes(), planeSize = s.planeSize();
    std::vector<T> src(planeSize * planes);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i * 7 % 253);
    std::vector<std::size_t> const offsets = reference_offsets(s);
    Block const table = build(s);
    ASSERT_NO_FATAL_FAILURE(expect_table(s, offsets, table)) << "round " << round;

    std::size_t const n = offsets.size();
    for (std::size_t channelDim : {0u, 1u}) {
      std::vector<T> expected(n * planes);
      for (std::size_t p = 0; p < planes; ++p)
        for (std::size_t k = 0; k < n; ++k)
          expected[channelDim ? p * n + k : k * planes + p] =
              src[channelDim ? p * planeSize + offsets[k] : offsets[k] * planes + p];
      Block block = gather(pool, s, src, channelDim, round % 2 ? &table : nullptr);
      ASSERT_EQ(block->allocated_size(), expected.size() * sizeof(T)) << "round " << round;
      ASSERT_TRUE(std::equal(expected.begin(), expected.end(), static_cast<T*>(block->data)))
          << "round " << round << " channelDim " << channelDim;
      pool.checkin(std::move(block));
    }
  }
}

// Up to 128 offsets the table is filled on the calling thread, from 129 on by
// TBB tasks, which a cancelled group never runs; the strides and counts
// behind the offsets are written either way. The table's memory starts as
// all ones, so an unwritten offset shows.
TEST(StridedCopy, TableIsFilledSeriallyUpTo128Offsets) {
  nerva::AllocatorFunctions const ones{[](std::size_t bytes) {
                                         void* p = std::malloc(bytes);
                                         if (p) std::memset(p, 0xff, bytes);
                                         return p;
                                       },
                                       [](void* p) { std::free(p); }};
  for (std::size_t selected : {128u, 129u}) {
    std::size_t const sizes[3] = {selected, 1, 1}, firsts[1] = {0}, lasts[1] = {selected},
                      increments[1] = {1};
    Block table;
    support::run_in_cancelled_group(
        [&] { table = nerva::strided_copy_mapping(sizes, firsts, lasts, increments, 1, ones); });
    auto const* w = static_cast<std::size_t const*>(table->data);
    EXPECT_EQ(w[selected - 1] == selected - 1, selected == 128) << selected;
    EXPECT_EQ(w[selected + 1], selected);  // the count, behind offsets and stride
  }
}

// A failed or throwing allocation (the temporary table's or the result's)
// leaks nothing, and a table given by the caller stays alive.
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
