// The missing value: a number that could not be computed or was not given.
//
// A double whose upper 16 bits are all ones is missing, whatever its other bits. The one pattern
// that the code writes is 0xFFFFFE0000000000, a quiet NaN with the sign bit set; ordinary NaNs of
// arithmetic have other upper bits and are not missing. A missing value is never tested by
// comparison: every comparison with it is false.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

namespace tqnlp {

inline constexpr double MISSING = std::bit_cast<double>(std::uint64_t{0xFFFFFE0000000000});

// Is d missing?
constexpr bool wzmis(double d) { return (std::bit_cast<std::uint64_t>(d) >> 48) == 0xFFFF; }

// Fills the first len doubles of to with val; with MISSING it marks an array as not available.
inline void vzfdl(double val, double* to, long len) {
  if (len > 0) std::fill_n(to, len, val);
}

}  // namespace tqnlp
