#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <vector>

#include "nerva/copy.hpp"

namespace {

template <class T>
class RangedCopy : public ::testing::Test {};
using Types = ::testing::Types<unsigned char, float, double, long>;
TYPED_TEST_SUITE(RangedCopy, Types);

// Random extent pairs, grown, shrunk or kept, now and then 0 on either side.
// The expected destination is written the plain way: of every destination
// index, those inside both arrays take the source group, the rest keep theirs.
TYPED_TEST(RangedCopy, RandomExtentPairsCopyOnlyTheCommonCorner) {
  using T = TypeParam;
  std::mt19937 rng(7);
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  for (int round = 0; round < 300; ++round) {
    std::size_t const level = pick(0, 3), group = pick(1, 5);
    std::vector<std::size_t> ss(level + 1), ds(level + 1);
    std::size_t srcCount = group, dstCount = group;
    for (std::size_t i = 0; i <= level; ++i) {
      ss[i] = pick(0, 11);
      ds[i] = pick(0, 9) == 0 ? 0 : ss[i] + pick(0, 6) - std::min(ss[i], pick(0, 4));
      srcCount *= ss[i];
      dstCount *= ds[i];
    }
    std::vector<T> src(srcCount), dst(dstCount);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i % 200 + 1);
    for (std::size_t i = 0; i < dst.size(); ++i) dst[i] = static_cast<T>(250 - i % 40);
    std::vector<T> expected = dst;
    for (std::size_t g = 0; g * group < dst.size(); ++g) {
      std::size_t rest = g, s = 0, stride = 1;
      bool inside = true;
      for (std::size_t i = 0; i <= level; ++i) {
        std::size_t const at = rest % ds[i];
        rest /= ds[i];
        inside = inside && at < ss[i];
        s += at * stride;
        stride *= ss[i];
      }
      if (inside) std::copy_n(src.begin() + s * group, group, expected.begin() + g * group);
    }
    nerva::ranged_copy<T>(src.data(), ss.data(), dst.data(), ds.data(), level, long(group));
    ASSERT_EQ(dst, expected) << "round " << round << " level " << level;
  }
}

}  // namespace
