// znlpfdh: Finite-Difference intervals (H for the usual name of a step).
//
// Method     interval estimation from the relative cancellation in first and second differences, in
//            a one-sided form that needs x, x+h and x+2h only; up to four trial intervals a
//            function
// Reference  Gill, Murray, Saunders and Wright (1983), SIAM J. Sci. Stat. Comput. 4, 310-321
// Reads      fdig, cdig, lb, ub
// Writes     hfwd, hcnt, ofco, grad, jcon; wrk2 keeps fcon at the base point, xold keeps x
//
// With noise e in the values, second derivative phi and trial interval h the relative cancellation
// errors are
//
//   first difference    cf = 2 e / (h min |phif|, |phib|)      good up to 0.1
//   second difference   c  = 4 e / (h^2 |phi|)                 wanted between 0.001 and 0.1
//
// c falls with h: above the range h grows, below it h shrinks, by a factor that is set once. An
// acceptable h gives phi, and with it the forward interval 2 sqrt(e/|phi|), which balances
// truncation and cancellation; the accepted h itself is the central interval. If c never comes into
// its range the function looks constant (no good first difference), linear (c always too large: no
// curvature to be seen) or odd (c always too small: the curvature grows as h shrinks).
//
// Several functions share the interval of a parameter: their curvatures and noises are summed up
// (Pool). The interval lies on the side of x that has more room between the bounds.
#include "aasubs/derivatives/znlpfdh.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"

