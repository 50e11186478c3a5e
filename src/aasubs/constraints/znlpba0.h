// Projected operators (source znlpba0): between the full space of n parameters and the reduced
// space of the working set.
//
// With nabc active bounds and nalc active general constraints, nfre = n - nabc parameters are free
// and the reduced space has nzmm = nfre - nalc dimensions. A technique that touches vectors and
// matrices only through these operators runs unchanged without constraints, with bounds and with
// linear constraints. Three frames are told apart, always in this order:
//
//   full       lincon, and nalc > 0 or a technique that keeps an orthogonal frame from the start:
//              p[k] = sum over l < nfre of Q[l][k] v[ifxr[l]], k < nzmm
//   permuted   lincon or bounds: p[k] = v[ifxr[k]], k < nfre
//   identity   neither: p = v
//
// No operator allocates. Whoever needs the full frame while opro is 2 ends the run with exit code
// 9999. work, awrk, dcds and the unused tail of llcn are scratch of the operators.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

enum class Frame { full, permuted, identity };
Frame frame_of(const MINSTR* str);

// Free dimension nzmm = n - nabc - nalc, and the number nfre of free parameters.
inline long free_count(const MINSTR* str) { return str->nvar - str->nabc; }
inline long reduced_dimension(const MINSTR* str) { return str->nvar - str->nabc - str->nalc; }

// The operators look at lincon alone. Where rows of nonlinear constraints are in the working set
// and have to count just as much, operation runs with lincon set.
template <class Operation>
void with_general_frame(MINSTR* str, Operation operation) {
  const int lincon = str->lincon;
  if (str->nlicon != 0) str->lincon = 1;
  operation();
  str->lincon = lincon;
}

// ---- Vectors (znlpba0.cpp) ----------------------------------------------------------------------

// gpro := projection of grad; returns at once when no parameter is free.
void znlpgcs(MINSTR* str, double* gpro);

// gmax := largest |projected gradient|, the projection left in str->gpro (job 0) or gpro
// (otherwise). job 0 without general constraints may have no str->gpro: then the gradient is only
// scanned. NaN in the gradient makes gmax NaN. gmax is 0 when the reduced space is empty.
void znlpgmx(MINSTR* str, int job, double* gpro);

// Is the descent direction -Z gpro feasible at x? Returns what znlpstl answers: 0 yes, nonzero a
// constraint blocks it at once. icon and iwk as for znlpstl (icon -1: nothing blocks). The
// direction is made in work and cut to unit length when it is longer than 10. Writes stub.
int znlptcs(MINSTR* str, double* gpro, long* icon, long* iwk);

// Slope s'g: with linear constraints from the reduced spro and gpro, with bounds over the free
// parameters of grad and sdir, otherwise over all n. Products that underflow are left out. 0 when
// nzmm is 0.
double znlpgs(MINSTR* str, const double* spro, const double* gpro, const double* sdir,
              const double* grad);

// Reduce: spro := projection of sdir. Expand: sdir := expansion of spro, zero on active bounds.
// Both leave their target alone when nzmm is 0. Source and target must not overlap.
void znlpvre(MINSTR* str, const double* sdir, double* spro);
void znlpvex(MINSTR* str, const double* spro, double* sdir);

// Expands the step spro into sdir. With bounds alone every component whose target xold + s reaches
// a bound within tolerance or passes it is first moved onto that bound, in spro itself. Returns for
// job 1 the length of spro (scaled by dsca when hesc is set), for job 2 the predicted reduction
// -spro'g/2, otherwise 0; 0 at once when nzmm is 0.
double znlpsp2(MINSTR* str, int job, double* spro, double* sdir);

// Scale that belongs to component k of a reduced vector. dsca is indexed by parameter in the
// permuted frame of a bound-constrained run, since its values outlive changes of the working set
// there, and by component where linear constraints exist and the components have no names.
inline double component_scale(const MINSTR* str, long k) {
  return str->dsca[str->lincon == 0 && str->bounds != 0 ? str->ifxr[k] : k];
}

// spro := spro / dsca; nothing when hesc or nzmm is 0.
void znlpscd(MINSTR* str, double* spro);

// Largest magnitude; NaN when v holds one, so that a broken gradient is never taken for a zero one.
double largest_or_nan(long n, const double* v);

// Dot product that leaves out terms whose product would underflow.
double dotprd(long n, const double* x, const double* y);

// ---- Matrices (znlpba0_hessian.cpp) -------------------------------------------------------------

