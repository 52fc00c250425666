// tbb_gemm against two yardsticks measured in the same run:
//  - the same block calls made one after another on one thread (tbb_gemm inside a one-thread
//    arena), times the number of cores: the ceiling of this design (parallel efficiency);
//  - one call of the threaded OpenBLAS on the whole product, using every core, opened by path
//    (its shared object has the SONAME of the serial one; nerva's copy is private anyway).
// The three run back to back for each shape, three times over, and the summary table printed
// after the Google Benchmark output uses the best iteration of each: the machine may be shared,
// and the best time is the one least disturbed by other work.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "gemm/blas.hpp"
#include "nerva/gemm.hpp"

namespace {

char const* const kThreadedOpenBlas =
    "/usr/lib/x86_64-linux-gnu/openblas64-pthread/libopenblas64.so.0";

struct Shape {
  long m, n, k;
  std::string name;
};

std::vector<Shape> const kShapes = {{512, 512, 512, "512"},
                                    {1024, 1024, 1024, "1024"},
                                    {2048, 2048, 2048, "2048"},
                                    {4096, 4096, 4096, "4096"},
                                    {3136, 64, 576, "layer_3136x64x576"}};

template <typename T>
char const* type_name();
template <>
char const* type_name<float>() {
  return "float";
}
template <>
char const* type_name<double>() {
  return "double";
}

// Column-major operands with values in [-1, 1).
template <typename T>
struct Operands {
  explicit Operands(Shape const& s)
      : A(static_cast<std::size_t>(s.m * s.k)),
        B(static_cast<std::size_t>(s.k * s.n)),
        C(static_cast<std::size_t>(s.m * s.n)) {
    unsigned x = 12345;
    for (auto* v : {&A, &B, &C})
      for (T& e : *v) {
        x = x * 1664525u + 1013904223u;
        e = static_cast<T>((x >> 8) * (2.0 / 16777216.0) - 1.0);
      }
  }
  std::vector<T> A, B, C;
};

// Runs tbb_gemm on the whole product: C := A*B (beta 0).
template <typename T>
void run_tbb_gemm(Shape s, Operands<T>& o) {
  char no = 'N';
  nerva::tbb_gemm<T>(&no, &no, &s.m, &s.n, &s.k, o.A.data(), &s.m, o.B.data(), &s.k, o.C.data(),
                     &s.m, T(0), T(1));
}

struct ThreadedBlas {
  decltype(&sgemm_) sgemm = nullptr;
  decltype(&dgemm_) dgemm = nullptr;

  static ThreadedBlas const& get() {
    static ThreadedBlas const blas = [] {
      ThreadedBlas b;
      void* handle = dlopen(kThreadedOpenBlas, RTLD_NOW | RTLD_LOCAL);
      if (!handle) {
        std::fprintf(stderr, "cannot open %s: %s\n", kThreadedOpenBlas, dlerror());
        std::exit(1);
      }
      b.sgemm = reinterpret_cast<decltype(&sgemm_)>(dlsym(handle, "sgemm_"));
      b.dgemm = reinterpret_cast<decltype(&dgemm_)>(dlsym(handle, "dgemm_"));
      return b;
    }();
    return blas;
  }

