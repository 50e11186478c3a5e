// znewdrv: the DRiVer of the older NEWton code, znewrap.
//
// Model      m(s) = f + g's + s'(H + ridge I)s / 2 in the complement of the active constraints. The
//            ridge starts at zero in each iteration and grows until the matrix is safely positive
//            definite; a line search along the step stops at the first constraint that blocks,
//            which then enters the active set. What leaves it is the caller's decision, by tentry.
// Reference  Gill, Murray and Wright (1981), Practical Optimization, chapters 4.4 and 5.2;
// Goldfeld,
//            Quandt and Trotter (1966) for the ridge.
// Work       half: packed factor of the projected Hessian, with rows another packed triangle | step
//            n | column n | with rows hhold, packed | pi n | proj n, with rows n n | index, ints
//
//   1  objective and derivatives at the start, active set there
//   2  project and factor the Hessian, with as much ridge as it takes
//   3  step and search; a step of length zero counts as empty
//   4  derivatives at the new point, test, drop
#include "subs/znewdrv.h"

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "subs/znewsrv.h"

namespace tqnlp {

// ---- Layout of work -----------------------------------------------------------------------------

static long half_length(const SIZE_S* s) { return (s->bound != 0 ? 1 : 2) * packed_size(s->nvar); }

double* active_triangle(const SIZE_S* s, const NRPTRS* p) { return p->half + packed_size(s->nvar); }

double* step_vector(const SIZE_S* s, const NRPTRS* p) { return p->half + half_length(s); }

double* column_vector(const SIZE_S* s, const NRPTRS* p) { return step_vector(s, p) + s->nvar; }

// Lengths of what stands behind the column.
static long hold_length(const SIZE_S* s) { return s->bound != 0 ? 0 : packed_size(s->nvar); }

static long proj_length(const SIZE_S* s) { return s->bound != 0 ? s->nvar : s->nvar * s->nvar; }

static long index_length(const SIZE_S* s) {
  static constexpr long INTS = sizeof(double) / sizeof(int);
  const long count = s->bound != 0 ? s->nvar : s->neq + s->nneq;
  return (count + INTS - 1) / INTS;
}

long newton_work_length(const SIZE_S* s) {
  return half_length(s) + hold_length(s) + 3 * s->nvar + proj_length(s) + index_length(s);
}

static void lay_out(const SIZE_S* s, NRPTRS* p) {
  p->half = p->work;
  p->hhold = column_vector(s, p) + s->nvar;
  p->pi = p->hhold + hold_length(s);
  p->proj = p->pi + s->nvar;
  p->index = reinterpret_cast<int*>(p->proj + proj_length(s));
}

static void take_defaults(SIZE_S* s) {
  s->maxiter = 50;
  s->scratch = 0;
  s->step = 1;
  s->tol = 1e-6;
  s->rmax = 1024.0;
  s->rmin = 0.3125;
  s->rfact = 4.0;
}

// ---- Factor -------------------------------------------------------------------------------------

// Projects the Hessian and factors it with the smallest ridge of the rule that leaves all pivots
// above the limit. False: that ridge exceeds rmax.
static bool factor_with_ridge(SIZE_S* s, NRPTRS* p, double* ridgptr) {
  zhproj(s, p);
  for (;;) {
    const double limit = zridgit(p, s, *ridgptr);
    long k = 0;
    while (k < free_dimension(s) && zchol(k, p->half, limit) > limit) ++k;
    if (k == free_dimension(s)) return true;
    if (bigger(s, p, ridgptr) != 0) return false;
    reload_half(s, p);
  }
}

// The second-order test of a point that was reached with a ridge: is the projected Hessian itself
// positive definite? A pivot at the limit passes.
static bool is_positive_definite(void* qq, SIZE_S* s, NRPTRS* p, GHEntry ghentry) {
  if (s->scratch != 0) ghentry(qq);
  zhproj(s, p);
  const double limit = zridgit(p, s, 0.0);
  for (long k = 0; k < free_dimension(s); ++k) {
    if (!(zchol(k, p->half, limit) >= limit)) return false;
  }
  return true;
}

// ---- Driver -------------------------------------------------------------------------------------

int znewrap(void* qq, NRPTRS* p, SIZE_S* s, double* ridgptr, FEntry fentry, GHEntry ghentry,
            TEntry tentry) {
  static constexpr int GO_ON = 1;
  if (s->deflt != 0) take_defaults(s);
  p->fnew = fentry(qq);
  ghentry(qq);
  lay_out(s, p);
  const int start = s->bound != 0 ? zbinit(s, p) : zcinit(s, p);
  if (start > 0) return start;

  double* dx = step_vector(s, p);
  int answer = GO_ON;
  long empty = 0;
  for (int iteration = 0; iteration < s->maxiter; ++iteration) {
    *ridgptr = 0.0;
    if (!factor_with_ridge(s, p, ridgptr)) return RIDGE_TOO_LARGE;
    zgproj(s, p, dx, column_vector(s, p));
    const long active_before = s->nact;
    if (znewstp(qq, s, p, dx, ridgptr, fentry, ghentry) != 0.0) {
      empty = 0;
    } else {
      // A constraint that enters without a step is progress of another kind, and bounded by itself.
      if (s->nact > active_before) continue;
      if (++empty > s->nvar) return SEARCHES_FAILED;
    }
    ghentry(qq);
    estimate_pi(s, p);
    answer = tentry(qq);
    if (answer < 0) {
      zcondrp(s, p, -1 - answer);
    } else if (answer == 0) {
      if (*ridgptr <= 0.0 || is_positive_definite(qq, s, p, ghentry)) return 0;
      return INDEFINITE_AT_STOP;
    }
  }
  return answer;
}

}  // namespace tqnlp
