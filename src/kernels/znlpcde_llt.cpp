// znlpcde, jobs 2 and 4: the LL' factorizations of packed matrices, by panels of columns.
//
// lltdec factors the triangle of a panel in a small transposed buffer and lets eliminate_panel do
// the rest. The pivots are formed without the roots, which stand beside the chain from pivot to
// pivot: row t loses w u with w = u/d. lltde2 chooses its pivots one by one; within a panel it only
// brings the column of the pivot and the diagonal up to date, and the panel as a whole goes into
// the rest of the matrix at its end (the lazy form of LAPACK Working Note 161).
//
//   order         job 2                            job 4
//   up to 12      factor_small, row by row         factor_square
//   up to 32      panels of 32, lltdec             factor_square: both triangles in a buffer
//   up to 1024    panels                           factor_by_columns: the panel's columns apart
//   above         panels                           factor_by_rows: in place
//
// The forms of job 4 choose alike: the largest reduced diagonal element, the first of equals. The
// reduced diagonal is kept up to date at every step, whatever else waits, since the choice needs
// it. Which form serves an order is fixed, so that the same matrix always gives the same bits.
#include <bit>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <utility>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/factor.h"
#include "kernels/lanes.h"
#include "kernels/panel.h"
#include "kernels/vector.h"

namespace tqnlp {

// Orders up to this one are factored row by row: there is nothing to run side by side.
static constexpr long SMALL_ORDER = 12;

// Sum of the logarithms of positive normal numbers: mantissas are multiplied, exponents added, and
// one logarithm is taken at the end. The product of mantissas, each below 2, is brought back before
// it can overflow.
struct LogProduct {
  double mantissa = 1.0;
  long exponent = 0;

