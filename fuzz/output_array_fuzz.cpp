// Output arrays through a sequence of operations decoded from the input: construction from
// bounds (strides and padding optional, KORVAL or chained layout), SetDataRanges and reformats to
// any channel and observation positions (the named formats and Relinquish are the array tests').
// A shadow copy indexed by logical coordinates (default order: data dimensions, channel,
// observation, sequence) says what every element must hold after each step; every block made
// through the counting allocator must be gone at the end.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <numeric>
#include <vector>

#include "fuzz_support.hpp"
#include "nerva/output_array.hpp"
#include "ranged_copy_reference.hpp"

namespace {

using Sizes = std::vector<std::size_t>;

std::size_t total_of(Sizes const& sizes) {
  return std::accumulate(sizes.begin(), sizes.end(), std::size_t{1}, std::multiplies<>());
}

// Buffer offset of each logical element, from the array's dimension map alone (column-major over
// layout positions), once the array's sizes are checked against the shadow's.
template <class T>
Sizes offsets_of(nerva::FormattedOutputArray<T> const& a, Sizes const& sizes) {
  std::size_t const* map = a.GetDimensionPermutation();
  FUZZ_CHECK(a.NumDimensions() == sizes.size() && a.TotalNumElem() == total_of(sizes));
  Sizes stride(sizes.size(), 1), offsets(total_of(sizes), 0);
  for (std::size_t k = 0; k < sizes.size(); ++k) {
    FUZZ_CHECK(a.DataSize(k) == sizes[k]);
    for (std::size_t j = 0; j < sizes.size(); ++j)
      if (map[j] < map[k]) stride[k] *= sizes[j];
  }
  for (std::size_t e = 0; e < offsets.size(); ++e)
    for (std::size_t k = 0, rest = e; k < sizes.size(); rest /= sizes[k++])
      offsets[e] += rest % sizes[k] * stride[k];
  return offsets;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  with_type<float, double, unsigned char, long>(in.in(0, 3), [&](auto zero) {
    using T = decltype(zero);
    std::size_t const n = in.in(1, 3), channels = in.in(1, 4), observations = in.in(1, 3);
    bool const chained = in.byte() % 2, withStrides = in.byte() % 2, withPadding = in.byte() % 2;
    Sizes firsts(n), lasts(n), strides(n, 1), padding(2 * n, 0), sizes(n + 3, 1);
    for (std::size_t i = 0; i < n; ++i) {
      firsts[i] = in.in(0, 6);
      lasts[i] = in.in(0, 12);
      if (withStrides) strides[i] = in.in(1, 4);
      padding[i] = withPadding ? in.in(0, 2) : 0;
      padding[n + i] = withPadding ? in.in(0, 2) : 0;
      // Positions first, first + stride, ... below last, plus the padding.
      sizes[i] = (lasts[i] > firsts[i] ? (lasts[i] - firsts[i] - 1) / strides[i] + 1 : 0) +
                 padding[i] + padding[n + i];
    }
    sizes[n] = channels;
    sizes[n + 1] = observations;
    std::vector<long> values(total_of(sizes), 0);  // allocated with Zeros
    {
      nerva::SharedMemoryPool pool(counting_heap(), &abort_on_error);
      nerva::FormattedOutputArray<T> out(pool, firsts.data(), lasts.data(),
                                         withStrides ? strides.data() : nullptr, n, channels,
                                         observations, chained ? 0 : n, chained ? 1 : n + 1,
                                         withPadding ? padding.data() : nullptr, nerva::Zeros);
      FUZZ_CHECK((out.Data() == nullptr) == values.empty());
      auto const expect_contents = [&](T const* at) {
        Sizes const offsets = offsets_of(out, sizes);
        for (std::size_t e = 0; e < offsets.size(); ++e)
          FUZZ_CHECK(at[offsets[e]] == static_cast<T>(values[e]));
      };
      // Zeros, then known contents written through the array's layout.
      expect_contents(out.Data());
      Sizes const offsets = offsets_of(out, sizes);
      for (std::size_t e = 0; e < offsets.size(); ++e)
        out.Data()[offsets[e]] = static_cast<T>(values[e] = static_cast<long>(e % 113 + 1));

      // New extents keep the common corner and zero the rest; they need the chained layout and
      // the data in the allocated block (no reformat yet).
      for (std::size_t step = chained && !values.empty() ? in.in(0, 2) : 0; step > 0; --step) {
        Sizes next = sizes;
        for (std::size_t i = 0; i < n; ++i) next[i] = in.in(1, 12);
        values = ranged_copy_reference(values, sizes, std::vector<long>(total_of(next)), next, 1);
        sizes = next;
        out.SetDataRanges(sizes.data());
        expect_contents(out.Data());
      }

      // Reformats never change what a logical element holds.
      for (std::size_t step = values.empty() ? 0 : in.in(0, 4); step > 0; --step) {
        std::size_t const c = in.in(0, n + 1), o = in.in(0, n);
        out.Reformat(c, o >= c ? o + 1 : o);  // distinct from c, at most n + 1
        expect_contents(out.Data());
      }
    }
    FUZZ_CHECK(live_blocks == 0);
  });
  return 0;
}
