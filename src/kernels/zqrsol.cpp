// zqrsol: the one kernel for triangular systems and products (QR SOLve), and znlpqts, the two
// substitutions of the null-space code.
//
// A right side is gathered into a vector that is contiguous (through the pivot order where the
// system asks for it), worked on in place along contiguous rows of the matrix, and scattered where
// the result is wanted in the order of the columns before pivoting. With A P = Q R the four
// combined operations are: solve R P'x = b, solve P R'x = b, and their inverses, the products.
//
//   system   runs from    long part of a block of rows
//   R y      last row     sums over the columns behind it, before its small triangle
//   R'y      first row    its rows go into the elements behind it, after the small triangle
//   L y      first row    sums over the columns before it, before its small triangle
//   L'y      last row     its rows go into the elements before it, after the small triangle
//
// Columns of R' and L' are rows of R and L: no walk crosses the rows. The order of a sum depends on
// n and the row alone.
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/lanes.h"
#include "kernels/vector.h"

namespace tqnlp {

// What a job number says.
struct TriangularJob {
  bool solve;         // else product
  bool packed;        // packed L, else dense R
  bool transposed;    // R' or L in the table of jobs: the even ones
  bool right_by_row;  // element i of right side k at b[i*incb + k], else at b[k*incb + i]
};

// The triangle of one call: row i starts so that element (i,j) is row[j].
struct Triangle {
  long n;
  long incu;
  const double* u;
  const double* alfa;  // the diagonal, or null: it stands in the matrix
  bool unit;           // the diagonal is 1, whatever stands in its place
};

static inline double diagonal(const Triangle& t, const double* row, long i) {
  return t.unit ? 1.0 : t.alfa != nullptr ? t.alfa[i] : row[i];
}

static TriangularJob decode(int job) {
  const int form = job > 10 ? job - 10 : job;
  if (form < 1 || form > 8 || job < 1) xexit(EXIT_INCONSISTENT, 0);
  return {job <= 8, form >= 5, form % 2 == 0, form % 4 == 1 || form % 4 == 2};
}

// ---- Solves, y in place ------------------------------------------------------------------------
//
// Rows are taken four at a time: their long parts run side by side, and the triangle of four by
// four that is left is solved by scalars. Elements are divided by multiplying with reciprocals that
// do not wait for the right side.
//
//   L y, rows i .. i+3   | long part: columns 0 .. i-1 | d
//                        |                             | x d
//                        |                             | x x d
//                        |                             | x x x d

static constexpr int BLOCK = 4;

// The reciprocal of a diagonal element; 0 for a zero diagonal, which gives zero in the result.
static inline double reciprocal(double element, long& zeros) {
  if (std::fabs(element) < TINY) {
    ++zeros;
    return 0.0;
  }
  return 1.0 / element;
}

// The rows of a block, shifted so that element (i,j) is rows[i - first][j], and their diagonal.
template <int R>
struct RowBlock {
  const double* rows[R];
  double reciprocals[R];
};

template <int R>
TQNLP_BODY void open_block(const TriangularJob& form, const Triangle& t, long first,
                           RowBlock<R>& block, long& zeros) {
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    const long i = first + r;
    block.rows[r] = t.u + (form.packed ? packed_size(i) : i * t.incu);
    block.reciprocals[r] = reciprocal(diagonal(t, block.rows[r], i), zeros);
  }
}

// sums[r] := rows[r] times y over the columns from..to-1. Four rows share each load of y and keep
// one group of partial sums each, which do not wait for one another; a single row needs the four
// groups of dot_lanes for that.
template <int W, int R>
TQNLP_BODY void block_products(const RowBlock<R>& block, long from, long to, const double* y,
                               double* sums) {
  if (R == 1 || to - from < LANES) {
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      sums[r] = dot_lanes<W>(to - from, block.rows[r] + from, y + from);
    }
    return;
  }
  Lanes<W> totals[R], a, b;
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) totals[r].clear();
  long k = from;
  for (; k + LANES <= to; k += LANES) {
    b.load(y + k);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      a.load(block.rows[r] + k);
      totals[r].add_product(a, b);
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    totals[r].sum(sums[r]);
    sums[r] += dot_tail(to - k, block.rows[r] + k, y + k);
  }
}

// y -= sum of factors[r] rows[r] over the columns from..to-1.
template <int W, int R>
TQNLP_BODY void subtract_block(const RowBlock<R>& block, long from, long to, const double* factors,
                               double* y) {
  Lanes<W> lanes[R], a, total;
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) lanes[r].fill(factors[r]);
  long k = from;
  for (; k + LANES <= to; k += LANES) {
    total.load(y + k);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      a.load(block.rows[r] + k);
      total.subtract_product(lanes[r], a);
    }
    total.store(y + k);
  }