  void multiply(double x) {
    constexpr std::uint64_t FRACTION = (std::uint64_t{1} << 52) - 1;
    constexpr std::uint64_t BIAS = 1023;
    const auto bits = std::bit_cast<std::uint64_t>(x);
    exponent += static_cast<long>(bits >> 52) - static_cast<long>(BIAS);
    mantissa *= std::bit_cast<double>((bits & FRACTION) | BIAS << 52);
    if (mantissa > 0x1p512) {
      mantissa *= 0x1p-512;
      exponent += 512;
    }
  }
  double logarithm() const {
    return std::log(mantissa) + static_cast<double>(exponent) * std::numbers::ln2;
  }
};

// ---- Job 2 -------------------------------------------------------------------------------------

// Row j of the factor from the rows before it. Rows are too short for lanes, and the inner
// loop too short to be unrolled.
static long factor_small(long n, double sing, LogProduct& determinant, double* c) {
  double reciprocal[SMALL_ORDER];
  double* row = c;
  for (long j = 0; j < n; row += ++j) {
    double subtracted = 0.0;
    const double* earlier = c;
    for (long k = 0; k < j; earlier += ++k) {
      double rest = row[k];
#pragma GCC unroll 1
      for (long i = 0; i < k; ++i) rest -= row[i] * earlier[i];
      row[k] = rest * reciprocal[k];
      subtracted += row[k] * row[k];
    }
    const double pivot = row[j] - subtracted;
    if (!(pivot > pivot_limit(sing, row[j], subtracted))) {
      row[j] = failed_pivot(pivot, sing);
      return j + 1;
    }
    determinant.multiply(pivot);
    row[j] = std::sqrt(pivot);
    reciprocal[j] = 1.0 / row[j];
  }
  return 0;
}

// The triangle of a panel while it is factored: column s of u holds the reduced column, without a
// root, until store_triangle scales it. What was subtracted from a diagonal element, also by the
// columns before the panel, is summed apart from the element itself, because the test of a pivot
// compares the two.
struct PanelWork {
  PanelTriangle triangle;
  alignas(64) double subtracted[PANEL];  // from each diagonal element so far
  double diagonal[PANEL];                // of the matrix; its root once the triangle is stored
  double pivot[PANEL];                   // diagonal less subtracted, of the steps done
};

// Factors the order nb triangle, first without roots: with the reduced column u of step s and d its
// pivot, column q loses u u_q/d. The next step then waits for one division, and for no root.
// Returns the step that failed, or nb.
template <int W>
TQNLP_BODY long factor_triangle_body(long nb, double sing, PanelWork& work) {
  double* const u = work.triangle.u;
  const long padded = (nb + LANES - 1) / LANES * LANES;
  Lanes<W> column, to, factor, sum;
  for (long s = 0; s < nb; ++s) {
    const double subtracted = work.subtracted[s];
    const double pivot = work.pivot[s] = work.diagonal[s] - subtracted;
    if (!(pivot > pivot_limit(sing, work.diagonal[s], subtracted))) return s;
    const double reciprocal = 1.0 / pivot;
    const double* source = u + s * PANEL;
    // The whole groups of eight from the one that holds s+1 on; what stands before the diagonal is
    // never read again.
    for (long g = (s + 1) / LANES * LANES; g < padded; g += LANES) {
      column.load(source + g);
      sum.load(work.subtracted + g);
      factor.fill(reciprocal);
      to = column;
      to.multiply(factor);
      sum.add_product(to, column);
      sum.store(work.subtracted + g);
    }
    for (long q = s + 1; q < nb; ++q) {
      double* target = u + q * PANEL;
      factor.fill(source[q] * reciprocal);
      for (long g = (q + 1) / LANES * LANES; g < padded; g += LANES) {
        column.load(source + g);
        to.load(target + g);
        to.subtract_product(factor, column);
        to.store(target + g);
      }
    }
  }
  return nb;
}
TQNLP_DISPATCH(long, factor_triangle, (long nb, double sing, PanelWork& work), (nb, sing, work))

// Takes rows j0 .. j0+nb-1 of the matrix, whose elements from column j0 on were reduced by the
// panels before. Their diagonals were not: the squares of the finished part of each row are summed
// here.
static void load_triangle(long j0, long nb, const double* c, PanelWork& work) {
  const long padded = (nb + LANES - 1) / LANES * LANES;
  for (long s = 0; s < nb; ++s) {
    for (long t = 0; t < padded; ++t) work.triangle.u[s * PANEL + t] = 0.0;
  }
  for (long t = 0; t < padded; ++t) work.subtracted[t] = 0.0;
  for (long t = 0; t < nb; ++t) {
    const double* row = c + packed_size(j0 + t);
    for (long s = 0; s < t; ++s) work.triangle.u[s * PANEL + t] = row[j0 + s];
    work.diagonal[t] = row[j0 + t];
    if (j0 > 0) work.subtracted[t] = zvdot11(j0, row, row);
  }
}

// Scales the first done columns by their roots and writes rows 0..rows-1 of the triangle back.
// After a failure these are the rows before the pivot, and its own with what failed on the
// diagonal.
static void store_triangle(long j0, long done, long rows, double* c, PanelWork& work) {
  PanelTriangle& triangle = work.triangle;
  for (long s = 0; s < done; ++s) {
    const double root = std::sqrt(work.pivot[s]);
    triangle.reciprocal[s] = 1.0 / root;
    work.diagonal[s] = root;
    double* column = triangle.u + s * PANEL;
    for (long t = s + 1; t < rows; ++t) column[t] *= triangle.reciprocal[s];
  }
  for (long t = 0; t < rows; ++t) {
    double* row = c + packed_size(j0 + t) + j0;
    for (long s = 0; s < t; ++s) row[s] = triangle.u[s * PANEL + t];
    row[t] = work.diagonal[t];
  }
}

// Panels from the left: triangle, then the rows below it and what follows (eliminate_panel).
long lltdec(long n, double sing, double* logdet, double* c) {
  LogProduct determinant;
  if (n <= SMALL_ORDER) {
    const long failed = factor_small(n, sing, determinant, c);
    *logdet = failed != 0 ? LOG_TINY : determinant.logarithm();
    return failed;
  }
  PanelWork work;
  for (long j0 = 0; j0 < n; j0 += PANEL) {
    const long nb = n - j0 < PANEL ? n - j0 : PANEL;
    load_triangle(j0, nb, c, work);
    const long done = factor_triangle(nb, sing, work);
    if (done < nb) {
      work.diagonal[done] = failed_pivot(work.pivot[done], sing);
      store_triangle(j0, done, done + 1, c, work);
      *logdet = LOG_TINY;
      return j0 + done + 1;
    }
    store_triangle(j0, nb, nb, c, work);
    for (long s = 0; s < nb; ++s) determinant.multiply(work.pivot[s]);
    eliminate_panel(n, j0, nb, &work.triangle, c);
  }
  *logdet = determinant.logarithm();
  return 0;
}

// ---- Job 4 -------------------------------------------------------------------------------------

// Three stretches of the packed triangle, with j < p:
//
//   row j     | a a a a  dj                 a  columns before j: rows j and p
//   row j<k<p | . . . .  b  .               b  column j below its diagonal, row p up to its own
//   row p     | a a a a  .  b b b  dp       d  the diagonals; element (p,j) stays
//   row k>p   | . . . .  c  . . .  c        c  columns j and p
void swap_packed(long n, long j, long p, double* a) {
  if (j == p) return;
  double* row_j = a + packed_size(j);
  double* row_p = a + packed_size(p);
  for (long k = 0; k < j; ++k) std::swap(row_j[k], row_p[k]);
  std::swap(row_j[j], row_p[p]);
  double* row_k = row_j + j + 1;
  for (long k = j + 1; k < p; row_k += ++k) std::swap(row_k[j], row_p[k]);
  row_k = row_p + p + 1;
  for (long k = p + 1; k < n; row_k += ++k) std::swap(row_k[j], row_k[p]);
}

// Orders up to PANEL are factored in a square buffer that holds both triangles. Nothing is moved:
// an exchange is one in the list of rows, and the factor's column that belongs to pivot q is built
// in row q, without its root. By symmetry row q of the remaining matrix is its column q, so that
// all walks are contiguous.
struct SquareWork {
  alignas(64) double g[PANEL * PANEL];
  alignas(64) double diagonal[PANEL];  // reduced
  long order[PANEL];
};

// Removes pivot s of the order from the rows that follow it and from the diagonal, in their whole
// length: what belongs to earlier pivots is never read again.
template <int W>
TQNLP_BODY void square_step_body(long n, long s, double reciprocal, SquareWork& work) {
  const double* source = work.g + work.order[s] * PANEL;
  Lanes<W> column, to, factor;
  for (long g = 0; g < n; g += LANES) {
    column.load(source + g);
    factor.fill(reciprocal);
    factor.multiply(column);
    to.load(work.diagonal + g);
    to.subtract_product(factor, column);
    to.store(work.diagonal + g);
  }
  for (long i = s + 1; i < n; ++i) {
    const long q = work.order[i];
    double* target = work.g + q * PANEL;
    factor.fill(source[q] * reciprocal);
    for (long g = 0; g < n; g += LANES) {
      column.load(source + g);
      to.load(target + g);
      to.subtract_product(factor, column);
      to.store(target + g);
    }
  }
}
TQNLP_DISPATCH(void, square_step, (long n, long s, double reciprocal, SquareWork& work),
               (n, s, reciprocal, work))

static void load_square(long n, const double* c, SquareWork& work) {
  const long padded = (n + LANES - 1) / LANES * LANES;
  for (long i = 0; i < n; ++i) {
    work.order[i] = i;
    for (long k = n; k < padded; ++k) work.g[i * PANEL + k] = 0.0;
    for (long k = 0; k < i; ++k) {
      work.g[i * PANEL + k] = work.g[k * PANEL + i] = c[k];
    }
    work.g[i * PANEL + i] = work.diagonal[i] = c[i];
    c += i + 1;
  }
  for (long k = n; k < padded; ++k) work.diagonal[k] = 0.0;
}

static long factor_square(long n, double sing, LogProduct& determinant, long* piv, double* c) {
  SquareWork work;
  double roots[PANEL];
  double reciprocals[PANEL];
  load_square(n, c, work);
  long done = 0;
  for (; done < n; ++done) {
    long p = done;
    double largest = work.diagonal[work.order[done]];
    for (long i = done + 1; i < n; ++i) {
      const double value = work.diagonal[work.order[i]];
      p = value > largest ? i : p;
      largest = value > largest ? value : largest;
    }
    std::swap(work.order[done], work.order[p]);
    if (!(largest > sing)) break;
    determinant.multiply(largest);
    roots[done] = std::sqrt(largest);
    reciprocals[done] = 1.0 / roots[done];
    square_step(n, done, 1.0 / largest, work);
  }
  // Finished columns with their roots; what is left after a failure in its reduced form.
  double* row = c;
  for (long i = 0; i < n; row += ++i) {
    const long q = work.order[i];
    const long finished = i < done ? i : done;
    for (long s = 0; s < finished; ++s) {
      row[s] = work.g[work.order[s] * PANEL + q] * reciprocals[s];
    }
    for (long s = finished; s < i; ++s) row[s] = work.g[work.order[s] * PANEL + q];
    row[i] = i < done ? roots[i] : work.diagonal[q];
    if (piv != nullptr) piv[i] = q;
  }
  if (done == n) return 0;
  // The contract of a failed pivot, see failed_pivot.
  double& pivot = c[packed_size(done) + done];
  pivot = failed_pivot(pivot, sing);
  return done + 1;
}

// The finished elements of the panel's own rows, padded with zeros: row i of the matrix at
// l + (i - j0)*PANEL. The rows themselves end too early to be read by whole groups of eight; rows
// below the panel are long enough and are read where they stand.
struct PanelRows {
  alignas(64) double l[PANEL * PANEL];
};

// The elements of column j = j0 + k of R rows from row i on, reduced by the panel and divided by
// the root. pivot_row is row j of the panel, padded with zeros; left the rows' own panel elements,
// with anything behind the finished ones: those meet the zeros. (An infinity there makes the sum a
// NaN some steps before it would have done so in its own column.)
template <int W, int R>
TQNLP_BODY void pivot_rows(long i, long j0, long k, double reciprocal, const double* pivot_row,
                           const double* const* left, double* a, double* result) {
  Lanes<W> sums[R], element, factor;
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) sums[r].clear();
  for (long q = 0; q < k; q += LANES) {
    factor.load(pivot_row + q);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      element.load(left[r] + q);
      sums[r].add_product(element, factor);
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    double sum;
    sums[r].sum(sum);
    double& target = a[packed_size(i + r) + j0 + k];
    result[r] = target = (target - sum) * reciprocal;
    a[packed_size(i + r) + i + r] -= result[r] * result[r];
  }
}

