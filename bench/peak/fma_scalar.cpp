// Plain multiply and add for CPUs without FMA vectors: the peak of the code a
// portable build would run.
#include "fma_kernels.hpp"

namespace peak {
namespace {

constexpr int kAcc = 8;

template <typename T>
T loop(long rounds, T a, T b) {
  T acc[kAcc];
  for (int j = 0; j < kAcc; ++j) acc[j] = T(j);
  for (long r = 0; r < rounds; ++r)
    for (int j = 0; j < kAcc; ++j) acc[j] = acc[j] * a + b;
  T sum = 0;
  for (T v : acc) sum += v;
  return sum;
}

float f32(long rounds, float a, float b) { return loop(rounds, a, b); }
double f64(long rounds, double a, double b) { return loop(rounds, a, b); }

}  // namespace

FmaKernel scalar_kernel() { return {"scalar", &f32, &f64, 2 * kAcc, 2 * kAcc}; }

}  // namespace peak
