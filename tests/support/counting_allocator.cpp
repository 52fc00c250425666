#include "support/counting_allocator.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
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
  std::size_t calls = 0, fail_call = 0, throw_call = 0, fail_above = SIZE_MAX, live_bytes = 0;
};

State& state() {
  static State* s = new State;  // never destroyed: pools may outlive main's locals
  return *s;
}

// The state, locked for the rest of the statement's scope.
struct Locked : std::lock_guard<std::mutex> {
  Locked() : lock_guard(state().mutex) {}
  State* operator->() { return &state(); }
};

}  // namespace

Stats stats() { return Locked()->stats; }
std::size_t live_blocks() { return Locked()->live.size(); }
std::size_t live_bytes() { return Locked()->live_bytes; }
void fail_at(std::size_t k) {
  Locked s;
  s->fail_call = s->calls + k;
}
void throw_at(std::size_t k) {
  Locked s;
  s->throw_call = s->calls + k;
}
void fail_above(std::size_t bytes) { Locked()->fail_above = bytes; }

void* allocate(std::size_t bytes) {
  Locked s;
  if (++s->calls == s->throw_call) throw std::bad_alloc();
  // 64-byte aligned like a typical host heap; at least one line, so that every successful call
  // yields a distinct pointer.
  void* p = s->calls == s->fail_call || bytes > s->fail_above
                ? nullptr
                : std::aligned_alloc(64, (bytes + 64) / 64 * 64);
  if (p == nullptr) return ++s->stats.failures, nullptr;
  std::memset(p, 0xA5, bytes);  // what a reader of unwritten memory would see
  s->live.emplace(p, bytes);
  s->live_bytes += bytes;
  ++s->stats.allocations;
  return p;
}

void deallocate(void* data) {
  Locked s;
  auto it = s->live.find(data);
  if (data == nullptr) {
    ++s->stats.null_frees;
  } else if (it == s->live.end()) {
    ADD_FAILURE() << "deallocate of a pointer that is not live: " << data;
  } else {
    s->live_bytes -= it->second;
    s->live.erase(it);
    std::free(data);
  }
}

void throwing_error(char const* message) { throw std::runtime_error(message); }

LeakCheck::LeakCheck() {
  Locked s;
  EXPECT_EQ(s->live.size(), 0u) << "blocks still live when the allocator was reset";
  s->stats = Stats{};
  s->calls = s->fail_call = s->throw_call = 0;
  s->fail_above = SIZE_MAX;
}

LeakCheck::~LeakCheck() {
  Locked s;
  EXPECT_EQ(s->live.size(), 0u) << "blocks leaked";
  EXPECT_EQ(s->live_bytes, 0u) << "bytes leaked";
  for (auto& entry : s->live) std::free(entry.first);
  s->live.clear();
  s->live_bytes = s->fail_call = s->throw_call = 0;
  s->fail_above = SIZE_MAX;
}

}  // namespace counting
