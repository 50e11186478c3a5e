// znlptri: symmetric TRIdiagonal forms. ztred3 reduces a packed symmetric matrix by Householder
// reflections (Martin, Reinsch and Wilkinson 1968, Numerische Mathematik 11), ztrapp3 applies the
// transformation to a vector, znlpcd3 and znlpcs3 are the Cholesky factorization of a tridiagonal
// matrix and its solve.
//
// ztred3 works from the last row upward: row i, left of the diagonal, is reflected onto its last
// element. The reflection is I - v v'/h^2; v stays in the row's place and h in the place of its
// diagonal, which is 0 where no reflection was needed. With P the product of the reflections,
// H(n-1) ... H(1), the tridiagonal matrix is T = P'A P, and ztrapp3 gives P'b (job 0) or P b (job
// 1).
#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/lanes.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Tridiagonal Cholesky ----------------------------------------------------------------------

// The limit of a pivot: sing times the largest element, that limited to 1.
static double tridiagonal_limit(long n, double sing, const double* d, const double* e) {
  const double scale = std::max(zvamx(n, d), zvamx(n - 1, e + 1));
  const double limit = (scale < 1.0 ? scale : 1.0) * sing;
  return limit >= TINY ? limit : DIAGONAL_PIVOT_FLOOR;
}

long znlpcd3(long n, double sing, const double* d, const double* e, double* dl, double* el) {
  if (n < 1) return 0;
  // The largest element is asked for only when a pivot does not exceed what the limit can be at
  // most, or while d and e are still there.
  const bool in_place = dl == d || el == e;
  double limit = in_place                      ? tridiagonal_limit(n, sing, d, e)
                 : sing > DIAGONAL_PIVOT_FLOOR ? sing
                                               : DIAGONAL_PIVOT_FLOOR;
  // The chain from pivot to pivot goes by the squares of the diagonal, so that the roots stand
  // beside it and not in it.
  double pivot = d[0];
  el[0] = 0.0;
  for (long j = 0;;) {
    if (!(pivot > limit)) {
      if (!in_place) limit = tridiagonal_limit(n, sing, d, e);
      if (!(pivot > limit)) return j + 1;
    }
    const double root = dl[j] = std::sqrt(pivot);
    if (++j == n) return 0;
    const double below = e[j];
    const double multiplier = below / pivot;
    pivot = d[j] - multiplier * below;
    el[j] = multiplier * root;
  }
}

int znlpcs3(long n, const double* dl, const double* el, const double* b, double* x) {
  // Products with reciprocals: no division waits for the element before.
  double before = 0.0;
  for (long j = 0; j < n; ++j) {
    if (std::fabs(dl[j]) < TINY) return 1;
    const double reciprocal = 1.0 / dl[j];
    before = x[j] = b[j] * reciprocal - (j == 0 ? 0.0 : el[j]) * reciprocal * before;
  }
  double multiplier = 0.0;
  double after = 0.0;
  for (long j = n - 1; j >= 0; --j) {
    const double reciprocal = 1.0 / dl[j];
    after = x[j] = x[j] * reciprocal - multiplier * reciprocal * after;
    multiplier = el[j];
  }
  return 0;
}

// ---- Reduction ---------------------------------------------------------------------------------

// Largest absolute value; a NaN is kept, so that it reaches the tridiagonal matrix.
static double largest_or_nan(long n, const double* x) {
  double largest = 0.0;
  for (long i = 0; i < n; ++i) {
    const double size = std::fabs(x[i]);
    if (!(size <= largest)) largest = size;
  }
  return largest;
}

// Turns v = row[0..i-1] into the reflection vector, scaled by its largest element. Returns h^2 and
// the sub-diagonal element, or 0 when the row needs no reflection.
static double make_reflection(long i, double* row, double* sub_diagonal) {
  if (largest_or_nan(i - 1, row) == 0.0) {
    *sub_diagonal = row[i - 1];
    return 0.0;
  }
  const double scale = largest_or_nan(i, row);
  for (long k = 0; k < i; ++k) row[k] /= scale;
  const double squares = zvdot11(i, row, row);
  const double last = row[i - 1];
  const double image = last >= 0.0 ? -std::sqrt(squares) : std::sqrt(squares);
  *sub_diagonal = scale * image;
  row[i - 1] = last - image;
  return squares - last * image;
}

// A finished reflection whose update A - v q' - q v' is still to be made; v is null for none.
struct Pending {
  const double* v = nullptr;
  const double* q = nullptr;
};

static constexpr long GROUP = 4;  // rows that share their long columns

// Rows of a group that are worked on together: as many as there are registers for.
template <int W>
constexpr int TOGETHER = W == 8 ? 4 : W / 2;

