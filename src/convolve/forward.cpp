#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "convolve/geometry.hpp"
#include "detail/checks.hpp"
#include "nerva/batch_gemm.hpp"
#include "nerva/convolve.hpp"

namespace nerva {
namespace {

using convolve_detail::ColumnGroup;
using convolve_detail::Geometry;
using convolve_detail::kMaxBatch;
using convolve_detail::kMaxDims;

// The products of one output tile: output-channel block `block`, row `row`
// (a position along every data dimension but the first) and the columns of
// `group`. Its batch holds every tap inside the input for this row and group,
// for every block of input channels, in calls of at most kMaxBatch products;
// the first call starts the tile from zero, so the tile is written once per
// call and never read before it is complete.
template <typename T>
void compute_tile(Geometry const& g, ConvolutionWeights<T> const& w, T const* src, T* dst,
                  size_t block, size_t row, ColumnGroup const& group) {
  long const k0 = long(block) * g.block_channels;
  long const rows = std::min<long>(g.block_channels, g.K - k0);

  // Position, tap range and offsets along the outer dimensions of this row.
  long lo[kMaxDims], hi[kMaxDims], tap[kMaxDims];
  long in_row = group.in_offset, out_row = group.out_offset + k0;
  size_t rest = row;
  bool empty = group.tap_first >= group.tap_last || g.C == 0;
  for (size_t d = 1; d < g.n; ++d) {
    long const j = long(rest % size_t(g.count[d]));
    rest /= size_t(g.count[d]);
    long const p = g.first[d] + j * g.stride[d];
    lo[d] = std::max(0L, g.pad[d] - p);
    hi[d] = std::min(g.extent[d], g.size[d] + g.pad[d] - p);
    empty = empty || lo[d] >= hi[d];
    in_row += (p - g.pad[d]) * g.in_inc[d];
    out_row += j * g.out_inc[d];
  }
  T* const C = dst + out_row;
  T beta = T(0);
  if (empty) {  // the window sees only padding: the tile is zero
    T const* const none = nullptr;
    batch_reduce_gemm<T>(rows, group.columns, g.C, &none, rows, &none, group.ldb, 0, C, group.ldc,
                         beta);
    return;
  }
  T const* A[kMaxBatch];
  T const* B[kMaxBatch];
  long count = 0;

  auto flush = [&](long k) {
    batch_reduce_gemm<T>(rows, group.columns, k, A, rows, B, group.ldb, count, C, group.ldc, beta);
    beta = T(1);
    count = 0;
  };
  for (long c0 = 0; c0 < g.C; c0 += g.channel_block) {
    long const k = std::min(g.channel_block, g.C - c0);
    if (count > 0 && k != g.channel_block) flush(g.channel_block);  // k changes
    // Odometer over the outer taps, dimension 1 fastest; dimension 0 inside.
    for (size_t d = 1; d < g.n; ++d) tap[d] = lo[d];
    for (;;) {
      long t_outer = 0, in_tap = in_row + c0;
      for (size_t d = g.n - 1; d >= 1; --d) {
        t_outer = t_outer * g.extent[d] + tap[d];
        in_tap += tap[d] * g.in_inc[d];
      }
      t_outer *= g.extent[0];
      for (long t0 = group.tap_first; t0 < group.tap_last; ++t0) {
        A[count] = w.Packed(block, size_t(t_outer + t0)) + c0 * rows;
        B[count] = src + in_tap + t0 * g.in_inc[0];
        if (++count == g.batch_limit) flush(k);
      }
      size_t d = 1;
      while (d < g.n && ++tap[d] == hi[d]) tap[d] = lo[d], ++d;
      if (d >= g.n) break;
    }
    if (count > 0 && k != g.channel_block) flush(k);
  }
  if (count > 0) flush(g.channel_block);
}

}  // namespace

template <typename T>
void convolution_forward(FormattedInputArray<T> const& input, ConvolutionWeights<T> const& weights,
                         size_t const* padding_before, FormattedOutputArray<T>& output,
                         ConvolutionBorder border) {
  Geometry const g = convolve_detail::make_geometry(input, weights, padding_before, output);
  if (border == ZeroBorder) convolve_detail::zero_border(output, g);
  if (g.items() == 0) return;

  T const* const src = input.Data();
  T* const dst = output.UnpaddedData();
  size_t const rows = g.rows, groups = g.groups.size();
  // Blocks of output channels outermost: consecutive tiles on a worker share
  // their packed weights, which stay in its cache while the input rows pass.
  tbb::parallel_for(tbb::blocked_range<size_t>(0, g.items()), [&](auto const& range) {
    for (size_t item = range.begin(); item < range.end(); ++item) {
      size_t const group = item % groups, row = item / groups % rows, block = item / groups / rows;
      compute_tile(g, weights, src, dst, block, row, g.groups[group]);
    }
  });
}

template NERVA_API void convolution_forward<float>(FormattedInputArray<float> const&,
                                                   ConvolutionWeights<float> const&, size_t const*,
                                                   FormattedOutputArray<float>&, ConvolutionBorder);
template NERVA_API void convolution_forward<double>(FormattedInputArray<double> const&,
                                                    ConvolutionWeights<double> const&,
                                                    size_t const*, FormattedOutputArray<double>&,
                                                    ConvolutionBorder);

}  // namespace nerva
