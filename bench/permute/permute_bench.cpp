// Permute<N> on the reformats of a layer step, against a single-thread
// memcpy of the same bytes and a naive index loop, all in the same run.
// After the Google Benchmark output a summary table gives, per case, the
// rate of Permute<N> and its ratios to memcpy and to the naive loop (the best
// of the repetitions when --benchmark_repetitions is given).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qel_permute/permute.hpp"

namespace {

struct Case {
  char const* name;
  std::size_t width;
  std::vector<std::size_t> sizes;
  std::vector<std::size_t> permutation;
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

void run_permute(Case const& c, void const* src, void* dst) {
  std::size_t const n = c.sizes.size();
  switch (c.width) {
    case 1:
      qel_permute::Permute<1>(src, dst, n, c.sizes.data(), c.permutation.data(), nullptr, nullptr);
      break;
    case 4:
      qel_permute::Permute<4>(src, dst, n, c.sizes.data(), c.permutation.data(), nullptr, nullptr);
      break;
    default:
      qel_permute::Permute<8>(src, dst, n, c.sizes.data(), c.permutation.data(), nullptr, nullptr);
      break;
  }
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

enum class Kind { Permute, Memcpy, Naive };

void bench_case(benchmark::State& state, Case const& c, Kind kind) {
  std::size_t const bytes = bytes_of(c);
  Buffer const src = make_buffer(bytes), dst = make_buffer(bytes);
  for (auto _ : state) {
    switch (kind) {
      case Kind::Permute:
        run_permute(c, src.get(), dst.get());
        break;
      case Kind::Memcpy:
        std::memcpy(dst.get(), src.get(), bytes);
        break;
      case Kind::Naive:
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

char const* const kKindNames[] = {"permute", "memcpy", "naive"};

// Keeps the seconds per iteration of every run for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (auto const& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      std::string name = run.benchmark_name();
      std::string const suffix = "/real_time";
      if (name.size() > suffix.size() &&
          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
        name.resize(name.size() - suffix.size());
      }
      // With repetitions, the best run: the machine may be shared.
      double const t = run.real_accumulated_time / static_cast<double>(run.iterations);
      auto const it = seconds_.find(name);
      if (it == seconds_.end() || t < it->second) seconds_[name] = t;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    std::printf("\n%-50s %9s %11s %10s %10s\n", "case (GB/s = 1e9 bytes/s)", "GB/s", "memcpy GB/s",
                "x memcpy", "x naive");
    for (auto const& c : cases()) {
      double const t = find(kKindNames[0], c), m = find(kKindNames[1], c),
                   n = find(kKindNames[2], c);
      if (t <= 0) continue;
      double const gbs = static_cast<double>(bytes_of(c)) / t * 1e-9;
      double const mgbs = m > 0 ? static_cast<double>(bytes_of(c)) / m * 1e-9 : 0.0;
      std::printf("%-50s %9.2f %11.2f %10.2f %10.1f\n", c.name, gbs, mgbs, m > 0 ? m / t : 0.0,
                  n > 0 ? n / t : 0.0);
    }
  }

 private:
  double find(char const* kind, Case const& c) const {
    auto const it = seconds_.find(std::string(kind) + "/" + c.name);
    return it == seconds_.end() ? 0.0 : it->second;
  }
  std::map<std::string, double> seconds_;
};

}  // namespace

int main(int argc, char** argv) {
  for (auto const& c : cases()) {
    for (Kind kind : {Kind::Permute, Kind::Memcpy, Kind::Naive}) {
      std::string const name = std::string(kKindNames[static_cast<int>(kind)]) + "/" + c.name;
      benchmark::RegisterBenchmark(name.c_str(), bench_case, c, kind)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    }
  }
  benchmark::Initialize(&argc, argv);
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  return 0;
}
