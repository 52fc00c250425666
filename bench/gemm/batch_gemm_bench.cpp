// batch_reduce_gemm on one thread at the shapes a convolution calls it with, against two
// yardsticks measured in the same run:
//  - the serial BLAS making the same products one call each (nerva::gemm, beta 0 for the first
//    product and 1 for the others), which reads and writes C once per product;
//  - the FMA peak of this core: a loop of independent multiply-adds (bench/peak's kernels).
// A[i] are the packed weights of one block of 64 output channels, one after another; B[i] start
// where the taps of a window fall in a chained activation (channels fastest, then 16 images, then
// the positions of a row), so neighbouring taps overlap the way a layer's do.
// Repetitions of all cases run in random order; the summary after the Google Benchmark output
// takes the best repetition of each.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "interleaved_args.hpp"
#include "nerva/batch_gemm.hpp"
#include "nerva/gemm.hpp"
#include "peak/fma_kernels.hpp"

namespace {

// m output channels by n output columns; count = taps x channel blocks products of depth k. The
// taps of a row sit xstep elements apart, the rows ystep apart; block b of input channels starts
// at b * k.
struct Shape {
  std::string name;
  long m, n, k, taps_y, taps_x, blocks, ldb, xstep, ystep;
  long count() const { return taps_y * taps_x * blocks; }
  double flops() const { return 2.0 * double(m) * double(n) * double(k) * double(count()); }
};

constexpr long kImages = 16;

// ResNet-style layers at a batch of 16 images (a tile's columns are the images of a few output
// positions of one row).
std::vector<Shape> const kShapes = {
    // The example's layer: 3x3, 64 -> 64 channels, tiles of 14 positions and of 1.
    {"3x3_c64_n224", 64, 224, 64, 3, 3, 1, 64, kImages * 64, 58 * kImages * 64},
    {"3x3_c64_n16", 64, 16, 64, 3, 3, 1, 64, kImages * 64, 58 * kImages * 64},
    // 1x1 layers over 256 input channels: one product of depth 256, or four of depth 64.
    {"1x1_c256_n896", 64, 896, 256, 1, 1, 1, 256, 0, 0},
    {"1x1_c256x4_n896", 64, 896, 64, 1, 1, 4, 256, 0, 0},
    // The 7x7 stem on RGB with stride 2.
    {"stem7x7_c3_n112", 64, 112, 3, 7, 7, 1, 2 * kImages * 3, kImages * 3, 230 * kImages * 3},
    // 3x3 over 512 channels in two blocks of 256.
    {"3x3_c512_n112", 64, 112, 256, 3, 3, 2, 512, kImages * 512, 16 * kImages * 512},
    // A stride-2 3x3 layer over 64 channels: B columns 2 * 16 * 64 elements apart.
    {"3x3s2_c64_n112", 64, 112, 64, 3, 3, 1, 2 * kImages * 64, kImages * 64, 114 * kImages * 64},
};

template <typename T>
char const* type_name() {
  return sizeof(T) == 4 ? "float" : "double";
}

// Values in [-1, 1) from a linear congruence.
template <typename T>
void fill(std::vector<T>& v, unsigned seed) {
  for (T& e : v) {
    seed = seed * 1664525u + 1013904223u;
    e = static_cast<T>((seed >> 8) * (2.0 / 16777216.0) - 1.0);
  }
}

template <typename T>
struct Operands {
  explicit Operands(Shape const& s)
      : weights(std::size_t(s.count() * s.m * s.k)), C(std::size_t(s.m * s.n)) {
    long const span = (s.taps_y - 1) * s.ystep + (s.taps_x - 1) * s.xstep + (s.blocks - 1) * s.k +
                      s.ldb * (s.n - 1) + s.k;
    activation.resize(std::size_t(span));
    fill(weights, 1);
    fill(activation, 2);
    for (long b = 0, i = 0; b < s.blocks; ++b)
      for (long y = 0; y < s.taps_y; ++y)
        for (long x = 0; x < s.taps_x; ++x, ++i) {
          A.push_back(weights.data() + i * s.m * s.k);
          B.push_back(activation.data() + y * s.ystep + x * s.xstep + b * s.k);
        }
  }
  std::vector<T> weights, activation, C;
  std::vector<T const*> A, B;
};

// Best mean time of one iteration over the repetitions, by case name.
std::map<std::string, double> best_seconds;

template <typename Body>
void timed_loop(benchmark::State& state, std::string const& name, double flops, Body body) {
  auto const start = std::chrono::steady_clock::now();
  for (auto _ : state) body();
  double const seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() /
      double(state.iterations());
  auto it = best_seconds.emplace(name, seconds).first;
  it->second = std::min(it->second, seconds);
  state.counters["GFLOPS"] =
      benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}

template <typename T>
void BM_batch_reduce(benchmark::State& state, std::string name, Shape s) {
  Operands<T> o(s);
  timed_loop(state, name, s.flops(), [&] {
    nerva::batch_reduce_gemm<T>(s.m, s.n, s.k, o.A.data(), s.m, o.B.data(), s.ldb, s.count(),
                                o.C.data(), s.m, T(0));
    benchmark::ClobberMemory();
  });
}

template <typename T>
void BM_blas_per_product(benchmark::State& state, std::string name, Shape s) {
  Operands<T> o(s);
  char no = 'N';
  long lda = s.m, ldc = s.m;
  timed_loop(state, name, s.flops(), [&] {
    for (long i = 0; i < s.count(); ++i)
      nerva::gemm(&no, &no, &s.m, &s.n, &s.k, o.A[std::size_t(i)], &lda, o.B[std::size_t(i)],
                  &s.ldb, o.C.data(), &ldc, T(i == 0 ? 0 : 1), T(1));
    benchmark::ClobberMemory();
  });
}

peak::FmaKernel const& fma_kernel() {
  static peak::FmaKernel const k = [] {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f")) return peak::avx512_kernel();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return peak::avx2_kernel();
    return peak::scalar_kernel();
  }();
  return k;
}

template <typename T>
void BM_fma_peak(benchmark::State& state, std::string name) {
  constexpr long kRounds = 1 << 14;
  peak::FmaKernel const& k = fma_kernel();
  volatile T a = T(0.999), b = T(0.001);
  double const flops =
      double(kRounds) * double(sizeof(T) == 4 ? k.f32_flops_per_round : k.f64_flops_per_round);
  timed_loop(state, name, flops, [&] {
    if constexpr (sizeof(T) == 4)
      benchmark::DoNotOptimize(k.f32(kRounds, a, b));
    else
      benchmark::DoNotOptimize(k.f64(kRounds, a, b));
  });
  state.SetLabel(k.isa);
}

std::string run_name(char const* what, char const* type, std::string const& shape) {
  return std::string(what) + "<" + type + ">/" + shape;
}

template <typename T>
void register_type() {
  char const* type = type_name<T>();
  std::vector<benchmark::internal::Benchmark*> cases;
  std::string const peak = std::string("fma_peak<") + type + ">";
  cases.push_back(benchmark::RegisterBenchmark(peak.c_str(), BM_fma_peak<T>, peak));
  for (Shape const& s : kShapes) {
    std::string const ours = run_name("batch_reduce_gemm", type, s.name),
                      blas = run_name("blas_per_product", type, s.name);
    cases.push_back(benchmark::RegisterBenchmark(ours.c_str(), BM_batch_reduce<T>, ours, s));
    cases.push_back(benchmark::RegisterBenchmark(blas.c_str(), BM_blas_per_product<T>, blas, s));
  }
  for (auto* b : cases)
    b->UseRealTime()->Unit(benchmark::kMicrosecond)->MinTime(0.1)->Repetitions(5);
}

template <typename T>
void summarize() {
  char const* type = type_name<T>();
  auto rate = [](std::string const& name, double flops) {
    auto it = best_seconds.find(name);
    return it == best_seconds.end() ? 0.0 : flops * 1e-9 / it->second;
  };
  double const peak =
      rate(std::string("fma_peak<") + type + ">",
           double(1 << 14) * double(sizeof(T) == 4 ? fma_kernel().f32_flops_per_round
                                                   : fma_kernel().f64_flops_per_round));
  for (Shape const& s : kShapes) {
    double const ours = rate(run_name("batch_reduce_gemm", type, s.name), s.flops());
    double const blas = rate(run_name("blas_per_product", type, s.name), s.flops());
    if (ours == 0) continue;
    std::printf("%-7s %-18s %5ld %9.1f %7.1f%% %9.1f %7.2f\n", type, s.name.c_str(), s.count(),
                ours, peak > 0 ? 100 * ours / peak : 0.0, blas, blas > 0 ? ours / blas : 0.0);
  }
  std::printf("%-7s %-18s %5s %9.1f (FMA peak, %s, one thread)\n", type, "peak", "", peak,
              fma_kernel().isa);
}

}  // namespace

int main(int argc, char** argv) {
  register_type<float>();
  register_type<double>();
  bench::InterleavedArgs args(argc, argv);
  benchmark::Initialize(args.argc(), args.argv());
  if (benchmark::ReportUnrecognizedArguments(*args.argc(), args.argv())) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  std::printf(
      "\nGFLOPS on one thread (best of 5 repetitions); peak = share of the FMA peak measured in "
      "this run; BLAS = the same products one serial gemm call each; ratio = batch_reduce_gemm / "
      "BLAS\n");
  std::printf("%-7s %-18s %5s %9s %8s %9s %7s\n", "type", "shape", "count", "GFLOPS", "peak",
              "BLAS", "ratio");
  summarize<float>();
  summarize<double>();
  return 0;
}
