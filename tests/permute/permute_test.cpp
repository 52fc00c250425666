// Permute<N> through its public entry point against the naive reference.
#include "qel_permute/permute.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <random>
#include <vector>

#include "permute_reference.hpp"

namespace {

using namespace permute_test;

void permute_public(std::size_t width, void const* src, void* dst, std::size_t n,
                    std::size_t const* sizes, std::size_t const* perm) {
  switch (width) {
    case 1:
      qel_permute::Permute<1>(src, dst, n, sizes, perm, nullptr, nullptr);
      break;
    case 4:
      qel_permute::Permute<4>(src, dst, n, sizes, perm, nullptr, nullptr);
      break;
    default:
      qel_permute::Permute<8>(src, dst, n, sizes, perm, nullptr, nullptr);
      break;
  }
}

// Permutes random data and compares every byte with the reference; the bytes
// around the destination must stay untouched.
void check_case(std::size_t width, std::vector<std::size_t> const& sizes,
                std::vector<std::size_t> const& perm, std::mt19937_64& rng) {
  std::size_t const bytes = element_count(sizes) * width;
  Bytes const src = random_bytes(bytes, rng);
  Bytes expected(bytes);
  reference_permute(width, src.data(), expected.data(), sizes, perm);
  GuardedBuffer dst(bytes);
  permute_public(width, src.data(), dst.data(), sizes.size(), sizes.data(), perm.data());
  SCOPED_TRACE(::testing::Message() << "width " << width << ", " << sizes.size() << " dims");
  EXPECT_TRUE(dst.equals(expected));
  EXPECT_TRUE(dst.guards_intact());
}

class PermuteWidth : public ::testing::TestWithParam<std::size_t> {};

TEST_P(PermuteWidth, RandomShapesMatchReference) {
  std::mt19937_64 rng(1234 + GetParam());
  for (int i = 0; i < 300; ++i) {
    Case const c = random_case(rng, 8, 6000);
    check_case(GetParam(), c.sizes, c.permutation, rng);
    if (HasFailure()) {
      ADD_FAILURE() << "failed at random case " << i;
      return;
    }
  }
}

TEST_P(PermuteWidth, ZeroExtentWritesNothing) {
  std::mt19937_64 rng(7);
  check_case(GetParam(), {5, 0, 3}, {3, 1, 2}, rng);
  check_case(GetParam(), {0}, {1}, rng);
  check_case(GetParam(), {4, 6, 0}, {1, 2, 3}, rng);
}

TEST_P(PermuteWidth, SingleDimensionAndSingleElement) {
  std::mt19937_64 rng(8);
  check_case(GetParam(), {1}, {1}, rng);
  check_case(GetParam(), {1000}, {1}, rng);
  check_case(GetParam(), {1, 1, 1, 1}, {4, 2, 3, 1}, rng);
}

TEST_P(PermuteWidth, IdentityIsACopy) {
  std::mt19937_64 rng(9);
  check_case(GetParam(), {7, 5, 3, 2}, {1, 2, 3, 4}, rng);
}

TEST_P(PermuteWidth, ManyDimensions) {
  // More dimensions than the planner keeps on the stack.
  std::mt19937_64 rng(10);
  std::vector<std::size_t> sizes(20, 1), perm(20);
  sizes[2] = 3;
  sizes[7] = 2;
  sizes[11] = 5;
  sizes[19] = 2;
  sizes[15] = 4;
  for (std::size_t d = 0; d < 20; ++d) perm[d] = 20 - d;
  check_case(GetParam(), sizes, perm, rng);
  std::swap(perm[3], perm[9]);
  check_case(GetParam(), sizes, perm, rng);
}

// The layer-step reformats measured by the benchmark: KORVAL to chained,
// channel/observation swap, chained to KORVAL, small and large images, and
// the two data dimensions swapped.
TEST_P(PermuteWidth, LayerReformats) {
  std::mt19937_64 rng(11);
  using V = std::vector<std::size_t>;
  check_case(GetParam(), V{56, 56, 64, 32, 1}, V{3, 4, 1, 2, 5}, rng);
  check_case(GetParam(), V{56, 56, 64, 32, 1}, V{1, 2, 4, 3, 5}, rng);
  check_case(GetParam(), V{64, 32, 56, 56, 1}, V{3, 4, 1, 2, 5}, rng);
  check_case(GetParam(), V{7, 7, 512, 64, 1}, V{3, 4, 1, 2, 5}, rng);
  check_case(GetParam(), V{224, 224, 3, 16, 1}, V{3, 4, 1, 2, 5}, rng);
  check_case(GetParam(), V{56, 56, 64, 32, 1}, V{3, 4, 2, 1, 5}, rng);
}

INSTANTIATE_TEST_SUITE_P(Widths, PermuteWidth, ::testing::Values(1, 4, 8));

}  // namespace
