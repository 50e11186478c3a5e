// znlplma_step: the ridge of LEVMAR's step. Contracts in znlplma_step.h.
//
// The ridge is the root of |p(ridge)| = delt, found by Newton's method on the reciprocal of the
// length (Hebden 1973) inside a bracket (More 1978).
#include "aasubs/leastsquares/znlplma_step.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double RAISE_RIDGE = 4.0;
// Lengths within a tenth of the radius are as good as the radius.
static constexpr double LONGEST = 1.1;
static constexpr double SHORTEST = 0.9;
static constexpr int MOST_TRIALS = 100;
static constexpr double LEAST_SHARE = 0.001;  // of the upper bound: the lower end of a fresh guess
static constexpr double FLAT =
    2.0041683600089723e-292;                   // a length that does not depend on the ridge
static constexpr double NO_LENGTH = 0x1p-106;  // 1.232595164407832e-32

LevmarWork levmar_work(const MINSTR* str) {
  const long n = str->nvar;
  double* w = str->wrk2;
  return {w, w + n, w + 2 * n, w + 3 * n, w + 4 * n, w + 5 * n, w + 6 * n};
}

// ---- Factor and solve ---------------------------------------------------------------------------

// Pivots at or below it are rounding: 100 rounding units of the largest element, that limited to 1.
static double pivot_tolerance(long n, const double* d, const double* e) {
  double largest = d[0];
  for (long j = 1; j < n; ++j) largest = std::max({largest, std::fabs(d[j]), std::fabs(e[j])});
  if (largest >= 1.0 || largest == 0.0) return HUNDRED_EPS;
  const double tolerance = HUNDRED_EPS * largest;
  return tolerance < TINY ? DIAGONAL_PIVOT_FLOOR : tolerance;
}

// False: a pivot is not above the tolerance.
static bool factor(long n, double tolerance, const double* d, const double* e, double* dl,
                   double* el) {
  double pivot = d[0];
  el[0] = 0.0;
  for (long j = 0;;) {
    if (!(pivot > tolerance)) return false;
    const double root = dl[j] = std::sqrt(pivot);
    if (++j == n) return true;
    el[j] = e[j] / root;
    pivot = d[j] - el[j] * el[j];
  }
}

double chdec3(long n, double sing, const double* d, const double* e, double* dl, double* el,
              double* w) {
  for (long j = 0; j < n; ++j) w[j] = d[j] + sing;
  const double tolerance = pivot_tolerance(n, w, e);
  double ridge = 0.0;
  // A matrix with NaN never factors: its ridge ends at infinity.
  while (!factor(n, tolerance, w, e, dl, el) && std::isfinite(ridge)) {
    ridge = ridge == 0.0 ? tolerance : RAISE_RIDGE * ridge;
    for (long j = 0; j < n; ++j) w[j] = d[j] + sing + ridge;
  }
  return ridge;
}

// The derivative of |p| by the ridge, -|L^-1 p|^2/|p|. A diagonal of zero makes its element zero.
static double length_slope(long n, const LevmarWork& at, double length) {
  double before = 0.0;
  for (long j = 0; j < n; ++j) {
    before = at.dl[j] > TINY ? (at.p[j] - at.el[j] * before) / at.dl[j] : 0.0;
    at.w[j] = before;
  }
  const double half = zvenorm(n, 1, at.w);
  return -(half * (half / length));
}

// ---- The step of a ridge ------------------------------------------------------------------------

// What is known of the step for the present ridge.
struct RidgeStep {
  double slope;   // p'g
  double length;  // |p|
};

// p with the factor in place.
static RidgeStep solve(const MINSTR* str, const LevmarWork& at, long order) {
  if (znlpcs3(order, at.dl, at.el, str->gold, at.p) != 0) vzfdl(0.0, at.p, order);
  return {std::max(zvdot11(order, at.p, str->gold), 0.0), zvenorm(order, 1, at.p)};
}

// p out of the tridiagonal basis and the scale, in sdir.
static void deliver(MINSTR* str, const LevmarWork& at, long order) {
  std::copy_n(at.p, order, str->sdir);
  if (!diagonal_route(str)) ztrapp3(1, order, str->lincon != 0 ? str->hpro : str->hess, str->sdir);
  if (str->hesc != 0) znlpscd(str, str->sdir);
}

