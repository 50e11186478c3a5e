// conred: CONstraint REDuction. Contract in conred.h.
//
// The record itself runs as an unconstrained problem with another objective, so that technique and
// services need nothing new; everything but x comes back from a copy.
#include "aasubs/sqp/conred.h"

#include <algorithm>
#include <cmath>

#include "aasubs/linesearch/znlplis.h"
#include "aasubs/quasinewton/znlpqun.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "aasubs/sqp/terms.h"
#include "aasubs/termination/znlptrm.h"
#include "kernels/vector.h"

namespace tqnlp {

// The terms see bounds and constraints of the record, which are parked while QUANEW runs.
template <class Operation>
static bool with_constraints(MINSTR* str, Operation operation) {
  const VMCSTR* v = static_cast<const VMCSTR*>(str->thdstr);
  const MINSTR* saved = str->savstr;
  const double objective = str->crit;
  str->nlicon = saved->nlicon;
  str->bounds = saved->bounds;
  str->lincon = saved->lincon;
  const bool good = operation(*const_cast<VMCSTR*>(v));
  str->nlicon = str->bounds = str->lincon = 0;
  str->crit = objective;
  return good;
}

static double half_sum_of_squares(const VMCSTR& v) {
  double sum = 0.0;
  for (long i = 0; i < v.terms; ++i) {
    const double r = violation(v, i, v.vcon[i]);
    sum += 0.5 * r * r;
  }
  return sum;
}

// Some modules set objective and constraints in one call.
static bool values_of_terms(MINSTR* str, VMCSTR& v) {
  if (str->usnlc == nullptr && str->savstr->usfct(str) != 0) return false;
  return setvcon(str, v);
}

static int fqcon(MINSTR* str) {
  str->tbig = 0.0;
  double sum = 0.0;
  const bool good = with_constraints(str, [&](VMCSTR& v) {
    if (!values_of_terms(str, v)) return false;
    sum = half_sum_of_squares(v);
    return std::isfinite(sum);
  });
  str->crit = sum;
  if (!good) str->tbig = 1.0;
  return good ? 0 : 1;
}

static void add_gradients(MINSTR* str, const VMCSTR& v) {
  const long n = str->nvar;
  vzfdl(0.0, str->grad, n);
  for (long i = 0; i < v.rows; ++i) {
    const double c = v.vcon[i];
    if (violation(v, i, c) != 0.0) zvxay11(n, str->grad, c, getjcon(str, v, i));
  }
  for (long j = 0; v.terms > v.rows && j < n; ++j) {
    str->grad[j] += std::min(v.vcon[v.rows + j], 0.0) - std::min(v.vcon[v.rows + n + j], 0.0);
  }
}

static int gqcon(MINSTR* str) {
  const bool good = with_constraints(str, [&](VMCSTR& v) {
    if (!values_of_terms(str, v)) return false;
    if (str->usjnc != nullptr && (str->usjnc(str) != 0 || str->tbig != 0.0)) return false;
    add_gradients(str, v);
    return true;
  });
  return good ? 0 : 1;
}

static constexpr int SAVED_COUNTS = 20;  // place of the counts that are saved in toln

static void park_counts(MINSTR* str) {
  std::copy_n(str->toln + 1, CONSECUTIVE_COUNTERS, str->toln + SAVED_COUNTS);
  std::fill_n(str->toln, SAVED_COUNTS, 0L);
}

static void return_counts(MINSTR* str) {
  std::fill_n(str->toln, SAVED_COUNTS, 0L);
  std::copy_n(str->toln + SAVED_COUNTS, CONSECUTIVE_COUNTERS, str->toln + 1);
}

static void set_unconstrained_run(MINSTR* str, const VMCSTR& v) {
  static constexpr double ENOUGH_CALLS = 10.0;  // times the iterations
  str->wrk2 = v.inner.wrk2;                     // the terms stand in that of the record
  str->tech = QUANEW;
  str->imax = str->lsqu = 0;
  str->ider = str->tupd = 1;
  str->load = str->hesc = 0;
  str->updat = znlpbfg;
  str->dhes = str->rtop = MISSING;
  str->nres = NEVER;
  str->tlin = 2;
  str->linse = select_line_search(str->tlin);
  str->salf = std::min(str->salf, 0.1);
  str->smax = HUGE_VALUE;
  str->damp = 2.0;
  str->sigm = 0.4;
  str->smit = 0;
  str->hfrm = 0;
  str->mini = 2;
  str->maxi = str->max2;
  str->maxf = ENOUGH_CALLS * str->max2;
  str->agtl = 0.001;
  str->gtol = SMALLEST_TOLERANCE;
  str->atol = -ROOT_HUGE;
  str->ftol = str->fto2 = str->aftl = str->axtl = str->xtol = str->gto2 = 0.0;
  str->fsiz = str->xsiz = 0.0;
  str->nlicon = str->lincon = str->bounds = str->opro = 0;
  str->nabc = str->nalc = str->nldc = str->nlbc = 0;
  str->usfct = fqcon;
  str->usgrd = gqcon;
  str->uster = znlptrm;
  str->usfout = nullptr;
  str->dfes = MISSING;
  str->fsav = 0;
  str->unbd = 1;
  str->dbug = 0.0;
}

bool conred(MINSTR* str, VMCSTR& v) {
  MINSTR saved = *str;
  std::copy_n(str->x, str->nvar, v.xopt);
  const double before = half_sum_of_squares(v);
  str->savstr = &saved;
  str->thdstr = &v;
  park_counts(str);
  set_unconstrained_run(str, v);
  znlpqun(str);
  const double after = fqcon(str) == 0 ? str->crit : HUGE_VALUE;
  saved.nfnc = str->nfnc;
  saved.njnc = str->njnc;
  if (saved.usnlc == nullptr) saved.nfct += str->nfct;
  *str = saved;
  return_counts(str);
  str->tbig = 0.0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    str->x[j] = std::clamp(str->x[j], str->lb[j], std::max(str->lb[j], str->ub[j]));
  }
  if (after < before) return true;
  std::copy_n(v.xopt, str->nvar, str->x);
  return false;
}

}  // namespace tqnlp
