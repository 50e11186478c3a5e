// Assessment of trust-region steps. Contracts, method and references in trust_region.h.
//
// A trial passes four stations:
//
//   entry    what the state of the last verdict makes of the trial; a saved better step comes back
//   judge    the decrease against the model's promise: accept, retry longer, retry shorter
//   save     a good step is kept while a longer one is tried
//   test     has the model converged, and does singularity pretend so?
#include "aasubs/loop/trust_region.h"

#include <algorithm>
#include <cmath>

#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

// Shares of the promised reduction: below the first a step is no success, up to the second a fair
// one.
static constexpr double TRIVIAL_SHARE = 0.0001;
static constexpr double FAIR_SHARE = 0.1;
// Share of the slope that a decrease must reach before a longer step is tried.
static constexpr double STEEP_SHARE = 0.75;
static constexpr double LARGEST_INCREASE = 4.0;
static constexpr double SMALLEST_DECREASE = 0.1;
// A longer step must promise this much more than what is already gained.
static constexpr double WORTH_A_LONGER_STEP = 1.2;
// Gradient tests: mismatch against the gradient at xold, slope after the step against that before.
static constexpr double MISMATCH_SHARE = 0.5;
static constexpr double SLOPE_SHARE = 0.75;

static constexpr double RADIUS_FLOOR_SHARE = 0.0001;
static constexpr double LEAST_RADIUS = 1.4916681469999999e-151;
static constexpr double RADIUS_WITH_FLOOR = 1.491668147e-148;

// The trial under judgement.
struct Trial {
  double rfac = 1.0;     // what a restored step has already shortened
  bool goodx = true;     // rldx belongs to the step
  double cdif = 0.0;     // actual reduction
  double promise = 0.0;  // predicted reduction
};

// What follows a station.
enum class Station { judge, shorten, take_result, save, test, model, done };

void open_assessment(DGWSTR* d) {
  d->irc = d->xirc = ACCEPT;
  d->cnvcod = 0;
  d->rest = LEAVE_SAVED;
  d->nfgc = d->minstr->nfct;
  d->modl = d->mlgd = 1;
  d->rinc = 0;
  d->stag = d->stgl = 1;
  d->clgd = d->minstr->crit;
  d->rldx = 0.0;
  d->radf = 1.0;
  d->decf = 0.5;
  d->incf = 2.0;
  d->lmxs = 1.0;
  d->xftl = HUNDRED_EPS;
  // max(1e-10, EPS^(2/3)) / 1e4: the first is the larger.
  d->sctl = d->ftol = 1e-14;
  d->xtol = 1.053671212772351e-12;
  d->dsts = d->gtsl = d->plgd = 0.0;
  d->dst0 = d->dstn = d->gtst = d->nred = 0.0;
  d->dpnm = d->dpsv = 0.0;
}

void open_step_search(DGWSTR* d) {
  d->irc = ACCEPT;
  d->kagqt = -1;
}

bool trial_is_wanted(const DGWSTR* d) {
  if (d->irc == SINGULAR_STEP || !(d->dstn > 0.0)) return false;
  const MINSTR* str = d->minstr;
  return !(d->irc == RETRY && d->radf > 1.0 && WORTH_A_LONGER_STEP * str->dfes >= str->pred);
}

void cut_step(DGWSTR* d) {
  MINSTR* str = d->minstr;
  const double share = str->stub;
  d->dpnm *= share;
  d->dstn *= share;
  str->pred = share * (share * (str->pred + d->gtst) - d->gtst);
  d->gtst *= share;
}

void restore_promise(const DGWSTR* d) {
  MINSTR* str = d->minstr;
  if (str->lincon == 0) return;
  double step = 0.0;
  for (long j = 0; j < str->nvar; ++j) step = std::max(step, std::fabs(str->x[j] - str->xold[j]));
  const double share = step / zvamx(str->nvar, str->sdir);
  if (share > 0.0 && share < 1.0) str->pred /= share;
}