// Rows of the panel itself work on their copies, later ones on the matrix.
template <int W, int R>
TQNLP_BODY void pivot_panel_rows(long i, long j0, long k, double reciprocal,
                                 const double* pivot_row, double* a, PanelRows& panel) {
  const double* left[R];
  double result[R];
  for (int r = 0; r < R; ++r) left[r] = panel.l + (i + r - j0) * PANEL;
  pivot_rows<W, R>(i, j0, k, reciprocal, pivot_row, left, a, result);
  for (int r = 0; r < R; ++r) panel.l[(i + r - j0) * PANEL + k] = result[r];
}

template <int W, int R>
TQNLP_BODY void pivot_later_rows(long i, long j0, long k, double reciprocal,
                                 const double* pivot_row, double* a) {
  const double* left[R];
  double result[R];
  for (int r = 0; r < R; ++r) left[r] = a + packed_size(i + r) + j0;
  pivot_rows<W, R>(i, j0, k, reciprocal, pivot_row, left, a, result);
}

// Column j: what the panel from j0 on has to subtract from it, division by the root, and the
// diagonal of the rows below.
template <int W>
TQNLP_BODY void pivot_column_body(long n, long j0, long j, double reciprocal, double* a,
                                  PanelRows& panel) {
  const long k = j - j0;
  const long end = n - j0 < PANEL ? n : j0 + PANEL;
  const double* pivot_row = panel.l + k * PANEL;
  long i = j + 1;
  for (; i + 4 <= end; i += 4) {
    pivot_panel_rows<W, 4>(i, j0, k, reciprocal, pivot_row, a, panel);
  }
  for (; i < end; ++i) pivot_panel_rows<W, 1>(i, j0, k, reciprocal, pivot_row, a, panel);
  for (; i + 4 <= n; i += 4) pivot_later_rows<W, 4>(i, j0, k, reciprocal, pivot_row, a);
  for (; i < n; ++i) pivot_later_rows<W, 1>(i, j0, k, reciprocal, pivot_row, a);
}
TQNLP_DISPATCH(void, pivot_column,
               (long n, long j0, long j, double reciprocal, double* a, PanelRows& panel),
               (n, j0, j, reciprocal, a, panel))

