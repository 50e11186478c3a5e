// znewini: the INItial active set of the older Newton code.
#include <algorithm>
#include <cmath>

#include "kernels/vector.h"
#include "subs/znewsrv.h"

namespace tqnlp {

// A residual of a row beyond this share of its terms at x, or of 1, is more than rounding.
static constexpr double ROW_TOLERANCE = 1e-12;

int zbinit(SIZE_S* s, NRPTRS* p) {
  std::fill_n(p->proj, s->nvar, 1.0);
  std::fill_n(p->index, s->nvar, -1);
  s->nact = 0;
  for (long j = 0; j < s->nvar; ++j) {
    const double x = p->xnew[j];
    if (!(x >= p->lowb[j] && x <= p->upb[j])) return START_INFEASIBLE;
    if (x == p->lowb[j] || x == p->upb[j]) zconadd(s, p, j);
  }
  return 0;
}

// An equality that depends on the earlier ones stays out: at a point that satisfies it, they keep
// it satisfied.
int zcinit(SIZE_S* s, NRPTRS* p) {
  const long rows = s->neq + s->nneq;
  for (long i = 0; i < rows; ++i) p->index[i] = static_cast<int>(i);
  s->nact = 0;
  reset_projector(s, p);
  for (long i = 0; i < rows; ++i) {
    const double* row = p->constr + i * s->nvar;
    const double residual = zinner(s->nvar, row, p->xnew) - p->values[i];
    double terms = 0.0;
    for (long j = 0; j < s->nvar; ++j) terms += std::fabs(row[j] * p->xnew[j]);
    const double tolerance = ROW_TOLERANCE * std::max(1.0, terms);
    const bool holds = std::fabs(residual) <= tolerance;
    if (!holds && (i < s->neq || !(residual > 0.0))) return START_INFEASIBLE;
    if (holds) zconadd(s, p, i);
  }
  return 0;
}

}  // namespace tqnlp
