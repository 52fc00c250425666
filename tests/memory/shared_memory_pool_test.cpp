#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <stdexcept>
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

TEST(SharedMemoryPool, ReusesOnlyExactSizesFromTheFront) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto a = pool.lease(8192);
  void* first = a->data;
  pool.checkin(std::move(a));
  pool.checkin(pool.lease(16384));
  pool.checkin(fresh(8192));

  auto other = pool.lease(8000);  // no exact match: fresh, the idle list untouched
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 16384, 8192}));
  auto reused = pool.lease(8192);  // the first one; the last moves into its slot
  EXPECT_EQ(reused->data, first);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 16384}));
  EXPECT_EQ(counting::stats().allocations, 4u);
}

// Blocks under 4096 bytes are freed at checkin (for a pair, the first one
// decides for both), and such requests never look at the pool.
TEST(SharedMemoryPool, SmallRequestsAndBlocksBypassThePool) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  pool.checkin(fresh(4095));
  pool.checkin(fresh(100), fresh(8192));
  EXPECT_EQ(counting::live_blocks(), 0u);
  pool.checkin(fresh(8192), fresh(100));
  pool.checkin(fresh(4096));
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 100, 4096}));
  EXPECT_EQ(pool.pop_back()->allocated_size(), 4096u);

  // While another thread holds the mutex a small lease still completes (it
  // never locks) and a large one waits for the lock.
  pool.checkin(fresh(4096));
  tbb::mutex::scoped_lock held(pool.mutex);
  auto small = std::async(std::launch::async, [&] { return pool.lease(4095); });
  auto large = std::async(std::launch::async, [&] { return pool.lease(4096); });
  EXPECT_EQ(small.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(large.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  held.release();
  EXPECT_EQ(large.get()->allocated_size(), 4096u);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 100}));  // taken, not fresh
}

TEST(LeaseOrError, WaitsForAnotherPartyToGiveMemoryBack) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 2);
  auto held_by_other = pool.lease(1 << 20);
  counting::fail_above(1 << 16);  // the heap is exhausted from now on

  std::atomic<bool> done{false};
  std::unique_ptr<CNNMemoryBlock> got;
  std::thread waiter([&] {
    got = pool.lease_or_error(1 << 20);
    done = true;
  });
  // The request fails and must wait, not report, while the other party lives.
  while (pool.waiting_requests.load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done.load());

  // The other party finishes: it checks its block in and leaves.
  pool.checkin(std::move(held_by_other));
  --pool.active_users;
  waiter.join();
  EXPECT_EQ(got->allocated_size(), std::size_t{1} << 20);  // the returned block
  EXPECT_EQ(pool.waiting_requests.load(), 0);
}

// Two parties both failing: the second to fail finds every party waiting and
// reports; the first waits until a party drops out, fails again and reports
// too. A plain lease just gives an empty block.
TEST(LeaseOrError, AllPartiesWaitingReportsOutOfMemory) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 2);
  counting::fail_above(4096);
  EXPECT_EQ(pool.lease(1 << 20)->allocated_size(), 0u);
  EXPECT_EQ(pool.lease_or_error(0)->allocated_size(), 0u);  // zero bytes never wait
  EXPECT_EQ(pool.waiting_requests.load(), 0);
  std::atomic<int> thrown{0};
  auto ask = [&] {
    try {
      pool.lease_or_error(1 << 20);
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Out of memory.");
      ++thrown;
    }
  };
  std::thread a(ask), b(ask);
  while (thrown.load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let the other settle
  --pool.active_users;                                         // the party that reported is gone
  a.join();
  b.join();
  EXPECT_EQ(thrown.load(), 2);
  EXPECT_EQ(pool.waiting_requests.load(), 2);  // left counted on the error path
}

// An error function that returns sends the request back to the same failed
// block: it is reported again, with no new allocation attempt in between.
TEST(LeaseOrError, ReturningErrorFunctionReportsAgainWithoutRetrying) {
  counting::LeakCheck check;
  static int calls;
  calls = 0;
  SharedMemoryPool pool(counting::functions(), [](char const* message) {
    if (++calls == 3) throw std::runtime_error(message);
  });
  counting::fail_above(4096);
  EXPECT_THROW(pool.lease_or_error(1 << 20), std::runtime_error);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(counting::stats().failures, 1u);
  EXPECT_EQ(pool.waiting_requests.load(), 1);
}

TEST(SharedMemoryPool, ManyThreadsAccountForEveryBlock) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  const std::size_t sizes[] = {1000, 4095, 4096, 4097, 8192, 65536};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      std::vector<std::unique_ptr<CNNMemoryBlock>> held;
      for (int r = 0; r < 3000; ++r) {
        std::size_t bytes = sizes[rng() % 6];
        held.push_back(pool.lease(bytes));
        ASSERT_EQ(held.back()->allocated_size(), bytes);
        static_cast<unsigned char*>(held.back()->data)[bytes - 1] = static_cast<unsigned char>(t);
        if (held.size() < 3) continue;
        pool.checkin(std::move(held[0]), std::move(held[1]));
        pool.checkin(std::move(held[2]));
        held.clear();
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
}

}  // namespace
