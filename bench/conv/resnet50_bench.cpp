// The forward convolution on the distinct convolution layers of ResNet-50 at
// batch 16, float, on all cores: nerva::convolution_forward from a chained
// input into a chained output, both made once outside the timed loop. The
// report states each layer's rate as a share of the FMA peak measured by
// bench_peak and its time against PyTorch's conv2d on the same layers. The
// first layer of examples/conv_layer.cpp runs in double as well.
//
// Before it is timed, every layer is checked on a sample of output elements
// against a direct sum: a wrong result stops that benchmark with an error.
#include <benchmark/benchmark.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "nerva/convolve.hpp"
#include "resnet50_layers.hpp"

namespace {

constexpr std::size_t kBatch = 16;

void* allocate(std::size_t bytes) { return std::aligned_alloc(64, (bytes + 63) / 64 * 64); }
void deallocate(void* p) { std::free(p); }
void throw_error(char const* message) { throw std::runtime_error(message); }

// One layer ready to run: random input and weights in [-1, 1), the chained
// input array over them, the packed weights and the output array. Members are
// destroyed in reverse order, the pool last.
template <typename T>
struct Prepared {
  explicit Prepared(bench::ConvLayer const& l) : layer(l) {
    std::mt19937 rng(unsigned(l.C * 131 + l.K * 7 + l.H));
    std::uniform_real_distribution<double> value(-1, 1);
    host_input.resize(l.C * kBatch * l.H * l.H);
    host_weights.resize(l.K * l.C * l.R * l.R);
    for (T& v : host_input) v = T(value(rng));
    for (T& v : host_weights) v = T(value(rng));
    std::size_t const in_sizes[] = {l.C, kBatch, l.H, l.H}, window[] = {l.R, l.R};
    std::size_t const firsts[] = {0, 0}, strides[] = {l.stride, l.stride};
    std::size_t const span = l.H + 2 * l.pad - l.R + 1, lasts[] = {span, span};
    pad[0] = pad[1] = l.pad;
    input = std::make_unique<nerva::FormattedInputArray<T>>(pool, host_input.data(), in_sizes, 4, 2,
                                                            0, 1, nullptr);
    weights = std::make_unique<nerva::ConvolutionWeights<T>>(pool, host_weights.data(), l.K, l.C, 2,
                                                             window);
    output = std::make_unique<nerva::FormattedOutputArray<T>>(
        pool, firsts, lasts, l.stride > 1 ? strides : nullptr, 2, l.K, kBatch, 0, 1, nullptr,
        nerva::Uninitialized);
  }

  void run() { nerva::convolution_forward<T>(*input, *weights, pad, *output); }

  // Elements of the output that differ from a direct sum beyond rounding,
  // over `samples` random (k, n, x, y).
  int mismatches(int samples) const {
    bench::ConvLayer const& l = layer;
    std::size_t const out = l.out();
    std::mt19937 rng(7);
    T const* const result = output->UnpaddedData();
    int bad = 0;
    for (int s = 0; s < samples; ++s) {
      std::size_t const k = rng() % l.K, n = rng() % kBatch, x = rng() % out, y = rng() % out;
      double sum = 0, magnitude = 0;
      for (std::size_t ty = 0; ty < l.R; ++ty)
        for (std::size_t tx = 0; tx < l.R; ++tx) {
          long const ix = long(x * l.stride + tx) - long(l.pad);
          long const iy = long(y * l.stride + ty) - long(l.pad);
          if (ix < 0 || iy < 0 || ix >= long(l.H) || iy >= long(l.H)) continue;
          for (std::size_t c = 0; c < l.C; ++c) {
            double const term =
                double(host_weights[((k * l.C + c) * l.R + ty) * l.R + tx]) *
                double(
                    host_input[((std::size_t(iy) * l.H + std::size_t(ix)) * kBatch + n) * l.C + c]);
            sum += term, magnitude += std::fabs(term);
          }
        }
      long const at = long(x) * output->DataIncrement(0) + long(y) * output->DataIncrement(1) +
                      long(n * l.K + k);
      double const eps = sizeof(T) == 4 ? 1e-5 : 1e-12;
      bad += !(std::fabs(double(result[at]) - sum) <= eps * magnitude + 1e-30);
    }
    return bad;
  }

  bench::ConvLayer layer;
  nerva::SharedMemoryPool pool{{&allocate, &deallocate}, &throw_error};
  std::vector<T> host_input, host_weights;
  std::size_t pad[2] = {0, 0};
  std::unique_ptr<nerva::FormattedInputArray<T>> input;
  std::unique_ptr<nerva::ConvolutionWeights<T>> weights;
  std::unique_ptr<nerva::FormattedOutputArray<T>> output;
  bool correct = false;
};

// The layer of the latest run: its repetitions follow each other, so each
// layer is set up and checked once.
template <typename T>
Prepared<T>& prepared(bench::ConvLayer const& layer, tbb::task_arena& arena) {
  static std::unique_ptr<Prepared<T>> current;
  if (!current || current->layer.key() != layer.key()) {
    current.reset();
    current = std::make_unique<Prepared<T>>(layer);
    arena.execute([&] { current->run(); });
    current->correct = current->mismatches(256) == 0;
  }
  return *current;
}

tbb::task_arena& all_cores() {
  static tbb::task_arena arena(tbb::info::default_concurrency());
  return arena;
}

template <typename T>
void Convolution(benchmark::State& state, bench::ConvLayer const& layer) {
  tbb::task_arena& arena = all_cores();
  Prepared<T>& p = prepared<T>(layer, arena);
  if (!p.correct) {
    state.SkipWithError("the output differs from the direct sum");
    return;
  }
  // Each call is timed on its own: the report takes the median call, as it
  // does for PyTorch's.
  std::vector<double> seconds;
  for (auto _ : state) {
    auto const start = std::chrono::steady_clock::now();
    arena.execute([&] { p.run(); });
    benchmark::ClobberMemory();
    double const t =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(t);
    seconds.push_back(t);
  }
  std::nth_element(seconds.begin(), seconds.begin() + long(seconds.size() / 2), seconds.end());
  state.counters["median_ms"] = seconds.empty() ? 0.0 : 1e3 * seconds[seconds.size() / 2];
  state.counters["GFLOPS"] =
      benchmark::Counter(layer.flop(kBatch) * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["flop"] = layer.flop(kBatch);
  state.counters["uses"] = layer.uses;
  state.counters["threads"] = arena.max_concurrency();
  state.SetLabel(std::string(layer.stage) + ", " + layer.role);
}

}  // namespace

int main(int argc, char** argv) {
  auto add = [](std::string const& name, auto fn, bench::ConvLayer const& layer) {
    benchmark::RegisterBenchmark(name.c_str(), fn, layer)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
  };
  for (bench::ConvLayer const& layer : bench::resnet50_layers())
    add("resnet50/" + layer.key(), Convolution<float>, layer);
  add("example_f64/" + bench::kExampleLayer.key(), Convolution<double>, bench::kExampleLayer);
  benchmark::AddCustomContext("batch", std::to_string(kBatch));
  benchmark::AddCustomContext("threads", std::to_string(tbb::info::default_concurrency()));
  // Half a second of calls per layer unless the command line says otherwise
  // (flags given later win).
  std::vector<char*> args(argv, argv + argc);
  static char min_time[] = "--benchmark_min_time=0.5";
  args.insert(args.begin() + (argc > 0 ? 1 : 0), min_time);
  int count = int(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&count, args.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
