#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "nerva/copy.hpp"
#include "tbb_probe.hpp"

namespace {

// Destination after the copy, written the plain way: walk every index of the
// destination; those inside both arrays take the source group, the others
// keep what was there.
template <class T>
std::vector<T> reference_corner(std::vector<T> const& src, std::vector<std::size_t> const& ss,
                                std::vector<T> dst, std::vector<std::size_t> const& ds,
                                std::size_t group) {
  std::size_t const dims = ss.size();
  std::size_t total = 1;
  for (std::size_t e : ds) total *= e;
  std::vector<std::size_t> at(dims, 0);
  for (std::size_t g = 0; g < total; ++g) {
    std::size_t rest = g;
    bool inside = true;
    for (std::size_t i = 0; i < dims; ++i) {
      at[i] = rest % ds[i];
      rest /= ds[i];
      inside = inside && at[i] < ss[i];
    }
    if (!inside) continue;
    std::size_t s = 0;
    for (std::size_t i = dims; i-- > 0;) s = s * ss[i] + at[i];
    for (std::size_t e = 0; e < group; ++e) dst[g * group + e] = src[s * group + e];
  }
  return dst;
}

template <class T>
class RangedCopy : public ::testing::Test {};
using Types = ::testing::Types<unsigned char, float, double, long>;
TYPED_TEST_SUITE(RangedCopy, Types);

std::size_t product(std::vector<std::size_t> const& v) {
  std::size_t n = 1;
  for (std::size_t e : v) n *= e;
  return n;
}

TYPED_TEST(RangedCopy, RandomExtentPairsCopyOnlyTheCommonCorner) {
  using T = TypeParam;
  std::mt19937 rng(7);
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  for (int round = 0; round < 300; ++round) {
    std::size_t const level = pick(0, 3);
    std::size_t const group = pick(1, 5);
    std::vector<std::size_t> ss(level + 1), ds(level + 1);
    for (std::size_t i = 0; i <= level; ++i) {
      ss[i] = pick(0, 11);
      // grow, shrink or keep; an occasional zero on either side
      ds[i] = pick(0, 9) == 0 ? 0 : std::max<std::size_t>(1, ss[i] + pick(0, 6)) - pick(0, 1);
      if (ds[i] > 3 && pick(0, 1) == 0) ds[i] -= 3;
    }
    std::vector<T> src(product(ss) * group);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i % 200 + 1);
    std::vector<T> dst(product(ds) * group);
    for (std::size_t i = 0; i < dst.size(); ++i) dst[i] = static_cast<T>(250 - i % 40);
    std::vector<T> const expected = reference_corner(src, ss, dst, ds, group);
    nerva::ranged_copy<T>(src.data(), ss.data(), dst.data(), ds.data(), level,
                          static_cast<long>(group));
    ASSERT_EQ(dst, expected) << "round " << round << " level " << level;
  }
}

// An extent of 0 anywhere copies nothing and never enters TBB at that level.
TEST(RangedCopyEmpty, ZeroExtentReturnsBeforeAnyWork) {
  std::size_t const ss[3] = {4, 0, 3}, ds[3] = {4, 5, 3};
  std::vector<float> src(48, 1.0f), dst(60, 0.0f);
  nerva::ranged_copy<float>(src.data(), ss, dst.data(), ds, 2, 1);
  EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](float v) { return v == 0.0f; }));
  std::size_t const none = 0, some = 5;
  nerva::ranged_copy<float>(nullptr, &none, nullptr, &some, 0, 1);
  nerva::ranged_copy<float>(nullptr, &some, nullptr, &none, 0, 1);
}

// Every non-empty level runs through TBB: inside a cancelled group nothing moves.
TEST(RangedCopyEmpty, EveryCopyRunsThroughTbb) {
  std::size_t const rows = 3;
  std::vector<long> src(6, 5), dst(6, 0);
  run_in_cancelled_group(
      [&] { nerva::ranged_copy<long>(src.data(), &rows, dst.data(), &rows, 0, 2); });
  EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](long v) { return v == 0; }));
}

}  // namespace