void measure_step(DGWSTR* d) {
  MINSTR* str = d->minstr;
  str->alfa = reldx(str->nvar, str->xsiz, str->x, str->xold);
  d->rldx = str->alfa / str->stub;
}

// ---- Entry --------------------------------------------------------------------------------------

// The trial could not be evaluated: a shorter one, without a judgement.
static Station retry_oversized(DGWSTR* d) {
  d->radf = d->decf;
  --d->rinc;
  d->rest = BACK_TO_XOLD;
  d->irc = RETRY;
  return Station::done;
}

static Station open_iteration(DGWSTR* d) {
  d->stag = 1;
  d->rinc = 0;
  d->clgd = d->minstr->cold;
  if (d->minstr->tbig == 0.0) return Station::judge;
  d->stag = -1;
  d->xirc = d->irc;
  return retry_oversized(d);
}

// The step saved before, if it lowered the objective, is taken instead of the trial.
static Station restore_saved(DGWSTR* d, Trial& t, double rfac) {
  MINSTR* str = d->minstr;
  if (!(d->clgd < str->cold)) return Station::judge;
  d->rest = BACK_TO_XOLD;
  str->crit = d->clgd;
  str->pred = d->plgd;
  d->gtst = d->gtsl;
  t.rfac = rfac;
  d->dstn = d->dsts;
  t.goodx = false;  // rldx is that of the trial
  return Station::judge;
}

// Is the trial better than the last one judged? A trial that loses gives way to the saved step; the
// counter of calls goes on, so that nfgc tells that the objective was last called elsewhere.
static Station compare_with_last(DGWSTR* d, Trial& t) {
  if (d->minstr->crit < d->clgd) return Station::judge;
  if (d->modl == d->mlgd) return restore_saved(d, t, d->dstn / d->dsts);
  d->modl = d->mlgd;
  return restore_saved(d, t, 1.0);
}

// The same model with a smaller radius: no other model will be tried in this iteration.
static Station keep_model(DGWSTR* d) {
  d->stag = d->stgl;
  d->rinc = -1;
  return Station::judge;
}

// The model was kept or exchanged (1, 2) or the radius changed (5).
static Station continue_iteration(DGWSTR* d, Trial& t) {
  const bool too_big = d->minstr->tbig > 0.0;
  const bool same_model = d->modl == d->mlgd;
  if (d->irc == RETRY_MODEL && same_model) return keep_model(d);
  if (d->irc <= ACCEPT_MODEL) ++d->stag;
  if (d->stag <= 0) {  // a retry of an oversized step: on with the state that it interrupted
    if (too_big) return retry_oversized(d);
    d->stag = -d->stag;
    if (d->xirc == ACCEPT_TEST || d->xirc == ACCEPT) return Station::judge;
    if (d->xirc == RETRY_MODEL && same_model) return keep_model(d);
    if (d->xirc <= ACCEPT_MODEL) ++d->stag;
  }
  if (!too_big) return compare_with_last(d, t);
  if (d->rinc > 0) return restore_saved(d, t, d->dstn / d->dsts);
  d->stag = -d->stag;
  d->xirc = d->irc;
  return retry_oversized(d);
}

// The state that was set aside for the singular test, or by a caller that resumes.
static int state_set_aside(const DGWSTR* d) { return d->dsts < 0.0 ? FALSE_CONVERGED : d->xirc; }

// The step of length lmxs was computed: pred is what the model gives for it.
static Station end_singular_test(DGWSTR* d) {
  MINSTR* str = d->minstr;
  d->irc = state_set_aside(d);
  d->gtst = d->gtsl;
  d->dstn = d->dsts = std::fabs(d->dsts);
  d->nred = -str->pred;
  str->pred = d->plgd;
  d->rest = TAKE_SAVED;
  if (-d->nred <= d->ftol * std::fabs(str->cold)) d->irc = SINGULAR_CONVERGED;
  return Station::done;
}

