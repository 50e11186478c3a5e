// What the sources of znlpfea share: residuals of the constraints, the equalities, and the
// least-distance solve. The range-space frame uses tsteqc too.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Tolerance of a bound, or of a linear constraint with right side b.
double residual_tolerance(double b, double eps);

// Number of constraints that kcon admits, parameters first (-1: all).
long admitted_constraints(const MINSTR* str, long kcon);

// Residual of the constraint with code c at x (codes of znlpba1.h), negative when it is violated.
// An absent bound has residual HUGE_VALUE. A linear row is left in awrk.
double constraint_residual(MINSTR* str, long c);

// Right side of the constraint with code c.
double constraint_side(const MINSTR* str, long c);

// The inward gradient of the constraint with code c, n doubles.
void constraint_normal(MINSTR* str, long c, double* normal);

// Splits a code into the arguments koc and ic of znlpupd and znlpdod.
void split_code(const MINSTR* str, long c, int* koc, long* ic);

// Is the constraint with code c in the working set? For a bound: has its parameter any status?
bool in_working_set(const MINSTR* str, long c);

// Clears the status of all bounds but those of fixed parameters, and counts these in nabc.
void keep_fixed_bounds(MINSTR* str);

// Builds the frame of the working set that iabc and the first nalc entries of iact describe, and
// moves x onto it by the minimum-norm step. job above 0: the rows are first taken through
// Gram-Schmidt. Uses awrk, work, lagm, gpro, sdir, dcds and the factors. Returns 0, or a positive
// number when the triangular system is singular (x then holds what was reached).
int doequc(MINSTR* str, int job);

// Moves x onto the working set whose factors are in place: parameters onto their bounds, then the
// rows by the minimum-norm step, repeated while rounding leaves something to gain. Returns as
// doequc.
int settle_on_working_set(MINSTR* str);

// Number of equalities that x violates: fixed parameters, active bounds, linear equalities. jeps
// widens the tolerance by further powers of ten.
long tsteqc(MINSTR* str, int jeps);

// Moves x to the nearest feasible point (through znlplcq with f(y) = y'y - 2x'y). grad is lost.
// Returns the status of znlplcq.
int dolcq(MINSTR* str);

// doequc, and where it leaves an equality violated, the least-distance solve from the point of
// entry. On success the working set holds fixed parameters and equalities (or the seed), with its
// frame. Returns 0, or -3 when equalities stay violated.
int reach_equalities(MINSTR* str, int job);

}  // namespace tqnlp
