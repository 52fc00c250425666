#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

// The cooperative out-of-memory protocol with several waiting threads.
namespace {

using nerva::CNNMemoryBlock;
using nerva::SharedMemoryPool;

constexpr std::size_t kBytes = 1 << 16;

TEST(ConcurrentPool, SeveralWaitersAreServedByTheBlocksOfAFinishingParty) {
  counting::LeakCheck check;
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
