#include <gtest/gtest.h>

#include <vector>

#include "nerva/formatted_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedArray;

std::vector<size_t> map_of(const FormattedArray& a) {
  const size_t* m = a.GetDimensionPermutation();
  return std::vector<size_t>(m, m + a.NumDimensions());
}

std::vector<long> increments_of(const FormattedArray& a) {
  const long* p = a.DataIncrements();
  return std::vector<long>(p, p + a.NumDataDimensions());
}

std::vector<size_t> sizes_of(const FormattedArray& a) {
  const size_t* s = a.GetSizesInDefaultFormat();
  return std::vector<size_t>(s, s + a.NumDimensions());
}

const size_t kSizes[] = {5, 7, 3, 2, 1};

TEST(FormattedArray, MetadataIsOneZeroFilledBlockThatIsGivenBack) {
  counting::LeakCheck check;
  for (size_t n : {0, 1, 2, 5}) {
    {
      FormattedArray a(n, n, n + 1, n + 2, counting::functions(), 1);
      EXPECT_EQ(counting::live_blocks(), 1u);
      EXPECT_EQ(counting::live_bytes(), (3 * n + 6) * 8);
      EXPECT_EQ(a.NumDataDimensions(), n);
      EXPECT_EQ(a.NumDimensions(), n + 3);
      EXPECT_EQ(a.BaseIncrement(), 1);
      EXPECT_EQ(sizes_of(a), std::vector<size_t>(n + 3, 0));
      EXPECT_EQ(increments_of(a), std::vector<long>(n, 0));
      EXPECT_TRUE(a.IsInKORVALFormat());
    }
    EXPECT_EQ(counting::live_blocks(), 0u);
  }
}

TEST(FormattedArray, KORVALPositionsGiveNaturalMapAndIncrements) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{0, 1, 2, 3, 4}));
  a.SetSizesInDefaultFormat(kSizes, 5);
  EXPECT_EQ(increments_of(a), (std::vector<long>{1, 5}));
  EXPECT_EQ(a.ChannelIncrement(), 35u);
  EXPECT_EQ(a.ObservationIncrement(), 105u);
  EXPECT_EQ(a.NumDataElem(), 35u);
  EXPECT_EQ(a.NumChannels(), 3u);
  EXPECT_EQ(a.NumObservations(), 2u);
  EXPECT_EQ(a.ChannelDimension(), 2u);
  EXPECT_EQ(a.ObservationDimension(), 3u);
  EXPECT_EQ(a.SequenceDimension(), 4u);
}

TEST(FormattedArray, ChainedPositionsShiftDataDimensionsUp) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 0, 1, 4}));
  a.SetSizesInDefaultFormat(kSizes, 5);
  EXPECT_EQ(increments_of(a), (std::vector<long>{6, 30}));
  EXPECT_EQ(a.DataIncrement(1), 30);
  EXPECT_EQ(a.ChannelIncrement(), 1u);
  EXPECT_EQ(a.ObservationIncrement(), 3u);
  EXPECT_EQ(a.DataDimension(0), 2u);
}

TEST(FormattedArray, PopulateDimMapPlacesDataAroundChannelAndObservation) {
  counting::LeakCheck check;
  FormattedArray a(3, 1, 3, 5, counting::functions(), 1);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{0, 2, 4, 1, 3, 5}));
  // Observation before channel; sequence not treated as taken.
  a.PopulateDimMap(2, 0, 5);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{1, 3, 4, 2, 0, 5}));
  a.PopulateDimMap(4, 5, 0);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{0, 1, 2, 4, 5, 0}));
}

TEST(FormattedArray, SequenceIsNeitherExcludedNorSkippedInProducts) {
  counting::LeakCheck check;
  // The sequence position is not treated as taken, so data dimension 0 shares it.
  FormattedArray a(2, 0, 1, 2, counting::functions(), 1);
  EXPECT_EQ(map_of(a), (std::vector<size_t>{2, 3, 0, 1, 2}));
  const size_t sizes[] = {4, 5, 3, 2, 6};
  a.SetSizesInDefaultFormat(sizes, 5);
  // Every dimension at a smaller position counts, the sequence included.
  EXPECT_EQ(increments_of(a), (std::vector<long>{3 * 2, 3 * 2 * 4 * 6}));
}

