#include <dirent.h>
#include <gtest/gtest.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "gemm/gemm_reference.hpp"
#include "nerva/gemm.hpp"

namespace {

using gemm_test::Problem;

// ThreadSanitizer's runtime runs one background thread of its own.
#if defined(__SANITIZE_THREAD__)
constexpr long kRuntimeThreads = 1;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr long kRuntimeThreads = 1;
#else
constexpr long kRuntimeThreads = 0;
#endif
#else
constexpr long kRuntimeThreads = 0;
#endif

long thread_count() {
  long count = -kRuntimeThreads;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') ++count;
    closedir(dir);
  }
  return count;
}

// The thread count once it has dropped to `expected` or a second has passed: a thread that was
// just joined can stay listed for a moment while the kernel finishes its exit.
long settled_thread_count(long expected) {
  long count = thread_count();
  for (int tries = 0; count > expected && tries < 100; ++tries) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    count = thread_count();
  }
  return count;
}

template <typename T>
class BlasConcurrency : public ::testing::Test {};
TYPED_TEST_SUITE(BlasConcurrency, gemm_test::ElementTypes);

// Rounds of one 128 x 128 x 128 product per party, the parties released together by a spin
// barrier so that their BLAS calls start at the same moment. Each product must equal the same
// product computed alone. At this size the BLAS packs operands into buffers taken from a shared
// table; with that table unlocked, two calls get the same buffer and, when two cores are free for
// the parties, dozens to hundreds of rounds go wrong.
TYPED_TEST(BlasConcurrency, SimultaneousCallsFromTbbWorkersAreExact) {
  using T = TypeParam;
  long const size = 128, rounds = 1000;
  int const parties = std::max(2, tbb::info::default_concurrency());
  std::vector<Problem<T>> work;
  std::vector<std::vector<T>> alone;
  for (int p = 0; p < parties; ++p) {
    work.emplace_back('N', 'N', size, size, size, 0, static_cast<unsigned>(p + 1));
    Problem<T>& w = work.back();
    nerva::gemm(&w.transa, &w.transb, &w.m, &w.n, &w.k, w.A.data(), &w.lda, w.B.data(), &w.ldb,
                w.C.data(), &w.ldc, T(0), T(1));
    alone.push_back(w.C);
  }
  ASSERT_TRUE(
      gemm_test::same_matrix(alone[0], gemm_test::reference(work[0], T(0), T(1)), work[0].ldc));

  // Waiting stops for good if a party is missing for long (TBB running fewer parties at once
  // than asked, or a loaded machine): the test then goes on without lockstep instead of hanging.
  std::atomic<long> arrived{0};
  std::atomic<bool> unsynchronized{false};
  auto wait_for_all = [&](long round) {
    long const target = (round + 1) * parties;
    arrived.fetch_add(1);
    auto const give_up = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (long spin = 1; arrived.load() < target && !unsynchronized.load(); ++spin)
      if (spin % (1 << 16) == 0) {
        std::this_thread::yield();  // let a descheduled party run on a busy machine
        if (std::chrono::steady_clock::now() > give_up) unsynchronized.store(true);
      }
  };

  std::atomic<long> wrong{0};
  tbb::task_arena arena(parties);
  arena.execute([&] {
    tbb::parallel_for(
        0, parties,
        [&](int p) {
          Problem<T>& w = work[p];
          std::size_t const bytes = w.C.size() * sizeof(T);
          for (long r = 0; r < rounds; ++r) {
            std::memset(w.C.data(), 0xff, bytes);  // NaN: a product left unwritten shows too
            wait_for_all(r);
            nerva::gemm(&w.transa, &w.transb, &w.m, &w.n, &w.k, w.A.data(), &w.lda, w.B.data(),
                        &w.ldb, w.C.data(), &w.ldc, T(0), T(1));
            if (std::memcmp(w.C.data(), alone[p].data(), bytes) != 0) ++wrong;
          }
        },
        tbb::simple_partitioner());
  });
  EXPECT_EQ(wrong.load(), 0) << "wrong products in " << rounds * parties;
  if (unsynchronized.load())
    std::printf(
        "note: the parties fell out of lockstep; the calls were concurrent but not aligned\n");
}

// The BLAS starts no threads of its own: the process never holds more threads than the calling
// thread and TBB's workers, before, during or after large products (a threaded BLAS keeps a pool
// of its own from the moment it is loaded; a BLAS that threads each call would add more).
TYPED_TEST(BlasConcurrency, BlasStartsNoThreads) {
  using T = TypeParam;
  long const limit = tbb::info::default_concurrency();
  long const n = 320;
  Problem<T> p('N', 'N', n, n, n, 0);
  auto run_tbb = [&] {
    nerva::tbb_gemm<T>(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(),
                       &p.ldb, p.C.data(), &p.ldc, T(0), T(1));
  };
  for (int r = 0; r < 3; ++r) run_tbb();  // TBB's workers exist from here on
  long const before = thread_count();
  EXPECT_LE(before, limit);

  nerva::gemm(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(), &p.ldb,
              p.C.data(), &p.ldc, T(0), T(1));
  EXPECT_EQ(settled_thread_count(before), before) << "after one large gemm call";

  // Sample the count from a watcher thread (itself one more) while blocks run on TBB workers.
  std::atomic<bool> done{false};
  std::atomic<long> most{0};
  std::thread watcher([&] {
    while (!done.load()) {
      long const now = thread_count();
      if (now > most.load()) most.store(now);
      std::this_thread::yield();
    }
  });
  for (int r = 0; r < 5; ++r) run_tbb();
  done.store(true);
  watcher.join();
  EXPECT_LE(most.load(), limit + 1) << "during tbb_gemm";
  EXPECT_EQ(settled_thread_count(before), before) << "after tbb_gemm";
}

// No threaded OpenBLAS is mapped into the process: the loader cannot have swapped one in for
// the single-threaded BLAS that gemm uses.
TEST(BlasLinkage, NoThreadedOpenBlasIsLoaded) {
  std::ifstream maps("/proc/self/maps");
  std::string line, threaded;
  while (std::getline(maps, line))
    if (line.find("openblas") != std::string::npos &&
        (line.find("pthread") != std::string::npos || line.find("openmp") != std::string::npos))
      threaded = line;
  EXPECT_EQ(threaded, "");
}

}  // namespace