#pragma GCC unroll 1
  for (; k < to; ++k) {
    double rest = y[k];
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) rest -= factors[r] * block.rows[r][k];
    y[k] = rest;
  }
}

// Rows first..first+R-1 of a solve. Systems that run from the first row are L y and R'y; those with
// the triangle by rows, L y and R y, take their long part before the small triangle, the others
// after it. The newest element comes last in each sum: only its product waits for it.
template <int W, int R>
TQNLP_BODY long solve_block(const TriangularJob& form, const Triangle& t, long first, double* y) {
  long zeros = 0;
  RowBlock<R> block;
  open_block<R>(form, t, first, block, zeros);
  const bool by_rows = form.packed == form.transposed;
  const long from = form.packed ? 0 : first + R;
  const long to = form.packed ? first : t.n;
  double sums[R];
  double solved[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) sums[r] = 0.0;
  if (by_rows) block_products<W, R>(block, from, to, y, sums);
  if (form.transposed) {
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      double rest = y[first + r] - sums[r];
#pragma GCC unroll 4
      for (int q = 0; q < r; ++q) {
        rest -= (by_rows ? block.rows[r][first + q] : block.rows[q][first + r]) * solved[q];
      }
      solved[r] = rest * block.reciprocals[r];
    }
  } else {
#pragma GCC unroll 4
    for (int r = R - 1; r >= 0; --r) {
      double rest = y[first + r] - sums[r];
#pragma GCC unroll 4
      for (int q = R - 1; q > r; --q) {
        rest -= (by_rows ? block.rows[r][first + q] : block.rows[q][first + r]) * solved[q];
      }
      solved[r] = rest * block.reciprocals[r];
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) y[first + r] = solved[r];
  if (!by_rows) subtract_block<W, R>(block, from, to, solved, y);
  return zeros;
}

// All rows, by blocks in the direction of the system; what does not fill a block comes last.
template <int W>
TQNLP_BODY long solve_rows(const TriangularJob& form, const Triangle& t, double* y) {
  long zeros = 0;
  if (form.transposed) {
    long i = 0;
    for (; i + BLOCK <= t.n; i += BLOCK) zeros += solve_block<W, BLOCK>(form, t, i, y);
    for (; i < t.n; ++i) zeros += solve_block<W, 1>(form, t, i, y);
  } else {
    long i = t.n;
    for (; i >= BLOCK; i -= BLOCK) zeros += solve_block<W, BLOCK>(form, t, i - BLOCK, y);
    for (; i >= 1; --i) zeros += solve_block<W, 1>(form, t, i - 1, y);
  }
  return zeros;
}

template <int W>
TQNLP_BODY long solve_body(TriangularJob form, const Triangle& t, double* y) {
  // A constant form for each of the four systems.
  if (form.packed) {
    return form.transposed ? solve_rows<W>({true, true, true, false}, t, y)
                           : solve_rows<W>({true, true, false, false}, t, y);
  }
  return form.transposed ? solve_rows<W>({true, false, true, false}, t, y)
                         : solve_rows<W>({true, false, false, false}, t, y);
}
TQNLP_DISPATCH(long, solve, (TriangularJob form, const Triangle& t, double* y), (form, t, y))

// ---- Products, y in place ----------------------------------------------------------------------

// In place: each product is formed in the order in which no element that is still to be read has
// been overwritten, which is the reverse of the order of the solve.

// Rows first..first+R-1 of L y, of which the rows before are still the right side.
template <int W, int R>
TQNLP_BODY void multiply_lower(const Triangle& t, long first, double* y) {
  RowBlock<R> block;
  double sums[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) block.rows[r] = t.u + packed_size(first + r);
  block_products<W, R>(block, 0, first, y, sums);
#pragma GCC unroll 4
  for (int r = R - 1; r >= 0; --r) {
    double sum = diagonal(t, block.rows[r], first + r) * y[first + r] + sums[r];
#pragma GCC unroll 4
    for (int q = 0; q < r; ++q) sum += block.rows[r][first + q] * y[first + q];
    y[first + r] = sum;
  }
}

// What rows first..first+R-1 of L give to L'y.
template <int W, int R>
TQNLP_BODY void multiply_upper(const Triangle& t, long first, double* y) {
  RowBlock<R> block;
  double factors[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    block.rows[r] = t.u + packed_size(first + r);
    factors[r] = -y[first + r];
  }
  subtract_block<W, R>(block, 0, first, factors, y);
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
#pragma GCC unroll 4
    for (int q = 0; q < r; ++q) y[first + q] -= factors[r] * block.rows[r][first + q];
    y[first + r] *= diagonal(t, block.rows[r], first + r);
  }
}

