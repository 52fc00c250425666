#pragma once

// Test problems for the batch-reduce product and its naive triple loop, shared by the unit test
// and the fuzz target. Elements are small integers, so every product and sum is exact in float
// and double whatever the order of the additions, and results compare for equality.

#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace batch_gemm_test {

// A quiet NaN with a payload of its own: what the padding of C holds, bit for bit, before and
// after every call.
template <typename T>
T marked_nan() {
  T x;
  if constexpr (sizeof(T) == 4) {
    std::uint32_t const bits = 0x7fc0beefu;
    std::memcpy(&x, &bits, sizeof x);
  } else {
    std::uint64_t const bits = 0x7ff80000deadbeefull;
    std::memcpy(&x, &bits, sizeof x);
  }
  return x;
}

template <typename T>
bool same_bits(T a, T b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// `count` products: each A[i] (m x k, leading dimension lda = m + pad_a) and B[i] (k x n,
// ldb = k + pad_b) has an allocation of its own holding exactly the elements a product reads,
// so that a sanitizer reports any read past them. C (m x n, ldc = m + pad_c) has one spare
// column; its padding rows and the spare column hold marked NaNs.
template <typename T>
struct Batch {
  long m, n, k, count, lda, ldb, ldc;
  std::vector<std::vector<T>> a, b;
  std::vector<T const*> A, B;
  std::vector<T> C;

  Batch(long m_, long n_, long k_, long count_, long pad_a, long pad_b, long pad_c, unsigned seed)
      : m(m_), n(n_), k(k_), count(count_), lda(m_ + pad_a), ldb(k_ + pad_b), ldc(m_ + pad_c) {
    std::minstd_rand rng(seed);
    auto small = [&rng](int half) { return T(int(rng() % unsigned(2 * half + 1)) - half); };
    for (long i = 0; i < count; ++i) {
      a.emplace_back(k > 0 ? std::size_t(lda * (k - 1) + m) : 0);
      b.emplace_back(k > 0 ? std::size_t(ldb * (n - 1) + k) : 0);
      for (T& e : a.back()) e = small(4);
      for (T& e : b.back()) e = small(3);
      A.push_back(a.back().data());
      B.push_back(b.back().data());
    }
    C.assign(std::size_t(ldc * (n + 1)), marked_nan<T>());
    for (long j = 0; j < n; ++j)
      for (long r = 0; r < m; ++r) C[std::size_t(r + j * ldc)] = small(5);
  }

  // The m x n elements of C that a product with beta 0 must never read.
  void poison() {
    for (long j = 0; j < n; ++j)
      for (long r = 0; r < m; ++r)
        C[std::size_t(r + j * ldc)] = std::numeric_limits<T>::quiet_NaN();
  }

  // C after C := beta * C + sum A[i] * B[i], by the naive loop; elements outside m x n unchanged.
  std::vector<T> expected(T beta) const {
    std::vector<T> want = C;
    for (long j = 0; j < n; ++j)
      for (long r = 0; r < m; ++r) {
        T sum = 0;
        for (long i = 0; i < count; ++i)
          for (long p = 0; p < k; ++p)
            sum += A[std::size_t(i)][r + p * lda] * B[std::size_t(i)][p + j * ldb];
        T& c = want[std::size_t(r + j * ldc)];
        c = beta == T(0) ? sum : beta * c + sum;
      }
    return want;
  }

  // The index of the first element of C that differs from `want` (bit for bit outside m x n),
  // or -1.
  long mismatch(std::vector<T> const& want) const {
    for (std::size_t e = 0; e < C.size(); ++e) {
      long const r = long(e) % ldc, j = long(e) / ldc;
      bool const inside = r < m && j < n;
      if (inside ? !(C[e] == want[e]) : !same_bits(C[e], want[e])) return long(e);
    }
    return -1;
  }
};

}  // namespace batch_gemm_test
