// Dense permutations of 1-, 4- and 8-byte elements: shape, permutation and
// element width from the input, checked element by element against a naive
// index walk, through the public routine and through every instruction set's
// kernels with and without streaming stores.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_input.hpp"
#include "permute/dispatch.hpp"
#include "permute/execute.hpp"
#include "qel_permute/permute.hpp"

namespace {

constexpr std::size_t kMaxElements = 1 << 16;
constexpr std::size_t kMaxDims = 7;

// dst[j] = src[i] where destination index j has coordinate c[d] in
// destination dimension d = source coordinate in dimension perm[d] - 1.
void reference(std::uint8_t const* src, std::uint8_t* dst, std::size_t width,
               std::vector<std::size_t> const& sizes, std::vector<std::size_t> const& perm,
               std::size_t total) {
  std::size_t const n = sizes.size();
  std::vector<std::size_t> srcStride(n, 1);
  for (std::size_t i = 1; i < n; ++i) srcStride[i] = srcStride[i - 1] * sizes[i - 1];
  std::vector<std::size_t> coord(n, 0);
  for (std::size_t j = 0; j < total; ++j) {
    std::size_t offset = 0;
    for (std::size_t d = 0; d < n; ++d) offset += coord[d] * srcStride[perm[d] - 1];
    std::memcpy(dst + j * width, src + offset * width, width);
    for (std::size_t d = 0; d < n; ++d) {
      if (++coord[d] < sizes[perm[d] - 1]) break;
      coord[d] = 0;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  std::size_t const widths[] = {1, 4, 8};
  std::size_t const width = widths[in.in(0, 2)];
  std::size_t const n = in.in(1, kMaxDims);

  std::vector<std::size_t> sizes(n);
  std::size_t total = 1;
  for (std::size_t i = 0; i < n; ++i) {
    // Extents up to 300 but never past the element budget; 0 is allowed.
    std::size_t const cap = total == 0 ? 300 : std::min<std::size_t>(300, kMaxElements / total);
    sizes[i] = in.in(0, cap);
    total *= sizes[i];
  }

  // Fisher-Yates from the input: a true permutation, one-based.
  std::vector<std::size_t> perm(n);
  for (std::size_t i = 0; i < n; ++i) perm[i] = i + 1;
  for (std::size_t i = n; i > 1; --i) std::swap(perm[i - 1], perm[in.in(0, i - 1)]);

  std::vector<std::uint8_t> src(total * width);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<std::uint8_t>(i * 131 + i / 7);
  std::vector<std::uint8_t> want(total * width);
  reference(src.data(), want.data(), width, sizes, perm, total);

  // The destination starts as garbage so that a skipped element shows.
  std::vector<std::uint8_t> got(total * width, 0xCD);
  std::size_t const route = in.in(0, 4);
  if (route == 0) {
    if (width == 1)
      qel_permute::Permute<1>(src.data(), got.data(), n, sizes.data(), perm.data(), nullptr,
                              nullptr);
    if (width == 4)
      qel_permute::Permute<4>(src.data(), got.data(), n, sizes.data(), perm.data(), nullptr,
                              nullptr);
    if (width == 8)
      qel_permute::Permute<8>(src.data(), got.data(), n, sizes.data(), perm.data(), nullptr,
                              nullptr);
  } else {
    using qel_permute::detail::Isa;
    Isa const isas[] = {Isa::Scalar, Isa::Sse2, Isa::Avx2, Isa::Avx512};
    Isa isa = isas[route - 1];
    if (!qel_permute::detail::isa_supported(isa)) isa = Isa::Scalar;
    // Streaming stores from the first byte on, or never.
    std::size_t const streamBytes = in.byte() % 2 == 0 ? 0 : SIZE_MAX;
    qel_permute::detail::permute(isa, width, src.data(), got.data(), n, sizes.data(), perm.data(),
                                 streamBytes);
  }
  FUZZ_CHECK(got == want);
  return 0;
}