// The padded copies after the exchange of rows j and p in the matrix. Where p lies below the panel
// it has no copy: row j's is made from the matrix, and finished elements alone are read of it.
static void swap_panel_rows(long j0, long end, long j, long p, const double* a, PanelRows& panel) {
  double* copy_j = panel.l + (j - j0) * PANEL;
  if (p < end) {
    double* copy_p = panel.l + (p - j0) * PANEL;
    for (long q = 0; q < PANEL; ++q) std::swap(copy_j[q], copy_p[q]);
  } else {
    const double* row = a + packed_size(j) + j0;
    for (long q = 0; q < j - j0; ++q) copy_j[q] = row[q];
  }
}

// The finished columns of a panel, each contiguous over all rows: element (i, j0+q) of the factor
// at t[q*STRIDE + i]. Orders that fit are factored by these, without sums across lanes. The stride
// spreads the columns over the cache.
//
//   t   column j0     | . . x x x x x x |      row indices of the matrix from left to right; what
//       column j0+1   | . . . x x x x x |      stands before a column's first row is not used
//       column j0+2   | . . . . x x x x |
//
// In place, element (i,j) of the next column would be a dot product of two short rows, one sum for
// each i. Here the next column is a sum of whole columns times the elements of row j.
struct PanelColumns {
  static constexpr long ROWS = 1024;
  static constexpr long STRIDE = ROWS + 16;
  alignas(64) double t[PANEL * STRIDE];
  alignas(64) double diagonal[ROWS];  // reduced
};

