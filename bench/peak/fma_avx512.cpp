// Built with -mavx512f; called only when the CPU reports AVX-512F.
#include <immintrin.h>

#include "fma_kernels.hpp"

namespace peak {
namespace {

// Two FMA ports with a latency of 4 cycles keep 8 registers in flight; 16
// leave room for a longer latency or a third port.
constexpr int kAcc = 16;

float f32(long rounds, float a, float b) {
  __m512 const va = _mm512_set1_ps(a), vb = _mm512_set1_ps(b);
  __m512 acc[kAcc];
  for (int j = 0; j < kAcc; ++j) acc[j] = _mm512_set1_ps(float(j));
  for (long r = 0; r < rounds; ++r)
    for (int j = 0; j < kAcc; ++j) acc[j] = _mm512_fmadd_ps(acc[j], va, vb);
  for (int j = 1; j < kAcc; ++j) acc[0] = _mm512_add_ps(acc[0], acc[j]);
  alignas(64) float lanes[16];
  _mm512_store_ps(lanes, acc[0]);
  float sum = 0;
  for (float v : lanes) sum += v;
  return sum;
}

double f64(long rounds, double a, double b) {
  __m512d const va = _mm512_set1_pd(a), vb = _mm512_set1_pd(b);
  __m512d acc[kAcc];
  for (int j = 0; j < kAcc; ++j) acc[j] = _mm512_set1_pd(double(j));
  for (long r = 0; r < rounds; ++r)
    for (int j = 0; j < kAcc; ++j) acc[j] = _mm512_fmadd_pd(acc[j], va, vb);
  for (int j = 1; j < kAcc; ++j) acc[0] = _mm512_add_pd(acc[0], acc[j]);
  alignas(64) double lanes[8];
  _mm512_store_pd(lanes, acc[0]);
  double sum = 0;
  for (double v : lanes) sum += v;
  return sum;
}

}  // namespace

FmaKernel avx512_kernel() { return {"avx512", &f32, &f64, 2 * 16 * kAcc, 2 * 8 * kAcc}; }

}  // namespace peak
