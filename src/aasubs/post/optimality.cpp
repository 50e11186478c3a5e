// Multipliers by nonnegative least squares, and the first-order conditions that they show.
//
// Method     Minimized is the sum of squares of g - A'l over multipliers l of the active general
//            constraints, of which those of inequalities have a sign. The multipliers of active
//            bounds need no unknowns of their own: what g - A'l has of the right sign at a bound is
//            the bound's, so that only the rest counts. That makes a convex function of l with a
//            continuous gradient, quadratic by pieces. A piece is minimized by the active-set
//            method of Lawson and Hanson; a step to its minimizer is shortened until the function
//            decreases, and the pieces are left when they stay the same.
// Reference  Lawson and Hanson (1974), Solving Least Squares Problems, chapter 23
//
// Normals are scaled to length 1, so that the dependence of one on others shows in the length that
// is left of it.
#include "aasubs/post/optimality.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "host/memory.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double DEPENDENT = 1e-10;  // length that is left of a unit normal
static constexpr int MOST_PIECES = 50;
static constexpr int MOST_HALVINGS = 30;

namespace {

// Sides of a constraint that are active.
enum Side { NONE = 0, LOWER = 1, UPPER = 2, BOTH = 3 };

struct Work {
  long n = 0;
  long k = 0;  // active general constraints
  double* block = nullptr;
  double* a = nullptr;       // k x n; unit normals, turned so that the multiplier is at least 0
  double* length = nullptr;  // k; of the normals, with the sign of the turn
  double* l = nullptr;       // k; multipliers
  double* trial = nullptr;   // k
  double* r = nullptr;       // n; g - A'l
  double* rest = nullptr;    // n; what of it counts
  double* q = nullptr;       // k x n; orthonormal basis of the passive normals
  double* t = nullptr;       // k x k; triangle, column p of passive normal p
  double* z = nullptr;       // k; solution on the passive normals
  double* v = nullptr;       // n
  long* longs = nullptr;
  long* source = nullptr;   // k; row of the caller
  long* free = nullptr;     // k; 1: no sign
  long* passive = nullptr;  // k; the passive set, in the order of q
  long* state = nullptr;    // k; 0 at zero, 1 passive, 2 dependent on the passive ones
  long* counted = nullptr;  // n; elements of the residual that count
  long passives = 0;
};

}  // namespace

// ---- Active sides -------------------------------------------------------------------------------

static bool near(double value, double side, double activity) {
  return std::fabs(value - side) <= activity * (1.0 + std::fabs(side));
}

static int active_sides(double value, double lower, double upper, double activity) {
  const bool below = lower > -HUGE_VALUE && (near(value, lower, activity) || value < lower);
  const bool above = upper < HUGE_VALUE && (near(value, upper, activity) || value > upper);
  return (below ? LOWER : NONE) | (above ? UPPER : NONE);
}

static double violation_of(double value, double lower, double upper) {
  double worst = 0.0;
  if (lower > -HUGE_VALUE) worst = std::max(worst, (lower - value) / (1.0 + std::fabs(lower)));
  if (upper < HUGE_VALUE) worst = std::max(worst, (value - upper) / (1.0 + std::fabs(upper)));
  const bool asked = lower > -HUGE_VALUE || upper < HUGE_VALUE;
  return std::isnan(value) && asked ? HUGE_VALUE : worst;
}

// ---- Least squares on the passive normals -------------------------------------------------------

// Adds normal c to the basis, on the elements that count. False: it depends on those there.
static bool add_passive(Work& w, long c) {
  double* q = w.q + w.passives * w.n;
  for (long j = 0; j < w.n; ++j) q[j] = w.counted[j] != 0 ? w.a[c * w.n + j] : 0.0;
  double* column = w.t + w.passives * w.k;
  std::fill_n(column, w.passives, 0.0);
  for (int pass = 0; pass < 2; ++pass) {  // twice is enough
    for (long p = 0; p < w.passives; ++p) {
      const double part = zvdot11(w.n, w.q + p * w.n, q);
      column[p] += part;
      zvxay11(w.n, q, -part, w.q + p * w.n);
    }
  }
  const double left = std::sqrt(zvdot11(w.n, q, q));
  if (left <= DEPENDENT) return false;
  for (long j = 0; j < w.n; ++j) q[j] /= left;
  column[w.passives] = left;
  w.passive[w.passives++] = c;
  return true;
}

// The basis without those that state no longer has as passive.
static void rebuild(Work& w) {
  const long before = w.passives;
  w.passives = 0;
  for (long p = 0; p < before; ++p) {
    const long c = w.passive[p];
    if (w.state[c] == 1 && !add_passive(w, c)) w.state[c] = 2;
  }
}

// z := minimizer on the passive normals; g is the right side.
static void solve_passive(Work& w, const double* g) {
  for (long p = 0; p < w.passives; ++p) w.z[p] = zvdot11(w.n, w.q + p * w.n, g);
  for (long p = w.passives - 1; p >= 0; --p) {
    w.z[p] /= w.t[p * w.k + p];
    for (long i = 0; i < p; ++i) w.z[i] -= w.t[p * w.k + i] * w.z[p];
  }
}

