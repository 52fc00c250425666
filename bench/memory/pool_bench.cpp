// Lease + checkin round trip of a recurring size against a fresh allocation
// that is written once (what the pool saves: the allocator call and the page
// faults of first touch). The idle list holds 16 blocks of other sizes so the
// exact-size search has something to skip.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "nerva/memory.hpp"

namespace {

void* host_allocate(std::size_t n) { return std::malloc(n); }
void host_free(void* p) { std::free(p); }
void host_error(char const* m) { throw std::runtime_error(m); }

nerva::SharedMemoryPool& shared_pool() {
  static nerva::SharedMemoryPool pool({&host_allocate, &host_free}, &host_error);
  return pool;
}

void fill_with_other_sizes(nerva::SharedMemoryPool& pool) {
  if (!pool.blocks.empty()) return;
  for (std::size_t i = 0; i < 16; ++i) pool.checkin(pool.lease(4096 * (3 + 2 * i) + 8));
}

void BM_PoolRoundTrip(benchmark::State& state) {
  const std::size_t bytes = static_cast<std::size_t>(state.range(0));
  nerva::SharedMemoryPool& pool = shared_pool();
  if (state.thread_index() == 0) {
    fill_with_other_sizes(pool);
    auto warm = pool.lease(bytes);
    std::memset(warm->data, 1, bytes);
    pool.checkin(std::move(warm));
  }
  for (auto _ : state) {
    auto block = pool.lease(bytes);
    benchmark::DoNotOptimize(block->data);
    pool.checkin(std::move(block));
  }
  state.SetLabel("lease+checkin");
}

void BM_FreshAllocation(benchmark::State& state) {
  const std::size_t bytes = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = host_allocate(bytes);
    std::memset(p, 1, bytes);  // first write: the page faults happen here
    benchmark::DoNotOptimize(p);
    host_free(p);
  }
  state.SetLabel("malloc+write+free");
}

}  // namespace

BENCHMARK(BM_PoolRoundTrip)->Arg(4096)->Arg(1 << 20)->Arg(64 << 20)->Threads(1)->Threads(2);
BENCHMARK(BM_FreshAllocation)->Arg(4096)->Arg(1 << 20)->Arg(64 << 20)->Threads(1)->Threads(2);
BENCHMARK_MAIN();
