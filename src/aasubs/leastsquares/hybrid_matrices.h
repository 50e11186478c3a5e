// The two matrices of HYQUAN: the Gauss-Newton matrix A = J'J in the reduced space, factored in
// hpro, and the quasi-Newton matrix B, whose factor in half is updated; and the rules by which one
// of them supplies the next direction.
#pragma once

#include "aasubs/loop/technique_loop.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

inline constexpr int DIAGONAL_FORM = 3;  // of a factor: the roots of a diagonal matrix

// What the iterations of one run share.
struct HybridRun {
  int ij = 0;    // code in hand
  int load = 0;  // nonzero: a start or restart begins B with the unit matrix

  // Forms of the factors, as the factorization kernels count: of A, of B.
  int icho = 1;
  int jcho = 1;

  bool nohs = false;     // no Gauss-Newton matrix is usable
  bool stale = true;     // the next start makes B anew
  bool blocked = false;  // a constraint blocked at once: the next start begins B with I too
  bool twins = false;    // B is still the Gauss-Newton matrix it was copied from
  bool skipped = false;  // the last update was refused
  bool isd2 = false;     // a second direction is ready
  double gs = 0.0;       // slope of the present direction
  double gs2 = 0.0;      // slope of the second direction
  double salf0 = 1.0;    // first step length asked for, kept until the run has settled
  Callback usgrd{};      // the user's gradient; str->usgrd is a wrapper during the run
  int gradients = -1;    // calls of it in the present search; -1: outside a search
  bool at_hand = false;  // hess is J'J at the point of the last of these calls
  bool has_old = false;  // old_gradient belongs to that point too
  RestartGuard guard{};
};

// Parts of wrk2: reduced step (n), second direction (n), J(xold)'r(x) (n).
inline double* second_direction(const MINSTR* str) { return str->wrk2 + str->nvar; }
inline double* old_gradient(const MINSTR* str) { return str->wrk2 + 2 * str->nvar; }

// The forms of both factors for the constraints of the run.
void choose_forms(const MINSTR* str, HybridRun& run);

// Function, gradient and J'J at x, the working set, and A factored. job 1: at a start or restart,
// everything afresh, the ridge raised until A can be factored, and B where it is to be made anew.
// job 0: after a step; an A that cannot be factored sets nohs. Returns 0, -1 function failed, -2
// derivatives, -5 ridge at its limit, -6 no feasible point.
int actcon(MINSTR* str, int job, HybridRun& run);

// B := I.
void reset_to_unit(MINSTR* str);

// B := A.
void copy_crossproduct(MINSTR* str, const HybridRun& run);

// Direction of one kind into spro and sdir, with its slope. False: the factor is singular.
bool make_direction(MINSTR* str, const HybridRun& run, bool gauss_newton, double* slope);

// Updates B by the last step, and chooses in str->null the matrix of the next direction: 0
// quasi-Newton, 1 Gauss-Newton. Next::restart when B lost rank, or nothing is usable.
Next update_and_choose(MINSTR* str, HybridRun& run);

}  // namespace tqnlp
