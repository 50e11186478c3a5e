// znlpftr: FRame of The Range space, the working set of a strictly convex quadratic.
//
// H = L L' on the free parameters, g the gradient at x. Every active row a is kept as the solved
// row y = L^-1 a, and the solved rows are orthogonalized, Y = Q R, Q with orthonormal rows q_i:
//
//   u = L^-1 g     v = Q Q'u     w = u - v
//   step        d = -L^-T w goes to the minimizer on the working set; g'd = -w'w, d'Hd = w'w
//   multipliers R lambda = Q'u
//   after alfa d      u := (1 - alfa) u + alfa v, v stays, w := (1 - alfa) w
//   a row enters      v := v + q q'w, w := w - q q'w for its q
//   a row leaves      rotations make R triangular again; the q that is left over gives q q'u back
//
// so that direction and value follow changes of the working set without a solve. A bound takes its
// parameter out of the free set: H changes, and the frame is made anew. With no factor (half null)
// L is the identity. The frame costs one row of n for every active row, where a basis of the null
// space would be dense whatever H is. Reference: Goldfarb and Idnani (1983), Mathematical
// Programming 27; Gill, Murray, Saunders and Wright (1984), SIAM Journal on Scientific and
// Statistical Computing 5.
//
// Layout
//   qlcn   row i at i*n, of which the places of free parameters (in the order of ifxr) are in use
//          and the others 0; null: the rows stand in the work file utq in the same layout
//   llcn   llcn[i] the diagonal of R: what the solved row i had of its own, without the rows before
//   uvwg   u n | v n | w n | g n | R above its diagonal, column j in j places at j(j-1)/2, which
//          stays in memory even when the rows stand in the file
//          g: the gradient with the free parameters at 0, q + H(:, fixed) x(fixed)
//   ywrk   a row n | work n | a row of the file n | coefficients of a row n
//
// half is the factor that znlpclo leaves. alfa, where it is an argument: the share of the way to
// the minimizer that x and grad have gone since u, v, w were last brought to date.
#pragma once

#include <algorithm>

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Most rows that the frame may hold, and what its arrays need.
inline long frame_rows(long n, long ncon) { return std::min(n, ncon); }
inline long frame_vectors(long n, long ncon) {
  const long rows = frame_rows(n, ncon);
  return 4 * n + rows * (rows - 1) / 2;
}
inline constexpr long FRAME_ROW_WORK = 4;  // ywrk, in units of n

inline double* frame_u(const MINSTR* str) { return str->uvwg; }
inline double* frame_v(const MINSTR* str) { return str->uvwg + str->nvar; }
inline double* frame_w(const MINSTR* str) { return str->uvwg + 2 * str->nvar; }
inline double* frame_g(const MINSTR* str) { return str->uvwg + 3 * str->nvar; }

// Makes the frame of the working set that iabc and iact describe (as znlpfch fills them): factor,
// rows, equalities first, u, v, w and g. A row that depends on those before it is deferred. job
// nonzero: what wants to leave then leaves (znlpdar). job2 nonzero: multipliers in lagm, and the
// projected gradient in gpro and gmax. Returns 0, or the failure of the factorization.
int znlpftr(MINSTR* str, int job, int job2, double* half);

// u, v, w (and with a factor g) from grad and x, for the frame as it stands.
void inuvwg(MINSTR* str, const double* half);

// Adds one constraint, koc and ic as for znlpupd. job nonzero only tests. Returns 0; 1 when it
// depends on the members, or there are as many as free parameters: it is then deferred (tail of
// iact; nlbc and iabc). A bound needs the present grad; -1 when the factor of the others fails.
int znlpupr(MINSTR* str, int job, int koc, long ic, double alfa, double* half);

// Drops one constraint. Returns 0; 1 when it is no member; -1 when the factor fails.
int znlpdor(MINSTR* str, int koc, long ic, double alfa, double* half);

// After changes of iabc and nabc: a new factor and frame of the same rows. Returns 0 or -1. Bounds
// that are deferred have to be hidden (in ipiv) from before the change until after it.
int renew_frame(MINSTR* str, double* half);
void hide_deferred_bounds(MINSTR* str);
void show_deferred_bounds(MINSTR* str);

// u, v, w after x and grad have gone the share alfa of the way to the minimizer.
void frame_advance(MINSTR* str, double alfa);

// Tries the deferred constraints again. Returns 1 if any entered, else 0; -1 as above.
int znlpldr(MINSTR* str, double* half);

// Adds all constraints that hold with equality at x within tolerance. chac becomes their number.
// Returns 1 if one entered, else 0; -1 as above.
int znlpacr(MINSTR* str, double alfa, double* half);

// Drops the inequality with the most negative multiplier, the first of equals, if that is below
// -deat (missing: 1e-8 root n; at least 1e-12 in any case: a threshold of its own, deliberately
// another than that of the null-space frame). Deferred constraints may then enter, and if one does
// the search goes on. idac: the change of the number of members. Returns 1 if any left, else 0; -1
// (and idac -1) when the frame could not be made.
int znlpdar(MINSTR* str, double alfa, double* half);

// sdir := -L^-T w on the free parameters, 0 elsewhere.
void frame_direction(MINSTR* str, const double* half);

// lambda[0..nalc-1]: multipliers of the rows for the gradient that belongs to u.
void frame_multipliers(MINSTR* str, double* lambda);

// gpro := grad less the members' rows times their multipliers (in lagm, behind the bounds), gmax
// the largest element of it on the free parameters. Without rows gpro is not needed.
void frame_projection(MINSTR* str);

// sdir := change of x, least in the norm of H, that satisfies the rows of the working set.
void frame_correction(MINSTR* str, const double* half);

// Moves x to the nearest feasible point of bounds and linear constraints, by way of the frame with
// half null. Returns 0 feasible as given, 1 after clipping, 2 after the move, 3 with a wider
// tolerance (ipre); -2 no feasible point was found, -3 nor one with that tolerance: x is then as it
// was given. On success iabc, iact, nabc, nalc tell what is active. Overwrites xold, gold, grad,
// sdir, work.
int znlpfer(MINSTR* str);

// The feasible start of the run's frame: znlpfea with its job, or znlpfer and, where it finds
// nothing and a matrix of order n is no matter, znlpfea. Returns as these.
int make_feasible(MINSTR* str, int job);

// Pushes x inside the violated constraint with code ic (codes of znlpba1.h) and adds it to the
// working set, all of whose members stay satisfied; inequalities that would hold it back leave. x
// must be the point nearest to gold on the working set. Returns 0, or -2 when no point satisfies ic
// together with the equalities and what cannot leave.
int znlplir(MINSTR* str, long ic);

// Inner product of row i with v over all parameters, from the stored coefficients.
double row_product(MINSTR* str, long i, const double* v);

}  // namespace tqnlp
