#include "nerva/gemm.hpp"

#include <gtest/gtest.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "gemm/gemm_serial_limit.hpp"

namespace {

// Column-major test problems and a naive reference product. Elements are small integers, so every
// product and sum is exact in float and double and results can be compared for equality.
template <typename T>
std::vector<T> filled(long count, unsigned seed, unsigned modulus) {
  std::vector<T> v(static_cast<std::size_t>(count > 0 ? count : 1));
  std::minstd_rand rng(seed);
  for (auto& e : v) e = static_cast<T>(static_cast<int>(rng() % modulus) - int(modulus / 2));
  return v;
}

// op(A) is m x k, op(B) k x n; every leading dimension is `pad` larger than needed, and the
// padding rows of C hold values of their own that no call may change.
template <typename T>
struct Problem {
  char transa, transb;
  long m, n, k, lda, ldb, ldc;
  std::vector<T> A, B, C;

  Problem(char ta, char tb, long m_, long n_, long k_, long pad = 3, unsigned seed = 1)
      : transa(ta), transb(tb), m(m_), n(n_), k(k_) {
    bool const tA = ta == 'T', tB = tb == 'T';
    lda = (tA ? k : m) + pad;
    ldb = (tB ? n : k) + pad;
    ldc = m + pad;
    A = filled<T>(lda * (tA ? m : k), seed, 5);
    B = filled<T>(ldb * (tB ? k : n), seed + 7, 7);
    C = filled<T>(ldc * n, seed + 13, 9);
  }

  // C := alpha*op(A)*op(B) + beta*C through gemm, or through tbb_gemm when `blocked`.
  void multiply(T beta, T alpha, bool blocked = false) {
    using Fn = void (*)(char*, char*, long*, long*, long*, T const*, long*, T const*, long*, T*,
                        long*, T, T);
    Fn const fn = blocked ? Fn(&nerva::tbb_gemm<T>) : Fn(&nerva::gemm);
    fn(&transa, &transb, &m, &n, &k, A.data(), &lda, B.data(), &ldb, C.data(), &ldc, beta, alpha);
  }
};

// C := alpha*op(A)*op(B) + beta*C over the m x n part of C, by the definition.
template <typename T>
std::vector<T> reference(Problem<T> const& p, T beta, T alpha) {
  bool const tA = p.transa == 'T', tB = p.transb == 'T';
  std::vector<T> C = p.C;
  for (long j = 0; j < p.n; ++j)
    for (long i = 0; i < p.m; ++i) {
      double sum = 0;
      for (long l = 0; l < p.k; ++l)
        sum += double(tA ? p.A[l + i * p.lda] : p.A[i + l * p.lda]) *
               (tB ? p.B[j + l * p.ldb] : p.B[l + j * p.ldb]);
      T& c = C[i + j * p.ldc];
      c = static_cast<T>(alpha * sum + (beta == T(0) ? 0.0 : beta * double(c)));
    }
  return C;
}

// One product for every transposition against the definition. With beta 0 the m x n part of C
// starts as NaN, which the BLAS must not read. tbb_gemm ignores alpha (the product enters with
// factor 1); the padding rows of C stay as they were.
template <typename T>
void expect_products(long m, long n, long k, T beta, T alpha, bool blocked) {
  for (char ta : {'N', 'T'})
    for (char tb : {'N', 'T'}) {
      SCOPED_TRACE(::testing::Message() << ta << tb << ' ' << m << 'x' << n << 'x' << k);
      Problem<T> p(ta, tb, m, n, k, 2, static_cast<unsigned>(m + n));
      if (beta == T(0))
        for (long j = 0; j < n; ++j)
          for (long i = 0; i < m; ++i) p.C[i + j * p.ldc] = std::numeric_limits<T>::quiet_NaN();
      auto const want = reference(p, beta, blocked ? T(1) : alpha);
      ::testing::internal::CaptureStdout();  // where the BLAS reports a parameter error
      p.multiply(beta, alpha, blocked);
      EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
      EXPECT_TRUE(p.C == want);
    }
}

template <typename T>
class Gemm : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Gemm, ElementTypes);