  void call(Shape s, Operands<float>& o) const {
    float const one = 1, zero = 0;
    sgemm("N", "N", &s.m, &s.n, &s.k, &one, o.A.data(), &s.m, o.B.data(), &s.k, &zero, o.C.data(),
          &s.m);
  }
  void call(Shape s, Operands<double>& o) const {
    double const one = 1, zero = 0;
    dgemm("N", "N", &s.m, &s.n, &s.k, &one, o.A.data(), &s.m, o.B.data(), &s.k, &zero, o.C.data(),
          &s.m);
  }
};

double flops(Shape const& s) { return 2.0 * double(s.m) * double(s.n) * double(s.k); }

// Best time of one iteration for every case, by name.
std::map<std::string, double> best_seconds;

// Times each iteration of `body` itself and keeps the best under `name`.
template <typename Body>
void timed_loop(benchmark::State& state, std::string const& name, Shape const& s, Body body) {
  double best = 1e30;
  for (auto _ : state) {
    auto const start = std::chrono::steady_clock::now();
    body();
    best = std::min(
        best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  auto it = best_seconds.emplace(name, best).first;
  it->second = std::min(it->second, best);
  state.counters["GFLOPS"] =
      benchmark::Counter(flops(s) * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}

template <typename T>
void BM_tbb_gemm(benchmark::State& state, std::string name, Shape s) {
  Operands<T> o(s);
  timed_loop(state, name, s, [&] { run_tbb_gemm(s, o); });
}

template <typename T>
void BM_one_thread_blocks(benchmark::State& state, std::string name, Shape s) {
  Operands<T> o(s);
  tbb::task_arena one_thread(1);
  timed_loop(state, name, s, [&] { one_thread.execute([&] { run_tbb_gemm(s, o); }); });
}

template <typename T>
void BM_openblas_threaded(benchmark::State& state, std::string name, Shape s) {
  ThreadedBlas const& blas = ThreadedBlas::get();
  Operands<T> o(s);
  blas.call(s, o);  // the pool's first call pays for its buffers
  timed_loop(state, name, s, [&] { blas.call(s, o); });
}

std::string run_name(char const* what, char const* type, Shape const& s) {
  return std::string(what) + "<" + type + ">/" + s.name;
}

// For each shape: the threaded OpenBLAS, then the one-thread block calls (its pool goes idle
// meanwhile), then tbb_gemm.
template <typename T>
void register_shape(Shape const& s) {
  char const* type = type_name<T>();
  std::string const names[] = {run_name("openblas_threaded", type, s),
                               run_name("one_thread_blocks", type, s),
                               run_name("tbb_gemm", type, s)};
  benchmark::internal::Benchmark* cases[] = {
      benchmark::RegisterBenchmark(names[0].c_str(), BM_openblas_threaded<T>, names[0], s),
      benchmark::RegisterBenchmark(names[1].c_str(), BM_one_thread_blocks<T>, names[1], s),
      benchmark::RegisterBenchmark(names[2].c_str(), BM_tbb_gemm<T>, names[2], s)};
  double const gflop = flops(s) * 1e-9;
  for (auto* b : cases) {
    b->UseRealTime()->Unit(benchmark::kMillisecond)->Repetitions(3)->DisplayAggregatesOnly(true);
    if (gflop > 50)
      b->Iterations(1);  // 4096: seconds per call on one core
    else if (gflop > 5)
      b->Iterations(3);
    else
      b->MinTime(0.2);
  }
}

template <typename T>
void summarize(Shape const& s, int cores) {
  auto find = [&](char const* what) {
    auto it = best_seconds.find(run_name(what, type_name<T>(), s));
    return it == best_seconds.end() ? 0.0 : flops(s) * 1e-9 / it->second;
  };
  double const tbb = find("tbb_gemm"), one = find("one_thread_blocks"),
               blas = find("openblas_threaded");
  if (tbb == 0) return;
  std::printf("%-7s %-18s %9.1f %9.1f %9.1f %7.3f %9.1f %7.3f\n", type_name<T>(), s.name.c_str(),
              tbb, one, one * cores, one > 0 ? tbb / (one * cores) : 0.0, blas,
              blas > 0 ? tbb / blas : 0.0);
}

// The machine may be shared: how many cores this process can use right now, from the time of a
// fixed amount of arithmetic on one thread and on `cores` threads at once.
double usable_cores(int cores) {
  auto spin = [] {
    volatile double x = 1;
    for (long i = 0; i < 100000000; ++i) x = x * 1.0000001 + 1e-9;
  };
  auto const t0 = std::chrono::steady_clock::now();
  spin();
  auto const t1 = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int c = 0; c < cores; ++c) threads.emplace_back(spin);
  for (auto& t : threads) t.join();
  auto const t2 = std::chrono::steady_clock::now();
  return cores * std::chrono::duration<double>(t1 - t0).count() /
         std::chrono::duration<double>(t2 - t1).count();
}

}  // namespace

int main(int argc, char** argv) {
  // Let TBB's workers and the BLAS's packing buffers exist before anything is timed.
  {
    Shape warm{512, 512, 512, "warm-up"};
    Operands<float> f(warm);
    Operands<double> d(warm);
    for (int r = 0; r < 3; ++r) {
      run_tbb_gemm(warm, f);
      run_tbb_gemm(warm, d);
    }
  }
  for (Shape const& s : kShapes) register_shape<float>(s);
  for (Shape const& s : kShapes) register_shape<double>(s);

  int const cores = tbb::info::default_concurrency();
  double const usable_before = usable_cores(cores);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  std::printf("\nCores usable by this process: %.2f of %d before the run, %.2f after\n",
              usable_before, cores, usable_cores(cores));
  std::printf(
      "GFLOPS (best of 3); ceiling = one-thread block calls x %d cores; effic. = tbb_gemm / "
      "ceiling; OpenBLAS = one threaded call; ratio = tbb_gemm / OpenBLAS\n",
      cores);
  std::printf("%-7s %-18s %9s %9s %9s %7s %9s %7s\n", "type", "shape", "tbb_gemm", "1-thread",
              "ceiling", "effic.", "OpenBLAS", "ratio");
  for (Shape const& s : kShapes) summarize<float>(s, cores);
  for (Shape const& s : kShapes) summarize<double>(s, cores);
  return 0;
}
