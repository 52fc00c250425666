#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/input_array.hpp"
#include "nerva/output_array.hpp"
#include "support/counting_allocator.hpp"

// Every constructor and every allocating operation, with its k-th allocation
// failing for each k it makes: the allocation throwing std::bad_alloc, and
// its data lease (always the operation's last allocation) failing so that the
// pool reports "Out of memory.". The operation must leave behind exactly the
// blocks that were live before it, and everything must come back in the end.

namespace {

using nerva::CNNMemoryBlock;
using nerva::FormattedArray;
using nerva::FormattedInputArray;
using nerva::FormattedOutputArray;
using nerva::SharedMemoryPool;

std::size_t calls() {
  const counting::Stats s = counting::stats();
  return s.allocations + s.failures;
}

// Arms the fault right before the operation and checks what it left behind.
// k = 0 is the dry run that counts the operation's allocations.
class Probe {
 public:
  enum Mode { Count, Throw, Fail };
  Probe(Mode mode, std::size_t k) : mode_(mode), k_(k) {}

  // `released`: blocks handed to the operation that it frees when it fails.
  template <typename Op>
  void run(Op op, std::size_t released = 0) {
    const std::size_t live = counting::live_blocks();
    const std::size_t start = calls();
    if (mode_ == Throw) counting::throw_at(k_);
    if (mode_ == Fail) counting::fail_at(k_);
    try {
      op();
    } catch (std::bad_alloc const&) {
      EXPECT_EQ(mode_, Throw);
      failed_ = true;
    } catch (std::runtime_error const& e) {
      EXPECT_EQ(mode_, Fail);
      EXPECT_EQ(std::string(e.what()), "Out of memory.");
      failed_ = true;
    }
    counting::throw_at(0);
    counting::fail_at(0);
    count_ = calls() - start;
    if (failed_) {
      EXPECT_EQ(counting::live_blocks() + released, live) << "after fault " << k_;
    }
  }

  bool failed() const { return failed_; }
  std::size_t count() const { return count_; }

 private:
  Mode mode_;
  std::size_t k_;
  bool failed_ = false;
  std::size_t count_ = 0;
};

// `scenario(pool, probe)` builds what it needs and calls probe.run(op) once.
template <typename Scenario>
void inject(Scenario scenario, bool leases) {
  std::size_t count = 0;
  {
    counting::LeakCheck check;
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    Probe probe(Probe::Count, 0);
    scenario(pool, probe);
    ASSERT_FALSE(probe.failed());
    count = probe.count();
  }
  ASSERT_GT(count, 0u);
  for (std::size_t k = 1; k <= count; ++k) {
    counting::LeakCheck check;
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    Probe probe(Probe::Throw, k);
    scenario(pool, probe);
    EXPECT_TRUE(probe.failed()) << "allocation " << k << " of " << count;
  }
  if (leases) {
    counting::LeakCheck check;
    SharedMemoryPool pool(counting::functions(), &counting::throwing_error);
    Probe probe(Probe::Fail, count);
    scenario(pool, probe);
    EXPECT_TRUE(probe.failed());
  }
}

constexpr std::size_t W = 16, H = 16, C = 4, N = 2;
const std::size_t kSizes[4] = {W, H, C, N};
const std::vector<float> kElements(W* H* C* N, 1.0f);

std::unique_ptr<FormattedArray> korval_format() {
  auto f = std::make_unique<FormattedArray>(2, 2, 3, 4, counting::functions(), 1);
  f->SetSizesInCurrentFormat(kSizes, 4);
  return f;
}

TEST(FaultInjection, InputConstructors) {
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        probe.run([&] {
          FormattedInputArray<float> a(pool, kElements.data(), kSizes, 4, 2, 2, 3, nullptr);
        });
      },
      false);
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        auto format = korval_format();
        probe.run([&] { FormattedInputArray<float> a(pool, kElements.data(), format.get()); });
      },
      false);
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        auto format = korval_format();
        auto block = std::make_unique<CNNMemoryBlock>(W * H * C * N * 4, counting::functions());
        probe.run([&] { FormattedInputArray<float> a(pool, std::move(block), format.get()); }, 1);
      },
      false);
}

TEST(FaultInjection, InputReformatAndSubsample) {
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedInputArray<float> a(pool, kElements.data(), kSizes, 4, 2, 2, 3, nullptr);
        probe.run([&] { a.Reformat(nerva::ChainedFormat); });
        // A failed reformat leaves the array as it was.
        EXPECT_EQ(a.IsInKORVALFormat(), probe.failed());
        EXPECT_EQ(a.Data() == kElements.data(), probe.failed());
      },
      true);
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedInputArray<float> a(pool, kElements.data(), kSizes, 4, 2, 2, 3, nullptr);
        const std::size_t firsts[2] = {0, 1}, lasts[2] = {16, 16}, inc[2] = {2, 1};
        probe.run([&] { a.Subsample(firsts, lasts, inc, nullptr); });
        EXPECT_EQ(a.DataSize(1), probe.failed() ? H : H - 1);
      },
      true);
}

