#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using arrays_test::idle_data;
using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

// Element of a chained array (channel fastest, then observation, then the
// data dimensions in order) with extents `ext` (data dimensions only).
std::size_t chained_index(std::vector<std::size_t> const& ext, std::vector<std::size_t> const& at,
                          std::size_t c, std::size_t b, std::size_t C, std::size_t N) {
  std::size_t index = 0;
  for (std::size_t d = ext.size(); d-- > 0;) index = index * ext[d] + at[d];
  return c + C * (b + N * index);
}

template <typename T>
T element(std::vector<std::size_t> const& at, std::size_t c, std::size_t b) {
  std::size_t v = 1 + c * 3 + b * 5;
  for (std::size_t d = 0; d < at.size(); ++d) v += at[d] * (7 + 4 * d);
  return static_cast<T>(v % 249);
}

// Walks every index of extents `ext`.
template <typename F>
void for_each_index(std::vector<std::size_t> const& ext, F f) {
  std::size_t total = 1;
  for (std::size_t e : ext) total *= e;
  std::vector<std::size_t> at(ext.size());
  for (std::size_t k = 0; k < total; ++k) {
    std::size_t rest = k;
    for (std::size_t d = 0; d < ext.size(); ++d) {
      at[d] = rest % ext[d];
      rest /= ext[d];
    }
    f(at);
  }
}

template <typename T>
class SetDataRanges : public ::testing::Test {};
using OutputTypes = ::testing::Types<float, double, unsigned char, long>;
TYPED_TEST_SUITE(SetDataRanges, OutputTypes);

// Grows some dimensions and shrinks others; the common corner keeps its
// contents at the same indices, everything else is zero, and the old buffer
// goes back to the pool.
TYPED_TEST(SetDataRanges, GrowAndShrinkKeepTheCommonCorner) {
  using T = TypeParam;
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  constexpr std::size_t C = 3, N = 2;
  const std::vector<std::vector<std::size_t>> cases = {{24, 20}, {30, 12}, {30, 12, 3}, {20, 15, 5},
                                                       {4},      {6},      {4},         {1, 1, 1}};
  for (std::size_t which = 0; which + 1 < cases.size(); ++which) {
    const std::vector<std::size_t>& from = cases[which];
    const std::vector<std::size_t>& to = cases[which + 1];
    if (from.size() != to.size()) continue;
    const std::size_t n = from.size();
    pool.blocks.clear();
    FormattedOutputArray<T> out(pool, from.data(), n, C, N, 0, 1, nerva::Uninitialized);
    for_each_index(from, [&](std::vector<std::size_t> const& at) {
      for (std::size_t b = 0; b < N; ++b)
        for (std::size_t c = 0; c < C; ++c)
          out.Data()[chained_index(from, at, c, b, C, N)] = element<T>(at, c, b);
    });
    std::vector<long> increments(out.DataIncrements(), out.DataIncrements() + n);
    void* old = out.Data();
    const bool pooled = out.TotalNumElem() * sizeof(T) >= 4096;

    out.SetDataRanges(to.data());
    for (std::size_t d = 0; d < n; ++d) EXPECT_EQ(out.DataSize(d), to[d]);
    EXPECT_EQ(std::vector<long>(out.DataIncrements(), out.DataIncrements() + n), increments);
    EXPECT_NE(static_cast<void*>(out.Data()), old);
    EXPECT_EQ(pooled ? std::vector<void*>{old} : std::vector<void*>{}, idle_data(pool));
    for_each_index(to, [&](std::vector<std::size_t> const& at) {
      bool common = true;
      for (std::size_t d = 0; d < n; ++d) common = common && at[d] < from[d];
      for (std::size_t b = 0; b < N; ++b)
        for (std::size_t c = 0; c < C; ++c) {
          const T expected = common ? element<T>(at, c, b) : T(0);
          ASSERT_EQ(out.Data()[chained_index(to, at, c, b, C, N)], expected) << which;
        }
    });
    // The next setter of sizes recomputes everything from the bounds again.
    out.SetSizeArray(C, N);
    EXPECT_EQ(out.DataSize(0), from[0]);
  }
}

TEST(SetDataRangesSameSizes, DoesNothing) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  const std::size_t sizes[2] = {40, 40};
  FormattedOutputArray<float> out(pool, sizes, 2, 2, 2, 0, 1, nerva::Zeros);
  float* data = out.Data();
  const auto before = counting::stats();
  out.SetDataRanges(sizes);
  EXPECT_EQ(out.Data(), data);
  EXPECT_EQ(counting::stats().allocations, before.allocations);
  EXPECT_TRUE(pool.blocks.empty());

  // With no data dimensions there is never anything to do.
  FormattedOutputArray<float> scalar(pool, nullptr, 0, 4, 4, 0, 1, nerva::Zeros);
  scalar.SetDataRanges(nullptr);
  EXPECT_EQ(counting::stats().allocations, before.allocations + 3);
}

TEST(UnpaddedData, SkipsLeadingPaddingOnly) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  // Channel x observation groups of 8: data increment 8, padding {2, 1}.
  const std::size_t first = 0, last = 5, padding[2] = {2, 1};
  FormattedOutputArray<double> a(pool, &first, &last, nullptr, 1, 4, 2, 0, 1, padding,
                                 nerva::Zeros);
  EXPECT_EQ(a.DataIncrement(0), 8);
  EXPECT_EQ(a.DataSize(0), 8u);
  EXPECT_EQ(a.UnpaddedData(), a.Data() + 16);

  // Two dimensions, KORVAL: 2 x d0 increment + 3 x d1 increment.
  const std::size_t firsts[2] = {0, 0}, lasts[2] = {4, 4}, pad2[4] = {2, 3, 1, 1};
  FormattedOutputArray<long> b(pool, firsts, lasts, nullptr, 2, 1, 1, pad2, nerva::Zeros);
  EXPECT_EQ(b.DataSize(0), 7u);
  EXPECT_EQ(b.UnpaddedData(), b.Data() + 2 + 3 * 7);

  // Without padding the data region starts at the buffer.
  FormattedOutputArray<long> c(pool, firsts, lasts, nullptr, 2, 1, 1, nullptr, nerva::Zeros);
  EXPECT_EQ(c.UnpaddedData(), c.Data());
}

}  // namespace
