#include <gtest/gtest.h>

#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

namespace {

void* last_freed = nullptr;
std::size_t frees = 0;
void* fixed_allocate(std::size_t) { return reinterpret_cast<void*>(0x1000); }
void recording_deallocate(void* p) {
  last_freed = p;
  ++frees;
}

TEST(CNNMemoryBlock, ZeroSizeKeepsWhatAllocateReturnedAndFreesIt) {
  frees = 0;
  {
    nerva::CNNMemoryBlock block(0, {&fixed_allocate, &recording_deallocate});
    EXPECT_EQ(block.allocated_size(), 0u);
    EXPECT_EQ(block.data, reinterpret_cast<void*>(0x1000));
  }
  EXPECT_EQ(frees, 1u);
  EXPECT_EQ(last_freed, reinterpret_cast<void*>(0x1000));
}

TEST(CNNMemoryBlock, FailedAllocationReportsZeroAndFreesNull) {
  counting::LeakCheck check;
  counting::fail_at(1);
  {
    nerva::CNNMemoryBlock block(100, counting::functions());
    EXPECT_EQ(block.allocated_size(), 0u);
    EXPECT_EQ(block.data, nullptr);
  }
  EXPECT_EQ(counting::stats().null_frees, 1u);
}

TEST(CNNMemoryBlock, ReleaseHandsOverOwnership) {
  counting::LeakCheck check;
  void* raw = nullptr;
  {
    nerva::CNNMemoryBlock block(256, counting::functions());
    EXPECT_EQ(block.allocated_size(), 256u);
    raw = block.release();
    EXPECT_NE(raw, nullptr);
    EXPECT_EQ(block.allocated_size(), 0u);
    EXPECT_EQ(block.release(), nullptr);
  }
  EXPECT_EQ(counting::live_blocks(), 1u);  // the block did not free what it gave away
  EXPECT_EQ(counting::stats().null_frees, 1u);
  counting::deallocate(raw);
}

TEST(CNNMemoryBlock, AdoptingNeverAllocatesAndFreesOnDestruction) {
  counting::LeakCheck check;
  void* raw = counting::allocate(64);
  {
    nerva::CNNMemoryBlock block(raw, 64, counting::functions());
    EXPECT_EQ(block.allocated_size(), 64u);
    EXPECT_EQ(block.data, raw);
  }
  EXPECT_EQ(counting::stats().allocations, 1u);
}

TEST(CNNMemoryBlock, ThrowingAllocatorPassesThrough) {
  counting::LeakCheck check;
  counting::throw_at(1);
  EXPECT_THROW(std::make_unique<nerva::CNNMemoryBlock>(64, counting::functions()),
               std::bad_alloc);
}

}  // namespace
