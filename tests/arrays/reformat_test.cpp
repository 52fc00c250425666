#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using arrays_test::idle_data;
using arrays_test::value;
using nerva::FirstDataDims;
using nerva::FormattedInputArray;
using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

struct Pooled {
  counting::LeakCheck check;
  SharedMemoryPool pool{counting::functions(), &counting::throwing_error};
};

constexpr std::size_t W = 16, H = 16, C = 4, N = 2;

std::size_t korval_at(std::size_t x, std::size_t y, std::size_t c, std::size_t b) {
  return x + W * (y + H * (c + C * b));
}
std::size_t chained_at(std::size_t x, std::size_t y, std::size_t c, std::size_t b) {
  return c + C * (b + N * (x + W * y));
}

// KORVAL -> chained -> KORVAL leases once: the KORVAL elements end up back in
// the first buffer (now the staging block) and the chained copy is the spare.
TEST(OutputReformat, AlternatesBetweenTwoBuffersLeasingOnce) {
  Pooled p;
  const std::size_t sizes[2] = {W, H};
  FormattedOutputArray<float> out(p.pool, sizes, 2, C, N, 2, 3, nerva::Uninitialized);
  float* first = out.Data();
  for (std::size_t b = 0; b < N; ++b)
    for (std::size_t c = 0; c < C; ++c)
      for (std::size_t y = 0; y < H; ++y)
        for (std::size_t x = 0; x < W; ++x) first[korval_at(x, y, c, b)] = value<float>(x, y, c, b);

  out.Reformat(nerva::ChainedFormat);
  float* second = out.Data();
  ASSERT_NE(second, first);
  // From now on no data block may be allocated.
  counting::fail_above(4095);
  out.Reformat(nerva::ChainedFormat);  // already there, even with two blocks
  EXPECT_EQ(out.Data(), second);
  out.Reformat(2, 3);
  EXPECT_TRUE(out.IsInKORVALFormat());
  EXPECT_EQ(out.Data(), first);
  for (std::size_t b = 0; b < N; ++b)
    for (std::size_t c = 0; c < C; ++c)
      for (std::size_t y = 0; y < H; ++y)
        for (std::size_t x = 0; x < W; ++x)
          ASSERT_EQ(first[korval_at(x, y, c, b)], value<float>(x, y, c, b));
  out.Reformat(nerva::ChainedFormat);
  EXPECT_EQ(out.Data(), second);
  out.Reformat(nerva::KORVALFormat);
  EXPECT_EQ(counting::stats().failures, 0u);
  counting::fail_above(SIZE_MAX);

  auto current = out.Relinquish();
  auto spare = out.Relinquish();
  EXPECT_EQ(current->data, first);
  ASSERT_EQ(spare->data, second);
  for (std::size_t b = 0; b < N; ++b)
    for (std::size_t c = 0; c < C; ++c)
      for (std::size_t y = 0; y < H; ++y)
        for (std::size_t x = 0; x < W; ++x)
          ASSERT_EQ(second[chained_at(x, y, c, b)], value<float>(x, y, c, b));
  EXPECT_TRUE(p.pool.blocks.empty());
}

TEST(OutputReformat, ZeroElementsChangeOnlyTheMap) {
  Pooled p;
  const std::size_t firsts[2] = {0, 4}, lasts[2] = {8, 4};
  FormattedOutputArray<double> out(p.pool, firsts, lasts, nullptr, 2, 3, 2, nullptr, nerva::Zeros);
  ASSERT_EQ(out.TotalNumElem(), 0u);
  out.Reformat(nerva::ChainedFormat);
  EXPECT_TRUE(out.IsInChainedFormat());
  EXPECT_EQ(out.DataIncrement(0), 6);
  EXPECT_EQ(out.Data(), nullptr);
  out.ShallowReformat(2, 3);
  EXPECT_TRUE(out.IsInKORVALFormat());
  EXPECT_EQ(out.DataIncrement(0), 1);
}

// Data extents 1: moving channel and observation as a pair keeps every
// element in place, so only the map changes and the spare goes to the pool.
TEST(OutputReformat, ExtentOneDataMovesNothing) {
  Pooled p;
  const std::size_t sizes[2] = {1, 1};
  FormattedOutputArray<float> out(p.pool, sizes, 2, 64, 32, 2, 3, nerva::Zeros);
  float* data = out.Data();
  out.Reformat(nerva::ChainedFormat);
  EXPECT_TRUE(out.IsInChainedFormat());
  EXPECT_EQ(out.Data(), data);
  EXPECT_TRUE(p.pool.blocks.empty());
}

// Inputs over caller elements in KORVAL layout.
template <typename T>
std::vector<T> korval_elements(std::size_t w, std::size_t h, std::size_t c, std::size_t n) {
  std::vector<T> v(w * h * c * n);
  for (std::size_t b = 0; b < n; ++b)
    for (std::size_t k = 0; k < c; ++k)
      for (std::size_t y = 0; y < h; ++y)
        for (std::size_t x = 0; x < w; ++x) v[x + w * (y + h * (k + c * b))] = value<T>(x, y, k, b);
  return v;
}

