// Dense symmetric indefinite factorization of Bunch and Kaufman, packed, and its companions.
#pragma once

namespace tqnlp {

// Factors a (packed, order n) in place with pivot array h (n longs); det receives the determinant
// as mantissa and exponent of ten (2 doubles, may be null). Returns the nullity.
long zududec(long n, double sing, double* dtin, double* a, long* h);
long zudude2(long n, const double* vsin, double* dtin, double* a, long* h);
// Solve for p right sides, column k at b + k*incb, in place. Return the number of zero pivots met.
long zudusol(long n, long p, long incb, const double* a, double* b, const long* h);
long zuduso2(long n, long p, long incb, double sing, const double* a, double* b, const long* h);
// (Generalized) inverse in place; w has n doubles.
void zuduinv(long n, double* a, const long* h, double* w);
void ztriprm(int job, long n, long nz, long incz, long k1, long k2, double* r, double* z,
             double* dcds);

}  // namespace tqnlp
