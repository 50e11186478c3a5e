// zqrdec: QR DEComposition with column pivoting by Householder reflections (Businger and Golub
// 1965, Numerische Mathematik 7), A P = Q R, in place and by rows.
//
// Columns may be held at the front or at the end; the others compete by their remaining norms,
// which are carried from step to step. A column whose remaining norm is not above the limit is
// moved behind the free ones and counts as null where nothing else is left. Reflection l is I - v
// v'/v_l; v stands on and below the diagonal of column l, the diagonal of R in alfa.
//
//   column     0 .. l-1 |  l  | l+1 .. n-1
//   row  < l   R        |  R  | R                     final
//   row  l     v v v    |  v  | R                     final after step l
//   row  > l   v v v    |  v  | remaining matrix      lacks the pending reflections
//
// The matrix stands by rows, and all walks go along them: v'A is gathered over the rows into a
// vector of products, and v times these products goes back into the rows. That reads the remaining
// matrix twice a reflection. Where it is wide enough to outgrow the cache, reflections wait until
// MOST of them go into the rows in one pass; until then only what a step looks at is brought up to
// date: the column of the pivot and row l. The products with columns that lack pending reflections
// are put right by the overlaps v_l'v_t (Quintana-Orti, Sun and Bischof 1998, SIAM J. Sci.
// Comput. 19).
#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/record/constants.h"
#include "kernels/dense.h"
#include "kernels/lanes.h"
#include "kernels/vector.h"

namespace tqnlp {

// The matrix and where its columns may go.
struct PivotedQr {
  long m, n, p, incu, incb;
  long* ipiv;  // or null: no pivoting
  double* u;
  double* b;
  double* alfa;
  double* sum;
  long first_free;  // nl: columns before it stay in their order
  long end_free;    // nu: columns from it on stay at the end
};

// Reflections start..start+count-1, finished but not applied to the rows below the last of them.
// The matrix that a step has to see is
//
//   A(i,j) = u(i,j) + sum of v_t[i] s_t[j],   s_t = -v_t'A / v_t[t]   (A as step t found it)
//
// for rows i and columns j at or behind start + count. v_t[i] stands in column start + t of row i,
// so that the factors of a row lie side by side.
struct PendingReflections {
  static constexpr long MOST = 8;
  static constexpr long COLUMNS = 1024;         // the widest matrix that is treated lazily
  static constexpr long STRIDE = COLUMNS + 16;  // no power of two: vectors spread over the cache
  long start = 0;
  long count = 0;
  double s[MOST * STRIDE];  // s_t of column j at s[t*STRIDE + j]
  double products[STRIDE];  // of the column in hand with column j

