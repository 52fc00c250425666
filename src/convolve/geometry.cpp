#include "convolve/geometry.hpp"

#include <algorithm>
#include <cstring>

#include "detail/checks.hpp"

namespace nerva::convolve_detail {
namespace {

// Output columns per product at most: enough for whole register tiles and a
// long stretch of each input row, few enough that a layer has tiles for every
// worker.
constexpr long kMaxColumns = 256;
// Bytes of packed weights per call at most, so that a call's weights stay in
// the second-level cache while it runs over its columns.
constexpr long kWeightBytesPerCall = 512 * 1024;
// Input channels per product at most (1 KiB of each input column), so that
// the input columns of a register tile stay in the first-level cache.
constexpr long kChannelBytes = 1024;

template <typename T>
void check_arrays(FormattedInputArray<T> const& input, ConvolutionWeights<T> const& weights,
                  size_t const* padding_before, FormattedOutputArray<T> const& output) {
  char const* const f = "convolution_forward: ";
  size_t const n = input.NumDataDimensions();
  NERVA_CHECK(input.IsInChainedFormat(), f, "the input is not in the chained layout");
  NERVA_CHECK(output.IsInChainedFormat(), f, "the output is not in the chained layout");
  NERVA_CHECK(n >= 1 && n <= kMaxDims, f, "the arrays have ", n, " data dimensions, not 1 to ",
              kMaxDims);
  NERVA_CHECK(output.NumDataDimensions() == n, f, "the output has ", output.NumDataDimensions(),
              " data dimensions and the input ", n);
  NERVA_CHECK(weights.NumWindowDimensions() == n, f, "the window has ",
              weights.NumWindowDimensions(), " dimensions and the input ", n);
  NERVA_CHECK(input.NumChannels() == weights.InChannels(), f, "the input has ", input.NumChannels(),
              " channels and the weights ", weights.InChannels());
  NERVA_CHECK(output.NumChannels() == weights.OutChannels(), f, "the output has ",
              output.NumChannels(), " channels and the weights ", weights.OutChannels());
  NERVA_CHECK(output.NumObservations() == input.NumObservations(), f, "the output has ",
              output.NumObservations(), " observations and the input ", input.NumObservations());
  NERVA_CHECK(padding_before != nullptr, f, "the padding is null");
  (void)input, (void)weights, (void)padding_before, (void)output, (void)f, (void)n;
}

// The taps along one dimension that read the input from window start p.
struct TapRange {
  long first, last;
  bool operator==(TapRange const& o) const { return first == o.first && last == o.last; }
};
TapRange taps_at(long p, long pad, long extent, long size) {
  long const first = std::max(0L, pad - p);
  return {first, std::max(first, std::min(extent, size + pad - p))};
}

// Cuts [0, count) of dimension 0 into runs of equal tap ranges, and each run
// into near-equal pieces of at most `most` positions; calls add(first, length, taps).
template <typename Add>
void runs_along_first(Geometry const& g, long most, Add&& add) {
  for (long j = 0; j < g.count[0];) {
    TapRange const taps = taps_at(g.first[0] + j * g.stride[0], g.pad[0], g.extent[0], g.size[0]);
    long end = j + 1;
    while (end < g.count[0] &&
           taps_at(g.first[0] + end * g.stride[0], g.pad[0], g.extent[0], g.size[0]) == taps)
      ++end;
    long const pieces = (end - j + most - 1) / most, piece = (end - j + pieces - 1) / pieces;
    for (long a = j; a < end; a += piece) add(a, std::min(piece, end - a), taps);
    j = end;
  }
}

void make_groups(Geometry& g) {
  long const C = g.C, K = g.K, N = g.N;
  auto start = [&](long j) { return (g.first[0] + j * g.stride[0] - g.pad[0]) * g.in_inc[0]; };
  if (g.stride[0] == 1 && g.in_inc[0] == N * C && g.out_inc[0] == N * K) {
    // Observations and positions of a run are evenly spaced columns.
    runs_along_first(g, std::max(1L, kMaxColumns / N), [&](long j, long len, TapRange t) {
      g.groups.push_back({start(j), j * g.out_inc[0], N * len, C, K, t.first, t.last});
    });
  } else if (N >= 8 || N >= g.count[0]) {
    // Strided: the observations of one position are the columns.
    runs_along_first(g, 1, [&](long j, long, TapRange t) {
      g.groups.push_back({start(j), j * g.out_inc[0], N, C, K, t.first, t.last});
    });
  } else {
    // Strided with few observations: the positions of one observation.
    for (long o = 0; o < N; ++o)
      runs_along_first(g, kMaxColumns, [&](long j, long len, TapRange t) {
        g.groups.push_back({start(j) + o * C, j * g.out_inc[0] + o * K, len,
                            g.stride[0] * g.in_inc[0], g.out_inc[0], t.first, t.last});
      });
  }
}

}  // namespace

template <typename T>
Geometry make_geometry(FormattedInputArray<T> const& input, ConvolutionWeights<T> const& weights,
                       size_t const* padding_before, FormattedOutputArray<T> const& output) {
  check_arrays(input, weights, padding_before, output);
  Geometry g;
  size_t const n = input.NumDataDimensions();
  g.n = n;
  g.C = long(input.NumChannels());
  g.K = long(output.NumChannels());
  g.N = long(input.NumObservations());

  std::vector<size_t> window(n), extents(n);
  std::vector<long> window_inc(n, 1);
  for (size_t d = 0; d < n; ++d) {
    window[d] = weights.WindowExtent(d);
    extents[d] = input.DataSize(d);
    if (d > 0) window_inc[d] = window_inc[d - 1] * long(window[d - 1]);
  }
  // The output's sampled range per dimension, as its descriptors report it.
  std::vector<size_t> firsts(n), lasts(n), strides(n, 1);
  if (output.IsStrided()) {
    auto const desc = output.StridedConvolutionDescriptorND(window.data(), window_inc.data(),
                                                            extents.data(), input.DataIncrements());
    std::copy_n(desc->firsts, n, firsts.begin());
    std::copy_n(desc->lasts, n, lasts.begin());
    std::copy_n(desc->strides, n, strides.begin());
  } else {
    auto const desc = output.ConvolutionDescriptorND(window.data(), window_inc.data(),
                                                     extents.data(), input.DataIncrements());
    std::copy_n(desc->firsts, n, firsts.begin());
    std::copy_n(desc->lasts, n, lasts.begin());
  }

  g.rows = 1;
  for (size_t d = 0; d < n; ++d) {
    long const count = firsts[d] < lasts[d] ? long((lasts[d] - 1 - firsts[d]) / strides[d] + 1) : 0;
    g.first.push_back(long(firsts[d]));
    g.stride.push_back(long(strides[d]));
    g.count.push_back(count);
    g.pad.push_back(long(padding_before[d]));
    g.extent.push_back(long(window[d]));
    g.size.push_back(long(extents[d]));
    g.in_inc.push_back(input.DataIncrement(d));
    g.out_inc.push_back(output.DataIncrement(d));
    if (d > 0) g.rows *= size_t(count);
  }

  g.block_channels = long(weights.BlockChannels());
  g.blocks = size_t((g.K + g.block_channels - 1) / g.block_channels);
  g.channel_block = std::max(1L, std::min<long>(g.C, kChannelBytes / long(sizeof(T))));
  g.batch_limit = std::clamp<long>(
      kWeightBytesPerCall / (g.block_channels * g.channel_block * long(sizeof(T))), 1, kMaxBatch);
  if (g.K > 0 && g.N > 0 && g.rows > 0 && g.count[0] > 0) make_groups(g);
  return g;
}

template <typename T>
void zero_border(FormattedOutputArray<T>& output, Geometry const& g) {
  T* const data = output.Data();
  if (data == nullptr) return;
  size_t const n = g.n;
  // The padding before the data region, per dimension, from the data
  // region's offset: a mixed-radix number in the layout's sizes.
  long const offset = long(output.UnpaddedData() - data);
  std::vector<long> pre(n), size(n), inc(n);
  bool padded = false;
  for (size_t d = 0; d < n; ++d) {
    size[d] = long(output.DataSize(d));
    inc[d] = output.DataIncrement(d);
    pre[d] = size[d] > 0 ? offset / inc[d] % size[d] : 0;
    padded = padded || size[d] != g.count[d];
  }
  if (!padded) return;
  long const line = size[0] * inc[0];  // one line along dimension 0, all channels and observations
  auto zero = [](T* p, long elements) {
    if (elements > 0) std::memset(p, 0, size_t(elements) * sizeof(T));
  };
  std::vector<long> index(n, 0);
  for (;;) {
    long at = 0;
    bool inside = true;
    for (size_t d = 1; d < n; ++d) {
      at += index[d] * inc[d];
      inside = inside && index[d] >= pre[d] && index[d] < pre[d] + g.count[d];
    }
    if (!inside) {
      zero(data + at, line);
    } else {
      zero(data + at, pre[0] * inc[0]);
      zero(data + at + (pre[0] + g.count[0]) * inc[0], line - (pre[0] + g.count[0]) * inc[0]);
    }
    size_t d = 1;
    while (d < n && ++index[d] == size[d]) index[d] = 0, ++d;
    if (d >= n) break;
  }
}

template Geometry make_geometry<float>(FormattedInputArray<float> const&,
                                       ConvolutionWeights<float> const&, size_t const*,
                                       FormattedOutputArray<float> const&);
template Geometry make_geometry<double>(FormattedInputArray<double> const&,
                                        ConvolutionWeights<double> const&, size_t const*,
                                        FormattedOutputArray<double> const&);
template void zero_border<float>(FormattedOutputArray<float>&, Geometry const&);
template void zero_border<double>(FormattedOutputArray<double>&, Geometry const&);

}  // namespace nerva::convolve_detail
