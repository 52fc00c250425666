// Permute<N> on the reformats of a layer step, and ParallelPermute<N> in TBB
// arenas of one and two threads, against memcpy and a naive index loop, all
// in the same run. Two memcpy yardsticks: one of the same bytes on the same
// number of threads (from whatever cache holds them), and one of arrays twice
// the size of the last-level cache on one and on two threads, the memory
// speed that a layout move can be asked to keep up with on any host (a
// transpose reads many rows at once and cannot match memcpy inside a cache).
// After the Google Benchmark output a summary table gives, per case, the rate
// of Permute<N> and its ratios to these and to the naive loop, each from the
// best of five repetitions, run in random order.
#include <benchmark/benchmark.h>
#include <oneapi/tbb/task_arena.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "interleaved_args.hpp"
#include "memory_speed.hpp"
#include "qel_permute/permute.hpp"

namespace {

struct Case {
  char const* name;
  std::size_t width;
  std::vector<std::size_t> sizes;
  std::vector<std::size_t> permutation;
  bool naive = true;  // too slow to time on the out-of-cache case
};

std::vector<Case> const& cases() {
  static std::vector<Case> const list = {
      {"f32 [56,56,64,32,1] (3,4,1,2,5) korval>chained", 4, {56, 56, 64, 32, 1}, {3, 4, 1, 2, 5}},
      {"f32 [56,56,64,32,1] (1,2,4,3,5) chan/obs swap", 4, {56, 56, 64, 32, 1}, {1, 2, 4, 3, 5}},
      {"f32 [64,32,56,56,1] (3,4,1,2,5) chained>korval", 4, {64, 32, 56, 56, 1}, {3, 4, 1, 2, 5}},
      {"f32 [7,7,512,64,1] (3,4,1,2,5)", 4, {7, 7, 512, 64, 1}, {3, 4, 1, 2, 5}},
      {"f32 [224,224,3,16,1] (3,4,1,2,5)", 4, {224, 224, 3, 16, 1}, {3, 4, 1, 2, 5}},
      {"f32 [56,56,64,32,1] (3,4,2,1,5) data swap", 4, {56, 56, 64, 32, 1}, {3, 4, 2, 1, 5}},
      // One RGB image: planes only three channels thin.
      {"f32 [224,224,3,1,1] (3,4,1,2,5) one image", 4, {224, 224, 3, 1, 1}, {3, 4, 1, 2, 5}},
      {"f32 [3,1,224,224,1] (3,4,1,2,5) one image back", 4, {3, 1, 224, 224, 1}, {3, 4, 1, 2, 5}},
      {"u8  [224,224,3,1,1] (3,4,1,2,5) one image", 1, {224, 224, 3, 1, 1}, {3, 4, 1, 2, 5}},
      {"u8  [3,1,224,224,1] (3,4,1,2,5) one image back", 1, {3, 1, 224, 224, 1}, {3, 4, 1, 2, 5}},
      {"f64 [56,56,64,32,1] (3,4,1,2,5) korval>chained", 8, {56, 56, 64, 32, 1}, {3, 4, 1, 2, 5}},
      {"u8  [56,56,64,32,1] (3,4,1,2,5) korval>chained", 1, {56, 56, 64, 32, 1}, {3, 4, 1, 2, 5}},
      // Destination rows that are not whole 64-byte lines (padded outputs).
      {"f32 [64,16,58,58,1] (3,4,1,2,5) rows 3364", 4, {64, 16, 58, 58, 1}, {3, 4, 1, 2, 5}},
      {"f32 [58,58,64,16,1] (3,4,1,2,5) from 58x58", 4, {58, 58, 64, 16, 1}, {3, 4, 1, 2, 5}},
      {"f32 [64,16,27,27,1] (3,4,1,2,5) rows 729", 4, {64, 16, 27, 27, 1}, {3, 4, 1, 2, 5}},
      {"f32 [27,27,64,16,1] (3,4,1,2,5) from 27x27", 4, {27, 27, 64, 16, 1}, {3, 4, 1, 2, 5}},
      {"f64 [64,16,58,58,1] (3,4,1,2,5) rows 3364", 8, {64, 16, 58, 58, 1}, {3, 4, 1, 2, 5}},
      {"u8  [64,16,58,58,1] (3,4,1,2,5) rows 3364", 1, {64, 16, 58, 58, 1}, {3, 4, 1, 2, 5}},
      {"u8  [58,58,64,16,1] (3,4,1,2,5) from 58x58", 1, {58, 58, 64, 16, 1}, {3, 4, 1, 2, 5}},
      // About 205 MB each way: far out of every cache.
      {"f32 [112,112,64,64,1] (3,4,1,2,5) korval>chained",
       4,
       {112, 112, 64, 64, 1},
       {3, 4, 1, 2, 5},
       false},
  };
  return list;
}

std::size_t bytes_of(Case const& c) {
  std::size_t n = c.width;
  for (std::size_t s : c.sizes) n *= s;
  return n;
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<unsigned char, FreeDeleter>;

// A page-aligned buffer, written once so no page faults land in the timing.
Buffer make_buffer(std::size_t bytes) {
  std::size_t const rounded = (bytes + 4095) / 4096 * 4096;
  Buffer b(static_cast<unsigned char*>(std::aligned_alloc(4096, rounded)));
  for (std::size_t i = 0; i < bytes; ++i) b.get()[i] = static_cast<unsigned char>(i * 131 + 7);
  return b;
}

void OutOfCacheMemcpy(benchmark::State& state, int threads) {
  bench::OutOfCacheArrays& arrays = bench::OutOfCacheArrays::get();
  tbb::task_arena arena(threads);
  arena.execute([&] {
    for (auto _ : state) {
      arrays.copy();
      benchmark::ClobberMemory();
    }
  });
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * arrays.bytes()));
}

