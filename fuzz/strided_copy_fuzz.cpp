// strided_copy and strided_copy_mapping: selection, trailing extents, element
// type, channelDim and a caller-built or internal offset table from the
// input; the gathered block is compared with a naive walk of the selection
// and every block made through the allocator must be gone at the end.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "counting_heap.hpp"
#include "fuzz_input.hpp"
#include "nerva/copy.hpp"
#include "nerva/memory.hpp"

namespace {

constexpr std::size_t kMaxElements = 1 << 16;

struct Case {
  std::vector<std::size_t> sizes, firsts, lasts, increments;
  std::size_t numDims = 0;
};

template <class T>
void run(FuzzInput& in, Case const& c, std::size_t channelDim) {
  std::size_t const n = c.numDims;
  std::size_t planeSize = 1;
  for (std::size_t i = 0; i < n; ++i) planeSize *= c.sizes[i];
  std::size_t const planes = c.sizes[n] * c.sizes[n + 1];
  std::vector<T> src(planeSize * planes);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i * 37 + 11);

  // Selected indices per dimension, walked as an odometer, dimension 0 fastest.
  std::vector<std::size_t> offsets;
  {
    std::vector<std::size_t> idx(c.firsts.begin(), c.firsts.end());
    for (;;) {
      std::size_t offset = 0, stride = 1;
      for (std::size_t i = 0; i < n; ++i) {
        offset += idx[i] * stride;
        stride *= c.sizes[i];
      }
      offsets.push_back(offset);
      std::size_t i = 0;
      for (; i < n; ++i) {
        idx[i] += c.increments[i];
        if (idx[i] < c.lasts[i]) break;
        idx[i] = c.firsts[i];
      }
      if (i == n) break;
    }
  }
  std::size_t const k = offsets.size();

  {
    nerva::SharedMemoryPool pool(counting_heap::functions(), &counting_heap::abort_on_error);
    std::unique_ptr<nerva::CNNMemoryBlock> mapping;
    if (in.byte() % 2 == 1) {
      mapping = nerva::strided_copy_mapping(c.sizes.data(), c.firsts.data(), c.lasts.data(),
                                            c.increments.data(), n, counting_heap::functions());
      auto const* table = static_cast<std::size_t const*>(mapping->data);
      for (std::size_t j = 0; j < k; ++j) FUZZ_CHECK(table[j] == offsets[j]);
    }
    auto block = nerva::strided_copy<T>(
        pool, src.data(), c.sizes.data(), c.firsts.data(), c.lasts.data(), c.increments.data(), n,
        channelDim, mapping ? static_cast<std::size_t const*>(mapping->data) : nullptr);
    FUZZ_CHECK(block->allocated_size() == k * planes * sizeof(T));
    auto const* got = static_cast<T const*>(block->data);
    for (std::size_t p = 0; p < planes; ++p)
      for (std::size_t j = 0; j < k; ++j) {
        if (channelDim != 0)
          FUZZ_CHECK(got[p * k + j] == src[p * planeSize + offsets[j]]);
        else
          FUZZ_CHECK(got[j * planes + p] == src[offsets[j] * planes + p]);
      }
    if (in.byte() % 2 == 1) pool.checkin(std::move(block));
  }
  FUZZ_CHECK(counting_heap::live() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  Case c;
  c.numDims = in.in(0, 5);
  std::size_t total = 1;
  for (std::size_t i = 0; i < c.numDims + 2; ++i) {
    // Selected dimensions are non-empty (callers guarantee a selection in
    // each); the trailing two may be 0.
    bool const selected = i < c.numDims;
    std::size_t const cap =
        std::max<std::size_t>(1, std::min<std::size_t>(64, kMaxElements / total));
    std::size_t const extent = in.in(selected ? 1 : 0, cap);
    c.sizes.push_back(extent);
    total *= std::max<std::size_t>(extent, 1);
  }
  for (std::size_t i = 0; i < c.numDims; ++i) {
    std::size_t const first = in.in(0, c.sizes[i] - 1);
    c.firsts.push_back(first);
    c.lasts.push_back(in.in(first + 1, c.sizes[i]));
    c.increments.push_back(in.in(1, 9));
  }
  std::size_t const channelDim = in.in(0, 2);
  switch (in.in(0, 2)) {
    case 0:
      run<double>(in, c, channelDim);
      break;
    case 1:
      run<float>(in, c, channelDim);
      break;
    default:
      run<unsigned char>(in, c, channelDim);
      break;
  }
  return 0;
}
