#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "expect_invalid.hpp"
#include "nerva/copy.hpp"
#include "qel_permute/permute.hpp"
#include "support/counting_allocator.hpp"

namespace {

TEST(CheckedKernels, StridedCopyMappingRejectsAZeroIncrementOverANonEmptyRange) {
  counting::LeakCheck check;
  std::size_t const sizes[] = {8, 6, 1, 1};
  std::size_t const firsts[] = {0, 2}, lasts[] = {8, 5}, increments[] = {1, 0};
  expect_invalid(
      [&] {
        nerva::strided_copy_mapping(sizes, firsts, lasts, increments, 2, counting::functions());
      },
      "strided_copy_mapping: increment 0 in dimension 1 with the non-empty range [2, 5)");
  // Over an empty range the increment is never used.
  std::size_t const emptyLasts[] = {8, 2};
  auto block =
      nerva::strided_copy_mapping(sizes, firsts, emptyLasts, increments, 2, counting::functions());
  EXPECT_NE(block, nullptr);
}

TEST(CheckedKernels, StridedCopyRejectsZeroIncrementsAndEmptyRanges) {
  counting::LeakCheck check;
  nerva::SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
  std::vector<float> src(48, 1.0f);
  std::size_t const sizes[] = {8, 6, 1, 1};
  std::size_t const firsts[] = {0, 2}, lasts[] = {8, 5};
  std::size_t const zero[] = {0, 1};
  expect_invalid(
      [&] {
        nerva::strided_copy<float>(pool, src.data(), sizes, firsts, lasts, zero, 2, 1, nullptr);
      },
      "strided_copy: increment 0 in dimension 0 with the range [0, 8)");
  std::size_t const emptyLasts[] = {8, 2}, two[] = {1, 2};
  expect_invalid(
      [&] {
        nerva::strided_copy<float>(pool, src.data(), sizes, firsts, emptyLasts, two, 2, 1, nullptr);
      },
      "strided_copy: empty range [2, 2) with increment 2 in dimension 1");
}

TEST(CheckedKernels, PermuteRejectsOrderVectorsThatAreNoPermutation) {
  std::vector<float> src(24, 0.0f), dst(24, 0.0f);
  std::size_t const sizes[] = {2, 3, 4};
  std::size_t const outside[] = {1, 4, 2};
  expect_invalid(
      [&] { qel_permute::Permute<4>(src.data(), dst.data(), 3, sizes, outside, nullptr, nullptr); },
      "qel_permute::Permute: permutation entry 1 is 4, outside 1..3");
  std::size_t const repeated[] = {3, 1, 3};
  expect_invalid(
      [&] {
        qel_permute::Permute<4>(src.data(), dst.data(), 3, sizes, repeated, nullptr, nullptr);
      },
      "qel_permute::Permute: permutation entry 2 repeats the value 3");
  std::size_t const zero[] = {0, 1, 2};
  expect_invalid(
      [&] { qel_permute::Permute<4>(src.data(), dst.data(), 3, sizes, zero, nullptr, nullptr); },
      "qel_permute::Permute: permutation entry 0 is 0, outside 1..3");
}

}  // namespace
