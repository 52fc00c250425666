// ranged_copy: two extent vectors, a level and a group length from the input, for each element
// type, against the tests' naive reference: the destination must hold the source's common
// corner and keep its old contents (zeros) everywhere else.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "../tests/concurrency/ranged_copy_reference.hpp"
#include "fuzz_input.hpp"
#include "nerva/copy.hpp"

namespace {

using Sizes = std::vector<std::size_t>;

template <class T>
void run(Sizes const& srcSizes, Sizes const& dstSizes, std::size_t group) {
  std::size_t const levels = srcSizes.size();
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < levels; ++i) {
    srcTotal *= srcSizes[i];
    dstTotal *= dstSizes[i];
  }
  std::vector<T> src(srcTotal), dst(dstTotal, T(0));
  for (std::size_t i = 0; i < srcTotal; ++i) src[i] = static_cast<T>(i % 97 + 1);
  auto const want = ranged_copy_reference(src, srcSizes, dst, dstSizes, group);
  nerva::ranged_copy<T>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), levels - 1,
                        static_cast<long>(group));
  FUZZ_CHECK(dst == want);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  std::size_t const levels = in.in(1, 4), group = in.in(1, 9);
  Sizes srcSizes(levels), dstSizes(levels);
  std::size_t big = group;  // at most 65536 elements on either side
  for (std::size_t i = 0; i < levels; ++i) {
    std::size_t const cap = std::min<std::size_t>(40, 65536 / big);
    srcSizes[i] = in.in(0, cap);
    dstSizes[i] = in.in(0, cap);
    big *= std::max<std::size_t>({srcSizes[i], dstSizes[i], 1});
  }
  void (*const runs[])(Sizes const&, Sizes const&, std::size_t) = {&run<double>, &run<float>,
                                                                   &run<unsigned char>, &run<long>};
  runs[in.in(0, 3)](srcSizes, dstSizes, group);
  return 0;
}
