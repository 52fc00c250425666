#include "nerva/input_array.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "array_test_util.hpp"

namespace {

using namespace nerva;
using namespace arrays_test;

TEST(InputArray, ConstructorsAndNothingToRelinquish) {
  Pooled p;
  const float elements[1] = {0};
  // Sizes in layout order with the channel first; missing trailing sizes are 1.
  const std::size_t sizes[3] = {4, 5, 6};
  FormattedInputArray<float> a(p.pool, elements, sizes, 3, 2, 0, 3, nullptr);
  EXPECT_EQ(a.NumChannels(), 4u);
  EXPECT_EQ(a.NumObservations(), 1u);
  // Metadata blocks are freed with the array or when replaced, never pooled.
  a.Attach(std::make_unique<CNNMemoryBlock>(8192, counting::functions()));
  a.Attach(std::make_unique<CNNMemoryBlock>(8192, counting::functions()));
  EXPECT_EQ(counting::stats().deallocations, 1u);

  auto format = korval_format(3, 2, 5, 7);
  format->Reverse();
  FormattedInputArray<float> b(p.pool, elements, format.get());
  EXPECT_EQ(b.DataIncrement(1), -3);
  // Nothing of the caller's is given away, and Data() stays the source.
  EXPECT_EQ(b.RelinquishSourceIfUnused(), nullptr);
  EXPECT_EQ(b.Relinquish(), nullptr);
  EXPECT_EQ(b.Data(), elements);
  EXPECT_TRUE(p.pool.blocks.empty());
}

// Subsample reads the newest elements (the own copy when there is one) and
// returns the block it replaces to the pool.
TEST(InputArray, SubsampleReadsTheNewestElements) {
  Pooled p;
  constexpr std::size_t w = 20, h = 12, c = 3, n = 2;
  auto format = korval_format(w, h, c, n);
  FormattedInputArray<float> a(p.pool, korval_block<float>(w, h, c, n), format.get());
  a.Reformat(ChainedFormat);
  const void* copy = a.Data();  // 5760 bytes: pooled when given back
  const std::size_t f1[2] = {1, 2}, l1[2] = {20, 12}, i1[2] = {3, 4};
  a.Subsample(f1, l1, i1, nullptr);
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{const_cast<void*>(copy)});
  // Then positions 1, 3, 5 of the first result's x, every y.
  const std::size_t f2[2] = {1, 0}, l2[2] = {7, 3}, i2[2] = {2, 1};
  a.Subsample(f2, l2, i2, nullptr);
  ASSERT_EQ(a.DataSize(0), 3u);
  ASSERT_EQ(a.DataSize(1), 3u);
  for (std::size_t i = 0; i < 3 * 3 * c * n; ++i)
    ASSERT_EQ(a.Data()[i], value<float>(1 + 3 * (1 + 2 * (i / (c * n) % 3)),
                                        2 + 4 * (i / (c * n * 3)), i % c, i / c % n))
        << i;
  const std::size_t f3[2] = {0, 2}, l3[2] = {3, 2};
  a.Subsample(f3, l3, i2, nullptr);
  EXPECT_EQ(a.DataSize(1), 0u);
}

// The destructor checks the own block in together with the handed-over
// source: the size of the own block alone decides for both.
TEST(InputArray, DestructorTwoBlockCheckIn) {
  Pooled p;
  auto format = korval_format(32, 32, 2, 1);  // 2048 floats: 8 KiB
  void* handed = nullptr;
  void* copy = nullptr;
  {
    auto block = korval_block<float>(32, 32, 2, 1);
    handed = block->data;
    FormattedInputArray<float> a(p.pool, std::move(block), format.get());
    a.Reformat(ChainedFormat);
    copy = const_cast<float*>(a.Data());
  }
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{copy, handed}));
  p.pool.blocks.clear();
  {
    // A small subsample result takes the 8 KiB source block down with it.
    FormattedInputArray<float> a(p.pool, korval_block<float>(32, 32, 2, 1), format.get());
    const std::size_t firsts[2] = {0, 0}, lasts[2] = {32, 32}, inc[2] = {8, 8};
    a.Subsample(firsts, lasts, inc, nullptr);
  }
  EXPECT_TRUE(p.pool.blocks.empty());
  {
    // Only the handed-over source, still read: checked in alone.
    auto block = korval_block<float>(32, 32, 2, 1);
    handed = block->data;
    FormattedInputArray<float> a(p.pool, std::move(block), format.get());
    EXPECT_EQ(a.RelinquishSourceIfUnused(), nullptr);
  }
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{handed});
}

// Swapped at the current positions still moves the data; a second moving
// reformat reads the source again with the metadata of the first result, so
// back to KORVAL transposes the source as if it were the swapped layout, into
// the same own block; an order byte other than 0 and 1 never matches.
TEST(InputReformat, OrderQuirks) {
  Pooled p;
  constexpr std::size_t w = 5, h = 3;
  auto src = korval<float>(w, h, 2, 1);
  const std::size_t sizes[4] = {w, h, 2, 1};
  FormattedInputArray<float> in(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(2, 3, InOrder);  // nothing to do
  EXPECT_EQ(in.Data(), src.data());
  in.Reformat(2, 3, Swapped);
  const float* copy = in.Data();
  ASSERT_NE(copy, src.data());
  EXPECT_EQ(in.DataIncrement(0), static_cast<long>(h));
  for (std::size_t i = 0; i < w * h * 2; ++i)
    ASSERT_EQ(copy[i], value<float>(i / h % w, i % h, i / (w * h), 0)) << i;
  in.Reformat(KORVALFormat);  // channel and observation in place, order not
  EXPECT_TRUE(in.IsInKORVALFormat());
  ASSERT_EQ(in.Data(), copy);
  for (std::size_t i = 0; i < w * h * 2; ++i)
    ASSERT_EQ(copy[i], src[i / (w * h) * w * h + i % (w * h) / w + h * (i % w)]) << i;

  FormattedInputArray<float> again(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  again.Reformat(2, 3, static_cast<FirstDataDims>(2));
  ASSERT_NE(again.Data(), src.data());
  EXPECT_EQ(std::vector<float>(again.Data(), again.Data() + src.size()), src);
}

// Data extents 1 and the channel/observation order kept: metadata only; an
// existing own block goes back to the pool and Data() is the source again.
// Zero elements: only the map changes.
TEST(InputReformat, NoElementToMoveKeepsTheSource) {
  Pooled p;
  auto src = korval<float>(1, 1, 64, 32);  // 8 KiB
  const std::size_t sizes[4] = {1, 1, 64, 32};
  FormattedInputArray<float> in(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(ChainedFormat);
  EXPECT_EQ(in.Data(), src.data());
  in.Reformat(1, 0, InOrder);  // order of the pair changes: moves
  const float* own = in.Data();
  EXPECT_EQ(own[1], value<float>(0, 0, 0, 1));
  in.Reformat(3, 2, InOrder);  // order kept: metadata only
  EXPECT_EQ(in.Data(), src.data());
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{const_cast<float*>(own)});

  const std::size_t empty_sizes[4] = {5, 0, 3, 2};
  FormattedInputArray<double> empty(p.pool, nullptr, empty_sizes, 4, 2, 2, 3, nullptr);
  empty.Reformat(ChainedFormat);
  EXPECT_EQ(empty.DataIncrement(0), 6);
  EXPECT_EQ(empty.Data(), nullptr);
}

}  // namespace
