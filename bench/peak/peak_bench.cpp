// The FMA peak of this host: the rate of independent multiply-adds that its
// widest vector unit sustains, f32 and f64, on one thread and on every core.
// The convolution bench states its rates as shares of these, so a row means
// the same on any host. The kernel is chosen at run time (AVX-512F, else AVX2
// with FMA, else scalar); the label and the context name it.
#include <benchmark/benchmark.h>

#include <thread>

#include "fma_kernels.hpp"

namespace {

peak::FmaKernel const& kernel() {
  static peak::FmaKernel const k = [] {
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f")) return peak::avx512_kernel();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return peak::avx2_kernel();
    return peak::scalar_kernel();
  }();
  return k;
}

// About 10^6 multiply-adds per call: long enough that the loop's start and
// end do not count, short enough for Google Benchmark to size the run.
constexpr long kRounds = 1 << 14;

template <typename T>
void Peak(benchmark::State& state) {
  peak::FmaKernel const& k = kernel();
  volatile T a = T(0.999), b = T(0.001);  // unknown to the compiler: nothing folds
  for (auto _ : state) {
    if constexpr (sizeof(T) == 4)
      benchmark::DoNotOptimize(k.f32(kRounds, a, b));
    else
      benchmark::DoNotOptimize(k.f64(kRounds, a, b));
  }
  // Counters of all threads are summed and then multiplied by the iterations
  // of all threads: only one thread reports the work of one iteration.
  if (state.thread_index() == 0) {
    double const flops =
        double(kRounds) * double(sizeof(T) == 4 ? k.f32_flops_per_round : k.f64_flops_per_round);
    state.counters["GFLOPS"] =
        benchmark::Counter(flops * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
  }
  state.SetLabel(k.isa);
}

}  // namespace

int main(int argc, char** argv) {
  int const cores = int(std::thread::hardware_concurrency());
  for (auto* b : {benchmark::RegisterBenchmark("peak/f32", Peak<float>),
                  benchmark::RegisterBenchmark("peak/f64", Peak<double>)}) {
    b->Threads(1)->UseRealTime()->MinTime(0.2)->Repetitions(3);
    if (cores > 1) b->Threads(cores);
  }
  benchmark::AddCustomContext("fma_isa", kernel().isa);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
