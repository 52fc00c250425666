#pragma once

// Caller-error checks of the checked build (-DNERVA_CHECKED=ON). The library
// trusts its callers; in the checked build it verifies what a wrong argument
// would turn into an out-of-bounds access, a division by zero or a garbage
// result, and throws std::invalid_argument naming the function and the value.
// In the default build the checks are constant-false branches that the
// compiler removes.

#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace nerva::detail {

// Throws std::invalid_argument with the message made of `parts`.
template <class... Parts>
[[noreturn]] void invalid_argument(Parts const&... parts) {
  std::ostringstream message;
  (message << ... << parts);
  throw std::invalid_argument(message.str());
}

// Throws unless perm[0..n) holds each of 1..n exactly once (a one-based
// permutation), naming `function` and the offending entry.
inline void check_permutation(char const* function, std::size_t const* perm, std::size_t n) {
  std::vector<bool> seen(n + 1, false);
  for (std::size_t i = 0; i < n; ++i) {
    if (perm[i] < 1 || perm[i] > n)
      invalid_argument(function, ": permutation entry ", i, " is ", perm[i], ", outside 1..", n);
    if (seen[perm[i]])
      invalid_argument(function, ": permutation entry ", i, " repeats the value ", perm[i]);
    seen[perm[i]] = true;
  }
}

}  // namespace nerva::detail

// NERVA_CHECKED comes from the command line (the build of the libraries) or
// from nerva/config.hpp, as 0 or 1.
#if defined(NERVA_CHECKED) && NERVA_CHECKED
#define NERVA_CHECKED_BUILD 1
#else
#define NERVA_CHECKED_BUILD 0
#endif

// Throws std::invalid_argument(message parts...) unless `condition` holds. In
// the default build the condition and the message are compiled (so they stay
// valid) but never evaluated, and the whole statement folds away.
#define NERVA_CHECK(condition, ...)                                                          \
  do {                                                                                       \
    if (NERVA_CHECKED_BUILD && !(condition)) ::nerva::detail::invalid_argument(__VA_ARGS__); \
  } while (0)
