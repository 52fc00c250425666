#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::CNNMemoryBlock;
using nerva::SharedMemoryPool;

std::vector<std::size_t> idle_sizes(const SharedMemoryPool& pool) {
  std::vector<std::size_t> sizes;
  for (auto& b : pool.blocks) sizes.push_back(b->allocated_size());
  return sizes;
}

std::unique_ptr<CNNMemoryBlock> fresh(std::size_t bytes) {
  return std::make_unique<CNNMemoryBlock>(bytes, counting::functions());
}

TEST(SharedMemoryPool, StartsEmptyAndFreesIdleBlocksOnDestruction) {
  counting::LeakCheck check;
  {
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    EXPECT_TRUE(pool.blocks.empty());
    EXPECT_EQ(pool.waiting_requests.load(), 0);
    EXPECT_EQ(pool.active_users.load(), 1);
    pool.checkin(pool.lease(8192));
    pool.checkin(pool.lease(16384));
    EXPECT_EQ(counting::live_blocks(), 2u);
  }
}

TEST(SharedMemoryPool, ReusesOnlyExactSizesFromTheFront) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto a = pool.lease(8192);
  auto b = pool.lease(16384);
  auto c = pool.lease(8192);
  void* first = a->data;
  pool.checkin(std::move(a));
  pool.checkin(std::move(b));
  pool.checkin(std::move(c));

  auto other = pool.lease(8000);  // no exact match: fresh, the idle list untouched
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 16384, 8192}));
  EXPECT_EQ(counting::stats().allocations, 4u);

  auto reused = pool.lease(8192);  // the first one; the third moves into its slot
  EXPECT_EQ(reused->data, first);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 16384}));
  EXPECT_EQ(counting::stats().allocations, 4u);
}

TEST(SharedMemoryPool, SmallRequestsAndBlocksBypassThePool) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  pool.checkin(fresh(4095));
  EXPECT_TRUE(pool.blocks.empty());
  EXPECT_EQ(counting::live_blocks(), 0u);  // freed at once
  pool.checkin(fresh(4096));
  EXPECT_EQ(pool.blocks.size(), 1u);

  // While another thread holds the mutex, a small lease must still complete
  // (it never locks), and a large one must wait for the lock.
  tbb::mutex::scoped_lock held(pool.mutex);
  auto small = std::async(std::launch::async, [&] { return pool.lease(4095); });
  ASSERT_EQ(small.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(small.get()->allocated_size(), 4095u);
  auto large = std::async(std::launch::async, [&] { return pool.lease(4096); });
  EXPECT_EQ(large.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  held.release();
  auto got = large.get();
  EXPECT_EQ(got->allocated_size(), 4096u);
  EXPECT_TRUE(pool.blocks.empty());  // taken from the pool, not fresh
}

TEST(SharedMemoryPool, TwoBlockCheckinLooksOnlyAtTheFirst) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  pool.checkin(fresh(100), fresh(8192));
  EXPECT_TRUE(pool.blocks.empty());
  EXPECT_EQ(counting::live_blocks(), 0u);
  pool.checkin(fresh(8192), fresh(100));
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 100}));
  auto last = pool.pop_back();
  EXPECT_EQ(last->allocated_size(), 100u);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192}));
}

TEST(SharedMemoryPool, FailedLeaseReportsSizeZero) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  counting::fail_above(4096);
  auto block = pool.lease(1 << 20);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->allocated_size(), 0u);
  EXPECT_EQ(block->data, nullptr);
}

TEST(SharedMemoryPool, LeaseOrErrorOfZeroBytesTouchesNothing) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto block = pool.lease_or_error(0);
  EXPECT_EQ(block->allocated_size(), 0u);
  EXPECT_EQ(pool.waiting_requests.load(), 0);
  EXPECT_EQ(counting::stats().allocations, 1u);  // allocate(0) was called
}

TEST(SharedMemoryPool, ManyThreadsAccountForEveryBlock) {
  counting::LeakCheck check;
  {
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    const std::size_t sizes[] = {1000, 4095, 4096, 4097, 8192, 65536};
    constexpr int kThreads = 4, kRounds = 3000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        std::mt19937 rng(t);
        std::vector<std::unique_ptr<CNNMemoryBlock>> held;
        for (int r = 0; r < kRounds; ++r) {
          std::size_t bytes = sizes[rng() % 6];
          auto block = pool.lease(bytes);
          ASSERT_EQ(block->allocated_size(), bytes);
          static_cast<unsigned char*>(block->data)[bytes - 1] = static_cast<unsigned char>(t);
          held.push_back(std::move(block));
          if (held.size() > 3 || rng() % 2) {
            if (held.size() >= 2 && rng() % 2) {
              auto a = std::move(held.back());
              held.pop_back();
              auto b = std::move(held.back());
              held.pop_back();
              pool.checkin(std::move(a), std::move(b));
            } else {
              pool.checkin(std::move(held.back()));
              held.pop_back();
            }
          }
        }
        for (auto& b : held) pool.checkin(std::move(b));
      });
    }
    for (auto& t : threads) t.join();
    // Everything not idle went back to the allocator.
    std::size_t idle_bytes = 0;
    for (auto& b : pool.blocks) idle_bytes += b->allocated_size();
    EXPECT_EQ(counting::live_blocks(), pool.blocks.size());
    EXPECT_EQ(counting::live_bytes(), idle_bytes);
    EXPECT_EQ(pool.waiting_requests.load(), 0);
  }
}

}  // namespace
