// znewcad: a Constraint is ADded to the active set of the older Newton code, or dropped from it.
//
// The active rows A are kept factored as A Q = (T 0), T lower triangular and packed, Q orthogonal.
// Adding a row takes one Householder reflection of the columns of Q that stand behind T, dropping
// one takes rotations of neighbouring columns (Gill, Golub, Murray and Saunders 1974). Both are
// orthogonal, so that Z, the columns behind T, stays an orthonormal basis of the complement to
// rounding however often the set changes; ZZ' is the projector.
#include <algorithm>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/vector.h"
#include "subs/znewsrv.h"

namespace tqnlp {

void reset_projector(const SIZE_S* s, NRPTRS* p) {
  std::fill_n(p->proj, s->nvar * s->nvar, 0.0);
  for (long i = 0; i < s->nvar; ++i) p->proj[i * s->nvar + i] = 1.0;
}

// Exchanges two places of the list of constraints, and with them the columns of A'.
static void colswap(NRPTRS* p, long a, long b) { std::swap(p->index[a], p->index[b]); }

static long place_of(const NRPTRS* p, long constraint, long count) {
  return std::find(p->index, p->index + count, static_cast<int>(constraint)) - p->index;
}

static int add_row(SIZE_S* s, NRPTRS* p, long constraint) {
  const long n = s->nvar;
  const long k = s->nact;
  if (k == n) return 1;
  const double* row = p->constr + constraint * n;
  // The new row of T; the n - k - 1 elements behind it are free until the next one.
  double* image = active_triangle(s, p) + packed_size(k);
  std::fill_n(image, n, 0.0);
  for (long i = 0; i < n; ++i) zvxay11(n, image, row[i], p->proj + i * n);
  if (!(zvenorm(n - k, 1, image + k) > INDEPENDENT * zvenorm(n, 1, row))) return 1;

  double* reflection = column_vector(s, p);
  double pk = 0.0;
  zhh1(image, reflection, &pk, k, 1, n);
  for (long i = 0; i < n; ++i) zhh2(p->proj + i * n, reflection, k, pk, 1, n);
  colswap(p, place_of(p, constraint, s->neq + s->nneq), k);
  ++s->nact;
  return 0;
}

int zconadd(SIZE_S* s, NRPTRS* p, long constraint) {
  if (s->bound == 0) return add_row(s, p, constraint);
  if (p->proj[constraint] == 0.0) return 1;
  p->proj[constraint] = 0.0;
  p->index[s->nact++] = static_cast<int>(constraint);
  return 0;
}

// Takes row gone out of T: each row behind it moves up, and a rotation of two columns takes away
// the element that is then one too many.
static void remove_row(SIZE_S* s, NRPTRS* p, long gone) {
  double* triangle = active_triangle(s, p);
  for (long r = gone + 1; r < s->nact; ++r) {
    double* row = triangle + packed_size(r);
    double c = 1.0;
    double sine = 0.0;
    zgivcon(&row[r - 1], &row[r], &c, &sine);
    for (long t = r + 1; t < s->nact; ++t) {
      double* later = triangle + packed_size(t);
      zgivapl(1, 1, 1, c, sine, later + r - 1, later + r);
    }
    zgivapl(s->nvar, s->nvar, s->nvar, c, sine, p->proj + r - 1, p->proj + r);
    std::copy_n(row, r, triangle + packed_size(r - 1));
  }
}

int zcondrp(SIZE_S* s, NRPTRS* p, long constraint) {
  const long gone = place_of(p, constraint, s->nact);
  if (gone == s->nact) return 1;
  if (s->bound != 0) {
    p->proj[constraint] = 1.0;
  } else {
    remove_row(s, p, gone);
  }
  for (long r = gone + 1; r < s->nact; ++r) colswap(p, r - 1, r);
  --s->nact;
  if (s->bound == 0 && s->nact == 0) reset_projector(s, p);
  return 0;
}

}  // namespace tqnlp
