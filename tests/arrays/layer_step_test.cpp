#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"

// One layer step from entry to end: wrap a KORVAL input, reformat it to the
// chained format, make a strided and padded output with Zeros, write its data
// region, bring the output back to KORVAL and take the result. Every element
// is checked against plain index arithmetic, and the pool's idle list shows
// where each data block went. The second step must run on pooled memory.

namespace {

using namespace nerva;
using namespace arrays_test;

// Input: W x H data, C channels, N observations (4096 elements, so that the
// data blocks of every element type reach the pool).
constexpr std::size_t W = 32, H = 16, C = 4, N = 2;
// Output: every second position of [1, 31) x [0, 16), padding (1, 1) before
// and (2, 0) after, K channels; CX x CY data positions in an X x Y buffer.
constexpr std::size_t K = 16, CX = 15, CY = 8, X = 1 + CX + 2, Y = 1 + CY;
constexpr std::size_t kFirsts[2] = {1, 0}, kLasts[2] = {31, 16}, kStrides[2] = {2, 2};
constexpr std::size_t kPadding[4] = {1, 1, 2, 0};

// The layer's output at padded position (x, y): input channel k % C at the
// sampled input position, plus k; zero in the padding.
template <typename T>
T expected(std::size_t x, std::size_t y, std::size_t k, std::size_t b) {
  if (x < 1 || x > CX || y < 1 || y > CY) return T(0);
  return static_cast<T>(value<T>(2 * x - 1, 2 * (y - 1), k % C, b) + static_cast<T>(k));
}

// Runs the step; returns the result, and where the input's own copy and the
// chained output buffer were.
template <typename T>
void run_step(SharedMemoryPool& pool, std::vector<T> const& korval, void* where[2],
              std::unique_ptr<CNNMemoryBlock>& result) {
  const std::size_t in_sizes[4] = {W, H, C, N};
  FormattedInputArray<T> in(pool, korval.data(), in_sizes, 4, 2, 2, 3, nullptr);
  in.Reformat(ChainedFormat);
  const T* src = in.Data();
  where[0] = const_cast<T*>(src);
  for (std::size_t i = 0; i < W * H * C * N; ++i)
    ASSERT_EQ(src[i], value<T>(i / (C * N) % W, i / (C * N * W), i % C, i / C % N)) << i;

  FormattedOutputArray<T> out(pool, kFirsts, kLasts, kStrides, 2, K, N, 0, 1, kPadding, Zeros);
  where[1] = out.Data();
  T* region = out.UnpaddedData();
  for (std::size_t j = 0; j < CY; ++j)
    for (std::size_t i = 0; i < CX; ++i)
      for (std::size_t b = 0; b < N; ++b)
        for (std::size_t k = 0; k < K; ++k) {
          const std::size_t x = 1 + 2 * i, y = 2 * j;
          region[static_cast<long>(i) * out.DataIncrement(0) +
                 static_cast<long>(j) * out.DataIncrement(1) +
                 static_cast<long>(k * out.ChannelIncrement() + b * out.ObservationIncrement())] =
              static_cast<T>(src[k % C + C * (b + N * (x + W * y))] + static_cast<T>(k));
        }

  out.Reformat(KORVALFormat);
  result = out.Relinquish();
  EXPECT_EQ(static_cast<void*>(out.Data()), where[1]);  // the spare is left
}

template <typename T>
void check_result(CNNMemoryBlock const& block) {
  ASSERT_EQ(block.allocated_size(), X * Y * K * N * sizeof(T));
  const T* data = static_cast<const T*>(block.data);
  for (std::size_t i = 0; i < X * Y * K * N; ++i)
    ASSERT_EQ(data[i], expected<T>(i % X, i / X % Y, i / (X * Y) % K, i / (X * Y * K))) << i;
}

template <typename T>
class LayerStep : public ::testing::Test {};
using InputTypes = ::testing::Types<float, double, unsigned char>;
TYPED_TEST_SUITE(LayerStep, InputTypes);

TYPED_TEST(LayerStep, EndToEndAndBlocksReturnToThePool) {
  using T = TypeParam;
  Pooled p;
  const std::vector<T> src = korval<T>(W, H, C, N);

  void* first[2];
  std::unique_ptr<CNNMemoryBlock> result;
  run_step<T>(p.pool, src, first, result);
  ASSERT_NE(result, nullptr);
  check_result<T>(*result);
  // The output's spare first, then the input's copy; metadata, bounds and
  // temporary tables were all freed.
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{first[1], first[0]}));
  EXPECT_EQ(counting::live_blocks(), 3u);

  // The host gives the result back; the next step runs on pooled memory only
  // (a fresh data-sized block would fail) and the zero fill clears the
  // recycled buffer.
  p.pool.checkin(std::move(result));
  counting::fail_above(4095);
  void* second[2];
  run_step<T>(p.pool, src, second, result);
  ASSERT_NE(result, nullptr);
  check_result<T>(*result);
  counting::fail_above(SIZE_MAX);
  EXPECT_EQ(counting::stats().failures, 0u);
  EXPECT_EQ(counting::live_blocks(), 3u);
}

}  // namespace