// Column j = j0 + k of the rows from g on, N groups of eight, and their part of the diagonal.
template <int W, int N>
TQNLP_BODY void reduce_column(long g, long k, double reciprocal, const double* factors,
                              PanelColumns& panel) {
  Lanes<W> rest[N], factor, done;
  double* diagonal = panel.diagonal;
  double* to = panel.t + k * PanelColumns::STRIDE + g;
#pragma GCC unroll 4
  for (int s = 0; s < N; ++s) rest[s].load(to + s * LANES);
  const double* from = panel.t + g;
  for (long q = 0; q < k; ++q, from += PanelColumns::STRIDE) {
    factor.fill(factors[q]);
#pragma GCC unroll 4
    for (int s = 0; s < N; ++s) {
      done.load(from + s * LANES);
      rest[s].subtract_product(factor, done);
    }
  }
  factor.fill(reciprocal);
#pragma GCC unroll 4
  for (int s = 0; s < N; ++s) {
    rest[s].multiply(factor);
    rest[s].store(to + s * LANES);
    done.load(diagonal + g + s * LANES);
    done.subtract_product(rest[s], rest[s]);
    done.store(diagonal + g + s * LANES);
  }
}

// Column j as a whole, after its pivot: taken from the matrix, which lacks the panel, less the
// panel's finished columns times their elements in row j. Groups begin at whole multiples of eight:
// what stands before row j+1, and behind row n-1, is filled with zeros and never used.
template <int W>
TQNLP_BODY void panel_column_body(long n, long j0, long j, double reciprocal, const double* a,
                                  PanelColumns& panel) {
  const long k = j - j0;
  const long end = (n + LANES - 1) / LANES * LANES;
  double* to = panel.t + k * PanelColumns::STRIDE;
  double factors[PANEL];
  for (long q = 0; q < k; ++q) factors[q] = panel.t[q * PanelColumns::STRIDE + j];
  long g = (j + 1) / LANES * LANES;
  for (long i = g; i <= j; ++i) to[i] = 0.0;
  for (long i = n; i < end; ++i) to[i] = 0.0;
  const double* element = a + packed_size(j + 1) + j;
  for (long i = j + 1; i < n; element += ++i) to[i] = *element;
  for (; g + 4 * LANES <= end; g += 4 * LANES) {
    reduce_column<W, 4>(g, k, reciprocal, factors, panel);
  }
  for (; g < end; g += LANES) reduce_column<W, 1>(g, k, reciprocal, factors, panel);
}
TQNLP_DISPATCH(void, panel_column,
               (long n, long j0, long j, double reciprocal, const double* a, PanelColumns& panel),
               (n, j0, j, reciprocal, a, panel))

