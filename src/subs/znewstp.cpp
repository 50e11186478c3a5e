// znewstp: the STeP of the older Newton code, a search by halving along the Newton direction
// (Armijo 1966) that ends at the first constraint that blocks.
#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "kernels/vector.h"
#include "subs/znewsrv.h"

namespace tqnlp {

static constexpr double NEGLIGIBLE =
    1.110223024625157e-13;                    // step relative to x; least step length
static constexpr double FARTHEST = 10.0;      // constraints beyond this multiple of dx do not count
static constexpr double LONGEST = 2.0;        // first trial of a search is half of it
static constexpr double AT_ONCE = 1e-5;       // a constraint nearer than this needs no trial
static constexpr double LEAST_SLOPE = -0.05;  // share of the slope that a decrease must reach
static constexpr double LENGTHEN = 1.2;

namespace {

// The ray of one search.
struct Ray {
  void* qq;
  SIZE_S* s;
  NRPTRS* p;
  const double* dx;
  FEntry fentry;
  double alflo;  // a step at or below this is none
  double alfhi;  // where the constraint jadd blocks, or FARTHEST
  long jadd;     // -1: none
};

}  // namespace

// ---- What blocks --------------------------------------------------------------------------------

static void note_blocking(Ray& ray, long constraint, double t) {
  if (!(t <= ray.alfhi)) return;
  ray.alfhi = std::max(t, 0.0);
  ray.jadd = constraint;
  ray.alflo = std::min(ray.alflo, ray.alfhi);
}

static void limit_by_rows(Ray& ray) {
  const SIZE_S* s = ray.s;
  const NRPTRS* p = ray.p;
  const double length = zvenorm(s->nvar, 1, ray.dx);
  for (long r = s->nact; r < s->neq + s->nneq; ++r) {
    const long i = p->index[r];
    if (i < s->neq) continue;  // a dependent equality, which the active ones keep satisfied
    const double* row = p->constr + i * s->nvar;
    const double approach = -zinner(s->nvar, row, ray.dx);
    // Rows that the active ones span show an approach made of rounding.
    if (!(approach > INDEPENDENT * length * zvenorm(s->nvar, 1, row))) continue;
    note_blocking(ray, i, (zinner(s->nvar, row, p->xnew) - p->values[i]) / approach);
  }
}

static void limit_by_bounds(Ray& ray) {
  const NRPTRS* p = ray.p;
  for (long j = 0; j < ray.s->nvar; ++j) {
    if (p->proj[j] == 0.0 || !(std::fabs(ray.dx[j]) >= EPS)) continue;
    const double bound = ray.dx[j] < 0.0 ? p->lowb[j] : p->upb[j];
    if (std::fabs(bound) >= HUGE_VALUE) continue;
    note_blocking(ray, j, (p->xnew[j] - bound) / -ray.dx[j]);
  }
}

// ---- Points on the ray --------------------------------------------------------------------------

// Objective at xold + a dx. Bounds hold exactly, whatever rounding makes of the sum, and the one
// that blocks is met exactly.
static double value_at(const Ray& ray, double a) {
  NRPTRS* p = ray.p;
  zvaxpy(p->xnew, ray.dx, p->xold, ray.s->nvar, a);
  if (ray.s->bound != 0) {
    for (long j = 0; j < ray.s->nvar; ++j) {
      p->xnew[j] = std::min(std::max(p->xnew[j], p->lowb[j]), p->upb[j]);
    }
    if (ray.jadd >= 0 && a == ray.alfhi) {
      p->xnew[ray.jadd] = ray.dx[ray.jadd] < 0.0 ? p->lowb[ray.jadd] : p->upb[ray.jadd];
    }
  }
  return ray.fentry(ray.qq);
}

static double no_step(const Ray& ray) {
  std::copy_n(ray.p->xold, ray.s->nvar, ray.p->xnew);
  return 0.0;
}

// xnew is at a with the value f.
static double take_step(const Ray& ray, double a, double f) {
  ray.p->fold = ray.p->fnew;
  ray.p->fnew = f;
  return a;
}

// ---- Search -------------------------------------------------------------------------------------

// A constraint that is all but reached enters without a search. Where there is a way left to it, x
// goes along, so that the constraint holds; but not to a point that is higher than rounding tells.
static bool enter_at_once(const Ray& ray) {
  NRPTRS* p = ray.p;
  if (ray.alfhi > 0.0) {
    const double f = value_at(ray, ray.alfhi);
    if (!(f <= p->fnew + HUNDRED_EPS * std::fabs(p->fnew))) return false;
    p->fnew = std::min(p->fnew, f);
  }
  zconadd(ray.s, p, ray.jadd);
  return true;
}

// Longer and longer steps while each is lower than the last and low enough. xnew ends at the best,
// evaluated last.
static double lengthen(const Ray& ray, double c, double a, double f) {
  const double f0 = ray.p->fnew;
  while (LENGTHEN * a < ray.alfhi) {
    const double longer = value_at(ray, LENGTHEN * a);
    if (!(longer < f && f0 - longer >= c * LENGTHEN * a)) {
      f = value_at(ray, a);
      break;
    }
    a *= LENGTHEN;
    f = longer;
  }
  return take_step(ray, a, f);
}

// Halves a until the decrease reaches c a. known: the value at a / 2, where xnew is already, or
// null.
static double halve(const Ray& ray, double c, double a, const double* known) {
  const double f0 = ray.p->fnew;
  for (;;) {
    a /= 2.0;
    if (!(a > ray.alflo)) {
      // What belongs to x must be of the last evaluation: differences start from it.
      no_step(ray);
      ray.fentry(ray.qq);
      return 0.0;
    }
    const double f = known != nullptr ? *known : value_at(ray, a);
    known = nullptr;
    if (f0 - f >= c * a) return ray.s->step == 0 ? lengthen(ray, c, a, f) : take_step(ray, a, f);
  }
}

static double getalf(const Ray& ray) {
  const NRPTRS* p = ray.p;
  const double f0 = p->fnew;
  const double c = LEAST_SLOPE * zinner(ray.s->nvar, p->grad, ray.dx);
  // A decrease below rounding cannot be seen in values.
  if (!(c >= 1000.0 * EPS * std::fabs(f0))) return no_step(ray);
  const double a = std::min(ray.alfhi, LONGEST);
  // A constraint beyond the longest trial has no part in the search.
  if (ray.jadd < 0 || a < ray.alfhi) return halve(ray, c, a, nullptr);
  if (a <= AT_ONCE) return enter_at_once(ray) ? 0.0 : halve(ray, c, a, nullptr);

  const double whole = value_at(ray, a);
  const double half = value_at(ray, a / 2.0);
  if (!(whole < half) || !(f0 - whole > c * a)) return halve(ray, c, a, &half);
  // All the way to the constraint is best. Evaluated again, as x and all that belongs to it must be
  // those of the last evaluation; which may fail where the first did not.
  const double f = value_at(ray, a);
  if (!(f0 - f > c * a)) return halve(ray, c, a, nullptr);
  zconadd(ray.s, ray.p, ray.jadd);
  return take_step(ray, a, f);
}

double znewstp(void* qq, SIZE_S* s, NRPTRS* p, const double* dx, double*, FEntry fentry, GHEntry) {
  const long n = s->nvar;
  std::copy_n(p->xnew, n, p->xold);
  if (!(zvenorm(n, 1, dx) > NEGLIGIBLE * zvenorm(n, 1, p->xnew))) {
    p->fold = p->fnew;
    return 0.0;
  }
  Ray ray{qq, s, p, dx, fentry, NEGLIGIBLE, FARTHEST, -1};
  if (s->bound != 0) {
    limit_by_bounds(ray);
  } else {
    limit_by_rows(ray);
  }
  return getalf(ray);
}

}  // namespace tqnlp