// ---- Nonnegative least squares on one piece -----------------------------------------------------

// r := g - A'y.
static void residual(const Work& w, const double* g, const double* y, double* r) {
  std::copy_n(g, w.n, r);
  for (long c = 0; c < w.k; ++c) {
    if (y[c] != 0.0) zvxay11(w.n, r, -y[c], w.a + c * w.n);
  }
}

// The normal at zero with the steepest decrease; -1: none.
static long entering(Work& w, const double* g) {
  static constexpr double NO_DECREASE = 1e-13;
  residual(w, g, w.trial, w.v);
  double size = 0.0;
  for (long j = 0; j < w.n; ++j) {
    if (w.counted[j] == 0)
      w.v[j] = 0.0;
    else
      size = std::max(size, std::fabs(g[j]));
  }
  long best = -1;
  double most = NO_DECREASE * size;
  for (long c = 0; c < w.k; ++c) {
    if (w.state[c] != 0) continue;
    const double slope = zvdot11(w.n, w.a + c * w.n, w.v);
    const double gain = w.free[c] != 0 ? std::fabs(slope) : slope;
    if (gain > most) {
      most = gain;
      best = c;
    }
  }
  return best;
}

// Goes from trial towards z as far as signs allow; those that reach zero leave the passive set.
// True when all the way.
static bool step_to_z(Work& w) {
  static constexpr double AT_ZERO = 1e-14;
  double share = 1.0;
  long blocking = -1;
  for (long p = 0; p < w.passives; ++p) {
    const long c = w.passive[p];
    if (w.free[c] != 0 || w.z[p] > 0.0) continue;
    const double reach = w.trial[c] > 0.0 ? w.trial[c] / (w.trial[c] - w.z[p]) : 0.0;
    if (blocking >= 0 && reach >= share) continue;
    share = reach;
    blocking = c;
  }
  for (long p = 0; p < w.passives; ++p) {
    const long c = w.passive[p];
    w.trial[c] += share * (w.z[p] - w.trial[c]);
    const bool at_zero = w.free[c] == 0 && w.trial[c] <= AT_ZERO * std::fabs(w.z[p]);
    if (c != blocking && !(blocking >= 0 && at_zero)) continue;
    w.trial[c] = 0.0;
    w.state[c] = 0;
  }
  return blocking < 0;
}

// trial := minimizer of the piece.
static void minimize_piece(Work& w, const double* g) {
  std::fill_n(w.trial, w.k, 0.0);
  std::fill_n(w.state, w.k, 0L);
  w.passives = 0;
  for (long round = 0; round < 3 * w.k + 3; ++round) {
    const long c = entering(w, g);
    if (c < 0) return;
    w.state[c] = add_passive(w, c) ? 1 : 2;
    if (w.state[c] == 2) continue;
    for (long inner = 0; inner <= w.k; ++inner) {
      solve_passive(w, g);
      if (step_to_z(w)) break;
      rebuild(w);
    }
    // What has just entered and left again would enter for ever.
    if (w.state[c] == 0) w.state[c] = 2;
  }
}

// ---- The pieces ---------------------------------------------------------------------------------

// What counts of the residual: at an active bound its multiplier takes away one sign, or both.
static double counting_part(double r, int sides) {
  if (sides == BOTH) return 0.0;
  if (sides == LOWER) return std::min(r, 0.0);
  return sides == UPPER ? std::max(r, 0.0) : r;
}

static double sum_of_rest(const FirstOrder& p, Work& w, const double* y) {
  residual(w, p.gradient, y, w.r);
  double sum = 0.0;
  for (long j = 0; j < w.n; ++j) {
    const int sides = active_sides(p.x[j], p.lower[j], p.upper[j], p.activity);
    w.rest[j] = counting_part(w.r[j], sides);
    sum += w.rest[j] * w.rest[j];
  }
  return sum;
}

// The elements that count at l; were they others before?
static bool new_piece(const FirstOrder& p, Work& w) {
  bool changed = false;
  for (long j = 0; j < w.n; ++j) {
    const int sides = active_sides(p.x[j], p.lower[j], p.upper[j], p.activity);
    const long counts = sides == NONE || w.rest[j] != 0.0 ? 1 : 0;
    changed = changed || counts != w.counted[j];
    w.counted[j] = counts;
  }
  return changed;
}

static void find_multipliers(const FirstOrder& p, Work& w) {
  std::fill_n(w.l, w.k, 0.0);
  std::fill_n(w.counted, w.n, -1L);
  double sum = sum_of_rest(p, w, w.l);
  for (int piece = 0; piece < MOST_PIECES && w.k > 0 && new_piece(p, w); ++piece) {
    minimize_piece(w, p.gradient);
    bool decreased = false;
    for (int halving = 0; halving < MOST_HALVINGS && !decreased; ++halving) {
      const double at_trial = sum_of_rest(p, w, w.trial);
      decreased = at_trial < sum;
      if (decreased) {
        sum = at_trial;
        std::copy_n(w.trial, w.k, w.l);
      } else {
        for (long c = 0; c < w.k; ++c) w.trial[c] = 0.5 * (w.trial[c] + w.l[c]);
      }
    }
    if (!decreased) break;
  }
  sum_of_rest(p, w, w.l);
}

