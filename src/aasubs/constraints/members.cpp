// Members of the working set, one by one. Contracts in members.h.
#include "aasubs/constraints/members.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "kernels/vector.h"

namespace tqnlp {

double bound_value(const MINSTR* str, long j, int koc) { return koc < 0 ? str->ub[j] : str->lb[j]; }

bool may_leave(const MINSTR* str, const Member& m) {
  if (m.koc != 0) return m.koc != 2;
  return m.ic >= str->ncon ? m.ic - str->ncon >= str->nlec : m.ic >= str->neqc;
}

// Member number i in the order of the multipliers.
Member member(const MINSTR* str, long i) {
  if (i >= str->nabc) return {0, str->iact[i - str->nabc]};
  const long j = str->ifxr[free_count(str) + i];
  return {str->iabc[j], j};
}

// Gradient of constraint m in awrk.
const double* gradient_of(MINSTR* str, const Member& m) {
  if (m.koc != 0) {
    vzfdl(0.0, str->awrk, str->nvar);
    str->awrk[m.ic] = m.koc < 0 ? -1.0 : 1.0;
  } else if (m.ic >= str->ncon) {
    std::copy_n(str->jcon + (m.ic - str->ncon) * str->nvar, str->nvar, str->awrk);
  } else {
    str->acget(str, m.ic, str->awrk);
  }
  return str->awrk;
}

// Residual n'x - b, given the gradient; a nonlinear member counts as satisfied where it stands.
double residual_of(const MINSTR* str, const Member& m, const double* row) {
  if (m.koc != 0) return row[m.ic] * (str->x[m.ic] - bound_value(str, m.ic, m.koc));
  if (m.ic >= str->ncon) return 0.0;
  return zvdot11(str->nvar, row, str->x) - str->blcn[m.ic];
}

// Constraints that were set aside as dependent are ordinary outsiders here, but for equalities.
void forget_deferred(MINSTR* str) {
  const long free = free_count(str);
  for (long k = 0; str->bounds != 0 && k < free; ++k) {
    int& status = str->iabc[str->ifxr[k]];
    if (status == 0 || status == 2) continue;
    status = 0;
    --str->nlbc;
  }
  long kept = str->nalc;
  for (long k = str->nalc; k < str->nalc + str->nldc; ++k) {
    if (!may_leave(str, {0, str->iact[k]})) str->iact[kept++] = str->iact[k];
  }
  str->nldc = kept - str->nalc;
}

bool is_dependent(MINSTR* str, const Member& m) {
  return znlpupd(str, 1, 0, 0, m.koc, m.ic, nullptr, nullptr, nullptr) != 0;
}

// Multipliers of the members that fit v, also where only bounds exist.
void multipliers(MINSTR* str, const double* v, double* lambda) {
  if (str->lincon != 0 || str->nlicon != 0) {
    znlpglm(str, 0, v, lambda);
    return;
  }
  for (long i = 0; i < str->nabc; ++i) {
    const Member m = member(str, i);
    lambda[i] = m.koc < 0 ? -v[m.ic] : v[m.ic];
  }
}

// Range part of the step: sdir such that x + sdir satisfies the members. -1 for a zero pivot.
int satisfy_members(MINSTR* str) {
  const long n = str->nvar;
  const long free = free_count(str);
  double* u = str->dcds;
  vzfdl(0.0, str->sdir, n);
  for (long i = 0; i < str->nabc; ++i) {
    const Member m = member(str, i);
    str->sdir[m.ic] = bound_value(str, m.ic, m.koc) - str->x[m.ic];
  }
  // T stands in reversed columns: its row r begins with the pivot, on column free - 1 - r of Q.
  for (long r = 0; r < str->nalc; ++r) {
    const Member m{0, str->iact[r]};
    const double* row = gradient_of(str, m);
    double rest = -residual_of(str, m, row);
    for (long l = free; l < n; ++l) rest -= row[str->ifxr[l]] * str->sdir[str->ifxr[l]];
    const double* t = str->llcn + packed_size(r);
    for (long k = 1; k <= r; ++k) rest -= t[k] * u[r - k];
    if (!(std::fabs(t[0]) > TINY)) return -1;
    u[r] = rest / t[0];
  }
  for (long l = 0; l < free && str->nalc > 0; ++l) {
    const double* last = str->qlcn + l * n + free - 1;
    double sum = 0.0;
    for (long r = 0; r < str->nalc; ++r) sum += last[-r] * u[r];
    str->sdir[str->ifxr[l]] = sum;
  }
  return 0;
}

}  // namespace tqnlp
