#include "nerva/gemm.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "gemm/gemm_reference.hpp"

namespace {

using gemm_test::Problem;

template <typename T>
class GemmFrontEnd : public ::testing::Test {};
TYPED_TEST_SUITE(GemmFrontEnd, gemm_test::ElementTypes);

// The scalars come last as (beta, alpha): 3*op(A)*op(B) + 2*C, for every transposition and a
// size that takes the BLAS's packed path as well as a small one.
TYPED_TEST(GemmFrontEnd, ScalarsAreBetaThenAlphaForEveryTransposition) {
  using T = TypeParam;
  for (long size : {5L, 130L})
    for (char ta : {'N', 'T'})
      for (char tb : {'N', 'T'}) {
        SCOPED_TRACE(std::string(1, ta) + tb + " size " + std::to_string(size));
        Problem<T> p(ta, tb, size + 2, size, size + 4);
        auto const want = gemm_test::reference(p, T(2), T(3));
        nerva::gemm(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(), &p.ldb,
                    p.C.data(), &p.ldc, T(2), T(3));
        EXPECT_TRUE(gemm_test::same_matrix(p.C, want, p.ldc));
      }
}

// beta 0 is the BLAS's: the old contents of C are not read, even when they are not numbers.
TYPED_TEST(GemmFrontEnd, BetaZeroDoesNotReadC) {
  using T = TypeParam;
  Problem<T> p('N', 'T', 9, 6, 4);
  for (long j = 0; j < p.n; ++j)
    for (long i = 0; i < p.m; ++i) p.C[i + j * p.ldc] = std::numeric_limits<T>::quiet_NaN();
  auto const want = gemm_test::reference(p, T(0), T(1));
  nerva::gemm(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(), &p.ldb,
              p.C.data(), &p.ldc, T(0), T(1));
  EXPECT_TRUE(gemm_test::same_matrix(p.C, want, p.ldc));
}

}  // namespace
