#pragma once

// Yardsticks for layout moves and copies, for benchmarks that state a
// kernel's speed against memory on the same number of threads: memcpy (or
// memset) split into one run per thread of the calling TBB arena, and a pair
// of arrays twice the size of the last-level cache, where every pass streams
// from and to memory whatever the host's caches.
#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>
#include <oneapi/tbb/task_arena.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace bench {

// memcpy of `bytes` (memset to 0 when `src` is null), split into equal runs,
// one per thread of the calling arena.
inline void threaded_move(void* dst, void const* src, std::size_t bytes) {
  int const threads = tbb::this_task_arena::max_concurrency();
  tbb::parallel_for(
      tbb::blocked_range<int>(0, threads, 1),
      [&](tbb::blocked_range<int> const& r) {
        for (int t = r.begin(); t < r.end(); ++t) {
          std::size_t const lo = bytes * std::size_t(t) / std::size_t(threads) / 64 * 64;
          std::size_t const hi = t + 1 == threads
                                     ? bytes
                                     : bytes * std::size_t(t + 1) / std::size_t(threads) / 64 * 64;
          if (src)
            std::memcpy(static_cast<unsigned char*>(dst) + lo,
                        static_cast<unsigned char const*>(src) + lo, hi - lo);
          else
            std::memset(static_cast<unsigned char*>(dst) + lo, 0, hi - lo);
        }
      },
      tbb::static_partitioner());
}

// The largest cache the C library reports (32 MiB if it reports none).
inline std::size_t last_level_cache_bytes() {
  long largest = 0;
  for (int name : {_SC_LEVEL2_CACHE_SIZE, _SC_LEVEL3_CACHE_SIZE, _SC_LEVEL4_CACHE_SIZE})
    largest = std::max(largest, sysconf(name));
  return largest > 0 ? std::size_t(largest) : std::size_t{32} << 20;
}

// Source and destination of twice the last-level cache each, at least 64 MiB,
// made and written once per process: together four times the cache.
class OutOfCacheArrays {
 public:
  static OutOfCacheArrays& get() {
    static OutOfCacheArrays arrays;
    return arrays;
  }
  // The size of each array, without making them.
  static std::size_t size() {
    return std::max(2 * last_level_cache_bytes(), std::size_t{64} << 20) / 4096 * 4096;
  }
  std::size_t bytes() const { return bytes_; }
  // One memcpy of the whole array on the threads of the calling arena.
  void copy() { threaded_move(dst_.get(), src_.get(), bytes_); }

 private:
  struct Free {
    void operator()(void* p) const { std::free(p); }
  };
  using Buffer = std::unique_ptr<unsigned char, Free>;
  OutOfCacheArrays()
      : bytes_(size()),
        src_(static_cast<unsigned char*>(std::aligned_alloc(4096, bytes_))),
        dst_(static_cast<unsigned char*>(std::aligned_alloc(4096, bytes_))) {
    std::memset(src_.get(), 1, bytes_);
    std::memset(dst_.get(), 2, bytes_);
  }
  std::size_t bytes_;
  Buffer src_, dst_;
};

}  // namespace bench
