#pragma once

// Column-major test problems for the GEMM entry points and a naive reference product.
// Elements are small integers, so every product and sum is exact in float and double and
// results can be compared for equality.

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "nerva/gemm.hpp"

namespace gemm_test {

template <typename T>
std::vector<T> filled(long count, unsigned seed, unsigned modulus) {
  std::vector<T> v(static_cast<std::size_t>(count > 0 ? count : 1));
  unsigned x = seed * 2654435761u;
  for (auto& e : v) {
    x = x * 1664525u + 1013904223u;
    e = static_cast<T>(static_cast<int>((x >> 16) % modulus) - static_cast<int>(modulus / 2));
  }
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

using ElementTypes = ::testing::Types<float, double>;

}  // namespace gemm_test
