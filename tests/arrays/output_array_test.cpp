#include "nerva/output_array.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using arrays_test::idle_data;
using arrays_test::idle_sizes;
using nerva::AllocateOutputAs;
using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::FormattedInputArray;
using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

struct Pooled {
  counting::LeakCheck check;
  SharedMemoryPool pool{counting::functions(), &counting::throwing_error};
};

std::size_t size_1d(SharedMemoryPool& pool, std::size_t first, std::size_t last,
                    std::size_t const* stride, std::size_t const* padding) {
  FormattedOutputArray<float> out(pool, &first, &last, stride, 1, 1, 1, padding,
                                  nerva::Unallocated);
  return out.DataSize(0);
}

TEST(OutputArray, StridedAndPaddedSizes) {
  Pooled p;
  const std::size_t three = 3, one = 1, big = 7;
  EXPECT_EQ(size_1d(p.pool, 0, 10, &three, nullptr), 4u);
  EXPECT_EQ(size_1d(p.pool, 0, 9, &three, nullptr), 3u);
  EXPECT_EQ(size_1d(p.pool, 5, 5, &three, nullptr), 0u);
  EXPECT_EQ(size_1d(p.pool, 6, 5, &big, nullptr), 0u);
  EXPECT_EQ(size_1d(p.pool, 6, 5, nullptr, nullptr), 0u);
  EXPECT_EQ(size_1d(p.pool, 2, 9, &one, nullptr), 7u);
  EXPECT_EQ(size_1d(p.pool, 2, 9, nullptr, nullptr), 7u);
  const std::size_t pad[2] = {1, 2};
  EXPECT_EQ(size_1d(p.pool, 0, 10, &three, pad), 7u);  // padding counted after striding
  EXPECT_EQ(size_1d(p.pool, 4, 4, nullptr, pad), 3u);
  EXPECT_EQ(counting::stats().allocations, counting::stats().deallocations);  // nothing leased

  // Two dimensions, chained positions: padding (before d0, d1; after d0, d1).
  const std::size_t firsts[2] = {1, 0}, lasts[2] = {8, 5}, strides[2] = {2, 1};
  const std::size_t padding[4] = {1, 0, 0, 2};
  FormattedOutputArray<double> out(p.pool, firsts, lasts, strides, 2, 3, 2, 0, 1, padding,
                                   nerva::Unallocated);
  EXPECT_EQ(out.DataSize(0), 5u);
  EXPECT_EQ(out.DataSize(1), 7u);
  EXPECT_EQ(out.NumChannels(), 3u);
  EXPECT_EQ(out.NumObservations(), 2u);
  EXPECT_EQ(out.DataSize(4), 1u);  // sequence
  EXPECT_EQ(out.DataIncrement(0), 6);
  EXPECT_EQ(out.DataIncrement(1), 30);
  EXPECT_TRUE(out.IsStrided());
  EXPECT_EQ(out.Stride(0), 2u);
  EXPECT_EQ(out.Firsts()[0], 1u);
  EXPECT_EQ(out.Data(), nullptr);
  EXPECT_EQ(out.UnpaddedData(), nullptr);
}

// The bounds live in one directly allocated block of 2n, 3n, 4n or 5n entries.
TEST(OutputArray, BoundsBlockHoldsOnlyTheTablesGiven) {
  Pooled p;
  const std::size_t firsts[3] = {0, 0, 0}, lasts[3] = {2, 2, 2}, strides[3] = {1, 1, 1};
  const std::size_t padding[6] = {0, 0, 0, 0, 0, 0};
  const std::size_t metadata = (3 * 3 + 6) * 8;
  for (int mask = 0; mask < 4; ++mask) {
    const std::size_t* s = (mask & 1) ? strides : nullptr;
    const std::size_t* q = (mask & 2) ? padding : nullptr;
    FormattedOutputArray<float> out(p.pool, firsts, lasts, s, 3, 1, 1, q, nerva::Unallocated);
    const std::size_t entries = 6 + ((mask & 1) ? 3 : 0) + ((mask & 2) ? 6 : 0);
    EXPECT_EQ(counting::live_bytes(), metadata + entries * sizeof(std::size_t)) << mask;
    EXPECT_EQ(counting::live_blocks(), 2u);
    EXPECT_EQ(out.IsStrided(), s != nullptr);
    out.CopyDataBounds(firsts, lasts, nullptr, nullptr);
    EXPECT_EQ(counting::live_bytes(), metadata + 6 * sizeof(std::size_t));
    EXPECT_FALSE(out.IsStrided());
  }
}