template <int W>
TQNLP_BODY void multiply_body(TriangularJob form, const Triangle& t, double* y) {
  const long n = t.n;
  if (form.packed && form.transposed) {  // L y, from the last row
    long i = n;
    for (; i >= BLOCK; i -= BLOCK) multiply_lower<W, BLOCK>(t, i - BLOCK, y);
    for (; i >= 1; --i) multiply_lower<W, 1>(t, i - 1, y);
  } else if (form.packed) {  // L' y, from the first row
    long i = 0;
    for (; i + BLOCK <= n; i += BLOCK) multiply_upper<W, BLOCK>(t, i, y);
    for (; i < n; ++i) multiply_upper<W, 1>(t, i, y);
  } else if (form.transposed) {  // R' y, from the last row
    const double* row = t.u + n * t.incu;
    for (long i = n - 1; i >= 0; --i) {
      row -= t.incu;
      axpy_lanes<W>(n - i - 1, y + i + 1, y + i + 1, y[i], row + i + 1);
      y[i] *= diagonal(t, row, i);
    }
  } else {  // R y, from the first row
    const double* row = t.u;
    for (long i = 0; i < n; ++i, row += t.incu) {
      y[i] = diagonal(t, row, i) * y[i] + dot_lanes<W>(n - i - 1, row + i + 1, y + i + 1);
    }
  }
}
TQNLP_DISPATCH(void, multiply, (TriangularJob form, const Triangle& t, double* y), (form, t, y))

// ---- Entries -----------------------------------------------------------------------------------

long zqrsol(int job, long n, long p, long incu, long incb, long incx, const long* ipiv,
            const double* u, const double* b, double* x, const double* alfa, double* h) {
  const TriangularJob form = decode(job);
  if (n < 1 || p < 1) return 0;
  const Triangle triangle{n, incu, u, alfa, false};
  // A solve undoes its product: what one gathers through the pivot order the other scatters.
  const bool gather = ipiv != nullptr && form.solve == form.transposed;
  const bool scatter = ipiv != nullptr && form.solve != form.transposed;
  long zeros = 0;
  for (long k = 0; k < p; ++k) {
    double* result = x + k * incx;
    const double* right = form.right_by_row ? b + k : b + k * incb;
    const long step = form.right_by_row ? incb : 1;
    double* y = ipiv != nullptr && h != nullptr ? h : result;
    if (y != right || step != 1) {
      for (long i = 0; i < n; ++i) y[i] = right[(gather ? ipiv[i] : i) * step];
    }
    if (form.solve) {
      zeros += solve(form, triangle, y);
    } else {
      multiply(form, triangle, y);
    }
    if (scatter) {
      for (long i = 0; i < n; ++i) result[ipiv[i]] = y[i];
    } else if (y != result) {
      for (long i = 0; i < n; ++i) result[i] = y[i];
    }
  }
  return zeros / p;
}

void unit_triangular(int job, long n, const double* c, double* b) {
  const TriangularJob form = decode(job);
  const Triangle triangle{n, n, c, nullptr, true};
  if (form.solve) {
    solve(form, triangle, b);
  } else {
    multiply(form, triangle, b);
  }
}

// Job 1: forward substitution with packed L. Unlike zqrsol it divides, and a pivot that is too
// small ends it.
static int forward_substitution(long n, double sing, const double* c, const double* b, double* x) {
  const double* row = c;
  for (long i = 0; i < n; row += ++i) {
    if (!(std::fabs(row[i]) > sing)) return 1;
    x[i] = (b[i] - zvdot11(i, row, x)) / row[i];
  }
  return 0;
}

int znlpqts(int job, long n, double sing, const double* c, const double* b, double* x) {
  if (job == 1) return forward_substitution(n, sing, c, b, x);
  // The reversed system, deliberately so: each packed row of the null-space factor starts with its
  // pivot, the right side is read in ascending order while x fills from its end:
  //
  //   row 0 | p0
  //   row 1 | p1 r       p2 x2               = b0
  //   row 2 | p2 s t     p1 x1 + s x2        = b1
  //                      p0 x0 + r x1 + t x2 = b2
  for (long q = n - 1; q >= 0; --q) {
    const double* row = c + packed_size(q);
    if (!(std::fabs(row[0]) > sing)) return static_cast<int>(q + 1);
    double sum = b[n - 1 - q];
    // Element (j, j-q) of the later rows.
    const double* later = row + q + 1;
    for (long j = q + 1; j < n; later += ++j) sum -= later[j - q] * x[j];
    x[q] = sum / row[0];
  }
  return 0;
}

}  // namespace tqnlp
