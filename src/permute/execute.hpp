#pragma once

#include <cstddef>

#include "permute/kernels.hpp"
#include "permute/plan.hpp"

namespace qel_permute::detail {

// Moves the elements of a planned permutation of `width`-byte elements. The
// plan's dimension list is reordered in place. `transpose` serves every case
// where the fastest destination dimension is not the fastest source one.
void execute(Plan plan, std::size_t width, TransposeFn transpose, void const* src, void* dst);

// Plans and moves a whole permutation with the given transpose routine.
void permute(TransposeFn transpose, std::size_t width, void const* src, void* dst,
             std::size_t numDims, std::size_t const* sizes, std::size_t const* permutation);

}  // namespace qel_permute::detail