namespace tqnlp {

static constexpr double LN_10 = 2.302585092994046;
static constexpr double CANCELLATION_HIGH = 0.1;   // above: the interval is too small
static constexpr double CANCELLATION_LOW = 0.001;  // below: the interval is too large
static constexpr double FIRST_TRIAL = 10.0;        // first trial against the simple interval
static constexpr int MOST_TRIALS = 4;
static constexpr long OBJECTIVE = -1;  // index of the objective among the functions

// a/b inside the range of doubles; false when the quotient had to be limited.
static bool ddiv(double a, double b, double* quotient) {
  if (a == 0.0) {
    *quotient = 0.0;
    return b != 0.0;
  }
  if (b == 0.0) {
    *quotient = a < 0.0 ? -HUGE_VALUE : HUGE_VALUE;
    return false;
  }
  if (std::fabs(b) >= 1.0) {
    *quotient = std::fabs(a) >= TINY * std::fabs(b) ? a / b : 0.0;
    return true;
  }
  if (std::fabs(a) <= HUGE_VALUE * std::fabs(b)) {
    *quotient = a / b;
    return true;
  }
  *quotient = (a < 0.0) != (b < 0.0) ? -HUGE_VALUE : HUGE_VALUE;
  return false;
}

// The same where the limited value will do: a zero difference in a denominator makes a cancellation
// error as large as a double can be, and the trial is judged by that.
static double quotient(double a, double b) {
  double result = 0.0;
  ddiv(a, b, &result);
  return result;
}

// ---- Evaluations -------------------------------------------------------------------------------

// One evaluation with its purpose in indf; false when it failed.
static bool call(MINSTR* str, Callback callback, double indf) {
  const double saved = str->indf;
  str->indf = indf;
  const int code = callback(str);
  str->ifdr = ORDER_FUNCTION;
  str->indf = saved;
  return code == 0 && str->tbig == 0.0;
}

// What computes the constraints: their own callback, or the objective's.
static Callback constraint_callback(const MINSTR* str) {
  return str->usnlc != nullptr ? str->usnlc : str->usfct;
}

// Functions at the base point: the objective, and the constraints too. 0, -1 or -2.
static int evaluate_base(MINSTR* str, bool constraints) {
  if (!call(str, str->usfct, constraints ? IN_TEST : HESSIAN_STEP_FROM_FUNCTION)) return -1;
  if (constraints && !call(str, constraint_callback(str), CONSTRAINT_INTERVAL)) return -2;
  return 0;
}

// Value of function k at x.
static bool value_here(MINSTR* str, long k, double* value) {
  const bool good = k == OBJECTIVE ? call(str, str->usfct, HESSIAN_STEP_FROM_FUNCTION)
                                   : call(str, constraint_callback(str), CONSTRAINT_STEP);
  if (good) *value = k == OBJECTIVE ? str->crit : str->fcon[k];
  return good;
}

// Values at xj + h and xj + 2h; x[j] is put back by the caller. 0, -3 or -4.
static int evaluate_ahead(MINSTR* str, long k, long j, double h, double* f1, double* f2) {
  const double xj = str->x[j];
  perturb(str, j, xj + h);
  if (!value_here(str, k, f1)) return -3;
  perturb(str, j, xj + 2.0 * h);
  return value_here(str, k, f2) ? 0 : -4;
}

// ---- Interval of one function in one parameter -------------------------------------------------

namespace {

enum Status { good = 0, looks_constant = 1, looks_linear = 2, looks_odd = 3, disagrees = 4 };

struct Differences {
  double h = 0.0;     // interval, with its sign
  double phif = 0.0;  // first derivative from h
  double phic = 0.0;  // first derivative of second order
  double phi = 0.0;   // second derivative
};

struct Estimate {
  double forward = 0.0;
  double central = 0.0;
  Status status = good;
  double phic = 0.0;
  double phi = 0.0;
};

// The error c against its range, not the interval: too small an error means too large an interval.
enum class Cancellation { acceptable, too_small, too_large };

// What the trials of one estimate share.
struct Trials {
  double eps, epsa;   // relative and absolute noise
  double size;        // |xj| + 1
  double growth;      // factor between trial intervals, set at the first trial
  Differences kept;   // of the last trial
  Differences saved;  // of the last trial with a good first difference
  bool first_difference_bad;
  Cancellation state;  // of the first trial; an acceptable one ends the trials
};

}  // namespace

static Cancellation judge(double c) {
  if (c < CANCELLATION_LOW) return Cancellation::too_small;
  return c <= CANCELLATION_HIGH ? Cancellation::acceptable : Cancellation::too_large;
}

// The estimate from the differences of the accepted interval. It is good when neither
// the distance to the derivative of second order nor the truncation error of the forward interval
// is above half of the forward difference.
static Estimate accept(const Trials& t, const Differences& taken, double phif) {
  Estimate e;
  e.central = std::fabs(taken.h);
  e.forward = 2.0 * std::sqrt(t.epsa) / std::sqrt(std::fabs(taken.phi));
  const double error = std::max(std::fabs(phif - taken.phic), std::fabs(taken.phi) * e.forward);
  e.status = error <= 0.5 * std::fabs(phif) ? good : disagrees;
  e.phic = taken.phic;
  e.phi = taken.phi;
  return e;
}

// The trials ended without an acceptable interval. A function that looks constant gets the simple
// interval; others the last interval at which the first difference was still good.
static Estimate give_up(const Trials& t) {
  Estimate e;
  if (t.first_difference_bad) {
    e.status = looks_constant;
    e.forward = e.central = 2.0 * t.size * std::sqrt(t.eps);
    return e;
  }
  e.forward = e.central = std::fabs(t.saved.h);
  e.phic = t.saved.phic;
  if (t.state == Cancellation::too_large) {
    e.status = looks_linear;
  } else {
    e.status = looks_odd;
    e.phi = t.saved.phi;
  }
  return e;
}

// Keeps what the trials will fall back on, once cf is good at all.
static void save_if_first_difference_good(Trials& t, const Differences& d, double cf, bool first) {
  if (cf <= CANCELLATION_HIGH) t.saved = d;
  if (first) {
    t.first_difference_bad = !(cf <= CANCELLATION_HIGH);
  } else if (cf <= CANCELLATION_HIGH) {
    t.first_difference_bad = false;
  }
}

// Judges a trial: true with *accepted filled when the estimate is done, else *h is the next
// interval. The direction of the search is that of the first trial. A search for a larger c that
// jumps over the range takes the trial before; one for a smaller c takes whatever comes below its
// upper end.
static bool judge_trial(Trials& t, int trial, const Differences& d, double cf, double c, double* h,
                        Estimate* accepted) {
  const Cancellation now = judge(c);
  if (trial == 0) {
    t.growth = 0.25 * std::pow(t.eps, -0.16);
    if (now == Cancellation::too_small) t.growth *= 10.0;
    save_if_first_difference_good(t, d, cf, true);
    t.state = now;
  } else if (t.state == Cancellation::too_small) {
    if (now == Cancellation::too_large) {
      *accepted = accept(t, t.kept, d.phif);
      return true;
    }
    save_if_first_difference_good(t, d, cf, false);
  } else if (t.first_difference_bad) {
    save_if_first_difference_good(t, d, cf, false);
  }
  const bool acceptable = now == Cancellation::acceptable ||
                          (t.state == Cancellation::too_large && c <= CANCELLATION_HIGH);
  if (acceptable) {
    *accepted = accept(t, d, d.phif);
    return true;
  }
  t.kept = d;
  *h = t.state == Cancellation::too_small ? *h / t.growth : *h * t.growth;
  return false;
}

// Differences at interval h from the three values.
static Differences form_differences(double f0, double f1, double f2, double h) {
  Differences d;
  d.h = h;
  d.phif = quotient(f1 - f0, h);
  d.phic = quotient(4.0 * f1 - f2 - 3.0 * f0, 2.0 * h);
  d.phi = quotient(f0 + f2 - 2.0 * f1, h * h);
  return d;
}

// Relative noise of a function with a number of accurate digits.
static double noise_level(double digits) {
  return digits > 0.0 ? std::exp(-LN_10 * digits) : MACHINE_PRECISION;
}

// How far parameter j may go on the side of sign.
static double room_on_side(const MINSTR* str, long j, double sign) {
  if (!is_confined(str, j)) return HUGE_VALUE;
  return sign > 0.0 ? str->ub[j] - str->x[j] : str->x[j] - str->lb[j];
}

// Interval of function k in parameter j, on the side of sign; f0 is the value at x. Returns 0, or
// the status of a failed evaluation. Two evaluations a trial. The first trial is ten times the
// interval that would be right if the curvature were |f| + 1 over (|x| + 1)^2.
static int estimate_interval(MINSTR* str, long k, long j, double sign, double f0,
                             Estimate* result) {
  const double digits = k == OBJECTIVE ? str->fdig : str->cdig;
  Trials t{};
  t.eps = noise_level(digits);
  t.epsa = (std::fabs(f0) + 1.0) * t.eps;
  const double xj = str->x[j];
  t.size = std::fabs(xj) + 1.0;
  const double most = 0.5 * room_on_side(str, j, sign);
  double tried = 0.0;
  double h = sign * FIRST_TRIAL * 2.0 * t.size * std::sqrt(t.eps);
  for (int trial = 0; trial < MOST_TRIALS; ++trial) {
    h = std::clamp(h, -most, most);
    if (h == tried) break;  // the bound allows no longer one
    tried = h;
    double f1 = 0.0, f2 = 0.0;
    const int code = evaluate_ahead(str, k, j, h, &f1, &f2);
    str->x[j] = xj;
    if (code != 0) return code;
    const Differences d = form_differences(f0, f1, f2, h);
    const double phib = quotient(f2 - f0, 2.0 * h);
    const double least = std::min(std::fabs(d.phif), std::fabs(phib));
    const double cf = quotient(t.epsa, 0.5 * std::fabs(h) * least);
    const double c = quotient(t.epsa, 0.25 * std::fabs(d.phi) * h * h);
    if (judge_trial(t, trial, d, cf, c, &h, result)) return 0;
  }
  *result = give_up(t);
  return 0;
}

// ---- All functions, all parameters -------------------------------------------------------------

namespace {

// Sums over the functions of one parameter, for the interval that serves them all.
struct Pool {
  double curvature = 0.0;  // sum of |phi|
  double noise = 0.0;      // sum of epsa
  double least = 1.0 / std::pow(EPS, 0.333);
  double largest = 0.0;
  double central = 0.0;