// A converged state is taken up again.
static Station resume_converged(DGWSTR* d) {
  if (d->irc == FALSE_CONVERGED) return Station::take_result;
  d->irc = state_set_aside(d);
  return d->minstr->ssin <= 0.0 ? Station::save : Station::model;
}

static Station enter(DGWSTR* d, Trial& t) {
  d->rest = LEAVE_SAVED;
  if (d->irc == ACCEPT_TEST || d->irc == ACCEPT) return open_iteration(d);
  if (d->irc == SINGULAR_STEP) return end_singular_test(d);
  if (d->irc >= STEP_CONVERGED) return resume_converged(d);
  return continue_iteration(d, t);
}

// ---- Judgement ----------------------------------------------------------------------------------

// The predicted reduction that a trial is measured by. A quasi-Newton matrix far from the solution
// may promise more than there is: beyond 1000 the dogleg does not believe it above the mean size of
// the two values.
static double believed_reduction(const DGWSTR* d) {
  static constexpr double LARGE_PROMISE = 1000.0;
  const MINSTR* str = d->minstr;
  if (!d->dogleg) return str->pred;
  const double bounded = std::min(str->pred, (std::fabs(str->crit) + std::fabs(str->cold)) / 2.0);
  return bounded > LARGE_PROMISE ? bounded : str->pred;
}

// Is the step the Newton step, or close to it, so that a longer one is not worth a trial? The
// dogleg, whose matrix is always positive definite, asks for the reduction of its Newton step in
// any case.
static bool is_nearly_newton(const DGWSTR* d, const Trial& t) {
  if (d->minstr->lamb == 0.0) return true;
  const bool within_reach = d->dst0 >= 0.0 && d->dst0 < 2.0 * d->dstn;
  const bool little_left = d->nred < WORTH_A_LONGER_STEP * t.cdif;
  return within_reach || (little_left && (d->dogleg || d->dst0 >= 0.0));
}

// The decrease is worth a longer step, unless one was just tried or the step is Newton's.
static Station judge_good_step(DGWSTR* d, const Trial& t) {
  const bool steep = t.cdif >= -STEEP_SHARE * d->gtst;
  if (!steep || d->rinc < 0 || d->rest == BACK_TO_XOLD) {
    d->radf = 1.0;
    d->irc = d->xirc = ACCEPT_TEST;
    return Station::test;
  }
  d->radf = LARGEST_INCREASE;
  if (t.cdif < (0.5 / LARGEST_INCREASE - 1.0) * d->gtst) {
    d->radf = std::max(d->incf, d->gtst / 2.0 / (d->gtst + t.cdif));
  }
  if (is_nearly_newton(d, t)) {
    d->irc = d->xirc = ACCEPT;
    return Station::test;
  }
  ++d->rinc;
  d->irc = RETRY;
  return Station::save;
}

static Station judge(DGWSTR* d, Trial& t) {
  MINSTR* str = d->minstr;
  t.cdif = str->dfes = str->cold - str->crit;
  t.promise = believed_reduction(d);
  if (t.cdif > TRIVIAL_SHARE * t.promise || d->rinc > 0) {
    // A restored step stands at the point that nfgc already names.
    if (t.goodx) d->nfgc = str->nfct;
    d->dsts = d->dstn;
    if (t.cdif > FAIR_SHARE * t.promise) return judge_good_step(d, t);
    t.rfac = 1.0;
    d->xirc = d->stag >= d->stgl ? ACCEPT : ACCEPT_MODEL;
    return Station::shorten;
  }
  if (!(str->crit < str->cold)) {
    d->mlgd = d->modl;
    d->clgd = str->crit;
    str->crit = str->cold;
    d->rest = BACK_TO_XOLD;
  } else if (t.goodx) {
    d->nfgc = str->nfct;
  }
  d->xirc = RETRY_MODEL;
  if (d->stag >= d->stgl) {
    d->xirc = RETRY;
    --d->rinc;
  }
  return Station::shorten;
}