// A dirty pooled block shows which modes fill and which leave contents.
TEST(OutputArray, AllocationModes) {
  Pooled p;
  for (std::size_t count : {std::size_t{65536}, std::size_t{65537}}) {
    const std::size_t bytes = count * sizeof(float);
    auto dirty = std::make_unique<CNNMemoryBlock>(bytes, counting::functions());
    std::memset(dirty->data, 0xAB, bytes);
    void* where = dirty->data;
    p.pool.checkin(std::move(dirty));

    const std::size_t first = 0, last = count;
    {
      FormattedOutputArray<float> out(p.pool, &first, &last, nullptr, 1, 1, 1, nullptr,
                                      static_cast<AllocateOutputAs>(3));
      ASSERT_EQ(static_cast<void*>(out.Data()), where);
      EXPECT_EQ(static_cast<unsigned char*>(where)[bytes - 1], 0xAB);
    }
    {
      FormattedOutputArray<float> out(p.pool, &first, &last, nullptr, 1, 1, 1, nullptr,
                                      nerva::Unallocated);
      EXPECT_EQ(out.Data(), nullptr);
      EXPECT_EQ(p.pool.blocks.size(), 1u);
    }
    {
      FormattedOutputArray<float> out(p.pool, &first, &last, nullptr, 1, 1, 1, nullptr,
                                      nerva::Zeros);
      ASSERT_EQ(static_cast<void*>(out.Data()), where);
      for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(out.Data()[i], 0.0f) << i;
      // Reallocating frees the old block rather than pooling it.
      out.SetSizesAndAllocate(1, 1, nerva::Uninitialized);
      EXPECT_NE(static_cast<void*>(out.Data()), where);
      EXPECT_TRUE(p.pool.blocks.empty());
    }
    p.pool.blocks.clear();
  }
  // Zero elements: nothing leased even with Zeros.
  const std::size_t first = 3, last = 3;
  FormattedOutputArray<long> empty(p.pool, &first, &last, nullptr, 1, 4, 4, nullptr, nerva::Zeros);
  EXPECT_EQ(empty.Data(), nullptr);
  EXPECT_EQ(counting::live_blocks(), 2u);
}

// Constructors 1, 2, 5 and 6.
TEST(OutputArray, FromFormatSizesTakeOverAndLike) {
  Pooled p;
  FormattedArray format(2, 0, 1, 4, counting::functions(), -1);
  const std::size_t sizes[5] = {4, 3, 2, 5, 3};
  format.SetSizesInDefaultFormat(sizes, 5);
  FormattedOutputArray<double> a(p.pool, &format, nerva::Zeros);
  EXPECT_TRUE(a.IsInChainedFormat());
  EXPECT_EQ(a.DataSize(4), 1u);  // sequence forced to 1
  EXPECT_EQ(a.TotalNumElem(), 4u * 3 * 2 * 5);
  EXPECT_EQ(a.BaseIncrement(), -1);
  EXPECT_EQ(a.DataIncrement(0), -10);
  EXPECT_FALSE(a.IsStrided());

  const std::size_t data_sizes[2] = {16, 7};
  FormattedOutputArray<double> b(p.pool, data_sizes, 2, 2, 3, 2, 3, nerva::Uninitialized);
  EXPECT_TRUE(b.IsInKORVALFormat());
  EXPECT_EQ(b.TotalNumElem(), 16u * 7 * 2 * 3);
  EXPECT_FALSE(b.IsStrided());
  EXPECT_EQ(b.UnpaddedData(), b.Data());

  // Take-over moves the current buffer and leaves the source without it; the
  // new array returns it to its own pool.
  SharedMemoryPool other(counting::functions(), &counting::throwing_error);
  double* buffer = b.Data();
  {
    FormattedOutputArray<double> c(other, &b);
    EXPECT_EQ(c.Data(), buffer);
    EXPECT_EQ(b.Data(), nullptr);
    EXPECT_EQ(&c.Pool(), &other);
    EXPECT_EQ(c.TotalNumElem(), b.TotalNumElem());
    EXPECT_TRUE(c.IsInKORVALFormat());
  }
  EXPECT_EQ(idle_data(other), std::vector<void*>{buffer});
  EXPECT_TRUE(p.pool.blocks.empty());
  other.blocks.clear();

  // Like another, with a new batch size: layout metadata from the heap, the
  // bounds and data through the pool.
  const std::size_t firsts[1] = {1}, lasts[1] = {9}, strides[1] = {3}, padding[2] = {1, 1};
  FormattedOutputArray<float> d(p.pool, firsts, lasts, strides, 1, 2, 1, padding,
                                nerva::Unallocated);
  const std::size_t before = counting::live_blocks();
  FormattedOutputArray<float> e(p.pool, &d, 1000);
  EXPECT_EQ(counting::live_blocks(), before + 2);  // bounds and data only
  EXPECT_EQ(e.DataSize(0), 5u);
  EXPECT_EQ(e.NumObservations(), 1000u);
  EXPECT_EQ(e.Stride(0), 3u);
  EXPECT_NE(e.Data(), nullptr);
  EXPECT_EQ(e.UnpaddedData(), e.Data() + 1);
  auto current = e.GetSizesInCurrentFormat();
  EXPECT_EQ(current->allocator_functions.allocate, &std::malloc);
  EXPECT_EQ(current->allocator_functions.deallocate, &std::free);
}

