#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/batch_gemm.hpp"
#include "nerva/copy.hpp"
#include "nerva/formatted_array.hpp"
#include "nerva/output_array.hpp"
#include "qel_permute/permute.hpp"
#include "support/counting_allocator.hpp"

namespace {

using nerva::FormattedOutputArray;

// Each caller error throws std::invalid_argument with exactly its message; a row without a
// message is the valid call next to an error (the last index, an empty range, an optional null
// argument), which must go through.
TEST(Checked, EachCallerErrorIsReportedWithItsMessage) {
  counting::LeakCheck check;
  auto const fns = counting::functions();
  nerva::SharedMemoryPool pool(fns, &counting::throwing_error);
  std::size_t const sizes[] = {4, 3}, firsts[] = {0, 0}, lasts[] = {8, 6}, strides[] = {2, 3};
  FormattedOutputArray<float> plain(pool, sizes, 2, 2, 1, 2, 3, nerva::Zeros);
  FormattedOutputArray<float> strided(pool, firsts, lasts, strides, 2, 2, 1, nullptr, nerva::Zeros);
  FormattedOutputArray<long> unallocated(pool, sizes, 2, 2, 1, 2, 3, nerva::Unallocated);
  std::size_t const extents[] = {3, 3}, zeroLast[] = {1, 0};
  long const incs[] = {1, 3};

  // Channel and observation both at position 0: the map (1, 0, 0, 3) has a hole at position 2,
  // so the order vector to (1, 2) repeats a value.
  nerva::FormattedArray holed(1, 0, 0, 3, fns, 1);
  std::size_t const holedSizes[] = {3, 2, 2, 1};
  holed.SetSizesInDefaultFormat(holedSizes, 4);

  std::vector<float> src(48, 1.0f), dst(48);
  std::size_t const gridSizes[] = {8, 6, 1, 1}, gridFirsts[] = {0, 2}, gridLasts[] = {8, 5};
  std::size_t const gridEmpty[] = {8, 2}, zeroFirst[] = {0, 1}, steps[] = {1, 2};
  auto gather = [&](std::size_t const* ends, std::size_t const* incr) {
    pool.checkin(nerva::strided_copy<float>(pool, src.data(), gridSizes, gridFirsts, ends, incr, 2,
                                            1, nullptr));
  };
  std::size_t const permSizes[] = {2, 3, 4}, outside[] = {1, 4, 2}, twice[] = {3, 1, 3},
                    zero[] = {0, 1, 2};
  auto permute = [&](std::size_t const* order) {
    qel_permute::Permute<4>(src.data(), dst.data(), 3, permSizes, order, nullptr, nullptr);
  };

  std::string const fa = "FormattedArray::", out = "FormattedOutputArray::";
  std::string const range2 = " out of range (2 data dimensions)";
  struct Case {
    std::function<void()> call;
    std::string message;
  };
  Case const cases[] = {
      {[&] { plain.DataSize(4); }, ""},
      {[&] { plain.DataSize(5); }, fa + "DataSize: dimension index 5 out of range (5 dimensions)"},
      {[&] { plain.DataIncrement(1); }, ""},
      {[&] { plain.DataIncrement(2); }, fa + "DataIncrement: data dimension index 2" + range2},
      {[&] { plain.DataDimension(9); },
       fa + "DataDimension: dimension index 9 out of range (5 dimensions)"},
      {[&] { holed.ReformatData<float>(src.data(), 1, 2, nerva::InOrder, nullptr, pool); },
       fa + "ReformatData: permutation entry 2 repeats the value 1"},
      {[&] { plain.Stride(0); }, out + "Stride: the array has no strides"},
      {[&] { strided.Stride(2); }, out + "Stride: data dimension index 2" + range2},
      {[&] { unallocated.Reformat(nerva::ChainedFormat); },
       out + "Reformat: the array has no data buffer (24 elements)"},
      {[&] { unallocated.CopyDataBounds(gridFirsts, gridEmpty, zeroLast, nullptr); }, ""},
      {[&] { unallocated.CopyDataBounds(gridFirsts, gridLasts, zeroLast, nullptr); },
       out + "CopyDataBounds: stride 0 in data dimension 1 with the non-empty range [2, 5)"},
      {[&] { plain.ConvolutionDescriptor(2, 3, 1, 6, 1); },
       out + "ConvolutionDescriptor: data dimension index 2" + range2},
      {[&] { plain.StridedConvolutionDescriptor(0, 3, 1, 6, 1); },
       out + "StridedConvolutionDescriptor: the array has no strides"},
      {[&] { strided.StridedConvolutionDescriptor(5, 3, 1, 6, 1); },
       out + "StridedConvolutionDescriptor: data dimension index 5" + range2},
      {[&] { plain.ConvolutionDescriptorND(extents, nullptr, extents, incs); }, ""},
      {[&] { plain.ConvolutionDescriptorND(extents, incs, extents, nullptr); },
       out + "ConvolutionDescriptorND: null input increments"},
      {[&] { plain.StridedConvolutionDescriptorND(extents, incs, extents, incs); },
       out + "StridedConvolutionDescriptorND: the array has no strides"},
      {[&] { strided.StridedConvolutionDescriptorND(extents, nullptr, extents, incs); },
       out + "StridedConvolutionDescriptorND: null window increments"},
      {[&] { strided.StridedConvolutionDescriptorND(extents, incs, extents, nullptr); },
       out + "StridedConvolutionDescriptorND: null input increments"},
      {[&] { nerva::strided_copy_mapping(gridSizes, gridFirsts, gridEmpty, zeroLast, 2, fns); },
       ""},
      {[&] { nerva::strided_copy_mapping(gridSizes, gridFirsts, gridLasts, zeroLast, 2, fns); },
       "strided_copy_mapping: increment 0 in dimension 1 with the non-empty range [2, 5)"},
      {[&] { gather(gridLasts, zeroFirst); },
       "strided_copy: increment 0 in dimension 0 with the range [0, 8)"},
      {[&] { gather(gridEmpty, steps); },
       "strided_copy: empty range [2, 2) with increment 2 in dimension 1"},
      {[&] { permute(outside); }, "qel_permute::Permute: permutation entry 1 is 4, outside 1..3"},
      {[&] { permute(twice); }, "qel_permute::Permute: permutation entry 2 repeats the value 3"},
      {[&] { permute(zero); }, "qel_permute::Permute: permutation entry 0 is 0, outside 1..3"},
  };
  for (Case const& c : cases) {
    try {
      c.call();
      EXPECT_EQ(c.message, "") << "no exception";
    } catch (std::invalid_argument const& e) {
      EXPECT_EQ(e.what(), c.message);
    }
  }
  // The rejected reformats left their layouts as they were.
  EXPECT_TRUE(unallocated.IsInKORVALFormat());
  EXPECT_EQ(holed.ChannelDimension(), 0u);
}

// batch_reduce_gemm: each argument error with its message, next to the valid calls that must go
// through because nothing reads the argument (no products, or no rows or columns of C).
TEST(Checked, BatchReduceGemmReportsEachCallerError) {
  std::vector<double> a(16, 1.0), b(16, 1.0), c(16, 0.0);
  double const* const A[] = {a.data(), a.data()};
  double const* const B[] = {b.data(), b.data()};
  double const* const holeA[] = {a.data(), nullptr};
  double const* const holeB[] = {nullptr, b.data()};
  auto call = [&](long m, long n, long k, double const* const* As, long lda,
                  double const* const* Bs, long ldb, long count, double* C, long ldc) {
    return [=] { nerva::batch_reduce_gemm<double>(m, n, k, As, lda, Bs, ldb, count, C, ldc, 0.0); };
  };
  double* const C = c.data();
  std::string const f = "batch_reduce_gemm: ";
  struct Case {
    std::function<void()> call;
    std::string message;
  };
  Case const cases[] = {
      {call(4, 3, 2, A, 4, B, 2, 2, C, 4), ""},
      {call(4, 3, -1, A, 4, B, 2, 2, C, 4), f + "k is -1, below 0"},
      {call(4, 3, 2, A, 4, B, 2, -2, C, 4), f + "count is -2, below 0"},
      {call(4, 3, 2, A, 4, B, 2, 2, nullptr, 4), f + "null C"},
      {call(4, 3, 2, A, 4, B, 2, 2, C, 3), f + "ldc 3 is below m 4"},
      {call(4, 3, 2, nullptr, 4, B, 2, 2, C, 4), f + "null A"},
      {call(4, 3, 2, A, 4, nullptr, 2, 2, C, 4), f + "null B"},
      {call(4, 3, 2, A, 3, B, 2, 2, C, 4), f + "lda 3 is below m 4"},
      {call(4, 3, 2, A, 4, B, 1, 2, C, 4), f + "ldb 1 is below k 2"},
      {call(4, 3, 2, holeA, 4, B, 2, 2, C, 4), f + "null A[1]"},
      {call(4, 3, 2, A, 4, holeB, 2, 2, C, 4), f + "null B[0]"},
      {call(4, 3, 2, holeA, 4, holeB, 2, 1, C, 4), f + "null B[0]"},
      {call(4, 3, 2, holeA, 4, B, 2, 1, C, 4), ""},  // only A[0] is read
      {call(4, 3, 0, nullptr, 0, nullptr, 0, 2, C, 4), ""},
      {call(4, 3, 2, nullptr, 0, nullptr, 0, 0, C, 4), ""},
      {call(0, 3, 2, nullptr, 0, nullptr, 0, 2, nullptr, 0), ""},
      {call(4, -1, 2, nullptr, 0, nullptr, 0, 2, nullptr, 0), ""},
  };
  for (Case const& c : cases) {
    try {
      c.call();
      EXPECT_EQ(c.message, "") << "no exception";
    } catch (std::invalid_argument const& e) {
      EXPECT_EQ(e.what(), c.message);
    }
  }
  float const* const fA[] = {nullptr};
  float x = 0.0f;
  EXPECT_THROW(nerva::batch_reduce_gemm<float>(1, 1, 1, fA, 1, fA, 1, 1, &x, 1, 1.0f),
               std::invalid_argument);
}

}  // namespace
