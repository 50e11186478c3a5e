// zududec: U D U' DEComposition of a dense symmetric indefinite matrix, packed, after Bunch and
// Kaufman (1977), Mathematics of Computation 31, partial pivoting with blocks of order 1 and 2.
//
// The elimination runs from the last place to the first: the pivot's column is then row k of the
// packed form, and the matrix that is left is the rows above. Interchanges move whole rows and
// columns, those of U included, so that the result is P A P' = U D U' as it stands and solves are
// two sweeps of contiguous rows between permutations.
//
// While the matrix is large, the updates of up to BLOCK pivots wait: rows k+1 .. are final rows of
// U, rows 0 .. k still lack the terms of those that wait. What the choice of a pivot needs to know
// is computed from both in pieces of fixed size; it is written only when the choice is made, for an
// interchange must not mix rows that have their terms with rows that lack them. Then the updates
// are made in one pass over the matrix.
//
// The growth of elements is bounded by alpha = (1 + sqrt(17))/8.
#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/factor.h"
#include "kernels/indefinite.h"
#include "kernels/row_update.h"

namespace tqnlp {

namespace {

// (1 + sqrt(17))/8: growth over two steps with blocks of order 1 equals that of one of order 2.
constexpr double ALPHA = 0.6403882032022076;

// Pivots whose updates wait, and the order below which none does.
constexpr long BLOCK = 8;
constexpr long SMALL_ORDER = 96;

// Elements of a row that are handled together.
constexpr long CHUNK = 256;

// Places whose updates wait: at most BLOCK, and the second of a block of order 2.
struct Waiting {
  long count = 0;
  const double* row[BLOCK + 1];
  long place[BLOCK + 1];
  bool pair[BLOCK + 1];  // the place before, entry count - 1, is the first of its block
};

struct Largest {
  double value = 0.0;
  long index = -1;
};

enum class Pivot { zero, here, other, pair };

}  // namespace

// factor[p] so that the lacking terms of row i are sum of factor[p] row[p][j]: row i of U D.
TQNLP_BODY void waiting_factors(const Waiting& w, long i, double* factor) {
  for (long p = 0; p < w.count; ++p) {
    const double* row = w.row[p];
    const long k = w.place[p];
    if (p + 1 < w.count && w.pair[p + 1]) {
      // Entry p is the upper place of a block, entry p + 1 the lower one.
      const double* below = w.row[p + 1];
      factor[p] = row[k] * row[i] + row[k - 1] * below[i];
      factor[p + 1] = row[k - 1] * row[i] + below[k - 1] * below[i];
      ++p;
    } else {
      factor[p] = row[k] * row[i];
    }
  }
}

// The elements from begin on of column c of the matrix that is left, up to place k, lacking terms
// included.
template <int W>
TQNLP_BODY void current_column(const double* a, const Waiting& w, const double* factor, long c,
                               long begin, long count, double* column) {
  long i = begin;
  const long end = begin + count;
  const double* row = a + packed_size(c);
  for (; i < end && i <= c; ++i) column[i - begin] = row[i];
  for (row = a + packed_size(i) + c; i < end; row += ++i) column[i - begin] = *row;
  if (w.count > 0) subtract_rows<W>(count, w.count, factor, w.row, begin, column);
}

// The first i with |x[i]| = value, or n.
TQNLP_BODY long find_modulus(long n, const double* x, double value) {
  long i = 0;
  while (i < n && std::fabs(x[i]) != value) ++i;
  return i;
}

// Largest off-diagonal element of column c among the places up to k, and the diagonal element. The
// index is left out where nothing waits: most pivots do not ask for it.
template <int W>
TQNLP_BODY Largest scan_column(const double* a, const Waiting& w, long c, long k,
                               double& diagonal) {
  Largest largest;
  if (w.count == 0) {
    const double* row = a + packed_size(c);
    diagonal = row[c];
    raise_to_largest<W>(c, row, largest.value);
    row += c;
    for (long i = c + 1; i <= k; ++i) {
      row += i;
      const double modulus = std::fabs(*row);
      if (largest.value < modulus) largest.value = modulus;
    }
    return largest;
  }
  double factor[BLOCK + 1], column[CHUNK];
  waiting_factors(w, c, factor);
  for (long begin = 0; begin <= k; begin += CHUNK) {
    const long count = std::min(CHUNK, k + 1 - begin);
    current_column<W>(a, w, factor, c, begin, count, column);
    if (begin <= c && c < begin + count) {
      diagonal = column[c - begin];
      column[c - begin] = 0.0;
    }
    const double before = largest.value;
    raise_to_largest<W>(count, column, largest.value);
    if (largest.value > before) largest.index = begin + find_modulus(count, column, largest.value);
  }
  return largest;
}

// The choice for place k; other receives the place to bring in.
template <int W>
TQNLP_BODY Pivot choose_pivot(const double* a, const Waiting& w, long k, double limit,
                              long& other) {
  double diagonal = 0.0;
  const Largest s = scan_column<W>(a, w, k, k, diagonal);
  if (s.value <= limit && std::fabs(diagonal) <= limit) return Pivot::zero;
  // A diagonal element that is NaN may stand alone.
  if (ALPHA * s.value <= std::fabs(diagonal) || s.value == 0.0) return Pivot::here;
  other = w.count > 0 ? s.index : find_modulus(k, a + packed_size(k), s.value);
  double other_diagonal = 0.0;
  const Largest t = scan_column<W>(a, w, other, k, other_diagonal);
  if (ALPHA * s.value * (s.value / t.value) <= std::fabs(diagonal)) return Pivot::here;
  return ALPHA * t.value <= std::fabs(other_diagonal) ? Pivot::other : Pivot::pair;
}

// Exchanges places r and k, r below k, among the first order places of a, and in the rows behind.
TQNLP_BODY void exchange(long n, double* a, long* h, long r, long k, long order) {
  swap_packed(order, r, k, a);
  double* row = a + packed_size(order);
  for (long p = order; p < n; row += ++p) std::swap(row[r], row[k]);
  std::swap(h[r], h[k]);
}

// Writes the lacking terms into row k.
template <int W>
TQNLP_BODY void complete_row(double* a, const Waiting& w, long k) {
  if (w.count == 0) return;
  double factor[BLOCK + 1];
  waiting_factors(w, k, factor);
  subtract_rows<W>(k + 1, w.count, factor, w.row, 0, a + packed_size(k));
}

TQNLP_BODY void wait(Waiting& w, const double* row, long place, bool pair) {
  w.row[w.count] = row;
  w.place[w.count] = place;
  w.pair[w.count++] = pair;
}

// Row k of U from the column of a pivot of order 1.
TQNLP_BODY void divide_row(long k, double* row) {
  const double d = row[k];
  if (std::fabs(d) > SMALLEST_TOLERANCE) {
    const double reciprocal = 1.0 / d;
    for (long j = 0; j < k; ++j) row[j] *= reciprocal;
  } else {
    for (long j = 0; j < k; ++j) row[j] /= d;
  }
}

// Rows k-1 and k of U from the columns of a block of order 2, with its inverse in terms of the
// reciprocal of the off-diagonal element, which bounds all others.
TQNLP_BODY void divide_pair(long k, double* below, double* row) {
  const double d = 1.0 / row[k - 1];
  const double ad = below[k - 1] * d, bd = row[k] * d;
  const double scale = d / (1.0 - ad * bd);
  for (long j = 0; j < k - 1; ++j) {
    const double x = below[j], y = row[j];
    below[j] = scale * (y - bd * x);
    row[j] = scale * (x - ad * y);
  }
}

// Makes the updates that wait in rows 0 .. last.
template <int W>
TQNLP_BODY void update_rows(double* a, Waiting& w, long last) {
  double* to = a;
  if (w.count == 1) {
    const double* row = w.row[0];
    const double d = row[w.place[0]];
    for (long i = 0; i <= last; to += ++i) subtract_row<W>(i + 1, d * row[i], row, to);
  } else if (w.count == 2 && w.pair[1]) {
    const double *row = w.row[0], *below = w.row[1];
    const long k = w.place[0];
    const double d = row[k], e = row[k - 1], c = below[k - 1];
    for (long i = 0; i <= last; to += ++i)
      subtract_two_rows<W>(i + 1, d * row[i] + e * below[i], row, e * row[i] + c * below[i], below,
                           to);
  } else {
    for (long begin = 0; begin <= last; begin += CHUNK)
      for (long i = begin; i <= last; ++i) {
        const long count = std::min(CHUNK, i + 1 - begin);
        double factor[BLOCK + 1];
        waiting_factors(w, i, factor);
        subtract_rows<W>(count, w.count, factor, w.row, begin, a + packed_size(i) + begin);
      }
  }
  w.count = 0;
}

// limits: one for each variable, or a single one if each is false.
template <int W>
TQNLP_BODY void factor_udu_body(long n, bool each, const double* limits, double* a, long* h,
                                long& nullity) {
  Waiting w;
  for (long k = n - 1; k >= 0;) {
    const double given = each ? limits[h[k]] : *limits;
    const double limit = given > TINY ? given : TINY;
    double* row = a + packed_size(k);
    double* below = row - k;
    long other = k;
    const Pivot pivot = choose_pivot<W>(a, w, k, limit, other);
    if (pivot == Pivot::zero) {
      std::fill_n(row, k + 1, 0.0);
      ++nullity;
      --k;
      continue;
    }
    if (pivot == Pivot::pair) {
      if (other != k - 1) exchange(n, a, h, other, k - 1, k + 1);
      complete_row<W>(a, w, k);
      complete_row<W>(a, w, k - 1);
      divide_pair(k, below, row);
      h[k] = -1 - h[k];
      h[k - 1] = -1 - h[k - 1];
      wait(w, row, k, false);
      wait(w, below, k - 1, true);
      k -= 2;
    } else {
      if (pivot == Pivot::other) exchange(n, a, h, other, k, k + 1);
      complete_row<W>(a, w, k);
      divide_row(k, row);
      wait(w, row, k, false);
      --k;
    }
    if (k < SMALL_ORDER || w.count >= BLOCK) update_rows<W>(a, w, k);
  }
}

TQNLP_DISPATCH(void, factor_udu,
               (long n, bool each, const double* limits, double* a, long* h, long& nullity),
               (n, each, limits, a, h, nullity))

// What is not above TINY is left as it is.
void multiply_determinant(double* det, double value) {
  constexpr double LEAP = 1e16, LEAP_DIGITS = 16.0;
  const auto scale = [det](double mantissa) {
    if (!std::isfinite(mantissa)) return mantissa;
    for (; std::fabs(mantissa) >= LEAP; mantissa /= LEAP) det[1] += LEAP_DIGITS;
    for (; std::fabs(mantissa) >= 10.0; mantissa /= 10.0) det[1] += 1.0;
    if (!(std::fabs(mantissa) > TINY)) return mantissa;
    for (; std::fabs(mantissa) < 1.0 / LEAP; mantissa *= LEAP) det[1] -= LEAP_DIGITS;
    for (; std::fabs(mantissa) < 1.0; mantissa *= 10.0) det[1] -= 1.0;
    return mantissa;
  };
  det[0] = scale(det[0] * scale(value));
}

static void determinant(long n, const double* a, const long* h, double* det) {
  std::fill_n(det, 5, 0.0);
  det[0] = 1.0;
  const double* row = a;
  for (long k = 0; k < n; ++k, row += k) {
    if (h[k] >= 0) {
      const double d = row[k];
      multiply_determinant(det, d);
      if (d > 0.0) det[2] += 1.0;
      if (d < 0.0) det[3] += 1.0;
      if (d == 0.0) det[4] += 1.0;
      continue;
    }
    // A block of order 2 is indefinite by its choice: e^2 exceeds the product of its diagonal.
    const double first = row[k];
    ++k;
    row += k;
    const double e = row[k - 1];
    multiply_determinant(det, e);
    multiply_determinant(det, e);
    multiply_determinant(det, (first / e) * (row[k] / e) - 1.0);
    det[2] += 1.0;
    det[3] += 1.0;
  }
}

static long factor_with(long n, bool each, const double* limits, double* dtin, double* a, long* h) {
  long nullity = 0;
  for (long k = 0; k < n; ++k) h[k] = k;
  factor_udu(n, each, limits, a, h, nullity);
  if (dtin) determinant(n, a, h, dtin);
  return nullity;
}

long zududec(long n, double sing, double* dtin, double* a, long* h) {
  return factor_with(n, false, &sing, dtin, a, h);
}

long zudude2(long n, const double* vsin, double* dtin, double* a, long* h) {
  return factor_with(n, true, vsin, dtin, a, h);
}

}  // namespace tqnlp
