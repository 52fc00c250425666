#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/partitioner.h>

#include <algorithm>
#include <cstddef>
#include <memory>

#include "detail/checks.hpp"
#include "nerva/copy.hpp"

namespace nerva {
namespace {

// Offsets up to this many are computed on the calling thread; above it the
// table is filled in parallel chunks of this many.
constexpr std::size_t kOffsetGrain = 128;

// Index positions on the stack for the usual ranks; deeper selections fall
// back to one heap array per chunk.
constexpr std::size_t kInlineDims = 16;

struct Selection {
  std::size_t numDims;
  std::size_t const* counts;  // selected indices per dimension
  std::size_t const* steps;   // source element distance between them
  std::size_t base;           // offset of the first selected element
};

// Writes the offsets of selected elements [b, e) to out[b, e): the index of
// element b is decomposed once, then the index advances like an odometer,
// dimension 0 fastest, so each element costs one add.
void fill_offsets(Selection const& s, std::size_t* out, std::size_t b, std::size_t e) {
  std::size_t inline_index[kInlineDims];
  std::unique_ptr<std::size_t[]> heap_index;
  std::size_t* index = inline_index;
  if (s.numDims > kInlineDims) {
    heap_index.reset(new std::size_t[s.numDims]);
    index = heap_index.get();
  }

  std::size_t offset = s.base;
  std::size_t rest = b;
  for (std::size_t i = 0; i < s.numDims; ++i) {
    index[i] = rest % s.counts[i];
    rest /= s.counts[i];
    offset += index[i] * s.steps[i];
  }

  std::size_t const count0 = s.counts[0];
  std::size_t const step0 = s.steps[0];
  std::size_t k = b;
  for (;;) {
    std::size_t const run = std::min(count0 - index[0], e - k);
    for (std::size_t j = 0; j < run; ++j) out[k + j] = offset + j * step0;
    k += run;
    if (k >= e) return;
    // Dimension 0 wrapped: back to its first index, carry into the others.
    offset -= index[0] * step0;
    index[0] = 0;
    for (std::size_t i = 1; i < s.numDims; ++i) {
      offset += s.steps[i];
      if (++index[i] < s.counts[i]) break;
      offset -= s.counts[i] * s.steps[i];
      index[i] = 0;
    }
  }
}

}  // namespace

std::unique_ptr<CNNMemoryBlock> strided_copy_mapping(
    std::size_t const* sizes, std::size_t const* firsts, std::size_t const* lasts,
    std::size_t const* increments, std::size_t numDims, AllocatorFunctions alloc) {
  for (std::size_t i = 0; NERVA_CHECKED_BUILD && i < numDims; ++i)
    NERVA_CHECK(increments[i] != 0 || lasts[i] <= firsts[i],
                "strided_copy_mapping: increment 0 in dimension ", i, " with the non-empty range [",
                firsts[i], ", ", lasts[i], ")");
  std::size_t numSelected = 1;
  for (std::size_t i = 0; i < numDims; ++i) {
    if (lasts[i] > firsts[i])
      numSelected *= (lasts[i] - 1 - firsts[i]) / increments[i] + 1;
    else
      numSelected = 0;
  }

  // With no dimensions the table is the single offset 0 and the stride word
  // 1 behind it, so the block gets one extra word.
  std::size_t const words = numSelected + 2 * numDims + (numDims == 0 ? 1 : 0);
  auto block = std::make_unique<CNNMemoryBlock>(words * sizeof(std::size_t), alloc);
  std::size_t* const offsets = static_cast<std::size_t*>(block->data);

  if (numDims == 0) {
    offsets[0] = 0;
    offsets[1] = 1;
    return block;
  }

  std::size_t* const strides = offsets + numSelected;
  std::size_t* const counts = strides + numDims;
  strides[0] = 1;
  for (std::size_t i = 1; i < numDims; ++i) strides[i] = strides[i - 1] * sizes[i - 1];
  for (std::size_t i = 0; i < numDims; ++i)
    counts[i] = lasts[i] > firsts[i] ? (lasts[i] - 1 - firsts[i]) / increments[i] + 1 : 0;
  if (numSelected == 0) return block;

  // Distances between selected indices and the start, as local copies: the
  // table itself is being written by the workers.
  std::size_t inline_steps[2 * kInlineDims];
  std::unique_ptr<std::size_t[]> heap_steps;
  std::size_t* local = inline_steps;
  if (numDims > kInlineDims) {
    heap_steps.reset(new std::size_t[2 * numDims]);
    local = heap_steps.get();
  }
  Selection s{numDims, local + numDims, local, 0};
  for (std::size_t i = 0; i < numDims; ++i) {
    local[i] = increments[i] * strides[i];
    local[numDims + i] = counts[i];
    s.base += firsts[i] * strides[i];
  }

  if (numSelected <= kOffsetGrain) {
    fill_offsets(s, offsets, 0, numSelected);
  } else {
    tbb::parallel_for(
        tbb::blocked_range<std::size_t>(0, numSelected, kOffsetGrain),
        [&s, offsets](tbb::blocked_range<std::size_t> const& r) {
          fill_offsets(s, offsets, r.begin(), r.end());
        },
        tbb::auto_partitioner());
  }
  return block;
}

}  // namespace nerva
