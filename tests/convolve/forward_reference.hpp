#pragma once

// A forward-convolution case, run through nerva and checked against a direct
// loop over every output element, tap and input channel. Shared by the unit
// tests and the fuzz target.

#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <vector>

#include "nerva/convolve.hpp"

namespace conv_check {

using Sizes = std::vector<std::size_t>;

struct Case {
  std::size_t C = 1, K = 1, N = 1;
  Sizes size, window, pad;    // per data dimension: input size, window extent, padding before
  Sizes first, last, stride;  // the output's bounds
  Sizes out_pad;              // the output's own padding: n before, then n after
  bool strided = false;       // give the output its strides (else they must all be 1)
  bool zero_border = false;
};

// Runs `c` with values from `seed` and returns the number of elements that
// differ from the reference beyond rounding (NaN included), padding elements
// that ZeroBorder left non-zero or KeepBorder touched included.
template <typename T>
std::size_t mismatches(Case const& c, nerva::SharedMemoryPool& pool, unsigned seed) {
  std::size_t const n = c.size.size();
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> value(-1, 1);
  std::size_t taps = 1, in_total = c.C * c.N;
  for (std::size_t d = 0; d < n; ++d) taps *= c.window[d], in_total *= c.size[d];
  std::vector<T> in(in_total), host(c.K * c.C * taps);
  for (T& v : in) v = T(value(rng));
  for (T& v : host) v = T(value(rng));

  Sizes in_sizes{c.C, c.N};
  in_sizes.insert(in_sizes.end(), c.size.begin(), c.size.end());
  nerva::FormattedInputArray<T> input(pool, in.data(), in_sizes.data(), n + 2, n, 0, 1, nullptr);
  nerva::ConvolutionWeights<T> weights(pool, host.data(), c.K, c.C, n, c.window.data());
  nerva::FormattedOutputArray<T> output(pool, c.first.data(), c.last.data(),
                                        c.strided ? c.stride.data() : nullptr, n, c.K, c.N, 0, 1,
                                        c.out_pad.data(), nerva::Uninitialized);
  T const nan = std::numeric_limits<T>::quiet_NaN();
  T* const buffer = output.Data();
  std::size_t const total = output.TotalNumElem();
  for (std::size_t i = 0; i < total; ++i) buffer[i] = nan;
  nerva::convolution_forward(input, weights, c.pad.data(), output,
                             c.zero_border ? nerva::ZeroBorder : nerva::KeepBorder);

  Sizes count(n);
  std::size_t positions = 1;
  for (std::size_t d = 0; d < n; ++d) {
    count[d] = c.first[d] < c.last[d] ? (c.last[d] - 1 - c.first[d]) / c.stride[d] + 1 : 0;
    positions *= count[d];
  }
  double const eps = sizeof(T) == 4 ? 1e-5 : 1e-12;
  std::size_t bad = 0, region = 0;
  T const* const out = output.UnpaddedData();
  Sizes j(n, 0), t(n);
  for (std::size_t pos = 0; pos < positions; ++pos) {
    long out_at = 0;
    for (std::size_t d = 0; d < n; ++d) out_at += long(j[d]) * output.DataIncrement(d);
    for (std::size_t o = 0; o < c.N; ++o)
      for (std::size_t k = 0; k < c.K; ++k) {
        double sum = 0, magnitude = 0;
        for (std::size_t tap = 0; tap < taps; ++tap) {
          std::size_t rest = tap, in_at = 0, scale = c.C * c.N;
          bool inside = true;
          for (std::size_t d = 0; d < n; ++d) {
            t[d] = rest % c.window[d], rest /= c.window[d];
            long const q = long(c.first[d] + j[d] * c.stride[d] + t[d]) - long(c.pad[d]);
            inside = inside && q >= 0 && q < long(c.size[d]);
            in_at += std::size_t(q) * scale, scale *= c.size[d];
          }
          if (!inside) continue;
          for (std::size_t ch = 0; ch < c.C; ++ch) {
            double const term =
                double(host[(k * c.C + ch) * taps + tap]) * double(in[in_at + o * c.C + ch]);
            sum += term, magnitude += std::fabs(term);
          }
        }
        T const got = out[out_at + long(o * c.K + k)];
        bad += !(std::fabs(double(got) - sum) <= eps * magnitude + 1e-300);
        ++region;
      }
    for (std::size_t d = 0; d < n && ++j[d] == count[d]; ++d) j[d] = 0;
  }
  // What lies outside the data region: zeros, or untouched.
  std::size_t nan_count = 0, zeros = 0;
  for (std::size_t i = 0; i < total; ++i)
    nan_count += buffer[i] != buffer[i], zeros += buffer[i] == 0;
  std::size_t const border = total - region;
  if (c.zero_border)
    bad += nan_count;  // every border element was set to 0 (zeros may also be results)
  else
    bad += nan_count == border ? 0 : (nan_count > border ? nan_count - border : border - nan_count);
  (void)zeros;
  return bad;
}

// A random case of at most `work` multiply-adds, 1 to 3 data dimensions.
inline Case random_case(std::mt19937& rng, std::size_t work) {
  auto pick = [&](std::size_t lo, std::size_t hi) { return lo + rng() % (hi - lo + 1); };
  Case c;
  std::size_t const n = pick(1, 3);
  c.C = pick(1, 2) == 1 ? pick(1, 9) : pick(10, 70);
  c.K = pick(1, 3) == 1 ? pick(1, 7) : pick(8, 140);
  c.N = pick(1, 5);
  c.strided = pick(0, 1);
  c.zero_border = pick(0, 1);
  c.out_pad.assign(2 * n, 0);
  for (std::size_t d = 0; d < n; ++d) {
    c.window.push_back(pick(1, n == 3 ? 3 : 7));
    c.size.push_back(pick(1, n == 1 ? 40 : n == 2 ? 12 : 6));
    c.pad.push_back(pick(0, c.window[d] - 1));
    std::size_t const after = pick(0, c.window[d] - 1);
    c.stride.push_back(c.strided ? pick(1, 3) : 1);
    c.first.push_back(pick(0, 3) == 0 ? pick(1, 2) : 0);
    long const span = long(c.size[d] + c.pad[d] + after) - long(c.window[d]) + 1;
    c.last.push_back(std::size_t(std::max(0L, span)));
    c.out_pad[d] = pick(0, 2), c.out_pad[n + d] = pick(0, 2);
  }
  // Shrink the channels until the case fits the budget.
  auto cost = [&] {
    std::size_t w = c.C * c.K * c.N;
    for (std::size_t d = 0; d < n; ++d) w *= c.window[d] * c.size[d];
    return w;
  };
  while (cost() > work && (c.C > 1 || c.K > 1))
    (c.C > c.K ? c.C : c.K) = (c.C > c.K ? c.C : c.K) / 2;
  return c;
}

}  // namespace conv_check
