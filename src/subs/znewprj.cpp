// znewprj: PRoJections of the older Newton code onto the complement of the active constraints.
//
//   bounds   Z is made of unit vectors, one for each variable with mark 1 in proj, in ascending
//   order rows     Z is the last n - nact columns of the orthogonal Q in proj (see znewcad.cpp)
//
// Gradient and Hessian are taken to coordinates in Z, where the Newton step solves a system with a
// positive definite matrix of the free dimension; Z carries the step back.
#include <algorithm>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/vector.h"
#include "subs/znewsrv.h"

namespace tqnlp {

// ---- Hessian ------------------------------------------------------------------------------------

// half := rows and columns of the free variables.
static void select_free(const SIZE_S* s, NRPTRS* p) {
  double* to = p->half;
  for (long i = 0; i < s->nvar; ++i) {
    if (p->proj[i] == 0.0) continue;
    const double* row = p->hess + packed_size(i);
    for (long j = 0; j <= i; ++j) {
      if (p->proj[j] != 0.0) *to++ = row[j];
    }
  }
}

void zhproj(SIZE_S* s, NRPTRS* p) {
  if (s->bound == 0 && s->nact > 0) {
    const long n = s->nvar;
    znlpred(0, n, n, free_dimension(s), n, nullptr, p->hess, p->proj + s->nact, p->hhold,
            step_vector(s, p), column_vector(s, p));
  }
  reload_half(s, p);
}

void reload_half(SIZE_S* s, NRPTRS* p) {
  if (s->bound != 0) {
    select_free(s, p);
  } else {
    // Without active rows Q is the identity.
    std::copy_n(s->nact > 0 ? p->hhold : p->hess, packed_size(free_dimension(s)), p->half);
  }
}

// ---- Gradient and step --------------------------------------------------------------------------

static void project_gradient(const SIZE_S* s, NRPTRS* p) {
  const long n = s->nvar;
  if (s->bound != 0) {
    double* to = p->pgrad;
    for (long j = 0; j < n; ++j) {
      if (p->proj[j] != 0.0) *to++ = p->grad[j];
    }
    return;
  }
  std::fill_n(p->pgrad, n, 0.0);
  for (long i = 0; i < n; ++i) {
    zvxay11(free_dimension(s), p->pgrad, p->grad[i], p->proj + i * n + s->nact);
  }
}

// dx := -Z col.
static void expand_negative(const SIZE_S* s, const NRPTRS* p, const double* col, double* dx) {
  const long n = s->nvar;
  for (long i = 0; i < n; ++i) {
    if (s->bound != 0) {
      dx[i] = p->proj[i] != 0.0 ? -*col++ : 0.0;
    } else {
      dx[i] = -zvdot11(free_dimension(s), col, p->proj + i * n + s->nact);
    }
  }
}

void zgproj(SIZE_S* s, NRPTRS* p, double* dx, double* col) {
  const long k = free_dimension(s);
  project_gradient(s, p);
  std::copy_n(p->pgrad, k, col);
  zchol2(k, p->half, col);
  zbaksub(k, p->half, col);
  expand_negative(s, p, col, dx);
}

// ---- Multipliers --------------------------------------------------------------------------------

void estimate_pi(SIZE_S* s, NRPTRS* p) {
  const long n = s->nvar;
  if (s->bound != 0) {
    for (long r = 0; r < s->nact; ++r) {
      const long j = p->index[r];
      const bool at_lower = p->xnew[j] - p->lowb[j] <= p->upb[j] - p->xnew[j];
      p->pi[r] = at_lower ? p->grad[j] : -p->grad[j];
    }
    return;
  }
  // T' pi = the part of Q'g that the active rows span.
  std::fill_n(p->pi, s->nact, 0.0);
  for (long i = 0; i < n; ++i) zvxay11(s->nact, p->pi, p->grad[i], p->proj + i * n);
  zbaksub(s->nact, active_triangle(s, p), p->pi);
}

}  // namespace tqnlp
