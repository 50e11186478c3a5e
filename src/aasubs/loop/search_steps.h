// What the techniques that search along a line do alike: the step limit, the search, its failure,
// and the slope that a direction must keep.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// From this iteration on the first trial of a search is no longer held back.
inline constexpr double SETTLED_ITERATIONS = 5.0;

// Longest step along sdir from xold that bounds and linear constraints allow, in stub; the largest
// double when nothing blocks. False: a constraint that is not in the working set blocks at once.
bool limit_search(MINSTR* str);

// The search along sdir, and the decrease that it found in dfes. False: nothing was found, x and
// crit are those of xold.
bool search_along(MINSTR* str, Callback search);

// Does a direction with slope gs still lead down? slope and step must be more than rounding.
bool leads_down(const MINSTR* str, double gs);

// Tolerance of the tests that ask, long after a restart, whether a direction still promises enough:
// looser while the last iteration gained next to nothing.
double descent_tolerance(const MINSTR* str);

}  // namespace tqnlp