// Writes the first count columns of the panel back into the matrix.
static void store_columns(long n, long j0, long count, const PanelColumns& panel, double* a) {
  for (long i = j0 + 1; i < n; ++i) {
    double* row = a + packed_size(i) + j0;
    const long length = i - j0 < count ? i - j0 : count;
    for (long q = 0; q < length; ++q) row[q] = panel.t[q * PanelColumns::STRIDE + i];
  }
}

// Largest of x[0..n-1]; best begins as one of them, and stays when it is NaN.
template <int W>
TQNLP_BODY void raise_body(long n, const double* x, double& best) {
  long i = 0;
  if (n >= LANES) {
    Lanes<W> largest, next;
    largest.fill(best);
    for (; i + LANES <= n; i += LANES) {
      next.load(x + i);
#pragma GCC unroll 4
      for (int k = 0; k < Lanes<W>::PARTS; ++k) {
        largest.part[k] = largest.part[k] < next.part[k] ? next.part[k] : largest.part[k];
      }
    }
    double lane[LANES];
    largest.store(lane);
    for (const double value : lane) best = best < value ? value : best;
  }
  for (; i < n; ++i) best = best < x[i] ? x[i] : best;
}
TQNLP_DISPATCH(void, raise, (long n, const double* x, double& best), (n, x, best))

// The place of the largest diagonal element from j on, the first of equals; j itself when that is
// NaN.
static long largest_in_buffer(long n, long j, const double* diagonal) {
  double best = diagonal[j];
  raise(n - j, diagonal + j, best);
  long p = j;
  while (p < n && diagonal[p] != best) ++p;
  return p < n ? p : j;
}

// The same choice from the diagonal in the packed matrix; a NaN at j is kept too, as no comparison
// with it is true.
static long largest_in_place(long n, long j, const double* c) {
  long p = j;
  double best = c[packed_size(j) + j];
  for (long i = j + 1; i < n; ++i) {
    const double value = c[packed_size(i) + i];
    p = value > best ? i : p;
    best = value > best ? value : best;
  }
  return p;
}

// Hands over what is left in its reduced form when step j of a panel fails, as if every step had
// gone through it: the contract of job 4 promises callers the reduced matrix.
static long give_up(long n, long j0, long j, double sing, double pivot, double* c) {
  eliminate_panel(n, j0, j - j0, nullptr, c);
  c[packed_size(j) + j] = failed_pivot(pivot, sing);
  return j + 1;
}

