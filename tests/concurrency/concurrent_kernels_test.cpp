#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "copy/simple_copy.hpp"
#include "nerva/copy.hpp"
#include "nerva/memory.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

// The TBB kernels called from several host threads at once, each on its own
// data, sharing one pool. Every thread checks its results against a naive
// loop; the thread-sanitized build checks that nothing is shared by accident.
namespace {

using nerva::SharedMemoryPool;

constexpr int kThreads = 4;
constexpr int kRounds = 3;

// Runs body(thread index) on kThreads threads and joins them. Failures are
// counted per thread and reported from the calling thread.
void on_threads(std::function<int(int)> const& body) {
  std::vector<int> failures(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { failures[t] = body(t); });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
}

template <class T>
std::vector<T> ramp(std::size_t n, unsigned seed) {
  std::vector<T> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<T>((i * 7 + seed) % 251);
  return v;
}

TEST(ConcurrentKernels, SimpleCopyAndFillOnDisjointRuns) {
  on_threads([](int t) {
    int bad = 0;
    for (int round = 0; round < kRounds; ++round) {
      // Above every grain, so each call runs a parallel_for of its own.
      std::size_t const n = 300000 + static_cast<std::size_t>(t) * 1000;
      auto const src = ramp<float>(n, static_cast<unsigned>(t + round));
      std::vector<float> dst(n, -1.0f);
      nerva::execute_simple_copy<float>(dst.data(), src.data(), n);
      bad += dst != src;

      std::vector<unsigned char> bytes(n, 0xAA);
      nerva::execute_simple_fill<unsigned char>(bytes.data(), n, 0);
      for (unsigned char b : bytes) bad += b != 0;

      std::vector<long> longs(n, 5);
      nerva::execute_simple_fill<long>(longs.data(), n, static_cast<long>(t));
      for (long x : longs) bad += x != t;
    }
    return bad;
  });
}

TEST(ConcurrentKernels, StridedCopyBothLayoutsSharingOnePool) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, kThreads);
  on_threads([&pool](int t) {
    int bad = 0;
    std::mt19937 rng(1234 + t);
    for (int round = 0; round < 2 * kRounds; ++round) {
      Selection const s = random_selection(rng, 3, 40, 6);
      std::vector<std::size_t> const offsets = reference_offsets(s);
      std::size_t const total = s.planeSize() * s.planes();
      auto const src = ramp<double>(total, static_cast<unsigned>(round));
      std::size_t const channelDim = round % 2;  // both gather paths
      auto block = nerva::strided_copy<double>(pool, src.data(), s.sizes.data(), s.firsts.data(),
                                               s.lasts.data(), s.increments.data(), s.numDims(),
                                               channelDim, nullptr);
      auto const* got = static_cast<double const*>(block->data);
      std::size_t const k = offsets.size(), planes = s.planes();
      for (std::size_t p = 0; p < planes; ++p)
        for (std::size_t j = 0; j < k; ++j) {
          double const want =
              channelDim != 0 ? src[p * s.planeSize() + offsets[j]] : src[offsets[j] * planes + p];
          double const have = channelDim != 0 ? got[p * k + j] : got[j * planes + p];
          bad += have != want;
        }
      pool.checkin(std::move(block));
    }
    return bad;
  });
}

TEST(ConcurrentKernels, RangedCopyIntoDisjointBuffers) {
  on_threads([](int t) {
    int bad = 0;
    std::mt19937 rng(99 + t);
    auto pick = [&rng](std::size_t lo, std::size_t hi) {
      return std::uniform_int_distribution<std::size_t>(lo, hi)(rng);
    };
    for (int round = 0; round < kRounds; ++round) {
      std::size_t const dims = pick(1, 3);
      long const group = static_cast<long>(pick(1, 5));
      std::vector<std::size_t> srcSizes(dims), dstSizes(dims);
      std::size_t srcTotal = static_cast<std::size_t>(group), dstTotal = srcTotal;
      for (std::size_t i = 0; i < dims; ++i) {
        srcSizes[i] = pick(0, 24);
        dstSizes[i] = pick(0, 24);
        srcTotal *= srcSizes[i];
        dstTotal *= dstSizes[i];
      }
      auto const src = ramp<long>(srcTotal, static_cast<unsigned>(t));
      std::vector<long> dst(dstTotal, -7);
      nerva::ranged_copy<long>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), dims - 1,
                               group);
      // Element (g, i0, i1, ...) is copied when every index is inside both.
      for (std::size_t e = 0; e < dstTotal; ++e) {
        std::size_t rest = e / static_cast<std::size_t>(group);
        std::size_t srcIndex = 0, pitch = static_cast<std::size_t>(group);
        bool inside = true;
        for (std::size_t i = 0; i < dims; ++i) {
          std::size_t const idx = rest % dstSizes[i];
          rest /= dstSizes[i];
          inside = inside && idx < srcSizes[i];
          srcIndex += idx * pitch;
          pitch *= srcSizes[i];
        }
        srcIndex += e % static_cast<std::size_t>(group);
        bad += dst[e] != (inside ? src[srcIndex] : -7);
      }
    }
    return bad;
  });
}

}  // namespace
