#include <unistd.h>

#include "gemm/brgemm_kernels.hpp"

namespace nerva::gemm_detail {
namespace {

BrgemmIsa detect_isa() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return BrgemmIsa::Avx512;
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return BrgemmIsa::Avx2;
  return BrgemmIsa::Portable;
}

template <typename T>
void run_kernels(BrgemmIsa isa, BrgemmArgs<T> const& args) {
  switch (isa) {
    case BrgemmIsa::Avx512:
      return brgemm_avx512(args);
    case BrgemmIsa::Avx2:
      return brgemm_avx2(args);
    case BrgemmIsa::Portable:
      return brgemm_portable(args);
  }
}

}  // namespace

BrgemmIsa brgemm_best_isa() {
  static BrgemmIsa const isa = detect_isa();
  return isa;
}

bool brgemm_isa_supported(BrgemmIsa isa) { return int(isa) <= int(brgemm_best_isa()); }

long brgemm_batch_bytes() {
  static long const bytes = [] {
    long const l2 = sysconf(_SC_LEVEL2_CACHE_SIZE);
    return l2 > 0 ? l2 / 2 : 512L << 10;
  }();
  return bytes;
}

template <typename T>
void brgemm_run(BrgemmIsa isa, BrgemmArgs<T> args, long batch_bytes) {
  if (args.m <= 0 || args.n <= 0) return;
  if (args.k <= 0 || args.count <= 0) {  // no products: C := beta * C
    args.count = 0;
    return run_kernels(isa, args);
  }
  // Every column block of C reads all of A: a batch whose A exceeds the
  // budget runs in parts that each fit, the first with beta and the others
  // adding to what it stored.
  long const product_bytes = args.m * args.k * long(sizeof(T));
  long const most = batch_bytes / product_bytes > 0 ? batch_bytes / product_bytes : 1;
  long const parts = (args.count + most - 1) / most;
  long const base = args.count / parts, extra = args.count % parts;
  BrgemmArgs<T> part = args;
  for (long p = 0, i0 = 0; p < parts; ++p) {
    part.count = base + (p < extra ? 1 : 0);
    part.A = args.A + i0;
    part.B = args.B + i0;
    part.beta = p == 0 ? args.beta : T(1);
    run_kernels(isa, part);
    i0 += part.count;
  }
}

template void brgemm_run<float>(BrgemmIsa, BrgemmArgs<float>, long);
template void brgemm_run<double>(BrgemmIsa, BrgemmArgs<double>, long);

}  // namespace nerva::gemm_detail
