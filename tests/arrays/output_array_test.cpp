#include "nerva/output_array.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"

namespace {

using namespace nerva;
using namespace arrays_test;

TEST(OutputArray, StridedAndPaddedSizes) {
  Pooled p;
  const std::size_t pad[2] = {1, 2};
  struct Case {
    std::size_t first, last, stride;  // stride 0: no stride table
    bool padded;
    std::size_t size;
  } cases[] = {{0, 10, 3, false, 4}, {0, 9, 3, false, 3}, {6, 5, 7, false, 0},
               {2, 9, 1, false, 7},  {0, 10, 3, true, 7}, {4, 4, 0, true, 3}};
  for (const Case& c : cases) {
    FormattedOutputArray<float> out(p.pool, &c.first, &c.last, c.stride ? &c.stride : nullptr, 1, 1,
                                    1, c.padded ? pad : nullptr, Unallocated);
    EXPECT_EQ(out.DataSize(0), c.size) << c.first << ".." << c.last << " by " << c.stride;
    EXPECT_EQ(out.Data(), nullptr);
  }
}

// A dirty pooled block shows which modes fill and which leave the contents,
// on both sides of the parallel fill's grain.
TEST(OutputArray, AllocationModes) {
  Pooled p;
  for (std::size_t count : {std::size_t{65536}, std::size_t{65537}}) {
    const std::size_t bytes = count * sizeof(float), first = 0, last = count;
    auto dirty = std::make_unique<CNNMemoryBlock>(bytes, counting::functions());
    std::memset(dirty->data, 0xAB, bytes);
    void* where = dirty->data;
    p.pool.checkin(std::move(dirty));
    for (int how : {3, 2, 0}) {  // 3 acts as Uninitialized
      FormattedOutputArray<float> out(p.pool, &first, &last, nullptr, 1, 1, 1, nullptr,
                                      static_cast<AllocateOutputAs>(how));
      ASSERT_EQ(static_cast<void*>(out.Data()), how == 2 ? nullptr : where);
      EXPECT_EQ(static_cast<unsigned char*>(where)[bytes - 1], how == 0 ? 0 : 0xAB);
      for (std::size_t i = 0; how == 0 && i < count; ++i) ASSERT_EQ(out.Data()[i], 0.0f) << i;
      if (how != 0) continue;
      out.SetSizesAndAllocate(1, 1, Uninitialized);  // frees the old block, no pooling
      EXPECT_TRUE(p.pool.blocks.empty());
    }
    p.pool.blocks.clear();
  }
}

TEST(OutputArray, FromFormatTakeOverAndLike) {
  Pooled p;
  FormattedArray format(2, 0, 1, 4, counting::functions(), -1);
  const std::size_t sizes[5] = {16, 8, 2, 5, 3};
  format.SetSizesInDefaultFormat(sizes, 5);
  FormattedOutputArray<double> a(p.pool, &format, Zeros);
  EXPECT_EQ(a.DataSize(4), 1u);  // sequence forced to 1
  EXPECT_EQ(a.DataIncrement(0), -10);
  // Take-over moves the buffer; the new array returns it to its own pool.
  SharedMemoryPool other(counting::functions(), &counting::throwing_error);
  double* buffer = a.Data();
  { FormattedOutputArray<double> b(other, &a); }
  EXPECT_EQ(a.Data(), nullptr);
  EXPECT_EQ(idle_data(other), std::vector<void*>{buffer});
  other.blocks.clear();

  // Like another with a new batch size: the bounds are copied, data leased.
  const std::size_t firsts[1] = {1}, lasts[1] = {9}, strides[1] = {3}, padding[2] = {1, 1};
  FormattedOutputArray<float> d(p.pool, firsts, lasts, strides, 1, 2, 1, padding, Unallocated);
  FormattedOutputArray<float> e(p.pool, &d, 1000);
  EXPECT_EQ(e.UnpaddedData(), e.Data() + 1);
}

// KORVAL -> chained -> KORVAL leases once: the KORVAL elements end up back in
// the first buffer (now the staging block) and the chained copy is the spare.
// Destruction checks in the staging block first. Relinquish gives the current
// data first, then the spare.
TEST(OutputReformat, TwoBuffersRelinquishAndDestroy) {
  Pooled p;
  constexpr std::size_t W = 16, H = 16, C = 4, N = 2;
  const std::size_t sizes[2] = {W, H};
  float *first, *second;
  {
    FormattedOutputArray<float> out(p.pool, sizes, 2, C, N, 2, 3, Uninitialized);
    first = out.Data();
    fill_korval(first, W, H, C, N);
    out.Reformat(ChainedFormat);
    second = out.Data();
    counting::fail_above(4095);   // from now on no data block may be allocated
    out.Reformat(ChainedFormat);  // already there, even with two blocks
    EXPECT_EQ(out.Data(), second);
    out.Reformat(2, 3);
    EXPECT_EQ(out.Data(), first);
    EXPECT_EQ(std::vector<float>(first, first + W * H * C * N), korval<float>(W, H, C, N));
    out.Reformat(ChainedFormat);
    out.Reformat(KORVALFormat);
    EXPECT_EQ(counting::stats().failures, 0u);
    counting::fail_above(SIZE_MAX);
    for (std::size_t i = 0; i < W * H * C * N; ++i)
      ASSERT_EQ(second[i], value<float>(i / (C * N) % W, i / (C * N * W), i % C, i / C % N)) << i;
  }
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{first, second}));

  FormattedOutputArray<float> out(p.pool, sizes, 2, C, N, 2, 3, Zeros);
  out.Reformat(ChainedFormat);
  void* current = out.Data();
  auto block = out.Relinquish();
  ASSERT_EQ(block->data, current);
  float* spare = out.Data();
  ASSERT_NE(spare, nullptr);
  out.SetAllocatedBlock(nullptr);  // keeps the current block
  EXPECT_EQ(out.Data(), spare);
  out.SetAllocatedBlock(std::move(block));  // the spare is freed, not pooled
  EXPECT_TRUE(p.pool.blocks.empty());
  EXPECT_EQ(out.Relinquish()->data, current);
  EXPECT_EQ(out.Relinquish(), nullptr);
}