TEST(InputReformat, SwappedAtCurrentPositionsStillMoves) {
  Pooled p;
  constexpr std::size_t w = 5, h = 3;
  auto src = korval_elements<double>(w, h, 2, 1);
  const std::size_t sizes[4] = {w, h, 2, 1};
  FormattedInputArray<double> in(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(2, 3, nerva::InOrder);  // nothing to do
  EXPECT_EQ(in.Data(), src.data());
  in.Reformat(2, 3, nerva::Swapped);
  ASSERT_NE(in.Data(), src.data());
  EXPECT_FALSE(in.IsInKORVALFormat());
  EXPECT_EQ(in.DataIncrement(1), 1);
  EXPECT_EQ(in.DataIncrement(0), static_cast<long>(h));
  for (std::size_t c = 0; c < 2; ++c)
    for (std::size_t y = 0; y < h; ++y)
      for (std::size_t x = 0; x < w; ++x)
        ASSERT_EQ(in.Data()[y + h * (x + w * c)], value<double>(x, y, c, 0));
  in.Reformat(2, 3, nerva::Swapped);  // already so
  EXPECT_EQ(in.DataIncrement(0), static_cast<long>(h));
}

// A second moving reformat reads the source again, with the metadata of the
// first result: back to KORVAL from the swapped copy transposes the source as
// if it were the swapped layout. The own block is reused as the destination.
TEST(InputReformat, SecondReformatReadsTheSourceWithCurrentMetadata) {
  Pooled p;
  constexpr std::size_t w = 5, h = 3;
  auto src = korval_elements<float>(w, h, 1, 1);
  const std::size_t sizes[2] = {w, h};
  FormattedInputArray<float> in(p.pool, src.data(), sizes, 2, 2, 2, 3, nullptr);
  in.Reformat(2, 3, nerva::Swapped);
  const float* copy = in.Data();
  in.Reformat(nerva::KORVALFormat);  // channel and observation in place, order not
  EXPECT_TRUE(in.IsInKORVALFormat());
  ASSERT_EQ(in.Data(), copy);
  for (std::size_t y = 0; y < h; ++y)
    for (std::size_t x = 0; x < w; ++x) ASSERT_EQ(in.Data()[x + w * y], src[y + h * x]);
}

// An order byte other than 0 and 1 never matches the current order: the data
// move even at the current positions, in order.
TEST(InputReformat, UnknownOrderByteMovesInOrder) {
  Pooled p;
  auto src = korval_elements<unsigned char>(4, 3, 2, 1);
  const std::size_t sizes[3] = {4, 3, 2};
  FormattedInputArray<unsigned char> in(p.pool, src.data(), sizes, 3, 2, 2, 3, nullptr);
  in.Reformat(2, 3, static_cast<FirstDataDims>(2));
  ASSERT_NE(in.Data(), src.data());
  EXPECT_TRUE(in.IsInKORVALFormat());
  EXPECT_EQ(std::vector<unsigned char>(in.Data(), in.Data() + src.size()), src);
}

// Data extents 1 and the channel/observation order kept: metadata only; an
// existing own block goes back to the pool and Data() is the source again.
TEST(InputReformat, ExtentOneKeepsTheSource) {
  Pooled p;
  auto src = korval_elements<float>(1, 1, 64, 32);  // 8 KiB
  const std::size_t sizes[4] = {1, 1, 64, 32};
  FormattedInputArray<float> in(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(nerva::ChainedFormat);
  EXPECT_TRUE(in.IsInChainedFormat());
  EXPECT_EQ(in.Data(), src.data());
  EXPECT_EQ(in.Relinquish(), nullptr);

  in.Reformat(1, 0, nerva::InOrder);  // order of the pair changes: moves
  const float* own = in.Data();
  ASSERT_NE(own, src.data());
  EXPECT_EQ(own[1], value<float>(0, 0, 0, 1));
  in.Reformat(3, 2, nerva::InOrder);  // order kept: metadata only
  EXPECT_EQ(in.Data(), src.data());
  EXPECT_EQ(in.ChannelDimension(), 3u);
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{const_cast<float*>(own)});
}

TEST(InputReformat, ZeroElementsChangeOnlyTheMap) {
  Pooled p;
  const std::size_t sizes[4] = {5, 0, 3, 2};
  FormattedInputArray<double> in(p.pool, nullptr, sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(nerva::ChainedFormat);
  EXPECT_TRUE(in.IsInChainedFormat());
  EXPECT_EQ(in.Data(), nullptr);
  EXPECT_EQ(in.DataIncrement(0), 6);
  EXPECT_EQ(counting::live_blocks(), 1u);
}

}  // namespace