  void add(const Estimate& e, double epsa) {
    curvature += std::fabs(e.phi);
    noise += epsa;
    least = std::min(least, e.forward);
    largest = std::max(largest, e.forward);
    if (e.status == good) central = std::max(central, e.central);
  }

  // Forward interval that balances truncation and noise of the whole set.
  double forward() const {
    const double smallest = std::min(least, largest);
    if (smallest * smallest * curvature > 4.0 * noise) return smallest;
    if (4.0 * noise <= largest * largest * curvature) return 2.0 * std::sqrt(noise / curvature);
    return largest;
  }
};

}  // namespace

// +1, or -1 where more room to move lies below.
static double side_with_room(const MINSTR* str, long j) {
  if (str->bounds == 0) return 1.0;
  const double lo = lower_exists(str->lb[j]) ? str->lb[j] - str->x[j] : -HUGE_VALUE;
  const double hi = upper_exists(str->ub[j]) ? str->ub[j] - str->x[j] : HUGE_VALUE;
  return 0.5 * hi + 0.5 * lo < 0.0 ? -1.0 : 1.0;
}

// The differences give the first derivatives as by-products.
static void store_derivative(MINSTR* str, long k, long j, const Estimate& e, long* constant) {
  if (k != OBJECTIVE) {
    str->jcon[k * str->nvar + j] = e.phic;
    return;
  }
  str->grad[j] = e.phic;
  if (e.status == looks_constant || e.status == looks_linear) {
    str->ofco[j] = 1;
    ++*constant;
  }
}

// Intervals of parameter j from all functions asked for. The objective alone has its own estimate,
// or the simple intervals where that is doubtful; with constraints the pool decides.
static int intervals_of_parameter(MINSTR* str, int job, long j, double crit, long* constant) {
  const long first = job == 2 ? 0 : OBJECTIVE;
  const long last = job == 1 || str->nlicon == 0 ? 0 : str->nnlc;
  if (first >= last) return 0;  // constraints asked for, and there are none: nothing to estimate
  const double sign = side_with_room(str, j);
  const double size = std::fabs(str->x[j]) + 1.0;
  Pool pool;
  Estimate e;
  for (long k = first; k < last; ++k) {
    const double f0 = k == OBJECTIVE ? crit : str->wrk2[k];
    const int code = estimate_interval(str, k, j, sign, f0, &e);
    if (code != 0) return code;
    store_derivative(str, k, j, e, constant);
    pool.add(e, (std::fabs(f0) + 1.0) * noise_level(k == OBJECTIVE ? str->fdig : str->cdig));
  }
  double forward = e.forward;
  double central = e.central;
  if (job != 1) {
    forward = pool.forward();
    central = pool.central == 0.0 ? 10.0 * forward : pool.central;
  } else if (e.status != good) {
    forward = 2.0 * std::sqrt(noise_level(str->fdig)) * size;
    central = 10.0 * forward;
  }
  str->hfwd[j] = forward / size;
  str->hcnt[j] = central / size;
  return 0;
}

// ---- Is the objective really constant in the flagged parameters? -------------------------------

// Moves every parameter, by a step that falls from one to the next, inside the bounds.
static void move_every_parameter(MINSTR* str) {
  double t = 1.0 / static_cast<double>(str->nvar);
  for (long j = 0; j < str->nvar; ++j) {
    double u = 1.0;
    if (str->bounds != 0) {
      const double lo = lower_exists(str->lb[j]) ? std::max(-1.0, str->lb[j] - str->x[j]) : -1.0;
      const bool room = upper_exists(str->ub[j]) && str->ub[j] > str->lb[j];
      const double hi = room ? std::min(1.0, str->ub[j] - str->x[j]) : 1.0;
      u = 0.5 * (lo + hi) >= 0.0 ? hi : lo;
    }
    perturb(str, j, str->x[j] + u * t);
    t *= 0.97;
  }
}

// Takes back the flag of parameters whose derivative differs at the moved point: a function may
// look constant at x only, for instance where another factor is zero. 0, -1 or -2; x is put back.
static int chconst(MINSTR* str, long* constant) {
  std::copy_n(str->x, str->nvar, str->xold);
  move_every_parameter(str);
  double fr = 0.0;
  int code = value_here(str, OBJECTIVE, &fr) ? 0 : -1;
  for (long j = 0; code == 0 && j < str->nvar; ++j) {
    if (str->ofco[j] == 0) continue;
    const double xj = str->x[j];
    const double d = 0.5 * (str->xold[j] - xj);
    double moved = 0.0;
    str->x[j] += d;
    if (!value_here(str, OBJECTIVE, &moved)) {
      code = -2;
      break;
    }
    const double slope = quotient(moved - fr, d);
    const double g = str->grad[j];
    const double relative = std::min(1e-08, std::fabs(str->hfwd[j]));
    if (std::fabs(slope - g) > (std::fabs(g) + std::fabs(slope)) * relative) {
      str->ofco[j] = 0;
      --*constant;
    }
    str->x[j] = xj;
  }
  std::copy_n(str->xold, str->nvar, str->x);
  return code;
}

int znlpfdh(MINSTR* str, int job) {
  if (job == 0) return 0;
  std::fill_n(str->ofco, str->nvar, short{0});
  vzfdl(MISSING, str->hfwd, str->nvar);
  vzfdl(MISSING, str->hcnt, str->nvar);
  const bool constraints = job > 1 && str->nlicon != 0;
  const double crit = str->crit;
  if (constraints) std::copy_n(str->fcon, str->nnlc, str->wrk2);
  if (str->wfid != nullptr) save_functions(str);

  long constant = 0;
  int code = 0;
  for (long j = 0; code == 0 && j < str->nvar; ++j) {
    code = intervals_of_parameter(str, job, j, crit, &constant);
  }
  if (constant > 0 && chconst(str, &constant) != 0) {
    std::fill_n(str->ofco, str->nvar, short{0});
    constant = 0;
  }
  const int base = evaluate_base(str, constraints);
  if (base != 0) {  // a module may fail even where it was good before
    str->crit = crit;
    if (constraints) std::copy_n(str->wrk2, str->nnlc, str->fcon);
    if (str->wfid != nullptr) restore_functions(str);
  }
  return code != 0 ? code : base;
}

}  // namespace tqnlp
