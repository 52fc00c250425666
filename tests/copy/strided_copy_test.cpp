#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <new>
#include <random>
#include <stdexcept>
#include <vector>

#include "nerva/copy.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

namespace {

template <class T>
std::vector<T> source_for(Selection const& s) {
  std::vector<T> src(s.planeSize() * s.planes());
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i * 7 % 253);
  return src;
}

// The gathered block written the plain way: planes outermost when the channel
// is not at position 0, else each selected element is a run of `planes`.
template <class T>
std::vector<T> reference_gather(Selection const& s, std::vector<T> const& src,
                                std::size_t channelDim) {
  std::vector<std::size_t> const offsets = reference_offsets(s);
  std::size_t const planes = s.planes(), planeSize = s.planeSize(), n = offsets.size();
  std::vector<T> out(n * planes);
  for (std::size_t p = 0; p < planes; ++p)
    for (std::size_t k = 0; k < n; ++k) {
      if (channelDim != 0)
        out[p * n + k] = src[p * planeSize + offsets[k]];
      else
        out[k * planes + p] = src[offsets[k] * planes + p];
    }
  return out;
}

template <class T>
std::unique_ptr<nerva::CNNMemoryBlock> gather(nerva::SharedMemoryPool& pool, Selection const& s,
                                              std::vector<T> const& src, std::size_t channelDim,
                                              std::size_t const* mapping = nullptr) {
  return nerva::strided_copy<T>(pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                s.increments.data(), s.numDims(), channelDim, mapping);
}

template <class T>
void expect_block(nerva::CNNMemoryBlock const& block, std::vector<T> const& expected) {
  ASSERT_EQ(block.allocated_size(), expected.size() * sizeof(T));
  auto const* got = static_cast<T const*>(block.data);
  for (std::size_t i = 0; i < expected.size(); ++i) ASSERT_EQ(got[i], expected[i]) << "at " << i;
}

template <class T>
class StridedCopy : public ::testing::Test {};
using Types = ::testing::Types<unsigned char, float, double>;
TYPED_TEST_SUITE(StridedCopy, Types);

TYPED_TEST(StridedCopy, RandomShapesMatchTheNaiveGather) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::mt19937 rng(42);
  for (int round = 0; round < 150; ++round) {
    Selection s;
    do s = random_selection(rng, 6, 7, 5);
    while (s.planeSize() * s.planes() > 20000);
    std::vector<T> const src = source_for<T>(s);
    for (std::size_t channelDim : {std::size_t{0}, s.numDims()}) {
      std::vector<T> const expected = reference_gather(s, src, channelDim);
      auto block = gather(pool, s, src, channelDim);
      ASSERT_NO_FATAL_FAILURE(expect_block(*block, expected)) << "round " << round;
      pool.checkin(std::move(block));
    }
  }
}

// A table built once serves several calls and is left as it was.
TYPED_TEST(StridedCopy, ReusesAGivenMapping) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{37, 11, 9, 3, 4}, {1, 2, 0}, {37, 11, 9}, {3, 2, 4}};
  std::vector<T> const src = source_for<T>(s);
  auto table = nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                           s.increments.data(), 3, counting::functions());
  std::vector<unsigned char> before(table->allocated_size());
  std::memcpy(before.data(), table->data, before.size());
  auto const* offsets = static_cast<std::size_t const*>(table->data);
  for (std::size_t channelDim : {std::size_t{0}, std::size_t{3}}) {
    auto block = gather(pool, s, src, channelDim, offsets);
    ASSERT_NO_FATAL_FAILURE(expect_block(*block, reference_gather(s, src, channelDim)));
  }
  EXPECT_EQ(std::memcmp(before.data(), table->data, before.size()), 0);
}

// Runs longer than a copy chunk (channel innermost) and many planes whose
// selection ends in a partial block of 256 (channel outermost).
TYPED_TEST(StridedCopy, LongRunsAndPartialGatherBlocks) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const runs{{5, 3, 400, 400}, {0, 1}, {5, 3}, {2, 1}};  // 6 runs of 160000
  std::vector<T> const a = source_for<T>(runs);
  ASSERT_NO_FATAL_FAILURE(expect_block(*gather(pool, runs, a, 0), reference_gather(runs, a, 0)));
  Selection const planes{{31, 41, 6, 7}, {0, 1}, {31, 41}, {1, 2}};  // 31 x 20 = 620 per plane
  std::vector<T> const b = source_for<T>(planes);
  ASSERT_NO_FATAL_FAILURE(
      expect_block(*gather(pool, planes, b, 2), reference_gather(planes, b, 2)));
}

