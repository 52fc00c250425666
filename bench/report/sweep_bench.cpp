// Throughput over a range of array sizes, for the plot of the benchmark
// report: one-thread memcpy (the roof a layout move is held against), the
// library's parallel copy, and Permute<4> in both directions of a layer step's
// reformat. Arrays are [w, w, 64, 16] floats, 64 KiB to 64 MiB; GB/s counts
// the array's bytes once (1e9 bytes per second), as memcpy's rate does.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "copy/simple_copy.hpp"
#include "qel_permute/permute.hpp"

namespace {

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<float, FreeDeleter>;

// Page-aligned and written once, so no page fault lands in the timing.
Buffer make_buffer(std::size_t elements) {
  std::size_t const bytes = (elements * sizeof(float) + 4095) / 4096 * 4096;
  Buffer b(static_cast<float*>(std::aligned_alloc(4096, bytes)));
  for (std::size_t i = 0; i < elements; ++i) b.get()[i] = static_cast<float>(i % 1009);
  return b;
}

enum Kind : long { Memcpy, SimpleCopy, KorvalToChained, ChainedToKorval };
char const* const kNames[] = {"memcpy_1thread", "simple_copy", "permute_korval_to_chained",
                              "permute_chained_to_korval"};

void Sweep(benchmark::State& state) {
  auto const kind = static_cast<Kind>(state.range(0));
  std::size_t const w = static_cast<std::size_t>(state.range(1));
  std::size_t const korval[] = {w, w, 64, 16, 1}, chained[] = {64, 16, w, w, 1};
  std::size_t const order[] = {3, 4, 1, 2, 5};
  std::size_t const n = w * w * 64 * 16;
  Buffer const src = make_buffer(n), dst = make_buffer(n);
  for (auto _ : state) {
    switch (kind) {
      case Memcpy:
        std::memcpy(dst.get(), src.get(), n * sizeof(float));
        break;
      case SimpleCopy:
        nerva::execute_simple_copy<float>(dst.get(), src.get(), n);
        break;
      case KorvalToChained:
        qel_permute::Permute<4>(src.get(), dst.get(), 5, korval, order, nullptr, nullptr);
        break;
      case ChainedToKorval:
        qel_permute::Permute<4>(src.get(), dst.get(), 5, chained, order, nullptr, nullptr);
        break;
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n * sizeof(float)));
  state.counters["bytes"] = static_cast<double>(n * sizeof(float));
}

}  // namespace

int main(int argc, char** argv) {
  // Sizes interleaved so that every kernel sees the same machine state.
  for (long w : {4, 8, 16, 32, 64, 128})
    for (long kind : {Memcpy, SimpleCopy, KorvalToChained, ChainedToKorval})
      benchmark::RegisterBenchmark((std::string("sweep/") + kNames[kind]).c_str(), Sweep)
          ->Args({kind, w})
          ->UseRealTime()
          ->Unit(benchmark::kMicrosecond)
          ->MinTime(0.05)
          ->Repetitions(3)
          ->DisplayAggregatesOnly(true);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