  // What a walk over the rows has still to do before it looks at them.
  double scale = 0.0;  // nonzero: the factor of the column of the last reflection, below its row
  long exchanged = 0;  // column that changes places with the one in hand, or that column
};

// Narrower matrices are updated after every reflection: their rows are too short to repay the
// corrections.
static constexpr long LAZY_COLUMNS = 8;
static constexpr int ROWS_TOGETHER = 8;

// ---- Order of the columns -----------------------------------------------------------------------

static void swap_rows(const PivotedQr& f, long first, long last, long j, long k) {
  if (j == k) return;
  double* row = f.u + first * f.incu;
  for (long i = first; i < last; ++i, row += f.incu) std::swap(row[j], row[k]);
}

static void swap_places(const PivotedQr& f, long j, long k) {
  std::swap(f.alfa[j], f.alfa[k]);
  std::swap(f.sum[j], f.sum[k]);
  std::swap(f.ipiv[j], f.ipiv[k]);
}

// Exchanges whole columns, also the part of R above: ipiv stays the order of all that stands in u.
static void swap_columns(const PivotedQr& f, long j, long k) {
  swap_places(f, j, k);
  swap_rows(f, 0, f.m, j, k);
}

// Brings the column marked with each position from..to-1 (marks count from 1) to its place. Returns
// 0, or -1 minus the position for which there is none.
static long place_marked(const PivotedQr& f, long from, long to, long search_from) {
  for (long l = from; l < to; ++l) {
    long j = search_from;
    while (j < f.n && f.alfa[j] != static_cast<double>(l + 1)) ++j;
    if (j == f.n) return -1 - l;
    swap_columns(f, l, j);
    if (search_from == l) ++search_from;
  }
  return 0;
}

// Reads the marks, places the marked columns and makes ipiv the order of the columns. Once both
// ends are placed no marked column can stand elsewhere: there are as many marks as places. alfa
// carries the marks meanwhile, moved along by the exchanges; ipiv already holds column numbers.
static long place_columns(PivotedQr& f) {
  for (long j = 0; j < f.n; ++j) {
    const long mark = f.ipiv[j];
    if (mark > 0) ++f.first_free;
    if (mark < 0) --f.end_free;
    f.alfa[j] = static_cast<double>(mark < 0 ? -mark : mark);
    f.sum[j] = 0.0;
    f.ipiv[j] = j;
  }
  const long failed = place_marked(f, 0, f.first_free, 0);
  return failed != 0 ? failed : place_marked(f, f.end_free, f.n, f.first_free);
}

// Norm of column j from row from down, formed anew.
static double column_norm(const PivotedQr& f, long j, long from) {
  return zvenorm(f.m - from, f.incu, f.u + from * f.incu + j);
}

// The norms of all columns in one walk along the rows; those whose squares are not safe one by one.
// Without pivoting nobody asks for them before a step has passed the last row.
static void form_norms(const PivotedQr& f) {
  static constexpr double LEAST = 1e-280, MOST = 1e280;
  if (f.ipiv == nullptr && f.n <= f.m) return;
  vzfdl(0.0, f.alfa, f.n);
  for (long i = 0; i < f.m; ++i) {
    const double* row = f.u + i * f.incu;
    for (long j = 0; j < f.n; ++j) f.alfa[j] += row[j] * row[j];
  }
  for (long j = 0; j < f.n; ++j) {
    const bool safe = f.alfa[j] > LEAST && f.alfa[j] < MOST;
    f.alfa[j] = safe ? std::sqrt(f.alfa[j]) : column_norm(f, j, 0);
    if (f.ipiv != nullptr) f.sum[j] = f.alfa[j];
  }
}

// Brings the free column with the largest remaining norm, the last of equals, to place l: at once
// in the finished rows, where the others are walked over in them. The products of pending
// reflections with the two columns change places too.
static void choose_pivot(const PivotedQr& f, PendingReflections& w, long l) {
  w.exchanged = l;
  if (f.ipiv == nullptr || l < f.first_free || l >= f.end_free) return;
  long best = l;
  for (long j = l + 1; j < f.end_free; ++j) best = f.alfa[j] >= f.alfa[best] ? j : best;
  swap_places(f, l, best);
  swap_rows(f, 0, l, l, best);
  for (long t = 0; t < w.count; ++t) {
    double* s = w.s + t * PendingReflections::STRIDE;
    std::swap(s[l], s[best]);
  }
  w.exchanged = best;
}

template <typename T>
static void rotate_left(T* x, long from, long to) {
  const T first = x[from];
  for (long j = from; j < to - 1; ++j) x[j] = x[j + 1];
  x[to - 1] = first;
}

// Moves column l behind the free ones, which keep their order; the free range ends before it. A
// column of the front that turns out null leaves the front too. Nothing may be pending: the
// products are not moved.
static void retire_column(PivotedQr& f, long l) {
  rotate_left(f.ipiv, l, f.end_free);
  rotate_left(f.alfa, l, f.end_free);
  rotate_left(f.sum, l, f.end_free);
  double* row = f.u;
  for (long i = 0; i < f.m; ++i, row += f.incu) rotate_left(row, l, f.end_free);
  --f.end_free;
  if (l < f.first_free) --f.first_free;
}

static void clear_norms(const PivotedQr& f, long l) {
  f.alfa[l] = 0.0;
  if (f.ipiv != nullptr) f.sum[l] = 0.0;
}

// Turns column l, of norm t from row l down, into the reflection vector v = x/t + e with the sign
// of the first element in t: nothing cancels, and 1 <= v_l <= 2. Then v'v = 2 v_l, so that I -
// v v'/v_l is a reflection and takes x to -t e. The rows below wait for the next walk, unless the
// reciprocal of t is not safe.
static void make_reflection(const PivotedQr& f, PendingReflections& w, long l, double t) {
  static constexpr double LEAST_INVERTED = 1e-290;
  double* top = f.u + l * f.incu + l;
  if (*top < 0.0) t = -t;
  *top = *top / t + 1.0;
  f.alfa[l] = -t;
  if (f.ipiv != nullptr) f.sum[l] = -*top;
  if (std::fabs(t) > LEAST_INVERTED) {
    w.scale = 1.0 / t;
    return;
  }
  double* element = top;
  for (long i = l + 1; i < f.m; ++i) *(element += f.incu) /= t;
}

static void scale_rows(const PivotedQr& f, const PendingReflections& w, long l, long first,
                       long last) {
  if (w.scale == 0.0) return;
  double* element = f.u + first * f.incu + l;
  for (long i = first; i < last; ++i, element += f.incu) *element *= w.scale;
}

// Completes the reflection of column l where no walk comes that would.
static void complete_reflection(const PivotedQr& f, PendingReflections& w, long l) {
  scale_rows(f, w, l, l + 1, f.m);
  w.scale = 0.0;
}

// products[j - from] += sum of v[i] matrix(i,j) over the rows first..last-1, columns from..to-1. v
// is column l of f. Eight rows at a time, so that the products are read and written once for eight.
// The last columns, less than a group, are summed as the end of the group that ends with them,
// which reaches back to columns whose sums are known.
template <int W>
TQNLP_BODY void gather_body(const PivotedQr& f, long l, long first, long last, const double* matrix,
                            long inc, long from, long to, double* products) {
  constexpr int R = ROWS_TOGETHER;
  Lanes<W> total, element, end, factor[R];
  const double* rows[R];
  double v[R];
  const long groups = (to - from) / LANES * LANES;
  const bool end_group = groups < to - from && to >= LANES;
  end.clear();
  long i = first;
  for (; i + R <= last; i += R) {
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r) {
      v[r] = f.u[(i + r) * f.incu + l];
      rows[r] = matrix + (i + r) * inc + from;
      factor[r].fill(v[r]);
    }
    for (long j = 0; j < groups; j += LANES) {
      total.load(products + j);
#pragma GCC unroll 8
      for (int r = 0; r < R; ++r) {
        element.load(rows[r] + j);
        total.add_product(factor[r], element);
      }
      total.store(products + j);
    }
    if (end_group) {
#pragma GCC unroll 8
      for (int r = 0; r < R; ++r) {
        element.load(rows[r] + (to - from - LANES));
        end.add_product(factor[r], element);
      }
      continue;
    }
#pragma GCC unroll 1
    for (long j = groups; j < to - from; ++j) {
      double sum = products[j];
#pragma GCC unroll 8
      for (int r = 0; r < R; ++r) sum += v[r] * rows[r][j];
      products[j] = sum;
    }
  }
  for (; i < last; ++i) {
    axpy_lanes<W>(to - from, products, products, f.u[i * f.incu + l], matrix + i * inc + from);
  }
  if (!end_group) return;
  double sums[LANES];
  end.store(sums);
  for (long j = groups; j < to - from; ++j) products[j] += sums[j - (to - from - LANES)];
}
TQNLP_DISPATCH(void, gather,
               (const PivotedQr& f, long l, long first, long last, const double* matrix, long inc,
                long from, long to, double* products),
               (f, l, first, last, matrix, inc, from, to, products))

