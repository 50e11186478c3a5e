// znlpbas, part of the projected matrix: keeps a projected Hessian or its Cholesky factor in step
// with the working set.
//
// Method     A constraint that enters rotates neighbouring variables until only the last one feels
//            it, and removes that one. A rotation of two neighbouring rows of L makes one element
//            above the diagonal, which a rotation of two columns takes away again. A row that is
//            taken out of L makes such an element in every later row. A constraint that leaves
//            appends one row: L r = Z'Hz, diagonal sqrt(z'Hz - r'r).
// Reference  Gill, Golub, Murray and Saunders (1974), Mathematics of Computation 28; Gill and
//            Murray (1974), Numerical Methods for Constrained Optimization, chapters 2 and 5.
// Layout     packed lower triangle; job 0 symmetric, 1 factor, 2 factor whose row p belongs to
//            variable ipiv[p]. A pivoted factor may cover only its first nhlf places: ipiv always
//            lists all variables.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpbas_internal.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp::bas {

static constexpr int SYMMETRIC = 0;
static constexpr int PIVOTED = 2;
static constexpr int SOLVE_LOWER = 8;  // zqrsol: L x = b
static constexpr int REMOVE_ROW = 1;   // znlpsym

// Takes the element above the diagonal in row r away: columns r and r+1 of the rows from below on.
static void clear_above_diagonal(double* factor, long order, long r, double* above) {
  double c = 1.0;
  double s = 0.0;
  zgivcon(&factor[packed_size(r) + r], above, &c, &s);
  if (s == 0.0) return;
  double* pair = factor + packed_size(r + 1) + r;
  for (long i = r + 1; i < order; ++i) {
    const double left = pair[0];
    const double right = pair[1];
    pair[0] = c * left + s * right;
    pair[1] = c * right - s * left;
    pair += i + 1;
  }
}

// Rotates rows k and k+1 of a factor and restores the triangle.
static void rotate_factor(double* factor, long order, long k, double c, double s) {
  double* upper = factor + packed_size(k);
  double* lower = factor + packed_size(k + 1);
  for (long j = 0; j <= k; ++j) {
    const double left = upper[j];
    upper[j] = c * left - s * lower[j];
    lower[j] = c * lower[j] + s * left;
  }
  double above = -s * lower[k + 1];
  lower[k + 1] *= c;
  clear_above_diagonal(factor, order, k, &above);
}

// Rotates rows and columns k and k+1 of a packed symmetric matrix.
static void rotate_symmetric(double* matrix, long order, long k, double c, double s) {
  double* upper = matrix + packed_size(k);
  double* lower = matrix + packed_size(k + 1);
  for (long j = 0; j < k; ++j) {
    const double left = upper[j];
    upper[j] = c * left - s * lower[j];
    lower[j] = c * lower[j] + s * left;
  }
  const double a = upper[k];
  const double b = lower[k];
  const double d = lower[k + 1];
  upper[k] = c * (c * a - s * b) - s * (c * b - s * d);
  lower[k] = c * (c * b + s * a) - s * (c * d + s * b);
  lower[k + 1] = c * (c * d + s * b) + s * (c * b + s * a);
  double* pair = matrix + packed_size(k + 2) + k;
  for (long i = k + 2; i < order; ++i) {
    const double left = pair[0];
    pair[0] = c * left - s * pair[1];
    pair[1] = c * pair[1] + s * left;
    pair += i + 1;
  }
}

// Rotates the variables of the places k and k+1 in a matrix of the given order.
static void rotate_places(int job, double* ches, long order, long k, double c, double s) {
  if (s == 0.0) return;
  if (job == SYMMETRIC) {
    rotate_symmetric(ches, order, k, c, s);
  } else {
    rotate_factor(ches, order, k, c, s);
  }
}

