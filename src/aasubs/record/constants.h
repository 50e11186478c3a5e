// Numbers that recur throughout the numerical code, each with its digits and its use. A number that
// is one method's own constant stands in that method's source.
#pragma once

#include <limits>

namespace tqnlp {

// Smallest normal double, 2.225073858507202e-308: magnitudes at or below it count as zero in
// divisions and pivots.
inline constexpr double TINY = std::numeric_limits<double>::min();

// Rounding unit, 2^-53 = 1.110223024625157e-16.
inline constexpr double EPS = 0x1p-53;

// Machine precision, 2^-52 = 2.220446049250313e-16.
inline constexpr double MACHINE_PRECISION = 0x1p-52;

// Largest finite double, 1.7976931348623157e+308: absent bounds, limits that never bind.
inline constexpr double HUGE_VALUE = std::numeric_limits<double>::max();

// Root of the largest double, 1.3407807929942999e+154: values whose square would overflow.
inline constexpr double ROOT_HUGE = 1.3407807929942999e154;

// 2.2250738585072018e-304: smallest tolerance or singularity limit that is honoured.
inline constexpr double SMALLEST_TOLERANCE = 2.2250738585072018e-304;

// 2.225073858507202e-306: the floor of a pivot limit in the diagonal and tridiagonal factors.
inline constexpr double DIAGONAL_PIVOT_FLOOR = 2.225073858507202e-306;

// 1.491668147e-153 and 1.491668147e-154: products of two numbers below these underflow.
inline constexpr double ROOT_TINY_GUARD = 1.491668147e-153;
inline constexpr double ROOT_TINY = 1.491668147e-154;

// 1.7976931348623157e+298: a ridge at or above it is no longer usable.
inline constexpr double RIDGE_CEILING = 1.7976931348623157e298;

// 1.7976931348623156e+306: sums are guarded against growing past it.
inline constexpr double SUM_CEILING = 1.7976931348623156e306;

// 1.110223024625157e-14 = 100 rounding units: relative differences below it are rounding.
inline constexpr double HUNDRED_EPS = 1.110223024625157e-14;

// Log-determinant of a factorization that failed: log(TINY).
inline constexpr double LOG_TINY = -708.3964185;

// Number of iterations that stands for "never" in restart limits.
inline constexpr double NEVER = 2147483647.0;

// idac when a whole block of constraints left the working set and the direction is feasible.
inline constexpr long BLOCK_DROPPED = 2147483647;

}  // namespace tqnlp
