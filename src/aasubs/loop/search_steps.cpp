// Steps of the techniques that search along a line. Contracts in search_steps.h.
#include "aasubs/loop/search_steps.h"

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

bool limit_search(MINSTR* str) {
  static constexpr double BLOCKED = DIAGONAL_PIVOT_FLOOR;
  str->stub = HUGE_VALUE;
  if (!has_constraints(str)) return true;
  long blocking = -1;
  znlpstl(str, 0, 1, 0, str->xold, str->sdir, &blocking, nullptr);
  if (blocking == -1) str->stub = HUGE_VALUE;
  return str->stub > BLOCKED;
}

bool search_along(MINSTR* str, Callback search) {
  const int code = search(str);
  str->dfes = str->cold - str->crit;
  if (code == 0 && str->alfa > TINY) return true;
  return_to_xold(str);
  return false;
}

bool leads_down(const MINSTR* str, double gs) {
  return gs <= -TINY && zvenorm(str->nvar, 1, str->sdir) != 0.0;
}

double descent_tolerance(const MINSTR* str) {
  static constexpr double STALLED_DECREASE = 1e-6;  // of the objective, in the last iteration
  static constexpr double STALLED_TOLERANCE = 1e-4;
  static constexpr double USUAL_TOLERANCE = 1e-8;
  return str->dfes <= STALLED_DECREASE * str->cold ? STALLED_TOLERANCE : USUAL_TOLERANCE;
}

}  // namespace tqnlp
