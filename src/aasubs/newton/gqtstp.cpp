// gqtstp: Goldfeld-Quandt-Trotter STeP. Contract in gqtstp.h.
//
// Method     s = -(H + lambda I)^-1 g with lambda so that |s| = delt, by Newton's method on
//            1/delt - 1/|s| within bounds lk <= lambda <= uk that every factorization tightens. In
//            the hard case, g all but orthogonal to the eigenvector z of the smallest eigenvalue,
//            no lambda makes s long enough: then s + tau z ends on the boundary.
// Reference  Goldfeld, Quandt and Trotter (1966); More and Sorensen (1983), SIAM J. Sci. Stat.
//            Comput. 4; Gay (1981), same journal 2, for the bounds of the spectrum; Cline, Moler,
//            Stewart and Wilkinson (1979) for the singular value.
// Work       wrk2 = diagonal of H (n) | s for the present lambda, without tau z (n) | vector (n)
//            half = factor of H + lambda I
//
//   1  first call: the Newton step, if H is positive definite and the step short enough
//   2  bounds of the spectrum, and through them of lambda
//   3  factor H + lambda I; not positive definite raises lk
//   4  solve; a length within a tenth of delt is taken, and so is the hard case
//   5  Newton's correction of lambda, back to 3
#include "aasubs/newton/gqtstp.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LENGTH_TOLERANCE = 0.1;
static constexpr double MODEL_TOLERANCE = 0.1;  // of the hard case, against the least value
static constexpr long MOST_FACTORIZATIONS = 50;
// Factorizations after which the hard case is looked for without a hint.
static constexpr long BEFORE_HARD_CASE = 3;
static constexpr double HINT_OF_HARD_CASE = 0.2 / 44.400000000000006;
// A share of the reduction that tau z must add.
static constexpr double WORTH_ADDING = MODEL_TOLERANCE / 6.0;
static constexpr double NEARLY_SINGULAR = 5.5511151231257851e-15;  // 50 rounding units
static constexpr double VANISHING_CORRECTION = 2.2250738585072017e-300;
// lambda between its bounds: the geometric mean, and a share of uk while lk says nothing.
static constexpr double LEAST_SHARE_OF_UK = 0.001;
// Width of the bracket, against uk, at which it counts as closed.
static constexpr double CLOSED = 1e-6;
// Beyond this many factorizations without a positive definite one the matrix holds no numbers.
static constexpr long HOPELESS = 2000;

double* trust_region_matrix(const MINSTR* str) { return str->lincon != 0 ? str->hpro : str->hess; }

int trust_region_form(const MINSTR* str) { return str->hfrm == 2 && str->lincon == 0 ? 3 : 2; }

// One call.
struct Region {
  DGWSTR* d;
  MINSTR* str;
  long n;
  int form;
  double delt;
  double* matrix;  // H
  double* factor;  // of H + lambda I
  double* diag;    // of H
  double* step;    // s
  double* vec;     // z, or a solve
  double lambda = 0.0, lk = 0.0, uk = 0.0;
  double length = 0.0;  // |s|
  double wnorm2 = 0.0;  // g'(H + lambda I)^-1 g
  double tau = 0.0;     // of the hard case
  bool hard = false;
  long most = MOST_FACTORIZATIONS;

  explicit Region(DGWSTR* dgw)
      : d(dgw),
        str(dgw->minstr),
        n(reduced_dimension(str)),
        form(trust_region_form(str)),
        delt(str->delt),
        matrix(trust_region_matrix(str)),
        factor(str->half),
        diag(str->wrk2),
        step(str->wrk2 + str->nvar),
        vec(str->wrk2 + 2 * str->nvar) {}
  double& diagonal(long i) { return matrix[form == 3 ? i : zisub(i, i)]; }
  double excess() const { return length - delt; }
  double tolerance() const { return LENGTH_TOLERANCE * delt; }
};

// ---- Smallest singular value --------------------------------------------------------------------

static void scale_to_unit(long n, double norm, double* z) {
  if (norm > 0.0) zvscl11(n, z, 1.0 / norm);
}

