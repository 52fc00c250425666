#pragma once

// <immintrin.h> for the AVX-512 kernel files, included before anything else
// pulls it in. GCC 12's AVX-512 intrinsics initialise their pass-through
// operand from itself, which -Wuninitialized reports at every use; the
// diagnostic is tied to the header's lines, so turning it off around this one
// include silences it everywhere.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop
#else
#include <immintrin.h>
#endif