// Takes place p out of a factor and restores the triangle.
static void remove_factor_row(double* factor, long order, long p) {
  for (long i = p; i + 1 < order; ++i) {
    // The row that moves up to i still stands at i+1: its own diagonal is the element to clear.
    double* row = factor + packed_size(i + 1);
    double c = 1.0;
    double s = 0.0;
    zgivcon(&row[i], &row[i + 1], &c, &s);
    double* pair = factor + packed_size(i + 2) + i;
    for (long k = i + 2; k < order; ++k) {
      const double left = pair[0];
      const double right = pair[1];
      pair[0] = c * left + s * right;
      pair[1] = c * right - s * left;
      pair += k + 1;
    }
  }
  for (long i = p; i + 1 < order; ++i) {
    const double* from = factor + packed_size(i + 1);
    std::copy(from, from + i + 1, factor + packed_size(i));
  }
}

// The variable at place p of the pivot list of count variables is gone: later variables move down.
static void remove_pivot(long* ipiv, long count, long p) {
  const long gone = ipiv[p];
  std::copy(ipiv + p + 1, ipiv + count, ipiv + p);
  for (long i = 0; i + 1 < count; ++i) {
    if (ipiv[i] > gone) --ipiv[i];
  }
}

// Order of ches before a change; dimension is that of the frame.
static long matrix_order(const long* nhlf, long dimension) {
  return nhlf != nullptr ? *nhlf : dimension;
}

static void store_order(long* nhlf, long order) {
  if (nhlf != nullptr) *nhlf = order;
}

void remove_variable(MINSTR* str, int job, long order, long k, long* nhlf, double* ches) {
  if (ches == nullptr) return;
  const long rows = matrix_order(nhlf, order);
  long place = k;
  if (job == PIVOTED) {
    place = std::find(str->ipiv, str->ipiv + order, k) - str->ipiv;
    if (place == order) inconsistent();
    remove_pivot(str->ipiv, order, place);
  }
  if (place >= rows) return;
  if (job == SYMMETRIC) {
    znlpsym(REMOVE_ROW, rows, place, nullptr, nullptr, ches);
  } else {
    remove_factor_row(ches, rows, place);
  }
  store_order(nhlf, rows - 1);
}

void remove_swept(MINSTR* str, int job, long nz, long* nhlf, double* ches) {
  if (ches == nullptr) return;
  const long rows = matrix_order(nhlf, nz);
  const double* c = str->dcds;
  const double* s = str->dcds + str->nvar;
  // Rotations past the last place covered mix it with variables that the factor does not know: the
  // last covered place is lost in every case.
  for (long k = 0; k + 1 < rows; ++k) rotate_places(job, ches, rows, k, c[k], s[k]);
  if (job == PIVOTED) remove_pivot(str->ipiv, nz, nz - 1);
  store_order(nhlf, std::max(rows - 1, 0L));
}

// Row number rows of the factor: L r = column of the projected Hessian. Returns 0, or 2 when what
// is left for the diagonal is not positive; the diagonal is then 1.
static int append_factor_row(double* ches, long rows, const double* column, double square) {
  double* row = ches + packed_size(rows);
  if (rows > 0) {
    zqrsol(SOLVE_LOWER, rows, 1, 1, rows, rows, nullptr, ches, column, row, nullptr, nullptr);
  }
  // The off-diagonal elements stay when the diagonal cannot be formed: L L' is positive definite
  // with any nonzero diagonal.
  const double rest = square - zvdot11(rows, row, row);
  row[rows] = rest > TINY ? std::sqrt(rest) : 1.0;
  return rest > TINY ? 0 : 2;
}

static void append_unit_row(double* ches, long rows) {
  vzfdl(0.0, ches + packed_size(rows), rows);
  ches[packed_size(rows) + rows] = 1.0;
}

// The new variable takes the first place after the rows that the factor covers.
static void insert_pivot(long* ipiv, long count, long place) {
  std::copy_backward(ipiv + place, ipiv + count, ipiv + count + 1);
  ipiv[place] = count;
}

