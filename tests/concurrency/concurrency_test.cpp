#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "copy/simple_copy.hpp"
#include "gemm/gemm_reference.hpp"
#include "nerva/copy.hpp"
#include "nerva/memory.hpp"
#include "ranged_copy_reference.hpp"
#include "selection.hpp"
#include "support/counting_allocator.hpp"

// The kernels, tbb_gemm and the pool's wait protocol from several host threads at once; the
// thread-sanitized build checks that nothing is shared by accident.
namespace {

using nerva::CNNMemoryBlock;
using nerva::SharedMemoryPool;

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

void strided_copy(SharedMemoryPool& pool, std::mt19937& rng, std::size_t channelDim) {
  Selection const s = random_selection(rng);
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

void ranged_copy(std::mt19937& rng) {
  std::size_t const dims = 1 + rng() % 3, group = 1 + rng() % 5;
  std::vector<std::size_t> srcSizes(dims), dstSizes(dims);
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < dims; ++i) {
    srcTotal *= srcSizes[i] = rng() % 25;
    dstTotal *= dstSizes[i] = rng() % 25;
  }
  auto const src = ramp<long>(srcTotal, 1);
  std::vector<long> dst(dstTotal, -7);
  auto const want = ranged_copy_reference(src, srcSizes, dst, dstSizes, group);
  nerva::ranged_copy<long>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), dims - 1,
                           static_cast<long>(group));
  EXPECT_TRUE(dst == want) << "ranged copy";
}

// Each thread works on its own data, the strided copies sharing one pool; every result is
// checked against a naive loop.
TEST(ConcurrentKernels, SeveralThreadsMatchNaiveLoops) {
  counting::LeakCheck check;
  constexpr int kThreads = 4;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, kThreads);
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

// The cooperative out-of-memory protocol with several waiting threads.
TEST(ConcurrentPool, SeveralWaitersAreServedByTheBlocksOfAFinishingParty) {
  counting::LeakCheck check;
  constexpr std::size_t kBytes = 1 << 16;
  constexpr int kWaiters = 3;
  // The finishing party, the waiters, and spare parties whose departures wake waiters that read
  // the count after an earlier departure.
  constexpr long kSpare = 6;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 1 + kWaiters + kSpare);
  std::vector<std::unique_ptr<CNNMemoryBlock>> held;
  for (int i = 0; i < kWaiters; ++i) held.push_back(pool.lease(kBytes));
  counting::fail_above(4096);  // no fresh large block from now on

  std::atomic<int> done{0};
  std::vector<std::unique_ptr<CNNMemoryBlock>> got(kWaiters);
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.emplace_back([&, i] {
      got[i] = pool.lease_or_error(kBytes);
      ++done;
    });
  while (pool.waiting_requests.load() < kWaiters) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(done.load(), 0);

  // The finishing party gives its blocks back, then parties leave one by one until every waiter
  // is served (never so many that the waiters give up).
  for (auto& block : held) pool.checkin(std::move(block));
  for (long left = 0; done.load() < kWaiters && left < kSpare; ++left) {
    --pool.active_users;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (auto& th : waiters) th.join();
  EXPECT_EQ(done.load(), kWaiters);
  for (auto const& block : got) EXPECT_EQ(block->allocated_size(), kBytes);
  EXPECT_EQ(pool.waiting_requests.load(), 0);
  EXPECT_TRUE(pool.blocks.empty());
  for (auto& block : got) pool.checkin(std::move(block));
}

}  // namespace
