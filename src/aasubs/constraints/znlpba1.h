// Step limit, linear dependence and the loading of a quadratic (source znlpba1: znlpstl.cpp,
// znlpldc.cpp, znlpinc.cpp), and the feasible start for linear constraints (source znlpfea).
//
// Constraint codes. A constraint that blocks a step or is to be repaired is named by
//   c < n            lower bound of parameter c
//   n <= c < 2n      upper bound of parameter c - n
//   c >= 2n          linear constraint c - 2n
// Where a routine counts constraints (ncon of znlpstl, kcon below), the n parameters count first
// and the linear constraints behind them.
#pragma once

#include "aasubs/constraints/znlplcq.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

// ---- Step limit -------------------------------------------------------------------------------

// How far may one go from x along sdir before a bound of a free parameter or a linear inequality
// outside the working set blocks? Sets stub to that multiple of sdir; the tolerance is
// ceps * 10^ipre, at most 0.001.
//
//   job   no effect, kept for callers
//   ibo   0: stub is at most 1, and nothing blocks beyond; nonzero: no such cut, and stub is the
//         largest double when nothing blocks
//   ncon  number of constraints to look at, bounds first; 0: all n + str->ncon
//   icon  out: code of the blocking constraint, -1 none; with iwk the number of entries in iwk
//   iwk   null, or max(n, ntco) longs: receives the codes of all constraints on which x stands and
//         into which sdir moves
//
// Returns 0; -1 if stub is zero (at or below TINY) though nothing is violated; or the number of
// constraints that x violates and sdir violates more, with stub 0. Uses awrk. Never fails; a list
// that would overflow ends the run with exit code 9999.
int znlpstl(MINSTR* str, int job, int ibo, long ncon, const double* x, const double* sdir,
            long* icon, long* iwk);

// ---- Linear dependence ------------------------------------------------------------------------

// Takes redundant rows out of the linear constraints: duplicates of an earlier row, then equalities
// that depend on earlier ones as far as the free parameters go. Run once, while the constraints are
// decoded. ncon, ntco, and for equalities neqc and ntec, fall by the number of rows removed.
//
//   opro        1: dependence through an orthogonal factor in qlcn and llcn; otherwise through
//               Gram-Schmidt rows in qlcn, or in utq when qlcn is null (opened here; with opro 2 it
//               stays open for the range-space frame)
//   aspa        1: rows are sparse, jalc and naco as in the record; 0: dense, n doubles a row, and
//               jalc and naco are not read
//   alcn        the coefficients, as str->acget reads them
//
// Also raises ub to lb where it is below, sets iabc and ifxr for parameters with equal bounds, and
// writes messages 549/50 and 549/51 with the number of rows removed. Uses awrk, work, grad, gold,
// sdir, liwk, dcds, qlcn, llcn. Always returns 0.
int znlpldc(MINSTR* str, int opro, int aspa, long* jalc, long* naco, double* alcn);

// ---- Loading of a quadratic -------------------------------------------------------------------
//
// Layout of the utility file utquad, from its begin; all items have 8 bytes:
//   qvec                      n doubles, only with fqad nonzero
//   hfrm 0   hess             n(n+1)/2 doubles, row i being i+1 of them
//   hfrm 1   hess             shes.mxja doubles
//            jasp, jusp       shes.mxja and shes.mxju longs
//            perm, iprm       n longs each
//   hfrm 2   hess             n doubles
// A failing read logs the status and ends the run with exit code 1020; another hfrm ends it with
// 9999.

// Rebuilds ifxr from iabc, free parameters first; with dofac nonzero then calls usclo (if there is
// one). Returns what usclo returns, or 0.
int znlpinc(MINSTR* str, int dofac);

// Reloads qvec, and hess with its pattern, from utquad. Returns 0.
int znlphlo(MINSTR* str);

// Leaves the Cholesky factor of the matrix in utquad (null: in hess) in half: hfrm 0 packed, LL'
// without bounds and LDL' (D on the diagonal) of the rows and columns ifxr[0..nfre-1] with bounds;
// hfrm 1 sparse, in the pattern jusp, or jusl of the free parameters with bounds (hess receives the
// matrix); hfrm 2 the roots of the diagonal. Uses work and iwk. Returns 0, or -1 when a pivot is
// not above sing. clod nonzero ends the run with exit code 9999.
int znlpclo(MINSTR* str);

// product := H v over all parameters. A packed matrix is read row by row from utquad (through work)
// where it lives there, and for the barrier form of QUADAS in the same order of sums from hess. The
// other forms stand in hess. product must not overlap v.
void quadratic_product(MINSTR* str, const double* v, double* product);

// Roots of the diagonal of H, without signs: |H(i,j)| <= scale[i] scale[j] where H is definite.
void quadratic_scale(MINSTR* str, double* scale);

// ---- Feasible start ---------------------------------------------------------------------------

// Moves x into the region of the bounds and linear constraints with the least disturbance.
//
//   job   how far clipped parameters are pushed inside their bounds, as in znlpfbc; below 0: a mere
//         repair during a run, which only clips
//
// Returns 0  x is feasible as given, and unchanged
//         1  feasible after clipping to the bounds
//         2  feasible after solving for a near point
//         3  feasible only with the tolerance ceps * 10^ipre; ipre holds the exponent from now on
//        -1  the memory for the frame was refused (only asked for with opro 0)
//        -2  no feasible point was found; x is as it was given
// On success iabc, iact, nabc, nalc tell what is active at x; ifxr and the factors are the caller's
// to build (znlpfta). Overwrites xold, gold, grad, sdir, work, gmax and the constraint arrays. opro
// 2 ends the run with exit code 9999.
int znlpfea(MINSTR* str, int job);

// Phase one: descent on the sum of infeasibilities with the working set. job above 0: equalities by
// Gram-Schmidt. kcon: -1 all constraints, otherwise only the first kcon. Starts from x and the
// working set of iabc, iact. Returns 0 with a feasible x; -2 stationary at an infeasible point or
// no step; -3 equalities cannot be satisfied; -10 limit of 100 passes.
int znlpfe1(MINSTR* str, int job, long kcon);

// Least distance: moves x onto the equalities, then repairs one violated constraint after the other
// by znlplip, which leads to the feasible point nearest to x. Arguments as znlpfe1. Returns 0; -2
// when a constraint cannot be repaired; -3 when the equalities cannot be satisfied.
int znlpfe2(MINSTR* str, int job, long kcon);

// Pushes x inside the violated constraint with code ic and adds it to the working set. All members
// of the working set stay satisfied; an inequality that the push would bend back leaves it. gold
// holds the point from which distance is measured. A constraint beyond kcon is left alone. Returns
// 0, or -2 when no point satisfies ic together with the working set (or the search did not settle).
int znlplip(MINSTR* str, long ic, long kcon);

}  // namespace tqnlp
