#include "nerva/input_array.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "array_test_util.hpp"
#include "support/counting_allocator.hpp"

namespace {

using arrays_test::idle_data;
using arrays_test::idle_sizes;
using arrays_test::value;
using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::FormattedInputArray;
using nerva::SharedMemoryPool;

// A KORVAL layout of w x h data, c channels, n observations.
std::unique_ptr<FormattedArray> korval_format(std::size_t w, std::size_t h, std::size_t c,
                                              std::size_t n) {
  auto f = std::make_unique<FormattedArray>(2, 2, 3, 4, counting::functions(), 1);
  const std::size_t sizes[5] = {w, h, c, n, 1};
  f->SetSizesInDefaultFormat(sizes, 5);
  return f;
}

template <typename T>
std::unique_ptr<CNNMemoryBlock> korval_block(std::size_t w, std::size_t h, std::size_t c,
                                             std::size_t n) {
  auto block = std::make_unique<CNNMemoryBlock>(w * h * c * n * sizeof(T), counting::functions());
  T* data = static_cast<T*>(block->data);
  for (std::size_t b = 0; b < n; ++b)
    for (std::size_t k = 0; k < c; ++k)
      for (std::size_t y = 0; y < h; ++y)
        for (std::size_t x = 0; x < w; ++x)
          data[x + w * (y + h * (k + c * b))] = value<T>(x, y, k, b);
  return block;
}

TEST(InputArray, ConstructorsTakeLayoutAndSizes) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  const float elements[1] = {0};
  const std::size_t factors[2] = {2, 3};
  // Sizes in layout order with the channel first: missing trailing sizes are 1.
  const std::size_t sizes[3] = {4, 5, 6};
  FormattedInputArray<float> a(pool, elements, sizes, 3, 2, 0, 3, factors);
  EXPECT_EQ(a.NumChannels(), 4u);
  EXPECT_EQ(a.DataSize(0), 5u);
  EXPECT_EQ(a.DataSize(1), 6u);
  EXPECT_EQ(a.NumObservations(), 1u);
  EXPECT_EQ(a.DataIncrement(0), 4);
  EXPECT_EQ(a.UpsamplingFactors(), factors);
  EXPECT_EQ(a.UpsamplingFactor(1), 3u);
  EXPECT_EQ(&a.Pool(), &pool);
  EXPECT_EQ(a.Data(), elements);
  // Metadata blocks are kept and freed with the array, never pooled.
  a.Attach(std::make_unique<CNNMemoryBlock>(8192, counting::functions()));
  a.Attach(std::make_unique<CNNMemoryBlock>(8192, counting::functions()));
  EXPECT_EQ(a.MetaData()->allocated_size(), 8192u);
  EXPECT_EQ(counting::stats().deallocations, 1u);

  auto format = korval_format(3, 2, 5, 7);
  format->Reverse();
  FormattedInputArray<float> b(pool, elements, format.get());
  EXPECT_TRUE(b.IsInKORVALFormat());
  EXPECT_EQ(b.TotalNumElem(), 3u * 2 * 5 * 7);
  EXPECT_EQ(b.BaseIncrement(), -1);
  EXPECT_EQ(b.DataIncrement(1), -3);
  EXPECT_EQ(b.UpsamplingFactors(), nullptr);

  FormattedInputArray<float> c(pool, std::unique_ptr<CNNMemoryBlock>(), format.get());
  EXPECT_EQ(c.Data(), nullptr);
  // The source is not given away before the array reads its own copy.
  EXPECT_EQ(b.RelinquishSourceIfUnused(), nullptr);
  EXPECT_EQ(b.Data(), elements);
  EXPECT_EQ(b.Relinquish(), nullptr);
  EXPECT_EQ(b.Data(), elements);
}

