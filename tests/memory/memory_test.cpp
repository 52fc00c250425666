#include "nerva/memory.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/counting_allocator.hpp"

namespace {

using namespace nerva;

std::unique_ptr<CNNMemoryBlock> fresh(std::size_t bytes) {
  return std::make_unique<CNNMemoryBlock>(bytes, counting::functions());
}

std::vector<std::size_t> idle_sizes(const SharedMemoryPool& pool) {
  std::vector<std::size_t> sizes;
  for (auto& b : pool.blocks) sizes.push_back(b->allocated_size());
  return sizes;
}

// Failed, released and adopted blocks each free exactly what they still own (the
// counting allocator rejects anything else); a throwing allocator passes through.
TEST(CNNMemoryBlock, FreesExactlyWhatItOwns) {
  counting::LeakCheck check;
  counting::fail_at(1);
  EXPECT_EQ(CNNMemoryBlock(100, counting::functions()).allocated_size(), 0u);
  void* raw = fresh(256)->release();
  EXPECT_EQ(counting::stats().null_frees, 2u);  // the failed and the released block
  EXPECT_EQ(CNNMemoryBlock(raw, 256, counting::functions()).allocated_size(), 256u);
  counting::throw_at(1);
  EXPECT_THROW(CNNMemoryBlock(64, counting::functions()), std::bad_alloc);
}

// Exact sizes only, the first match, whose slot the last idle block takes. Blocks under 4096
// bytes are freed at checkin (for a pair the first decides for both) and such requests never
// lock: while another thread holds the mutex a small lease completes and a large one waits.
TEST(SharedMemoryPool, ReuseAndSmallBlocks) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto a = pool.lease(8192);
  void* first = a->data;
  pool.checkin(std::move(a));
  pool.checkin(pool.lease(16384));
  pool.checkin(fresh(8192));
  auto other = pool.lease(8000);
  EXPECT_EQ(pool.lease(8192)->data, first);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 16384}));
  pool.blocks.clear();

  pool.checkin(fresh(4095));
  pool.checkin(fresh(100), fresh(8192));
  pool.checkin(fresh(8192), fresh(100));
  pool.checkin(fresh(4096));
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 100, 4096}));
  tbb::mutex::scoped_lock held(pool.mutex);
  auto small = std::async(std::launch::async, [&] { return pool.lease(4095); });
  auto large = std::async(std::launch::async, [&] { return pool.lease(4096); });
  EXPECT_EQ(small.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(large.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  held.release();
  EXPECT_EQ(large.get()->allocated_size(), 4096u);
  EXPECT_EQ(idle_sizes(pool), (std::vector<std::size_t>{8192, 100}));  // taken, not fresh
}

// Two parties both failing: the second to fail finds every party waiting and reports; the first
// waits until a party drops out, fails again and reports too. A plain lease gives an empty block,
// and zero bytes never wait. An error function that returns is asked again without a new
// allocation attempt.
TEST(LeaseOrError, ReportsOnlyWhenEveryPartyWaits) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 2);
  counting::fail_above(4096);
  EXPECT_EQ(pool.lease(1 << 20)->allocated_size(), 0u);
  EXPECT_EQ(pool.lease_or_error(0)->allocated_size(), 0u);
  std::atomic<int> thrown{0};
  auto ask = [&] {
    EXPECT_THROW(pool.lease_or_error(1 << 20), std::runtime_error);
    ++thrown;
  };
  std::thread a(ask), b(ask);
  while (thrown.load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // let the other settle
  --pool.active_users;                                         // the party that reported is gone
  a.join();
  b.join();
  EXPECT_EQ(pool.waiting_requests.load(), 2);  // left counted on the error path

  static int calls;
  SharedMemoryPool patient(counting::functions(), [](char const* message) {
    EXPECT_STREQ(message, "Out of memory.");
    if (++calls == 3) throw std::runtime_error(message);
  });
  const std::size_t failures = counting::stats().failures;
  EXPECT_THROW(patient.lease_or_error(1 << 20), std::runtime_error);
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(counting::stats().failures, failures + 1);
}

// Waiters are served by the blocks a finishing party gives back, then by parties leaving (a
// waiter that read the count after an earlier departure needs another); none reports meanwhile.
TEST(LeaseOrError, WaitersAreServedByAFinishingParty) {
  counting::LeakCheck check;
  constexpr std::size_t kBytes = 1 << 16;
  constexpr int kWaiters = 3, kSpare = 6;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error, 1 + kWaiters + kSpare);
  std::vector<std::unique_ptr<CNNMemoryBlock>> held, got(kWaiters);
  for (int i = 0; i < kWaiters; ++i) held.push_back(pool.lease(kBytes));
  counting::fail_above(4096);  // no fresh large block from now on
  std::atomic<int> done{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i)
    waiters.emplace_back([&, i] { got[i] = pool.lease_or_error(kBytes), ++done; });
  while (pool.waiting_requests.load() < kWaiters) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(done.load(), 0);
  for (auto& block : held) pool.checkin(std::move(block));
  for (int left = 0; done.load() < kWaiters && left < kSpare; ++left) {
    --pool.active_users;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (auto& th : waiters) th.join();
  for (auto const& block : got) EXPECT_EQ(block->allocated_size(), kBytes);
  EXPECT_EQ(pool.waiting_requests.load(), 0);
}

// Leases and checkins of sizes on both sides of the threshold from several threads: no block is
// handed out twice, lost or freed twice (the counting allocator and the leak check see to it).
TEST(SharedMemoryPool, ManyThreadsAccountForEveryBlock) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  const std::size_t sizes[] = {1000, 4095, 4096, 4097, 8192, 65536};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 rng(t);
      for (int r = 0; r < 1000; ++r) {
        std::unique_ptr<CNNMemoryBlock> held[3];
        for (auto& b : held) {
          const std::size_t bytes = sizes[rng() % 6];
          b = pool.lease(bytes);
          ASSERT_EQ(b->allocated_size(), bytes);
          static_cast<unsigned char*>(b->data)[bytes - 1] = static_cast<unsigned char>(t);
        }
        pool.checkin(std::move(held[0]), std::move(held[1]));
        pool.checkin(std::move(held[2]));
      }
    });
  for (auto& t : threads) t.join();
}

}  // namespace
