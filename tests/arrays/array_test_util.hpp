#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "nerva/formatted_array.hpp"
#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

// Small helpers shared by the array tests.
namespace arrays_test {

// The check comes first so that the pool's idle blocks are freed before it.
struct Pooled {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool{counting::functions(), &counting::throwing_error};
};

inline std::vector<void*> idle_data(const nerva::SharedMemoryPool& pool) {
  std::vector<void*> data;
  for (auto& b : pool.blocks) data.push_back(b->data);
  return data;
}

// A value that differs between neighbouring indices of every dimension and
// is exact in every element type (reduced modulo 251 for bytes).
template <typename T>
T value(std::size_t x, std::size_t y, std::size_t c, std::size_t b) {
  return static_cast<T>((x * 7 + y * 13 + c * 29 + b * 61 + 1) % 251);
}

// w x h x c x n elements in the KORVAL layout (x fastest, observation slowest).
template <typename T>
void fill_korval(T* data, std::size_t w, std::size_t h, std::size_t c, std::size_t n) {
  for (std::size_t i = 0; i < w * h * c * n; ++i)
    data[i] = value<T>(i % w, i / w % h, i / (w * h) % c, i / (w * h * c));
}

template <typename T>
std::vector<T> korval(std::size_t w, std::size_t h, std::size_t c, std::size_t n) {
  std::vector<T> v(w * h * c * n);
  fill_korval(v.data(), w, h, c, n);
  return v;
}

// The same elements in a block of their own, to be handed over to an array.
template <typename T>
std::unique_ptr<nerva::CNNMemoryBlock> korval_block(std::size_t w, std::size_t h, std::size_t c,
                                                    std::size_t n) {
  auto block =
      std::make_unique<nerva::CNNMemoryBlock>(w * h * c * n * sizeof(T), counting::functions());
  fill_korval(static_cast<T*>(block->data), w, h, c, n);
  return block;
}

inline std::unique_ptr<nerva::FormattedArray> korval_format(
    std::size_t w, std::size_t h, std::size_t c, std::size_t n,
    nerva::AllocatorFunctions fns = counting::functions()) {
  auto f = std::make_unique<nerva::FormattedArray>(2, 2, 3, 4, fns, 1);
  const std::size_t sizes[4] = {w, h, c, n};
  f->SetSizesInCurrentFormat(sizes, 4);
  return f;
}

}  // namespace arrays_test
