// Two 3x3 convolution layers run the way a runtime's layer step uses nerva:
// wrap the host's KORVAL input and reformat it to the chained layout, create
// the outputs from their data bounds, multiply straight into their data
// regions and give the host its result back in KORVAL. Layer 1 (stride 1,
// zero padding 1) writes a chained output with a zero border of 1, which
// layer 2 (stride 2) takes over as its padded input as it is: the host's
// layout is met only at the two ends of the step. The step is repeated with
// a counting host allocator to show the pool at work, at one thread and at
// all cores.
//
//   conv_layer [--batch N] [--channels C] [--size HxW] [--out K] [--steps S]
//              [--threads T]
//
// How the products are arranged: each layer is one tbb::parallel_for whose
// tasks make their taps' products with the serial nerva::gemm, so no core
// waits at a barrier between small products (one tbb_gemm per product meant
// about 500 parallel calls per layer). Measured on one core (thread CPU time,
// median of 15, default shapes, a loaded machine): layer 1 with one product
// per (row, chunk of 14 columns, tap) 37.7 ms; per (row, tap) over whole rows
// 45.5 ms, past the BLAS's unpacked-kernel size (see chunk_width); an im2col
// of each chunk into a per-worker buffer and one product with k = 9C 48-53
// ms; one tbb_gemm per (row, tap) 39.4 ms. Layer 2 with one product per
// (output position, tap), n = N, straight from the input 10.1 ms; a
// per-worker gather of the input columns by phase (x mod 2) and products with
// n = 14 N 11.1 ms; an im2col per row and one product with k = 9C 12.7 ms;
// the old serial-row gather and tbb_gemm 12.9 ms.

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/parallel_for.h>
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

// Times of one layer, in seconds. `gemm` is the time inside gemm summed over
// the threads and divided by their number: the step's wall time if the
// products had the cores to themselves.
struct LayerTimes {
  double reformat_in = 0, allocate = 0, compute = 0, gemm = 0, reformat_out = 0;
  double total() const { return reformat_in + allocate + compute + reformat_out; }
};

// Seconds inside gemm per worker thread, one cache line per arena slot so
// that the workers do not share one. It times a task's run of products as a
// whole: a clock read costs up to 70 ns here, a product 64 x 16 x 64 about
// 1.3 us.
class GemmClock {
 public:
  GemmClock() : slots_(static_cast<std::size_t>(tbb::this_task_arena::max_concurrency())) {}

  template <typename F>
  void time(F&& call) {
    auto const t0 = Clock::now();
    call();
    slots_[static_cast<std::size_t>(tbb::this_task_arena::current_thread_index())].seconds +=
        seconds_since(t0);
  }
  // The sum over the threads since the last call.
  double take() {
    double sum = 0;
    for (Slot& s : slots_) sum += s.seconds, s.seconds = 0;
    return sum;
  }

