// ranged_copy: two extent vectors, a level and a group length from the input, for each element
// type, against the tests' naive reference: the destination must hold the source's common
// corner and keep its old contents (zeros) everywhere else.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_support.hpp"
#include "nerva/copy.hpp"
#include "ranged_copy_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  std::size_t const levels = in.in(1, 4), group = in.in(1, 9);
  std::vector<std::size_t> srcSizes(levels), dstSizes(levels);
  std::size_t srcRoom = 65536 / group, dstRoom = srcRoom;  // 65536 elements at most on each side
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < levels; ++i) {
    srcTotal *= srcSizes[i] = in.extent(0, 40, srcRoom);
    dstTotal *= dstSizes[i] = in.extent(0, 40, dstRoom);
  }
  with_type<double, float, unsigned char, long>(in.in(0, 3), [&](auto zero) {
    using T = decltype(zero);
    std::vector<T> src(srcTotal), dst(dstTotal);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i % 97 + 1);
    auto const want = ranged_copy_reference(src, srcSizes, dst, dstSizes, group);
    nerva::ranged_copy<T>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), levels - 1,
                          static_cast<long>(group));
    FUZZ_CHECK(dst == want);
  });
  return 0;
}
