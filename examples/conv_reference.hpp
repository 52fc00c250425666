#pragma once

// Direct 3x3-window convolution in plain loops, accumulated in double, as the
// yardstick for the layer step. Inputs are in the host's KORVAL layout:
// element (x, y, c, n) of an array of extent W x H x C x N lies at
// x + W * (y + H * (c + C * n)). Outputs are read through their element
// increments, so that a chained result can be checked where it lies.

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

// Weights as the layer keeps them: (k, c, t) at k + K * (c + C * t), tap
// t = tx + 3 * ty.
struct Weights {
  std::vector<float> const& values;
  std::size_t k, c;
  float at(std::size_t k_, std::size_t c_, std::size_t t) const {
    return values[k_ + k * (c_ + c * t)];
  }
};

// The elements of `data` (extents `s`, increments `inc`) in KORVAL order.
inline std::vector<float> korval_copy(float const* data, Shape s, Increments inc) {
  std::vector<float> v(s.w * s.h * s.c * s.n);
  for (std::size_t n = 0; n < s.n; ++n)
    for (std::size_t c = 0; c < s.c; ++c)
      for (std::size_t y = 0; y < s.h; ++y)
        for (std::size_t x = 0; x < s.w; ++x) v[s.at(x, y, c, n)] = data[inc.at(x, y, c, n)];
  return v;
}

// Largest error of `out` against the direct convolution, for the observations
// in `batch` and every channel and position, borders included. Output
// position (xo, yo) centres the window on input position (pad_in + first +
// xo * stride) shifted by -1, outside the input counts as zero. `out_pad` is
// the zero border the output carries, which must stay zero. Returns
// {max abs error, max abs reference value}.
struct Error {
  double abs = 0, scale = 0;
  void merge(Error const& e) { abs = std::max(abs, e.abs), scale = std::max(scale, e.scale); }
};

inline Error check(std::vector<float> const& in, Shape si, Weights wt, float const* out, Shape so,
                   Increments oi, std::size_t out_pad, std::size_t first, std::size_t stride,
                   std::vector<std::size_t> const& batch) {
  Error e;
  std::size_t const wo = so.w - 2 * out_pad, ho = so.h - 2 * out_pad;
  for (std::size_t n : batch)
    for (std::size_t k = 0; k < so.c; ++k)
      for (std::size_t yp = 0; yp < so.h; ++yp)
        for (std::size_t xp = 0; xp < so.w; ++xp) {
          double ref = 0;
          bool const inside =
              xp >= out_pad && xp < out_pad + wo && yp >= out_pad && yp < out_pad + ho;
          if (inside) {
            long const cx = static_cast<long>(first + (xp - out_pad) * stride);
            long const cy = static_cast<long>(first + (yp - out_pad) * stride);
            for (std::size_t c = 0; c < si.c; ++c)
              for (long ty = 0; ty < 3; ++ty)
                for (long tx = 0; tx < 3; ++tx) {
                  long const x = cx + tx - 1, y = cy + ty - 1;
                  if (x < 0 || y < 0 || x >= static_cast<long>(si.w) ||
                      y >= static_cast<long>(si.h))
                    continue;
                  ref += double(wt.at(k, c, static_cast<std::size_t>(tx + 3 * ty))) *
                         in[si.at(static_cast<std::size_t>(x), static_cast<std::size_t>(y), c, n)];
                }
          }
          e.abs = std::max(e.abs, std::fabs(ref - double(out[oi.at(xp, yp, k, n)])));
          e.scale = std::max(e.scale, std::fabs(ref));
        }
  return e;
}

}  // namespace reference
