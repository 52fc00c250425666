// Convolution layers run the way a runtime's layer step uses nerva: wrap the
// host's KORVAL input and reformat it to the chained layout, create the
// output from its data bounds, let nerva::convolution_forward fill its data
// region and give the host its result back in KORVAL. The weights are packed
// once, before the steps.
//
// By default two 3x3 layers: layer 1 (stride 1, zero padding 1) writes a
// chained output with a zero border of 1, which layer 2 (stride 2) takes over
// as its padded input as it is, so the host's layout is met only at the two
// ends of the step. The step is repeated with a counting host allocator to
// show the pool at work, at one thread and at all cores.
//
//   conv_layer [--batch N] [--channels C] [--size HxW] [--out K] [--steps T]
//              [--threads T]
//
// With --one, a single layer of any window (height R by width S), stride and
// zero padding (the same in both dimensions), in float or double; it prints
// a row "one layer <median ms> ms ..." and exits with 1 when the result
// differs from the direct convolution.
//
//   conv_layer --one [--batch N] [--channels C] [--size HxW] [--out K]
//              [--window RxS] [--stride S] [--padding P] [--steps T]
//              [--threads T] [--double]

#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/task_arena.h>

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

// Data buffers come dirty, as a host's recycled memory would (large finite
// values, not the zero pages of a fresh mapping), so that an element the
// layers leave unwritten shows in the error check.
void* host_allocate(std::size_t bytes) {
  void* p = std::malloc(bytes);
  if (bytes >= nerva::SharedMemoryPool::threshold) {
    ++host.data_allocations;
    host.data_bytes += bytes;
    if (p) std::memset(p, 0x7f, bytes);
  }
  return p;
}
void host_deallocate(void* p) { std::free(p); }
void host_error(char const* message) { throw std::runtime_error(message); }

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Times of one layer's stages, in seconds.
struct LayerTimes {
  double reformat_in = 0, allocate = 0, convolve = 0, reformat_out = 0;
  double total() const { return reformat_in + allocate + convolve + reformat_out; }
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

// Checks a handed-out block in. An array may have none to hand out: a
// reformat that finds the elements in place (all extents 1) leases nothing,
// and an empty output has no buffer.
void give_back(nerva::SharedMemoryPool& pool, std::unique_ptr<nerva::CNNMemoryBlock> block) {
  if (block) pool.checkin(std::move(block));
}

std::size_t idle_bytes(nerva::SharedMemoryPool const& pool) {
  std::size_t bytes = 0;
  for (auto const& b : pool.blocks) bytes += b->allocated_size();
  return bytes;
}

struct Options {
  std::size_t n = 16, c = 64, h = 56, w = 56, k = 64;
  std::size_t r = 3, s = 3, stride = 1, padding = 1;  // the layer of --one
  int steps = 10, threads = 0;                        // threads 0: one and all cores
  bool one = false, wide = false;
};

template <typename T>
std::vector<T> random_values(std::size_t count, double scale, unsigned seed) {
  std::vector<T> v(count);
  for (T& e : v) {
    seed = seed * 1664525u + 1013904223u;
    e = static_cast<T>(scale * ((seed >> 8) * (2.0 / 16777216.0) - 1.0));
  }
  return v;
}

double median(std::vector<double> v) {
  if (v.empty()) return 0.0;
  std::sort(v.begin(), v.end());
  std::size_t const m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

reference::Increments increments(nerva::FormattedArray const& f) {
  return {f.DataIncrement(0), f.DataIncrement(1), static_cast<long>(f.ChannelIncrement()),
          static_cast<long>(f.ObservationIncrement())};
}

// Multiply-adds of the direct loop per output row, for choosing what it checks.
constexpr double kCheckBudget = 2.5e8;
double macs_per_row(std::size_t row_width, std::size_t k, std::size_t c, std::size_t taps) {
  return double(row_width) * double(k) * double(c) * double(taps);
}

// --- the default: a step of two layers ---------------------------------------

struct StepResult {
  LayerTimes l1, l2;
  std::size_t reuses = 0;
};

// One layer step of both layers. `check` receives layer 1's chained result
// and layer 2's KORVAL result before they are handed on.
template <typename Check>
StepResult run_step(nerva::SharedMemoryPool& pool, Options const& s,
                    std::vector<float> const& input, nerva::ConvolutionWeights<float> const& w1,
                    nerva::ConvolutionWeights<float> const& w2, Check&& check) {
  StepResult r;
  PoolWatch watch{pool};

  // Layer 1: the host's KORVAL input, extents in layout order (x, y, c, n),
  // moved to the chained layout by the parallel permutation.
  size_t const in_sizes[] = {s.w, s.h, s.c, s.n};
  nerva::FormattedInputArray<float> in1(pool, input.data(), in_sizes, 4, 2, 2, 3, nullptr);
  auto t0 = Clock::now();
  watch([&] { in1.Reformat(nerva::ChainedFormat, nerva::Parallel); });
  r.l1.reformat_in = seconds_since(t0);

  // A chained output (c, n, x, y): window starts 0 .. W - 1 in the input
  // padded by 1 (last = W + 2 - 3 + 1), with a border of 1 for layer 2 that
  // the convolution sets to zero, so the buffer needs no fill.
  size_t const firsts1[] = {0, 0}, lasts1[] = {s.w, s.h}, border1[] = {1, 1, 1, 1};
  t0 = Clock::now();
  std::unique_ptr<nerva::FormattedOutputArray<float>> out1;
  watch([&] {
    out1 = std::make_unique<nerva::FormattedOutputArray<float>>(
        pool, firsts1, lasts1, nullptr, 2, s.k, s.n, 0, 1, border1, nerva::Uninitialized);
  });
  r.l1.allocate = seconds_since(t0);

  size_t const padding1[] = {1, 1};
  t0 = Clock::now();
  nerva::convolution_forward(in1, w1, padding1, *out1, nerva::ZeroBorder);
  r.l1.convolve = seconds_since(t0);
  check(1, out1->Data(), *out1);
  give_back(pool, in1.Relinquish());  // the chained input copy is done with

  // Layer 2 takes layer 1's buffer over in the chained layout, padded
  // extents included: no element moves between the layers.
  nerva::FormattedInputArray<float> in2(pool, out1->Relinquish(), out1.get());

  // Stride 2 over the padded extents W + 2 and H + 2, whose border is already
  // there: padding 0, window starts 0, 2, ... below W + 2 - 3 + 1. The input
  // still reads the handed-over buffer, so the output leases its own.
  size_t const firsts2[] = {0, 0}, lasts2[] = {s.w, s.h}, strides2[] = {2, 2};
  t0 = Clock::now();
  std::unique_ptr<nerva::FormattedOutputArray<float>> out2;
  watch([&] {
    out2 = std::make_unique<nerva::FormattedOutputArray<float>>(
        pool, firsts2, lasts2, strides2, 2, s.k, s.n, 0, 1, nullptr, nerva::Uninitialized);
  });
  r.l2.allocate = seconds_since(t0);

  size_t const padding2[] = {0, 0};
  t0 = Clock::now();
  nerva::convolution_forward(in2, w2, padding2, *out2);
  r.l2.convolve = seconds_since(t0);

  t0 = Clock::now();
  watch([&] { out2->Reformat(nerva::KORVALFormat, nerva::Parallel); });
  auto result = out2->Relinquish();
  r.l2.reformat_out = seconds_since(t0);
  check(2, static_cast<float const*>(result->data), *out2);
  give_back(pool, std::move(result));  // the host is done with it
  r.reuses = watch.reuses;
  return r;
}

int run_two_layers(Options const& s) {
  // One thread and then all cores, or the given count alone.
  int const cores = tbb::this_task_arena::max_concurrency();
  std::vector<int> counts;
  if (s.threads > 0)
    counts = {s.threads};
  else if (cores > 1)
    counts = {1, cores};
  else
    counts = {1};
  std::size_t const runs = counts.size();
  auto in_use = [&](std::size_t c) { return std::min(counts[c], cores); };

  std::size_t const ho = (s.h - 1) / 2 + 1, wo = (s.w - 1) / 2 + 1;
  double const flops1 = 2.0 * 9 * double(s.c) * double(s.k) * double(s.n * s.h * s.w);
  double const flops2 = 2.0 * 9 * double(s.k) * double(s.k) * double(s.n * ho * wo);
  std::printf("layer 1: %zu x %zu x %zu ch x batch %zu -> %zu ch, 3x3, stride 1, padding 1\n", s.h,
              s.w, s.c, s.n, s.k);
  std::printf("layer 2: %zu x %zu x %zu ch -> %zu x %zu x %zu ch, 3x3, stride 2, padding 1\n", s.h,
              s.w, s.k, ho, wo, s.k);

  std::vector<float> const input = random_values<float>(s.n * s.c * s.h * s.w, 1.0, 1);
  std::vector<float> const w1 = random_values<float>(9 * s.k * s.c, 1.0 / std::sqrt(3.0 * s.c), 2);
  std::vector<float> const w2 = random_values<float>(9 * s.k * s.k, 1.0 / std::sqrt(3.0 * s.k), 3);

  // The error check runs on the first step of every thread count: on every
  // output when that is cheap, else on the first and the last observation.
  reference::Window const win1{3, 3, 1, 1}, win2{3, 3, 2, 0};
  reference::Sample const sample1 =
      reference::sample(s.n, s.h, macs_per_row(s.w, s.k, s.c, 9), kCheckBudget);
  reference::Sample const sample2 =
      reference::sample(s.n, ho, macs_per_row(wo, s.k, s.k, 9), kCheckBudget);
  std::vector<float> result1;
  reference::Error err1, err2;
  bool checking = true;
  auto check = [&](int layer, float const* data, nerva::FormattedArray const& f) {
    if (!checking) return;
    reference::Shape const so{f.DataSize(0), f.DataSize(1), f.NumChannels(), f.NumObservations()};
    if (layer == 1) {
      result1 = reference::korval_copy(data, so, increments(f));
      err1.merge(reference::check(input, {s.w, s.h, s.c, s.n}, w1, win1, data, so, increments(f), 1,
                                  sample1));
    } else {
      err2.merge(reference::check(result1, {s.w + 2, s.h + 2, s.k, s.n}, w2, win2, data, so,
                                  increments(f), 0, sample2));
    }
  };

  nerva::SharedMemoryPool pool({&host_allocate, &host_deallocate}, &host_error);
  // The weights in the host's order K x C x 3 x 3, packed once for all steps;
  // the extents are in data-dimension order (width, height).
  std::size_t const window[] = {3, 3};
  nerva::ConvolutionWeights<float> const packed1(pool, w1.data(), s.k, s.c, 2, window);
  nerva::ConvolutionWeights<float> const packed2(pool, w2.data(), s.k, s.k, 2, window);
  std::printf("weights packed once, held through all steps: 2 blocks of %zu and %zu bytes\n",
              sizeof(float) * 9 * s.k * s.c, sizeof(float) * 9 * s.k * s.k);

  std::vector<std::vector<StepResult>> results(runs);
  std::printf("\n%-5s", "step");
  for (std::size_t c = 0; c < runs; ++c)
    std::printf(
        " %14s",
        (std::to_string(counts[c]) + (counts[c] > 1 ? " threads" : " thread") + ", ms").c_str());
  std::printf(" %11s %17s %7s %11s %14s\n", "conv share", "fresh allocations", "reuses",
              "idle blocks", "idle bytes");
  // All steps at one thread count, then all at the next. Taking turns step
  // by step left the TBB worker idle through every one-thread step, and on a
  // shared machine its core then often came back too late for the next
  // all-core step (up to half of them ran at one-thread speed).
  struct PoolState {
    std::size_t fresh, reuses, idle_blocks, idle_bytes;
  };
  std::vector<std::vector<PoolState>> after(runs);
  for (std::size_t c = 0; c < runs; ++c) {
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, std::size_t(counts[c]));
    for (int step = 1; step <= s.steps; ++step) {
      host = HostCounters{};
      checking = step == 1;
      results[c].push_back(run_step(pool, s, input, packed1, packed2, check));
      after[c].push_back(
          {host.data_allocations, results[c].back().reuses, pool.blocks.size(), idle_bytes(pool)});
    }
  }
  for (std::size_t i = 0; i < std::size_t(s.steps); ++i) {
    std::size_t fresh = 0, reuses = 0;
    std::printf("%-5zu", i + 1);
    for (std::size_t c = 0; c < runs; ++c) {
      StepResult const& r = results[c][i];
      std::printf(" %14.2f", 1e3 * (r.l1.total() + r.l2.total()));
      fresh += after[c][i].fresh;
      reuses += after[c][i].reuses;
    }
    StepResult const& last = results.back()[i];
    std::printf(" %10.1f%% %17zu %7zu %11zu %14zu\n",
                100.0 * (last.l1.convolve + last.l2.convolve) / (last.l1.total() + last.l2.total()),
                fresh, reuses, after.back()[i].idle_blocks, after.back()[i].idle_bytes);
  }

  // Medians over the steps that run on a warm pool (all steps if there is one).
  auto stage = [&](std::size_t c, double LayerTimes::*field, int layer) {
    std::vector<double> v;
    for (std::size_t i = results[c].size() > 1 ? 1 : 0; i < results[c].size(); ++i)
      v.push_back((layer == 1 ? results[c][i].l1 : results[c][i].l2).*field);
    return median(v);
  };
  struct Row {
    char const* name;
    double LayerTimes::*field;
  };
  Row const rows[] = {{"reformat in (KORVAL>chained)", &LayerTimes::reformat_in},
                      {"allocate (lease)", &LayerTimes::allocate},
                      {"convolution_forward", &LayerTimes::convolve},
                      {"reformat out (chained>KORVAL)", &LayerTimes::reformat_out}};
  // The step of one layer: the sum of its stages' medians.
  auto layer_step = [&](std::size_t c, int layer) {
    double sum = 0;
    for (Row const& row : rows) sum += stage(c, row.field, layer);
    return sum;
  };
  auto print = [](std::string const& name, double a, double b, double both, bool percent) {
    if (percent)
      std::printf("%-33s %9.1f%% %9.1f%% %9.1f%%\n", name.c_str(), a, b, both);
    else
      std::printf("%-33s %10.2f %10.2f %10.2f\n", name.c_str(), a, b, both);
  };
  std::string const medians = std::string("median of steps ") +
                              (results[0].size() > 1 ? "2.." : "1..") + std::to_string(s.steps);
  auto threads_name = [&](std::size_t c) {
    return std::to_string(counts[c]) + (counts[c] > 1 ? " threads" : " thread");
  };

  // One thread against all cores: speedup S on P threads and the serial
  // fraction it implies, f = (1/S - 1/P) / (1 - 1/P).
  if (runs == 2) {
    double const p = in_use(1);
    std::printf("\n%-33s %10s %10s %10s\n", (medians + ", ms").c_str(), "layer 1", "layer 2",
                "both");
    double t[2][3];
    for (std::size_t c = 0; c < runs; ++c) {
      t[c][0] = layer_step(c, 1), t[c][1] = layer_step(c, 2), t[c][2] = t[c][0] + t[c][1];
      print(threads_name(c), 1e3 * t[c][0], 1e3 * t[c][1], 1e3 * t[c][2], false);
    }
    double speedup[3], serial[3];
    for (int l = 0; l < 3; ++l) {
      speedup[l] = t[0][l] / t[1][l];
      serial[l] = 100 * (1 / speedup[l] - 1 / p) / (1 - 1 / p);
    }
    print("speedup 1 -> " + std::to_string(counts[1]), speedup[0], speedup[1], speedup[2], false);
    print("serial fraction (Amdahl)", serial[0], serial[1], serial[2], true);
  }

  // The stages on all cores (or the given thread count).
  std::size_t const c = runs - 1;
  std::printf("\n%-33s %10s %10s %10s\n", (medians + ", " + threads_name(c) + ", ms").c_str(),
              "layer 1", "layer 2", "both");
  for (Row const& row : rows) {
    double const a = stage(c, row.field, 1), b = stage(c, row.field, 2);
    print(row.name, 1e3 * a, 1e3 * b, 1e3 * (a + b), false);
  }
  double const total1 = layer_step(c, 1), total2 = layer_step(c, 2);
  print("layer step", 1e3 * total1, 1e3 * total2, 1e3 * (total1 + total2), false);
  double const c1 = stage(c, &LayerTimes::convolve, 1), c2 = stage(c, &LayerTimes::convolve, 2);
  print("convolution GFLOP/s", flops1 / c1 * 1e-9, flops2 / c2 * 1e-9,
        (flops1 + flops2) / (c1 + c2) * 1e-9, false);
  print("share outside the convolution", 100.0 * (1 - c1 / total1), 100.0 * (1 - c2 / total2),
        100.0 * (1 - (c1 + c2) / (total1 + total2)), true);

  double const tolerance = 1e-5;
  std::printf("\nlargest error against a direct convolution (step 1 at every thread count, %s):\n",
              sample1.all ? "every output" : "observations 0 and N - 1");
  std::printf("  layer 1: %.3g (%.3g of the largest value %.3g)\n", err1.abs,
              err1.abs / std::max(err1.scale, 1e-30), err1.scale);
  std::printf("  layer 2: %.3g (%.3g of the largest value %.3g)\n", err2.abs,
              err2.abs / std::max(err2.scale, 1e-30), err2.scale);
  bool const ok = err1.within(tolerance) && err2.within(tolerance);
  std::printf("  %s (tolerance %.0e of the largest value)\n", ok ? "OK" : "FAILED", tolerance);
  return ok ? 0 : 1;
}

// --- --one: a single layer of any shape ----------------------------------------

// The exclusive end of the window starts along an input extent x with padding
// p on both sides: x + 2p - extent + 1, or 0 (no output) when the window does
// not fit.
std::size_t window_last(std::size_t x, std::size_t p, std::size_t extent) {
  return x + 2 * p < extent ? 0 : x + 2 * p - extent + 1;
}

template <typename T>
int run_one_layer(Options const& o) {
  reference::Window const win{o.r, o.s, o.stride, o.padding};
  std::size_t const ho = win.outputs(o.h, o.r), wo = win.outputs(o.w, o.s);
  int const threads = o.threads > 0 ? o.threads : tbb::this_task_arena::max_concurrency();
  std::printf(
      "layer: batch %zu, %zu x %zu x %zu ch -> %zu x %zu x %zu ch, window %zux%zu, stride %zu, "
      "padding %zu, %s, %d thread%s\n",
      o.n, o.h, o.w, o.c, ho, wo, o.k, o.r, o.s, o.stride, o.padding,
      sizeof(T) == 4 ? "float" : "double", threads, threads > 1 ? "s" : "");
  if (ho == 0 || wo == 0)
    std::printf("the window is larger than the padded input: the output is empty\n");

  std::vector<T> const input = random_values<T>(o.n * o.c * o.h * o.w, 1.0, 1);
  std::vector<T> const weights =
      random_values<T>(o.k * o.c * o.r * o.s, 1.0 / std::sqrt(double(o.c * o.r * o.s)), 2);
  reference::Sample const sample =
      reference::sample(o.n, ho, macs_per_row(wo, o.k, o.c, o.r * o.s), kCheckBudget);
  reference::Error err;

  tbb::global_control limit(tbb::global_control::max_allowed_parallelism, std::size_t(threads));
  nerva::SharedMemoryPool pool({&host_allocate, &host_deallocate}, &host_error);
  std::size_t const window[] = {o.s, o.r};  // data-dimension order: width, height
  nerva::ConvolutionWeights<T> const packed(pool, weights.data(), o.k, o.c, 2, window);

  size_t const in_sizes[] = {o.w, o.h, o.c, o.n};
  size_t const firsts[] = {0, 0};
  size_t const lasts[] = {window_last(o.w, o.padding, o.s), window_last(o.h, o.padding, o.r)};
  size_t const strides[] = {o.stride, o.stride}, padding[] = {o.padding, o.padding};
  std::vector<LayerTimes> times;
  std::vector<double> totals;
  std::size_t fresh_first = 0, reuses_first = 0, fresh_later = 0, reuses_later = 0;
  for (int step = 1; step <= o.steps; ++step) {
    host = HostCounters{};
    PoolWatch watch{pool};
    LayerTimes t;
    auto const start = Clock::now();
    nerva::FormattedInputArray<T> in(pool, input.data(), in_sizes, 4, 2, 2, 3, nullptr);
    auto t0 = Clock::now();
    watch([&] { in.Reformat(nerva::ChainedFormat, nerva::Parallel); });
    t.reformat_in = seconds_since(t0);

    t0 = Clock::now();
    std::unique_ptr<nerva::FormattedOutputArray<T>> out;
    watch([&] {
      out = std::make_unique<nerva::FormattedOutputArray<T>>(
          pool, firsts, lasts, strides, 2, o.k, o.n, 0, 1, nullptr, nerva::Uninitialized);
    });
    t.allocate = seconds_since(t0);

    t0 = Clock::now();
    nerva::convolution_forward(in, packed, padding, *out);
    t.convolve = seconds_since(t0);

    t0 = Clock::now();
    watch([&] { out->Reformat(nerva::KORVALFormat, nerva::Parallel); });
    auto result = out->Relinquish();
    t.reformat_out = seconds_since(t0);
    totals.push_back(seconds_since(start));
    times.push_back(t);

    if (step == 1) {
      reference::Shape const so{out->DataSize(0), out->DataSize(1), o.k, o.n};
      T const* const data = result ? static_cast<T const*>(result->data) : nullptr;
      err = reference::check(input, {o.w, o.h, o.c, o.n}, weights, win, data, so, increments(*out),
                             0, sample);
    }
    give_back(pool, std::move(result));  // the host is done with it
    (step == 1 ? fresh_first : fresh_later) += host.data_allocations;
    (step == 1 ? reuses_first : reuses_later) += watch.reuses;
  }

  // Medians over the steps after the first (all steps if there is one).
  std::size_t const skip = times.size() > 1 ? 1 : 0;
  auto stage = [&](double LayerTimes::*field) {
    std::vector<double> v;
    for (std::size_t i = skip; i < times.size(); ++i) v.push_back(times[i].*field);
    return 1e3 * median(v);
  };
  std::string const medians =
      "median of steps " + std::string(skip ? "2.." : "1..") + std::to_string(o.steps);
  double const flops = 2.0 * double(o.k * o.c * o.r * o.s) * double(o.n * ho * wo);
  double const convolve = stage(&LayerTimes::convolve);
  std::printf("pool: step 1 %zu fresh allocations, %zu reuses", fresh_first, reuses_first);
  if (skip)
    std::printf("; steps 2..%d %zu fresh allocations, %zu reuses", o.steps, fresh_later,
                reuses_later);
  std::printf(
      "\n%s, ms: reformat in %.3f, allocate %.3f, convolution_forward %.3f "
      "(%.1f GFLOP/s), reformat out %.3f\n",
      medians.c_str(), stage(&LayerTimes::reformat_in), stage(&LayerTimes::allocate), convolve,
      convolve > 0 ? flops / convolve * 1e-6 : 0.0, stage(&LayerTimes::reformat_out));

  double const tolerance = sizeof(T) == 4 ? 1e-5 : 1e-12;
  bool const ok = err.within(tolerance);
  std::printf(
      "largest error against a direct convolution (%s): %.3g (%.3g of the largest value "
      "%.3g): %s (tolerance %.0e)\n",
      sample.all ? "every output" : "a sample of observations and rows", err.abs,
      err.abs / std::max(err.scale, 1e-300), err.scale, ok ? "OK" : "FAILED", tolerance);
  std::vector<double> const later(totals.begin() + long(skip), totals.end());
  std::printf("one layer %.3f ms (%s, %d thread%s)\n", 1e3 * median(later), medians.c_str(),
              threads, threads > 1 ? "s" : "");
  return ok ? 0 : 1;
}

// --- command line --------------------------------------------------------------

bool number(char const* v, std::size_t& out) {
  char* end = nullptr;
  if (*v < '0' || *v > '9') return false;
  out = std::strtoul(v, &end, 10);
  return *end == '\0';
}

bool pair(char const* v, std::size_t& a, std::size_t& b) {
  char const* const x = std::strchr(v, 'x');
  if (!x) return false;
  std::string const first(v, x);
  return number(first.c_str(), a) && number(x + 1, b);
}

bool parse(int argc, char** argv, Options& o) {
  bool layer_options = false;  // options that only --one takes
  for (int i = 1; i < argc; ++i) {
    std::string const a = argv[i];
    if (a == "--one") {
      o.one = true;
      continue;
    }
    if (a == "--double") {
      o.wide = layer_options = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    char const* v = argv[++i];
    std::size_t steps = 0, threads = 0;
    bool ok = true;
    if (a == "--batch")
      ok = number(v, o.n);
    else if (a == "--channels")
      ok = number(v, o.c);
    else if (a == "--out")
      ok = number(v, o.k);
    else if (a == "--size")
      ok = pair(v, o.h, o.w);
    else if (a == "--window")
      ok = pair(v, o.r, o.s), layer_options = true;
    else if (a == "--stride")
      ok = number(v, o.stride), layer_options = true;
    else if (a == "--padding")
      ok = number(v, o.padding), layer_options = true;
    else if (a == "--steps")
      ok = number(v, steps) && steps > 0 && steps < 100000, o.steps = int(steps);
    else if (a == "--threads")
      ok = number(v, threads) && threads > 0 && threads < 10000, o.threads = int(threads);
    else
      return false;
    if (!ok) return false;
  }
  if (layer_options && !o.one) return false;
  return o.n > 0 && o.c > 0 && o.k > 0 && o.h > 0 && o.w > 0 && o.r > 0 && o.s > 0 && o.stride > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr,
                 "usage: %s [--batch N] [--channels C] [--size HxW] [--out K] [--steps T] "
                 "[--threads T]\n"
                 "       %s --one [--batch N] [--channels C] [--size HxW] [--out K] "
                 "[--window RxS] [--stride S] [--padding P] [--steps T] [--threads T] [--double]\n"
                 "Sizes, counts, the window and the stride are positive; HxW is height by width,\n"
                 "RxS the window's height by width. Default: batch 16, 64 channels, 56x56, 64\n"
                 "out, window 3x3, stride 1, padding 1, 10 steps; two layers at one thread and\n"
                 "then all cores, --one at all cores. A window larger than the padded input\n"
                 "gives an empty output (--one runs and reports it).\n",
                 argv[0], argv[0]);
    return 2;
  }
  try {
    if (!o.one) return run_two_layers(o);
    return o.wide ? run_one_layer<double>(o) : run_one_layer<float>(o);
  } catch (std::exception const& e) {  // the pool's "Out of memory." among them
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
}
