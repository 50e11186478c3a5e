// znlpfid: FInite Differences. Gradients, and what all differences share.
//
// Method     forward and central differences with the relative interval 10^(-d/2), 10^(-d/3) for d
//            accurate digits, or with intervals of each parameter; a point that cannot be evaluated
//            makes the step retreat
// Reference  Dennis and Schnabel (1983), sections 5.4 and 5.6; Gill, Murray and Wright (1981), 4.6
// Reads      fdig, cfdh, hfwd, hcnt, nfuv, lsqu, l1nm, bounds, lb, ub, iabc
// Writes     grad, counters; work keeps the caller's x while x stands shifted away from a bound
// Work       wfid = func at the base point (m) | func at the plus side of a central difference (m)
#include "aasubs/derivatives/znlpfid.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/reports/report_tables.h"
#include "host/log.h"

namespace tqnlp {

static constexpr double HALF_LOG_10 = 1.151292546497023;            // ln(10)/2
static constexpr double DEFAULT_INTERVAL = 2.1073424255447021e-08;  // square root of 2^-51
static constexpr int MESSAGE_INCOMPLETE = 140;
static constexpr double TEN_ROUNDING_UNITS = 1.110223024625157e-15;

// ---- Intervals ---------------------------------------------------------------------------------

double forward_interval(double digits) {
  return digits > 0.0 ? std::exp(-HALF_LOG_10 * digits) : DEFAULT_INTERVAL;
}

double central_interval(double digits) {
  return std::exp(2.0 * std::log(forward_interval(digits)) / 3.0);
}

bool objective_has_intervals(const MINSTR* str) { return str->cfdh == 1 || str->cfdh == 3; }

bool constraints_have_intervals(const MINSTR* str) { return str->cfdh == 2 || str->cfdh == 3; }

double step_floor(double xj) { return TEN_ROUNDING_UNITS * std::max(1.0, std::fabs(xj)); }

double step_made(double xj, double increment) {
  const double perturbed = xj + increment;
  if (std::isinf(perturbed)) return increment;  // the point has no value, and the step is shortened
  return std::max(perturbed - xj, TEN_ROUNDING_UNITS * std::fabs(xj));
}

// ---- Evaluations -------------------------------------------------------------------------------

bool call_function(MINSTR* str) {
  const int code = str->usfct(str);
  str->ifdr = ORDER_FUNCTION;
  return code == 0;
}

bool call_gradient_there(MINSTR* str) {
  const int code = str->usgrd(str);
  str->ifdr = ORDER_GRADIENT;
  return code == 0;
}

void tell_incomplete(MINSTR* str, const char* matrix, long j) {
  if (++str->nret > 1) return;
  xpmlog(OPTIMIZATION, MESSAGE_INCOMPLETE, {matrix, parameter_name(str, j).text});
}

int return_from_shift(MINSTR* str) {
  std::copy_n(str->work, str->nvar, str->x);
  return call_function(str) ? 0 : -10;
}

int return_from_moved_base(MINSTR* str, bool failed) {
  if (failed) vzfdl(MISSING, str->grad, str->nvar);
  return return_from_shift(str);
}

// ---- Inside the bounds -------------------------------------------------------------------------

bool is_confined(const MINSTR* str, long j) {
  static constexpr double NEIGHBOURS = 16.0 * EPS;  // against the size of the bounds
  if (str->bounds == 0 || str->iabc[j] == 2) return false;
  const double size = std::max(std::fabs(str->lb[j]), std::fabs(str->ub[j]));
  return str->ub[j] - str->lb[j] > NEIGHBOURS * size;
}

bool is_inside(const MINSTR* str, long j, double value) {
  return !is_confined(str, j) || (value >= str->lb[j] && value <= str->ub[j]);
}

void perturb(MINSTR* str, long j, double value) {
  str->x[j] = is_confined(str, j) ? std::clamp(value, str->lb[j], str->ub[j]) : value;
}

double step_inside(const MINSTR* str, long j, double h, Side forc, int reach) {
  if (!is_confined(str, j)) return h;
  double room = str->ub[j] - str->x[j];
  if (forc == Side::central) room = std::min(room, str->x[j] - str->lb[j]);
  return h * reach > room ? room / reach : h;
}

double one_sided_step(const MINSTR* str, long j, double h) {
  if (is_inside(str, j, str->x[j] + h)) return h;
  const double above = str->ub[j] - str->x[j];
  const double below = str->x[j] - str->lb[j];
  return above >= below ? above : -std::min(h, below);
}

// Distance from a bound at which the base comes to stand: that of the farthest point of the
// difference, span. The step is taken anew at the base, and is longer there when the base is
// farther from zero, by the share r of the distance; the distance makes up for it (the sum of the
// geometric series), so that the farthest point ends at the bound and not beyond.
static double distance_from_bound(double bound, double inwards, double span, double r) {
  const double base = bound + inwards * span;
  const bool ends_inside = r * (std::fabs(base) + 1.0) <= span;
  return ends_inside || r >= 1.0 ? span : span / (1.0 - r);
}

// Moves x[j] for a forward step, which keeps its sign; true if it moved. In a box narrower than the
// step the base is the bound on the other side.
static bool make_room_forward(MINSTR* str, long j, double r) {
  double& xj = str->x[j];
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  const double h = (std::fabs(xj) + 1.0) * r;
  if (h > 0.0 && xj + h > ub) {
    xj = std::max(ub - distance_from_bound(ub, -1.0, h, r), lb);
    return true;
  }
  if (h < 0.0 && xj + h < lb) {
    xj = std::min(lb + distance_from_bound(lb, 1.0, -h, -r), ub);
    return true;
  }
  return false;
}

// Moves x[j] for central steps, r of them together; the upper bound has priority. In a box narrower
// than the steps the base is its middle.
static bool make_room_central(MINSTR* str, long j, double r) {
  double& xj = str->x[j];
  const double lb = str->lb[j];
  const double ub = str->ub[j];
  const double span = (std::fabs(xj) + 1.0) * r;
  double distance = 0.0;
  if (xj + span > ub) {
    distance = distance_from_bound(ub, -1.0, span, r);
    xj = ub - distance;
  } else if (xj - span < lb) {
    distance = distance_from_bound(lb, 1.0, span, r);
    xj = lb + distance;
  }
  if (2.0 * distance > ub - lb) xj = 0.5 * lb + 0.5 * ub;
  return distance > 0.0;
}

int movx(MINSTR* str, int job, int cfdh, Side forc, double eps, int reach) {
  if (str->bounds == 0) return 0;
  std::copy_n(str->x, str->nvar, str->work);
  const double* intervals = forc == Side::forward ? str->hfwd : str->hcnt;
  bool moved = false;
  for (long j = 0; j < str->nvar; ++j) {
    if (!is_confined(str, j)) continue;
    double r = cfdh != 0 ? intervals[j] : eps;
    if (r >= 0.0) r = std::max(r, TEN_ROUNDING_UNITS);  // the least step that is taken
    moved |= forc == Side::forward ? make_room_forward(str, j, reach * r)
                                   : make_room_central(str, j, reach * std::fabs(r));
  }
  if (!moved) return 0;
  if (job != 0 && !call_function(str)) return -1;
  return 1;
}

// ---- Gradient ----------------------------------------------------------------------------------

// Weight of summand i in the gradient of the objective.
static double summand_weight(const MINSTR* str, long i) {
  const double base = str->wfid[i];
  if (str->lsqu != 0) return base;
  if (str->l1nm != 0) return base > 0.0 ? 1.0 : (base < 0.0 ? -1.0 : 0.0);
  return 1.0;
}

bool add_to_gradient(MINSTR* str, long j, const double* column) {
  for (long i = 0; i < str->mequ; ++i) {
    if (tstsum(&str->grad[j], column[i] * summand_weight(str, i)) != 0) return false;
  }
  return true;
}

// Evaluates at xj + h. After a failure the other side is tried; when that fails too, the step that
// is now held is compared with the floor. A positive step always ends there, deliberately: it comes
// to be halved only where a bound forbids the other side.
static bool evaluate_forward(MINSTR* str, long j, double xj, double* h) {
  const double floor = step_floor(xj);
  bool other_side = false;
  for (;;) {
    perturb(str, j, xj + *h);
    if (call_function(str)) return true;
    if (!other_side && is_inside(str, j, xj - *h)) {
      *h = -*h;
      other_side = true;
    } else {
      if (!(*h > floor)) return false;
      *h *= 0.5;
      other_side = false;
    }
  }
}

// Evaluates at xj + h and xj - h with the same h; crit of the plus side in *plus, its func in the
// second half of wfid.
static bool evaluate_both_sides(MINSTR* str, long j, double xj, double* h, double* plus) {
  const double floor = step_floor(xj);
  for (;;) {
    perturb(str, j, xj + *h);
    bool good = call_function(str);
    if (good) {
      *plus = str->crit;
      if (str->nfuv == 0) std::copy_n(str->func, str->mequ, str->wfid + str->mequ);
      perturb(str, j, xj - *h);
      good = call_function(str);
    }
    if (good) return true;
    if (!(*h > floor)) return false;
    *h *= 0.5;
  }
}

// Derivatives of the summands between two function vectors, added to grad[j].
static bool add_differences(MINSTR* str, long j, const double* above, const double* below,
                            double width) {
  for (long i = 0; i < str->mequ; ++i) {
    const double derivative = (above[i] - below[i]) / width;
    if (tstsum(&str->grad[j], derivative * summand_weight(str, i)) != 0) return false;
  }
  return true;
}

static int gradient_component(MINSTR* str, long j, Side forc, double r, double crit) {
  const double xj = str->x[j];
  double h = step_inside(str, j, step_made(xj, (std::fabs(xj) + 1.0) * r), forc);
  double plus = 0.0;
  const bool good = forc == Side::forward ? evaluate_forward(str, j, xj, &h)
                                          : evaluate_both_sides(str, j, xj, &h, &plus);
  str->x[j] = xj;
  if (!good) return -2;
  const bool central = forc == Side::central;
  const double width = central ? 2.0 * h : h;
  if (str->nfuv != 0) {
    const double rise = central ? plus - str->crit : str->crit - crit;
    return tstsum(&str->grad[j], rise / width) != 0 ? -3 : 0;
  }
  const double* above = central ? str->wfid + str->mequ : str->func;
  const double* below = central ? str->func : str->wfid;
  return add_differences(str, j, above, below, width) ? 0 : -3;
}

int dograd(MINSTR* str, Side forc, double eps, double crit) {
  vzfdl(0.0, str->grad, str->nvar);
  const bool own = objective_has_intervals(str);
  const double* intervals = forc == Side::forward ? str->hfwd : str->hcnt;
  for (long j = 0; j < str->nvar; ++j) {
    const int code = gradient_component(str, j, forc, own ? intervals[j] : eps, crit);
    if (code != 0) return code;
  }
  return 0;
}

void save_functions(MINSTR* str) {
  if (str->nfuv == 0) std::copy_n(str->func, str->mequ, str->wfid);
}

void restore_functions(MINSTR* str) {
  if (str->nfuv == 0) std::copy_n(str->wfid, str->mequ, str->func);
}

static int gradient_by_differences(MINSTR* str, Side forc) {
  if (str->nvar < 1) return 0;
  ++str->ngrd;
  const int indf = static_cast<int>(str->indf);
  const double crit = str->crit;
  str->indf = GRADIENT_STEP;
  const double eps =
      forc == Side::forward ? forward_interval(str->fdig) : central_interval(str->fdig);
  const int moved = movx(str, 1, objective_has_intervals(str) ? 1 : 0, forc, eps);
  int code = 0;
  if (moved >= 0) {
    save_functions(str);
    code = dograd(str, forc, eps, str->crit);
    if (moved == 0) restore_functions(str);
  }
  if (moved != 0) code = return_from_moved_base(str, moved < 0 || code != 0);
  str->crit = crit;
  str->indf = indf;
  return code;
}

int znlpfig(MINSTR* str) { return gradient_by_differences(str, Side::forward); }

int znlpfg2(MINSTR* str) { return gradient_by_differences(str, Side::central); }

}  // namespace tqnlp
