// znlpftr, part of the choice: which constraints enter and leave the range-space frame.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpfea.h"
#include "aasubs/constraints/znlpftr.h"

namespace tqnlp {

static constexpr double LEAST_THRESHOLD = 1e-12;
static constexpr double DEFAULT_THRESHOLD = 1e-8;  // times the root of n

// ---- Entering -----------------------------------------------------------------------------------

// The first bound of a free parameter that waits and is independent now; -1 none.
static long waiting_bound(MINSTR* str, double* half) {
  for (long l = 0; str->nlbc > 0 && l < free_count(str); ++l) {
    const long j = str->ifxr[l];
    if (str->iabc[j] != 0 && znlpupr(str, 1, str->iabc[j], j, 0.0, half) == 0) return j;
  }
  return -1;
}

int znlpldr(MINSTR* str, double* half) {
  int entered = 0;
  for (long j = waiting_bound(str, half); j >= 0; j = waiting_bound(str, half)) {
    --str->nlbc;
    if (znlpupr(str, 0, str->iabc[j], j, 0.0, half) < 0) return -1;
    entered = 1;
  }
  // A row that has to wait on goes to the end of the list.
  for (long k = str->nldc; k > 0; --k) {
    if (znlpupr(str, 0, 0, str->iact[str->nalc], 0.0, half) == 0) entered = 1;
  }
  return entered;
}

// Bounds on which free parameters stand: 1, -1 or 0.
static int bound_held(const MINSTR* str, long j, double eps) {
  const double lower = str->lb[j];
  const double upper = str->ub[j];
  if (lower_exists(lower) && str->x[j] - lower <= residual_tolerance(lower, eps)) return 1;
  if (upper_exists(upper) && upper - str->x[j] <= residual_tolerance(upper, eps)) return -1;
  return 0;
}

int znlpacr(MINSTR* str, double alfa, double* half) {
  const double eps = feasibility_tolerance(str, str->ipre);
  const long before = str->nabc + str->nalc;
  frame_advance(str, alfa);
  hide_deferred_bounds(str);
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] != 0) continue;
    str->iabc[j] = bound_held(str, j, eps);
    if (str->iabc[j] != 0) ++str->nabc;
  }
  str->nlbc = 0;  // what waited stands at its bound, and has entered
  if (str->nabc + str->nalc > before && renew_frame(str, half) != 0) return -1;
  for (long i = 0; str->lincon != 0 && i < str->ncon; ++i) {
    const long* end = str->iact + str->nalc + str->nldc;
    if (std::find(str->iact, const_cast<long*>(end), i) != end) continue;
    const double residual = row_product(str, i, str->x) - str->blcn[i];
    if (std::fabs(residual) > residual_tolerance(str->blcn[i], eps)) continue;
    znlpupr(str, 0, 0, i, 0.0, half);
  }
  str->chac = str->nabc + str->nalc - before;
  return str->chac != 0 ? 1 : 0;
}

// ---- Leaving ------------------------------------------------------------------------------------

static double drop_threshold(const MINSTR* str) {
  const double root = std::sqrt(static_cast<double>(str->nvar));
  const double wanted = wzmis(str->deat) ? DEFAULT_THRESHOLD * root : str->deat;
  return std::max(wanted, LEAST_THRESHOLD);
}

// The inequality of the working set with the most negative multiplier below -tres.
static Member releas(MINSTR* str, double tres) {
  Member worst;
  double least = -tres;
  frame_projection(str);
  for (long i = 0; i < str->nabc + str->nalc; ++i) {
    const Member m = member(str, i);
    if (!may_leave(str, m) || !(str->lagm[i] < least)) continue;
    worst = m;
    least = str->lagm[i];
  }
  return worst;
}

int znlpdar(MINSTR* str, double alfa, double* half) {
  const double tres = drop_threshold(str);
  const long before = str->nabc + str->nalc;
  int left = 0;
  frame_advance(str, alfa);
  // Each pass lets in a constraint that waited: there are no more of them than constraints.
  for (long pass = str->nvar + str->ncon; pass >= 0; --pass) {
    str->idac = 0;
    if (str->nabc + str->nalc == 0) return 0;
    const Member m = releas(str, tres);
    if (m.ic < 0) break;
    left = 1;
    int status = znlpdor(str, m.koc, m.ic, 0.0, half);
    if (status == 0 && str->nldc + str->nlbc > 0) status = znlpldr(str, half);
    if (status == 0) break;
    if (status < 0) {
      str->idac = -1;
      return -1;
    }
  }
  str->idac = str->nabc + str->nalc - before;
  return left;
}

}  // namespace tqnlp
