// znlpgan, the step: its limit, the search or the fixed Newton step, the working set at its end,
// and whether it is accepted.
#include <algorithm>
#include <cmath>

#include "aasubs/leastsquares/znlpgan.h"
#include "aasubs/linesearch/znlpl11.h"
#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LONGEST_STEP = 3.0;  // no search goes further along a step of the model
static constexpr int FATAL_EVALUATION = -11;
static constexpr int FATAL_SEARCH = -12;

// ---- Before the step ----------------------------------------------------------------------------

// Largest step along sdir from xold at which all free variables keep their bounds.
static double room_to_bounds(const MINSTR* str) {
  double room = HUGE_VALUE;
  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
    const double d = str->sdir[j];
    if (d == 0.0 || str->iabc[j] != 0) continue;
    const double bound = d < 0.0 ? str->lb[j] : str->ub[j];
    if (d < 0.0 ? lower_exists(bound) : upper_exists(bound)) {
      room = std::min(room, std::max((bound - str->xold[j]) / d, 0.0));
    }
  }
  return room;
}

// J sdir, behind fold.
static void multiply_direction(GNSTR* g) {
  MINSTR* str = g->minstr;
  double* product = str->fold + str->mequ;
  for (long i = 0; i < str->mequ; ++i) {
    product[i] = zvdot11(str->nvar, g->jac + i * str->nvar, str->sdir);
  }
}

// The first step of a search: the full step once the method runs, but no more than a few times the
// last one. znlpalf tries 2.5 dfes / |slope|, at least 0.1; the start has its own dfes.
static void expect_decrease(GNSTR* g) {
  static constexpr double FULL_STEP_SHARE = 0.4;
  static constexpr double GROWTH = 3.0;
  static constexpr double GROWTH_AT_LOWER_RANK = 6.0;
  if (g->minstr->itre == 0) return;
  const double growth = g->prank < g->rng1 ? GROWTH_AT_LOWER_RANK : GROWTH;
  g->minstr->dfes = FULL_STEP_SHARE * g->d1sqs * std::min(1.0, growth * g->alf1);
}

// ---- The step -----------------------------------------------------------------------------------

// The whole Newton step, or as much of it as the bounds allow; shorter where it cannot be
// evaluated.
static int fixed_step(MINSTR* str) {
  static constexpr int MOST_FAILURES = 10;
  static constexpr double QUARTER = 0.25;
  str->alfa = std::min(1.0, str->stub);
  for (int failures = 1;; ++failures) {
    zvaxpy(str->x, str->sdir, str->xold, str->nvar, str->alfa);
    for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
      str->x[j] = std::min(std::max(str->x[j], str->lb[j]), str->ub[j]);
    }
    if (evaluate_objective(str) && std::isfinite(str->crit)) return 0;
    if (failures == MOST_FAILURES) break;
    str->alfa *= QUARTER;
  }
  return_to_xold(str);
  str->alfa = str->tbig = 0.0;
  return FATAL_EVALUATION;
}

// Variables that the step brought to a bound join the working set.
static void join_bounds(MINSTR* str) {
  static constexpr double NEAR = 0.001;
  static constexpr double TEN_EPS = 10.0 * EPS;  // what the rounding of the move may leave
  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
    if (str->iabc[j] != 0) continue;
    const double size = 1.0 + std::fabs(str->x[j]) + std::fabs(str->xold[j]);
    const auto reaches = [&](double bound) {
      const double distance = std::fabs(str->x[j] - bound);
      return distance <= NEAR && distance <= TEN_EPS * size;
    };
    if (lower_exists(str->lb[j]) && reaches(str->lb[j])) {
      str->iabc[j] = 1;
      str->x[j] = str->lb[j];
    } else if (upper_exists(str->ub[j]) && reaches(str->ub[j])) {
      str->iabc[j] = -1;
      str->x[j] = str->ub[j];
    } else {
      continue;
    }
    ++str->nabc;
    ++str->chac;
  }
}

int stepuc(GNSTR* g) {
  MINSTR* str = g->minstr;
  ++g->itotal;
  str->chac = 0;
  str->stub = std::min({room_to_bounds(str), LONGEST_STEP, g->reach});
  int error = 0;
  if (g->kod == GN_NEWTON) {
    error = fixed_step(str);
  } else {
    multiply_direction(g);
    expect_decrease(g);
    error = znlpl11(str);
    if (error == FATAL_EVALUATION) error = FATAL_SEARCH;
  }
  if (str->alfa > 0.0) join_bounds(str);
  g->xdif = xdif(str->nvar, str->x, str->xold);
  g->phi = str->crit;
  return error;
}

// ---- Judgement ----------------------------------------------------------------------------------

int evreuc(GNSTR* g, int error) {
  static constexpr double NEXT_TO_NOTHING = 3000.0;
  static constexpr int ACCEPT = 0;
  static constexpr int RETRY = 1;
  const MINSTR* str = g->minstr;
  if (g->lattry == 0) return str->alfa > 0.0 ? ACCEPT : NO_PROGRESS;
  if (error == -1 || error == -3) return ACCEPT;
  if (error == -2 && str->alfa <= str->stub / NEXT_TO_NOTHING) return RETRY;
  const bool failed = g->betnew >= g->beta || str->crit >= str->cold;
  return is_newton(g->kod) && failed ? RETRY : ACCEPT;
}

}  // namespace tqnlp
