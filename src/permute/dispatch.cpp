#include "permute/dispatch.hpp"

namespace qel_permute::detail {
namespace {

Isa detect_isa() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw")) {
    return __builtin_cpu_supports("avx512vbmi") ? Isa::Avx512Vbmi : Isa::Avx512;
  }
  if (__builtin_cpu_supports("avx2")) return Isa::Avx2;
  return Isa::Sse2;
}

}  // namespace

Isa best_isa() {
  static Isa const isa = detect_isa();
  return isa;
}

bool isa_supported(Isa isa) { return static_cast<int>(isa) <= static_cast<int>(best_isa()); }

TransposeFn transpose_for(Isa isa, std::size_t width) {
  if (!isa_supported(isa)) return nullptr;
  switch (isa) {
    case Isa::Scalar:
      return transpose_scalar(width);
    case Isa::Sse2:
      return transpose_sse2(width);
    case Isa::Avx2:
      return transpose_avx2(width);
    case Isa::Avx512:
      return transpose_avx512(width);
    case Isa::Avx512Vbmi:
      return transpose_avx512vbmi(width);
  }
  return nullptr;
}

}  // namespace qel_permute::detail
