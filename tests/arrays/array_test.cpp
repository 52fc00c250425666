// Input and output arrays: the worked cases of each operation, and every
// allocation of both sides made to fail in turn. Every test that reformats
// runs with and without the Parallel tag and expects the same elements, blocks
// and pool traffic. What a logical element holds after output construction,
// SetDataRanges and reformats is the output-array fuzz target's (run as a
// test), against a naive reference.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

namespace {

using namespace nerva;

// The check comes first so that the pool's idle blocks are freed before it.
struct Pooled {
  counting::LeakCheck check;
  SharedMemoryPool pool{counting::functions(), &counting::throwing_error};
};

// W x H data, C channels, N observations: 4096 elements, so that the data
// blocks of every element type reach the pool.
constexpr std::size_t W = 32, H = 16, C = 4, N = 2;

std::vector<void*> idle_data(const SharedMemoryPool& pool) {
  std::vector<void*> data;
  for (auto& b : pool.blocks) data.push_back(b->data);
  return data;
}

// A value that differs between neighbouring indices of every dimension.
float value(std::size_t x, std::size_t y, std::size_t c, std::size_t b) {
  return static_cast<float>((x * 7 + y * 13 + c * 29 + b * 61 + 1) % 251);
}

// w x h x c x n elements in the KORVAL layout (x fastest, observation slowest).
std::vector<float> korval(std::size_t w, std::size_t h, std::size_t c, std::size_t n) {
  std::vector<float> v(w * h * c * n);
  for (std::size_t i = 0; i < v.size(); ++i)
    v[i] = value(i % w, i / w % h, i / (w * h) % c, i / (w * h * c));
  return v;
}

// The same floats in a block of their own, to be handed over to an array.
std::unique_ptr<CNNMemoryBlock> korval_block(std::size_t w, std::size_t h, std::size_t c,
                                             std::size_t n) {
  auto block = std::make_unique<CNNMemoryBlock>(w * h * c * n * 4, counting::functions());
  std::memcpy(block->data, korval(w, h, c, n).data(), w * h * c * n * 4);
  return block;
}

std::unique_ptr<FormattedArray> korval_format(std::size_t w, std::size_t h, std::size_t c,
                                              std::size_t n) {
  auto f = std::make_unique<FormattedArray>(2, 2, 3, 4, counting::functions(), 1);
  const std::size_t sizes[4] = {w, h, c, n};
  f->SetSizesInCurrentFormat(sizes, 4);
  return f;
}

template <class Array, class... Args>
void reformat(bool parallel, Array& a, Args... args) {
  if (parallel)
    a.Reformat(args..., Parallel);
  else
    a.Reformat(args...);
}

class Arrays : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(SerialAndParallel, Arrays, ::testing::Bool());

// Subsample reads the newest elements (the own copy when there is one) and
// returns the block it replaces to the pool. The destructor checks the own
// block in together with the handed-over source, and the own block's size
// alone decides for both: a small subsample result takes the source down with
// it. A source still read goes in alone.
TEST_P(Arrays, InputBlocksGoBackToThePool) {
  Pooled p;
  constexpr std::size_t w = 20, h = 12, c = 3, n = 2;
  auto format = korval_format(w, h, c, n);
  void* copy = nullptr;
  {
    FormattedInputArray<float> a(p.pool, korval_block(w, h, c, n), format.get());
    reformat(GetParam(), a, ChainedFormat);
    copy = const_cast<float*>(a.Data());  // 5760 bytes: pooled when given back
    const std::size_t f1[2] = {1, 2}, l1[2] = {20, 12}, i1[2] = {3, 4};
    a.Subsample(f1, l1, i1, nullptr);
    EXPECT_EQ(idle_data(p.pool), std::vector<void*>{copy});
    // Then positions 1, 3, 5 of the first result's x, every y (3 x 3 in all).
    const std::size_t f2[2] = {1, 0}, l2[2] = {7, 3}, i2[2] = {2, 1};
    a.Subsample(f2, l2, i2, nullptr);
    EXPECT_EQ(a.DataSize(1), 3u);
    for (std::size_t i = 0; i < 3 * 3 * c * n; ++i)
      ASSERT_EQ(a.Data()[i], value(1 + 3 * (1 + 2 * (i / (c * n) % 3)), 2 + 4 * (i / (c * n * 3)),
                                   i % c, i / c % n))
          << i;
  }
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{copy});
  p.pool.blocks.clear();
  auto block = korval_block(w, h, c, n);
  void* handed = block->data;
  {
    FormattedInputArray<float> a(p.pool, std::move(block), format.get());
    reformat(GetParam(), a, ChainedFormat);
    copy = const_cast<float*>(a.Data());
  }
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{copy, handed}));
  p.pool.blocks.clear();
  {
    block = korval_block(w, h, c, n);
    handed = block->data;
    FormattedInputArray<float> a(p.pool, std::move(block), format.get());
    EXPECT_EQ(a.RelinquishSourceIfUnused(), nullptr);
  }
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{handed});
}