void run_permute(Case const& c, void const* src, void* dst, bool parallel) {
  using qel_permute::ParallelPermute, qel_permute::Permute;
  decltype(&Permute<1>)
      const routines[2][3] = {{&Permute<1>, &Permute<4>, &Permute<8>},
                              {&ParallelPermute<1>, &ParallelPermute<4>, &ParallelPermute<8>}};
  routines[parallel][c.width == 1   ? 0
                     : c.width == 4 ? 1
                                    : 2](src, dst, c.sizes.size(), c.sizes.data(),
                                         c.permutation.data(), nullptr, nullptr);
}

// The obvious loop: walk the destination in order, find each source element
// by index arithmetic.
template <std::size_t W>
void naive_permute(Case const& c, unsigned char const* src, unsigned char* dst) {
  std::size_t const n = c.sizes.size();
  std::size_t srcStride[16], idx[16] = {}, total = 1;
  for (std::size_t d = 0; d < n; ++d) {
    srcStride[d] = total;
    total *= c.sizes[d];
  }
  for (std::size_t k = 0; k < total; ++k) {
    std::size_t offset = 0;
    for (std::size_t i = 0; i < n; ++i) offset += idx[i] * srcStride[c.permutation[i] - 1];
    std::memcpy(dst + k * W, src + offset * W, W);
    for (std::size_t i = 0; i < n; ++i) {
      if (++idx[i] < c.sizes[c.permutation[i] - 1]) break;
      idx[i] = 0;
    }
  }
}

enum class Kind { Permute, Parallel1, Parallel2, Memcpy, Naive, Memcpy2 };

