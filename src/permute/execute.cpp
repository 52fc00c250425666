#include "permute/execute.hpp"

#include <cstring>
#include <memory>

#include "permute/dispatch.hpp"

namespace qel_permute::detail {
namespace {

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

// The fastest dimension stays fastest: the data moves in contiguous runs.
void copy_runs(Dim* dims, std::size_t rank, std::size_t width, Byte const* src, Byte* dst) {
  std::size_t const run = dims[0].extent * width;
  if (rank == 1) {
    std::memcpy(dst, src, run);
    return;
  }
  std::size_t const count = dims[1].extent;
  std::size_t const step = dims[1].srcStride * width;
  auto body = [run, count, step](Byte const* s, Byte* d) {
    for (std::size_t i = 0; i < count; ++i) std::memcpy(d + i * run, s + i * step, run);
  };
  for_each_index(dims + 2, rank - 2, width, src, dst, body);
}

// A true transpose: the fastest destination dimension (a) and the fastest
// source dimension (b) form the planes the kernel transposes, the lowest
// other dimension is batched into the same kernel call, the rest loop here.
void transpose_all(Dim* dims, std::size_t rank, std::size_t width, TransposeFn transpose,
                   bool stream, Byte const* src, Byte* dst) {
  std::size_t k = 1;
  while (dims[k].srcStride != 1) ++k;
  std::size_t const c = k == 1 ? 2 : 1;
  TransposeShape shape{
      dims[0].extent, dims[k].extent, dims[0].srcStride, dims[k].dstStride, 1, 0, 0, stream};
  if (c < rank) {
    shape.count = dims[c].extent;
    shape.sC = dims[c].srcStride;
    shape.dC = dims[c].dstStride;
  }
  std::size_t n = 0;
  for (std::size_t i = 1; i < rank; ++i) {
    if (i != k && i != c) dims[n++] = dims[i];
  }
  auto body = [transpose, &shape](Byte const* s, Byte* d) { transpose(s, d, shape); };
  for_each_index(dims, n, width, src, dst, body);
}

}  // namespace

void execute(Plan plan, std::size_t width, Isa isa, void const* src, void* dst,
             std::size_t streamBytes) {
  if (plan.empty) return;
  auto const* in = static_cast<Byte const*>(src);
  auto* out = static_cast<Byte*>(dst);
  if (plan.rank == 0) {
    std::memcpy(out, in, width);
    return;
  }
  Dim* dims = plan.dims;
  std::size_t rank = plan.rank;
  if (dims[0].srcStride == 1) {
    std::size_t const run = dims[0].extent * width;
    if (rank == 1 || (run != 4 && run != 8)) {
      copy_runs(dims, rank, width, in, out);
      return;
    }
    // Runs of 4 or 8 bytes are too short to copy one by one: they become
    // the elements of a transpose of the remaining dimensions.
    std::size_t const e = dims[0].extent;
    for (std::size_t i = 1; i < rank; ++i) {
      dims[i - 1] = Dim{dims[i].extent, dims[i].srcStride / e, dims[i].dstStride / e};
    }
    --rank;
    width = run;
  }
  std::size_t bytes = width;
  for (std::size_t i = 0; i < rank; ++i) bytes *= dims[i].extent;
  transpose_all(dims, rank, width, transpose_for(isa, width), bytes >= streamBytes, in, out);
}

void permute(Isa isa, std::size_t width, void const* src, void* dst, std::size_t numDims,
             std::size_t const* sizes, std::size_t const* permutation, std::size_t streamBytes) {
  constexpr std::size_t kLocalDims = 16;
  Dim local[kLocalDims];
  std::unique_ptr<Dim[]> heap;
  Dim* storage = local;
  if (numDims > kLocalDims) {
    heap.reset(new Dim[numDims]);
    storage = heap.get();
  }
  execute(make_plan(numDims, sizes, permutation, storage), width, isa, src, dst, streamBytes);
}

}  // namespace qel_permute::detail
