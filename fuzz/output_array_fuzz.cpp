// Output arrays through a sequence of operations decoded from the input: construction from
// bounds (strides and padding optional, KORVAL or chained layout), SetDataRanges, reformats to
// either named format or any channel and observation positions, and Relinquish. A shadow copy
// indexed by logical coordinates says what every element must hold after each step; every block
// made through the counting allocator must be gone at the end.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <numeric>
#include <vector>

#include "counting_heap.hpp"
#include "fuzz_input.hpp"
#include "nerva/output_array.hpp"

namespace {

using Sizes = std::vector<std::size_t>;

// Steps x through the grid of `sizes`, dimension 0 fastest.
void advance(Sizes& x, Sizes const& sizes) {
  for (std::size_t k = 0; k < x.size() && ++x[k] == sizes[k]; ++k) x[k] = 0;
}

std::size_t total_of(Sizes const& sizes) {
  return std::accumulate(sizes.begin(), sizes.end(), std::size_t{1}, std::multiplies<>());
}

// Shadow contents in default order (data dimensions, channel, observation, sequence 1).
struct Shadow {
  Sizes sizes;
  std::vector<long> values;
};

// Buffer offset of each logical element, from the array's sizes and dimension map alone
// (column-major over layout positions).
template <class T>
Sizes buffer_offsets(nerva::FormattedOutputArray<T> const& a) {
  std::size_t const* map = a.GetDimensionPermutation();
  Sizes const sizes(a.GetSizesInDefaultFormat(), a.GetSizesInDefaultFormat() + a.NumDimensions());
  Sizes stride(sizes.size(), 1), x(sizes.size(), 0), offsets(a.TotalNumElem());
  for (std::size_t k = 0; k < sizes.size(); ++k)
    for (std::size_t j = 0; j < sizes.size(); ++j)
      if (map[j] < map[k]) stride[k] *= sizes[j];
  for (std::size_t& offset : offsets) {
    offset = std::inner_product(x.begin(), x.end(), stride.begin(), std::size_t{0});
    advance(x, sizes);
  }
  return offsets;
}

template <class T>
void expect_contents(nerva::FormattedOutputArray<T> const& a, T const* data, Shadow const& s) {
  for (std::size_t k = 0; k < s.sizes.size(); ++k) FUZZ_CHECK(a.DataSize(k) == s.sizes[k]);
  Sizes const offsets = buffer_offsets(a);
  for (std::size_t e = 0; e < offsets.size(); ++e)
    FUZZ_CHECK(data[offsets[e]] == static_cast<T>(s.values[e]));
}

template <class T>
void run(FuzzInput& in) {
  std::size_t const n = in.in(1, 3), channels = in.in(1, 4), observations = in.in(1, 3);
  bool const chained = in.byte() % 2, withStrides = in.byte() % 2, withPadding = in.byte() % 2;
  Sizes firsts(n), lasts(n), strides(n, 1), padding(2 * n, 0);
  Shadow s{Sizes(n + 3, 1), {}};
  for (std::size_t i = 0; i < n; ++i) {
    firsts[i] = in.in(0, 6);
    lasts[i] = in.in(0, 12);
    if (withStrides) strides[i] = in.in(1, 4);
    if (withPadding) {
      padding[i] = in.in(0, 2);
      padding[n + i] = in.in(0, 2);
    }
    // Positions first, first + stride, ... below last, plus the padding.
    std::size_t const count =
        lasts[i] > firsts[i] ? (lasts[i] - firsts[i] - 1) / strides[i] + 1 : 0;
    s.sizes[i] = count + padding[i] + padding[n + i];
  }
  s.sizes[n] = channels;
  s.sizes[n + 1] = observations;
  s.values.assign(total_of(s.sizes), 0);  // allocated with Zeros
  {
    nerva::SharedMemoryPool pool(counting_heap::functions(), &counting_heap::abort_on_error);
    auto out = std::make_unique<nerva::FormattedOutputArray<T>>(
        pool, firsts.data(), lasts.data(), withStrides ? strides.data() : nullptr, n, channels,
        observations, chained ? 0 : n, chained ? 1 : n + 1, withPadding ? padding.data() : nullptr,
        nerva::Zeros);
    FUZZ_CHECK(out->TotalNumElem() == s.values.size());
    FUZZ_CHECK((out->Data() == nullptr) == s.values.empty());
    expect_contents(*out, out->Data(), s);
    // Known contents, written through the array's layout.
    Sizes const offsets = buffer_offsets(*out);
    for (std::size_t e = 0; e < offsets.size(); ++e)
      out->Data()[offsets[e]] = static_cast<T>(s.values[e] = static_cast<long>(e % 113 + 1));

    // New extents keep the common corner and zero the rest; they need the chained layout and
    // the data in the allocated block (no reformat yet).
    for (std::size_t step = chained && !s.values.empty() ? in.in(0, 2) : 0; step > 0; --step) {
      Shadow next{s.sizes, {}};
      for (std::size_t i = 0; i < n; ++i) next.sizes[i] = in.in(1, 12);
      next.values.assign(total_of(next.sizes), 0);
      Sizes x(n + 3, 0);
      for (long& value : next.values) {
        bool inside = true;
        std::size_t old = 0, pitch = 1;
        for (std::size_t k = 0; k < n + 3; ++k) {
          inside = inside && x[k] < s.sizes[k];
          old += x[k] * pitch;
          pitch *= s.sizes[k];
        }
        if (inside) value = s.values[old];
        advance(x, next.sizes);
      }
      out->SetDataRanges(next.sizes.data());
      s = next;
      expect_contents(*out, out->Data(), s);
    }

    // Reformats never change what a logical element holds.
    for (std::size_t step = s.values.empty() ? 0 : in.in(0, 4); step > 0; --step) {
      std::size_t const kind = in.in(0, 2);
      if (kind < 2) {
        out->Reformat(kind == 0 ? nerva::KORVALFormat : nerva::ChainedFormat);
      } else {
        std::size_t const c = in.in(0, n + 1), o = in.in(0, n);
        out->Reformat(c, o >= c ? o + 1 : o);  // distinct from c, at most n + 1
      }
      expect_contents(*out, out->Data(), s);
    }

    // The buffer handed over holds the contents; checked in to the pool or freed directly.
    std::size_t const end = in.in(0, 2);
    if (end < 2) {
      T const* before = out->Data();
      std::unique_ptr<nerva::CNNMemoryBlock> block = out->Relinquish();
      if (!s.values.empty()) {
        FUZZ_CHECK(block->data == before);
        FUZZ_CHECK(block->allocated_size() >= s.values.size() * sizeof(T));
        expect_contents(*out, static_cast<T const*>(block->data), s);
      }
      if (block && end == 0) pool.checkin(std::move(block));
    }
    out.reset();
  }
  FUZZ_CHECK(counting_heap::live() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  void (*const runs[])(FuzzInput&) = {&run<float>, &run<double>, &run<unsigned char>, &run<long>};
  runs[in.in(0, 3)](in);
  return 0;
}
