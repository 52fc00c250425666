// Speed of the copy kernels, each against a baseline timed in the same run.
// The kernels run on all cores (TBB's default arena), so their yardsticks are
// memcpy and memset of the same bytes on as many threads; the one-thread
// forms stay for scale. A summary table of the ratios and their targets is
// printed at the end.

#include <benchmark/benchmark.h>
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "copy/simple_copy.hpp"
#include "interleaved_args.hpp"
#include "memory_speed.hpp"
#include "nerva/copy.hpp"
#include "nerva/memory.hpp"

namespace {

constexpr std::size_t kBigBytes = std::size_t{64} << 20;

void* heap_allocate(std::size_t bytes) { return std::malloc(bytes == 0 ? 1 : bytes); }
void heap_deallocate(void* p) { std::free(p); }
void abort_on_error(char const* message) {
  std::fprintf(stderr, "%s\n", message);
  std::abort();
}

template <class T>
std::vector<T> filled(std::size_t n) {
  std::vector<T> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<T>(i % 101);
  return v;
}

template <class T>
char const* type_name() {
  if constexpr (std::is_same_v<T, unsigned char>) return "uchar";
  if constexpr (std::is_same_v<T, float>) return "float";
  if constexpr (std::is_same_v<T, double>) return "double";
  if constexpr (std::is_same_v<T, long>) return "long";
}

// --- 64 MiB copy and fill against memcpy / memset --------------------------

void BigMemcpy(benchmark::State& state) {
  auto src = filled<unsigned char>(kBigBytes);
  std::vector<unsigned char> dst(kBigBytes, 1);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kBigBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

void BigMemcpyThreads(benchmark::State& state) {
  auto src = filled<unsigned char>(kBigBytes);
  std::vector<unsigned char> dst(kBigBytes, 1);
  for (auto _ : state) {
    bench::threaded_move(dst.data(), src.data(), kBigBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

template <class T>
void BigCopy(benchmark::State& state) {
  std::size_t const n = kBigBytes / sizeof(T);
  auto src = filled<T>(n);
  std::vector<T> dst(n, T(1));
  for (auto _ : state) {
    nerva::execute_simple_copy<T>(dst.data(), src.data(), n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

void BigMemset(benchmark::State& state) {
  std::vector<unsigned char> dst(kBigBytes, 1);
  for (auto _ : state) {
    std::memset(dst.data(), 0, kBigBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

void BigMemsetThreads(benchmark::State& state) {
  std::vector<unsigned char> dst(kBigBytes, 1);
  for (auto _ : state) {
    bench::threaded_move(dst.data(), nullptr, kBigBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

template <class T>
void BigFill(benchmark::State& state) {
  std::size_t const n = kBigBytes / sizeof(T);
  std::vector<T> dst(n, T(1));
  for (auto _ : state) {
    nerva::execute_simple_fill<T>(dst.data(), n, T(0));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kBigBytes);
}

// --- one chunk (serial) against one chunk plus one element (parallel) ------

template <class T>
void GrainCopy(benchmark::State& state) {
  std::size_t const n = static_cast<std::size_t>(state.range(0));
  auto src = filled<T>(n);
  std::vector<T> dst(n, T(1));
  for (auto _ : state) {
    nerva::execute_simple_copy<T>(dst.data(), src.data(), n);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * n * sizeof(T));
}

template <class T>
void GrainFill(benchmark::State& state) {
  std::size_t const n = static_cast<std::size_t>(state.range(0));
  std::vector<T> dst(n, T(1));
  for (auto _ : state) {
    nerva::execute_simple_fill<T>(dst.data(), n, T(0));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * n * sizeof(T));
}

// What splitting a range in two costs by itself: a parallel_for of two empty
// chunks, as the kernels split one grain plus one element. The host's wake-up
// and steal latency, which no grain size can hide.
void ForkJoin(benchmark::State& state) {
  for (auto _ : state)
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, 2, 1),
        [](tbb::blocked_range<std::size_t> const& r) { benchmark::DoNotOptimize(r.begin()); },
        tbb::auto_partitioner());
}

// --- strided gather: every second index of 224 x 224, 64 x 8 planes --------

struct Subsample {
  std::size_t sizes[4] = {224, 224, 64, 8};
  std::size_t firsts[2] = {0, 0};
  std::size_t lasts[2] = {224, 224};
  std::size_t increments[2] = {2, 2};
  std::size_t planes() const { return sizes[2] * sizes[3]; }
  std::size_t selected() const { return 112 * 112; }
  std::size_t elements() const { return sizes[0] * sizes[1] * planes(); }
};

void StridedKernel(benchmark::State& state) {
  std::size_t const channelDim = static_cast<std::size_t>(state.range(0));
  Subsample s;
  auto src = filled<float>(s.elements());
  nerva::SharedMemoryPool pool({&heap_allocate, &heap_deallocate}, &abort_on_error);
  for (auto _ : state) {
    auto block = nerva::strided_copy<float>(pool, src.data(), s.sizes, s.firsts, s.lasts,
                                            s.increments, 2, channelDim, nullptr);
    benchmark::DoNotOptimize(block->data);
    pool.checkin(std::move(block));
  }
  state.SetBytesProcessed(state.iterations() * s.selected() * s.planes() * sizeof(float));
}

// The gather written the obvious way for an N-D selection: every destination
// element in order, its index in each dimension, from those its source
// position, one element copied at a time.
void StridedNaive(benchmark::State& state) {
  std::size_t const channelDim = static_cast<std::size_t>(state.range(0));
  Subsample s;
  auto src = filled<float>(s.elements());
  std::vector<float> dst(s.selected() * s.planes(), 1.0f);
  std::size_t counts[2];
  for (std::size_t i = 0; i < 2; ++i)
    counts[i] = (s.lasts[i] - 1 - s.firsts[i]) / s.increments[i] + 1;
  std::size_t const planes = s.planes(), selected = s.selected();
  std::size_t const planeSize = s.sizes[0] * s.sizes[1];
  auto position = [&](std::size_t k) {
    std::size_t pos = 0, stride = 1;
    for (std::size_t i = 0; i < 2; ++i) {
      pos += (s.firsts[i] + k % counts[i] * s.increments[i]) * stride;
      k /= counts[i];
      stride *= s.sizes[i];
    }
    return pos;
  };
  for (auto _ : state) {
    float* out = dst.data();
    if (channelDim != 0) {
      for (std::size_t p = 0; p < planes; ++p)
        for (std::size_t k = 0; k < selected; ++k) *out++ = src[p * planeSize + position(k)];
    } else {
      for (std::size_t k = 0; k < selected; ++k) {
        std::size_t const pos = position(k);
        for (std::size_t p = 0; p < planes; ++p) *out++ = src[pos * planes + p];
      }
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * s.selected() * s.planes() * sizeof(float));
}

// The same gather hand-written for this shape: nested loops over the
// dimensions, no index arithmetic beyond the obvious, vectorised by the
// compiler. A stricter baseline than the generic loop.
void StridedLoops(benchmark::State& state) {
  std::size_t const channelDim = static_cast<std::size_t>(state.range(0));
  Subsample s;
  auto src = filled<float>(s.elements());
  std::vector<float> dst(s.selected() * s.planes(), 1.0f);
  std::size_t const w = s.sizes[0], h = s.sizes[1], planes = s.planes();
  for (auto _ : state) {
    float* out = dst.data();
    if (channelDim != 0) {
      for (std::size_t p = 0; p < planes; ++p)
        for (std::size_t y = 0; y < h; y += 2)
          for (std::size_t x = 0; x < w; x += 2) *out++ = src[(p * h + y) * w + x];
    } else {
      for (std::size_t y = 0; y < h; y += 2)
        for (std::size_t x = 0; x < w; x += 2)
          for (std::size_t p = 0; p < planes; ++p) *out++ = src[(y * w + x) * planes + p];
    }
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * s.selected() * s.planes() * sizeof(float));
}

// memcpy of as many bytes as the gather moves, on all cores.
void StridedMemcpyThreads(benchmark::State& state) {
  Subsample s;
  std::size_t const bytes = s.selected() * s.planes() * sizeof(float);
  auto src = filled<unsigned char>(bytes);
  std::vector<unsigned char> dst(bytes, 1);
  for (auto _ : state) {
    bench::threaded_move(dst.data(), src.data(), bytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * bytes);
}

// memcpy of arrays twice the last-level cache on all cores: memory speed,
// for the gather whose source is four times the bytes it moves.
void OutOfCacheMemcpy(benchmark::State& state) {
  bench::OutOfCacheArrays& arrays = bench::OutOfCacheArrays::get();
  for (auto _ : state) {
    arrays.copy();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * arrays.bytes()));
}

// --- ranged copy: 56 x 56 into 58 x 58 groups of 64 x 32 -------------------

constexpr std::size_t kGroup = 64 * 32;
constexpr std::size_t kRangedBytes = 56 * 56 * kGroup * sizeof(float);

void RangedKernel(benchmark::State& state) {
  std::size_t const srcSizes[2] = {56, 56}, dstSizes[2] = {58, 58};
  auto src = filled<float>(56 * 56 * kGroup);
  std::vector<float> dst(58 * 58 * kGroup, 0.0f);
  for (auto _ : state) {
    nerva::ranged_copy<float>(src.data(), srcSizes, dst.data(), dstSizes, 1, kGroup);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kRangedBytes);
}

void RangedMemcpy(benchmark::State& state) {
  auto src = filled<unsigned char>(kRangedBytes);
  std::vector<unsigned char> dst(kRangedBytes, 1);
  for (auto _ : state) {
    std::memcpy(dst.data(), src.data(), kRangedBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kRangedBytes);
}

void RangedMemcpyThreads(benchmark::State& state) {
  auto src = filled<unsigned char>(kRangedBytes);
  std::vector<unsigned char> dst(kRangedBytes, 1);
  for (auto _ : state) {
    bench::threaded_move(dst.data(), src.data(), kRangedBytes);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kRangedBytes);
}

// --- registration and the summary ------------------------------------------

benchmark::internal::Benchmark* add(std::string const& name, void (*fn)(benchmark::State&)) {
  return benchmark::RegisterBenchmark(name.c_str(), fn)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond)
      ->MinTime(0.1)
      ->Repetitions(5)
      ->ComputeStatistics(
          "min", [](std::vector<double> const& v) { return *std::min_element(v.begin(), v.end()); })
      ->DisplayAggregatesOnly(true);
}

struct Ratio {
  std::string label;
  std::string kernel, baseline;
  double scale;     // baseline time is multiplied by this (bytes ratio for rates)
  bool time_ratio;  // kernel time / scaled baseline time, else baseline / kernel
  char const* target;
  std::string added = {};  // a time added to the scaled baseline
};
std::vector<Ratio> ratios;

template <class T>
void add_grain_copy() {
  std::size_t const g = nerva::simple_copy_grain<T>;
  std::string const base = std::string("grain_copy/") + type_name<T>();
  add(base + "/G", GrainCopy<T>)->Arg(static_cast<long>(g));
  add(base + "/G+1", GrainCopy<T>)->Arg(static_cast<long>(g + 1));
  ratios.push_back({base + " t(G+1)/(t(G)(G+1)/G + fork)", base + "/G+1", base + "/G",
                    double(g + 1) / double(g), true, "<= 1.3", "grain_fork_join/empty"});
}

template <class T>
void add_grain_fill() {
  std::size_t const g = nerva::simple_fill_grain<T>;
  std::string const base = std::string("grain_fill/") + type_name<T>();
  add(base + "/G", GrainFill<T>)->Arg(static_cast<long>(g));
  add(base + "/G+1", GrainFill<T>)->Arg(static_cast<long>(g + 1));
  ratios.push_back({base + " t(G+1)/(t(G)(G+1)/G + fork)", base + "/G+1", base + "/G",
                    double(g + 1) / double(g), true, "<= 1.3", "grain_fork_join/empty"});
}

// Remembers the fastest of the repetitions of every benchmark by name: on a
// shared machine the slower ones measure the neighbours, not the code.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs)
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "min")
        times[run.run_name.str()] = run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
  add("copy_64MiB/memcpy_1thread", BigMemcpy);
  add("copy_64MiB/memcpy_all_cores", BigMemcpyThreads);
  add("copy_64MiB/simple_copy_uchar", BigCopy<unsigned char>);
  add("copy_64MiB/simple_copy_float", BigCopy<float>);
  add("copy_64MiB/simple_copy_double", BigCopy<double>);
  add("fill_64MiB/memset_1thread", BigMemset);
  add("fill_64MiB/memset_all_cores", BigMemsetThreads);
  add("fill_64MiB/simple_fill_uchar", BigFill<unsigned char>);
  add("fill_64MiB/simple_fill_float", BigFill<float>);
  add("fill_64MiB/simple_fill_double", BigFill<double>);
  add("fill_64MiB/simple_fill_long", BigFill<long>);
  for (char const* t : {"uchar", "float", "double"})
    ratios.push_back({std::string("copy 64MiB ") + t + " vs memcpy",
                      std::string("copy_64MiB/simple_copy_") + t, "copy_64MiB/memcpy_all_cores",
                      1.0, false, ">= 0.8"});
  for (char const* t : {"uchar", "float", "double", "long"})
    ratios.push_back({std::string("fill 64MiB ") + t + " vs memset",
                      std::string("fill_64MiB/simple_fill_") + t, "fill_64MiB/memset_all_cores",
                      1.0, false, ">= 0.8"});

  add("grain_fork_join/empty", ForkJoin);
  add_grain_copy<unsigned char>();
  add_grain_copy<float>();
  add_grain_copy<double>();
  add_grain_fill<unsigned char>();
  add_grain_fill<float>();
  add_grain_fill<double>();
  add_grain_fill<long>();

  for (long channelDim : {2L, 0L}) {
    std::string const layout = channelDim != 0 ? "planes_outer" : "planes_inner";
    std::string const arg = "/" + std::to_string(channelDim);
    std::string const base = "strided_224x224x64x8/";
    add(base + "naive_" + layout, StridedNaive)->Arg(channelDim);
    add(base + "loops_" + layout, StridedLoops)->Arg(channelDim);
    add(base + "strided_copy_" + layout, StridedKernel)->Arg(channelDim);
    // Where the naive loop is memory-bound too (planes innermost: runs of 2
    // KiB), memcpy of the moved bytes is the yardstick.
    ratios.push_back({"strided copy (" + layout + ") vs naive",
                      base + "strided_copy_" + layout + arg, base + "naive_" + layout + arg, 1.0,
                      false, channelDim != 0 ? ">= 3.0" : "(info)"});
    ratios.push_back({"strided copy (" + layout + ") vs loops",
                      base + "strided_copy_" + layout + arg, base + "loops_" + layout + arg, 1.0,
                      false, "(info)"});
  }

  add("strided_224x224x64x8/memcpy_all_cores_moved", StridedMemcpyThreads);
  ratios.push_back({"strided copy (planes_inner) vs memcpy of moved",
                    "strided_224x224x64x8/strided_copy_planes_inner/0",
                    "strided_224x224x64x8/memcpy_all_cores_moved", 1.0, false, "(info)"});
  // Its rate against memory's: a gather that reads a quarter of an array
  // four times its output is held to memcpy from memory, not from a cache.
  add("memory_speed/memcpy_out_of_cache_all_cores", OutOfCacheMemcpy);
  ratios.push_back({"strided copy (planes_inner) vs memory speed",
                    "strided_224x224x64x8/strided_copy_planes_inner/0",
                    "memory_speed/memcpy_out_of_cache_all_cores",
                    double(Subsample().selected() * Subsample().planes() * sizeof(float)) /
                        double(bench::OutOfCacheArrays::size()),
                    false, ">= 0.5"});

  add("ranged_56to58_64x32/memcpy_1thread", RangedMemcpy);
  add("ranged_56to58_64x32/memcpy_all_cores", RangedMemcpyThreads);
  add("ranged_56to58_64x32/ranged_copy", RangedKernel);
  ratios.push_back({"ranged copy vs memcpy of moved bytes", "ranged_56to58_64x32/ranged_copy",
                    "ranged_56to58_64x32/memcpy_all_cores", 1.0, false, ">= 0.7"});

  bench::InterleavedArgs args(argc, argv);
  benchmark::Initialize(args.argc(), args.argv());
  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  auto find = [&](std::string const& prefix, double& t) {
    for (auto const& [name, time] : reporter.times)
      if (name.rfind(prefix, 0) == 0 &&
          (name.size() == prefix.size() || name[prefix.size()] == '/')) {
        t = time;
        return true;
      }
    return false;
  };
  std::printf("\n%-44s %10s %10s\n", "ratio", "value", "target");
  for (Ratio const& r : ratios) {
    double k = 0, b = 0, added = 0;
    if (!find(r.kernel, k) || !find(r.baseline, b)) continue;
    if (!r.added.empty() && !find(r.added, added)) continue;
    double const value = r.time_ratio ? k / (b * r.scale + added) : b * r.scale / k;
    std::printf("%-44s %9.2fx %10s\n", r.label.c_str(), value, r.target);
  }
  benchmark::Shutdown();
  return 0;
}