// ---- The check ----------------------------------------------------------------------------------

static bool take_work(Work& w, long n, long k) {
  w.n = n;
  w.k = k;
  const long doubles = 2 * k * n + k * k + 4 * k + 3 * n;
  const long longs = 4 * k + n;
  w.block =
      static_cast<double*>(vmalloc_handler(static_cast<std::size_t>(doubles) * sizeof(double), 0));
  w.longs = static_cast<long*>(vmalloc_handler(static_cast<std::size_t>(longs) * sizeof(long), 0));
  if (w.block == nullptr || w.longs == nullptr) return false;
  double* next = w.block;
  const auto take = [&next](long count) { return std::exchange(next, next + count); };
  w.a = take(k * n);
  w.q = take(k * n);
  w.t = take(k * k);
  w.length = take(k);
  w.l = take(k);
  w.trial = take(k);
  w.z = take(k);
  w.r = take(n);
  w.rest = take(n);
  w.v = take(n);
  w.source = w.longs;
  w.free = w.source + k;
  w.passive = w.free + k;
  w.state = w.passive + k;
  w.counted = w.state + k;
  return true;
}

static int sides_of_row(const FirstOrder& p, long i) {
  return active_sides(p.values[i], p.row_lower[i], p.row_upper[i], p.activity);
}

// The active normals, scaled; those without length say nothing.
static void load_normals(const FirstOrder& p, Work& w) {
  long c = 0;
  for (long i = 0; i < p.rows; ++i) {
    const int sides = sides_of_row(p, i);
    if (sides == NONE) continue;
    const double* normal = p.normals + i * p.n;
    const double length = std::sqrt(zvdot11(p.n, normal, normal));
    w.source[c] = i;
    w.free[c] = sides == BOTH ? 1 : 0;
    w.length[c] = sides == UPPER ? -length : length;
    for (long j = 0; j < p.n; ++j) {
      w.a[c * p.n + j] = length > TINY ? normal[j] / w.length[c] : 0.0;
    }
    ++c;
  }
}

static double distance(double multiplier, double value, double lower, double upper) {
  if (multiplier == 0.0) return 0.0;
  const double side = multiplier > 0.0 ? lower : upper;
  return std::fabs(side) < HUGE_VALUE ? std::fabs(value - side) : 0.0;
}

static void measure(FirstOrder* p, const Work& w) {
  std::fill_n(p->row_multipliers, p->rows, 0.0);
  for (long c = 0; c < w.k; ++c) {
    if (std::fabs(w.length[c]) > TINY) p->row_multipliers[w.source[c]] = w.l[c] / w.length[c];
  }
  p->violation = p->stationarity = p->relative = p->complementarity = 0.0;
  for (long j = 0; j < p->n; ++j) {
    p->bound_multipliers[j] = w.r[j] - w.rest[j];
    p->violation = std::max(p->violation, violation_of(p->x[j], p->lower[j], p->upper[j]));
    const double rest = std::fabs(w.rest[j]);
    const double noise = p->noise != nullptr && !std::isnan(p->noise[j]) ? p->noise[j] : 0.0;
    p->rest[j] = std::copysign(std::max(rest - noise, 0.0), w.rest[j]);
    const double promise = std::fabs(p->rest[j]) * std::max(std::fabs(p->x[j]), 1.0);
    p->stationarity = std::isnan(rest) ? HUGE_VALUE : std::max(p->stationarity, rest);
    p->relative = std::max(p->relative, promise / std::max(std::fabs(p->crit), p->size));
    const double gap = distance(p->bound_multipliers[j], p->x[j], p->lower[j], p->upper[j]);
    p->complementarity = std::max(p->complementarity, std::fabs(p->bound_multipliers[j]) * gap);
  }
  for (long i = 0; i < p->rows; ++i) {
    p->violation =
        std::max(p->violation, violation_of(p->values[i], p->row_lower[i], p->row_upper[i]));
    const double gap =
        distance(p->row_multipliers[i], p->values[i], p->row_lower[i], p->row_upper[i]);
    p->complementarity = std::max(p->complementarity, std::fabs(p->row_multipliers[i]) * gap);
  }
}

int check_first_order(FirstOrder* point) {
  long k = 0;
  for (long i = 0; i < point->rows; ++i) k += sides_of_row(*point, i) != NONE ? 1 : 0;
  Work w;
  const bool taken = take_work(w, point->n, k);
  if (taken) {
    load_normals(*point, w);
    find_multipliers(*point, w);
    measure(point, w);
  }
  vmfree_handler(w.block);
  vmfree_handler(w.longs);
  return taken ? 0 : -1;
}

}  // namespace tqnlp