// Radius by the minimum of the parabola through both values and the slope; and the end of steps
// that no longer move x.
static Station shorten(DGWSTR* d, const Trial& t) {
  const double bend = t.cdif + d->gtst;
  d->radf = t.rfac / 2.0;
  if (bend < d->gtst) d->radf = t.rfac * std::max(SMALLEST_DECREASE, d->gtst / 2.0 / bend);
  if (!t.goodx || d->rldx > d->xftl) return Station::take_result;
  d->irc = FALSE_CONVERGED;
  return Station::test;
}

static Station take_result(DGWSTR* d) {
  d->irc = d->xirc;
  return d->minstr->crit < d->minstr->cold ? Station::save : Station::test;
}

static Station save(DGWSTR* d) {
  const MINSTR* str = d->minstr;
  const bool restored = d->rest == BACK_TO_XOLD;
  d->clgd = str->crit;
  d->mlgd = d->modl;
  d->dsts = d->dstn;
  if (!restored) {
    d->rest = SAVE_STEP;
    d->nfgc = str->nfct;
  }
  d->plgd = str->pred;
  d->gtsl = d->gtst;
  return Station::test;
}

// ---- Tests of the model -------------------------------------------------------------------------

// Convergence of the model at its Newton step.
static void test_convergence(DGWSTR* d, const Trial& t, double promise) {
  const MINSTR* str = d->minstr;
  if (d->dst0 < 0.0) return;
  const bool little_to_gain = d->nred > 0.0 && d->nred <= std::fabs(str->cold) * d->ftol;
  const bool nothing_to_gain = d->nred == 0.0 && promise == 0.0;
  const bool small_step = str->lamb == 0.0 && d->rldx <= d->xtol && t.goodx;
  if (little_to_gain || nothing_to_gain) {
    d->irc = small_step ? BOTH_CONVERGED : FUNCTION_CONVERGED;
  } else if (small_step) {
    d->irc = STEP_CONVERGED;
  }
}

// Could a step of length lmxs still gain something? Then there is no sign of singularity.
static bool long_step_may_gain(const DGWSTR* d, double promise, double worth) {
  if (d->dstn > d->lmxs) {
    const double share = d->lmxs / d->dstn;
    return d->lmxs >= d->dstn / 2.0 || worth < promise * (2.0 - share) * share;
  }
  return promise >= worth || (d->dst0 > 0.0 && d->dst0 / 2.0 <= d->lmxs);
}

static void test_model(DGWSTR* d, const Trial& t) {
  MINSTR* str = d->minstr;
  const double promise = believed_reduction(d);
  if (promise < t.cdif / 2.0) return;
  const double worth = std::fabs(str->cold) * d->sctl;
  if (d->dstn > d->lmxs && promise <= worth) d->irc = SINGULAR_CONVERGED;
  test_convergence(d, t, promise);
  if (d->irc >= SINGULAR_STEP && d->irc != FALSE_CONVERGED) return;
  if (long_step_may_gain(d, promise, worth)) return;
  if (d->nred < 0.0) {  // the step of length lmxs was computed in this iteration
    if (-d->nred <= d->ftol * std::fabs(str->cold)) d->irc = SINGULAR_CONVERGED;
    return;
  }
  if (d->irc != FALSE_CONVERGED) d->xirc = d->irc;
  d->gtsl = d->gtst;
  d->dsts = d->irc == FALSE_CONVERGED ? -d->dstn : d->dstn;
  d->plgd = str->pred;
  d->rest = d->rest == TAKE_SAVED ? LEAVE_SAVED : SAVE_STEP;
  d->irc = SINGULAR_STEP;
}

// An exact model that is followed so far down is taken as it is; a quasi-Newton one goes through
// the tests like any other.
static bool is_unbounded(const DGWSTR* d, const Trial& t) {
  return !d->dogleg && d->minstr->ssin <= t.cdif;
}

