// Elimination by panels of columns in a packed matrix, for the factorizations of packed form.
//
//   columns  0 .. j0 | j0 .. j0+nb | first .. n-1        first = j0 + nb
//            done    | the panel   | what follows it
//
//   rows     j0 ..   |  \          |
//   rows  first ..   |  left       |  \   a(i,k) -= sum over the panel of left(i,.) left(k,.)
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Columns of a panel: its transposed rows, chunk by chunk, stay in the first-level cache.
inline constexpr long PANEL = 32;

// The triangle of a panel, transposed: element (t,s) of the factor at u[s*PANEL + t], t > s, and
// the reciprocals of its diagonal.
struct PanelTriangle {
  alignas(64) double u[PANEL * PANEL];
  double reciprocal[PANEL];
};

// Applies a finished panel of nb <= PANEL columns from j0 on to the rows and columns that follow
// it, the diagonal excepted. With a triangle the rows below the panel still hold the matrix and are
// first brought to the factor; without one they are the factor already.
void eliminate_panel(long n, long j0, long nb, const PanelTriangle* triangle, double* a);

// a(i,k) -= a(i,j) a(k,j) for j < k <= i < n: one column, the diagonal included.
void eliminate_column(long n, long j, double* a);

// The factorizations of jobs 2 and 4 of znlpcde, see there. lltdec works in place in c.
long lltdec(long n, double sing, double* logdet, double* c);
long lltde2(long n, double sing, double* logdet, long* piv, double* c);

// What a failed pivot leaves in the diagonal: clearly negative, for later reading by the caller.
// Written so that a NaN pivot also leaves a negative number.
inline double failed_pivot(double pivot, double sing) {
  return pivot < -2.0 * sing ? pivot : -2.0 * sing;
}

// The limit of a pivot in jobs 1 and 2: sing, or 1000 rounding units of the larger of the diagonal
// and what was subtracted from it.
inline double pivot_limit(double sing, double diagonal, double subtracted) {
  constexpr double PIVOT_ROUNDING = 1.110223024625157e-13;
  const double larger = diagonal > subtracted ? diagonal : subtracted;
  const double limit = PIVOT_ROUNDING * larger;
  return sing > limit ? sing : limit;
}

}  // namespace tqnlp