// Zero elements: only the map changes.
TEST(OutputReformat, ZeroElements) {
  Pooled p;
  const std::size_t firsts[2] = {0, 4}, lasts[2] = {8, 4};
  FormattedOutputArray<double> none(p.pool, firsts, lasts, nullptr, 2, 3, 2, nullptr, Zeros);
  EXPECT_EQ(none.Data(), nullptr);
  none.Reformat(ChainedFormat);
  EXPECT_EQ(none.DataIncrement(0), 6);
}

// An input over a handed-over block of `in` doubles, read through its own
// copy, gives that block to an unallocated output of `out` elements when it is
// long enough; otherwise the output leases and the block is checked in.
TEST(OutputArray, BypassPoolOrAllocate) {
  const std::size_t cases[][2] = {{100, 100}, {100, 99}, {100, 101}, {1024, 1025}};
  for (auto [in_count, out_count] : cases) {
    Pooled p;
    FormattedArray format(1, 1, 2, 3, counting::functions(), 1);
    const std::size_t sizes[2] = {in_count / 2, 2};
    format.SetSizesInDefaultFormat(sizes, 2);
    auto block = std::make_unique<CNNMemoryBlock>(in_count * sizeof(double), counting::functions());
    void* handed = block->data;
    FormattedInputArray<double> in(p.pool, std::move(block), &format);
    in.Reformat(ChainedFormat);
    FormattedOutputArray<double> out(p.pool, &out_count, 1, 1, 1, 1, 2, Unallocated);
    const std::size_t before = counting::stats().allocations;
    bypassPoolOrAllocate(&out, &in);
    const bool reused = out_count <= in_count, pooled = !reused && in_count >= 512;
    EXPECT_EQ(static_cast<void*>(out.Data()) == handed, reused) << in_count << " " << out_count;
    EXPECT_EQ(counting::stats().allocations, before + (reused ? 0 : 1));
    EXPECT_EQ(idle_data(p.pool), pooled ? std::vector<void*>{handed} : std::vector<void*>{});
  }
}

// Element at chained index i of extents `ext` (channel first), or 0 when one
// of its indices is not below the matching entry of `keep`.
template <typename T>
T element(std::size_t i, std::vector<std::size_t> const& ext,
          std::vector<std::size_t> const& keep) {
  std::size_t v = 1;
  for (std::size_t d = 0; d < ext.size(); i /= ext[d++]) {
    if (i % ext[d] >= keep[d]) return T(0);
    v += i % ext[d] * (3 + 4 * d);
  }
  return static_cast<T>(v % 249);
}

template <typename T>
class SetDataRanges : public ::testing::Test {};
using OutputTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(SetDataRanges, OutputTypes);

// Against a naive reference: the common corner keeps its contents at the
// same indices, everything else is zero, the increments stay those of the old
// sizes, and the old buffer goes back to the pool. The current sizes change
// nothing.
TYPED_TEST(SetDataRanges, GrowAndShrinkKeepTheCommonCorner) {
  using T = TypeParam;
  Pooled p;
  // Extents with channels and observations first.
  const std::vector<std::size_t> cases[][2] = {{{3, 2, 24, 20}, {3, 2, 30, 12}},
                                               {{3, 2, 30, 12, 3}, {3, 2, 20, 15, 5}},
                                               {{3, 2, 4}, {3, 2, 6}},
                                               {{3, 2, 6}, {3, 2, 4}},
                                               {{3, 2, 9}, {3, 2, 9}}};
  for (auto const& [from, to] : cases) {
    p.pool.blocks.clear();
    const std::size_t n = from.size() - 2;
    FormattedOutputArray<T> out(p.pool, &from[2], n, 3, 2, 0, 1, Uninitialized);
    for (std::size_t i = 0; i < out.TotalNumElem(); ++i) out.Data()[i] = element<T>(i, from, from);
    const std::vector<long> increments(out.DataIncrements(), out.DataIncrements() + n);
    void* old = out.Data();
    const std::size_t allocations = counting::stats().allocations;
    const bool pooled = from != to && out.TotalNumElem() * sizeof(T) >= 4096;

    out.SetDataRanges(&to[2]);
    EXPECT_EQ(std::vector<long>(out.DataIncrements(), out.DataIncrements() + n), increments);
    EXPECT_EQ(idle_data(p.pool), pooled ? std::vector<void*>{old} : std::vector<void*>{});
    EXPECT_EQ(static_cast<void*>(out.Data()) == old, from == to);
    EXPECT_EQ(counting::stats().allocations == allocations, from == to);
    for (std::size_t i = 0; i < out.TotalNumElem(); ++i)
      ASSERT_EQ(out.Data()[i], element<T>(i, to, from)) << i;
    out.SetSizeArray(3, 2);  // recomputes the sizes from the bounds
    EXPECT_EQ(out.DataSize(0), from[2]);
  }
}

}  // namespace
