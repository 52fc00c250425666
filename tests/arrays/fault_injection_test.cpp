#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "array_test_util.hpp"
#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"

// Each scenario runs every constructor and allocating operation of one side;
// it is replayed with its k-th allocation throwing std::bad_alloc for every k,
// and with each data lease (the only allocations of 4096 bytes or more)
// failing so that the pool reports "Out of memory.". Every replay must end in
// that exception with every byte back, and a failed operation must leave its
// array as it was.

namespace {

using namespace nerva;
using namespace arrays_test;

std::vector<std::size_t> requests;  // bytes of each allocation, in order
void* recording_allocate(std::size_t bytes) {
  requests.push_back(bytes);
  return counting::allocate(bytes);
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

void inject(std::function<void(SharedMemoryPool&)> const& scenario) {
  const AllocatorFunctions fns{&recording_allocate, &counting::deallocate};
  auto play = [&](std::size_t k, bool lease) {
    counting::LeakCheck check;
    SharedMemoryPool pool(fns, &counting::throwing_error);
    requests.clear();
    (lease ? counting::fail_at : counting::throw_at)(k);
    bool failed = false;
    try {
      scenario(pool);
    } catch (std::bad_alloc const&) {
      failed = !lease;
    } catch (std::runtime_error const& e) {
      failed = std::string(e.what()) == "Out of memory.";
    }
    counting::fail_at(0);
    counting::throw_at(0);
    EXPECT_EQ(failed, k != 0);
  };
  play(0, false);
  const std::vector<std::size_t> dry = requests;
  // Every allocation went through the recording functions, so k counts them all.
  ASSERT_EQ(counting::stats().allocations, dry.size());
  for (std::size_t k = 1; k <= dry.size(); ++k) {
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << dry.size());
    play(k, false);
    if (dry[k - 1] >= 4096) play(k, true);
  }
}

constexpr std::size_t W = 16, H = 16, C = 4, N = 2;
const std::size_t kSizes[4] = {W, H, C, N};
const std::size_t kFirsts[2] = {1, 0}, kLasts[2] = {31, 16}, kStrides[2] = {2, 2};
const std::size_t kPadding[4] = {1, 1, 2, 0};
const std::vector<float> kElements(W* H* C* N, 1.0f);

TEST(FaultInjection, InputArrays) {
  inject([](SharedMemoryPool& pool) {
    FormattedInputArray<float> a(pool, kElements.data(), kSizes, 4, 2, 2, 3, nullptr);
    atomic([&] { a.Reformat(ChainedFormat); }, [&] { EXPECT_EQ(a.Data(), kElements.data()); });
    const std::size_t firsts[2] = {0, 1}, lasts[2] = {16, 16}, inc[2] = {1, 1};
    atomic([&] { a.Subsample(firsts, lasts, inc, nullptr); }, [&] { EXPECT_EQ(a.DataSize(1), H); });

    // The adopted block is one element short of the output: the lease comes
    // first, then the block goes back.
    auto format = korval_format(W, H, C, N, pool.allocator_functions);
    auto block = pool.lease_or_error(W * H * C * N * sizeof(float));
    std::memset(block->data, 0, block->allocated_size());
    FormattedInputArray<float> in(pool, std::move(block), format.get());
    in.Reformat(ChainedFormat);
    const std::size_t sizes[2] = {W, H + 1};
    FormattedOutputArray<float> out(pool, sizes, 2, C, N, 0, 1, Unallocated);
    atomic([&] { bypassPoolOrAllocate(&out, &in); }, [&] { EXPECT_EQ(out.Data(), nullptr); });
  });
}

TEST(FaultInjection, OutputArrays) {
  inject([](SharedMemoryPool& pool) {
    auto format = korval_format(W, H, C, N, pool.allocator_functions);
    FormattedOutputArray<float> a(pool, format.get(), Zeros);
    FormattedOutputArray<double> b(pool, kSizes, 2, C, N, 0, 1, Zeros);
    FormattedOutputArray<unsigned char> c(pool, kFirsts, kLasts, kStrides, 2, 64, N, 0, 1, kPadding,
                                          Uninitialized);
    FormattedOutputArray<long> d(pool, kFirsts, kLasts, kStrides, 2, C, N, kPadding, Unallocated);
    FormattedOutputArray<long> e(pool, &d, 2 * N);
    c.CopyDataBounds(kFirsts, kLasts, nullptr, nullptr);

    double* data = b.Data();
    atomic([&] { b.SetSizesAndAllocate(C, 2 * N, Zeros); }, [&] { EXPECT_EQ(b.Data(), data); });
    data = b.Data();
    const std::size_t grown[2] = {W + 4, H - 2};
    atomic([&] { b.SetDataRanges(grown); }, [&] { EXPECT_EQ(b.Data(), data); });
    atomic([&] { a.Reformat(ChainedFormat); }, [&] { EXPECT_TRUE(a.IsInKORVALFormat()); });
    float* buffer = a.Data();
    atomic([&] { FormattedOutputArray<float> f(pool, &a); }, [&] { EXPECT_EQ(a.Data(), buffer); });
  });
}

}  // namespace
