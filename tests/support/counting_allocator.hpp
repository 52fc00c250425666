#pragma once

#include <cstddef>
#include <cstdint>

#include "nerva/memory.hpp"

// A strict host allocator for tests. It counts every call and every live byte, fails the test on
// a free of a pointer it never handed out (or already took back), and can be told to fail.
// State is process-wide because AllocatorFunctions carry no context pointer.
namespace counting {

struct Stats {
  std::size_t allocations;  // allocate() calls that returned non-null
  std::size_t failures;     // allocate() calls that returned null
  std::size_t null_frees;   // deallocate(nullptr) calls
};

Stats stats();
std::size_t live_blocks();
std::size_t live_bytes();

// Makes the k-th allocate() call from now (1-based) return null, or throw std::bad_alloc.
void fail_at(std::size_t k);
void throw_at(std::size_t k);
// Makes every allocate() of more than `bytes` return null; SIZE_MAX disables.
void fail_above(std::size_t bytes);

void* allocate(std::size_t bytes);
void deallocate(void* data);

inline nerva::AllocatorFunctions functions() { return {&allocate, &deallocate}; }

// An error function for pools: throws std::runtime_error with the message.
void throwing_error(char const* message);

// RAII guard: resets the counters and failure settings on entry, and on exit checks that every
// byte came back.
struct LeakCheck {
  LeakCheck();
  ~LeakCheck();
  LeakCheck(const LeakCheck&) = delete;
  LeakCheck& operator=(const LeakCheck&) = delete;
};

}  // namespace counting
