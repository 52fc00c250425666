#include "nerva/memory.hpp"

namespace nerva {

CNNMemoryBlock::CNNMemoryBlock(std::size_t size, AllocatorFunctions fns)
    : allocator_functions(fns), data(nullptr), allocated_size_(0) {
  // Valid (null, 0) before the callback runs, so a throwing allocate leaves
  // nothing half-made.
  data = fns.allocate(size);
  allocated_size_ = data != nullptr ? size : 0;
}

CNNMemoryBlock::CNNMemoryBlock(void* data_, std::size_t size, AllocatorFunctions fns)
    : allocator_functions(fns), data(data_), allocated_size_(size) {}

CNNMemoryBlock::~CNNMemoryBlock() { allocator_functions.deallocate(data); }

void* CNNMemoryBlock::release() {
  void* result = data;
  data = nullptr;
  allocated_size_ = 0;
  return result;
}

}  // namespace nerva
