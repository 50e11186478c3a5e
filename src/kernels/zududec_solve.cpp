// zududec, solves and inverse from P A P' = U D U'.
//
// zudusol permutes the right side, takes rows of U from the last on (U y = b), solves with the
// blocks of D, takes rows from the first on (U'x = y) and permutes back. In a block of order 2 on
// (k-1, k) the element (k, k-1) belongs to D and not to U; pairs are told apart because blocks are
// met whole from either end.
//
// zuduinv extends an inverse of the leading part by one block at a time. With S the leading part,
// G its inverse, u a column of U and d its pivot,
//
//   | S + u d u'  u d |^-1   |  G        -G u       |
//   |   d u'       d  |    = | -u'G   1/d + u'G u   |
//
// and alike for blocks. A zero pivot has u = 0 and contributes 0 for 1/d: the result is then a
// reflexive generalized inverse.
#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/factor.h"
#include "kernels/indefinite.h"
#include "kernels/row_update.h"

namespace tqnlp {

// Right sides up to this length are permuted by way of a copy, 32 KB.
static constexpr long COPIED_PLACES = 4096;

// Rows of U that are applied together; a block of order 2 may add one.
static constexpr long GROUP = 4;

TQNLP_BODY long variable_at(const long* h, long k) { return h[k] >= 0 ? h[k] : -1 - h[k]; }

// The least member of k's cycle: beyond a copy's reach cycles are moved from there.
TQNLP_BODY bool is_least_of_cycle(const long* h, long k) {
  long p = variable_at(h, k);
  while (p > k) p = variable_at(h, p);
  return p == k;
}

// b := P b: place k receives the entry of its variable.
TQNLP_BODY void to_places(long n, const long* h, double* b) {
  if (n <= COPIED_PLACES) {
    double copy[COPIED_PLACES];
    std::copy_n(b, n, copy);
    for (long k = 0; k < n; ++k) b[k] = copy[variable_at(h, k)];
    return;
  }
  for (long k = 0; k < n; ++k) {
    if (!is_least_of_cycle(h, k)) continue;
    const double kept = b[k];
    long p = k;
    for (long q = variable_at(h, k); q != k; p = q, q = variable_at(h, q)) b[p] = b[q];
    b[p] = kept;
  }
}

TQNLP_BODY void to_variables(long n, const long* h, double* b) {
  if (n <= COPIED_PLACES) {
    double copy[COPIED_PLACES];
    std::copy_n(b, n, copy);
    for (long k = 0; k < n; ++k) b[variable_at(h, k)] = copy[k];
    return;
  }
  for (long k = 0; k < n; ++k) {
    if (!is_least_of_cycle(h, k)) continue;
    double carried = b[k];
    for (long q = variable_at(h, k); q != k; q = variable_at(h, q)) std::swap(carried, b[q]);
    b[k] = carried;
  }
}

// Solves U y = b.
template <int W>
TQNLP_BODY void solve_upper(long n, const double* a, const long* h, double* b) {
  for (long k = n - 1; k > 0;) {
    // A group of whole blocks, places first .. k; columns at or behind stop belong to the group.
    const double* from[GROUP + 1];
    double factor[GROUP + 1];
    const long top = k;
    long first = k + 1;
    while (first > 0 && top + 1 - first < GROUP) first -= h[first - 1] < 0 ? 2 : 1;
    long rows = 0;
    while (k >= first) {
      const bool pair = h[k] < 0;
      for (long step = 0; step < (pair ? 2 : 1); ++step, --k) {
        const double* row = a + packed_size(k);
        from[rows] = row;
        factor[rows++] = b[k];
        const long end = pair && step == 0 ? k - 1 : k;
        for (long j = first; j < end; ++j) b[j] -= row[j] * b[k];
      }
    }
    subtract_rows<W>(first, rows, factor, from, 0, b);
  }
}

// Solves U'x = y.
template <int W>
TQNLP_BODY void solve_lower(long n, const double* a, const long* h, double* b) {
  const double* row = a;
  for (long k = 0; k < n; ++k) {
    b[k] -= dot_lanes<W>(k, row, b);
    row += k + 1;
    if (h[k] >= 0) continue;
    ++k;
    b[k] -= dot_lanes<W>(k - 1, row, b);
    row += k + 1;
  }
}

// b := D^-1 b, with 0 for the blocks that do not exceed limit; the number of those places.
TQNLP_BODY long solve_blocks(long n, const double* a, double limit, const long* h, double* b) {
  long zeros = 0;
  const double* row = a;
  for (long k = 0; k < n; ++k) {
    const double first = row[k];
    row += k + 1;
    if (h[k] >= 0) {
      const bool zero = std::fabs(first) <= limit;
      zeros += zero;
      b[k] = zero ? 0.0 : b[k] / first;
      continue;
    }
    ++k;
    const double e = row[k - 1], second = row[k];
    row += k + 1;
    if (std::max({std::fabs(e), std::fabs(first), std::fabs(second)}) <= limit) {
      zeros += 2;
      b[k - 1] = b[k] = 0.0;
      continue;
    }
    const double d = 1.0 / e;
    const double ad = first * d, bd = second * d;
    const double x = b[k - 1] * d, y = b[k] * d;
    const double scale = 1.0 / (1.0 - ad * bd);
    b[k - 1] = scale * (y - bd * x);
    b[k] = scale * (x - ad * y);
  }
  return zeros;
}

template <int W>
TQNLP_BODY void solve_one_body(long n, double limit, const double* a, double* b, const long* h,
                               long& zeros) {
  to_places(n, h, b);
  solve_upper<W>(n, a, h, b);
  zeros = solve_blocks(n, a, limit, h, b);
  solve_lower<W>(n, a, h, b);
  to_variables(n, h, b);
}

TQNLP_DISPATCH(void, solve_one,
               (long n, double limit, const double* a, double* b, const long* h, long& zeros),
               (n, limit, a, b, h, zeros))

long zuduso2(long n, long p, long incb, double sing, const double* a, double* b, const long* h) {
  if (n <= 0) return 0;
  const double limit = sing > TINY ? sing : TINY;
  long zeros = 0;
  for (long column = 0; column < p; ++column) solve_one(n, limit, a, b + column * incb, h, zeros);
  return zeros;
}

long zudusol(long n, long p, long incb, const double* a, double* b, const long* h) {
  return zuduso2(n, p, incb, TINY, a, b, h);
}

// v := -G w for the leading part of order n; v must not overlap w.
template <int W>
TQNLP_BODY void negative_product_body(long n, const double* a, const double* w, double* v) {
  const double* row = a;
  for (long i = 0; i < n; row += ++i) {
    v[i] = -dot_lanes<W>(i + 1, row, w);
    axpy_lanes<W>(i, v, v, -w[i], row);
  }
}

TQNLP_DISPATCH(void, negative_product, (long n, const double* a, const double* w, double* v),
               (n, a, w, v))

static double inner_product(long n, const double* x, const double* y) {
  double sum = 0.0;
  for (long j = 0; j < n; ++j) sum += x[j] * y[j];
  return sum;
}

// Puts row k's column of U into w and -G w in its place.
static void extend_row(long k, double* a, double* row, double* w) {
  std::copy_n(row, k, w);
  negative_product(k, a, w, row);
}

static void extend_pair(long k, double* a, double* below, double* row, double* w) {
  const double e = row[k - 1], d = 1.0 / e;
  const double ad = below[k - 1] * d, bd = row[k] * d;
  const double scale = d / (1.0 - ad * bd);
  extend_row(k - 1, a, below, w);
  below[k - 1] = -bd * scale - inner_product(k - 1, w, below);
  row[k - 1] = scale - inner_product(k - 1, row, below);
  extend_row(k - 1, a, row, w);
  row[k] = -ad * scale - inner_product(k - 1, w, row);
}

void zuduinv(long n, double* a, const long* h, double* w) {
  double* row = a;
  for (long k = 0; k < n; row += ++k) {
    if (h[k] >= 0) {
      const double d = row[k];
      extend_row(k, a, row, w);
      row[k] = (std::fabs(d) > TINY ? 1.0 / d : 0.0) - inner_product(k, w, row);
      continue;
    }
    double* below = row;
    row += ++k;
    extend_pair(k, a, below, row, w);
  }
  // Back to the order of variables; w[k] is the variable that stands at place k.
  for (long k = 0; k < n; ++k) w[k] = static_cast<double>(variable_at(h, k));
  for (long k = 0; k < n; ++k)
    while (w[k] != static_cast<double>(k)) {
      const long v = static_cast<long>(w[k]);
      swap_packed(n, std::min(k, v), std::max(k, v), a);
      std::swap(w[k], w[v]);
    }
}

}  // namespace tqnlp
