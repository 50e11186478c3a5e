// Storage form of the Hessian of a run (source znlpspm): decides between packed, sparse and
// diagonal before the run, and makes the pattern, its ordering and its symbolic factor, which then
// serve every factorization of the run.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// What str->hess refers to when znlpspm is called (ifrm). Indices of triples (row, column, value)
// count from 1, and either triangle may be given, or both.
inline constexpr int SPM_PACKED = 0;   // nnva values of a matrix that stays as it is
inline constexpr int SPM_TRIPLES = 1;  // ntri triples of a matrix that stays as it is
inline constexpr int SPM_PLACES = 2;   // ntri triples of a matrix that changes from call to call

// Row or column number of a triple as an index from 0; -1 outside 1..n.
inline long index_of(double number, long n) {
  const bool inside = number >= 1.0 && number < static_cast<double>(n) + 1.0;
  return inside ? static_cast<long>(number) - 1 : -1;
}

// znlpspm: SParse Matrix. Chooses hfrm for the matrix at str->hess, which it only reads.
//   jfac   nonzero: the values are factored as a test; a matrix that is not positive definite to
//          within sing stays packed (only with jmem)
//   jmem   0: pattern alone, str->hess stays; nonzero: str->hess becomes a block of the host with
//          the values in the form chosen (the input is its owner's still)
//   ifrm   above. Of a matrix that stays, elements that are missing or nearly zero do not count. Of
//          one that changes, every row names a place whatever its value is now, since it may have
//          another one later; a row that is missing and names no place is skipped.
//   reads  nvar, bounds, ratio, sing, ddif
//
// hfrm becomes 2 when no element off the diagonal counts; 1 when matrix and factor, values and
// indices together, need at most ratio times the packed size (a hundred times that when ratio is
// above 1); else 0. With 1, shes is filled: jasp, jusp, perm, iprm and, with bounds, room for the
// second pattern; mxju is then long enough for either.
//
// Returns 0; k > 0 for triple k with an index outside 1..n; -1 when memory is refused (logged); -2
// when two triples of a matrix that stays disagree about an element by more than ddif. Without
// success hfrm is 0 and shes empty.
int znlpspm(MINSTR* str, int jfac, int jmem, int ifrm, long ntri);

// getchol: get the Cholesky pattern. Orders the pattern jasp, iprm and shes.perm (n longs each)
// being its results, and makes shes.jusp with its length in shes.mxju.
//   hess   values in the form of jasp, for the test factorization that jfac asks for; or null
//   ratio  as above
// Returns 0; 1 when the factor needs too much room or the test failed; -1 when memory is refused.
int getchol(MINSTR* str, int jfac, long* iprm, const long* jasp, const double* hess, double ratio);

// Do two values that were given for one element agree: to within ddif of the larger, or to the
// rounding of 1? A missing one says nothing against the other.
bool values_agree(const MINSTR* str, double a, double b);

// Sorts idat[0..n-1] ascending and moves val along (null: nothing to move). In place, equal keys in
// any order.
void i2sort(long n, long* idat, double* val);

// Gives back the arrays of shes that znlpspm took.
void release_pattern(SPAR* shes);

}  // namespace tqnlp
