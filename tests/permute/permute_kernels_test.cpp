// The planner and the transpose kernels of every instruction set this CPU
// runs, each against the naive reference.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "permute/dispatch.hpp"
#include "permute/execute.hpp"
#include "permute/plan.hpp"
#include "permute_reference.hpp"

namespace {

using namespace permute_test;
using qel_permute::detail::Dim;
using qel_permute::detail::Isa;
using qel_permute::detail::make_plan;

TEST(PermutePlan, KorvalToChainedIsOneMatrixTranspose) {
  std::size_t const sizes[] = {56, 56, 64, 32, 1}, perm[] = {3, 4, 1, 2, 5};
  Dim dims[5];
  auto const plan = make_plan(5, sizes, perm, dims);
  ASSERT_FALSE(plan.empty);
  ASSERT_EQ(plan.rank, 2u);
  EXPECT_EQ(dims[0].extent, 2048u);
  EXPECT_EQ(dims[0].srcStride, 3136u);
  EXPECT_EQ(dims[1].extent, 3136u);
  EXPECT_EQ(dims[1].srcStride, 1u);
  EXPECT_EQ(dims[1].dstStride, 2048u);
}

TEST(PermutePlan, ChannelObservationSwapKeepsRuns) {
  std::size_t const sizes[] = {56, 56, 64, 32, 1}, perm[] = {1, 2, 4, 3, 5};
  Dim dims[5];
  auto const plan = make_plan(5, sizes, perm, dims);
  ASSERT_EQ(plan.rank, 3u);
  EXPECT_EQ(dims[0].extent, 3136u);
  EXPECT_EQ(dims[0].srcStride, 1u);
  EXPECT_EQ(dims[1].extent, 32u);
  EXPECT_EQ(dims[2].extent, 64u);
}

TEST(PermutePlan, UnitDimensionsDoNotBlockFusion) {
  // Dimensions 0 and 2 are adjacent once the extent-1 dimension between them
  // is gone, so the permutation is a 2-D transpose.
  std::size_t const sizes[] = {4, 1, 5, 6}, perm[] = {4, 2, 1, 3};
  Dim dims[4];
  auto const plan = make_plan(4, sizes, perm, dims);
  ASSERT_EQ(plan.rank, 2u);
  EXPECT_EQ(dims[0].extent, 6u);
  EXPECT_EQ(dims[1].extent, 20u);
}

TEST(PermutePlan, ZeroAndUnitExtents) {
  std::size_t const zero[] = {3, 0, 2}, ones[] = {1, 1, 1}, perm[] = {2, 3, 1};
  Dim dims[3];
  EXPECT_TRUE(make_plan(3, zero, perm, dims).empty);
  auto const plan = make_plan(3, ones, perm, dims);
  EXPECT_FALSE(plan.empty);
  EXPECT_EQ(plan.rank, 0u);
}

std::vector<Isa> supported_isas() {
  std::vector<Isa> isas;
  for (Isa isa : {Isa::Scalar, Isa::Sse2, Isa::Avx2, Isa::Avx512}) {
    if (qel_permute::detail::isa_supported(isa)) isas.push_back(isa);
  }
  return isas;
}

// streamBytes 0 streams every transpose; shift misaligns the destination.
void check_isa(Isa isa, std::size_t width, std::vector<std::size_t> const& sizes,
               std::vector<std::size_t> const& perm, std::mt19937_64& rng,
               std::size_t streamBytes = SIZE_MAX, std::size_t shift = 0) {
  std::size_t const bytes = element_count(sizes) * width;
  Bytes const src = random_bytes(bytes, rng);
  Bytes expected(bytes);
  reference_permute(width, src.data(), expected.data(), sizes, perm);
  GuardedBuffer dst(bytes, shift);
  qel_permute::detail::permute(isa, width, src.data(), dst.data(), sizes.size(), sizes.data(),
                               perm.data(), streamBytes);
  SCOPED_TRACE(::testing::Message() << "isa " << static_cast<int>(isa) << ", width " << width
                                    << ", stream " << (streamBytes == 0) << ", shift " << shift);
  EXPECT_TRUE(dst.equals(expected));
  EXPECT_TRUE(dst.guards_intact());
}

TEST(PermuteKernels, EveryInstructionSetMatchesReference) {
  for (Isa isa : supported_isas()) {
    for (std::size_t width : {1, 4, 8}) {
      std::mt19937_64 rng(99 + width);
      for (int i = 0; i < 120; ++i) {
        Case const c = random_case(rng, 6, 5000);
        check_isa(isa, width, c.sizes, c.permutation, rng);
        check_isa(isa, width, c.sizes, c.permutation, rng, 0, (i % 8) * width);
        if (HasFailure()) return;
      }
    }
  }
}

TEST(PermuteKernels, MatrixEdgesAroundTileSizes) {
  // 2-D transposes whose sides straddle every tile and block size, alone and
  // batched over a third dimension on either side.
  std::size_t const sides[] = {1, 3, 8, 15, 17, 31, 33, 64, 65, 130};
  for (Isa isa : supported_isas()) {
    for (std::size_t width : {1, 4, 8}) {
      std::mt19937_64 rng(5 + width);
      for (std::size_t a : sides) {
        for (std::size_t b : sides) {
          check_isa(isa, width, {a, b}, {2, 1}, rng);
          check_isa(isa, width, {a, 3, b}, {3, 2, 1}, rng);
          check_isa(isa, width, {a, b, 2}, {2, 3, 1}, rng);
          if (HasFailure()) return;
        }
      }
    }
  }
}

TEST(PermuteKernels, ShortRunsMoveAsWideElements) {
  // Runs of 4 or 8 bytes that stay together are transposed as single wider
  // elements; other short runs are copied one by one.
  for (Isa isa : supported_isas()) {
    std::mt19937_64 rng(23);
    check_isa(isa, 1, {4, 37, 50}, {1, 3, 2}, rng);
    check_isa(isa, 1, {8, 50, 37}, {1, 3, 2}, rng, 0);
    check_isa(isa, 4, {2, 70, 3, 45}, {1, 4, 3, 2}, rng);
    check_isa(isa, 4, {2, 70, 45}, {1, 3, 2}, rng, 0, 4);
    check_isa(isa, 1, {2, 2, 30, 40}, {1, 2, 4, 3}, rng);
    check_isa(isa, 8, {3, 30, 40}, {1, 3, 2}, rng);
  }
}

TEST(PermuteKernels, StreamingStoresAtEveryAlignment) {
  // Non-temporal stores start at the first 64-byte boundary of each
  // destination row; every offset of the destination within a line must
  // still produce every element exactly right.
  std::size_t const sides[] = {7, 16, 33, 64, 100, 129};
  for (Isa isa : supported_isas()) {
    for (std::size_t width : {1, 4, 8}) {
      std::mt19937_64 rng(17 + width);
      for (std::size_t shift : {std::size_t{0}, width, 3 * width, 16 + width, 64 - width}) {
        for (std::size_t a : sides) {
          for (std::size_t b : sides) {
            check_isa(isa, width, {a, b}, {2, 1}, rng, 0, shift);
            check_isa(isa, width, {a, 3, b}, {3, 2, 1}, rng, 0, shift);
          }
        }
        if (HasFailure()) return;
      }
    }
  }
}

TEST(PermuteKernels, StreamingRowsThatAreNotWholeLines) {
  // Destination rows a few elements off whole lines each start at their own
  // offset within a line: whole lines in between are streamed, the partial
  // lines at the row ends get plain stores. Row lengths around one, two and
  // many lines, row counts around the tile sizes, alone and batched.
  for (Isa isa : supported_isas()) {
    for (std::size_t width : {1, 4, 8}) {
      std::mt19937_64 rng(41 + width);
      std::size_t const line = 64 / width;
      std::size_t const lengths[] = {line + 3,     2 * line - 1,        2 * line + 1, 3 * line + 5,
                                     5 * line - 3, 7 * line + line / 2, 13 * line + 9};
      for (std::size_t shift : {std::size_t{0}, width, 16 + width, 64 - width}) {
        for (std::size_t a : lengths) {
          for (std::size_t b : {1, 17, 65, 70}) {
            check_isa(isa, width, {b, a}, {2, 1}, rng, 0, shift);
            check_isa(isa, width, {b, 2, a}, {3, 2, 1}, rng, 0, shift);
          }
        }
        // A padded 13 x 13 output and back, as in a layer step.
        check_isa(isa, width, {16, 4, 13, 13}, {3, 4, 1, 2}, rng, 0, shift);
        check_isa(isa, width, {13, 13, 16, 4}, {3, 4, 1, 2}, rng, 0, shift);
        if (HasFailure()) return;
      }
    }
  }
}

}  // namespace
