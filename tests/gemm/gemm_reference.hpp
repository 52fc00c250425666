#pragma once

// Column-major test problems for the GEMM entry points and a naive reference product.
// Elements are small integers, so every product and sum is exact in float and double and
// results can be compared for equality.

#include <gtest/gtest.h>

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace gemm_test {

template <typename T>
struct Problem {
  char transa;
  char transb;
  long m, n, k;
  long lda, ldb, ldc;
  std::vector<T> A, B, C;

  // op(A) is m x k, op(B) k x n; every leading dimension is `pad` larger than needed, and the
  // padding rows of C hold values of their own that no call may change.
  Problem(char ta, char tb, long m_, long n_, long k_, long pad = 3, unsigned seed = 1)
      : transa(ta), transb(tb), m(m_), n(n_), k(k_) {
    bool const tA = ta == 'T' || ta == 't';
    bool const tB = tb == 'T' || tb == 't';
    long const rowsA = tA ? k : m, colsA = tA ? m : k;
    long const rowsB = tB ? n : k, colsB = tB ? k : n;
    lda = rowsA + pad;
    ldb = rowsB + pad;
    ldc = m + pad;
    A = filled(lda * colsA, seed, 5);
    B = filled(ldb * colsB, seed + 7, 7);
    C = filled(ldc * n, seed + 13, 9);
  }

  static std::vector<T> filled(long count, unsigned seed, unsigned modulus) {
    std::vector<T> v(static_cast<std::size_t>(count > 0 ? count : 1));
    unsigned x = seed * 2654435761u;
    for (auto& e : v) {
      x = x * 1664525u + 1013904223u;
      e = static_cast<T>(static_cast<int>((x >> 16) % modulus) - static_cast<int>(modulus / 2));
    }
    return v;
  }
};

// C := alpha*op(A)*op(B) + beta*C over the m x n part of C, by the definition; op is read from
// the transposition characters the way the BLAS reads them (either case).
template <typename T>
std::vector<T> reference(Problem<T> const& p, T beta, T alpha) {
  bool const tA = p.transa == 'T' || p.transa == 't';
  bool const tB = p.transb == 'T' || p.transb == 't';
  std::vector<T> C = p.C;
  for (long j = 0; j < p.n; ++j)
    for (long i = 0; i < p.m; ++i) {
      double sum = 0;
      for (long l = 0; l < p.k; ++l) {
        double const a = tA ? p.A[l + i * p.lda] : p.A[i + l * p.lda];
        double const b = tB ? p.B[j + l * p.ldb] : p.B[l + j * p.ldb];
        sum += a * b;
      }
      T& c = C[i + j * p.ldc];
      c = static_cast<T>(alpha * sum + (beta == T(0) ? 0.0 : beta * double(c)));
    }
  return C;
}

// Equality of two column-major buffers with leading dimension ld; names the first difference.
template <typename T>
::testing::AssertionResult same_matrix(std::vector<T> const& got, std::vector<T> const& want,
                                       long ld) {
  if (got.size() != want.size()) return ::testing::AssertionFailure() << "sizes differ";
  std::size_t wrong = 0, first = 0;
  for (std::size_t e = 0; e < got.size(); ++e)
    if (!(got[e] == want[e]) && wrong++ == 0) first = e;
  if (wrong == 0) return ::testing::AssertionSuccess();
  long const row = static_cast<long>(first) % ld, col = static_cast<long>(first) / ld;
  return ::testing::AssertionFailure()
         << wrong << " elements differ, first at (" << row << ", " << col << "): " << got[first]
         << " instead of " << want[first];
}

using ElementTypes = ::testing::Types<float, double>;

}  // namespace gemm_test
