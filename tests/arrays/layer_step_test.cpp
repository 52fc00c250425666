#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

// One layer step from entry to end: wrap a KORVAL input, reformat it to the
// chained format, make a strided and padded output with Zeros, write the data
// region, bring the output back to KORVAL, take the result and destroy the
// arrays. Every element is checked against plain index arithmetic, and the
// pool's idle list shows where each data block went.

namespace {

using arrays_test::idle_data;
using arrays_test::idle_sizes;
using arrays_test::value;
using nerva::FormattedInputArray;
using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

// Input: W x H data, C channels, N observations (4096 elements, so that the
// data blocks of every element type reach the pool).
constexpr std::size_t W = 32, H = 16, C = 4, N = 2;
// Output: every second position of [1, 31) x [0, 16), padding (1, 1) before
// and (2, 0) after, K channels.
constexpr std::size_t K = 16;
constexpr std::size_t kFirsts[2] = {1, 0}, kLasts[2] = {31, 16}, kStrides[2] = {2, 2};
constexpr std::size_t kPadding[4] = {1, 1, 2, 0};
constexpr std::size_t CX = 15, CY = 8;             // data positions per dimension
constexpr std::size_t X = 1 + CX + 2, Y = 1 + CY;  // padded output extents

template <typename T>
T output_value(std::size_t i, std::size_t j, std::size_t k, std::size_t b) {
  const std::size_t x = kFirsts[0] + i * kStrides[0], y = kFirsts[1] + j * kStrides[1];
  return static_cast<T>(value<T>(x, y, k % C, b) + static_cast<T>(k));
}

template <typename T>
struct Step {
  void* out_chained = nullptr;  // output buffer written in the chained format
  void* in_chained = nullptr;   // the input's reformatted copy
  std::unique_ptr<nerva::CNNMemoryBlock> result;
};

// Runs the step and checks everything that can be checked while the arrays
// live; the arrays are destroyed on return.
template <typename T>
void run_step(SharedMemoryPool& pool, std::vector<T> const& korval, Step<T>& step) {
  const std::size_t in_sizes[4] = {W, H, C, N};
  FormattedInputArray<T> in(pool, korval.data(), in_sizes, 4, 2, 2, 3, nullptr);
  EXPECT_TRUE(in.IsInKORVALFormat());
  EXPECT_EQ(in.Data(), korval.data());

  in.Reformat(nerva::ChainedFormat);
  EXPECT_TRUE(in.IsInChainedFormat());
  EXPECT_NE(in.Data(), korval.data());
  step.in_chained = const_cast<T*>(in.Data());
  for (std::size_t y = 0; y < H; ++y)
    for (std::size_t x = 0; x < W; ++x)
      for (std::size_t b = 0; b < N; ++b)
        for (std::size_t c = 0; c < C; ++c)
          ASSERT_EQ(in.Data()[c + C * (b + N * (x + W * y))], value<T>(x, y, c, b));

  FormattedOutputArray<T> out(pool, kFirsts, kLasts, kStrides, 2, K, N, 0, 1, kPadding,
                              nerva::Zeros);
  EXPECT_TRUE(out.IsInChainedFormat());
  EXPECT_EQ(out.DataSize(0), X);
  EXPECT_EQ(out.DataSize(1), Y);
  EXPECT_EQ(out.TotalNumElem(), X * Y * K * N);
  step.out_chained = out.Data();

  // The layer's kernel: reads the chained input, writes the data region.
  T* region = out.UnpaddedData();
  const T* src = in.Data();
  for (std::size_t j = 0; j < CY; ++j)
    for (std::size_t i = 0; i < CX; ++i)
      for (std::size_t b = 0; b < N; ++b)
        for (std::size_t k = 0; k < K; ++k) {
          const std::size_t x = kFirsts[0] + i * kStrides[0], y = kFirsts[1] + j * kStrides[1];
          T* at = region + static_cast<long>(i) * out.DataIncrement(0) +
                  static_cast<long>(j) * out.DataIncrement(1) +
                  static_cast<long>(k * out.ChannelIncrement() + b * out.ObservationIncrement());
          *at = static_cast<T>(src[k % C + C * (b + N * (x + W * y))] + static_cast<T>(k));
        }

  out.Reformat(nerva::KORVALFormat);
  EXPECT_TRUE(out.IsInKORVALFormat());
  EXPECT_NE(static_cast<void*>(out.Data()), step.out_chained);
  step.result = out.Relinquish();
  EXPECT_EQ(static_cast<void*>(out.Data()), step.out_chained);  // the spare is left
}

template <typename T>
void check_result(nerva::CNNMemoryBlock const& block) {
  ASSERT_EQ(block.allocated_size(), X * Y * K * N * sizeof(T));
  const T* data = static_cast<const T*>(block.data);
  for (std::size_t b = 0; b < N; ++b)
    for (std::size_t k = 0; k < K; ++k)
      for (std::size_t y = 0; y < Y; ++y)
        for (std::size_t x = 0; x < X; ++x) {
          const bool inside = x >= 1 && x < 1 + CX && y >= 1 && y < 1 + CY;
          const T expected = inside ? output_value<T>(x - 1, y - 1, k, b) : T(0);
          ASSERT_EQ(data[x + X * (y + Y * (k + K * b))], expected)
              << "x " << x << " y " << y << " k " << k << " b " << b;
        }
}

template <typename T>
class LayerStep : public ::testing::Test {};
using InputTypes = ::testing::Types<float, double, unsigned char>;
TYPED_TEST_SUITE(LayerStep, InputTypes);

TYPED_TEST(LayerStep, EndToEndAndBlocksReturnToThePool) {
  using T = TypeParam;
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::vector<T> korval(W * H * C * N);
  for (std::size_t b = 0; b < N; ++b)
    for (std::size_t c = 0; c < C; ++c)
      for (std::size_t y = 0; y < H; ++y)
        for (std::size_t x = 0; x < W; ++x)
          korval[x + W * (y + H * (c + C * b))] = value<T>(x, y, c, b);

  const std::size_t in_bytes = W * H * C * N * sizeof(T);
  const std::size_t out_bytes = X * Y * K * N * sizeof(T);

  Step<T> first;
  run_step<T>(pool, korval, first);
  ASSERT_NE(first.result, nullptr);
  check_result<T>(*first.result);
  // Output first (its spare), then the input's reformatted copy; metadata,
  // bounds and temporary tables were all freed.
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{out_bytes, in_bytes}));
  EXPECT_EQ(idle_data(pool), (std::vector<void*>{first.out_chained, first.in_chained}));
  EXPECT_EQ(counting::live_blocks(), 3u);

  // The host gives the result back; the next step runs on pooled memory only
  // (any allocation of a data-sized block would fail) and the zero fill
  // clears the recycled buffers.
  pool.checkin(std::move(first.result));
  counting::fail_above(4095);
  Step<T> second;
  run_step<T>(pool, korval, second);
  ASSERT_NE(second.result, nullptr);
  check_result<T>(*second.result);
  counting::fail_above(SIZE_MAX);
  EXPECT_EQ(counting::stats().failures, 0u);
  EXPECT_EQ(counting::live_blocks(), 3u);
  EXPECT_EQ(pool.blocks.size(), 2u);
}

// Outputs of `long` take part in the same way, without an input array.
TEST(LayerStepLong, ZerosWriteReformatRelinquish) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::unique_ptr<nerva::CNNMemoryBlock> result;
  void* chained = nullptr;
  {
    FormattedOutputArray<long> out(pool, kFirsts, kLasts, kStrides, 2, K, N, 0, 1, kPadding,
                                   nerva::Zeros);
    chained = out.Data();
    long* region = out.UnpaddedData();
    for (std::size_t j = 0; j < CY; ++j)
      for (std::size_t i = 0; i < CX; ++i)
        for (std::size_t b = 0; b < N; ++b)
          for (std::size_t k = 0; k < K; ++k)
            region[k + K * (b + N * (i + X * j))] = output_value<long>(i, j, k, b);
    out.Reformat(nerva::KORVALFormat);
    result = out.Relinquish();
  }
  check_result<long>(*result);
  EXPECT_EQ(idle_data(pool), std::vector<void*>{chained});
}

}  // namespace
