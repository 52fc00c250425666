#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <new>
#include <random>
#include <stdexcept>
#include <vector>

#include "nerva/copy.hpp"
#include "support/counting_allocator.hpp"

namespace {

using Block = std::unique_ptr<nerva::CNNMemoryBlock>;

// A strided selection over the leading dimensions plus the two trailing
// dimensions, which are taken whole.
struct Selection {
  std::vector<std::size_t> sizes;  // numDims + 2 entries
  std::vector<std::size_t> firsts, lasts, increments;
  std::size_t numDims() const { return firsts.size(); }
  std::size_t planes() const { return sizes[numDims()] * sizes[numDims() + 1]; }
  std::size_t planeSize() const {
    std::size_t n = 1;
    for (std::size_t i = 0; i < numDims(); ++i) n *= sizes[i];
    return n;
  }
};

// 0 to 6 dimensions of extent 1 to 16, each selection starting in the lower
// third and mostly running far, with increments 1 to 3 (1 half the time); now
// and then an empty dimension (first == last, increment 1). Trailing extents
// 0 to 5.
Selection random_selection(std::mt19937& rng) {
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  Selection s;
  for (std::size_t i = 0, n = pick(0, 6); i < n; ++i) {
    std::size_t const size = pick(1, 16);
    bool const empty = pick(0, 15) == 0;
    std::size_t const first = empty ? pick(0, size) : pick(0, (size - 1) / 3);
    s.sizes.push_back(size);
    s.firsts.push_back(first);
    s.lasts.push_back(empty ? first : pick(pick(first + 1, size), size));
    s.increments.push_back(empty ? 1 : std::max<std::size_t>(1, pick(0, 3)));
  }
  s.sizes.push_back(pick(0, 5));
  s.sizes.push_back(pick(1, 5));
  return s;
}

// Offsets within one plane of the selected elements, dimension 0 fastest, by
// nested loops over each dimension's selected indices, the last outermost.
void collect(Selection const& s, std::size_t dims, std::size_t offset,
             std::vector<std::size_t>& out) {
  if (dims == 0) return out.push_back(offset);
  std::size_t stride = 1;
  for (std::size_t i = 0; i + 1 < dims; ++i) stride *= s.sizes[i];
  for (std::size_t x = s.firsts[dims - 1]; x < s.lasts[dims - 1]; x += s.increments[dims - 1])
    collect(s, dims - 1, offset + x * stride, out);
}

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
    Selection s;
    do s = random_selection(rng);
    while (s.planeSize() * std::max<std::size_t>(s.planes(), 1) > 20000);
    std::size_t const planes = s.planes(), planeSize = s.planeSize();
    std::vector<T> src(planeSize * planes);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i * 7 % 253);
    std::vector<std::size_t> offsets;
    collect(s, s.numDims(), 0, offsets);
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