// ---- Search of the ridge ------------------------------------------------------------------------

namespace {

// The bracket of the ridge, and the lengths that end the search.
struct Search {
  double radius;
  double ridge;
  double low = 0.0;
  double high;
  bool fits(double length) const {
    return length >= SHORTEST * radius && length <= LONGEST * radius;
  }
  bool closed() const { return std::fabs(high - low) / high <= HUNDRED_EPS; }
};

}  // namespace

// Rounding may let the ends of the bracket pass each other.
static void mend_bracket(Search& search, double length) {
  if (search.low < search.high) return;
  if (length < SHORTEST * search.radius) search.low = search.high / 2.0;
  if (length > LONGEST * search.radius) search.high = 2.0 * search.low;
}

static void put_into_bracket(Search& search) {
  if (search.ridge >= search.low && search.ridge <= search.high) return;
  search.ridge =
      std::max(std::sqrt(search.low / search.high) * search.high, LEAST_SHARE * search.high);
}

// The next ridge from the length at the present one. False: it does not depend on the ridge.
static bool correct(Search& search, long order, const LevmarWork& at, double length) {
  const double slope = length_slope(order, at, length);
  if (!(std::fabs(slope) > FLAT)) return false;
  const double change = (length - search.radius) / slope;
  if (length < search.radius) search.high = std::min(search.high, search.ridge);
  const double before = search.ridge;
  search.ridge -= change * length / search.radius;
  search.low = std::max(search.low, before - change);
  return true;
}

// Halves the way to the upper end while the length is no more than rounding. Deliberately upward,
// also where the step is too short: radii of that size end the iteration.
static bool bisect(Search& search) {
  const bool open = std::fabs(search.high - search.ridge) / search.high > HUNDRED_EPS;
  search.ridge = (search.high + search.ridge) / 2.0;
  return open;
}

// Returns 0 with the step in at.p, or -2.
static int search_ridge(MINSTR* str, const LevmarWork& at, long order, Search& search,
                        RidgeStep* step) {
  for (int trial = 0;; ++trial) {
    mend_bracket(search, step->length);
    put_into_bracket(search);
    search.ridge += chdec3(order, search.ridge, at.d, at.e, at.dl, at.el, at.w);
    *step = solve(str, at, order);
    if (search.fits(step->length)) return 0;
    if (!(step->length > NO_LENGTH)) {
      if (!bisect(search)) return 0;
    } else if (!correct(search, order, at, step->length)) {
      return 0;
    }
    if (trial > MOST_TRIALS) return -2;
    if (search.closed()) return 0;
  }
}

int getstep(MINSTR* str, double dgnm, LevmarStep* result) {
  const LevmarWork at = levmar_work(str);
  const long order = reduced_dimension(str);
  str->lamb = str->ridg = 0.0;
  str->null = 0;
  *result = {};
  if (order == 0) {
    vzfdl(0.0, str->sdir, str->nvar);
    return 0;
  }
  // Deliberately: a first element below zero counts as zero. The ridge makes up for it.
  at.d[0] = std::max(at.d[0], 0.0);
  str->ridg = chdec3(order, 0.0, at.d, at.e, at.dl, at.el, at.w);
  str->null = str->ridg > 0.0 ? 1 : 0;
  if (!std::isfinite(str->ridg)) return -2;
  RidgeStep step = solve(str, at, order);
  str->gihg = step.slope;
  deliver(str, at, order);
  result->yttz = std::sqrt(step.slope);
  result->lnwt = zvenorm(order, 1, str->sdir);
  str->lamb = str->ridg;
  if (!(step.length > LONGEST * str->delt)) return 0;
  if (!(step.length > ROOT_TINY)) return -1;

  Search search{str->delt, str->ridg, 0.0, std::min(dgnm / str->delt, HUGE_VALUE)};
  if (str->ridg == 0.0) {
    const double slope = length_slope(order, at, step.length);
    if (std::fabs(slope) > FLAT) search.low = -(step.length - str->delt) / slope;
  }
  const int code = search_ridge(str, at, order, search, &step);
  str->lamb = search.ridge;
  if (code != 0) return code;
  result->yttz = std::sqrt(step.slope);
  deliver(str, at, order);
  return 0;
}

}  // namespace tqnlp
