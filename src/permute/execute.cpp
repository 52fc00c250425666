#include "permute/execute.hpp"

#include <cstring>

#include "permute/dispatch.hpp"

namespace qel_permute::detail {

Nest make_nest(Plan plan, std::size_t width, Isa isa, std::size_t streamBytes) {
  Dim* dims = plan.dims;
  std::size_t rank = plan.rank;
  Nest nest{dims, 0, width, width, nullptr, {}, 0};
  for (std::size_t i = 0; i < rank; ++i) nest.bytes *= dims[i].extent;
  if (dims[0].srcStride == 1) {
    // The fastest dimension stays fastest: the data moves in contiguous runs.
    std::size_t const run = dims[0].extent * width;
    if (rank == 1 || (run != 4 && run != 8)) {
      nest.loops = dims + 1;
      nest.rank = rank - 1;
      nest.run = run;
      return nest;
    }
    // Runs of 4 or 8 bytes are too short to copy one by one: they become
    // the elements of a transpose of the remaining dimensions.
    std::size_t const e = dims[0].extent;
    for (std::size_t i = 1; i < rank; ++i) {
      dims[i - 1] = Dim{dims[i].extent, dims[i].srcStride / e, dims[i].dstStride / e};
    }
    --rank;
    nest.width = width = run;
  }
  // A true transpose: the fastest destination dimension (a) and the fastest
  // source dimension (b) form the planes the kernel transposes, the lowest
  // other dimension is batched into the same kernel call, the rest loop.
  std::size_t k = 1;
  while (dims[k].srcStride != 1) ++k;
  std::size_t const c = k == 1 ? 2 : 1;
  nest.transpose = transpose_for(isa, width);
  nest.shape = TransposeShape{
      dims[0].extent,           dims[k].extent, dims[0].srcStride, dims[k].dstStride, 1, 0, 0,
      nest.bytes >= streamBytes};
  if (c < rank) {
    nest.shape.count = dims[c].extent;
    nest.shape.sC = dims[c].srcStride;
    nest.shape.dC = dims[c].dstStride;
  }
  for (std::size_t i = 1; i < rank; ++i) {
    if (i != k && i != c) dims[nest.rank++] = dims[i];
  }
  return nest;
}

void execute(Plan plan, std::size_t width, Isa isa, void const* src, void* dst,
             std::size_t streamBytes) {
  if (plan.empty) return;
  auto const* in = static_cast<Byte const*>(src);
  auto* out = static_cast<Byte*>(dst);
  if (plan.rank == 0) {
    std::memcpy(out, in, width);
    return;
  }
  Nest const nest = make_nest(plan, width, isa, streamBytes);
  if (nest.transpose != nullptr) {
    auto body = [&nest](Byte const* s, Byte* d) { nest.transpose(s, d, nest.shape); };
    for_each_index(nest.loops, nest.rank, nest.width, in, out, body);
    return;
  }
  std::size_t const run = nest.run;
  if (nest.rank == 0) {
    std::memcpy(out, in, run);
    return;
  }
  std::size_t const count = nest.loops[0].extent;
  std::size_t const step = nest.loops[0].srcStride * nest.width;
  auto body = [run, count, step](Byte const* s, Byte* d) {
    for (std::size_t i = 0; i < count; ++i) std::memcpy(d + i * run, s + i * step, run);
  };
  for_each_index(nest.loops + 1, nest.rank - 1, nest.width, in, out, body);
}

void permute(Isa isa, std::size_t width, void const* src, void* dst, std::size_t numDims,
             std::size_t const* sizes, std::size_t const* permutation, std::size_t streamBytes) {
  DimStorage storage(numDims);
  execute(make_plan(numDims, sizes, permutation, storage.get()), width, isa, src, dst, streamBytes);
}

}  // namespace qel_permute::detail
