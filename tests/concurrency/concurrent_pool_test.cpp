#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
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
  // The finishing party, the waiters, and spare parties whose departures wake
  // waiters that read the count after an earlier departure.
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

  // The finishing party gives its blocks back, then parties leave one by one
  // until every waiter is served (never so many that the waiters give up).
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

TEST(ConcurrentPool, WhenEveryPartyWaitsEachReportsOutOfMemory) {
  counting::LeakCheck check;
  constexpr int kParties = 3;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, kParties);
  counting::fail_above(4096);
  std::atomic<int> reported{0};
  std::vector<std::thread> parties;
  for (int i = 0; i < kParties; ++i)
    parties.emplace_back([&] {
      try {
        pool.lease_or_error(kBytes);
      } catch (std::runtime_error const& e) {
        EXPECT_STREQ(e.what(), "Out of memory.");
        ++reported;
      }
      --pool.active_users;  // a party that gave up is gone
    });
  for (auto& th : parties) th.join();
  EXPECT_EQ(reported.load(), kParties);
}

TEST(ConcurrentPool, LeaseAndCheckinFromManyThreadsKeepEveryBlock) {
  counting::LeakCheck check;
  {
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
      threads.emplace_back([&pool, t] {
        for (int i = 0; i < 200; ++i) {
          std::size_t const bytes = (i + t) % 3 == 0 ? 100 : 4096 * (1 + (i + t) % 4);
          auto block = pool.lease_or_error(bytes);
          static_cast<unsigned char*>(block->data)[bytes - 1] = static_cast<unsigned char>(i);
          pool.checkin(std::move(block));
        }
      });
    for (auto& th : threads) th.join();
    EXPECT_LE(pool.blocks.size(), 8u * 4u);
    EXPECT_EQ(pool.waiting_requests.load(), 0);
  }
}

}  // namespace