int append_variable(MINSTR* str, int job, long nz, const double* cross, double square,
                    double* spare, long* nhlf, double* ches) {
  const long rows = matrix_order(nhlf, nz);
  int status = 0;
  if (job == SYMMETRIC || cross == nullptr) {
    append_unit_row(ches, rows);
    status = 1;
  } else if (job == PIVOTED) {
    for (long p = 0; p < rows; ++p) spare[p] = cross[str->ipiv[p]];
    status = append_factor_row(ches, rows, spare, square);
  } else {
    status = append_factor_row(ches, rows, cross, square);
  }
  if (job == PIVOTED) insert_pivot(str->ipiv, nz, rows);
  store_order(nhlf, rows + 1);
  return status;
}

// Element (i, j) of the Hessian in packed or sparse form.
static double hessian_element(const MINSTR* str, const double* hess, long i, long j) {
  if (str->hfrm != 1) return hess[zisub(i, j)];
  if (i == j) return hess[i];
  const long row = std::max(i, j);
  const long column = std::min(i, j);
  for (long p = str->shes.jasp[row]; p < str->shes.jasp[row + 1]; ++p) {
    if (str->shes.jasp[p] == column) return hess[p];
  }
  return 0.0;
}

int bcupd(MINSTR* str, int job, long ic, long* nhlf, double* ches, const double* hess) {
  if (ches == nullptr) return 0;
  const long nfre = free_count(str);
  const long rows = matrix_order(nhlf, nfre);
  int status = 0;
  if (job == SYMMETRIC || hess == nullptr) {
    append_unit_row(ches, rows);
  } else if (str->hfrm == 2) {
    append_unit_row(ches, rows);
    if (hess[ic] > 0.0) {
      ches[packed_size(rows) + rows] = std::sqrt(hess[ic]);
    } else {
      status = 1;
    }
  } else {
    for (long p = 0; p < rows; ++p) {
      const long variable = job == PIVOTED ? str->ipiv[p] : p;
      str->work[p] = hessian_element(str, hess, str->ifxr[variable], ic);
    }
    status = append_factor_row(ches, rows, str->work, hessian_element(str, hess, ic, ic));
  }
  if (job == PIVOTED) insert_pivot(str->ipiv, nfre, rows);
  store_order(nhlf, rows + 1);
  return status;
}

// Changes the sign of the variable at place p.
static void flip_place(int job, double* ches, long order, long p) {
  double* row = ches + packed_size(p);
  if (job != SYMMETRIC) {
    for (long j = 0; j <= p; ++j) row[j] = -row[j];
    return;
  }
  for (long j = 0; j < p; ++j) row[j] = -row[j];
  for (long i = p + 1; i < order; ++i) ches[packed_size(i) + p] *= -1.0;
}

void turn_to_permutation(MINSTR* str, int job, long nfre, long* nhlf, double* ches) {
  if (ches == nullptr) return;
  // A factor that does not cover all variables has none left once they are mixed.
  if (matrix_order(nhlf, nfre) != nfre) {
    *nhlf = 0;
    return;
  }
  const bool pivoted = job == PIVOTED;
  auto column = [&](long place) { return pivoted ? str->ipiv[place] : place; };
  // Row after row of Q, the last first, is gathered in its diagonal place. As Q is orthogonal it
  // ends as a diagonal of signs. This costs O(n^3), and is met only where a technique without the
  // full frame keeps a matrix.
  for (long last = nfre - 1; last >= 0; --last) {
    double* row = str->qlcn + last * str->nvar;
    for (long k = 0; k < last; ++k) {
      double c = 1.0;
      double s = 0.0;
      zgivcon(&row[column(k + 1)], &row[column(k)], &c, &s);
      zgivapl(last, str->nvar, str->nvar, c, s, str->qlcn + column(k + 1), str->qlcn + column(k));
      rotate_places(job, ches, nfre, k, c, s);
    }
    // The basis vector points the other way.
    if (row[column(last)] < 0.0) flip_place(job, ches, nfre, last);
  }
  // The variable at place p has become the free parameter at place p.
  if (pivoted) {
    for (long p = 0; p < nfre; ++p) str->ipiv[p] = p;
  }
}

}  // namespace tqnlp::bas
