#include "nerva/batch_gemm.hpp"

#include <gtest/gtest.h>
#include <oneapi/tbb/blocked_range2d.h>
#include <oneapi/tbb/parallel_for.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "batch_gemm_reference.hpp"
#include "gemm/brgemm_kernels.hpp"

namespace {

using batch_gemm_test::Batch;
using nerva::gemm_detail::BrgemmIsa;

char const* isa_name(BrgemmIsa isa) {
  switch (isa) {
    case BrgemmIsa::Portable:
      return "Portable";
    case BrgemmIsa::Avx2:
      return "Avx2";
    case BrgemmIsa::Avx512:
      return "Avx512";
  }
  return "?";
}

// The kernels of one instruction set, through the public routine when they are the ones it
// picks on this CPU. `batch_bytes` > 0 forces passes over C that each read at most that much
// of A.
template <typename T>
void multiply(BrgemmIsa isa, Batch<T>& b, T beta, long batch_bytes = 0) {
  if (isa == nerva::gemm_detail::brgemm_best_isa() && batch_bytes == 0) {
    nerva::batch_reduce_gemm<T>(b.m, b.n, b.k, b.A.data(), b.lda, b.B.data(), b.ldb, b.count,
                                b.C.data(), b.ldc, beta);
  } else {
    nerva::gemm_detail::brgemm_run<T>(
        isa,
        {b.m, b.n, b.k, b.A.data(), b.lda, b.B.data(), b.ldb, b.count, b.C.data(), b.ldc, beta},
        batch_bytes > 0 ? batch_bytes : nerva::gemm_detail::brgemm_batch_bytes());
  }
}

// Multiplies with each beta in turn (beta 0 on a C of NaNs) and compares with the naive loop.
template <typename T>
void check(BrgemmIsa isa, Batch<T> b, T beta, long batch_bytes = 0) {
  if (beta == T(0)) b.poison();
  std::vector<T> const want = b.expected(beta);
  multiply(isa, b, beta, batch_bytes);
  long const bad = b.mismatch(want);
  EXPECT_EQ(bad, -1) << isa_name(isa) << (sizeof(T) == 4 ? " float" : " double") << " m=" << b.m
                     << " n=" << b.n << " k=" << b.k << " count=" << b.count << " lda=" << b.lda
                     << " ldb=" << b.ldb << " ldc=" << b.ldc << " beta=" << beta
                     << " batch_bytes=" << batch_bytes << ": element (" << bad % b.ldc << ", "
                     << bad / b.ldc << ") is " << b.C[std::size_t(bad < 0 ? 0 : bad)]
                     << ", expected " << want[std::size_t(bad < 0 ? 0 : bad)];
}

class BatchReduceGemm : public ::testing::TestWithParam<BrgemmIsa> {
 protected:
  void SetUp() override {
    if (!nerva::gemm_detail::brgemm_isa_supported(GetParam()))
      GTEST_SKIP() << "this CPU lacks " << isa_name(GetParam());
  }
};

// Every row count up to two 64-row tiles and a part (all remainders of 4, 8 and 16 lanes, one to
// four vectors), every column count up to three tiles, with the three kinds of beta.
template <typename T>
void sweep_edges(BrgemmIsa isa) {
  unsigned seed = 1;
  T const betas[] = {T(0), T(1), T(-0.5)};
  for (long m = 1; m <= 140; m += m < 70 ? 1 : 7)
    for (long n = 1; n <= 19; n += n < 14 ? 1 : 5)
      check(isa, Batch<T>(m, n, 3, 2, 1, 2, 3, seed), betas[seed % 3]), ++seed;
}

TEST_P(BatchReduceGemm, EveryRowAndColumnRemainder) {
  sweep_edges<float>(GetParam());
  sweep_edges<double>(GetParam());
}

// Random sizes from 1 to 300 with counts 0 to 12 and padded leading dimensions.
template <typename T>
void random_shapes(BrgemmIsa isa, unsigned seed) {
  std::mt19937 rng(seed);
  auto in = [&rng](long lo, long hi) { return lo + long(rng() % unsigned(hi - lo + 1)); };
  T const betas[] = {T(0), T(1), T(3)};
  for (int c = 0; c < 24; ++c) {
    long const m = in(1, 300), n = in(1, 300), count = in(0, 12);
    // At most 2 * 10^6 multiply-adds for the naive loop.
    long const k = in(1, std::max(1L, std::min(300L, 2000000 / (m * n * std::max(count, 1L)))));
    check(isa, Batch<T>(m, n, k, count, in(0, 17), in(0, 17), in(0, 17), rng()), betas[c % 3]);
  }
}

TEST_P(BatchReduceGemm, RandomShapesMatchTheNaiveLoop) {
  random_shapes<float>(GetParam(), 7);
  random_shapes<double>(GetParam(), 8);
}

// The layer shapes: 64 output channels, 64 input channels, 9 taps, B with a large leading
// dimension, and the stem's three input channels over 49 taps.
TEST_P(BatchReduceGemm, LayerShapes) {
  check(GetParam(), Batch<float>(64, 40, 64, 9, 0, 960, 0, 3), 0.0f);
  check(GetParam(), Batch<double>(64, 23, 64, 9, 0, 64, 0, 4), 0.0);
  check(GetParam(), Batch<float>(64, 19, 3, 49, 0, 93, 0, 5), 1.0f);
  check(GetParam(), Batch<double>(64, 16, 256, 2, 0, 0, 64, 6), 0.0);
}

// Batches larger than the part of A one pass may read run as several passes over C: one product
// per pass, and parts of uneven sizes.
TEST_P(BatchReduceGemm, BatchesInSeveralPasses) {
  check(GetParam(), Batch<float>(37, 13, 20, 7, 2, 1, 3, 9), 0.0f, 1);
  check(GetParam(), Batch<float>(37, 13, 20, 7, 2, 1, 3, 10), 2.0f, 37 * 20 * 4 * 3);
  check(GetParam(), Batch<double>(70, 9, 11, 12, 0, 5, 1, 11), 0.0, 70 * 11 * 8 * 5);
  check(GetParam(), Batch<double>(70, 9, 11, 12, 0, 5, 1, 12), 1.0, 70 * 11 * 8 * 12);
}

// Without products, C becomes beta * C (zeros for beta 0, never reading it) and neither A nor B
// is read: their pointers may be null. With m or n at most 0 nothing at all is touched.
TEST_P(BatchReduceGemm, EmptyProducts) {
  BrgemmIsa const isa = GetParam();
  for (long count : {0L, 3L}) {
    check(isa, Batch<float>(21, 5, 0, count, 0, 0, 2, 13), 0.0f);
    check(isa, Batch<double>(21, 5, 0, count, 0, 0, 2, 14), -2.0);
  }
  Batch<float> b(19, 4, 5, 0, 1, 1, 1, 15);
  b.A.assign(2, nullptr);
  b.B.assign(2, nullptr);
  b.count = 2;
  b.k = 0;
  check(isa, b, 0.0f);
  for (long m : {0L, -1L}) {
    nerva::gemm_detail::brgemm_run<double>(
        isa, {m, 4, 3, nullptr, 1, nullptr, 3, 2, nullptr, 1, 0.0}, 1 << 20);
    nerva::gemm_detail::brgemm_run<double>(
        isa, {4, m, 3, nullptr, 4, nullptr, 3, 2, nullptr, 4, 0.0}, 1 << 20);
  }
}

// `count` elements that end where an inaccessible page begins: a load or store of even one
// element past them faults.
template <typename T>
class Fenced {
 public:
  explicit Fenced(std::vector<T> const& values) {
    std::size_t const page = std::size_t(sysconf(_SC_PAGESIZE)), bytes = values.size() * sizeof(T);
    std::size_t const data_pages = (bytes + page - 1) / page;
    size_ = (data_pages + 1) * page;
    base_ = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const fence = static_cast<char*>(base_) + data_pages * page;
    mprotect(fence, page, PROT_NONE);
    data_ = reinterpret_cast<T*>(fence - bytes);
    std::copy(values.begin(), values.end(), data_);
  }
  ~Fenced() { munmap(base_, size_); }
  Fenced(Fenced const&) = delete;
  Fenced& operator=(Fenced const&) = delete;
  T* data() const { return data_; }

