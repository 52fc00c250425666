#pragma once

#include <cstddef>
#include <vector>

#include "nerva/memory.hpp"

// Small helpers shared by the array tests.
namespace arrays_test {

inline std::vector<std::size_t> idle_sizes(const nerva::SharedMemoryPool& pool) {
  std::vector<std::size_t> sizes;
  for (auto& b : pool.blocks) sizes.push_back(b->allocated_size());
  return sizes;
}

inline std::vector<void*> idle_data(const nerva::SharedMemoryPool& pool) {
  std::vector<void*> data;
  for (auto& b : pool.blocks) data.push_back(b->data);
  return data;
}

// A value that differs between neighbouring indices of every dimension and
// is exact in every element type (reduced modulo 256 for bytes).
template <typename T>
T value(std::size_t x, std::size_t y, std::size_t c, std::size_t b) {
  return static_cast<T>((x * 7 + y * 13 + c * 29 + b * 61 + 1) % 251);
}

}  // namespace arrays_test