// ---- Reflections --------------------------------------------------------------------------------

// Applies reflection l at once to columns from..to-1 of a matrix with rows of stride inc: the rest
// of u, or the right sides b, which have no pending form. By pieces of CHUNK columns, as many as
// the products have room for.
static void reflect(const PivotedQr& f, long l, double* matrix, long inc, long from, long to) {
  constexpr long CHUNK = 512;
  double products[CHUNK];
  const double top = f.u[l * f.incu + l];
  for (long start = from; start < to; start += CHUNK) {
    const long width = to - start < CHUNK ? to - start : CHUNK;
    vzfdl(0.0, products, width);
    if (width < LANES) {
      for (long i = l; i < f.m; ++i) {
        zvxay11(width, products, f.u[i * f.incu + l], matrix + i * inc + start);
      }
    } else {
      gather(f, l, l, f.m, matrix, inc, start, start + width, products);
    }
    for (long k = 0; k < width; ++k) products[k] /= -top;
    for (long i = l; i < f.m; ++i) {
      zvxay11(width, matrix + i * inc + start, f.u[i * f.incu + l], products);
    }
  }
}

// u(i,j) += sum of v_t[i] s_t[j] over the pending reflections, for R rows from row i on and columns
// from .. n-1. Elements wait in registers for all reflections, and s serves R rows.
template <int W, int R>
TQNLP_BODY void add_pending(const PivotedQr& f, const PendingReflections& w, long i, long from) {
  Lanes<W> sums[R][2], factor, low, high;
  double* rows[R];
  const double* v[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    rows[r] = f.u + (i + r) * f.incu;
    v[r] = rows[r] + w.start;
  }
  long j = from;
  for (; j + 2 * LANES <= f.n; j += 2 * LANES) {
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      sums[r][0].load(rows[r] + j);
      sums[r][1].load(rows[r] + j + LANES);
    }
    const double* s = w.s + j;
    for (long t = 0; t < w.count; ++t, s += PendingReflections::STRIDE) {
      low.load(s);
      high.load(s + LANES);
#pragma GCC unroll 4
      for (int r = 0; r < R; ++r) {
        factor.fill(v[r][t]);
        sums[r][0].add_product(factor, low);
        sums[r][1].add_product(factor, high);
      }
    }
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      sums[r][0].store(rows[r] + j);
      sums[r][1].store(rows[r] + j + LANES);
    }
  }
  for (; j + LANES <= f.n; j += LANES) {
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) sums[r][0].load(rows[r] + j);
    const double* s = w.s + j;
    for (long t = 0; t < w.count; ++t, s += PendingReflections::STRIDE) {
      low.load(s);
#pragma GCC unroll 4
      for (int r = 0; r < R; ++r) {
        factor.fill(v[r][t]);
        sums[r][0].add_product(factor, low);
      }
    }
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) sums[r][0].store(rows[r] + j);
  }
  for (; j < f.n; ++j) {
    const double* s = w.s + j;
    for (long t = 0; t < w.count; ++t, s += PendingReflections::STRIDE) {
#pragma GCC unroll 4
      for (int r = 0; r < R; ++r) rows[r][j] += v[r][t] * *s;
    }
  }
}