TEST(FaultInjection, OutputConstructors) {
  const std::size_t firsts[2] = {1, 0}, lasts[2] = {31, 16}, strides[2] = {2, 2};
  const std::size_t padding[4] = {1, 1, 2, 0};
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        auto format = korval_format();
        probe.run([&] { FormattedOutputArray<float> out(pool, format.get(), nerva::Zeros); });
      },
      true);
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        probe.run(
            [&] { FormattedOutputArray<double> out(pool, kSizes, 2, C, N, 0, 1, nerva::Zeros); });
      },
      true);
  inject(
      [&](SharedMemoryPool& pool, Probe& probe) {
        probe.run([&] {
          FormattedOutputArray<unsigned char> out(pool, firsts, lasts, strides, 2, 64, N, 0, 1,
                                                  padding, nerva::Zeros);
        });
      },
      true);
  inject(
      [&](SharedMemoryPool& pool, Probe& probe) {
        probe.run([&] {
          FormattedOutputArray<long> out(pool, firsts, lasts, strides, 2, C, N, padding,
                                         nerva::Uninitialized);
        });
      },
      true);
  // Take-over: a failure leaves the source with its buffer.
  inject(
      [&](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<float> source(pool, firsts, lasts, strides, 2, C, N, padding,
                                           nerva::Zeros);
        float* data = source.Data();
        probe.run([&] { FormattedOutputArray<float> out(pool, &source); });
        EXPECT_EQ(source.Data(), probe.failed() ? data : nullptr);
      },
      false);
  inject(
      [&](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<float> like(pool, firsts, lasts, strides, 2, C, N, padding,
                                         nerva::Unallocated);
        probe.run([&] { FormattedOutputArray<float> out(pool, &like, 16); });
      },
      true);
}

TEST(FaultInjection, OutputOperations) {
  // Reallocation: a failure keeps the previous block.
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<float> out(pool, kSizes, 2, C, N, 0, 1, nerva::Zeros);
        float* data = out.Data();
        probe.run([&] { out.SetSizesAndAllocate(C, 2 * N, nerva::Zeros); });
        EXPECT_EQ(out.Data() == data, probe.failed());
        EXPECT_EQ(out.NumObservations(), 2 * N);
      },
      true);
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<float> out(pool, kSizes, 2, C, N, 0, 1, nerva::Zeros);
        const std::size_t firsts[2] = {0, 0}, lasts[2] = {4, 4}, padding[4] = {1, 1, 1, 1};
        probe.run([&] { out.CopyDataBounds(firsts, lasts, nullptr, padding); });
        out.SetSizeArray(C, N);
        EXPECT_EQ(out.DataSize(0), probe.failed() ? W : 6u);
      },
      false);
  // Range change: a failed lease leaves the data in the old buffer.
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<double> out(pool, kSizes, 2, C, N, 0, 1, nerva::Zeros);
        double* data = out.Data();
        const std::size_t grown[2] = {W + 4, H - 2};
        probe.run([&] { out.SetDataRanges(grown); });
        EXPECT_EQ(out.Data() == data, probe.failed());
      },
      true);
  // First reformat of an output: a failure leaves one block and the old map.
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        FormattedOutputArray<long> out(pool, kSizes, 2, C, N, 2, 3, nerva::Zeros);
        long* data = out.Data();
        probe.run([&] { out.Reformat(nerva::ChainedFormat); });
        EXPECT_EQ(out.IsInKORVALFormat(), probe.failed());
        EXPECT_EQ(out.Data() == data, probe.failed());
      },
      true);
}

TEST(FaultInjection, BypassPoolOrAllocate) {
  // The handed-over block is too small: the lease fails after the block was
  // taken from the input, which frees it.
  inject(
      [](SharedMemoryPool& pool, Probe& probe) {
        auto format = korval_format();
        auto block = std::make_unique<CNNMemoryBlock>(W * H * C * N * 4, counting::functions());
        std::memset(block->data, 0, W * H * C * N * 4);
        FormattedInputArray<float> in(pool, std::move(block), format.get());
        in.Reformat(nerva::ChainedFormat);
        const std::size_t sizes[2] = {W, H + 1};
        FormattedOutputArray<float> out(pool, sizes, 2, C, N, 0, 1, nerva::Unallocated);
        probe.run([&] { nerva::bypassPoolOrAllocate(&out, &in); }, 1);
        EXPECT_EQ(out.Data() == nullptr, probe.failed());
      },
      true);
}

}  // namespace
