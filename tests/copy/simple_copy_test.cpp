#include "copy/simple_copy.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>
#include <vector>

#include "support/cancelled_group.hpp"

namespace {

// Runs of G (one chunk: 128 KiB for copies, 256 KiB for fills), G + 1 and 3G + 5 elements:
// every element is right and nothing past the run changes; inside a cancelled task group only the
// serial path, up to G, still writes.
template <class T, bool Fill>
void check() {
  std::size_t const G = (Fill ? 262144 : 131072) / sizeof(T);
  for (std::size_t n : {G, G + 1, 3 * G + 5}) {
    std::vector<T> src(n + 1, T(0)), dst(n + 1, T(99));
    for (std::size_t i = 0; i < n; ++i) src[i] = Fill ? T(7) : static_cast<T>(i % 251 + 1);
    auto run = [&] {
      if constexpr (Fill) {
        nerva::execute_simple_fill<T>(dst.data(), n, T(7));
      } else {
        nerva::execute_simple_copy<T>(dst.data(), src.data(), n);
      }
    };
    run();
    src[n] = T(99);  // past the run: a copy of one more element would have brought 0
    EXPECT_TRUE(dst == src) << n;
    dst[0] = T(0);
    support::run_in_cancelled_group(run);
    EXPECT_EQ(dst[0] == src[0], n <= G) << "serial path for n " << n;
  }
}

template <bool Fill, class... Ts>
void check_each() {
  (check<Ts, Fill>(), ...);
}

// Copies and fills large enough for non-temporal stores, the destination one
// element past a 16-byte boundary and the source three, ending mid-word: head,
// words and tail all arrive and the neighbours keep their values.
template <class... Ts>
void check_streamed() {
  auto one = [](auto zero) {
    using T = decltype(zero);
    std::size_t const n = nerva::detail::kStreamBytes / sizeof(T) + 3;
    std::vector<T> src(n + 3), buf(n + 2, T(99));
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i % 251 + 1);
    nerva::execute_simple_fill<T>(buf.data() + 1, n, T(7));
    std::size_t wrong = 0;
    for (std::size_t i = 1; i <= n; ++i) wrong += buf[i] != T(7);
    EXPECT_EQ(wrong, 0u) << sizeof(T);
    if constexpr (!std::is_same_v<T, long>) {  // no copy of longs
      nerva::execute_simple_copy<T>(buf.data() + 1, src.data() + 3, n);
      for (std::size_t i = 1; i <= n; ++i) wrong += buf[i] != src[i + 2];
      EXPECT_EQ(wrong, 0u) << sizeof(T);
    }
    EXPECT_EQ(buf[0], T(99));
    EXPECT_EQ(buf[n + 1], T(99));
  };
  (one(Ts(0)), ...);
}

TEST(SimpleCopyAndFill, GrainBoundaries) {
  check_each<false, unsigned char, float, double>();
  check_each<true, unsigned char, float, double, long>();
  nerva::execute_simple_copy<float>(nullptr, nullptr, 0);  // zero elements touch nothing
  nerva::execute_simple_fill<long>(nullptr, 0, 1);
  check_streamed<unsigned char, float, double, long>();
}

}  // namespace