 private:
  void* base_;
  std::size_t size_;
  T* data_;
};

// With unpadded leading dimensions, the last column of each A[i] and of C ends at a fence: the
// masked loads and stores of the last vector of rows stay within m (a crash otherwise).
template <typename T>
void fenced_rows(BrgemmIsa isa) {
  for (long m : {1L, 3L, 7L, 13L, 17L, 30L, 45L, 63L, 71L, 100L})
    for (T beta : {T(0), T(2)}) {
      Batch<T> b(m, 5, 3, 2, 0, 0, 0, unsigned(m));
      std::vector<T> const want = b.expected(beta);
      std::vector<T> const c(b.C.begin(), b.C.begin() + m * b.n);
      Fenced<T> const a0(b.a[0]), a1(b.a[1]), b0(b.b[0]), b1(b.b[1]), fc(c);
      T const* const A[] = {a0.data(), a1.data()};
      T const* const B[] = {b0.data(), b1.data()};
      nerva::gemm_detail::brgemm_run<T>(isa, {m, b.n, b.k, A, m, B, b.k, 2, fc.data(), m, beta},
                                        nerva::gemm_detail::brgemm_batch_bytes());
      EXPECT_TRUE(std::equal(fc.data(), fc.data() + m * b.n, want.begin()))
          << isa_name(isa) << " m=" << m << " beta=" << beta;
    }
}

TEST_P(BatchReduceGemm, NothingPastTheLastRowIsTouched) {
  fenced_rows<float>(GetParam());
  fenced_rows<double>(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Isa, BatchReduceGemm,
                         ::testing::Values(BrgemmIsa::Portable, BrgemmIsa::Avx2, BrgemmIsa::Avx512),
                         [](auto const& info) { return std::string(isa_name(info.param)); });

// Calls on disjoint tiles of one C from the TBB workers (the way a convolution calls it) give
// the product of one call: nothing is shared between callers.
TEST(BatchReduceGemmThreads, DisjointTilesFromWorkers) {
  for (long beta : {0L, 1L}) {
    Batch<float> b(203, 150, 40, 5, 3, 2, 5, 17);
    if (beta == 0) b.poison();
    std::vector<float> const want = b.expected(float(beta));
    tbb::parallel_for(tbb::blocked_range2d<long>(0, b.n, 16, 0, b.m, 48), [&](auto const& r) {
      long const r0 = r.cols().begin(), c0 = r.rows().begin();
      std::vector<float const*> A, B;
      for (long i = 0; i < b.count; ++i) {
        A.push_back(b.A[std::size_t(i)] + r0);
        B.push_back(b.B[std::size_t(i)] + c0 * b.ldb);
      }
      nerva::batch_reduce_gemm<float>(r.cols().size(), r.rows().size(), b.k, A.data(), b.lda,
                                      B.data(), b.ldb, b.count, b.C.data() + r0 + c0 * b.ldc, b.ldc,
                                      float(beta));
    });
    EXPECT_EQ(b.mismatch(want), -1) << "beta " << beta;
  }
}

}  // namespace