void bench_case(benchmark::State& state, Case const& c, Kind kind) {
  std::size_t const bytes = bytes_of(c);
  Buffer const src = make_buffer(bytes), dst = make_buffer(bytes);
  if (kind == Kind::Parallel1 || kind == Kind::Parallel2 || kind == Kind::Memcpy2) {
    tbb::task_arena arena(kind == Kind::Parallel1 ? 1 : 2);
    arena.execute([&] {
      for (auto _ : state) {
        if (kind == Kind::Memcpy2)
          bench::threaded_move(dst.get(), src.get(), bytes);
        else
          run_permute(c, src.get(), dst.get(), true);
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
      }
    });
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
    return;
  }
  for (auto _ : state) {
    switch (kind) {
      case Kind::Permute:
        run_permute(c, src.get(), dst.get(), false);
        break;
      case Kind::Memcpy:
        std::memcpy(dst.get(), src.get(), bytes);
        break;
      default:
        if (c.width == 1) naive_permute<1>(c, src.get(), dst.get());
        if (c.width == 4) naive_permute<4>(c, src.get(), dst.get());
        if (c.width == 8) naive_permute<8>(c, src.get(), dst.get());
        break;
    }
    benchmark::DoNotOptimize(dst.get());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

char const* const kKindNames[] = {"permute", "parallel1", "parallel2",
                                  "memcpy",  "naive",     "memcpy2"};
char const* const kOutOfCache[] = {"", "memcpy_llc/1 thread", "memcpy_llc/2 threads"};

// Keeps the seconds per iteration of every run for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (auto const& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      // The case's name without the option parts Google Benchmark appends.
      std::string name = run.benchmark_name();
      for (char const* option : {"/min_time:", "/repeats:", "/real_time"}) {
        std::size_t const at = name.find(option);
        if (at != std::string::npos) name.resize(at);
      }
      // With repetitions, the best run: the machine may be shared.
      double const t = run.real_accumulated_time / static_cast<double>(run.iterations);
      auto const it = seconds_.find(name);
      if (it == seconds_.end() || t < it->second) seconds_[name] = t;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    double const mem1 = find(kOutOfCache[1]), mem2 = find(kOutOfCache[2]);
    double const big = static_cast<double>(bench::OutOfCacheArrays::get().bytes()) * 1e-9;
    std::printf(
        "\nmemcpy of %.0f MiB (twice the last-level cache): 1 thread %.2f GB/s, "
        "2 threads %.2f GB/s\n",
        big * 1e9 / 1048576.0, mem1 > 0 ? big / mem1 : 0.0, mem2 > 0 ? big / mem2 : 0.0);
    std::printf("\n%-50s %7s %8s %8s %9s %9s %8s\n", "case (GB/s = 1e9 bytes/s)", "GB/s",
                "x memcpy", "x memory", "2T x mcp2", "2T x mem2", "x naive");
    auto ratio = [](double base, double t) { return base > 0 && t > 0 ? base / t : 0.0; };
    for (auto const& c : cases()) {
      double const t = find(kKindNames[0], c), p2 = find(kKindNames[2], c),
                   m = find(kKindNames[3], c), n = find(kKindNames[4], c),
                   m2 = find(kKindNames[5], c);
      double const bytes = static_cast<double>(bytes_of(c)) * 1e-9;
      // Rates against the out-of-cache memcpy: bytes per second over bytes per second.
      std::printf("%-50s %7.2f %8.2f %8.2f %9.2f %9.2f %8.1f\n", c.name, ratio(bytes, t),
                  ratio(m, t), ratio(bytes, t) * mem1 / big, ratio(m2, p2),
                  ratio(bytes, p2) * mem2 / big, ratio(n, t));
    }
  }

 private:
  double find(char const* kind, Case const& c) const {
    return find(std::string(kind) + "/" + c.name);
  }
  double find(std::string const& name) const {
    auto const it = seconds_.find(name);
    return it == seconds_.end() ? 0.0 : it->second;
  }
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
  for (auto const& c : cases()) {
    for (Kind kind : {Kind::Permute, Kind::Parallel1, Kind::Parallel2, Kind::Memcpy, Kind::Naive,
                      Kind::Memcpy2}) {
      if (kind == Kind::Naive && !c.naive) continue;
      std::string const name = std::string(kKindNames[static_cast<int>(kind)]) + "/" + c.name;
      benchmark::RegisterBenchmark(name.c_str(), bench_case, c, kind)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          ->MinTime(0.1)
          ->Repetitions(5);
    }
  }
  for (int threads : {1, 2})
    benchmark::RegisterBenchmark(kOutOfCache[threads], OutOfCacheMemcpy, threads)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(0.1)
        ->Repetitions(5);
  bench::InterleavedArgs args(argc, argv);
  benchmark::Initialize(args.argc(), args.argv());
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  return 0;
}