TEST(InputArray, SubsampleSizesAndValuesAndSecondSubsample) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  constexpr std::size_t w = 20, h = 12, c = 3, n = 2;
  auto format = korval_format(w, h, c, n);
  FormattedInputArray<float> a(pool, korval_block<float>(w, h, c, n), format.get());
  a.Reformat(nerva::ChainedFormat);

  const std::size_t firsts[2] = {1, 2}, lasts[2] = {20, 12}, inc[2] = {3, 4};
  const void* reformatted = a.Data();
  a.Subsample(firsts, lasts, inc, nullptr);
  // The chained copy went back to the pool; sizes follow the selection.
  EXPECT_EQ(idle_data(pool), std::vector<void*>{const_cast<void*>(reformatted)});
  ASSERT_EQ(a.DataSize(0), 7u);
  ASSERT_EQ(a.DataSize(1), 3u);
  EXPECT_EQ(a.DataIncrement(0), static_cast<long>(c * n));
  EXPECT_EQ(a.DataIncrement(1), static_cast<long>(c * n * 7));
  for (std::size_t j = 0; j < 3; ++j)
    for (std::size_t i = 0; i < 7; ++i)
      for (std::size_t b = 0; b < n; ++b)
        for (std::size_t k = 0; k < c; ++k)
          ASSERT_EQ(a.Data()[k + c * (b + n * (i + 7 * j))],
                    value<float>(1 + 3 * i, 2 + 4 * j, k, b));

  // A second subsample reads the first one's result (and returns its block,
  // small here, so freed); increment 1 and an empty range.
  const std::size_t f2[2] = {2, 1}, l2[2] = {6, 1}, i2[2] = {1, 1};
  a.Subsample(f2, l2, i2, nullptr);
  EXPECT_EQ(a.DataSize(0), 4u);
  EXPECT_EQ(a.DataSize(1), 0u);
  EXPECT_EQ(a.TotalNumElem(), 0u);
  EXPECT_EQ(pool.blocks.size(), 1u);

  // firsts 0, lasts 10, increments 3 gives 4.
  auto small = korval_format(10, 1, 1, 1);
  FormattedInputArray<float> s(pool, korval_block<float>(10, 1, 1, 1), small.get());
  const std::size_t f3[2] = {0, 0}, l3[2] = {10, 1}, i3[2] = {3, 1};
  s.Subsample(f3, l3, i3, nullptr);
  ASSERT_EQ(s.DataSize(0), 4u);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(s.Data()[i], value<float>(3 * i, 0, 0, 0));
}

TEST(InputArray, RelinquishSourceIfUnusedOnlyAfterAMovingReformat) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto format = korval_format(4, 4, 2, 1);
  auto block = korval_block<double>(4, 4, 2, 1);
  void* handed = block->data;
  FormattedInputArray<double> a(pool, std::move(block), format.get());
  EXPECT_EQ(static_cast<const void*>(a.Data()), handed);
  EXPECT_EQ(a.RelinquishSourceIfUnused(), nullptr);
  a.Reformat(nerva::ChainedFormat);
  auto taken = a.RelinquishSourceIfUnused();
  ASSERT_NE(taken, nullptr);
  EXPECT_EQ(taken->data, handed);
  EXPECT_EQ(a.RelinquishSourceIfUnused(), nullptr);
  EXPECT_EQ(a.Data()[1], value<double>(0, 0, 1, 0));  // chained: channel fastest
  // Relinquish hands out the copy; the array then points at its (taken) source.
  auto copy = a.Relinquish();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(a.Data(), nullptr);
}

// The destructor checks the reformatted block in together with the handed-over
// source; the size of the reformatted block alone decides for both.
TEST(InputArray, DestructorTwoBlockCheckIn) {
  counting::LeakCheck check;
  SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  auto format = korval_format(32, 32, 2, 1);  // 2048 floats: 8 KiB
  void* handed = nullptr;
  void* copy = nullptr;
  {
    auto block = korval_block<float>(32, 32, 2, 1);
    handed = block->data;
    FormattedInputArray<float> a(pool, std::move(block), format.get());
    a.Reformat(nerva::ChainedFormat);
    copy = const_cast<float*>(a.Data());
  }
  EXPECT_EQ(idle_data(pool), (std::vector<void*>{copy, handed}));
  pool.blocks.clear();

  {
    // A small subsample result takes the 8 KiB source block down with it.
    FormattedInputArray<float> a(pool, korval_block<float>(32, 32, 2, 1), format.get());
    const std::size_t firsts[2] = {0, 0}, lasts[2] = {32, 32}, inc[2] = {8, 8};
    a.Subsample(firsts, lasts, inc, nullptr);
    EXPECT_EQ(a.TotalNumElem(), 32u);
    EXPECT_EQ(counting::live_blocks(), 4u);  // format, storage, source, result
  }
  EXPECT_TRUE(pool.blocks.empty());
  EXPECT_EQ(counting::live_blocks(), 1u);  // the format

  {
    // Only the handed-over source: checked in alone.
    auto block = korval_block<float>(32, 32, 2, 1);
    handed = block->data;
    FormattedInputArray<float> a(pool, std::move(block), format.get());
  }
  EXPECT_EQ(idle_data(pool), std::vector<void*>{handed});
  EXPECT_EQ(idle_sizes(pool), std::vector<std::size_t>{8192});
}

}  // namespace