static void unit_vector(long n, long k, double* svmin, double* z) {
  *svmin = 0.0;
  vzfdl(0.0, z, n);
  z[k] = 1.0;
}

// L y = e with the signs of e that make y grow. z holds y before place k, and behind it the running
// sums r of the rows.
static void grow(long n, const double* c, double* z) {
  static constexpr double LARGEST_SHRINK = 0.01;
  double e = 1.0;
  vzfdl(0.0, z, n);
  for (long k = 0; k < n; ++k) {
    const double pivot = c[zisub(k, k)];
    const double needed = e + std::fabs(z[k]);
    if (needed > std::fabs(pivot)) {
      const double shrink = std::min(LARGEST_SHRINK, std::fabs(pivot) / needed);
      zvscl11(n, z, shrink);
      e *= shrink;
    }
    const double w = (e - z[k]) / pivot;
    const double wm = (-e - z[k]) / pivot;
    double s = std::fabs(w), sm = std::fabs(wm);
    for (long j = k + 1; j < n; ++j) {
      s += std::fabs(z[j] + c[zisub(j, k)] * w);
      sm += std::fabs(z[j] + c[zisub(j, k)] * wm);
    }
    z[k] = s >= sm ? w : wm;
    for (long j = k + 1; j < n; ++j) z[j] += c[zisub(j, k)] * z[k];
  }
}

// L'z = y in place, from the last place, with rows of L. Returns what y was multiplied by.
static double back(long n, const double* c, double* z) {
  double factor = 1.0;
  for (long k = n - 1; k >= 0; --k) {
    const double* row = c + packed_size(k);
    if (std::fabs(z[k]) > std::fabs(row[k])) {
      const double shrink = std::fabs(row[k]) / std::fabs(z[k]);
      zvscl11(n, z, shrink);
      factor *= shrink;
    }
    z[k] /= row[k];
    zvxay11(k, z, -z[k], row);
  }
  return factor;
}

void ssves2(long n, const double* c, double* svmin, double* z) {
  for (long k = 0; k < n; ++k) {
    if (c[zisub(k, k)] == 0.0) return unit_vector(n, k, svmin, z);
  }
  grow(n, c, z);
  scale_to_unit(n, zvenorm(n, 1, z), z);
  const double ynrm = back(n, c, z);
  const double znrm = zvenorm(n, 1, z);
  *svmin = znrm > 0.0 ? ynrm / znrm : 0.0;
  scale_to_unit(n, znrm, z);
}

void ssves3(long n, const double* c, double* svmin, double* z) {
  long least = 0;
  for (long k = 1; k < n; ++k) {
    if (std::fabs(c[k]) < std::fabs(c[least])) least = k;
  }
  unit_vector(n, least, svmin, z);
  *svmin = std::fabs(c[least]);
}

static double smallest_singular_value(Region& r) {
  double svmin = 0.0;
  (r.form == 3 ? ssves3 : ssves2)(r.n, r.factor, &svmin, r.vec);
  return svmin;
}

// ---- Factors and solves -------------------------------------------------------------------------

// Factors H + lambda I. Returns 0, or the place from 1 where it is not positive definite.
static long factor_shifted(Region& r, double lambda) {
  for (long i = 0; i < r.n; ++i) r.diagonal(i) = r.diag[i] + lambda;
  const double limit =
      std::max(std::min(1.0, lambda + r.d->dhdm) * r.str->sing, SMALLEST_TOLERANCE);
  const long failed = znlpcde(r.str, r.form, r.n, limit, nullptr, r.matrix, r.factor, nullptr);
  for (long i = 0; i < r.n; ++i) r.diagonal(i) = r.diag[i];
  return failed;
}