// Columns 0..length-1 (whole groups of eight) of R rows from row first on: makes the pending
// update, adds the rows times v to products[r] and the columns times v to p.
template <int W, int R, bool UPDATE, typename Element>
TQNLP_BODY void pass_columns(long first, long length, const Pending& pending, const double* v,
                             Element* a, double* p, double* products) {
  Lanes<W> sums[R], row_v[R], row_q[R], row_new[R], old_v, old_q, new_v, column, element;
  Element* rows[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    rows[r] = a + packed_size(first + r);
    sums[r].clear();
    row_new[r].fill(v[first + r]);
    if (UPDATE) row_v[r].fill(pending.v[first + r]);
    if (UPDATE) row_q[r].fill(pending.q[first + r]);
  }
  for (long k = 0; k < length; k += LANES) {
    if (UPDATE) old_v.load(pending.v + k);
    if (UPDATE) old_q.load(pending.q + k);
    new_v.load(v + k);
    column.load(p + k);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      element.load(rows[r] + k);
      if constexpr (UPDATE) {
        element.subtract_product(row_v[r], old_q);
        element.subtract_product(row_q[r], old_v);
        element.store(rows[r] + k);
      }
      sums[r].add_product(element, new_v);
      column.add_product(element, row_new[r]);
    }
    column.store(p + k);
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) sums[r].sum(products[r]);
}

// One pass over rows 0..order-1: makes the pending update and forms p := A v with the result.
template <int W, bool UPDATE, typename Element>
TQNLP_BODY void pass_rows(long order, const Pending& pending, const double* v, Element* a,
                          double* p) {
  constexpr int R = TOGETHER<W>;
  for (long k = 0; k < order; ++k) p[k] = 0.0;
  for (long first = 0; first < order; first += GROUP) {
    const long rows = order - first < GROUP ? order - first : GROUP;
    const long length = first / LANES * LANES;
    double products[GROUP] = {0.0, 0.0, 0.0, 0.0};
    if (length > 0) {
      long r = 0;
      for (; r + R <= rows; r += R) {
        pass_columns<W, R, UPDATE>(first + r, length, pending, v, a, p, products + r);
      }
      for (; r < rows; ++r) {
        pass_columns<W, 1, UPDATE>(first + r, length, pending, v, a, p, products + r);
      }
    }
    // The rest of each row, up to its diagonal.
    for (long i = first; i < first + rows; ++i) {
      Element* row = a + packed_size(i);
      double sum = products[i - first];
#pragma GCC unroll 1
      for (long k = length; k <= i; ++k) {
        double element = row[k];
        if constexpr (UPDATE) {
          element -= pending.v[i] * pending.q[k];
          element -= pending.q[i] * pending.v[k];
          row[k] = element;
        }
        sum += element * v[k];
        if (k < i) p[k] += element * v[i];
      }
      p[i] = sum;
    }
  }
}

template <int W>
TQNLP_BODY void pass_body(long order, const Pending& pending, const double* v, double* a,
                          double* p) {
  if (pending.v != nullptr) {
    pass_rows<W, true>(order, pending, v, a, p);
  } else {
    pass_rows<W, false>(order, pending, v, a, p);
  }
}
TQNLP_DISPATCH(void, pass,
               (long order, const Pending& pending, const double* v, double* a, double* p),
               (order, pending, v, a, p))

template <int W>
TQNLP_BODY void product_body(long n, const double* sym, const double* b, double* x) {
  pass_rows<W, false>(n, Pending{}, b, sym, x);
}
TQNLP_DISPATCH(void, product, (long n, const double* sym, const double* b, double* x),
               (n, sym, b, x))

void packed_product(long n, const double* sym, const double* b, double* x) {
  product(n, sym, b, x);
}

static void update_row(long i, const Pending& pending, double* row) {
  if (pending.v == nullptr) return;
  zvxay11(i + 1, row, -pending.v[i], pending.q);
  zvxay11(i + 1, row, -pending.q[i], pending.v);
}

// The update of a reflection is put off until the vector of the next one is known, so that the
// matrix is read and written once a step. Its vector q lies in the part of d or of e, in turn, that
// has no results yet.
void ztred3(long n, double* a, double* wrk) {
  if (n < 1) return;
  double* d = wrk;
  double* e = wrk + n;
  Pending pending;
  for (long i = n - 1; i >= 1; --i) {
    double* v = a + packed_size(i);
    update_row(i, pending, v);
    const double diagonal = v[i];
    double sub_diagonal = 0.0;
    const double h2 = make_reflection(i, v, &sub_diagonal);
    v[i] = std::sqrt(h2);
    if (h2 != 0.0) {
      double* q = pending.q == d ? e : d;
      pass(i, pending, v, a, q);
      for (long k = 0; k < i; ++k) q[k] /= h2;
      zvxay11(i, q, -zvdot11(i, v, q) / (2.0 * h2), v);
      pending = {v, q};
    } else {
      double* row = a;
      for (long k = 0; k < i; row += ++k) update_row(k, pending, row);
      pending = {};
    }
    d[i] = diagonal;
    e[i] = sub_diagonal;
  }
  update_row(0, pending, a);
  d[0] = a[0];
  e[0] = 0.0;
}

void ztrapp3(int job, long n, const double* a, double* b) {
  for (long k = 1; k < n; ++k) {
    const long i = job == 0 ? n - k : k;
    const double* v = a + packed_size(i);
    const double h = v[i];
    if (h != 0.0) zvxay11(i, b, -(zinner(i, v, b) / h / h), v);
  }
}

}  // namespace tqnlp
