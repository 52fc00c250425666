#pragma once

// What the fuzz targets share: fuzzer bytes read as small bounded numbers, a check that stops the
// fuzzer, a counting heap and a pick of the element type.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "nerva/memory.hpp"

// An exhausted input reads as zeros, so every byte string decodes to some valid case.
struct FuzzInput {
  FuzzInput(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  // A number in [lo, hi] from one or two bytes.
  std::size_t in(std::size_t lo, std::size_t hi) {
    std::size_t const span = hi - lo + 1;
    std::size_t raw = byte();
    if (span > 256) raw = raw << 8 | byte();
    return lo + raw % span;
  }

  // An extent in [lo, hi] that keeps the product of the extents read with the same `room` within
  // its starting value: room is divided by the extent (0 counts as 1).
  std::size_t extent(std::size_t lo, std::size_t hi, std::size_t& room) {
    std::size_t const e = in(lo, std::max(lo, std::min(hi, room)));
    room /= std::max<std::size_t>(e, 1);
    return e;
  }

  std::uint8_t const* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// A failed comparison stops the fuzzer with the offending case on record.
#define FUZZ_CHECK(cond) ((cond) ? void() : fuzz_failed(__FILE__, __LINE__, #cond))
[[noreturn]] inline void fuzz_failed(char const* file, int line, char const* what) {
  std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
  std::abort();
}

// Host allocator callbacks that count live blocks, so that a target can assert that every
// block the library made went back.
inline std::atomic<long> live_blocks{0};
inline void* allocate_counted(std::size_t bytes) { return ++live_blocks, std::malloc(bytes + 1); }
inline void free_counted(void* p) {
  live_blocks -= p != nullptr;
  std::free(p);
}
inline nerva::AllocatorFunctions counting_heap() { return {&allocate_counted, &free_counted}; }
[[noreturn]] inline void abort_on_error(char const*) { std::abort(); }

// Calls f with a zero of the index-th of the element types Ts.
template <class... Ts, class F>
void with_type(std::size_t index, F&& f) {
  std::size_t k = 0;
  ((k++ == index ? f(Ts()) : void()), ...);
}