// How far the smallest eigenvalue of the matrix lies below zero at least, from the pivot that
// failed at place k: u with L'u = e_k has u'(H + lambda I)u = pivot.
static double negative_curvature(Region& r, long k) {
  double& cell = r.factor[r.form == 3 ? k - 1 : zisub(k - 1, k - 1)];
  const double pivot = cell;
  cell = 1.0;
  if (r.form == 3) return -pivot;
  vzfdl(0.0, r.vec, k);
  r.vec[k - 1] = 1.0;
  znlpium(r.str, r.form, k, r.factor, r.vec);
  const double norm = zvenorm(k, 1, r.vec);
  return -pivot / norm / norm;
}

// s from the factor.
static void solve(Region& r) {
  std::copy_n(r.str->gold, r.n, r.step);
  znlpilm(r.str, r.form, r.n, r.factor, r.step);
  r.wnorm2 = dotprd(r.n, r.step, r.step);
  znlpium(r.str, r.form, r.n, r.factor, r.step);
  r.length = zvenorm(r.n, 1, r.step);
}

// |L^-1 s|: the length of s falls at the rate |L^-1 s|^2 / |s| when lambda grows.
static double steepness(Region& r) {
  std::copy_n(r.step, r.n, r.vec);
  znlpilm(r.str, r.form, r.n, r.factor, r.vec);
  return zvenorm(r.n, 1, r.vec);
}

// ---- Bounds -------------------------------------------------------------------------------------

static double element(const Region& r, long i, long j) {
  return r.matrix[i > j ? zisub(i, j) : zisub(j, i)];
}

// Extreme eigenvalue of the sign: -1 the smallest from below, 1 the largest from above. Sharper
// than Gerschgorin's: a diagonal similarity shrinks the disc of row k against the others.
static double spectrum_bound(const Region& r, double sign, const double* sums) {
  long k = 0;
  const auto reach = [&](long i) { return sign * r.diag[i] + sums[i]; };
  for (long i = 1; i < r.n; ++i) {
    if (reach(i) > reach(k)) k = i;
  }
  double beyond = 0.0;
  for (long i = 0; i < r.n; ++i) {
    if (i == k) continue;
    const double h = r.form == 3 ? 0.0 : std::fabs(element(r, i, k));
    const double t = (sums[i] - h + sign * (r.diag[i] - r.diag[k])) / 2.0;
    beyond = std::max(beyond, t + std::sqrt(h * sums[k] + t * t));
  }
  return r.diag[k] + sign * beyond;
}

static void bound_spectrum(Region& r) {
  double* sums = r.vec;  // of the magnitudes beside the diagonal
  vzfdl(0.0, sums, r.n);
  for (long i = 0; r.form != 3 && i < r.n; ++i) {
    const double* row = r.matrix + packed_size(i);
    for (long j = 0; j < i; ++j) {
      sums[i] += std::fabs(row[j]);
      sums[j] += std::fabs(row[j]);
    }
  }
  r.d->emin = spectrum_bound(r, -1.0, sums);
  r.d->emax = spectrum_bound(r, 1.0, sums);
  r.d->bounded = true;
}

// The bounds of lambda that follow from those of the spectrum.
static void bound_multiplier(Region& r) {
  static constexpr double MARGIN = 0.001;  // without a gradient lambda is an eigenvalue itself
  if (!r.d->bounded) bound_spectrum(r);
  const double slope = r.d->dgnm / r.delt;
  r.uk = slope - r.d->emin;
  if (r.d->dgnm == 0.0) r.uk += MARGIN + MARGIN * r.uk;
  if (!(r.uk > 0.0)) r.uk = MARGIN;
  r.lk = std::max(r.lk, slope - r.d->emax);
}

// ---- Search for the multiplier ------------------------------------------------------------------

// The Newton step from the factor of H. True: it is short enough.
static bool newton_fits(Region& r) {
  const double svmin = smallest_singular_value(r);
  if (!(svmin >= 1.0 || r.d->dgnm < svmin * svmin * HUGE_VALUE)) return false;  // it would overflow
  solve(r);
  r.d->nred = r.wnorm2 / 2.0;
  r.d->dst0 = r.length;
  r.lambda = 0.0;
  if (r.excess() <= r.tolerance()) {
    r.lk = 0.0;
    return true;
  }
  const double rate = steepness(r);
  r.d->phipin = rate > VANISHING_CORRECTION ? r.length / rate / rate : 0.0;
  r.lk = std::max(r.lk, r.excess() * r.d->phipin);
  return false;
}

