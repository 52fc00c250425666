#include "copy/simple_copy.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <vector>

#include "support/cancelled_group.hpp"

namespace {

using support::run_in_cancelled_group;

// Runs of G (one chunk), G + 1 and 3G + 5 elements: every element is right and
// nothing past the run changes; inside a cancelled task group only the serial
// path, up to G, still writes.
template <class T>
void check_copy(std::size_t G) {
  for (std::size_t n : {G, G + 1, 3 * G + 5}) {
    std::vector<T> src(n), dst(n + 1, T(0));
    for (std::size_t i = 0; i < n; ++i) src[i] = static_cast<T>(i % 251 + 1);
    nerva::execute_simple_copy<T>(dst.data(), src.data(), n);
    EXPECT_TRUE(std::equal(src.begin(), src.end(), dst.begin()) && dst[n] == T(0)) << n;
    dst[0] = T(0);
    run_in_cancelled_group([&] { nerva::execute_simple_copy<T>(dst.data(), src.data(), n); });
    EXPECT_EQ(dst[0] == src[0], n <= G) << "serial path for n " << n;
  }
}

template <class T>
void check_fill(std::size_t G) {
  for (std::size_t n : {G, G + 1, 3 * G + 5}) {
    std::vector<T> data(n + 1, T(99));
    nerva::execute_simple_fill<T>(data.data(), n, T(7));
    EXPECT_TRUE(std::count(data.begin(), data.end() - 1, T(7)) == long(n) && data[n] == T(99)) << n;
    data[0] = T(99);
    run_in_cancelled_group([&] { nerva::execute_simple_fill<T>(data.data(), n, T(7)); });
    EXPECT_EQ(data[0] == T(7), n <= G) << "serial path for n " << n;
  }
}

// Chunks of 128 KiB for copies and 256 KiB for fills, by element width.
TEST(SimpleCopyAndFill, GrainBoundaries) {
  check_copy<unsigned char>(131072);
  check_copy<float>(32768);
  check_copy<double>(16384);
  check_fill<unsigned char>(262144);
  check_fill<float>(65536);
  check_fill<double>(32768);
  check_fill<long>(32768);
  nerva::execute_simple_copy<float>(nullptr, nullptr, 0);  // zero elements touch nothing
  nerva::execute_simple_fill<long>(nullptr, 0, 1);
}

}  // namespace