TEST(FormattedArray, NegativeBaseIncrementNegatesEveryDataIncrement) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), -1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  EXPECT_EQ(increments_of(a), (std::vector<long>{-6, -30}));
  EXPECT_EQ(a.ChannelIncrement(), 1u);  // never signed by base_increment
  EXPECT_EQ(a.ObservationIncrement(), 3u);
}

TEST(FormattedArray, SizeSettersFillTrailingDimensionsWithOne) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t two[] = {8, 9};
  a.SetSizesInCurrentFormat(two, 2);
  EXPECT_EQ(sizes_of(a), (std::vector<size_t>{8, 9, 1, 1, 1}));
  EXPECT_EQ(increments_of(a), (std::vector<long>{1, 8}));

  a.SetSizesInDefaultFormat(two, 2);
  EXPECT_EQ(sizes_of(a), (std::vector<size_t>{8, 9, 1, 1, 1}));

  // Current format is indexed by layout position.
  FormattedArray c(2, 0, 1, 4, counting::functions(), 1);
  const size_t by_position[] = {3, 2, 5, 7, 4};
  c.SetSizesInCurrentFormat(by_position, 5);
  EXPECT_EQ(sizes_of(c), (std::vector<size_t>{5, 7, 3, 2, 4}));
  EXPECT_EQ(increments_of(c), (std::vector<long>{6, 30}));
  c.SetSizesInCurrentFormat(by_position, 3);  // data dim 1 (position 3) and sequence become 1
  EXPECT_EQ(sizes_of(c), (std::vector<size_t>{5, 1, 3, 2, 1}));

  // Own sizes as the source.
  c.SetSizesInDefaultFormat(c.GetSizesInDefaultFormat() + 1, 3);
  EXPECT_EQ(sizes_of(c), (std::vector<size_t>{1, 3, 2, 1, 1}));
}

TEST(FormattedArray, OverrideSizesKeepsSequence) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t all[] = {1, 1, 1, 1, 6};
  a.SetSizesInDefaultFormat(all, 5);
  const size_t data[] = {4, 5};
  a.OverrideSizes(data, 3, 2);
  EXPECT_EQ(sizes_of(a), (std::vector<size_t>{4, 5, 3, 2, 6}));
  EXPECT_EQ(increments_of(a), (std::vector<long>{1, 4}));
  EXPECT_EQ(a.NumNonDataElem(), 6u);
  EXPECT_EQ(a.TotalNumElem(), 4u * 5 * 3 * 2 * 6);
}

TEST(FormattedArray, ScalarLooksAtDataSizesOnly) {
  counting::LeakCheck check;
  FormattedArray a(2, 2, 3, 4, counting::functions(), 1);
  const size_t s[] = {1, 1, 64, 32, 1};
  a.SetSizesInDefaultFormat(s, 5);
  EXPECT_TRUE(a.IsScalar());
  EXPECT_EQ(a.NumDataElem(), 1u);
  const size_t t[] = {1, 2, 1, 1, 1};
  a.SetSizesInDefaultFormat(t, 5);
  EXPECT_FALSE(a.IsScalar());

  FormattedArray z(0, 0, 1, 2, counting::functions(), 1);
  const size_t u[] = {3, 4, 5};
  z.SetSizesInDefaultFormat(u, 3);
  EXPECT_TRUE(z.IsScalar());
  EXPECT_EQ(z.NumDataElem(), 1u);
  EXPECT_EQ(z.TotalNumElem(), 60u);
  EXPECT_EQ(z.NumNonDataElem(), 12u);
}

TEST(FormattedArray, SizesInCurrentFormatAreANewBlockByPosition) {
  counting::LeakCheck check;
  FormattedArray a(2, 0, 1, 4, counting::functions(), 1);
  a.SetSizesInDefaultFormat(kSizes, 5);
  {
    auto block = a.GetSizesInCurrentFormat();
    EXPECT_EQ(block->allocated_size(), 5 * sizeof(size_t));
    EXPECT_EQ(block->allocator_functions.allocate, counting::functions().allocate);
    EXPECT_EQ(counting::live_blocks(), 2u);
    auto* s = static_cast<size_t*>(block->data);
    EXPECT_EQ(std::vector<size_t>(s, s + 5), (std::vector<size_t>{3, 2, 5, 7, 1}));
  }
  EXPECT_EQ(counting::live_blocks(), 1u);
}

}  // namespace