template <int W>
TQNLP_BODY void apply_rows_body(const PivotedQr& f, const PendingReflections& w, long first,
                                long last, long from) {
  constexpr int R = W / 2;
  long i = first;
  for (; i + R <= last; i += R) add_pending<W, R>(f, w, i, from);
  for (; i < last; ++i) add_pending<W, 1>(f, w, i, from);
}
TQNLP_DISPATCH(void, apply_rows,
               (const PivotedQr& f, const PendingReflections& w, long first, long last, long from),
               (f, w, first, last, from))

// Applies what is pending to the rows and columns after the last reflection; step is the next one.
static void apply_pending(const PivotedQr& f, PendingReflections& w, long step) {
  if (w.count > 0) {
    complete_reflection(f, w, w.start + w.count - 1);
    apply_rows(f, w, w.start + w.count, f.m, w.start + w.count);
  }
  w.start = step;
  w.count = 0;
}

// Brings column l up to date in the rows first..last-1.
static void refresh_column(const PivotedQr& f, const PendingReflections& w, long l, long first,
                           long last) {
  if (w.count == 0) return;
  double s[PendingReflections::MOST];
  for (long t = 0; t < w.count; ++t) s[t] = w.s[t * PendingReflections::STRIDE + l];
  double* row = f.u + first * f.incu;
  for (long i = first; i < last; ++i, row += f.incu) {
    const double* v = row + w.start;
    double even = row[l], odd = 0.0;
    long t = 0;
    for (; t + 2 <= w.count; t += 2) {
      even += v[t] * s[t];
      odd += v[t + 1] * s[t + 1];
    }
    if (t < w.count) even += v[t] * s[t];
    row[l] = even + odd;
  }
}

