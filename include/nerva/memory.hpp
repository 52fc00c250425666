/// \file
/// Memory blocks made through host callbacks, and the shared pool that reuses
/// them by exact byte size (see \ref pool).
#pragma once

#include <oneapi/tbb/mutex.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "nerva/detail/export.hpp"

/// Everything nerva exports: memory, layouts, arrays, copy kernels,
/// convolution geometry and matrix products.
namespace nerva {

/// Host callbacks through which every buffer of the library is obtained.
/// A plain value: it is copied into every block and into the pool, so the
/// functions must stay callable for as long as any of those lives.
struct AllocatorFunctions {
  /// Returns `bytes` bytes, or null on failure; must not throw.
  void* (*allocate)(std::size_t bytes);
  /// Frees what `allocate` returned; must accept null.
  void (*deallocate)(void* data);
};

/// Single owner of one raw allocation made through AllocatorFunctions.
/// Always held through std::unique_ptr; ownership moves only with that
/// pointer (the block is neither copyable nor movable). A size of 0 means the
/// allocation failed, was empty or was released.
class NERVA_API CNNMemoryBlock {
 public:
  /// Allocates `size` bytes with `fns.allocate` (one call, even for 0).
  /// \failure A null result is not reported: the block then has a null
  /// `data` and allocated_size() 0. An exception from the callback leaves the
  /// constructor with nothing allocated.
  CNNMemoryBlock(std::size_t size, AllocatorFunctions fns);
  /// Adopts `size` bytes at `data`, memory that `fns.deallocate` can free;
  /// nothing is checked and nothing is allocated.
  CNNMemoryBlock(void* data, std::size_t size, AllocatorFunctions fns);
  /// Frees `data` through `allocator_functions.deallocate` (also when null).
  ~CNNMemoryBlock();

  CNNMemoryBlock(const CNNMemoryBlock&) = delete;
  CNNMemoryBlock& operator=(const CNNMemoryBlock&) = delete;
  CNNMemoryBlock(CNNMemoryBlock&&) = delete;
  CNNMemoryBlock& operator=(CNNMemoryBlock&&) = delete;

  /// Gives up ownership of the memory and returns it.
  /// \ownership The caller frees the result through the same `deallocate`.
  /// The block stays valid, with a null `data` and allocated_size() 0.
  void* release();
  /// Size of the allocation in bytes; 0 when it failed, was empty or was
  /// released.
  std::size_t allocated_size() const { return allocated_size_; }

  /// The callbacks that made the memory; `deallocate` frees it.
  AllocatorFunctions allocator_functions;
  /// The memory, or null.
  void* data;

 private:
  std::size_t allocated_size_;
};

/// Idle blocks reused by exact byte size, shared between threads (see
/// \ref pool). Requests and blocks under `threshold` bytes never enter the
/// pool. One pool serves one computation; it must outlive every array made
/// with it, since their destructors check blocks back in.
///
/// lease(), lease_or_error() and checkin() may be called from any number of
/// threads at once; one mutex guards the idle list. pop_back() is
/// unsynchronised.
class NERVA_API SharedMemoryPool {
 public:
  /// Requests and blocks of fewer bytes bypass the pool: they are allocated
  /// and freed directly, without the mutex.
  static constexpr std::size_t threshold = 4096;

  /// A pool without idle blocks and with `waiting_requests` 0. Every fresh
  /// block is made with `fns`; `error_function` receives "Out of memory." from
  /// lease_or_error() and is expected to throw. `active_users` starts the count
  /// of parties that may still give memory back. Allocates nothing.
  SharedMemoryPool(AllocatorFunctions fns, void (*error_function)(char const*),
                   long active_users = 1);
  /// Frees every idle block through its own `deallocate`.
  ~SharedMemoryPool();

  SharedMemoryPool(const SharedMemoryPool&) = delete;
  SharedMemoryPool& operator=(const SharedMemoryPool&) = delete;
  SharedMemoryPool(SharedMemoryPool&&) = delete;
  SharedMemoryPool& operator=(SharedMemoryPool&&) = delete;

  /// Leases a block of exactly `bytes` bytes. Under `threshold` it is made
  /// fresh, without the mutex; otherwise, under the mutex, it is the first
  /// idle block of exactly that size (larger ones are never used), else a
  /// fresh one.
  /// \ownership The caller owns the block; it goes back with checkin().
  /// \cost Small requests: one allocation. Large ones: the mutex, a linear
  /// search of the idle list, and an allocation (still under the mutex) only
  /// when nothing matches.
  /// \failure Never null: a failed allocation yields a block of size 0 and
  /// null `data`; nothing is reported.
  std::unique_ptr<CNNMemoryBlock> lease(std::size_t bytes);
  /// Like lease(), but never returns a failed block for a non-zero request.
  /// When allocation fails it waits while other parties may still give memory
  /// back: it gives up only when `waiting_requests >= active_users` and then
  /// calls `error_function("Out of memory.")`; otherwise it spins until
  /// `active_users` drops below its current value and leases again.
  /// `lease_or_error(0)` returns a block of size 0 at once without touching the
  /// counters.
  /// \ownership The caller owns the block.
  /// \cost As lease() when memory is available; the wait spins a core.
  /// \failure The exception of the error function passes through, with
  /// `waiting_requests` left one higher. If the error function returns, the
  /// request reports again.
  std::unique_ptr<CNNMemoryBlock> lease_or_error(std::size_t bytes);
  /// Gives a block back: one of `threshold` bytes or more is appended to the
  /// idle list under the mutex, a smaller one is freed at once.
  /// \ownership Consumes `block`, which must not be null.
  void checkin(std::unique_ptr<CNNMemoryBlock> block);
  /// Gives two blocks back under one acquisition of the mutex, `first` before
  /// `second`. The size of `first` alone decides for both: under `threshold`
  /// both are freed, otherwise both are kept, whatever the size of `second`.
  /// \ownership Consumes both; `first` must not be null.
  void checkin(std::unique_ptr<CNNMemoryBlock> first, std::unique_ptr<CNNMemoryBlock> second);
  /// Removes and returns the last idle block, without locking and without
  /// checking: the caller has exclusive access and a non-empty list.
  std::unique_ptr<CNNMemoryBlock> pop_back();

  /// Idle blocks in check-in order; unsorted, no cap.
  std::vector<std::unique_ptr<CNNMemoryBlock>> blocks;
  /// Guards `blocks` in lease(), lease_or_error() and checkin().
  tbb::mutex mutex;
  /// Used for every fresh block the pool makes.
  AllocatorFunctions allocator_functions;
  /// Parties that may still give memory back. Kept by the pool's owner
  /// (decrement it when a party has finished); the pool only reads it.
  std::atomic<long> active_users;
  /// lease_or_error() calls in progress; changed by the pool only.
  std::atomic<long> waiting_requests;
  /// The host's error reporter, called with "Out of memory."; expected to
  /// throw.
  void (*error_function)(char const*);
};

}  // namespace nerva
