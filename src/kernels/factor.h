// What the sources of the dense factorizations share.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// The job that stands for job 0: with neither bounds nor lincon 3 for a diagonal Hessian, else 2;
// with either of them the pivoted forms 5 and 4. Other jobs stay.
int choose_factor_job(const MINSTR* str, int job);

// The order of job 7. The second pattern brings its own, and callers may count all parameters.
inline long second_order(const SPAR& pattern, long n) { return n > 0 ? pattern.jusl[0] - 1 : n; }

// Exchanges rows and columns j <= p of a packed symmetric matrix of order n. Elements left of
// column j are exchanged too: they may hold the rows of a factor.
void swap_packed(long n, long j, long p, double* a);

// b := L^-1 b, L'^-1 b, L b or L'b in place with the jobs of zqrsol for packed L (8, 7, 18, 17);
// the diagonal of L counts as 1, whatever stands there.
void unit_triangular(int job, long n, const double* c, double* b);

// x := S b for packed S of order n, one pass over S; x must not overlap b.
void packed_product(long n, const double* sym, const double* b, double* x);

}  // namespace tqnlp