// Walks over the rows from l on: brings column l, x there, up to date, and gathers all that its
// reflection needs in the same walk: w.products, x'u for the columns from the first pending
// reflection on, which are overlaps, then x'x, then the products with the columns to the right. By
// chunks of rows that stay in the cache.
static void survey_column(const PivotedQr& f, PendingReflections& w, long l) {
  static constexpr long CHUNK_ELEMENTS = 2048;
  const long chunk = std::max(CHUNK_ELEMENTS / ROWS_TOGETHER / f.incu, 1L) * ROWS_TOGETHER;
  vzfdl(0.0, w.products + w.start, f.n - w.start);
  for (long first = l; first < f.m; first += chunk) {
    const long last = std::min(first + chunk, f.m);
    scale_rows(f, w, l - 1, first, last);
    swap_rows(f, first, last, l, w.exchanged);
    refresh_column(f, w, l, first, last);
    gather(f, l, first, last, f.u, f.incu, w.start, f.n, w.products + w.start);
  }
  w.scale = 0.0;
  w.exchanged = l;
}

// Are the products with column l free of overflow, and its square of underflow?
static bool products_are_safe(const PivotedQr& f, const PendingReflections& w, long l) {
  static constexpr double LEAST = 1e-280, MOST = 1e280;
  double size = 0.0;
  for (long j = w.start; j < f.n; ++j) size += std::fabs(w.products[j]);
  return w.products[l] > LEAST && size < MOST;
}

// Makes column l, of norm t, a reflection and adds it to the pending ones: its products with the
// columns to the right, in which those pending before it take part, and row l brought up to date.
// Row l of R is final then, since later reflections begin below it; the downdating of the norms
// reads it. From v = x/t + e follows v'u = x'u/t + u_l; where x'u is not safe, v'u is formed.
static void add_reflection(const PivotedQr& f, PendingReflections& w, long l, double t) {
  const bool safe = products_are_safe(f, w, l);
  const long from = l + 1;
  const long width = f.n - from;
  make_reflection(f, w, l, t);
  const double* row = f.u + l * f.incu;
  double* products = w.products;
  if (safe) {
    const double reciprocal = -1.0 / f.alfa[l];
    for (long j = w.start; j < f.n; ++j) products[j] = products[j] * reciprocal + row[j];
  } else {
    complete_reflection(f, w, l);
    vzfdl(0.0, products + w.start, f.n - w.start);
    gather(f, l, l, f.m, f.u, f.incu, w.start, f.n, products + w.start);
  }
  for (long k = 0; k < w.count; ++k) {
    zvxay11(width, products + from, products[w.start + k],
            w.s + k * PendingReflections::STRIDE + from);
  }
  zvz111(width, w.s + w.count * PendingReflections::STRIDE + from, -1.0 / row[l], products + from);
  ++w.count;
  apply_rows(f, w, l, l + 1, from);
}

