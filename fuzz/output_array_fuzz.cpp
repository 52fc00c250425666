// Output arrays through a sequence of operations decoded from the input:
// construction from bounds (strides and padding optional, KORVAL or chained
// layout), SetDataRanges, reformats to either named format or any channel and
// observation positions, and Relinquish. A shadow copy indexed by logical
// coordinates says what every element must hold after each step; every block
// made through the counting allocator must be gone at the end.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "counting_heap.hpp"
#include "fuzz_input.hpp"
#include "nerva/output_array.hpp"

namespace {

constexpr std::size_t kMaxExtent = 12;

// Shadow contents, default order: data dimensions, channel, observation.
struct Shadow {
  std::vector<std::size_t> sizes;  // n + 3 logical sizes, sequence 1
  std::vector<long> values;
};

std::size_t total_of(std::vector<std::size_t> const& sizes) {
  std::size_t t = 1;
  for (std::size_t s : sizes) t *= s;
  return t;
}

// Element offset of each logical element in the array's buffer, computed from
// its sizes and dimension map alone (column-major over layout positions).
template <class T>
std::vector<std::size_t> buffer_offsets(nerva::FormattedOutputArray<T> const& a) {
  std::size_t const dims = a.NumDimensions();
  std::size_t const* sizes = a.GetSizesInDefaultFormat();
  std::size_t const* map = a.GetDimensionPermutation();
  std::vector<std::size_t> stride(dims, 1);
  for (std::size_t k = 0; k < dims; ++k)
    for (std::size_t j = 0; j < dims; ++j)
      if (map[j] < map[k]) stride[k] *= sizes[j];
  std::size_t const total = a.TotalNumElem();
  std::vector<std::size_t> offsets(total);
  std::vector<std::size_t> x(dims, 0);
  for (std::size_t e = 0; e < total; ++e) {
    std::size_t off = 0;
    for (std::size_t k = 0; k < dims; ++k) off += x[k] * stride[k];
    offsets[e] = off;
    for (std::size_t k = 0; k < dims; ++k) {
      if (++x[k] < sizes[k]) break;
      x[k] = 0;
    }
  }
  return offsets;
}

template <class T>
void expect_contents(nerva::FormattedOutputArray<T> const& a, T const* data, Shadow const& s) {
  for (std::size_t k = 0; k < s.sizes.size(); ++k) FUZZ_CHECK(a.DataSize(k) == s.sizes[k]);
  std::vector<std::size_t> const offsets = buffer_offsets(a);
  for (std::size_t e = 0; e < offsets.size(); ++e)
    FUZZ_CHECK(data[offsets[e]] == static_cast<T>(s.values[e]));
}

template <class T>
void run(FuzzInput& in) {
  std::size_t const n = in.in(1, 3);
  std::size_t const channels = in.in(1, 4);
  std::size_t const observations = in.in(1, 3);
  bool const chained = in.byte() % 2 == 1;
  bool const withStrides = in.byte() % 2 == 1;
  bool const withPadding = in.byte() % 2 == 1;

  std::vector<std::size_t> firsts(n), lasts(n), strides(n), padding(2 * n, 0);
  Shadow s;
  s.sizes.assign(n + 3, 1);
  for (std::size_t i = 0; i < n; ++i) {
    firsts[i] = in.in(0, 6);
    lasts[i] = in.in(0, 12);
    strides[i] = withStrides ? in.in(1, 4) : 1;
    if (withPadding) {
      padding[i] = in.in(0, 2);
      padding[n + i] = in.in(0, 2);
    }
    std::size_t count = 0;  // positions first, first + stride, ... below last
    for (std::size_t p = firsts[i]; p < lasts[i]; p += strides[i]) ++count;
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
    {
      std::vector<std::size_t> const offsets = buffer_offsets(*out);
      for (std::size_t e = 0; e < offsets.size(); ++e) {
        s.values[e] = static_cast<long>(e % 113 + 1);
        out->Data()[offsets[e]] = static_cast<T>(s.values[e]);
      }
    }

    // New extents keep the common corner and zero the rest; they need the
    // chained layout and the data in the allocated block (no reformat yet).
    if (chained && !s.values.empty()) {
      for (std::size_t step = in.in(0, 2); step > 0; --step) {
        std::vector<std::size_t> newSizes(n);
        Shadow next = s;
        for (std::size_t i = 0; i < n; ++i) next.sizes[i] = newSizes[i] = in.in(1, kMaxExtent);
        next.values.assign(total_of(next.sizes), 0);
        std::vector<std::size_t> x(n + 3, 0);
        for (std::size_t e = 0; e < next.values.size(); ++e) {
          bool inside = true;
          std::size_t old = 0, pitch = 1;
          for (std::size_t k = 0; k < n + 3; ++k) {
            inside = inside && x[k] < s.sizes[k];
            old += x[k] * pitch;
            pitch *= s.sizes[k];
          }
          if (inside) next.values[e] = s.values[old];
          for (std::size_t k = 0; k < n + 3; ++k) {
            if (++x[k] < next.sizes[k]) break;
            x[k] = 0;
          }
        }
        out->SetDataRanges(newSizes.data());
        s = next;
        expect_contents(*out, out->Data(), s);
      }
    }

    // Reformats never change what a logical element holds.
    if (!s.values.empty()) {
      for (std::size_t step = in.in(0, 4); step > 0; --step) {
        switch (in.in(0, 2)) {
          case 0:
            out->Reformat(nerva::KORVALFormat);
            break;
          case 1:
            out->Reformat(nerva::ChainedFormat);
            break;
          default: {
            std::size_t const c = in.in(0, n + 1);
            std::size_t o = in.in(0, n);
            if (o >= c) ++o;  // distinct from c, at most n + 1
            out->Reformat(c, o);
          }
        }
        expect_contents(*out, out->Data(), s);
      }
    }

    switch (in.in(0, 2)) {
      case 0: {
        T const* before = out->Data();
        std::unique_ptr<nerva::CNNMemoryBlock> block = out->Relinquish();
        if (!s.values.empty()) {
          FUZZ_CHECK(block->data == before);
          FUZZ_CHECK(block->allocated_size() >= s.values.size() * sizeof(T));
          expect_contents(*out, static_cast<T const*>(block->data), s);
        }
        if (block) pool.checkin(std::move(block));
        break;
      }
      case 1: {
        std::unique_ptr<nerva::CNNMemoryBlock> block = out->Relinquish();
        // Freed directly by the caller, not through the pool.
        break;
      }
      default:
        break;
    }
    out.reset();
  }
  FUZZ_CHECK(counting_heap::live() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  FuzzInput in(data, size);
  switch (in.in(0, 3)) {
    case 0:
      run<float>(in);
      break;
    case 1:
      run<double>(in);
      break;
    case 2:
      run<unsigned char>(in);
      break;
    default:
      run<long>(in);
      break;
  }
  return 0;
}
