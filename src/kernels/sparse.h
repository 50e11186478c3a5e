// Sparse symmetric factorizations. ja/a: row-indexed matrix (ja[i], ja[i+1] delimit row i, the same
// array holds the columns; diagonal in a[0..n-1]); ju/u: the factor in the same form, columns
// ascending, the diagonal stored as its reciprocal.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

int zslltnf(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u);
int zslltf2(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long* ju, const long* perm, const double* a, double* u);
void zslltso(long n, const long* perm, const long* ju, const double* u, double* b);
void zsllts2(long n, const long* perm, const long* jusl, const long* ju, const double* u,
             double* b);
void zslltli(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltui(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltml(int job, long n, const long* perm, const long* ju, const double* u, double* b);
void zslltmu(int job, long n, const long* perm, const long* ju, const double* u, double* b);
// x := A b.
void zslltma(long n, const long* ja, const double* a, const double* b, double* x);

}  // namespace tqnlp