// Carries the remaining norms over step l by Pythagoras: the new row of R takes its element's
// square from each. Where the element is not smaller than the norm nothing is left to subtract
// from, and the norm is formed anew, for which the column must be up to date. Carried norms lose
// digits by cancellation; they choose the pivot only, and whether a column is null is always asked
// of a norm formed anew (next_column).
static void downdate_norms(const PivotedQr& f, PendingReflections& w, long l) {
  if (f.ipiv == nullptr || l >= f.m - 1) return;
  const double* row = f.u + l * f.incu;
  for (long j = l + 1; j < f.n; ++j) {
    if (f.alfa[j] == 0.0) continue;
    if (!(std::fabs(f.alfa[j]) > std::fabs(row[j]))) {
      apply_pending(f, w, l + 1);
      f.alfa[j] = f.sum[j] = column_norm(f, j, l + 1);
    } else {
      const double r = row[j] / f.alfa[j];
      const double rest = 1.0 - r * r;
      f.alfa[j] *= std::sqrt(rest > 0.0 ? rest : 0.0);
    }
  }
}

// Applies what is pending when column l is already up to date: its products are cleared first, so
// that it does not get them twice.
static void flush_behind(const PivotedQr& f, PendingReflections& w, long l) {
  if (w.count > 0) {
    for (long t = 0; t < w.count; ++t) w.s[t * PendingReflections::STRIDE + l] = 0.0;
    apply_pending(f, w, l);
  }
  w.start = l;
}

static double surveyed_norm(const PivotedQr& f, PendingReflections& w, long l) {
  survey_column(f, w, l);
  return products_are_safe(f, w, l) ? std::sqrt(w.products[l]) : column_norm(f, l, l);
}

// The norm of column l from row l down, after null columns have been moved away; not above sing
// when none is left. A null column makes no reflection, so that the pending ones would no longer be
// in sequence: they are applied first.
static double next_column(PivotedQr& f, PendingReflections& w, long l, double sing, bool lazy) {
  for (;;) {
    clear_norms(f, l);
    if (!lazy) swap_rows(f, l, f.m, l, std::exchange(w.exchanged, l));
    const double t = lazy ? surveyed_norm(f, w, l) : column_norm(f, l, l);
    if (t > sing) return t;
    flush_behind(f, w, l);
    if (f.ipiv == nullptr || l >= f.end_free - 1) return t;
    retire_column(f, l);
  }
}

long zqrdec(long m, long n, long p, long incu, long incb, long* ipiv, double sing, double* u,
            double* b, double* alfa, double* sum) {
  PivotedQr f{m, n, b == nullptr ? 0 : p, incu, incb, ipiv, u, b, alfa, sum, 0, n};
  if (ipiv != nullptr) {
    const long failed = place_columns(f);
    if (failed != 0) return failed;
  }
  form_norms(f);
  PendingReflections w;
  const bool lazy = n >= LAZY_COLUMNS && n <= PendingReflections::COLUMNS;
  long nullity = 0;
  for (long l = 0; l < (m < n ? m : n); ++l) {
    choose_pivot(f, w, l);
    const double t = next_column(f, w, l, sing, lazy);
    if (!(t > sing)) {
      ++nullity;
      u[l * incu + l] = 0.0;
      w.start = l + 1;
      continue;
    }
    if (lazy) {
      add_reflection(f, w, l, t);
    } else {
      make_reflection(f, w, l, t);
      complete_reflection(f, w, l);
      reflect(f, l, u, incu, l + 1, n);
      w.start = l + 1;
    }
    downdate_norms(f, w, l);
    if (w.count == PendingReflections::MOST) apply_pending(f, w, l + 1);
    // Q'b needs each reflection once; the right sides are few.
    if (f.p > 0) complete_reflection(f, w, l);
    reflect(f, l, b, incb, 0, f.p);
  }
  if (w.count > 0) apply_pending(f, w, n);
  return nullity;
}

}  // namespace tqnlp
