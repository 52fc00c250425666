#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <stdexcept>
#include <vector>

#include "nerva/copy.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

// The gathered elements and the table's words are compared with the naive walk by the
// strided-copy fuzz target, which runs as a test too; these tests cover an empty range with
// increment 0, failures, and gathers too large for the fuzzer's arrays.
namespace {

using Block = std::unique_ptr<nerva::CNNMemoryBlock>;

Block build(Selection const& s) {
  return nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                     s.increments.data(), s.numDims(), counting::functions());
}

// The leak checks below hold for either order of the trailing dimensions (channelDim).
Block gather(nerva::SharedMemoryPool& pool, Selection const& s, std::vector<float> const& src,
             Block const* table) {
  return nerva::strided_copy<float>(
      pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(), s.increments.data(),
      s.numDims(), 2, table ? static_cast<std::size_t const*>((*table)->data) : nullptr);
}

// An empty range may carry any increment, 0 included: no offsets, strides 1 and 4, counts 4, 0.
// (The fuzz target, which runs as a test too, checks every word of random tables.)
TEST(StridedCopy, EmptyRangeTakesAnyIncrement) {
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
  for (bool given : {false, true}) {
    std::size_t const lease = given ? 1 : 2;  // the allocation that leases the result
    counting::fail_at(lease);
    EXPECT_THROW(gather(pool, s, src, given ? &table : nullptr), std::runtime_error);
    for (std::size_t k = 1; k <= lease; ++k) {
      counting::throw_at(k);
      EXPECT_THROW(gather(pool, s, src, given ? &table : nullptr), std::bad_alloc);
    }
    EXPECT_EQ(counting::live_blocks(), 1u);
  }
}

// A gather of runs into more than 16 MiB takes the streaming path: every run of 265 elements
// (1060 bytes, so runs start at every offset within a 16-byte word) matches the naive loop.
TEST(StridedCopy, LargeGatherOfRuns) {
  std::size_t const planes = 5 * 53;
  Selection const s{{256, 256, 5, 53}, {0, 1}, {256, 256}, {2, 2}};
  std::vector<float> src(256 * 256 * planes);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<float>(i % 1000003);
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto const out = nerva::strided_copy<float>(pool, src.data(), s.sizes.data(), s.firsts.data(),
                                              s.lasts.data(), s.increments.data(), 2, 0, nullptr);
  auto const* dst = static_cast<float const*>(out->data);
  std::size_t wrong = 0;
  for (std::size_t k = 0; k < 128 * 128; ++k) {
    std::size_t const pos = 2 * (k % 128) + 256 * (1 + 2 * (k / 128));
    for (std::size_t p = 0; p < planes; ++p) wrong += dst[k * planes + p] != src[pos * planes + p];
  }
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
