// znlpbas: BASis of the working set, its null-space factors and the rules by which constraints
// enter and leave it.
//
// With general constraints the active rows A on the free parameters are kept factored as
// A Q = (0 T): the first nz = n - nabc - nalc columns of Q span the null space. The layout is told
// at the head of znlpbas.cpp.
//
// Arguments that several routines share
//   nhlf   in/out, or null: order of ches; null stands for the dimension of the null space
//   gpro   in/out, or null: projected gradient Z'g of str->grad in the order of the frame; it
//          follows every change of the frame
//   ches   in/out, or null: packed matrix of order nhlf in the order of the frame, by its job:
//            0  symmetric matrix
//            1  lower factor L, Z'HZ = L L'
//            2  lower factor with pivots: row p of L belongs to variable str->ipiv[p]
//          The order of the frame is that of the null-space columns, or of ifxr while Q is not in
//          use. Factors agree with fresh ones up to the signs of the columns of L.
//   hess   in, or null: Hessian over all n parameters in the form str->hfrm
//
// All routines but znlpfch end the run with code 9999 in the range-space frame (opro 2), and all
// do so in states that cannot be (a parameter that is missing from ifxr).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Feasibility at x with tolerance ceps * 10^jeps. job 0 tests only; nonzero also fills iabc, nabc,
// iact, nalc, nanc and cmax with what is active or violated at x. iabc is never cleared here: a
// caller that wants a fresh start zeroes it. job2 nonzero includes the nonlinear constraints, from
// fcon. Returns 0 feasible, -1 not (also for values that are no numbers).
int znlpfch(MINSTR* str, int job, int job2, int jeps);

// Builds ifxr, Q and T afresh from iabc and iact (as znlpfch fills them). job nonzero: constraints
// may then leave by znlpdac. job1: multipliers in lagm, 0 none, 1 first form, 2 second form in lag2
// too; with job 0 idac is then -1 if a drop would be possible, else 0. job2: form of ches, which
// holds a matrix of order n on entry. Always sets gpro and gmax of the record. Returns 0.
int znlpfta(MINSTR* str, int job, int job1, int job2, double* gpro, double* ches, double* hess);

// Adds all bounds and linear constraints that hold with equality at x (tolerance ceps * 10^ipre)
// and are not in the working set; chac becomes their number. job: form of ches. Returns 0, or with
// job2 nonzero minus the number of constraints violated at x.
int znlpact(MINSTR* str, int job, int job2, long* nhlf, double* gpro, double* ches);

// Drops constraints whose multiplier in grad is too negative: one whose removal gives a feasible
// descent direction, else a block of them; with bounds alone the one with the largest gradient.
// Sets idac, turns chac into -1 - chac after a drop, overwrites lagm and liwk, leaves the
// projection of grad in str->gpro (not with bounds alone). job: form of ches; job2 nonzero: second
// form of the multipliers. Returns 0 nothing dropped, 1 one, 2 a block (with bounds alone idac), or
// a negative number when ches had to be given a row that is not computed from hess, or when the
// search did not settle.
int znlpdac(MINSTR* str, int job, int job2, long* nhlf, double* ches, double* hess);

// Adds one constraint. koc 0: general constraint ic (linear i as i, nonlinear k as ncon + k); koc
// 1, -1, 2: the bound of free parameter ic with that status. job nonzero: tests for dependence
// only. job2: form of ches. job3 nonzero: skips the test of dependence. Returns 0 added (with job:
// independent), 1 linearly dependent: the constraint is then deferred (tail of iact; nlbc).
int znlpupd(MINSTR* str, int job, int job2, int job3, int koc, long ic, long* nhlf, double* gpro,
            double* ches);

// Drops one active constraint, koc and ic as above (koc nonzero: the bound of parameter ic). The
// null space gains its last column, ches its last row. Returns 0; 1 when the row of ches is a unit
// row because job is 0 or hess is null, or when general constraint ic is not active (nothing is
// changed then); 2 when ches would not stay positive definite and got diagonal 1.
int znlpdod(MINSTR* str, int job, int koc, long ic, long* nhlf, double* gpro, double* ches,
            double* hess);

// Tries the deferred bounds and constraints again. Returns 1 if any entered, else 0.
int znlpcld(MINSTR* str, int job, long* nhlf, double* gpro, double* ches);

// Drops the nglm constraints that liwk lists, c < n the bound of parameter c, else general
// constraint c - n. Returns the last nonzero result of znlpdod, or 0.
int znlpcsr(MINSTR* str, int job, long nglm, long* nhlf, double* gpro, double* ches, double* hess);

}  // namespace tqnlp
