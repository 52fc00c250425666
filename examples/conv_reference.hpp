#pragma once

// Direct 2-D convolution in plain loops, accumulated in double, as the
// yardstick for the example's layers: any window, stride and zero padding,
// float or double elements. Inputs are in the host's KORVAL layout: element
// (x, y, c, n) of an array of extent W x H x C x N lies at
// x + W * (y + H * (c + C * n)). Weights are in the host's order K x C x R x S
// (window height R, width S, width fastest). Outputs are read through their
// element increments, so that a chained result can be checked where it lies.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace reference {

struct Shape {
  std::size_t w, h, c, n;
  std::size_t at(std::size_t x, std::size_t y, std::size_t c_, std::size_t n_) const {
    return x + w * (y + h * (c_ + c * n_));
  }
};

// Element increments of x, y, channel and observation.
struct Increments {
  long x, y, c, n;
  long at(std::size_t x_, std::size_t y_, std::size_t c_, std::size_t n_) const {
    return x * long(x_) + y * long(y_) + c * long(c_) + n * long(n_);
  }
};

// Window height r and width s; the same stride and zero padding (before and
// after) in both dimensions.
struct Window {
  std::size_t r, s, stride, padding;
  // Output positions along an input extent x: (x + 2P - R) / S + 1, none when
  // the window does not fit into the padded input.
  std::size_t outputs(std::size_t x, std::size_t extent) const {
    return x + 2 * padding < extent ? 0 : (x + 2 * padding - extent) / stride + 1;
  }
};

// Which outputs are compared: these observations, and of each the output
// rows (data rows, without the output's own border) listed, every channel
// and column. The output's border is always compared in full.
struct Sample {
  std::vector<std::size_t> observations, rows;
  bool all = false;  // every observation and row
};

// All outputs when the direct loop stays within `budget` multiply-adds, else
// the first and the last observation, and of those, when still too many, the
// first and the last two rows and rows evenly spaced between them.
inline Sample sample(std::size_t n, std::size_t rows, double macs_per_row, double budget) {
  Sample s;
  if (double(n) * double(rows) * macs_per_row <= budget) {
    s.all = true;
    return s;
  }
  s.observations = n > 1 ? std::vector<std::size_t>{0, n - 1} : std::vector<std::size_t>{0};
  double const fit = budget / (double(s.observations.size()) * macs_per_row);
  std::size_t const keep = std::max<std::size_t>(5, static_cast<std::size_t>(fit));
  std::size_t const step = keep >= rows ? 1 : rows / (keep - 4) + 1;
  for (std::size_t y = 0; y < rows; ++y)
    if (y < 2 || y + 2 >= rows || y % step == 0) s.rows.push_back(y);
  return s;
}

template <typename T>
std::vector<T> korval_copy(T const* data, Shape s, Increments inc) {
  std::vector<T> v(s.w * s.h * s.c * s.n);
  for (std::size_t n = 0; n < s.n; ++n)
    for (std::size_t c = 0; c < s.c; ++c)
      for (std::size_t y = 0; y < s.h; ++y)
        for (std::size_t x = 0; x < s.w; ++x) v[s.at(x, y, c, n)] = data[inc.at(x, y, c, n)];
  return v;
}

// {largest absolute error, largest absolute reference value} over the
// compared outputs.
struct Error {
  double abs = 0, scale = 0;
  void merge(Error const& e) { abs = std::max(abs, e.abs), scale = std::max(scale, e.scale); }
  bool within(double tolerance) const { return abs <= tolerance * scale; }
};

// Compares `out` (extents `so` including a border of `out_pad` on every side,
// increments `oi`) with the convolution of `in` (extents `si`) by `weights`
// (so.c x si.c x win.r x win.s): output data position (xo, yo) is the window
// at (xo, yo) * stride in the input padded by win.padding zeros, and the
// border must hold zeros. A NaN in the output counts as an infinite error.
template <typename T>
Error check(std::vector<T> const& in, Shape si, std::vector<T> const& weights, Window win,
            T const* out, Shape so, Increments oi, std::size_t out_pad, Sample const& sample) {
  Error e;
  std::size_t const wo = so.w - 2 * out_pad, ho = so.h - 2 * out_pad;
  std::vector<bool> row_checked(ho, sample.all);
  for (std::size_t y : sample.rows) row_checked[y] = true;
  std::vector<std::size_t> observations = sample.observations;
  if (sample.all)
    for (std::size_t n = 0; n < so.n; ++n) observations.push_back(n);
  auto compare = [&](double ref, T got) {
    double const err = std::fabs(ref - double(got));
    e.abs = std::isnan(err) ? HUGE_VAL : std::max(e.abs, err);
    e.scale = std::max(e.scale, std::fabs(ref));
  };
  long const P = long(win.padding), W = long(si.w), H = long(si.h);
  for (std::size_t n : observations)
    for (std::size_t k = 0; k < so.c; ++k)
      for (std::size_t yp = 0; yp < so.h; ++yp) {
        bool const border_row = yp < out_pad || yp >= out_pad + ho;
        if (!border_row && !row_checked[yp - out_pad]) continue;
        for (std::size_t xp = 0; xp < so.w; ++xp) {
          T const got = out[oi.at(xp, yp, k, n)];
          if (border_row || xp < out_pad || xp >= out_pad + wo) {
            compare(0.0, got);
            continue;
          }
          // The taps that read the input: [t0, t1) along each dimension.
          long const x0 = long((xp - out_pad) * win.stride) - P;
          long const y0 = long((yp - out_pad) * win.stride) - P;
          long const tx0 = std::max(0L, -x0), tx1 = std::min(long(win.s), W - x0);
          long const ty0 = std::max(0L, -y0), ty1 = std::min(long(win.r), H - y0);
          double ref = 0;
          for (std::size_t c = 0; c < si.c; ++c) {
            T const* const w = weights.data() + (k * si.c + c) * win.r * win.s;
            for (long ty = ty0; ty < ty1; ++ty)
              for (long tx = tx0; tx < tx1; ++tx)
                ref += double(w[std::size_t(ty) * win.s + std::size_t(tx)]) *
                       double(in[si.at(std::size_t(x0 + tx), std::size_t(y0 + ty), c, n)]);
          }
          compare(ref, got);
        }
      }
  return e;
}

}  // namespace reference
