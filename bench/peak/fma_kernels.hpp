#pragma once

// Loops of independent multiply-adds, one per instruction set, for the FMA
// peak of the host. Each runs `rounds` rounds over its accumulators
// (acc = acc * a + b, which converges and never overflows) and returns a sum
// of them so that no round can be dropped.

namespace peak {

struct FmaKernel {
  char const* isa;
  float (*f32)(long rounds, float a, float b);
  double (*f64)(long rounds, double a, double b);
  long f32_flops_per_round;  // 2 per lane per accumulator
  long f64_flops_per_round;
};

FmaKernel avx512_kernel();  // AVX-512F: 16 zmm accumulators
FmaKernel avx2_kernel();    // AVX2 + FMA: 12 ymm accumulators
FmaKernel scalar_kernel();  // portable: multiply and add, 8 scalar accumulators

}  // namespace peak