TYPED_TEST(StridedCopy, WholeSelectionIsTheSource) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{4, 5, 6, 3, 2}, {0, 0, 0}, {4, 5, 6}, {1, 1, 1}};
  std::vector<T> const src = source_for<T>(s);
  for (std::size_t channelDim : {std::size_t{0}, std::size_t{3}})
    ASSERT_NO_FATAL_FAILURE(expect_block(*gather(pool, s, src, channelDim), src));
}

TYPED_TEST(StridedCopy, NoDimensionsCopyTheFirstPlanes) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{3, 5}, {}, {}, {}};
  std::vector<T> const src = source_for<T>(s);
  for (std::size_t channelDim : {std::size_t{0}, std::size_t{1}})
    ASSERT_NO_FATAL_FAILURE(expect_block(*gather(pool, s, src, channelDim), src));
}

// An empty selection or no planes still leases (and returns) a 0-byte block.
TYPED_TEST(StridedCopy, EmptySelectionsGiveEmptyBlocks) {
  using T = TypeParam;
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const none{{6, 6, 2, 2}, {2, 1}, {2, 5}, {1, 1}};
  Selection const flat{{6, 6, 0, 2}, {0, 1}, {6, 5}, {2, 3}};
  for (Selection const& s : {none, flat}) {
    std::vector<T> const src(72, T(1));
    for (std::size_t channelDim : {std::size_t{0}, std::size_t{2}}) {
      auto block = gather(pool, s, src, channelDim);
      EXPECT_EQ(block->allocated_size(), 0u);
    }
  }
}

TEST(StridedCopyMemory, TemporaryMappingIsFreedAndOnlyTheResultLives) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{20, 20, 8, 4}, {0, 1}, {20, 20}, {2, 3}};
  std::vector<float> const src = source_for<float>(s);
  auto block = gather(pool, s, src, 2);
  EXPECT_EQ(counting::stats().allocations, 2u);  // mapping, result
  EXPECT_EQ(counting::live_blocks(), 1u);
  EXPECT_EQ(counting::live_bytes(), block->allocated_size());
}

TEST(StridedCopyMemory, FailedLeaseReleasesTheTemporaryMapping) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{20, 20, 8, 4}, {0, 1}, {20, 20}, {2, 3}};
  std::vector<double> const src = source_for<double>(s);
  counting::fail_above(4096);  // the table fits, the result does not
  for (std::size_t channelDim : {std::size_t{0}, std::size_t{2}}) {
    try {
      gather(pool, s, src, channelDim);
      ADD_FAILURE() << "no error reported";
    } catch (std::runtime_error const& e) {
      EXPECT_STREQ(e.what(), "Out of memory.");
    }
    EXPECT_EQ(counting::live_blocks(), 0u);
  }
}

TEST(StridedCopyMemory, ThrowingAllocatorLeaksNothing) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{20, 20, 8, 4}, {0, 1}, {20, 20}, {2, 3}};
  std::vector<float> const src = source_for<float>(s);
  counting::throw_at(1);  // building the table
  EXPECT_THROW(gather(pool, s, src, 0), std::bad_alloc);
  counting::throw_at(2);  // leasing the result
  EXPECT_THROW(gather(pool, s, src, 2), std::bad_alloc);
  EXPECT_EQ(counting::live_blocks(), 0u);
}

TEST(StridedCopyMemory, GivenMappingSurvivesAFailedLease) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  Selection const s{{20, 20, 8, 4}, {0, 1}, {20, 20}, {2, 3}};
  std::vector<unsigned char> const src = source_for<unsigned char>(s);
  auto table = nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                           s.increments.data(), 2, counting::functions());
  counting::fail_above(2000);
  EXPECT_THROW(gather(pool, s, src, 2, static_cast<std::size_t const*>(table->data)),
               std::runtime_error);
  EXPECT_EQ(counting::live_blocks(), 1u);
}

}  // namespace