// Swapped at the current positions moves the data, and asking again moves
// nothing; a second moving reformat reads the source again with the metadata
// of the first result, so back to KORVAL transposes the source as if it were
// the swapped layout, into the same own block; an order byte other than 0 and
// 1 never matches. Zero elements, input or output: only the map changes.
TEST_P(Arrays, ReformatQuirks) {
  Pooled p;
  constexpr std::size_t w = 5, h = 3;
  auto src = korval(w, h, 2, 1);
  const std::size_t sizes[4] = {w, h, 2, 1};
  FormattedInputArray<float> in(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  reformat(GetParam(), in, 2, 3, Swapped);
  reformat(GetParam(), in, 2, 3, Swapped);
  const float* copy = in.Data();
  for (std::size_t i = 0; i < w * h * 2; ++i)
    ASSERT_EQ(copy[i], value(i / h % w, i % h, i / (w * h), 0)) << i;
  reformat(GetParam(), in, KORVALFormat);  // channel and observation in place, order not
  EXPECT_TRUE(in.IsInKORVALFormat());
  ASSERT_EQ(in.Data(), copy);
  for (std::size_t i = 0; i < w * h * 2; ++i)
    ASSERT_EQ(copy[i], src[i / (w * h) * w * h + i % (w * h) / w + h * (i % w)]) << i;

  FormattedInputArray<float> again(p.pool, src.data(), sizes, 4, 2, 2, 3, nullptr);
  reformat(GetParam(), again, 2, 3, static_cast<FirstDataDims>(2));
  ASSERT_NE(again.Data(), src.data());
  EXPECT_EQ(std::vector<float>(again.Data(), again.Data() + src.size()), src);

  const std::size_t empty_sizes[4] = {5, 0, 3, 2};
  FormattedInputArray<double> empty(p.pool, nullptr, empty_sizes, 4, 2, 2, 3, nullptr);
  reformat(GetParam(), empty, ChainedFormat);
  EXPECT_EQ(empty.DataIncrement(0), 6);
  EXPECT_EQ(empty.SequenceDimension(), 4u);
  EXPECT_EQ(empty.Data(), nullptr);
  const std::size_t firsts[2] = {0, 4}, lasts[2] = {8, 4};
  FormattedOutputArray<double> none(p.pool, firsts, lasts, nullptr, 2, 3, 2, nullptr, Zeros);
  reformat(GetParam(), none, ChainedFormat);
  EXPECT_EQ(none.DataIncrement(0), 6);
  EXPECT_EQ(none.Data(), nullptr);
}

// A dirty pooled block shows which modes fill and which leave the contents (the
// fill's serial and parallel paths are the copy tests'); a new allocation frees
// the old block. New extents keep the increments of the old sizes and return
// the old buffer to the pool; the current sizes change nothing.
TEST(OutputArray, AllocationModesAndSetDataRanges) {
  Pooled p;
  const std::size_t count = 65537, bytes = count * sizeof(float), first = 0, last = count;
  auto dirty = std::make_unique<CNNMemoryBlock>(bytes, counting::functions());
  std::memset(dirty->data, 0xAB, bytes);
  void* where = dirty->data;
  p.pool.checkin(std::move(dirty));
  for (int how : {3, 2, 0}) {  // 3 acts as Uninitialized
    FormattedOutputArray<float> out(p.pool, &first, &last, nullptr, 1, 1, 1, nullptr,
                                    static_cast<AllocateOutputAs>(how));
    ASSERT_EQ(static_cast<void*>(out.Data()), how == 2 ? nullptr : where);
    EXPECT_EQ(static_cast<unsigned char*>(where)[bytes - 1], how == 0 ? 0 : 0xAB);
    for (std::size_t i = 0; how == 0 && i < count; ++i) ASSERT_EQ(out.Data()[i], 0.0f) << i;
    if (how != 0) continue;
    out.SetSizesAndAllocate(1, 1, Uninitialized);  // frees the old block, no pooling
    EXPECT_TRUE(p.pool.blocks.empty());
  }
  p.pool.blocks.clear();

  const std::size_t from[2] = {24, 20}, to[2] = {30, 12};
  FormattedOutputArray<double> out(p.pool, from, 2, 3, 2, 0, 1, Zeros);
  void* old = out.Data();
  out.SetDataRanges(from);
  EXPECT_EQ(out.Data(), old);
  EXPECT_TRUE(p.pool.blocks.empty());
  out.SetDataRanges(to);
  EXPECT_EQ(std::vector<long>(out.DataIncrements(), out.DataIncrements() + 2),
            (std::vector<long>{6, 144}));
  EXPECT_EQ(idle_data(p.pool), std::vector<void*>{old});
  out.SetSizeArray(3, 2);  // recomputes the sizes from the bounds
  EXPECT_EQ(out.DataSize(0), 24u);
}

// Arrays from a format copy its base increment (an output's sequence is 1).
// Take-over moves the buffer; the new array returns it to its own pool.
TEST(OutputArray, FromAFormatTakeOverAndLike) {
  Pooled p;
  FormattedArray format(2, 0, 1, 4, counting::functions(), -1);
  const std::size_t sizes[5] = {16, 8, 2, 5, 3};
  format.SetSizesInDefaultFormat(sizes, 5);
  const float elements[1] = {0};
  FormattedInputArray<float> in(p.pool, elements, &format);
  EXPECT_EQ(in.DataIncrement(0), -10);
  EXPECT_EQ(in.Data(), elements);
  FormattedOutputArray<double> a(p.pool, &format, Zeros);
  EXPECT_EQ(a.DataSize(4), 1u);
  EXPECT_EQ(a.DataIncrement(0), -10);
  SharedMemoryPool other(counting::functions(), &counting::throwing_error);
  double* buffer = a.Data();
  { FormattedOutputArray<double> b(other, &a); }
  EXPECT_EQ(a.Data(), nullptr);
  EXPECT_EQ(idle_data(other), std::vector<void*>{buffer});

  // Like another with a new batch size: the bounds are copied, data leased.
  // The data region starts one position in along x and one row (5) along y.
  const std::size_t firsts[2] = {1, 0}, lasts[2] = {9, 2}, strides[2] = {3, 1};
  const std::size_t padding[4] = {1, 1, 1, 0};
  FormattedOutputArray<float> d(p.pool, firsts, lasts, strides, 2, 2, 1, padding, Unallocated);
  FormattedOutputArray<float> e(p.pool, &d, 1000);
  EXPECT_EQ(e.UnpaddedData(), e.Data() + 6);
  // Without a block the offset still applies, counted from address 0.
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(d.UnpaddedData()), 6 * sizeof(float));
}