TEST(OutputArray, RelinquishAndDestructionOrderWithBothBlocks) {
  Pooled p;
  const std::size_t data_sizes[2] = {16, 16};
  void* original = nullptr;
  void* moved = nullptr;
  {
    FormattedOutputArray<float> out(p.pool, data_sizes, 2, 4, 2, 2, 3, nerva::Zeros);
    original = out.Data();
    out.Reformat(nerva::ChainedFormat);
    moved = out.Data();
    ASSERT_NE(moved, original);
  }
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{moved, original}));

  FormattedOutputArray<float> out(p.pool, data_sizes, 2, 4, 2, 2, 3, nerva::Zeros);
  out.Reformat(nerva::ChainedFormat);
  void* current = out.Data();
  auto first = out.Relinquish();
  EXPECT_EQ(first->data, current);
  ASSERT_NE(out.Data(), nullptr);
  auto second = out.Relinquish();
  EXPECT_NE(second->data, current);
  EXPECT_EQ(out.Data(), nullptr);
  EXPECT_EQ(out.Relinquish(), nullptr);
}

TEST(OutputArray, SetAllocatedBlock) {
  Pooled p;
  const std::size_t data_sizes[1] = {2048};
  FormattedOutputArray<float> out(p.pool, data_sizes, 1, 1, 1, 1, 2, nerva::Zeros);
  float* kept = out.Data();
  out.SetAllocatedBlock(nullptr);
  EXPECT_EQ(out.Data(), kept);
  auto block = std::make_unique<CNNMemoryBlock>(8192, counting::functions());
  void* given = block->data;
  const std::size_t freed = counting::stats().deallocations;
  out.SetAllocatedBlock(std::move(block));
  EXPECT_EQ(static_cast<void*>(out.Data()), given);
  EXPECT_EQ(counting::stats().deallocations, freed + 1);  // old one freed, not pooled
  EXPECT_TRUE(p.pool.blocks.empty());
}

// An input over a handed-over block of `in_count` doubles, read through its
// reformatted copy, gives that block to an unallocated output when it is
// long enough.
void bypass_case(std::size_t in_count, std::size_t out_count, bool reused) {
  Pooled p;
  FormattedArray format(1, 1, 2, 3, counting::functions(), 1);
  const std::size_t sizes[4] = {in_count / 2, 2, 1, 1};
  format.SetSizesInDefaultFormat(sizes, 4);
  auto block = std::make_unique<CNNMemoryBlock>(in_count * sizeof(double), counting::functions());
  void* handed = block->data;
  FormattedInputArray<double> in(p.pool, std::move(block), &format);
  in.Reformat(nerva::ChainedFormat);
  const std::size_t out_sizes[1] = {out_count};
  FormattedOutputArray<double> out(p.pool, out_sizes, 1, 1, 1, 1, 2, nerva::Unallocated);
  const std::size_t before = counting::stats().allocations;
  nerva::bypassPoolOrAllocate(&out, &in);
  ASSERT_NE(out.Data(), nullptr);
  if (reused) {
    EXPECT_EQ(static_cast<void*>(out.Data()), handed);
    EXPECT_EQ(counting::stats().allocations, before);
    EXPECT_TRUE(p.pool.blocks.empty());
  } else {
    EXPECT_NE(static_cast<void*>(out.Data()), handed);
    EXPECT_EQ(counting::stats().allocations, before + 1);
    // Checked in: kept when large enough for the pool, freed otherwise.
    if (in_count * sizeof(double) >= 4096) {
      EXPECT_EQ(idle_data(p.pool), std::vector<void*>{handed});
    } else {
      EXPECT_TRUE(p.pool.blocks.empty());
      EXPECT_EQ(counting::live_blocks(), 6u);  // 3 layouts, bounds, input copy, output
    }
  }
}

TEST(OutputArray, BypassPoolOrAllocate) {
  bypass_case(100, 100, true);
  bypass_case(100, 99, true);
  bypass_case(100, 101, false);
  bypass_case(1024, 1025, false);
}

}  // namespace
