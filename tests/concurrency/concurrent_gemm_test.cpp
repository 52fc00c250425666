#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <thread>
#include <vector>

#include "nerva/gemm.hpp"

// tbb_gemm from several host threads at once, each multiplying its own
// matrices in parallel blocks through the shared BLAS.
namespace {

TEST(ConcurrentGemm, TbbGemmFromSeveralThreadsMatchesNaiveProducts) {
  constexpr int kThreads = 3;
  std::vector<int> wrong(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&wrong, t] {
      // Larger than one block in both directions for float (256).
      long m = 300 + t, n = 270, k = 17 + t;
      long lda = m, ldb = k, ldc = m;
      std::vector<float> A(static_cast<std::size_t>(m * k)), B(static_cast<std::size_t>(k * n));
      std::vector<float> C(static_cast<std::size_t>(m * n), 1.0f);
      for (std::size_t i = 0; i < A.size(); ++i) A[i] = static_cast<float>((i * 3 + t) % 7) - 3;
      for (std::size_t i = 0; i < B.size(); ++i) B[i] = static_cast<float>((i * 5 + t) % 11) - 5;
      char no = 'N';
      // C := A B + 2 C; the last argument is ignored by tbb_gemm.
      nerva::tbb_gemm<float>(&no, &no, &m, &n, &k, A.data(), &lda, B.data(), &ldb, C.data(), &ldc,
                             2.0f, 9.0f);
      for (long j = 0; j < n; ++j)
        for (long i = 0; i < m; ++i) {
          float want = 2.0f;
          for (long p = 0; p < k; ++p) want += A[i + p * lda] * B[p + j * ldb];
          wrong[t] += std::fabs(C[i + j * ldc] - want) > 1e-3f;
        }
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(wrong[t], 0) << "thread " << t;
}

}  // namespace