// KORVAL -> chained -> KORVAL leases once: the KORVAL elements end up back in
// the first buffer (now the staging block) and the chained copy is the spare.
// Destruction checks in the staging block first. Relinquish gives the current
// data first, then the spare.
TEST_P(Arrays, OutputTwoBuffersRelinquishAndDestroy) {
  Pooled p;
  const bool parallel = GetParam();
  const std::size_t sizes[2] = {W, H};
  float *first, *second;
  {
    FormattedOutputArray<float> out(p.pool, sizes, 2, C, N, 2, 3, Uninitialized);
    first = out.Data();
    std::memcpy(first, korval(W, H, C, N).data(), W * H * C * N * 4);
    reformat(parallel, out, ChainedFormat);
    second = out.Data();
    counting::fail_above(4095);              // from now on a data block lease throws
    reformat(parallel, out, ChainedFormat);  // already there, even with two blocks
    EXPECT_EQ(out.Data(), second);
    reformat(parallel, out, 2, 3);
    reformat(parallel, out, ChainedFormat);
    reformat(parallel, out, KORVALFormat);
    EXPECT_EQ(out.Data(), first);
    EXPECT_EQ(std::vector<float>(first, first + W * H * C * N), korval(W, H, C, N));
    counting::fail_above(SIZE_MAX);
  }
  EXPECT_EQ(idle_data(p.pool), (std::vector<void*>{first, second}));

  FormattedOutputArray<float> out(p.pool, sizes, 2, C, N, 2, 3, Zeros);
  reformat(parallel, out, ChainedFormat);
  void* current = out.Data();
  auto block = out.Relinquish();
  ASSERT_EQ(block->data, current);
  float* spare = out.Data();
  ASSERT_NE(spare, nullptr);
  out.SetAllocatedBlock(nullptr);  // keeps the current block
  EXPECT_EQ(out.Data(), spare);
  out.SetAllocatedBlock(std::move(block));  // the spare is freed, not pooled
  EXPECT_TRUE(p.pool.blocks.empty());
  EXPECT_EQ(out.Relinquish()->data, current);
  EXPECT_EQ(out.Relinquish(), nullptr);
}

