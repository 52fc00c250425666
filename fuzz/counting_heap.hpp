#pragma once

// Host allocator callbacks that count live blocks, so that a target can
// assert that every block the library made went back.

#include <atomic>
#include <cstddef>
#include <cstdlib>

#include "nerva/memory.hpp"

namespace counting_heap {

inline std::atomic<long>& live() {
  static std::atomic<long> count{0};
  return count;
}

inline void* allocate(std::size_t bytes) {
  void* p = std::malloc(bytes == 0 ? 1 : bytes);
  if (p != nullptr) ++live();
  return p;
}

inline void deallocate(void* p) {
  if (p == nullptr) return;
  --live();
  std::free(p);
}

inline nerva::AllocatorFunctions functions() { return {&allocate, &deallocate}; }

[[noreturn]] inline void abort_on_error(char const*) { std::abort(); }

}  // namespace counting_heap
