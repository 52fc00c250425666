#include <gtest/gtest.h>

#include <new>

#include "nerva/memory.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::CNNMemoryBlock;

// Empty, failed, released and adopted blocks each free exactly what they
// still own (the counting allocator rejects anything else); a throwing
// allocator passes through.
TEST(CNNMemoryBlock, FreesExactlyWhatItOwns) {
  counting::LeakCheck check;
  {
    CNNMemoryBlock empty(0, counting::functions());
    EXPECT_EQ(empty.allocated_size(), 0u);
    counting::fail_at(1);
    CNNMemoryBlock failed(100, counting::functions());
    EXPECT_EQ(failed.allocated_size(), 0u);
  }
  void* raw = nullptr;
  {
    CNNMemoryBlock block(256, counting::functions());
    raw = block.release();
    EXPECT_EQ(block.allocated_size(), 0u);
    EXPECT_EQ(block.release(), nullptr);
  }
  EXPECT_EQ(counting::stats().null_frees, 2u);  // the failed and the released block
  EXPECT_EQ(counting::live_blocks(), 1u);       // the released memory is still live
  {
    CNNMemoryBlock adopted(raw, 256, counting::functions());
    EXPECT_EQ(adopted.allocated_size(), 256u);
  }
  EXPECT_EQ(counting::stats().allocations, 2u);  // adopting never allocates
  counting::throw_at(1);
  EXPECT_THROW(CNNMemoryBlock(64, counting::functions()), std::bad_alloc);
}

}  // namespace
