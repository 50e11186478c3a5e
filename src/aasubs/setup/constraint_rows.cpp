// Bounds and linear rows of a record: statuses, counts, dependent rows, rows as vectors.
#include "aasubs/setup/constraint_rows.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"

namespace tqnlp {

static constexpr double DEFAULT_FEASIBILITY = 1e-8;

// Status and count of one parameter's bounds. Bounds that differ by no more than the feasibility
// tolerance are equal: between them no step could be told from rounding.
static void classify_bounds(MINSTR* str, long j, double tolerance) {
  const double lower = str->lb[j];
  const double upper = str->ub[j];
  str->iabc[j] = 0;
  const bool both = lower_exists(lower) && upper_exists(upper);
  const bool distinct = lower + (std::fabs(lower) + 1.0) * tolerance < upper;
  if (upper < lower || (both && !distinct)) {
    str->iabc[j] = 2;
    str->lb[j] = upper;
    ++str->nbec;
  } else {
    str->nbic += (lower_exists(lower) ? 1 : 0) + (upper_exists(upper) ? 1 : 0);
  }
}

// Totals of all constraints. In the simplex form every equality counts as two inequalities.
static void set_totals(MINSTR* str, bool simplex) {
  str->ntec = str->nlec + str->neqc + str->nbec;
  str->ntco = str->nbic + str->nbec + str->ncon + str->nnlc;
  if (simplex) str->ntco += str->nbec + str->neqc + str->nlec;
}

void complete_constraints(MINSTR* str, bool simplex) {
  str->aspa = 1;
  str->nbec = str->nbic = 0;
  const double tolerance = wzmis(str->ceps) ? DEFAULT_FEASIBILITY : str->ceps;
  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) classify_bounds(str, j, tolerance);
  set_totals(str, simplex);
  if (str->lincon == 0) return;
  znlpldc(str, str->opro, 1, str->jalc, str->naco, str->alcn);
  set_totals(str, simplex);  // of the rows that are left
}

// Linear rows are stored by their nonzeros; rows of the constraints' Jacobian are dense.
int nlpaget(MINSTR* str, long i, double* w) {
  const long n = str->nvar;
  if (i >= str->ncon) {
    std::copy_n(str->jcon + (i - str->ncon) * n, n, w);
    return 0;
  }
  vzfdl(0.0, w, n);
  for (long k = i > 0 ? str->naco[i - 1] : 0; k < str->naco[i]; ++k) {
    w[str->jalc[k]] = str->alcn[k];
  }
  return 0;
}

}  // namespace tqnlp