// The exchange of j and p in all that factor_by_columns keeps: matrix, diagonal, finished columns.
static void bring_to_columns(long n, long j0, long j, long p, double* c, PanelColumns& panel) {
  swap_packed(n, j, p, c);
  std::swap(panel.diagonal[j], panel.diagonal[p]);
  for (long q = 0; q < j - j0; ++q) {
    double* column = panel.t + q * PanelColumns::STRIDE;
    std::swap(column[j], column[p]);
  }
}

// Orders up to PanelColumns::ROWS. In the matrix the panel's own columns are not the factor's until
// they are written back; exchanges of rows therefore go through both, and the diagonal of the rows
// behind the pivot is kept in the buffer until the end or a failure.
static long factor_by_columns(long n, double sing, LogProduct& determinant, long* piv, double* c) {
  PanelColumns panel;
  for (long i = 0; i < n; ++i) panel.diagonal[i] = c[packed_size(i) + i];
  for (long i = n; i % LANES != 0; ++i) panel.diagonal[i] = 0.0;
  for (long j0 = 0; j0 < n; j0 += PANEL) {
    const long end = n - j0 < PANEL ? n : j0 + PANEL;
    for (long j = j0; j < end; ++j) {
      const long p = largest_in_buffer(n, j, panel.diagonal);
      if (p != j) bring_to_columns(n, j0, j, p, c, panel);
      if (piv != nullptr) std::swap(piv[j], piv[p]);
      const double pivot = panel.diagonal[j];
      if (!(pivot > sing)) {
        store_columns(n, j0, j - j0, panel, c);
        for (long i = j; i < n; ++i) c[packed_size(i) + i] = panel.diagonal[i];
        return give_up(n, j0, j, sing, pivot, c);
      }
      determinant.multiply(pivot);
      const double root = c[packed_size(j) + j] = std::sqrt(pivot);
      panel_column(n, j0, j, 1.0 / root, c, panel);
    }
    store_columns(n, j0, end - j0, panel, c);
    eliminate_panel(n, j0, end - j0, nullptr, c);
  }
  return 0;
}

// Larger orders, for which the buffer has no room: in place by rows. The sums run along panel rows,
// at most 32 elements long.
static long factor_by_rows(long n, double sing, LogProduct& determinant, long* piv, double* c) {
  PanelRows panel;
  for (long j0 = 0; j0 < n; j0 += PANEL) {
    const long end = n - j0 < PANEL ? n : j0 + PANEL;
    for (double& value : panel.l) value = 0.0;
    for (long j = j0; j < end; ++j) {
      const long p = largest_in_place(n, j, c);
      swap_packed(n, j, p, c);
      if (p != j) swap_panel_rows(j0, end, j, p, c, panel);
      if (piv != nullptr) std::swap(piv[j], piv[p]);
      double& diagonal = c[packed_size(j) + j];
      const double pivot = diagonal;
      if (!(pivot > sing)) return give_up(n, j0, j, sing, pivot, c);
      determinant.multiply(pivot);
      diagonal = std::sqrt(pivot);
      pivot_column(n, j0, j, 1.0 / diagonal, c, panel);
    }
    eliminate_panel(n, j0, end - j0, nullptr, c);
  }
  return 0;
}

long lltde2(long n, double sing, double* logdet, long* piv, double* c) {
  if (piv != nullptr) {
    for (long i = 0; i < n; ++i) piv[i] = i;
  }
  LogProduct determinant;
  const auto factor = n <= PANEL                ? factor_square
                      : n <= PanelColumns::ROWS ? factor_by_columns
                                                : factor_by_rows;
  const long failed = factor(n, sing, determinant, piv, c);
  *logdet = failed != 0 ? LOG_TINY : determinant.logarithm();
  return failed;
}

}  // namespace tqnlp