int assess(DGWSTR* d) {
  MINSTR* str = d->minstr;
  Trial t;
  t.cdif = str->dfes = str->cold - str->crit;
  Station next = enter(d, t);
  if (next == Station::judge) next = judge(d, t);
  if (next == Station::shorten) next = shorten(d, t);
  if (next == Station::take_result) next = take_result(d);
  if (next == Station::save) next = save(d);
  if (next == Station::done) return d->irc;
  if (next == Station::test && is_unbounded(d, t)) {
    d->rest = LEAVE_SAVED;
    return d->irc = ACCEPT;
  }
  if (d->rest == BACK_TO_XOLD && d->clgd < str->cold) d->rest = TAKE_SAVED;
  test_model(d, t);
  return d->irc;
}

// ---- After the verdict --------------------------------------------------------------------------

void forget_verdict(DGWSTR* d) {
  d->irc = d->xirc = ACCEPT;
  d->cnvcod = 0;
}

Next end_of_model(DGWSTR* d, int* ij) {
  MINSTR* str = d->minstr;
  d->cnvcod = d->irc - ASSESSMENT_TO_CODE;
  if (str->crit < str->cold && d->xirc != LAST_STEP) {
    d->xirc = LAST_STEP;
    return Next::go_on;
  }
  *ij = str->uster(str, NO_PROGRESS);
  return Next::stop;
}

Next end_at_vertex(MINSTR* str, int* ij) {
  *ij = str->uster(str, TEST_ITERATION);
  if (*ij == 0) *ij = str->uster(str, NO_PROGRESS);
  return Next::stop;
}

void carry_out_rest(DGWSTR* d) {
  MINSTR* str = d->minstr;
  const long n = str->nvar;
  if (d->rest == SAVE_STEP) {
    std::copy_n(str->x, n, d->xsav);
    std::copy_n(str->sdir, n, d->ssav);
    d->dpsv = d->dpnm;
  } else if (d->rest == TAKE_SAVED) {
    std::copy_n(d->xsav, n, str->x);
    std::copy_n(d->ssav, n, str->sdir);
    d->dpnm = d->dpsv;
    measure_step(d);
  }
  if (!(str->crit < str->cold)) return_to_xold(str);
}

Next judge_trial(DGWSTR* d, double limit, bool (*gives_up)(const DGWSTR& d), int* ij) {
  MINSTR* str = d->minstr;
  const bool singular_test = d->irc == SINGULAR_STEP;
  if (!singular_test) measure_step(d);
  assess(d);
  const bool given_up = gives_up != nullptr && gives_up(*d);
  carry_out_rest(d);
  // The radius is that of the step which the verdict is about, not that of the test.
  if (singular_test) str->delt = d->rtst;
  if (given_up) return Next::restart;
  if (d->irc == RETRY_MODEL || d->irc == RETRY) {
    str->delt = d->dogleg ? d->radf * d->dstn : next_radius(d, d->dstn, limit);
    return Next::solve_again;
  }
  if (d->irc == SINGULAR_STEP) {
    d->rtst = str->delt;
    str->delt = d->lmxs;
    return Next::solve_again;
  }
  return d->irc > SINGULAR_STEP ? end_of_model(d, ij) : Next::go_on;
}

double next_radius(const DGWSTR* d, double length, double limit) {
  const double delt = d->minstr->delt;
  double radius = std::max(d->radf * length, RADIUS_FLOOR_SHARE * delt);
  if (delt > RADIUS_WITH_FLOOR) radius = std::max(radius, LEAST_RADIUS);
  return std::min(limit, radius);
}

void apply_gradient_tests(DGWSTR* d, double mismatch, double length, double slope) {
  const bool model_is_right = mismatch <= MISMATCH_SHARE * length;
  if (model_is_right || slope < SLOPE_SHARE * d->gtst) d->radf = d->incf;
}

}  // namespace tqnlp
