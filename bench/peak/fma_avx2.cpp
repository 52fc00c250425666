// Built with -mavx2 -mfma; called only when the CPU reports both.
#include <immintrin.h>

#include "fma_kernels.hpp"

namespace peak {
namespace {

// 16 ymm registers: 12 accumulators and the two operands.
constexpr int kAcc = 12;

float f32(long rounds, float a, float b) {
  __m256 const va = _mm256_set1_ps(a), vb = _mm256_set1_ps(b);
  __m256 acc[kAcc];
  for (int j = 0; j < kAcc; ++j) acc[j] = _mm256_set1_ps(float(j));
  for (long r = 0; r < rounds; ++r)
    for (int j = 0; j < kAcc; ++j) acc[j] = _mm256_fmadd_ps(acc[j], va, vb);
  for (int j = 1; j < kAcc; ++j) acc[0] = _mm256_add_ps(acc[0], acc[j]);
  alignas(32) float lanes[8];
  _mm256_store_ps(lanes, acc[0]);
  float sum = 0;
  for (float v : lanes) sum += v;
  return sum;
}

double f64(long rounds, double a, double b) {
  __m256d const va = _mm256_set1_pd(a), vb = _mm256_set1_pd(b);
  __m256d acc[kAcc];
  for (int j = 0; j < kAcc; ++j) acc[j] = _mm256_set1_pd(double(j));
  for (long r = 0; r < rounds; ++r)
    for (int j = 0; j < kAcc; ++j) acc[j] = _mm256_fmadd_pd(acc[j], va, vb);
  for (int j = 1; j < kAcc; ++j) acc[0] = _mm256_add_pd(acc[0], acc[j]);
  alignas(32) double lanes[4];
  _mm256_store_pd(lanes, acc[0]);
  return lanes[0] + lanes[1] + lanes[2] + lanes[3];
}

}  // namespace

FmaKernel avx2_kernel() { return {"avx2+fma", &f32, &f64, 2 * 8 * kAcc, 2 * 4 * kAcc}; }

}  // namespace peak