 private:
  struct alignas(64) Slot {
    double seconds = 0;
  };
  std::vector<Slot> slots_;
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

// Output positions per product, for a row of `width` positions of `macs`
// multiply-adds each (m * k * observations). This BLAS multiplies products of
// up to 1e6 multiply-adds with an unpacked kernel, which for these k = 64
// shapes runs at 112 GFLOP/s on one core against 92 for its packed path; the
// row is cut into equal chunks under that size.
long chunk_width(long width, long macs) {
  long const most = std::max(1L, 1000000 / macs);
  long const chunks = (width + most - 1) / most;
  return (width + chunks - 1) / chunks;
}

// Layer 1: 3x3 window centred on each input position, zero padding 1, stride
// 1. In the chained layout (c, n, x, y) the columns (n, x) of one input row
// form a C-row matrix with leading dimension C, and those of one output row a
// K-row matrix with leading dimension K, so every tap of a chunk is one
// product accumulating into the output; the border taps only narrow the x
// range. The centre tap covers the whole chunk and goes first with beta 0, so
// the output needs no zero fill: each task zeroes the part of the border of 1
// next to its chunk.
void layer1_compute(nerva::FormattedInputArray<float> const& in,
                    nerva::FormattedOutputArray<float>& out, std::vector<float> const& weights,
                    GemmClock& clock) {
  long const K = L(out.NumChannels()), C = L(in.NumChannels()), N = L(in.NumObservations());
  auto const dx = out.ConvolutionDescriptor(0, 3, K * C, in.DataSize(0), in.DataIncrement(0));
  auto const dy = out.ConvolutionDescriptor(1, 3, 3 * K * C, in.DataSize(1), in.DataIncrement(1));
  long const fx = L(dx->first), lx = L(dx->last), fy = L(dy->first), ly = L(dy->last);
  long const ex = L(dx->windowExtent), ey = L(dy->windowExtent), half_x = ex / 2, half_y = ey / 2;
  long const ox = dx->outputIncrement, oy = dy->outputIncrement;  // a column is ox elements
  long const width = chunk_width(lx - fx, K * C * N), chunks = (lx - fx + width - 1) / width;
  float const* const src = in.Data();
  float* const dst = out.UnpaddedData();
  long const ldb = L(in.ObservationIncrement()), ldc = L(out.ObservationIncrement());
  auto zero = [](float* p, long count) { std::memset(p, 0, sizeof(float) * std::size_t(count)); };

  tbb::parallel_for(tbb::blocked_range<long>(0, (ly - fy) * chunks), [&](auto const& r) {
    char no = 'N';
    long m = K, k = C, lda = K, ldb_ = ldb, ldc_ = ldc;
    for (long i = r.begin(); i < r.end(); ++i) {
      long const y = fy + i / chunks, x0 = fx + i % chunks * width;
      long const x1 = std::min(lx, x0 + width);
      float* const row = dst + (y - fy) * oy;
      long const b0 = x0 == fx ? x0 - 1 : x0, b1 = x1 == lx ? x1 + 1 : x1;
      if (x0 == fx) zero(row - ox, ox);
      if (x1 == lx) zero(row + (lx - fx) * ox, ox);
      if (y == fy) zero(row - oy + (b0 - fx) * ox, (b1 - b0) * ox);
      if (y == ly - 1) zero(row + oy + (b0 - fx) * ox, (b1 - b0) * ox);

      clock.time([&] {
        float beta = 0.0f;
        for (long sy = 0; sy < ey; ++sy) {
          long const ty = (half_y + sy) % ey, iy = y + ty - half_y;  // centre row first
          if (iy < 0 || iy >= L(dy->inputExtent)) continue;
          for (long sx = 0; sx < ex; ++sx) {
            long const tx = (half_x + sx) % ex;
            long const a = std::max(x0, half_x - tx);
            long const b = std::min(x1, L(dx->inputExtent) + half_x - tx);
            if (a >= b) continue;
            long n = N * (b - a);
            float const* A = weights.data() + tx * dx->windowIncrement + ty * dy->windowIncrement;
            float const* B = src + (a + tx - half_x) * dx->inputIncrement + iy * dy->inputIncrement;
            float* Cp = row + (a - fx) * ox;
            nerva::gemm(&no, &no, &m, &n, &k, A, &lda, B, &ldb_, Cp, &ldc_, beta, 1.0f);
            beta = 1.0f;
          }
        }
      });
    }
  });
}

// Layer 2: stride 2 over the padded input, window centred on the sampled
// positions. The input columns under one output position are not evenly
// spaced, but each of them is a plain C x N matrix (leading dimension C), and
// the output position a K x N one: every (output position, tap) is one
// product with n = N straight from the input, the first with beta 0, so
// nothing is gathered and the output needs no fill. (With a batch of only a
// few observations these products get thin; a gather of the input columns by
// phase into per-worker buffers, for products of a chunk of columns, would
// then be the better choice.)
void layer2_compute(nerva::FormattedInputArray<float> const& in,
                    nerva::FormattedOutputArray<float>& out, std::vector<float> const& weights,
                    GemmClock& clock) {
  long const K = L(out.NumChannels()), C = L(in.NumChannels()), N = L(in.NumObservations());
  auto const dx =
      out.StridedConvolutionDescriptor(0, 3, K * C, in.DataSize(0), in.DataIncrement(0));
  auto const dy =
      out.StridedConvolutionDescriptor(1, 3, 3 * K * C, in.DataSize(1), in.DataIncrement(1));
  long const ex = L(dx->windowExtent), ey = L(dy->windowExtent);
  // Input column and row under the window's first tap at output position 0.
  long const x_left = L(dx->first) - ex / 2, y_top = L(dy->first) - ey / 2;
  long const sx = L(dx->stride), sy = L(dy->stride);
  long const wo = L(out.DataSize(0)), ho = L(out.DataSize(1));
  long const ox = dx->outputIncrement, oy = dy->outputIncrement;
  float const* const src = in.Data();
  float* const dst = out.UnpaddedData();
  long const ldb = L(in.ObservationIncrement()), ldc = L(out.ObservationIncrement());

  tbb::parallel_for(tbb::blocked_range<long>(0, ho * wo), [&](auto const& r) {
    char no = 'N';
    long m = K, n = N, k = C, lda = K, ldb_ = ldb, ldc_ = ldc;
    for (long i = r.begin(); i < r.end(); ++i) {
      long const yo = i / wo, xo = i % wo;
      float const* const window =
          src + (x_left + xo * sx) * dx->inputIncrement + (y_top + yo * sy) * dy->inputIncrement;
      float* const Cp = dst + yo * oy + xo * ox;
      clock.time([&] {
        float beta = 0.0f;
        for (long ty = 0; ty < ey; ++ty)
          for (long tx = 0; tx < ex; ++tx) {
            float const* A = weights.data() + tx * dx->windowIncrement + ty * dy->windowIncrement;
            float const* B = window + tx * dx->inputIncrement + ty * dy->inputIncrement;
            nerva::gemm(&no, &no, &m, &n, &k, A, &lda, B, &ldb_, Cp, &ldc_, beta, 1.0f);
            beta = 1.0f;
          }
      });
    }
  });
}

struct StepResult {
  LayerTimes l1, l2;
  std::size_t reuses = 0;
};

// One layer step of both layers on `threads` threads. `check` receives layer
// 1's chained result and layer 2's KORVAL result before they are handed on.
template <typename Check>
StepResult run_step(nerva::SharedMemoryPool& pool, Shape const& s, int threads,
                    std::vector<float> const& input, std::vector<float> const& w1,
                    std::vector<float> const& w2, GemmClock& clock, Check&& check) {
  StepResult r;
  PoolWatch watch{pool};

  // Layer 1: the host's KORVAL input, extents in layout order (x, y, c, n),
  // moved to the chained layout by the parallel permutation.
  size_t const in_sizes[] = {s.w, s.h, s.c, s.n};
  nerva::FormattedInputArray<float> in1(pool, input.data(), in_sizes, 4, 2, 2, 3, nullptr);
  auto t0 = Clock::now();
  watch([&] { in1.Reformat(nerva::ChainedFormat, nerva::Parallel); });
  r.l1.reformat_in = seconds_since(t0);

  // A chained output (c, n, x, y) with a border of 1 for layer 2 to read;
  // the products and the border zeroing write every element.
  size_t const firsts1[] = {0, 0}, lasts1[] = {s.w, s.h}, padding1[] = {1, 1, 1, 1};
  t0 = Clock::now();
  std::unique_ptr<nerva::FormattedOutputArray<float>> out1;
  watch([&] {
    out1 = std::make_unique<nerva::FormattedOutputArray<float>>(
        pool, firsts1, lasts1, nullptr, 2, s.k, s.n, 0, 1, padding1, nerva::Uninitialized);
  });
  r.l1.allocate = seconds_since(t0);

  t0 = Clock::now();
  layer1_compute(in1, *out1, w1, clock);
  r.l1.compute = seconds_since(t0);
  r.l1.gemm = clock.take() / threads;
  check(1, out1->Data(), *out1);
  pool.checkin(in1.Relinquish());  // the chained input is done with

  // Layer 2 takes layer 1's buffer over in the chained layout, padded
  // extents included: no element moves between the layers.
  nerva::FormattedInputArray<float> in2(pool, out1->Relinquish(), out1.get());

  // Window centres 1 .. W in the padded input, every second one. The input
  // still reads the handed-over buffer, so the output leases its own; every
  // element is written by the products.
  size_t const firsts2[] = {1, 1}, lasts2[] = {s.w + 1, s.h + 1}, strides2[] = {2, 2};
  t0 = Clock::now();
  std::unique_ptr<nerva::FormattedOutputArray<float>> out2;
  watch([&] {
    out2 = std::make_unique<nerva::FormattedOutputArray<float>>(
        pool, firsts2, lasts2, strides2, 2, s.k, s.n, 0, 1, nullptr, nerva::Uninitialized);
  });
  r.l2.allocate = seconds_since(t0);

  t0 = Clock::now();
  layer2_compute(in2, *out2, w2, clock);
  r.l2.compute = seconds_since(t0);
  r.l2.gemm = clock.take() / threads;

  t0 = Clock::now();
  watch([&] { out2->Reformat(nerva::KORVALFormat, nerva::Parallel); });
  auto result = out2->Relinquish();
  r.l2.reformat_out = seconds_since(t0);
  check(2, static_cast<float const*>(result->data), *out2);
  pool.checkin(std::move(result));  // the host is done with it
  r.reuses = watch.reuses;
  return r;
}

// --- command line, data, report ----------------------------------------------

bool parse(int argc, char** argv, Shape& s, int& steps, int& threads) {
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
    else if (a == "--threads") {
      threads = std::atoi(v);
      if (threads < 1) return false;
    } else if (a == "--size") {
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

reference::Increments increments(nerva::FormattedArray const& f) {
  return {f.DataIncrement(0), f.DataIncrement(1), L(f.ChannelIncrement()),
          L(f.ObservationIncrement())};
}

}  // namespace

int main(int argc, char** argv) {
  Shape s;
  int steps = 10, threads = 0;
  if (!parse(argc, argv, s, steps, threads)) {
    std::fprintf(stderr,
                 "usage: %s [--batch N] [--channels C] [--size HxW] [--out K] [--steps S] "
                 "[--threads T]\n",
                 argv[0]);
    return 2;
  }
  // One thread and then all cores, or the given count alone.
  int const cores = tbb::this_task_arena::max_concurrency();
  std::vector<int> counts;
  if (threads > 0)
    counts = {threads};
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

  std::vector<float> const input = random_values(s.n * s.c * s.h * s.w, 1.0f, 1);
  std::vector<float> const w1 = random_values(9 * s.c * s.k, 1.0f / std::sqrt(float(3 * s.c)), 2);
  std::vector<float> const w2 = random_values(9 * s.k * s.k, 1.0f / std::sqrt(float(3 * s.k)), 3);

  // The error check runs on the first step of every thread count, on the
  // first and the last observation.
  std::vector<std::size_t> const batch =
      s.n > 1 ? std::vector<std::size_t>{0, s.n - 1} : std::vector<std::size_t>{0};
  std::vector<float> result1;
  reference::Error err1, err2;
  bool checking = true;
  auto check = [&](int layer, float const* data, nerva::FormattedArray const& f) {
    if (!checking) return;
    reference::Shape const so{f.DataSize(0), f.DataSize(1), f.NumChannels(), f.NumObservations()};
    if (layer == 1) {
      result1 = reference::korval_copy(data, so, increments(f));
      err1.merge(reference::check(input, {s.w, s.h, s.c, s.n}, {w1, s.k, s.c}, data, so,
                                  increments(f), 1, 0, 1, batch));
    } else {
      err2.merge(reference::check(result1, {s.w + 2, s.h + 2, s.k, s.n}, {w2, s.k, s.k}, data, so,
                                  increments(f), 0, 1, 2, batch));
    }
  };

  nerva::SharedMemoryPool pool({&host_allocate, &host_deallocate}, &host_error);
  GemmClock clock;
  std::vector<std::vector<StepResult>> results(runs);
  std::printf("\n%-5s", "step");
  for (std::size_t c = 0; c < runs; ++c)
    std::printf(
        " %14s",
        (std::to_string(counts[c]) + (counts[c] > 1 ? " threads" : " thread") + ", ms").c_str());
  std::printf(" %11s %17s %7s %11s %14s\n", "GEMM share", "fresh allocations", "reuses",
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
    for (int step = 1; step <= steps; ++step) {
      host = HostCounters{};
      checking = step == 1;
      results[c].push_back(run_step(pool, s, in_use(c), input, w1, w2, clock, check));
      std::size_t idle_bytes = 0;
      for (auto const& b : pool.blocks) idle_bytes += b->allocated_size();
      after[c].push_back(
          {host.data_allocations, results[c].back().reuses, pool.blocks.size(), idle_bytes});
    }
  }
  for (std::size_t i = 0; i < std::size_t(steps); ++i) {
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
                100.0 * (last.l1.gemm + last.l2.gemm) / (last.l1.total() + last.l2.total()), fresh,
                reuses, after.back()[i].idle_blocks, after.back()[i].idle_bytes);
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
                      {"compute", &LayerTimes::compute},
                      {"  of which inside gemm", &LayerTimes::gemm},
                      {"reformat out (chained>KORVAL)", &LayerTimes::reformat_out}};
  // The step of one layer: the sum of its stages' medians.
  auto layer_step = [&](std::size_t c, int layer) {
    double sum = 0;
    for (Row const& row : rows)
      if (row.field != &LayerTimes::gemm) sum += stage(c, row.field, layer);
    return sum;
  };
  auto print = [](std::string const& name, double a, double b, double both, bool percent) {
    if (percent)
      std::printf("%-33s %9.1f%% %9.1f%% %9.1f%%\n", name.c_str(), a, b, both);
    else
      std::printf("%-33s %10.2f %10.2f %10.2f\n", name.c_str(), a, b, both);
  };
  std::string const medians = std::string("median of steps ") +
                              (results[0].size() > 1 ? "2.." : "1..") + std::to_string(steps);
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
  double const c1 = stage(c, &LayerTimes::compute, 1), c2 = stage(c, &LayerTimes::compute, 2);
  double const g1 = stage(c, &LayerTimes::gemm, 1), g2 = stage(c, &LayerTimes::gemm, 2);
  print("compute GFLOP/s", flops1 / c1 * 1e-9, flops2 / c2 * 1e-9,
        (flops1 + flops2) / (c1 + c2) * 1e-9, false);
  print("share outside the GEMM", 100.0 * (1 - g1 / total1), 100.0 * (1 - g2 / total2),
        100.0 * (1 - (g1 + g2) / (total1 + total2)), true);

  double const tolerance = 1e-5;
  double const rel1 = err1.abs / std::max(err1.scale, 1e-30);
  double const rel2 = err2.abs / std::max(err2.scale, 1e-30);
  std::printf(
      "\nlargest error against a direct convolution (step 1 at every thread count, "
      "observations");
  for (std::size_t n : batch) std::printf(" %zu", n);
  std::printf(", all channels and positions):\n");
  std::printf("  layer 1: %.3g (%.3g of the largest value %.3g)\n", err1.abs, rel1, err1.scale);
  std::printf("  layer 2: %.3g (%.3g of the largest value %.3g)\n", err2.abs, rel2, err2.scale);
  bool const ok = rel1 <= tolerance && rel2 <= tolerance;
  std::printf("  %s (tolerance %.0e of the largest value)\n", ok ? "OK" : "FAILED", tolerance);
  return ok ? 0 : 1;
}
