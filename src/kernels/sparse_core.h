// What the sources of the sparse factorizations share; no part of the interface.
#pragma once

#include "kernels/variants.h"

namespace tqnlp {

TQNLP_BODY long row_length(const long* ju, long r) { return ju[r + 1] - ju[r]; }

// Has row r + 1 the pattern of row r without its first column, r + 1? Such rows form a run.
TQNLP_BODY bool run_goes_on(const long* ju, long r) {
  const long length = row_length(ju, r);
  return length > 0 && ju[ju[r]] == r + 1 && row_length(ju, r + 1) == length - 1;
}

// What a numeric factorization does with its pivots.
struct PivotRule {
  double sing;  // a pivot must exceed it
  long* negp;   // null: Cholesky; else signs are allowed and kept here
  bool lift;    // with negp: a pivot that is too small is moved away from 0 instead of failing
};

// Factors the rows in..n-1 of (ju, u), which hold the matrix. Returns the code of zslltnf, or with
// lift the number of pivots moved.
int sparse_factor(long in, long n, const PivotRule& rule, const long* ju, double* u);

// Clears the rows in..n-1 of (ju, u) and loads the values of (ja, a), a matrix of order size:
// variable v goes to place first[v], or, with second not null, to second[first[v]]; it is left out
// when first[v] is negative. first null stands for the identity.
void sparse_load(long in, long n, const long* ju, double* u, long size, const long* ja,
                 const double* a, const long* first, const long* second);

// The load of zslltf2: as its job says.
void sparse_load_second(int job, const long* jasl, const long* jusl, long in, long n,
                        const long* ja, const long* perm, const double* a, double* u);

// Leaves for zslltsf what zslumdg leaves with keep: graph (n + 1 + off-diagonals), node (n), cnt
// (n); next is work (n).
void sparse_graph(long n, const long* ja, const long* perm, long* cnt, long* graph, long* node,
                  long* next);

// The places of the positions of a second pattern of order n.
inline const long* second_places(long n, const long* jusl) { return jusl + jusl[n]; }

// b := P b, b[v] moves to b[perm[v]], and back. In place.
void sparse_permute(long n, const long* perm, double* b);
void sparse_unpermute(long n, const long* perm, double* b);

// b := L^-1 b and U^-1 b in the order of the places.
void sparse_forward(long n, const long* ju, const double* u, double* b);
void sparse_backward(long n, const long* ju, const double* u, double* b);

}  // namespace tqnlp
