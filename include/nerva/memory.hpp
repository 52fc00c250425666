#pragma once

#include <oneapi/tbb/mutex.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "nerva/detail/export.hpp"

namespace nerva {

// Host callbacks through which every buffer of the library is obtained.
// `allocate` returns null on failure and must not throw; `deallocate` must
// accept null.
struct AllocatorFunctions {
  void* (*allocate)(std::size_t bytes);
  void (*deallocate)(void* data);
};

// Single owner of one raw allocation made through AllocatorFunctions. Always
// held through std::unique_ptr; a size of 0 means failed, empty or released.
class NERVA_API CNNMemoryBlock {
 public:
  CNNMemoryBlock(std::size_t size, AllocatorFunctions fns);
  // Adopts memory that `fns.deallocate` can free; nothing is checked.
  CNNMemoryBlock(void* data, std::size_t size, AllocatorFunctions fns);
  ~CNNMemoryBlock();

  CNNMemoryBlock(const CNNMemoryBlock&) = delete;
  CNNMemoryBlock& operator=(const CNNMemoryBlock&) = delete;
  CNNMemoryBlock(CNNMemoryBlock&&) = delete;
  CNNMemoryBlock& operator=(CNNMemoryBlock&&) = delete;

  // Gives up ownership: the caller frees the result through the same
  // `deallocate`. The block stays valid and reports size 0.
  void* release();
  std::size_t allocated_size() const { return allocated_size_; }

  AllocatorFunctions allocator_functions;
  void* data;

 private:
  std::size_t allocated_size_;
};

// Idle blocks reused by exact byte size, shared between threads. Requests and
// blocks under `threshold` bytes never enter the pool.
class NERVA_API SharedMemoryPool {
 public:
  static constexpr std::size_t threshold = 4096;

  SharedMemoryPool(AllocatorFunctions fns, void (*error_function)(char const*),
                   long active_users = 1);
  ~SharedMemoryPool();

  SharedMemoryPool(const SharedMemoryPool&) = delete;
  SharedMemoryPool& operator=(const SharedMemoryPool&) = delete;
  SharedMemoryPool(SharedMemoryPool&&) = delete;
  SharedMemoryPool& operator=(SharedMemoryPool&&) = delete;

  // Never null; a block of size 0 means the allocation failed.
  std::unique_ptr<CNNMemoryBlock> lease(std::size_t bytes);
  // Never returns a failed block for a non-zero request: waits while other
  // parties may still give memory back, else reports "Out of memory.".
  std::unique_ptr<CNNMemoryBlock> lease_or_error(std::size_t bytes);
  void checkin(std::unique_ptr<CNNMemoryBlock> block);
  // Both under one lock; the size of `first` alone decides for both.
  void checkin(std::unique_ptr<CNNMemoryBlock> first, std::unique_ptr<CNNMemoryBlock> second);
  // Unsynchronised; the caller has exclusive access and a non-empty list.
  std::unique_ptr<CNNMemoryBlock> pop_back();

  std::vector<std::unique_ptr<CNNMemoryBlock>> blocks;
  tbb::mutex mutex;
  AllocatorFunctions allocator_functions;
  std::atomic<long> active_users;  // kept by the pool's owner
  std::atomic<long> waiting_requests;
  void (*error_function)(char const*);
};

}  // namespace nerva
