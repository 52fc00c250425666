#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gemm/gemm_reference.hpp"
#include "gemm/gemm_serial_limit.hpp"
#include "nerva/gemm.hpp"

namespace {

using gemm_test::Problem;
using gemm_test::same_matrix;

template <typename T>
class TbbGemm : public ::testing::Test {
 protected:
  static constexpr long L = static_cast<long>(nerva::GemmSerialLimit<T>);

  // Runs tbb_gemm on the problem with the given scalars (beta, then the unused alpha).
  static void run(Problem<T>& p, T beta, T alpha) {
    nerva::tbb_gemm<T>(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(),
                       &p.ldb, p.C.data(), &p.ldc, beta, alpha);
  }
};
TYPED_TEST_SUITE(TbbGemm, gemm_test::ElementTypes);

// Below, at and above the serial limit on either side, for every transposition; the padding
// rows of C stay as they were. m = 300, n = 10 splits only the rows.
TYPED_TEST(TbbGemm, MatchesTheDefinitionAroundTheSerialLimit) {
  using T = TypeParam;
  long const L = TestFixture::L;
  struct Shape {
    long m, n, k;
  };
  for (Shape s : {Shape{L - 1, L / 2, 7}, Shape{L, L, 5}, Shape{L + 1, 3, 6}, Shape{2, L + 1, 4},
                  Shape{2 * L + 7, L + 5, 9}, Shape{300, 10, 11}})
    for (char ta : {'N', 'T'})
      for (char tb : {'N', 'T'}) {
        SCOPED_TRACE(std::string(1, ta) + tb + " " + std::to_string(s.m) + " x " +
                     std::to_string(s.n) + " x " + std::to_string(s.k));
        Problem<T> p(ta, tb, s.m, s.n, s.k, 2, static_cast<unsigned>(s.m + s.n));
        auto const want = gemm_test::reference(p, T(2), T(1));
        TestFixture::run(p, T(2), T(1));
        EXPECT_TRUE(same_matrix(p.C, want, p.ldc));
      }
}

// The last argument never scales the product, whether one call or many blocks do the work.
TYPED_TEST(TbbGemm, LastArgumentHasNoEffect) {
  using T = TypeParam;
  long const L = TestFixture::L;
  for (long m : {L / 2, 2 * L + 3}) {
    SCOPED_TRACE("m = " + std::to_string(m));
    for (T alpha : {T(0), T(-2), T(7)}) {
      Problem<T> p('T', 'N', m, L + 2, 6);
      auto const want = gemm_test::reference(p, T(-1), T(1));
      TestFixture::run(p, T(-1), alpha);
      EXPECT_TRUE(same_matrix(p.C, want, p.ldc));
    }
  }
}

// k = 0 is not looked at: every block only scales its part of C by beta.
TYPED_TEST(TbbGemm, EmptyInnerDimensionScalesCByBeta) {
  using T = TypeParam;
  long const L = TestFixture::L;
  for (long m : {L, L + 9})
    for (T beta : {T(3), T(0)}) {
      SCOPED_TRACE("m = " + std::to_string(m));
      Problem<T> p('N', 'N', m, L + 1, 0);
      std::vector<T> want = p.C;
      for (long j = 0; j < p.n; ++j)
        for (long i = 0; i < p.m; ++i) want[i + j * p.ldc] *= beta;
      TestFixture::run(p, beta, T(1));
      EXPECT_TRUE(same_matrix(p.C, want, p.ldc));
    }
}

// beta 0 goes to the BLAS unchanged in every block: old contents, even NaN, are not read.
TYPED_TEST(TbbGemm, BetaZeroIsAppliedBlockByBlock) {
  using T = TypeParam;
  long const L = TestFixture::L;
  Problem<T> p('N', 'T', L + 5, L + 7, 3);
  for (long j = 0; j < p.n; ++j)
    for (long i = 0; i < p.m; ++i) p.C[i + j * p.ldc] = std::numeric_limits<T>::quiet_NaN();
  auto const want = gemm_test::reference(p, T(0), T(1));
  TestFixture::run(p, T(0), T(1));
  EXPECT_TRUE(same_matrix(p.C, want, p.ldc));
}

// Negative sizes never reach the BLAS (it would print a parameter error); m = 0 either returns
// at once (n above the limit) or is one BLAS call that does nothing. C is never touched.
TYPED_TEST(TbbGemm, EmptyAndNegativeSizesDoNothing) {
  using T = TypeParam;
  long const L = TestFixture::L;
  struct Shape {
    long m, n;
  };
  for (Shape s : {Shape{-1, 5}, Shape{5, -3}, Shape{-4, -4}, Shape{-1, L + 3}, Shape{L + 3, -2},
                  Shape{0, L + 3}, Shape{0, 5}, Shape{L + 3, 0}}) {
    SCOPED_TRACE(std::to_string(s.m) + " x " + std::to_string(s.n));
    Problem<T> p('N', 'N', 8, 8, 8);
    std::vector<T> const before = p.C;
    p.m = s.m;
    p.n = s.n;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    TestFixture::run(p, T(2), T(1));
    std::string const out = ::testing::internal::GetCapturedStdout();
    std::string const err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out + err, "");
    EXPECT_TRUE(same_matrix(p.C, before, 11));
  }
}