// Factors H itself and tries its Newton step.
static bool try_newton(Region& r) {
  if (const long k = factor_shifted(r, 0.0); k != 0) {
    if (r.d->kagqt == 0) r.str->null = 1;
    r.lk = negative_curvature(r, k);
    r.d->dst0 = -r.lk;
    return false;
  }
  if (r.d->kagqt == 0) r.str->null = 0;
  return newton_fits(r);
}

static void open_first_call(Region& r) {
  DGWSTR* d = r.d;
  d->kagqt = 0;
  d->kamin = d->dgnm != 0.0 ? BEFORE_HARD_CASE : 0;
  d->dst0 = d->nred = d->phipin = 0.0;
  d->bounded = false;
  for (long i = 0; i < r.n; ++i) r.diag[i] = r.diagonal(i);
  d->dhdm = zvamx(r.form == 3 ? r.n : packed_size(r.n), r.matrix);
}

// Moves lambda into its bracket.
static void safeguard(Region& r) {
  if (r.lambda < r.lk || r.lambda >= r.uk || r.lambda <= -r.d->dst0) {
    r.lambda = r.uk * std::max(LEAST_SHARE_OF_UK, std::sqrt(r.lk / r.uk));
  }
  if (!(r.lambda > 0.0)) r.lambda = r.uk / 2.0;
}

// H + lambda I is not positive definite. The bracket never closes: a bound that is only as good as
// the arithmetic gives way. False: there is no hope.
static bool raise_lower_bound(Region& r, long k) {
  static constexpr double OPENED = 1.0000001;
  r.lk = r.lambda + negative_curvature(r, k);
  r.d->dst0 = -r.lk;
  if (r.uk - r.lk <= std::max(EPS, CLOSED * r.uk)) r.uk = OPENED * r.lk;
  if (r.d->kagqt >= r.most) r.uk *= 2.0;
  return std::isfinite(r.uk) && r.d->kagqt < r.most + HOPELESS;
}

// Is s for lambda, short as it is, all that its multiplier can give? Then s + tau z is within the
// tolerance of the model's least value (the test of More and Sorensen); otherwise z has shown how
// small an eigenvalue can be.
static bool is_hard_case(Region& r) {
  const double c = smallest_singular_value(r);
  const double* z = r.vec;
  const double sz = dotprd(r.n, r.step, z);
  const double room = (r.delt - r.length) * (r.delt + r.length);
  const double root = std::copysign(std::sqrt(sz * sz + room), sz);
  const double tau = room / (root + sz);
  const double lost = c * tau * (c * tau);
  if (lost <= MODEL_TOLERANCE * (r.delt * r.lambda * r.delt + r.wnorm2)) {
    const double twice = r.length * r.lambda * r.length + r.wnorm2;
    const double gained = (r.lambda * room - lost) / 2.0;
    r.hard = true;
    r.tau = gained >= WORTH_ADDING * twice ? tau : 0.0;
    r.str->pred = twice / 2.0 + (r.tau != 0.0 ? gained : 0.0);
    return true;
  }
  if (r.d->dst0 <= 0.0) r.d->dst0 = std::min(r.d->dst0, c * c - r.lambda);
  r.lk = std::max(r.lk, -r.d->dst0);
  return false;
}

// A step that is too short, with lambda above its best value. True: it has to do.
static bool short_step_stands(Region& r) {
  const double above = r.lambda + std::min(0.0, r.d->dst0);
  const double twice = r.length * r.lambda * r.length + r.wnorm2;
  const double hint = HINT_OF_HARD_CASE * twice / r.delt / r.delt;
  const auto closed = [&r] { return r.lambda - r.lk <= CLOSED * r.lambda; };
  if (r.d->kagqt >= r.d->kamin || above < hint || closed()) {
    if (is_hard_case(r)) return true;
    if (above <= NEARLY_SINGULAR * r.d->dhdm) return true;
  }
  return closed() || r.d->kagqt >= r.most;
}

