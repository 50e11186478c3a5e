// The search that both Nelder-Mead techniques run; what tells them apart stands in a form.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

struct SimplexForm {
  // A rebuilt simplex is no larger than the last one was, in place of growing on a flat start.
  bool own_scale;
  // Flat is what lies within rounding above the lowest value; otherwise around the value of the
  // point that the simplex was built at. A flat simplex then shrinks even when its probe is lower.
  bool one_sided;
  // chac counts the parameters that trials moved onto bounds; otherwise the change of nabc, the
  // bounds on which the best point stands.
  bool counts_trials;
  // A contraction that cannot be evaluated is answered by a smaller simplex, and a shrink that does
  // not draw the vertices together ends the run.
  bool strict;
};

// Runs the search from str->x, with bounds or without any constraint. Returns the code of the run.
int simplex_search(MINSTR* str, const SimplexForm& form);

}  // namespace tqnlp
