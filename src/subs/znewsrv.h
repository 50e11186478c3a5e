// What the sources of the older Newton code share. The head of znewprj.cpp tells the method of the
// projection.
#pragma once

#include "subs/znewdrv.h"

namespace tqnlp {

// Smallest part of a row, relative to its length, that counts as independent of the active rows,
// and the slowest approach to a row, relative to row and step, that is more than rounding. One
// number for both: a row that blocks can then always enter.
inline constexpr double INDEPENDENT = 1.110223024625157e-14;

inline long free_dimension(const SIZE_S* s) { return s->nvar - s->nact; }

// Places in work that have no pointer of their own: the triangle T of the active rows, and one
// vector of n doubles for the step and for scratch each.
double* active_triangle(const SIZE_S* s, const NRPTRS* p);
double* step_vector(const SIZE_S* s, const NRPTRS* p);
double* column_vector(const SIZE_S* s, const NRPTRS* p);

// Start of the active set (source znewini): what holds with equality at xnew, and the equalities.
// Return 0, or START_INFEASIBLE.
int zbinit(SIZE_S* s, NRPTRS* p);
int zcinit(SIZE_S* s, NRPTRS* p);

// Q becomes the identity: no row is active.
void reset_projector(const SIZE_S* s, NRPTRS* p);

// Projection (source znewprj).
//   zhproj        half := Z'HZ, the Hessian in the subspace that the active constraints leave
//   reload_half   the same again for another ridge
//   zgproj        pgrad := Z'g, dx := -Z (Z'HZ)^-1 Z'g with the factor in half; col: scratch
//   estimate_pi   pi := multipliers that explain most of the gradient
void zhproj(SIZE_S* s, NRPTRS* p);
void reload_half(SIZE_S* s, NRPTRS* p);
void zgproj(SIZE_S* s, NRPTRS* p, double* dx, double* col);
void estimate_pi(SIZE_S* s, NRPTRS* p);

// The ridge (source znewrdg). zridgit adds it to the diagonal of half and returns the pivot limit,
// tol times the largest diagonal element. bigger raises it: 1 when it then exceeds rmax.
double zridgit(NRPTRS* p, SIZE_S* s, double ridgval);
int bigger(SIZE_S* s, NRPTRS* p, double* ridgptr);

// Moves xnew along dx (source znewstp). Returns the step length, and 0 when there is none to be
// taken: dx or the decrease that it promises is rounding, no trial is low enough, or a constraint
// that is all but reached has entered the active set.
double znewstp(void* qq, SIZE_S* s, NRPTRS* p, const double* dx, double* ridgptr, FEntry fentry,
               GHEntry ghentry);

}  // namespace tqnlp
