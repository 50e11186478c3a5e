// Finite-difference derivatives (source znlpfid) and the Jacobian in its utility file.
//
// Every routine works at str->x, perturbs it in place, calls the user's function pointers and puts
// x, crit, func and indf back. Common results: 0 good; -1 the base point could not be evaluated;
// -2, -3, -4, -5 a retreat ran out (see the routine); -3 also overflow of a gradient sum; -9
// overflow of a crossproduct; -10, -11 the call that restores the user's state failed (function,
// gradient). Where a gradient or Jacobian routine answers 0 although a retreat ran out (from a base
// shifted away from a bound), grad is left missing.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Gradient into grad: forward (n evaluations), central (2n). With bounds the base point may stand
// shifted away from them; two further evaluations then. Count one in ngrd.
int znlpfig(MINSTR* str);
int znlpfg2(MINSTR* str);

// Gradient with one interval a component, chosen from the curvature estimates alfa (n, or null for
// ones), the relative error eta of the objective and the scales dscl (n, or null); grad holds the
// previous gradient. References: Gill, Murray, Saunders and Wright (1983); Stewart (1967).
int znlpfg3(MINSTR* str, double eta, const double* alfa, const double* dscl);

// Jacobian of func by columns to utjacm, and grad. Count one in nhes.
int znlpfij(MINSTR* str);
int znlpfj2(MINSTR* str);

// Jacobian to utjacm, crossproduct matrix J'J in hess, and grad. Count one in nhes.
int znlpfic(MINSTR* str);
int znlpfc2(MINSTR* str);

// Hessian in hess and gradient in grad from function values: forward 2n + n(n-1)/2 evaluations,
// central of fourth order 4n + 2n(n-1), each plus the gradient. Count one in nhes.
int znlpfih(MINSTR* str);
int znlpfh2(MINSTR* str);

// Hessian from gradients: forward n+1 pairs of function and gradient, central 2n+1 pairs. grad
// stays that of x. Count one in nhes. The central form, and the forward one from a moved base,
// answer 0 even when a retreat ran out, with hess partly done: from the column on that failed it is
// zero, and the log names the parameter.
int znlpfh3(MINSTR* str);
int znlpfh4(MINSTR* str);

// Jacobian of the nonlinear constraints into jcon: forward, central. Count one in njnc. Both answer
// 0 even when a retreat ran out, with jcon partly done in the same sense.
int znlpfcj(MINSTR* str);
int znlpfcc(MINSTR* str);

// Subtracts the curvature of the active nonlinear constraints from hess (packed); jcon and grad
// rest in utpmat of COVSTR at position lmax meanwhile. Returns 0 or -10.
int znlphlf(MINSTR* str, double* hess, long lmax);

// Writes column jc (job 0 sparse, 1 dense) or row jc (job 2) of the Jacobian to utjacm; inc is the
// stride of jcol. Job 0 replaces missing values of jcol by zero in place.
int znlpjwt(MINSTR* str, int job, long jc, long inc, double* jcol);
// res (m) := J vec (n).
int znlpjve(MINSTR* str, const double* vec, double* res);
// res (n) := J'vec, vec of m.
int znlpjtv(MINSTR* str, const double* vec, double* res);
// res[0..jc] := row jc of the crossproduct matrix, from the columns on file and column jcol.
int znlpjdt(MINSTR* str, long jc, const double* func, const double* jcol, double* res);
// jacm (m x n) := J.
int znlpjrd(MINSTR* str, double* jacm);

// Makes a Jacobian by rows, without missing values, the one that is read, in place of writing it.
// It belongs to the caller, who calls let_go_jacobian before it changes or goes away: where
// Jacobians of the run are read as a whole, it is written to utjacm then. Readers get the same
// numbers either way.
void hold_jacobian(MINSTR* str, double* jacobian);
void let_go_jacobian(MINSTR* str);

}  // namespace tqnlp
