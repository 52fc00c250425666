#include "copy/simple_copy.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "tbb_probe.hpp"

namespace {

template <class T>
T pattern(std::size_t i) {
  return static_cast<T>(i % 251 + 1);
}

// The chunk sizes the kernels must use, written out independently of the
// library's table: 128 KiB per copy chunk, 256 KiB per fill chunk.
template <class T>
constexpr std::size_t copy_grain() {
  return 131072 / sizeof(T);
}
template <class T>
constexpr std::size_t fill_grain() {
  return 262144 / sizeof(T);
}

template <class T>
class SimpleCopy : public ::testing::Test {};
using CopyTypes = ::testing::Types<unsigned char, float, double>;
TYPED_TEST_SUITE(SimpleCopy, CopyTypes);

template <class T>
class SimpleFill : public ::testing::Test {};
using FillTypes = ::testing::Types<unsigned char, float, double, long>;
TYPED_TEST_SUITE(SimpleFill, FillTypes);

// Copies n elements into a buffer with a guard tail and checks both.
template <class T>
void check_copy(std::size_t n) {
  std::vector<T> src(n);
  for (std::size_t i = 0; i < n; ++i) src[i] = pattern<T>(i);
  std::vector<T> dst(n + 8, T(0));
  nerva::execute_simple_copy<T>(dst.data(), src.data(), n);
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(dst[i], src[i]) << "n " << n << " at " << i;
  for (std::size_t i = n; i < n + 8; ++i) ASSERT_EQ(dst[i], T(0)) << "written past n " << n;
}

template <class T>
void check_fill(std::size_t n, T value) {
  std::vector<T> data(n + 8, T(99));
  nerva::execute_simple_fill<T>(data.data(), n, value);
  for (std::size_t i = 0; i < n; ++i) ASSERT_EQ(data[i], value) << "n " << n << " at " << i;
  for (std::size_t i = n; i < n + 8; ++i) ASSERT_EQ(data[i], T(99)) << "written past n " << n;
}

TYPED_TEST(SimpleCopy, CopiesExactlyTheRunAroundTheGrain) {
  using T = TypeParam;
  constexpr std::size_t G = copy_grain<T>();
  for (std::size_t n : {std::size_t{1}, std::size_t{7}, G - 1, G, G + 1, 2 * G + 3, 5 * G})
    check_copy<T>(n);
}

TYPED_TEST(SimpleCopy, ZeroElementsTouchNothing) {
  nerva::execute_simple_copy<TypeParam>(nullptr, nullptr, 0);
}

// A run of G elements never enters TBB; G + 1 does.
TYPED_TEST(SimpleCopy, SerialUpToTheGrainParallelAbove) {
  using T = TypeParam;
  constexpr std::size_t G = copy_grain<T>();
  std::vector<T> src(G + 1, T(5));
  std::vector<T> dst(G + 1, T(0));
  run_in_cancelled_group([&] { nerva::execute_simple_copy<T>(dst.data(), src.data(), G); });
  EXPECT_EQ(dst[0], T(5));
  EXPECT_EQ(dst[G - 1], T(5));
  std::fill(dst.begin(), dst.end(), T(0));
  run_in_cancelled_group([&] { nerva::execute_simple_copy<T>(dst.data(), src.data(), G + 1); });
  EXPECT_EQ(dst[0], T(0));
  EXPECT_EQ(dst[G], T(0));
}

TYPED_TEST(SimpleFill, FillsExactlyTheRunAroundTheGrain) {
  using T = TypeParam;
  constexpr std::size_t G = fill_grain<T>();
  for (std::size_t n : {std::size_t{1}, std::size_t{9}, G - 1, G, G + 1, 3 * G + 5}) {
    check_fill<T>(n, T(0));
    check_fill<T>(n, T(7));
  }
}

TYPED_TEST(SimpleFill, ZeroElementsTouchNothing) {
  nerva::execute_simple_fill<TypeParam>(nullptr, 0, TypeParam(0));
}

TYPED_TEST(SimpleFill, SerialUpToTheGrainParallelAbove) {
  using T = TypeParam;
  constexpr std::size_t G = fill_grain<T>();
  std::vector<T> data(G + 1, T(1));
  run_in_cancelled_group([&] { nerva::execute_simple_fill<T>(data.data(), G, T(0)); });
  EXPECT_EQ(data[0], T(0));
  EXPECT_EQ(data[G - 1], T(0));
  EXPECT_EQ(data[G], T(1));
  std::fill(data.begin(), data.end(), T(1));
  run_in_cancelled_group([&] { nerva::execute_simple_fill<T>(data.data(), G + 1, T(0)); });
  EXPECT_EQ(data[0], T(1));
  EXPECT_EQ(data[G], T(1));
}

}  // namespace
