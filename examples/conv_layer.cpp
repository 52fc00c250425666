// Two 3x3 convolution layers run the way a runtime's layer step uses nerva:
// wrap the host's KORVAL input, reformat it to the chained layout, create the
// output from its data bounds, compute with tbb_gemm straight into the
// output's data region, bring the result back to KORVAL and hand the buffer
// on. Layer 1 (stride 1, zero padding 1) writes an output with a zero border
// of 1, which layer 2 (stride 2) reads as its padded input. The whole step is
// repeated with a counting host allocator to show the pool at work.
//
//   conv_layer [--batch N] [--channels C] [--size HxW] [--out K] [--steps S]

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "conv_reference.hpp"
#include "nerva/nerva.hpp"

namespace {

// --- host side: a counting allocator and the pool's error reporter ---------

struct HostCounters {
  std::size_t data_allocations = 0;  // requests the pool would keep (>= threshold)
  std::size_t data_bytes = 0;
};
HostCounters host;

void* host_allocate(std::size_t bytes) {
  if (bytes >= nerva::SharedMemoryPool::threshold) {
    ++host.data_allocations;
    host.data_bytes += bytes;
  }
  return std::malloc(bytes);
}
void host_deallocate(void* p) { std::free(p); }
void host_error(char const* message) { throw std::runtime_error(message); }

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Times of one layer, in seconds, and what the pool did for it.
struct LayerTimes {
  double reformat_in = 0, allocate = 0, compute = 0, gemm = 0, reformat_out = 0;
  double total() const { return reformat_in + allocate + compute + reformat_out; }
};

// Counts the leases of a call that lease only: a shrinking idle list is a
// reuse, a call of the host allocator a fresh allocation.
struct PoolWatch {
  nerva::SharedMemoryPool& pool;
  std::size_t reuses = 0;
  template <typename F>
  void operator()(F&& call) {
    std::size_t const idle = pool.blocks.size();
    call();
    if (pool.blocks.size() < idle) reuses += idle - pool.blocks.size();
  }
};

struct Shape {
  std::size_t n = 16, c = 64, h = 56, w = 56, k = 64;
};

// --- the layers --------------------------------------------------------------

long L(std::size_t v) { return static_cast<long>(v); }

// Layer 1: 3x3 window centred on each input position, zero padding 1, stride
// 1. In the chained layout (c, n, x, y) the columns (n, x) of one input row
// form a C-row matrix with leading dimension C, and those of one output row a
// K-row matrix with leading dimension K, so every (output row, tap) is one
// GEMM accumulating into the zero-filled output; the border taps only narrow
// the x range.
void layer1_compute(nerva::FormattedInputArray<float> const& in,
                    nerva::FormattedOutputArray<float>& out, std::vector<float> const& weights,
                    LayerTimes& t) {
  long const K = L(out.NumChannels()), C = L(in.NumChannels()), N = L(in.NumObservations());
  auto const dx = out.ConvolutionDescriptor(0, 3, K * C, in.DataSize(0), in.DataIncrement(0));
  auto const dy = out.ConvolutionDescriptor(1, 3, 3 * K * C, in.DataSize(1), in.DataIncrement(1));
  long const half_x = L(dx->windowExtent / 2), half_y = L(dy->windowExtent / 2);
  float const* const src = in.Data();
  float* const dst = out.UnpaddedData();
  char no = 'N';
  long m = K, k = C, lda = K, ldb = L(in.ObservationIncrement()),
       ldc = L(out.ObservationIncrement());
  for (long y = L(dy->first); y < L(dy->last); ++y) {
    for (long ty = 0; ty < L(dy->windowExtent); ++ty) {
      long const iy = y + ty - half_y;
      if (iy < 0 || iy >= L(dy->inputExtent)) continue;
      for (long tx = 0; tx < L(dx->windowExtent); ++tx) {
        long const x0 = std::max(L(dx->first), half_x - tx);
        long const x1 = std::min(L(dx->last), L(dx->inputExtent) + half_x - tx);
        if (x0 >= x1) continue;
        long n = N * (x1 - x0);
        float const* A = weights.data() + tx * dx->windowIncrement + ty * dy->windowIncrement;
        float const* B = src + (x0 + tx - half_x) * dx->inputIncrement + iy * dy->inputIncrement;
        float* Cp = dst + (x0 - L(dx->first)) * dx->outputIncrement +
                    (y - L(dy->first)) * dy->outputIncrement;
        auto const g0 = Clock::now();
        nerva::tbb_gemm<float>(&no, &no, &m, &n, &k, A, &lda, B, &ldb, Cp, &ldc, 1.0f, 1.0f);
        t.gemm += seconds_since(g0);
      }
    }
  }
}

// Layer 2: stride 2 over a padded input, window centred on the sampled
// positions. The input columns of one output row are not evenly spaced, so
// they are gathered (im2col) into a pooled buffer of 9C rows, one column per
// (n, x), and each output row is one GEMM with k = 9C.
void layer2_compute(nerva::FormattedInputArray<float> const& in,
                    nerva::FormattedOutputArray<float>& out, std::vector<float> const& weights,
                    PoolWatch& watch, LayerTimes& t) {
  long const K = L(out.NumChannels()), C = L(in.NumChannels()), N = L(in.NumObservations());
  auto const dx =
      out.StridedConvolutionDescriptor(0, 3, K * C, in.DataSize(0), in.DataIncrement(0));
  auto const dy =
      out.StridedConvolutionDescriptor(1, 3, 3 * K * C, in.DataSize(1), in.DataIncrement(1));
  long const ex = L(dx->windowExtent), ey = L(dy->windowExtent);
  long const taps = ex * ey, wo = L(out.DataSize(0));
  long const half_x = ex / 2, half_y = ey / 2;
  std::unique_ptr<nerva::CNNMemoryBlock> columns;
  watch(
      [&] { columns = out.Pool().lease_or_error(sizeof(float) * std::size_t(taps * C * N * wo)); });
  float* const gathered = static_cast<float*>(columns->data);
  float const* const src = in.Data();
  char no = 'N';
  long m = K, n = N * wo, k = taps * C, lda = K, ldb = k, ldc = L(out.ObservationIncrement());
  for (long y = L(dy->first); y < L(dy->last); y += L(dy->stride)) {
    // Column (i, xo) holds the taps of observation i under the window centred
    // on x = first + xo * stride, each tap a run of C channels.
    tbb::parallel_for(tbb::blocked_range<long>(0, wo), [&](tbb::blocked_range<long> const& r) {
      for (long xo = r.begin(); xo < r.end(); ++xo) {
        long const x = L(dx->first) + xo * L(dx->stride);
        float* col = gathered + xo * N * k;
        for (long i = 0; i < N; ++i)
          for (long ty = 0; ty < ey; ++ty)
            for (long tx = 0; tx < ex; ++tx, col += C)
              std::memcpy(col,
                          src + (x + tx - half_x) * dx->inputIncrement +
                              (y + ty - half_y) * dy->inputIncrement + i * C,
                          sizeof(float) * std::size_t(C));
      }
    });
    float* Cp = out.UnpaddedData() + (y - L(dy->first)) / L(dy->stride) * dy->outputIncrement;
    auto const g0 = Clock::now();
    nerva::tbb_gemm<float>(&no, &no, &m, &n, &k, weights.data(), &lda, gathered, &ldb, Cp, &ldc,
                           0.0f, 1.0f);
    t.gemm += seconds_since(g0);
  }
  out.Pool().checkin(std::move(columns));
}

struct StepResult {
  LayerTimes l1, l2;
  std::size_t reuses = 0;
};

// One layer step of both layers. `check` receives the KORVAL results of layer
// 1 and layer 2 before their buffers are given back.
template <typename Check>
StepResult run_step(nerva::SharedMemoryPool& pool, Shape const& s, std::vector<float> const& input,
                    std::vector<float> const& w1, std::vector<float> const& w2, Check&& check) {
  StepResult r;
  PoolWatch watch{pool};
  std::unique_ptr<nerva::CNNMemoryBlock> result1;
  nerva::FormattedArray const* result1_format = nullptr;

  // Layer 1: the host's KORVAL input, extents in layout order (x, y, c, n).
  size_t const in_sizes[] = {s.w, s.h, s.c, s.n};
  nerva::FormattedInputArray<float> in1(pool, input.data(), in_sizes, 4, 2, 2, 3, nullptr);
  auto t0 = Clock::now();
  watch([&] { in1.Reformat(nerva::ChainedFormat); });
  r.l1.reformat_in = seconds_since(t0);

  size_t const firsts1[] = {0, 0}, lasts1[] = {s.w, s.h}, padding1[] = {1, 1, 1, 1};
  t0 = Clock::now();
  std::unique_ptr<nerva::FormattedOutputArray<float>> out1;
  watch([&] {
    out1 = std::make_unique<nerva::FormattedOutputArray<float>>(
        pool, firsts1, lasts1, nullptr, 2, s.k, s.n, 0, 1, padding1, nerva::Zeros);
  });
  r.l1.allocate = seconds_since(t0);

  t0 = Clock::now();
  layer1_compute(in1, *out1, w1, r.l1);
  r.l1.compute = seconds_since(t0);

  t0 = Clock::now();
  watch([&] { out1->Reformat(nerva::KORVALFormat); });
  result1 = out1->Relinquish();
  r.l1.reformat_out = seconds_since(t0);
  result1_format = out1.get();
  check(1, static_cast<float const*>(result1->data), *result1_format);

  // Layer 2 takes over layer 1's result; its padded extents come with the layout.
  nerva::FormattedInputArray<float> in2(pool, std::move(result1), result1_format);
  out1.reset();  // its chained buffer goes back to the pool
  t0 = Clock::now();
  watch([&] { in2.Reformat(nerva::ChainedFormat); });
  r.l2.reformat_in = seconds_since(t0);

  // Window centres 1 .. W in the padded input, every second one.
  size_t const firsts2[] = {1, 1}, lasts2[] = {s.w + 1, s.h + 1}, strides2[] = {2, 2};
  t0 = Clock::now();
  nerva::FormattedOutputArray<float> out2(pool, firsts2, lasts2, strides2, 2, s.k, s.n, 0, 1,
                                          nullptr, nerva::Unallocated);
  // Every element is written by the GEMM (beta 0): the input's handed-over
  // buffer, no longer read, serves as the output without a lease or a fill.
  watch([&] { nerva::bypassPoolOrAllocate(&out2, &in2); });
  r.l2.allocate = seconds_since(t0);

  t0 = Clock::now();
  layer2_compute(in2, out2, w2, watch, r.l2);
  r.l2.compute = seconds_since(t0);

  t0 = Clock::now();
  watch([&] { out2.Reformat(nerva::KORVALFormat); });
  auto result2 = out2.Relinquish();
  r.l2.reformat_out = seconds_since(t0);
  check(2, static_cast<float const*>(result2->data), out2);
  pool.checkin(std::move(result2));  // the host is done with it
  r.reuses = watch.reuses;
  return r;
}

// --- command line, data, report ----------------------------------------------

bool parse(int argc, char** argv, Shape& s, int& steps) {
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    if (i + 1 >= argc) return false;
    char const* v = argv[++i];
    if (a == "--batch")
      s.n = std::strtoul(v, nullptr, 10);
    else if (a == "--channels")
      s.c = std::strtoul(v, nullptr, 10);
    else if (a == "--out")
      s.k = std::strtoul(v, nullptr, 10);
    else if (a == "--steps")
      steps = std::atoi(v);
    else if (a == "--size") {
      if (std::sscanf(v, "%zux%zu", &s.h, &s.w) != 2) return false;
    } else
      return false;
  }
  return s.n > 0 && s.c > 0 && s.k > 0 && s.h >= 2 && s.w >= 2 && steps > 0;
}

