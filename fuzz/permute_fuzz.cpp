// Dense permutations of 1-, 4- and 8-byte elements: shape, permutation and element width from
// the input, checked against the tests' naive index walk, through the public routine and through
// every instruction set's kernels with and without streaming stores, and through the parallel
// split with no serial cut-off and 1 KiB tasks.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../tests/permute/permute_reference.hpp"
#include "fuzz_support.hpp"
#include "permute/dispatch.hpp"
#include "permute/execute.hpp"
#include "qel_permute/permute.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  std::size_t const route = in.in(0, 2);
  std::size_t const widths[] = {1, 4, 8}, width = widths[route];
  std::size_t const n = in.in(1, 7);
  std::vector<std::size_t> sizes(n), perm(n);
  std::size_t total = 1, room = 65536;  // extents up to 300 (0 allowed), 65536 elements in all
  for (std::size_t i = 0; i < n; ++i) {
    total *= sizes[i] = in.extent(0, 300, room);
    perm[i] = i + 1;
  }
  for (std::size_t i = n; i > 1; --i) std::swap(perm[i - 1], perm[in.in(0, i - 1)]);

  std::vector<std::uint8_t> src(total * width), want(total * width);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<std::uint8_t>(i * 131 + i / 7);
  permute_test::reference_permute(width, src.data(), want.data(), sizes, perm);

  // The destination starts as garbage so that a skipped element shows.
  std::vector<std::uint8_t> got(total * width, 0xCD);
  using qel_permute::detail::Isa;
  // The public routine, the kernels of instruction set path - 1 (if this CPU runs it), the split.
  std::size_t const path = in.in(0, 6);
  if (path == 0) {
    decltype(&qel_permute::Permute<1>) const routines[] = {
        &qel_permute::Permute<1>, &qel_permute::Permute<4>, &qel_permute::Permute<8>};
    routines[route](src.data(), got.data(), n, sizes.data(), perm.data(), nullptr, nullptr);
  } else {
    // Streaming stores from the first byte on, or never.
    std::size_t const streamBytes = in.byte() % 2 == 0 ? 0 : SIZE_MAX;
    if (path == 6) {
      qel_permute::detail::permute_parallel(qel_permute::detail::best_isa(), width, src.data(),
                                            got.data(), n, sizes.data(), perm.data(), streamBytes,
                                            0, 1024);
    } else {
      Isa const isa = static_cast<Isa>(path - 1);
      qel_permute::detail::permute(qel_permute::detail::isa_supported(isa) ? isa : Isa::Scalar,
                                   width, src.data(), got.data(), n, sizes.data(), perm.data(),
                                   streamBytes);
    }
  }
  FUZZ_CHECK(got == want);
  return 0;
}
