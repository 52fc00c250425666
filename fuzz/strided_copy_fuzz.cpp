// strided_copy and strided_copy_mapping: selection, trailing extents, element type, channelDim
// and a caller-built or internal offset table from the input; the gathered block and every word of
// a built table are compared with the tests' naive walk of the selection, and every block made
// through the allocator must be gone at the end.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "../tests/copy/selection.hpp"
#include "fuzz_support.hpp"
#include "nerva/copy.hpp"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  Selection s;
  std::size_t const n = in.in(0, 5);
  // Selected dimensions are non-empty unless the last byte empties one; the trailing two may be
  // 0. At most 65536 elements in all.
  std::size_t room = 65536;
  for (std::size_t i = 0; i < n + 2; ++i) s.sizes.push_back(in.extent(i < n ? 1 : 0, 64, room));
  for (std::size_t i = 0; i < n; ++i) {
    s.firsts.push_back(in.in(0, s.sizes[i] - 1));
    s.lasts.push_back(in.in(s.firsts[i] + 1, s.sizes[i]));
    s.increments.push_back(in.in(1, 9));
  }
  std::size_t const channelDim = in.in(0, 2), type = in.in(0, 2);
  bool const given = in.byte() % 2 == 1, checkin = in.byte() % 2 == 1;
  // Read last, so that older inputs keep their meaning: empties dimension e - 1 (increment 1).
  std::size_t const e = in.byte() % 8;
  if (e >= 1 && e <= n) {
    s.lasts[e - 1] = s.firsts[e - 1];
    s.increments[e - 1] = 1;
  }
  std::size_t const planeSize = s.planeSize(), planes = s.planes();
  std::vector<std::size_t> offsets;
  collect(s, n, 0, offsets);
  std::size_t const k = offsets.size();
  // The whole table: the offsets, the strides (the single word 1 with no dimensions), the counts.
  std::vector<std::size_t> words(offsets);
  words.push_back(1);
  for (std::size_t i = 1; i < n; ++i) words.push_back(words.back() * s.sizes[i - 1]);
  for (std::size_t i = 0; i < n; ++i)
    words.push_back((s.lasts[i] - s.firsts[i] + s.increments[i] - 1) / s.increments[i]);
  with_type<double, float, unsigned char>(type, [&](auto zero) {
    using T = decltype(zero);
    std::vector<T> src(planeSize * planes);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<T>(i * 37 + 11);
    {
      nerva::SharedMemoryPool pool(counting_heap(), &abort_on_error);
      std::unique_ptr<nerva::CNNMemoryBlock> mapping;
      if (given) {
        mapping = nerva::strided_copy_mapping(s.sizes.data(), s.firsts.data(), s.lasts.data(),
                                              s.increments.data(), n, counting_heap());
        auto const* table = static_cast<std::size_t const*>(mapping->data);
        FUZZ_CHECK(mapping->allocated_size() == words.size() * sizeof(std::size_t));
        FUZZ_CHECK(std::equal(words.begin(), words.end(), table));
      }
      auto block = nerva::strided_copy<T>(
          pool, src.data(), s.sizes.data(), s.firsts.data(), s.lasts.data(), s.increments.data(), n,
          channelDim, mapping ? static_cast<std::size_t const*>(mapping->data) : nullptr);
      FUZZ_CHECK(block->allocated_size() == k * planes * sizeof(T));
      auto const* got = static_cast<T const*>(block->data);
      for (std::size_t p = 0; p < planes; ++p)
        for (std::size_t j = 0; j < k; ++j)
          FUZZ_CHECK(channelDim != 0 ? got[p * k + j] == src[p * planeSize + offsets[j]]
                                     : got[j * planes + p] == src[offsets[j] * planes + p]);
      if (checkin) pool.checkin(std::move(block));
    }
    FUZZ_CHECK(live_blocks == 0);
  });
  return 0;
}