// Newton's correction from the present s; from either side it ends at or below the best lambda.
// False: it has vanished.
static bool correct_multiplier(Region& r) {
  if (r.excess() < 0.0) r.uk = std::min(r.uk, r.lambda);
  if (r.d->kamin == 0) return true;  // without a gradient the bracket alone is of use
  const double rate = steepness(r);
  if (!(rate > VANISHING_CORRECTION)) return false;
  r.lambda += r.length / r.delt * (r.excess() / rate) * (r.length / rate);
  r.lk = std::max(r.lk, r.lambda);
  return true;
}

// From a bracket to a step. False: none could be made.
static bool search(Region& r) {
  double last = 0.0;
  for (;;) {
    ++r.d->kagqt;
    safeguard(r);
    if (const long k = factor_shifted(r, r.lambda); k != 0) {
      if (!raise_lower_bound(r, k)) return false;
      continue;
    }
    solve(r);
    const double excess = r.excess();
    // A length that stands still ends the search while it is too long; one that is too short is
    // all that a vanishing gradient gives, until z takes over.
    if (std::fabs(excess) <= r.tolerance() || (excess > 0.0 && excess == last)) return true;
    last = excess;
    if (excess < 0.0 ? short_step_stands(r) : r.d->kagqt >= r.most) return true;
    if (!std::isfinite(excess) || !correct_multiplier(r)) return std::isfinite(excess);
  }
}

// A search from the beginning: bounds, and the last multiplier as first guess.
static bool search_afresh(Region& r) {
  bound_multiplier(r);
  r.lambda = std::fabs(r.str->lamb) * (r.d->rad0 / r.delt);
  return search(r);
}

// Another radius for the same model: the factor and the step of the last lambda are still there.
static bool search_on(Region& r) {
  const DGWSTR* d = r.d;
  r.length = d->dstsav;
  r.lambda = std::fabs(r.str->lamb);
  const bool wider = d->rad0 < r.delt;
  r.lk = wider ? std::max(0.0, -d->dst0) : (r.lambda > 0.0 ? d->lk0 : 0.0);
  bound_multiplier(r);
  if (wider && r.lambda > 0.0) r.uk = std::min(r.uk, d->uk0);
  if (d->dst0 > 0.0) r.lk = std::max(r.lk, (d->dst0 - r.delt) * d->phipin);
  return !correct_multiplier(r) || search(r);
}

static bool find_step(Region& r) {
  DGWSTR* d = r.d;
  if (d->kagqt < 0) {
    open_first_call(r);
    return try_newton(r) || search_afresh(r);
  }
  r.most = d->kagqt + MOST_FACTORIZATIONS;
  if (d->dst0 > 0.0 && d->dst0 - r.delt <= r.tolerance()) {  // the Newton step fits again
    ++d->kagqt;
    return try_newton(r) || search_afresh(r);
  }
  if (d->kagqt == 0) return newton_fits(r) || search_afresh(r);
  return search_on(r);
}

void gqtstp(DGWSTR* d) {
  Region r(d);
  MINSTR* str = r.str;
  if (!find_step(r)) {
    vzfdl(0.0, r.step, r.n);
    r.length = r.wnorm2 = r.lambda = 0.0;
  }
  std::copy_n(r.step, r.n, str->sdir);
  d->dstn = d->dstsav = r.length;
  d->gtst = -r.wnorm2;
  if (!r.hard) str->pred = (r.length * r.lambda * r.length + r.wnorm2) / 2.0;
  if (r.tau != 0.0) {
    zvxay11(r.n, str->sdir, r.tau, r.vec);
    d->gtst = -dotprd(r.n, str->gold, str->sdir);
    d->dstn = r.delt;
  }
  if (str->hesc != 0) znlpscd(str, str->sdir);
  str->lamb = r.hard ? -r.lambda : r.lambda;
  d->lk0 = r.lk;
  d->uk0 = r.uk;
  d->rad0 = r.delt;
}

}  // namespace tqnlp