// Only an uppercase 'N' means "not transposed" to tbb_gemm, while the BLAS reads a lowercase
// 'n' as not transposed too. Within the limit that is one BLAS call and the product is right.
// Above it, the blocks are addressed as for a transposed operand and the BLAS then reads them
// as plain ones: the row block starting at i0 is computed from A shifted by i0 columns (and the
// column block at j0 from B shifted by j0 rows). This is what the test pins down; the operands
// are given enough extra columns/rows that the shifted reads stay inside them.
TYPED_TEST(TbbGemm, LowercaseNIsTreatedAsTransposedAboveTheLimit) {
  using T = TypeParam;
  long const L = TestFixture::L;
  long const k = 5;

  Problem<T> small('n', 'n', L, L - 3, k);
  auto const want = gemm_test::reference(small, T(2), T(1));
  TestFixture::run(small, T(2), T(1));
  EXPECT_TRUE(same_matrix(small.C, want, small.ldc));

  // transa = 'n' with m above the limit: rows split into [0, h) and [h, m).
  long const m = L + 6, n = 4;
  Problem<T> a('n', 'N', m, n, k);
  a.A = Problem<T>::filled(a.lda * (k + m), 3, 5);
  std::vector<T> shifted = a.C;
  long const h = m / 2;
  for (long j = 0; j < n; ++j)
    for (long i = 0; i < m; ++i) {
      long const i0 = i < h ? 0 : h;
      double sum = 0;
      for (long l = 0; l < k; ++l)
        sum += double(a.A[(i - i0) + (i0 + l) * a.lda]) * a.B[l + j * a.ldb];
      shifted[i + j * a.ldc] = static_cast<T>(sum + 2.0 * a.C[i + j * a.ldc]);
    }
  TestFixture::run(a, T(2), T(1));
  EXPECT_TRUE(same_matrix(a.C, shifted, a.ldc));

  // transb = 'n' with n above the limit: columns split into [0, h) and [h, n).
  long const n2 = L + 4;
  Problem<T> b('N', 'n', 3, n2, k);
  b.ldb = k + n2;
  b.B = Problem<T>::filled(b.ldb * n2, 4, 7);
  std::vector<T> shiftedB = b.C;
  long const hb = n2 / 2;
  for (long j = 0; j < n2; ++j)
    for (long i = 0; i < b.m; ++i) {
      long const j0 = j < hb ? 0 : hb;
      double sum = 0;
      for (long l = 0; l < k; ++l)
        sum += double(b.A[i + l * b.lda]) * b.B[(j0 + l) + (j - j0) * b.ldb];
      shiftedB[i + j * b.ldc] = static_cast<T>(sum + 2.0 * b.C[i + j * b.ldc]);
    }
  TestFixture::run(b, T(2), T(1));
  EXPECT_TRUE(same_matrix(b.C, shiftedB, b.ldc));
}

}  // namespace
