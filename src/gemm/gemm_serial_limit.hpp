#pragma once

#include <cstdint>

namespace nerva {

// Largest m and n that tbb_gemm hands to a single BLAS call, and the grain of its blocks.
template <typename T>
inline constexpr std::uint64_t GemmSerialLimit = 0;
template <>
inline constexpr std::uint64_t GemmSerialLimit<float> = 256;
template <>
inline constexpr std::uint64_t GemmSerialLimit<double> = 128;

}  // namespace nerva
