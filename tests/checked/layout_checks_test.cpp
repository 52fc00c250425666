#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "expect_invalid.hpp"
#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedArray;

TEST(CheckedLayout, IndexedAccessorsRejectIndicesPastTheirTables) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  std::size_t const sizes[] = {5, 7, 3, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 5);

  EXPECT_EQ(a.DataSize(4), 1u);  // any logical dimension is fine
  expect_invalid([&] { a.DataSize(5); },
                 "FormattedArray::DataSize: dimension index 5 out of range (5 dimensions)");
  EXPECT_EQ(a.DataIncrement(1), 5);
  expect_invalid(
      [&] { a.DataIncrement(2); },
      "FormattedArray::DataIncrement: data dimension index 2 out of range (2 data dimensions)");
  EXPECT_EQ(a.DataDimension(4), 4u);
  expect_invalid([&] { a.DataDimension(9); },
                 "FormattedArray::DataDimension: dimension index 9 out of range (5 dimensions)");
}

TEST(CheckedLayout, ReformatDataRejectsALayoutThatIsNoPermutation) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  // Channel and observation both at position 0: the map (1, 0, 0, 3) has a
  // hole at position 2, so the order vector to (1, 2) repeats a value.
  FormattedArray a(1, 0, 0, 3, counting::functions(), 1);
  std::size_t const sizes[] = {3, 2, 2, 1};
  a.SetSizesInDefaultFormat(sizes, 4);
  std::vector<float> data(12, 1.0f);
  expect_invalid([&] { a.ReformatData<float>(data.data(), 1, 2, nerva::InOrder, nullptr, pool); },
                 "FormattedArray::ReformatData: permutation entry 2 repeats the value 1");
  // Nothing moved and the layout is as it was.
  EXPECT_EQ(a.ChannelDimension(), 0u);
  EXPECT_EQ(a.ObservationDimension(), 0u);
  EXPECT_TRUE(pool.blocks.empty());
}

}  // namespace
