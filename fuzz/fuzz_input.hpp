#pragma once

// Reads fuzzer bytes as small bounded numbers. An exhausted input reads as
// zeros, so every byte string decodes to some valid case.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

class FuzzInput {
 public:
  FuzzInput(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  // A number in [lo, hi] from one or two bytes.
  std::size_t in(std::size_t lo, std::size_t hi) {
    std::size_t const span = hi - lo + 1;
    std::size_t raw = byte();
    if (span > 256) raw = raw << 8 | byte();
    return lo + raw % span;
  }

 private:
  std::uint8_t const* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

// A failed comparison stops the fuzzer with the offending case on record.
#define FUZZ_CHECK(cond)                                                            \
  do {                                                                              \
    if (!(cond)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                                 \
    }                                                                               \
  } while (0)