// gemm takes its scalars last as (beta, alpha): 3*op(A)*op(B) + 2*C, at a size small enough for
// the BLAS's direct path and one that takes its packed path. tbb_gemm below, at and above the
// serial limit on either side (one call or blocks of the grain), with an alpha that must have no
// effect, k = 0 (blocks only scale C by beta) and beta = 0 block by block; m = 300, n = 10
// splits only the rows. Last, empty and negative sizes: a negative one never reaches the BLAS
// (which would print a parameter error), m = 0 either returns at once (n above the limit) or is
// one BLAS call that does nothing; C is never touched.
TYPED_TEST(Gemm, ProductsMatchTheDefinition) {
  using T = TypeParam;
  long const L = nerva::GemmSerialLimit<T>;
  struct Case {
    long m, n, k;
    T beta, alpha;
    bool blocked;
  };
  Case const cases[] = {{7, 5, 9, 2, 3, false},     {132, 130, 134, 2, 3, false},
                        {9, 6, 4, 0, 1, false},     {L - 1, L / 2, 7, 2, 7, true},
                        {L, L, 5, -1, 7, true},     {L + 1, 3, 6, 2, 7, true},
                        {2, L + 1, 4, 2, 0, true},  {2 * L + 7, L + 5, 9, 2, -2, true},
                        {300, 10, 11, 2, 7, true},  {L + 9, L + 1, 0, 3, 7, true},
                        {L, 4, 0, 0, 7, true},      {L + 5, L + 7, 3, 0, 7, true},
                        {-1, 5, 4, 2, 7, true},     {5, -3, 4, 2, 7, true},
                        {-1, L + 3, 4, 2, 7, true}, {L + 3, -2, 4, 2, 7, true},
                        {0, L + 3, 4, 2, 7, true},  {0, 5, 4, 2, 7, true},
                        {L + 3, 0, 4, 2, 7, true}};
  for (Case const& c : cases) expect_products(c.m, c.n, c.k, c.beta, c.alpha, c.blocked);
}

// Rounds of one 128 x 128 x 128 product per party, the parties released together by a spin
// barrier so that their BLAS calls start at the same moment; each product must equal the same
// product computed alone. At this size the BLAS packs operands into buffers taken from a shared
// table; with that table unlocked, two calls get the same buffer and dozens of rounds go wrong.
TEST(BlasConcurrency, SimultaneousCallsFromTbbWorkersAreExact) {
  long const rounds = 1000;
  int const parties = std::max(2, tbb::info::default_concurrency());
  std::vector<Problem<double>> work;
  std::vector<std::vector<double>> alone;
  for (int p = 0; p < parties; ++p) {
    work.emplace_back('N', 'N', 128, 128, 128, 0, static_cast<unsigned>(p + 1));
    work.back().multiply(0, 1);
    alone.push_back(work.back().C);
  }
  // A party missing for a second (a loaded machine) ends the lockstep instead of hanging.
  std::atomic<long> arrived{0};
  std::atomic<bool> unsynchronized{false};
  std::atomic<long> wrong{0};
  tbb::task_arena(parties).execute([&] {
    tbb::parallel_for(
        0, parties,
        [&](int p) {
          std::size_t const bytes = work[p].C.size() * sizeof(double);
          for (long r = 0; r < rounds; ++r) {
            std::memset(work[p].C.data(), 0xff, bytes);  // NaN: an unwritten product shows too
            arrived.fetch_add(1);
            auto const give_up = std::chrono::steady_clock::now() + std::chrono::seconds(1);
            while (arrived.load() < (r + 1) * parties && !unsynchronized)
              if (std::chrono::steady_clock::now() > give_up) unsynchronized = true;
            work[p].multiply(0, 1);
            if (std::memcmp(work[p].C.data(), alone[p].data(), bytes) != 0) ++wrong;
          }
        },
        tbb::simple_partitioner());
  });
  EXPECT_EQ(wrong.load(), 0) << "wrong products in " << rounds * parties;
}

// The BLAS starts no threads of its own: after large products the process holds only the calling
// thread and TBB's workers (a threaded BLAS keeps a pool from the moment it is loaded or from its
// first call). ThreadSanitizer has a background thread of its own.
TEST(BlasConcurrency, BlasStartsNoThreads) {
  auto threads = [] {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
  };
  Problem<double> p('N', 'N', 320, 320, 320, 0);
  p.multiply(0, 1, true);  // TBB's workers exist from here on
  long const before = threads();
  EXPECT_LE(before, tbb::info::default_concurrency() + 1);
  p.multiply(0, 1);
  p.multiply(0, 1, true);
  EXPECT_EQ(threads(), before);
}

}  // namespace