// An input over a handed-over block of `in` doubles, read through its own
// copy, gives that block to an unallocated output of `out` elements when it is
// long enough; otherwise the output leases and the block is checked in.
TEST(OutputArray, BypassPoolOrAllocate) {
  const std::size_t cases[][2] = {{100, 100}, {100, 99}, {100, 101}, {1024, 1025}};
  for (auto [in_count, out_count] : cases) {
    Pooled p;
    auto block = std::make_unique<CNNMemoryBlock>(in_count * sizeof(double), counting::functions());
    void* handed = block->data;
    FormattedInputArray<double> in(p.pool, std::move(block),
                                   korval_format(in_count / 2, 1, 2, 1).get());
    in.Reformat(ChainedFormat);
    FormattedOutputArray<double> out(p.pool, &out_count, 1, 1, 1, 1, 2, Unallocated);
    const std::size_t before = counting::stats().allocations;
    bypassPoolOrAllocate(&out, &in);
    const bool reused = out_count <= in_count, pooled = !reused && in_count >= 512;
    EXPECT_EQ(static_cast<void*>(out.Data()) == handed, reused) << in_count << " " << out_count;
    EXPECT_EQ(counting::stats().allocations, before + (reused ? 0 : 1));
    EXPECT_EQ(idle_data(p.pool), pooled ? std::vector<void*>{handed} : std::vector<void*>{});
  }
}

// Runs `op`; when it fails, `unchanged` must hold before the failure goes on.
template <typename Op, typename Check>
void atomic(Op op, Check unchanged) {
  try {
    op();
  } catch (...) {
    unchanged();
    throw;
  }
}

// Every constructor and allocating operation of both sides.
void scenario(SharedMemoryPool& pool, bool parallel) {
  const std::size_t sizes[4] = {W, H, C, N};
  const std::vector<float> elements(W * H * C * N, 1.0f);
  FormattedInputArray<float> a(pool, elements.data(), sizes, 4, 2, 2, 3, nullptr);
  atomic([&] { reformat(parallel, a, ChainedFormat); },
         [&] { EXPECT_EQ(a.Data(), elements.data()); });
  const std::size_t firsts[2] = {0, 1}, lasts[2] = {16, 16}, inc[2] = {1, 1};
  atomic([&] { a.Subsample(firsts, lasts, inc, nullptr); }, [&] { EXPECT_EQ(a.DataSize(1), H); });

  // The adopted block is one element short of the output: the lease comes
  // first, then the block goes back.
  auto format = korval_format(W, H, C, N);
  FormattedInputArray<float> in(pool, pool.lease_or_error(W * H * C * N * 4), format.get());
  reformat(parallel, in, ChainedFormat);
  const std::size_t longer[2] = {W, H + 1};
  FormattedOutputArray<float> out(pool, longer, 2, C, N, 0, 1, Unallocated);
  atomic([&] { bypassPoolOrAllocate(&out, &in); }, [&] { EXPECT_EQ(out.Data(), nullptr); });

  FormattedOutputArray<float> f(pool, format.get(), Zeros);
  FormattedOutputArray<double> b(pool, sizes, 2, C, N, 0, 1, Zeros);
  const std::size_t padding[4] = {1, 1, 2, 0};
  FormattedOutputArray<unsigned char> c(pool, firsts, lasts, inc, 2, 64, N, 0, 1, padding,
                                        Uninitialized);
  FormattedOutputArray<long> d(pool, firsts, lasts, inc, 2, C, N, padding, Unallocated);
  FormattedOutputArray<long> e(pool, &d, 2 * N);
  c.CopyDataBounds(firsts, lasts, nullptr, nullptr);
  double* data = b.Data();
  atomic([&] { b.SetSizesAndAllocate(C, 2 * N, Zeros); }, [&] { EXPECT_EQ(b.Data(), data); });
  data = b.Data();
  const std::size_t grown[2] = {W + 4, H - 2};
  atomic([&] { b.SetDataRanges(grown); }, [&] { EXPECT_EQ(b.Data(), data); });
  atomic([&] { reformat(parallel, f, ChainedFormat); }, [&] { EXPECT_TRUE(f.IsInKORVALFormat()); });
  float* buffer = f.Data();
  atomic([&] { FormattedOutputArray<float> g(pool, &f); }, [&] { EXPECT_EQ(f.Data(), buffer); });
}

// The scenario is replayed with its k-th allocation throwing std::bad_alloc
// for every k (a failed lease reaches the arrays the same way, through the
// pool). Every replay must end in that exception with every byte back, and a
// failed operation must leave its array as it was.
TEST_P(Arrays, FaultInjectionEveryAllocationOfBothSides) {
  std::size_t calls = 0;
  for (std::size_t k = 0; k <= calls; ++k) {
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << calls);
    Pooled p;
    counting::throw_at(k);
    if (k == 0) {
      scenario(p.pool, GetParam());
      calls = counting::stats().allocations;
    } else {
      EXPECT_THROW(scenario(p.pool, GetParam()), std::bad_alloc);
    }
  }
}

}  // namespace
