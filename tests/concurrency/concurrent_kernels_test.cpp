#include <gtest/gtest.h>

#include <cstddef>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "copy/simple_copy.hpp"
#include "gemm/gemm_reference.hpp"
#include "nerva/copy.hpp"
#include "nerva/memory.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

// The TBB kernels and tbb_gemm called from several host threads at once, each on its own data,
// the strided copies sharing one pool. Every result is checked against a naive loop; the
// thread-sanitized build checks that nothing is shared by accident.
namespace {

template <class T>
std::vector<T> ramp(std::size_t n, int seed) {
  std::vector<T> v(n);
  std::iota(v.begin(), v.end(), static_cast<T>(seed));
  return v;
}

// Above every grain, so each call runs a parallel_for of its own.
void simple_copy_and_fill(int t) {
  std::size_t const n = 300000 + static_cast<std::size_t>(t) * 1000;
  auto const src = ramp<float>(n, t);
  std::vector<float> dst(n, -1.0f);
  nerva::execute_simple_copy<float>(dst.data(), src.data(), n);
  EXPECT_TRUE(dst == src) << "simple copy";
  std::vector<long> longs(n, 5);
  nerva::execute_simple_fill<long>(longs.data(), n, t);
  EXPECT_TRUE(longs == std::vector<long>(n, t)) << "fill";
}

void strided_copy(nerva::SharedMemoryPool& pool, std::mt19937& rng, std::size_t channelDim) {
  Selection const s = random_selection(rng, 3, 40, 6);
  std::vector<std::size_t> const offsets = reference_offsets(s);
  std::size_t const k = offsets.size(), planes = s.planes();
  auto const src = ramp<double>(s.planeSize() * planes, 3);
  auto block =
      nerva::strided_copy<double>(pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                  s.increments.data(), s.numDims(), channelDim, nullptr);
  std::vector<double> want(k * planes);
  for (std::size_t p = 0; p < planes; ++p)
    for (std::size_t j = 0; j < k; ++j)
      if (channelDim != 0)
        want[p * k + j] = src[p * s.planeSize() + offsets[j]];
      else
        want[j * planes + p] = src[offsets[j] * planes + p];
  auto const* got = static_cast<double const*>(block->data);
  EXPECT_TRUE(std::equal(want.begin(), want.end(), got)) << "strided copy";
  pool.checkin(std::move(block));
}

// Element (g, i0, i1, ...) of the destination is copied when every index is inside both.
void ranged_copy(std::mt19937& rng) {
  auto pick = [&rng](std::size_t lo, std::size_t hi) {
    return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
  };
  std::size_t const dims = pick(1, 3), group = pick(1, 5);
  std::vector<std::size_t> srcSizes(dims), dstSizes(dims);
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < dims; ++i) {
    srcTotal *= srcSizes[i] = pick(0, 24);
    dstTotal *= dstSizes[i] = pick(0, 24);
  }
  auto const src = ramp<long>(srcTotal, 1);
  std::vector<long> dst(dstTotal, -7), want(dstTotal, -7);
  nerva::ranged_copy<long>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), dims - 1,
                           static_cast<long>(group));
  for (std::size_t e = 0; e < dstTotal; ++e) {
    std::size_t rest = e / group, at = e % group, pitch = group;
    bool inside = true;
    for (std::size_t i = 0; i < dims; ++i) {
      std::size_t const idx = rest % dstSizes[i];
      rest /= dstSizes[i];
      inside = inside && idx < srcSizes[i];
      at += idx * pitch;
      pitch *= srcSizes[i];
    }
    if (inside) want[e] = src[at];
  }
  EXPECT_TRUE(dst == want) << "ranged copy";
}

TEST(ConcurrentKernels, SeveralThreadsMatchNaiveLoops) {
  counting::LeakCheck check;
  constexpr int kThreads = 4;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error, kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&pool, t] {
      std::mt19937 rng(1234 + t);
      for (std::size_t round = 0; round < 4; ++round) {
        simple_copy_and_fill(t);
        strided_copy(pool, rng, round % 2);  // both gather paths
        ranged_copy(rng);
      }
      // Larger than one block both ways for float (256); the last argument is ignored.
      gemm_test::Problem<float> p('N', 'N', 300 + t, 270, 17 + t, 0, static_cast<unsigned>(t));
      auto const want = gemm_test::reference(p, 2.0f, 1.0f);
      p.multiply(2, 9, true);
      EXPECT_TRUE(p.C == want) << "tbb_gemm";
    });
  for (auto& th : threads) th.join();
}

}  // namespace
