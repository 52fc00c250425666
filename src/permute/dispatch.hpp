#pragma once

#include <cstddef>

#include "permute/kernels.hpp"

namespace qel_permute::detail {

// The widest instruction set this CPU runs that has kernels, found once.
Isa best_isa();

bool isa_supported(Isa isa);

// The transpose routine of `isa` for `width`-byte elements; null when the CPU
// lacks the instruction set.
TransposeFn transpose_for(Isa isa, std::size_t width);

}  // namespace qel_permute::detail