// hpro := Z'HZ of order nzmm, gpro := Z'grad.
//   job   2: hess holds the lower Cholesky factor of H (hfrm 2: the roots of its diagonal)
//   iqid  nonzero: the caller vouches that the frame was just built, so that with nothing active
//         the matrix is copied
//   hfrm  0 packed; 2 diagonal: hpro is a vector of nzmm diagonal values without linear constraints
//         and packed with them; 1 sparse, without linear constraints only: with bounds and a
//         second pattern hpro receives the matrix of the free parameters in the pattern jasl, which
//         is made here together with jusl (order nzmm, in the order of ifxr; the factor is then
//         that of job 7); otherwise the values keep their pattern (job 6)
// gpro has n doubles. hpro may be hess in every frame, and must have room for the packed result. A
// sparse matrix with bounds goes into its own place by way of str->hpro (mxja doubles); hpro null
// leaves it there alone. Uses work, and iwk for the sparse form.
void znlphpr(MINSTR* str, int job, int iqid, int hfrm, double* gpro, double* hess, double* hpro);

// znlphpr, then gmax, and (but for technique 16) the scaled measure of the gradient: gcri :=
// largest |gpro[i]| / sqrt(H(i,i) |crit|) over the positive diagonal elements. With nothing free
// gcri and gmax are 0 and nothing else happens.
void znlphgp(MINSTR* str, int job, int hfrm, double* gpro, double* hess, double* hpro);

// Updates dsca[0..n-1] from the diagonal of a matrix of order n (hfrm 1, 2: a vector; otherwise
// packed) by the rule hesc.
void znlphsc(MINSTR* str, int hfrm, long n, double* hpro);

// spro := -D^-1 g with the reduced gradient g: gpro with linear constraints, grad on the free
// parameters otherwise; with hesc the reduced matrix (hpro with linear constraints, else hess) is
// scaled to D^-1 H D^-1, a sparse one in the pattern that znlphgp left it in; without hesc D is the
// identity. grad and gpro stay. Returns |spro|.
double znlphs2(MINSTR* str, int hfrm, double* spro);

// job other than 2: starts the packed hess. load 0: a multiple of the identity; load nonzero: hess
// is given, and ridg is added to its diagonal.
// job 2: reduces hess to Z'HZ in place, leaves with hesc the roots of its diagonal in dsca, and
// factors: chol 0 not; 1 LDL'; 2 LL'. Technique 10, which works with inverses, gets the inverse for
// either. load 0 says that hess is diagonal. Uses sdir, which has no meaning at a start.
// Returns 0, or the code of the factorization that failed (positive). chol above 2 ends the run.
int znlphin(MINSTR* str, int job, int load, int hesc, int chol, double* hess);

// ---- Multipliers and Lagrangian (znlpba0_multipliers.cpp) ---------------------------------------

// Multipliers of the working set that fit vv best: lagm[0..nabc-1] of the bounds in the order of
// the tail of ifxr, lagm[nabc..] of iact. vv is a gradient over n (job 0) or stands in the order of
// ifxr (otherwise). At a solution the multipliers of inequalities are not negative. lagm must not
// overlap vv. Ends the run with 9999 without general constraints, and for a singular factor.
void znlpglm(MINSTR* str, int job, const double* vv, double* lagm);

// Multipliers of the second form, in lag2: those of the gradient that the quadratic model predicts
// at the Newton point of the working set. Returns 0, or 3 when the projected Hessian is singular or
// its arrays are absent. Uses hpro, gpro, work, iwk. Techniques without a Hessian end with 9999.
int znlplm2(MINSTR* str);

// With nonlinear constraints: crlf := crit - sum of multiplier times residual, over the working
// set; ider nonzero also grlf := grad - sum of multiplier times gradient, and gmlf, the largest
// element of its projection. Reads lagm.
void znlplfg(MINSTR* str, int ider);

// ---- Steps (znlpba0_steps.cpp) ------------------------------------------------------------------

// First trial step of a line search with slope gs0 at its start; never above stub.
double znlpalf(MINSTR* str, double gs0);

// spro := H^-1 gold in the reduced space, H by its factor half of form icho and order nosi.
//   job 0, or nosi 0: spro := gold; jpiv nonzero: the factor is in the pivot order ipiv
// Rows from nosi on become 0. Returns 0, or -5 when the factor is singular: then spro is gold.
int znlpsdi(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, const double* gold,
            double* half);

// The same for the negative reduced gradient of the record (gpro with linear constraints, grad
// otherwise), expanded into sdir: job positive solves with half, negative multiplies by the packed
// matrix half, 0 takes steepest descent. A singular factor gives -5 and steepest descent.
int znlpsd2(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, double* sdir,
            double* half);

// Bends a step from xold that a bound cuts: tries up to four lengths of sdir, projected on the
// bounds, and takes the first whose slope keeps 1e-8 of dgs. Returns 1 when sdir, dgs and stub are
// those of the bent step, 0 when the step stands (then stub is its limit). Bounds alone only.
int znlppro(MINSTR* str, int job, double* dgs);

// Puts x inside its bounds and sets iabc: 2 where the bounds coincide within tolerance (both become
// lb), 1 and -1 where x stands at a bound. job nonzero also pushes x away from the bounds, job 1 by
// less than other values. Returns the number of parameters with iabc nonzero.
int znlpfbc(MINSTR* str, int job);

}  // namespace tqnlp
