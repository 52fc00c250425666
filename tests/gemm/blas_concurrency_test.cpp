#include <dirent.h>
#include <gtest/gtest.h>
#include <oneapi/tbb/info.h>
#include <oneapi/tbb/parallel_for.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "gemm/gemm_reference.hpp"
#include "nerva/gemm.hpp"

namespace {

using gemm_test::Problem;

long thread_count() {
  long count = 0;
  if (DIR* dir = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(dir))
      if (entry->d_name[0] != '.') ++count;
    closedir(dir);
  }
  return count;
}

template <typename T>
class BlasConcurrency : public ::testing::Test {};
TYPED_TEST_SUITE(BlasConcurrency, gemm_test::ElementTypes);

// Many independent 128 x 128 x 128 products computed by gemm on TBB workers at the same time
// must equal the same products computed one at a time. At this size the BLAS packs operands into
// buffers from a shared table; with the table unlocked, two workers get the same buffer and
// this test fails in most runs (how often depends on how often the workers meet).
TYPED_TEST(BlasConcurrency, ConcurrentCallsFromTbbWorkersAreExact) {
  using T = TypeParam;
  long const size = 128, problems = 32, repeats = 300;
  std::vector<Problem<T>> work;
  std::vector<std::vector<T>> serial;
  for (long p = 0; p < problems; ++p) {
    // Equal shapes keep the workers' calls in step, so that they enter the BLAS together.
    work.emplace_back('N', 'N', size, size, size, 0, static_cast<unsigned>(p + 1));
    Problem<T>& w = work.back();
    nerva::gemm(&w.transa, &w.transb, &w.m, &w.n, &w.k, w.A.data(), &w.lda, w.B.data(), &w.ldb,
                w.C.data(), &w.ldc, T(0), T(1));
    serial.push_back(w.C);
  }
  ASSERT_TRUE(
      gemm_test::same_matrix(serial[0], gemm_test::reference(work[0], T(0), T(1)), work[0].ldc));

  // Each task repeats its product back to back, so calls from different workers keep meeting.
  std::atomic<long> wrong{0};
  tbb::parallel_for(
      0L, problems,
      [&](long p) {
        Problem<T>& w = work[p];
        for (long r = 0; r < repeats; ++r) {
          std::fill(w.C.begin(), w.C.end(), T(-1));
          nerva::gemm(&w.transa, &w.transb, &w.m, &w.n, &w.k, w.A.data(), &w.lda, w.B.data(),
                      &w.ldb, w.C.data(), &w.ldc, T(0), T(1));
          // The fill overwrote the padding rows too; compare the m x n part only.
          for (long j = 0; j < w.n; ++j)
            for (long i = 0; i < w.m; ++i)
              if (w.C[i + j * w.ldc] != serial[p][i + j * w.ldc]) {
                ++wrong;
                return;
              }
        }
      },
      tbb::simple_partitioner());
  EXPECT_EQ(wrong.load(), 0) << "tasks of " << problems << " saw a wrong product";
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
  run_tbb();  // TBB's workers exist from here on
  long const before = thread_count();
  EXPECT_LE(before, limit);

  nerva::gemm(&p.transa, &p.transb, &p.m, &p.n, &p.k, p.A.data(), &p.lda, p.B.data(), &p.ldb,
              p.C.data(), &p.ldc, T(0), T(1));
  EXPECT_EQ(thread_count(), before) << "after one large gemm call";

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
  EXPECT_EQ(thread_count(), before) << "after tbb_gemm";
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
