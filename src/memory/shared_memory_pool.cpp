#include <utility>

#include "nerva/memory.hpp"

namespace nerva {

SharedMemoryPool::SharedMemoryPool(AllocatorFunctions fns, void (*error_fn)(char const*),
                                   long users)
    : allocator_functions(fns),
      active_users(users),
      waiting_requests(0),
      error_function(error_fn) {}

SharedMemoryPool::~SharedMemoryPool() = default;

std::unique_ptr<CNNMemoryBlock> SharedMemoryPool::lease(std::size_t bytes) {
  if (bytes < threshold) return std::make_unique<CNNMemoryBlock>(bytes, allocator_functions);

  // Fresh large blocks are made under the lock too, so the host's allocate is
  // never entered concurrently from this path.
  tbb::mutex::scoped_lock lock(mutex);
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    if (blocks[i]->allocated_size() != bytes) continue;
    std::unique_ptr<CNNMemoryBlock> found = std::move(blocks[i]);
    blocks[i] = std::move(blocks.back());
    blocks.pop_back();
    return found;
  }
  return std::make_unique<CNNMemoryBlock>(bytes, allocator_functions);
}

std::unique_ptr<CNNMemoryBlock> SharedMemoryPool::lease_or_error(std::size_t bytes) {
  if (bytes == 0) return std::make_unique<CNNMemoryBlock>(0, allocator_functions);

  ++waiting_requests;
  std::unique_ptr<CNNMemoryBlock> block = lease(bytes);
  for (;;) {
    if (block->allocated_size() != 0) {
      --waiting_requests;
      return block;
    }
    // Give up only when every party that could still return memory is itself
    // waiting; otherwise wait for one of them to finish and try again.
    if (waiting_requests.load() >= active_users.load()) {
      error_function("Out of memory.");
      continue;
    }
    const long reference = active_users.load();
    while (active_users.load(std::memory_order_acquire) >= reference) {
    }
    block = lease(bytes);
  }
}

void SharedMemoryPool::checkin(std::unique_ptr<CNNMemoryBlock> block) {
  if (block->allocated_size() < threshold) return;
  tbb::mutex::scoped_lock lock(mutex);
  blocks.push_back(std::move(block));
}

void SharedMemoryPool::checkin(std::unique_ptr<CNNMemoryBlock> first,
                               std::unique_ptr<CNNMemoryBlock> second) {
  if (first->allocated_size() < threshold) return;
  tbb::mutex::scoped_lock lock(mutex);
  blocks.push_back(std::move(first));
  blocks.push_back(std::move(second));
}

std::unique_ptr<CNNMemoryBlock> SharedMemoryPool::pop_back() {
  std::unique_ptr<CNNMemoryBlock> last = std::move(blocks.back());
  blocks.pop_back();
  return last;
}

}  // namespace nerva