std::vector<float> random_values(std::size_t count, float scale, unsigned seed) {
  std::vector<float> v(count);
  for (float& e : v) {
    seed = seed * 1664525u + 1013904223u;
    e = scale * static_cast<float>((seed >> 8) * (2.0 / 16777216.0) - 1.0);
  }
  return v;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0.0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  Shape s;
  int steps = 10;
  if (!parse(argc, argv, s, steps)) {
    std::fprintf(stderr,
                 "usage: %s [--batch N] [--channels C] [--size HxW] [--out K] [--steps S]\n",
                 argv[0]);
    return 2;
  }
  std::size_t const ho = (s.h - 1) / 2 + 1, wo = (s.w - 1) / 2 + 1;
  double const flops1 = 2.0 * 9 * double(s.c) * double(s.k) * double(s.n * s.h * s.w);
  double const flops2 = 2.0 * 9 * double(s.k) * double(s.k) * double(s.n * ho * wo);
  std::printf("layer 1: %zu x %zu x %zu ch x batch %zu -> %zu ch, 3x3, stride 1, padding 1\n", s.h,
              s.w, s.c, s.n, s.k);
  std::printf("layer 2: %zu x %zu x %zu ch -> %zu x %zu x %zu ch, 3x3, stride 2, padding 1\n", s.h,
              s.w, s.k, ho, wo, s.k);

  std::vector<float> const input = random_values(s.n * s.c * s.h * s.w, 1.0f, 1);
  std::vector<float> const w1 = random_values(9 * s.c * s.k, 1.0f / std::sqrt(float(3 * s.c)), 2);
  std::vector<float> const w2 = random_values(9 * s.k * s.k, 1.0f / std::sqrt(float(3 * s.k)), 3);

  // The error check runs on the first step, on the first and the last observation.
  std::vector<std::size_t> const batch =
      s.n > 1 ? std::vector<std::size_t>{0, s.n - 1} : std::vector<std::size_t>{0};
  std::vector<float> result1_copy;
  reference::Error err1, err2;
  bool checking = true;
  auto check = [&](int layer, float const* data, nerva::FormattedArray const& f) {
    if (!checking) return;
    reference::Shape const so{f.DataSize(0), f.DataSize(1), f.NumChannels(), f.NumObservations()};
    if (layer == 1) {
      result1_copy.assign(data, data + f.TotalNumElem());
      err1 =
          reference::check(input, {s.w, s.h, s.c, s.n}, {w1, s.k, s.c}, data, so, 1, 0, 1, batch);
    } else {
      err2 = reference::check(result1_copy, {s.w + 2, s.h + 2, s.k, s.n}, {w2, s.k, s.k}, data, so,
                              0, 1, 2, batch);
    }
  };

  nerva::SharedMemoryPool pool({&host_allocate, &host_deallocate}, &host_error);
  std::vector<StepResult> results;
  std::printf("\n%-5s %10s %12s %17s %7s %11s %14s\n", "step", "step ms", "GEMM share",
              "fresh allocations", "reuses", "idle blocks", "idle bytes");
  for (int step = 1; step <= steps; ++step) {
    host = HostCounters{};
    StepResult r = run_step(pool, s, input, w1, w2, check);
    double const step_seconds = r.l1.total() + r.l2.total();
    checking = false;
    std::size_t idle_bytes = 0;
    for (auto const& b : pool.blocks) idle_bytes += b->allocated_size();
    std::printf("%-5d %10.2f %11.1f%% %17zu %7zu %11zu %14zu\n", step, 1e3 * step_seconds,
                100.0 * (r.l1.gemm + r.l2.gemm) / (r.l1.total() + r.l2.total()),
                host.data_allocations, r.reuses, pool.blocks.size(), idle_bytes);
    results.push_back(r);
  }

  // Medians over the steps that run on a warm pool (all steps if there is one).
  auto stage = [&](double LayerTimes::*field, int layer) {
    std::vector<double> v;
    for (std::size_t i = results.size() > 1 ? 1 : 0; i < results.size(); ++i)
      v.push_back((layer == 1 ? results[i].l1 : results[i].l2).*field);
    return median(v);
  };
  std::printf("\nmedian of steps %d..%d, ms   %10s %10s %10s\n", results.size() > 1 ? 2 : 1, steps,
              "layer 1", "layer 2", "both");
  struct Row {
    char const* name;
    double LayerTimes::*field;
  };
  Row const rows[] = {{"reformat in (KORVAL>chained)", &LayerTimes::reformat_in},
                      {"allocate (lease, zero fill)", &LayerTimes::allocate},
                      {"compute", &LayerTimes::compute},
                      {"  of which inside tbb_gemm", &LayerTimes::gemm},
                      {"reformat out (chained>KORVAL)", &LayerTimes::reformat_out}};
  double total1 = 0, total2 = 0;
  for (Row const& row : rows) {
    double const a = stage(row.field, 1), b = stage(row.field, 2);
    if (row.field != &LayerTimes::gemm) total1 += a, total2 += b;
    std::printf("%-31s %10.2f %10.2f %10.2f\n", row.name, 1e3 * a, 1e3 * b, 1e3 * (a + b));
  }
  std::printf("%-31s %10.2f %10.2f %10.2f\n", "layer step", 1e3 * total1, 1e3 * total2,
              1e3 * (total1 + total2));
  double const c1 = stage(&LayerTimes::compute, 1), c2 = stage(&LayerTimes::compute, 2);
  double const g1 = stage(&LayerTimes::gemm, 1), g2 = stage(&LayerTimes::gemm, 2);
  std::printf("%-31s %10.1f %10.1f %10.1f\n", "compute GFLOP/s", flops1 / c1 * 1e-9,
              flops2 / c2 * 1e-9, (flops1 + flops2) / (c1 + c2) * 1e-9);
  std::printf("%-31s %9.1f%% %9.1f%% %9.1f%%\n", "share outside the GEMM",
              100.0 * (1 - g1 / total1), 100.0 * (1 - g2 / total2),
              100.0 * (1 - (g1 + g2) / (total1 + total2)));

  double const tolerance = 1e-5;
  double const rel1 = err1.abs / std::max(err1.scale, 1e-30);
  double const rel2 = err2.abs / std::max(err2.scale, 1e-30);
  std::printf("\nlargest error against a direct convolution (step 1, observations");
  for (std::size_t n : batch) std::printf(" %zu", n);
  std::printf(", all channels and positions):\n");
  std::printf("  layer 1: %.3g (%.3g of the largest value %.3g)\n", err1.abs, rel1, err1.scale);
  std::printf("  layer 2: %.3g (%.3g of the largest value %.3g)\n", err2.abs, rel2, err2.scale);
  bool const ok = rel1 <= tolerance && rel2 <= tolerance;
  std::printf("  %s (tolerance %.0e of the largest value)\n", ok ? "OK" : "FAILED", tolerance);
  return ok ? 0 : 1;
}
