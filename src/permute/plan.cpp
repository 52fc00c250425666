#include "permute/plan.hpp"

namespace qel_permute::detail {

Plan make_plan(std::size_t numDims, std::size_t const* sizes, std::size_t const* permutation,
               Dim* storage) {
  Plan plan{storage, 0, false};
  for (std::size_t d = 0; d < numDims; ++d) {
    if (sizes[d] == 0) {
      plan.empty = true;
      return plan;
    }
  }
  // Destination order, extent-1 dimensions dropped; source strides are dense
  // over the source order.
  for (std::size_t i = 0; i < numDims; ++i) {
    std::size_t const s = permutation[i] - 1;
    if (sizes[s] == 1) continue;
    std::size_t stride = 1;
    for (std::size_t d = 0; d < s; ++d) stride *= sizes[d];
    storage[plan.rank++] = Dim{sizes[s], stride, 0};
  }
  // Neighbours in destination order that are also neighbours in the source
  // merge into one dimension.
  std::size_t rank = 0;
  for (std::size_t i = 0; i < plan.rank; ++i) {
    if (rank > 0) {
      Dim& last = storage[rank - 1];
      if (storage[i].srcStride == last.srcStride * last.extent) {
        last.extent *= storage[i].extent;
        continue;
      }
    }
    storage[rank++] = storage[i];
  }
  plan.rank = rank;
  std::size_t stride = 1;
  for (std::size_t i = 0; i < rank; ++i) {
    storage[i].dstStride = stride;
    stride *= storage[i].extent;
  }
  return plan;
}

}  // namespace qel_permute::detail
