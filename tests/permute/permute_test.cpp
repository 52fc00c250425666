// Permute<N>, ParallelPermute<N>, the planner and the transpose kernels of
// every instruction set this CPU runs, against the naive reference.
#include "qel_permute/permute.hpp"

#include <gtest/gtest.h>
#include <oneapi/tbb/parallel_for.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <utility>
#include <vector>

#include "permute/dispatch.hpp"
#include "permute/execute.hpp"
#include "permute/plan.hpp"
#include "permute_reference.hpp"

namespace {

using Sizes = std::vector<std::size_t>;
using Case = std::pair<Sizes, Sizes>;  // sizes, permutation
using qel_permute::detail::Isa;

// Routes other than the kernels of one instruction set (0 to 3): the public
// routines, and the parallel split with no serial cut-off and 1 KiB tasks.
enum Route { kPermute = -1, kParallel = -2, kSplit = -3 };

// Permutes random bytes through each of `routes`, with streaming stores on
// every transpose if asked (kernels and split), into a destination `shift`
// bytes off its natural alignment; the destination and the guard bytes around
// it must match the reference byte for byte.
::testing::AssertionResult check(std::size_t width, Case const& c, std::mt19937_64& rng,
                                 std::initializer_list<int> routes = {kPermute},
                                 bool stream = false, std::size_t shift = 0) {
  auto const& [sizes, perm] = c;
  std::size_t const guard = 256 + shift, n = sizes.size();
  std::size_t bytes = width;
  for (std::size_t s : sizes) bytes *= s;
  std::vector<std::uint64_t> random(bytes / 8 + 1);
  for (std::uint64_t& r : random) r = rng();
  auto const* src = reinterpret_cast<unsigned char const*>(random.data());
  std::vector<unsigned char> want(bytes + 2 * guard, 0xA5), got(want);
  permute_test::reference_permute(width, src, want.data() + guard, sizes, perm);
  for (int route : routes) {
    std::fill(got.begin(), got.end(), 0xA5);
    if (route == kPermute || route == kParallel) {
      using qel_permute::ParallelPermute, qel_permute::Permute;
      decltype(&Permute<1>)
          const routines[2][3] = {{&Permute<1>, &Permute<4>, &Permute<8>},
                                  {&ParallelPermute<1>, &ParallelPermute<4>, &ParallelPermute<8>}};
      routines[route == kParallel][width / 4](src, got.data() + guard, n, sizes.data(), perm.data(),
                                              nullptr, nullptr);
    } else if (route == kSplit) {
      qel_permute::detail::permute_parallel(qel_permute::detail::best_isa(), width, src,
                                            got.data() + guard, n, sizes.data(), perm.data(),
                                            stream ? 0 : SIZE_MAX, 0, 1024);
    } else {
      qel_permute::detail::permute(static_cast<Isa>(route), width, src, got.data() + guard, n,
                                   sizes.data(), perm.data(), stream ? 0 : SIZE_MAX);
    }
    if (got == want) continue;
    return ::testing::AssertionFailure()
           << "route " << route << ", width " << width << ", stream " << stream << ", shift "
           << shift << ", sizes " << ::testing::PrintToString(sizes) << ", permutation "
           << ::testing::PrintToString(perm);
  }
  return ::testing::AssertionSuccess();
}

// 1 to 8 dimensions, at most 6000 elements: mostly small extents, some of 1,
// some beyond a tile (rarely a multiple of one), rarely 0.
Case random_case(std::mt19937_64& rng) {
  Case c;
  std::size_t total = 1;
  for (std::size_t d = 0, rank = 1 + rng() % 8; d < rank; ++d) {
    std::size_t const kind = rng() % 8;
    std::size_t const e = kind == 0   ? 1
                          : kind == 1 ? (rng() % 40 == 0 ? 0 : 1 + rng() % 3)
                          : kind == 2 ? 1 + rng() % 70
                                      : 1 + rng() % 12;
    c.first.push_back(std::min(e, std::max<std::size_t>(1, 6000 / total)));
    total *= std::max<std::size_t>(1, c.first.back());
    c.second.push_back(d + 1);
  }
  std::shuffle(c.second.begin(), c.second.end(), rng);
  return c;
}

TEST(PermutePlan, DropsUnitDimensionsAndFusesNeighbours) {
  struct Row {
    Case c;
    std::vector<std::pair<std::size_t, std::size_t>> dims;  // extent, source stride
  } const rows[] = {
      // KORVAL to chained is one matrix transpose.
      {{{56, 56, 64, 32, 1}, {3, 4, 1, 2, 5}}, {{2048, 3136}, {3136, 1}}},
      // The channel/observation swap keeps whole images as runs.
      {{{56, 56, 64, 32, 1}, {1, 2, 4, 3, 5}}, {{3136, 1}, {32, 200704}, {64, 3136}}},
  };
  for (Row const& r : rows) {
    qel_permute::detail::Dim dims[5];
    auto const plan =
        qel_permute::detail::make_plan(r.c.first.size(), r.c.first.data(), r.c.second.data(), dims);
    std::vector<std::pair<std::size_t, std::size_t>> got;
    for (std::size_t i = 0; i < plan.rank; ++i) got.emplace_back(dims[i].extent, dims[i].srcStride);
    EXPECT_EQ(got, r.dims) << ::testing::PrintToString(r.c.first);
  }
}

// Each width through the public routines (the fuzz target, which runs as a test, adds zero extents,
// identities and random shapes): a single element, many dimensions, and the layer-step reformats
// the benchmark measures (large enough to stream, and for ParallelPermute above its serial
// cut-off). Then the parallel split forced onto small shapes, with and without streaming: random
// shapes, and shapes whose few calls are cut by destination columns, rows, planes of a batch, runs,
// or bytes of a single run.
TEST(Permute, PublicRoutinesAndParallelSplitMatchReference) {
  // 17 dimensions that no fusion removes: more than the stack storage holds.
  Case many{Sizes(20, 2), Sizes(20)};
  for (std::size_t d = 0; d < 20; ++d) many.second[d] = 20 - d;
  many.first[2] = many.first[7] = many.first[11] = 1;
  std::swap(many.second[3], many.second[9]);
  Sizes const korval{56, 56, 64, 32, 1}, toChained{3, 4, 1, 2, 5};
  std::vector<Case> const fixed = {{{1, 1, 1, 1}, {4, 2, 3, 1}},
                                   many,
                                   {korval, toChained},
                                   {korval, {1, 2, 4, 3, 5}},
                                   {{64, 32, 56, 56, 1}, toChained},
                                   {{7, 7, 512, 64, 1}, toChained},
                                   {{224, 224, 3, 16, 1}, toChained},
                                   {korval, {3, 4, 2, 1, 5}}};
  std::vector<Case> const cut = {{{70, 300}, {2, 1}},       {{300, 3}, {2, 1}},
                                 {{5, 40, 7}, {3, 1, 2}},   {{7, 50, 3}, {1, 3, 2}},
                                 {{3, 4000, 2}, {1, 3, 2}}, {{20000}, {1}}};
  for (std::size_t width : {1, 4, 8}) {
    std::mt19937_64 rng(77 + width);
    for (Case const& c : fixed) ASSERT_TRUE(check(width, c, rng, {kPermute, kParallel}));
    for (int i = 0; i < 300; ++i) {
      ASSERT_TRUE(check(width, random_case(rng), rng, {kSplit}, i % 2 == 0, i % 3 * width));
    }
    for (Case const& c : cut) ASSERT_TRUE(check(width, c, rng, {kSplit}, true, width));
  }
  // From inside TBB tasks, whose workers then run the routine's own nested parallel_for.
  tbb::parallel_for(0, 2, [&](int i) {
    std::mt19937_64 rng(i);
    EXPECT_TRUE(check(4, {korval, toChained}, rng, {kParallel}));
  });
}

// Every instruction set this CPU runs, each width: random shapes, runs of 4
// or 8 bytes that move as wider elements, padded 13 x 13 images as in a layer
// step, and transposes whose sides straddle the tile, line and block sizes
// or are as thin as the channels of an image, alone and batched. Each runs with plain stores, and
// with streaming stores forced at a destination offset that cycles through a 64-byte line; rows
// that are not whole lines take the staged streaming walk.
TEST(PermuteKernels, EveryInstructionSetMatchesReference) {
  for (int isa = 0; isa <= static_cast<int>(Isa::Avx512Vbmi); ++isa) {
    if (!qel_permute::detail::isa_supported(static_cast<Isa>(isa))) continue;
    for (std::size_t w : {1, 4, 8}) {
      std::mt19937_64 rng(99 + 8 * isa + w);
      std::vector<Case> cases = {{{4, 37, 50}, {1, 3, 2}},        {{8, 50, 37}, {1, 3, 2}},
                                 {{2, 70, 3, 45}, {1, 4, 3, 2}},  {{2, 2, 30, 40}, {1, 2, 4, 3}},
                                 {{16, 4, 13, 13}, {3, 4, 1, 2}}, {{13, 13, 16, 4}, {3, 4, 1, 2}}};
      for (int i = 0; i < 120; ++i) cases.push_back(random_case(rng));
      std::size_t const l = 64 / w;  // elements per line
      for (std::size_t a : {std::size_t{1}, std::size_t{2}, std::size_t{3}, l / 2 + 1, l - 1, l,
                            l + 3, 2 * l - 1, 2 * l, 2 * l + 1, 3 * l + 5, 5 * l - 3}) {
        for (std::size_t b : {1, 2, 3, 17, 33, 64, 65, 130}) {
          cases.push_back({{b, a}, {2, 1}});
          cases.push_back({{b, 3, a}, {3, 2, 1}});
          cases.push_back({{b, a, 2}, {2, 3, 1}});
        }
      }
      std::size_t const shifts[] = {0, w, 3 * w, 16 + w, 64 - w};
      for (std::size_t k = 0; k < cases.size(); ++k) {
        ASSERT_TRUE(check(w, cases[k], rng, {isa}, false, shifts[k % 5]));
        ASSERT_TRUE(check(w, cases[k], rng, {isa}, true, shifts[k % 5]));
      }
    }
  }
}

}  // namespace
