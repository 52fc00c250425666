#include "support/counting_allocator.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <stdexcept>
#include <unordered_map>

namespace counting {
namespace {

struct State {
  std::mutex mutex;
  std::unordered_map<void*, std::size_t> live;
  Stats stats{};
  std::size_t calls = 0;
  std::size_t fail_call = 0;
  std::size_t throw_call = 0;
  std::size_t fail_above = SIZE_MAX;
};

State& state() {
  static State* s = new State;  // never destroyed: pools may outlive main's locals
  return *s;
}

}  // namespace

void reset() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  EXPECT_EQ(s.live.size(), 0u) << "blocks still live when the allocator was reset";
  s.stats = Stats{};
  s.stats.live_blocks = s.live.size();
  for (auto& entry : s.live) s.stats.live_bytes += entry.second;
  s.calls = 0;
  s.fail_call = 0;
  s.throw_call = 0;
  s.fail_above = SIZE_MAX;
}

Stats stats() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.stats;
}

std::size_t live_blocks() { return stats().live_blocks; }
std::size_t live_bytes() { return stats().live_bytes; }

void fail_at(std::size_t k) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.fail_call = k == 0 ? 0 : s.calls + k;
}

void fail_above(std::size_t bytes) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.fail_above = bytes;
}

void throw_at(std::size_t k) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.throw_call = k == 0 ? 0 : s.calls + k;
}

void* allocate(std::size_t bytes) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.calls;
  if (s.calls == s.throw_call) throw std::bad_alloc();
  if (s.calls == s.fail_call || bytes > s.fail_above) {
    ++s.stats.failures;
    return nullptr;
  }
  // 64-byte aligned like a typical host heap for vector data; at least one
  // byte so that every successful call yields a distinct pointer.
  std::size_t rounded = (bytes + 63) / 64 * 64;
  void* p = std::aligned_alloc(64, rounded == 0 ? 64 : rounded);
  if (p == nullptr) {
    ++s.stats.failures;
    return nullptr;
  }
  s.live.emplace(p, bytes);
  ++s.stats.allocations;
  ++s.stats.live_blocks;
  s.stats.live_bytes += bytes;
  return p;
}

void deallocate(void* data) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (data == nullptr) {
    ++s.stats.null_frees;
    return;
  }
  auto it = s.live.find(data);
  if (it == s.live.end()) {
    ++s.stats.bad_frees;
    ADD_FAILURE() << "deallocate of a pointer that is not live: " << data;
    return;
  }
  ++s.stats.deallocations;
  --s.stats.live_blocks;
  s.stats.live_bytes -= it->second;
  s.live.erase(it);
  std::free(data);
}

void throwing_error(char const* message) { throw std::runtime_error(message); }

LeakCheck::LeakCheck() { reset(); }

LeakCheck::~LeakCheck() {
  Stats s = stats();
  EXPECT_EQ(s.live_blocks, 0u) << "blocks leaked";
  EXPECT_EQ(s.live_bytes, 0u) << "bytes leaked";
  EXPECT_EQ(s.bad_frees, 0u);
  EXPECT_EQ(s.allocations, s.deallocations);
  State& st = state();
  std::lock_guard<std::mutex> lock(st.mutex);
  for (auto& entry : st.live) std::free(entry.first);
  st.live.clear();
  st.fail_call = st.throw_call = 0;
  st.fail_above = SIZE_MAX;
}

}  // namespace counting
