// ranged_copy: two extent vectors, a level and a group length from the input,
// for each element type; the destination must hold the source's common corner
// and keep its old contents everywhere else.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_input.hpp"
#include "nerva/copy.hpp"

namespace {

constexpr std::size_t kMaxElements = 1 << 16;

template <class T>
void run(std::vector<std::size_t> const& srcSizes, std::vector<std::size_t> const& dstSizes,
         std::size_t group) {
  std::size_t const levels = srcSizes.size();
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < levels; ++i) {
    srcTotal *= srcSizes[i];
    dstTotal *= dstSizes[i];
  }
  std::vector<T> src(srcTotal);
  for (std::size_t i = 0; i < srcTotal; ++i) src[i] = static_cast<T>(i % 97 + 1);
  T const untouched = static_cast<T>(0);
  std::vector<T> dst(dstTotal, untouched);
  nerva::ranged_copy<T>(src.data(), srcSizes.data(), dst.data(), dstSizes.data(), levels - 1,
                        static_cast<long>(group));

  std::vector<std::size_t> idx(levels, 0);
  for (std::size_t e = 0; e < dstTotal; e += group) {
    bool inside = true;
    std::size_t srcAt = 0, pitch = group;
    for (std::size_t i = 0; i < levels; ++i) {
      inside = inside && idx[i] < srcSizes[i];
      srcAt += idx[i] * pitch;
      pitch *= srcSizes[i];
    }
    for (std::size_t g = 0; g < group; ++g)
      FUZZ_CHECK(dst[e + g] == (inside ? src[srcAt + g] : untouched));
    for (std::size_t i = 0; i < levels; ++i) {
      if (++idx[i] < dstSizes[i]) break;
      idx[i] = 0;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  std::size_t const levels = in.in(1, 4);
  std::size_t const group = in.in(1, 9);
  std::vector<std::size_t> srcSizes(levels), dstSizes(levels);
  std::size_t srcTotal = group, dstTotal = group;
  for (std::size_t i = 0; i < levels; ++i) {
    std::size_t const big = std::max(srcTotal, dstTotal);
    std::size_t const cap = std::min<std::size_t>(40, kMaxElements / std::max<std::size_t>(big, 1));
    srcSizes[i] = in.in(0, cap);
    dstSizes[i] = in.in(0, cap);
    srcTotal *= std::max<std::size_t>(srcSizes[i], 1);
    dstTotal *= std::max<std::size_t>(dstSizes[i], 1);
  }
  switch (in.in(0, 3)) {
    case 0:
      run<double>(srcSizes, dstSizes, group);
      break;
    case 1:
      run<float>(srcSizes, dstSizes, group);
      break;
    case 2:
      run<unsigned char>(srcSizes, dstSizes, group);
      break;
    default:
      run<long>(srcSizes, dstSizes, group);
      break;
  }
  return 0;
}
