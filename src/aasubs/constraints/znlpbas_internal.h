// What the sources of znlpbas share: the state of the frame, plane rotations on rows, and the
// updates of a projected matrix.
//
// One convention of rotations holds throughout: a rotation (c, s) of the neighbouring places k and
// k+1 takes the pair (left, right) to (c left - s right, c right + s left). Built by zgivcon on
// (right, left) it moves everything into the right place.
#pragma once

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/record/minstr.h"

namespace tqnlp::bas {

// ---- State of the frame -----------------------------------------------------------------------

inline bool has_general_constraints(const MINSTR* str) {
  return str->lincon != 0 || str->nlicon != 0;
}

// Is Q consulted? Without it the frame is the permutation ifxr, and Q the identity by construction.
inline bool q_in_use(const MINSTR* str) {
  return has_general_constraints(str) && (uses_full_frame(str->tech) || str->nalc > 0);
}

// An entry of iact that must never leave the working set.
inline bool is_equality(const MINSTR* str, long entry) {
  return entry < str->ncon ? entry < str->neqc : entry - str->ncon < str->nlec;
}

// Ends the run in the range-space frame, which these routines do not serve.
void refuse_range_frame(const MINSTR* str);

// Ends the run: counts and lists contradict each other.
[[noreturn]] void inconsistent();

// Place of parameter ic in ifxr[from..to-1]; the run ends when it is not there.
long place_of(const MINSTR* str, long from, long to, long ic);

// Leading nfre x nfre part of Q := identity.
void set_q_identity(MINSTR* str, long nfre);

// ---- Rotations of rows ------------------------------------------------------------------------

// Applies the rotations k0, k0+1, ..., k1-1 (c[k], s[k] on the elements k, k+1) in this order to
// each of count rows at distance stride.
void sweep_up(long count, long stride, double* rows, long k0, long k1, const double* c,
              const double* s);

// The same rotations in the order k1-1, ..., k0.
void sweep_down(long count, long stride, double* rows, long k0, long k1, const double* c,
                const double* s);

// ---- Projected matrix ches --------------------------------------------------------------------

// Variable k leaves the permuted frame; order is the number of variables before. A variable that a
// pivoted factor of lower rank does not cover leaves it as it is.
void remove_variable(MINSTR* str, int job, long order, long k, long* nhlf, double* ches);

// Carries the rotations dcds[0..nz-2] of a sweep over neighbouring places into ches and removes the
// last place; nz is the dimension before. job 2: the places are those of ipiv, which is renumbered.
void remove_swept(MINSTR* str, int job, long nz, long* nhlf, double* ches);

// Appends the variable with number nz (the dimension before) and the column cross of the projected
// Hessian against the nz earlier variables, square its diagonal element. spare: n doubles of work.
// cross null: a unit row. Returns 0, 1 for the unit row, 2 when the diagonal could not be formed.
int append_variable(MINSTR* str, int job, long nz, const double* cross, double square,
                    double* spare, long* nhlf, double* ches);

// Extends ches for bound parameter ic that becomes the last free one of the permuted frame.
// Returns 0; 1, 2 as znlpdod, where the unit row of job 0 or of an absent Hessian counts as 0.
int bcupd(MINSTR* str, int job, long ic, long* nhlf, double* ches, const double* hess);

// Turns ches from the basis Q (order nfre, no active constraint) to the basis of the permutation,
// where Q is the identity. Q is used up.
void turn_to_permutation(MINSTR* str, int job, long nfre, long* nhlf, double* ches);

// ---- Dropping ---------------------------------------------------------------------------------

// Drop threshold: a multiplier below its negative makes a constraint a candidate.
double gtres(const MINSTR* str);

// Lists the candidates for dropping in liwk (c < n bound of c, else general constraint c - n) with
// their multipliers in lagm, most negative first. ilm2 nonzero: second form, if it can be had.
// Returns their number.
long sortlm(MINSTR* str, int ilm2, double tres);

}  // namespace tqnlp::bas
