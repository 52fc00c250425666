#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

// The cooperative out-of-memory protocol of lease_or_error, with real threads.
namespace {

using nerva::SharedMemoryPool;

std::atomic<int> error_calls{0};
std::string last_message;
void recording_error(char const* message) {
  last_message = message;
  ++error_calls;
  throw std::runtime_error(message);
}

TEST(LeaseOrError, ReportsOutOfMemoryWhenNobodyElseIsActive) {
  counting::LeakCheck check;
  error_calls = 0;
  SharedMemoryPool pool(counting::functions(), &recording_error, 1);
  counting::fail_above(4096);
  EXPECT_THROW(pool.lease_or_error(1 << 20), std::runtime_error);
  EXPECT_EQ(error_calls.load(), 1);
  EXPECT_EQ(last_message, "Out of memory.");
  EXPECT_EQ(pool.waiting_requests.load(), 1);  // left incremented on the error path
}

TEST(LeaseOrError, WaitsForAnotherPartyToGiveMemoryBack) {
  counting::LeakCheck check;
  error_calls = 0;
  SharedMemoryPool pool(counting::functions(), &recording_error, 2);
  auto held_by_other = pool.lease(1 << 20);  // the other party's memory
  counting::fail_above(1 << 16);             // the heap is exhausted from now on

  std::atomic<bool> done{false};
  std::unique_ptr<nerva::CNNMemoryBlock> got;
  std::thread waiter([&] {
    got = pool.lease_or_error(1 << 20);
    done = true;
  });
  // The request fails and must wait, not report, while the other party lives.
  while (pool.waiting_requests.load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done.load());
  EXPECT_EQ(error_calls.load(), 0);

  // The other party finishes: it checks its block in and leaves.
  pool.checkin(std::move(held_by_other));
  --pool.active_users;
  waiter.join();
  ASSERT_TRUE(done.load());
  EXPECT_EQ(got->allocated_size(), std::size_t{1} << 20);
  EXPECT_TRUE(pool.blocks.empty());
  EXPECT_EQ(pool.waiting_requests.load(), 0);
  EXPECT_EQ(error_calls.load(), 0);
}

TEST(LeaseOrError, AllPartiesWaitingReportsOutOfMemory) {
  counting::LeakCheck check;
  error_calls = 0;
  SharedMemoryPool pool(counting::functions(), &recording_error, 2);
  counting::fail_above(4096);
  // Two parties, both asking and failing: the second to fail sees
  // waiting_requests == active_users and reports; the first keeps waiting
  // until a party drops out and then, still failing, reports too.
  std::atomic<int> thrown{0};
  auto ask = [&] {
    try {
      pool.lease_or_error(1 << 20);
    } catch (const std::runtime_error&) {
      ++thrown;
    }
  };
  std::thread a(ask), b(ask);
  while (thrown.load() == 0) std::this_thread::yield();
  --pool.active_users;  // the party that failed is gone
  a.join();
  b.join();
  EXPECT_EQ(thrown.load(), 2);
  EXPECT_EQ(error_calls.load(), 2);
}

}  // namespace
