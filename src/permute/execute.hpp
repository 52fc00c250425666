#pragma once

#include <cstddef>
#include <memory>

#include "permute/kernels.hpp"
#include "permute/plan.hpp"

namespace qel_permute::detail {

// Transposed destinations of at least this many bytes are written with
// non-temporal stores: skipping the read-for-ownership of every destination
// line saves a third of the memory traffic once the data no longer stay in
// the caches (measured: 1.2x to 2x faster from here up). Smaller ones are
// served from the shared L3, where plain stores are faster (1.3x to 1.5x at
// 3 MB) and leave the result in the cache for its next reader.
constexpr std::size_t kStreamBytes = std::size_t{4} << 20;

// The loop nest of a planned permutation with at least one dimension: one
// kernel call, a batch of plane transposes, for every index of `loops` (the
// last outermost); or, without a transpose, contiguous runs of `run` bytes,
// loops[0] counting the runs of one call and the other loops around it.
struct Nest {
  Dim* loops;
  std::size_t rank;       // of loops
  std::size_t width;      // element bytes; short runs have become wider elements
  std::size_t bytes;      // of the whole permutation
  TransposeFn transpose;  // null: run copies
  TransposeShape shape;
  std::size_t run;
};

using Byte = unsigned char;

// Calls f(s, d) for every index of dims[0, n), the last dimension outermost.
template <class F>
void for_each_index(Dim const* dims, std::size_t n, std::size_t width, Byte const* s, Byte* d,
                    F& f) {
  if (n == 0) {
    f(s, d);
    return;
  }
  Dim const& outer = dims[n - 1];
  std::size_t const ss = outer.srcStride * width;
  std::size_t const ds = outer.dstStride * width;
  for (std::size_t i = 0; i < outer.extent; ++i) {
    for_each_index(dims, n - 1, width, s + i * ss, d + i * ds, f);
  }
}

// Builds the nest of a plan that is neither empty nor of rank 0; reorders
// the plan's dimension list in place.
Nest make_nest(Plan plan, std::size_t width, Isa isa, std::size_t streamBytes);

// Moves the elements of a planned permutation of `width`-byte elements with
// the kernels of `isa`, which the CPU must support. The plan's dimension list
// is reordered in place.
void execute(Plan plan, std::size_t width, Isa isa, void const* src, void* dst,
             std::size_t streamBytes = kStreamBytes);

// Room for the plan of a permutation of `numDims` dimensions; on the stack
// for up to 16.
class DimStorage {
 public:
  explicit DimStorage(std::size_t numDims) : heap_(numDims > kLocal ? new Dim[numDims] : nullptr) {}
  Dim* get() { return heap_ ? heap_.get() : local_; }

 private:
  static constexpr std::size_t kLocal = 16;
  Dim local_[kLocal];
  std::unique_ptr<Dim[]> heap_;
};

// Plans and moves a whole permutation.
void permute(Isa isa, std::size_t width, void const* src, void* dst, std::size_t numDims,
             std::size_t const* sizes, std::size_t const* permutation,
             std::size_t streamBytes = kStreamBytes);

// Below this many bytes the parallel form runs the serial one: handing work
// to a second core costs about as much as it saves (measured on two cores:
// 0.85x to 1.2x of the serial time at 64 to 128 KiB, 1.4x to 1.9x faster
// from 150 KiB).
constexpr std::size_t kParallelBytes = std::size_t{128} << 10;

// Bytes per unit of work that the parallel form aims for on large
// permutations; smaller ones get up to eight units per worker.
constexpr std::size_t kTaskBytes = std::size_t{1} << 20;

// The same permutation split across the TBB workers of the calling arena by
// a blocking parallel_for; permutations below `parallelBytes` run serially.
void permute_parallel(Isa isa, std::size_t width, void const* src, void* dst, std::size_t numDims,
                      std::size_t const* sizes, std::size_t const* permutation,
                      std::size_t streamBytes = kStreamBytes,
                      std::size_t parallelBytes = kParallelBytes,
                      std::size_t taskBytes = kTaskBytes);

}  // namespace qel_permute::detail
