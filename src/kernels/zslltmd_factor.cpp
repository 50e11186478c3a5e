// zslltmd, numeric part: sparse Cholesky factorization of a matrix whose factor has a known
// pattern, with or without signs (zslltnf, zslltf2; zslumd.cpp calls the same core).
//
// A right-looking factorization by panels. A panel is a run of rows of U in which each row has the
// pattern of the one before without its first column (a supernode, at most PANEL rows of it):
//
//   row s    | d x x x | x x x x |        inner columns s+1 .. e-1, then the tail, which
//   row s+1  |   d x x | x x x x |        all rows of the panel share
//   row s+2  |     d x | x x x x |
//   row e-1  |       d | x x x x |
//
// The panel is factored in itself, and then every row j of its tail receives its update
// U(j,c) -= sum of U(k,j) U(k,c) over the panel's rows k. Rows j that belong to one run have nested
// patterns, so the places of the tail's columns in them are found once. Since the factor's rows are
// where the updates go, no work arrays are needed beyond small ones of fixed size. Zero pivots
// clear their rows, so that they update nothing.
//
// Rows before in are factors already: their panels are not factored again, and update only what
// lies behind in. A panel therefore never reaches across in.
//
// In the signed form A = U'SU a row with a negative pivot d has sign -1 and the root of |d| on its
// diagonal: from a(r,c) = U(r,r) s U(r,c) its elements are divided by -root, and whatever it
// subtracts is added.
//
// Each element receives its terms in an order that depends on the pattern alone.
#include <algorithm>
#include <cmath>

#include "aasubs/record/constants.h"
#include "host/process.h"
#include "kernels/row_update.h"
#include "kernels/sparse.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

namespace {

// Rows in a panel: enough to reuse what is loaded, few enough to stay in the first cache.
constexpr long PANEL = 32;

// Columns of a tail that are handled together.
constexpr long CHUNK = 256;

struct Panel {
  long begin, end;            // rows
  long count;                 // columns of the tail
  const long* columns;        // of the tail
  const double* tail[PANEL];  // values of the tail in each row
  double sign[PANEL];
};

}  // namespace

// The panel from row begin on. Row r's list begins with the panel's own columns r+1 .. end-1; its
// tail follows them.
TQNLP_BODY Panel take_panel(long begin, long in, long n, const long* ju, const double* u,
                            const long* negp) {
  Panel panel;
  panel.begin = begin;
  long end = begin + 1;
  while (end < n && end != in && end - begin < PANEL && run_goes_on(ju, end - 1)) ++end;
  panel.end = end;
  panel.columns = ju + ju[end - 1];
  panel.count = row_length(ju, end - 1);
  for (long r = begin; r < end; ++r) {
    panel.tail[r - begin] = u + ju[r] + (end - 1 - r);
    panel.sign[r - begin] = negp && negp[r] ? -1.0 : 1.0;
  }
  return panel;
}

// Judges the remaining pivot d of row r and gives the reciprocal of its root, 0 if it fails. A NaN
// counts as a zero pivot: it is neither above the limit nor negative.
TQNLP_BODY double judge_pivot(const PivotRule& rule, long r, double d, int& code) {
  const double limit = rule.sing > 0.0 ? rule.sing : 0.0;
  const bool negative = d < 0.0;
  if (rule.negp) {
    rule.negp[r] = negative;
    d = std::fabs(d);
    if (rule.lift && !(d > limit)) {
      d = limit;
      ++code;
    }
    if (d > limit || (rule.lift && d > 0.0)) return 1.0 / std::sqrt(d);
    rule.negp[r] = 0;
    code = static_cast<int>(r + 1);
    return 0.0;
  }
  if (d > limit) return 1.0 / std::sqrt(d);
  // A negative pivot outranks zero ones, and of negative ones the first is told.
  if (code >= 0) code = static_cast<int>(d < -limit ? -(r + 1) : r + 1);
  return 0.0;
}

// Factors the panel's rows in full length, inner columns and tail alike: row r less the rows of the
// panel before it, which are complete by then, and divided by its root.
template <int W>
TQNLP_BODY void factor_panel(Panel& panel, const PivotRule& rule, const long* ju, double* u,
                             int& code) {
  double factor[PANEL];
  const double* from[PANEL];
  for (long r = panel.begin; r < panel.end; ++r) {
    const long rows = r - panel.begin;
    double d = u[r];
    for (long p = 0; p < rows; ++p) {
      const long k = panel.begin + p;
      from[p] = u + ju[k] + (r - k - 1);  // U(k,r), and the elements behind it
      factor[p] = panel.sign[p] * *from[p];
      d -= factor[p] * *from[p];
    }
    double* row = u + ju[r];
    const long length = row_length(ju, r);
    if (rows > 0) subtract_rows<W>(length, rows, factor, from, 1, row);
    const double root = judge_pivot(rule, r, d, code);
    u[r] = root;
    if (root == 0.0) {
      std::fill_n(row, length, 0.0);
      continue;
    }
    double scale = root;
    if (rule.negp && rule.negp[r]) {
      panel.sign[rows] = -1.0;
      scale = -root;
    }
    for (long k = 0; k < length; ++k) row[k] *= scale;
  }
}

// Finds the columns want[0..count-1] in the ascending list at columns, from position on: place[i]
// receives their positions. True if they are neighbours there; then only place[0] is set. Both
// lists ascend, so that the first and the last one in their places prove all between. A column that
// is missing means a pattern that is not closed.
TQNLP_BODY bool locate(long count, const long* want, const long* columns, const long* end,
                       long position, long* place) {
  while (columns + position < end && columns[position] < want[0]) ++position;
  place[0] = position;
  if (columns + position + count <= end && columns[position] == want[0] &&
      columns[position + count - 1] == want[count - 1])
    return true;
  for (long i = 0; i < count; ++i) {
    while (columns + position < end && columns[position] < want[i]) ++position;
    if (columns + position >= end || columns[position] != want[i]) xexit(EXIT_INCONSISTENT, 0);
    place[i] = position++;
  }
  return false;
}

// The end of the group of tail entries from first on whose rows belong to one run. The rows between
// two entries need not be entries themselves, but the run must not break among them.
TQNLP_BODY long group_end(const Panel& panel, long first, const long* ju) {
  long r = panel.columns[first];
  for (long q = first + 1; q < panel.count; ++q)
    for (; r < panel.columns[q]; ++r)
      if (!run_goes_on(ju, r)) return q;
  return panel.count;
}

// Updates count columns from tail entry at on in one row, whose element of the i-th of them is
// row[place[i]], or row[place[0] + i] if they are neighbours. R is the number of the panel's rows
// if they are few, else 0. Scattered columns of many rows are summed up in a contiguous piece
// first: then the sums run at full width, and only the result is scattered.
template <int W, int R>
TQNLP_BODY void update_row(const Panel& panel, const double* factor, long at, long count,
                           const long* place, bool neighbours, double* row) {
  const long rows = R > 0 ? R : panel.end - panel.begin;
  if (neighbours) {
    subtract_rows<W>(count, rows, factor, panel.tail, at, row + place[0]);
  } else if constexpr (R > 0) {
#pragma GCC unroll 1
    for (long i = 0; i < count; ++i) {
      double sum = row[place[i]];
#pragma GCC unroll 4
      for (int p = 0; p < R; ++p) sum -= factor[p] * panel.tail[p][at + i];
      row[place[i]] = sum;
    }
  } else {
    double update[CHUNK];
    for (long i = 0; i < count; ++i) update[i] = 0.0;
    subtract_rows<W>(count, rows, factor, panel.tail, at, update);
    for (long i = 0; i < count; ++i) row[place[i]] += update[i];
  }
}

// Updates the rows of tail entries first to last-1, which belong to one run: their diagonals, then
// the columns behind them. The list of the first of them has every column that the others have, so
// that places are looked up there, once for all, in chunks of the tail.
template <int W, int R>
TQNLP_BODY void update_group(const Panel& panel, long first, long last, const long* ju, double* u) {
  const long rows = R > 0 ? R : panel.end - panel.begin;
  const long head = panel.columns[first];
  const long* columns = ju + ju[head];
  const long* columns_end = ju + ju[head + 1];
  double factor[PANEL];
  for (long q = first; q < last; ++q) {
    double sum = u[panel.columns[q]];
    for (long p = 0; p < rows; ++p) sum -= panel.sign[p] * panel.tail[p][q] * panel.tail[p][q];
    u[panel.columns[q]] = sum;
  }
  long place[CHUNK];
  long position = 0;
  for (long begin = first + 1; begin < panel.count; begin += CHUNK) {
    const long count = std::min(CHUNK, panel.count - begin);
    const bool neighbours =
        locate(count, panel.columns + begin, columns, columns_end, position, place);
    position = neighbours ? place[0] + count : place[count - 1] + 1;
    for (long q = first; q < last && q + 1 < begin + count; ++q) {
      for (long p = 0; p < rows; ++p) factor[p] = panel.sign[p] * panel.tail[p][q];
      // Row j lacks the first j - head columns of row head.
      const long j = panel.columns[q];
      double* row = u + ju[j] - (j - head);
      const long skip = std::max(0L, q + 1 - begin);
      update_row<W, R>(panel, factor, begin + skip, count - skip, neighbours ? place : place + skip,
                       neighbours, neighbours ? row + skip : row);
    }
  }
}

// Updates all rows behind the panel from tail entry first on.
template <int W, int R>
TQNLP_BODY void update_tail(const Panel& panel, long first, const long* ju, double* u) {
  while (first < panel.count) {
    const long last = group_end(panel, first, ju);
    update_group<W, R>(panel, first, last, ju, u);
    first = last;
  }
}

// All panels in the order of the places. Panels of up to four rows, which most are where rows are
// short, have their number of rows as a constant.
template <int W>
TQNLP_BODY void factor_rows_body(long in, long n, const PivotRule& rule, const long* ju, double* u,
                                 int& code) {
  for (long begin = 0; begin < n;) {
    Panel panel = take_panel(begin, in, n, ju, u, rule.negp);
    long first = 0;
    if (begin >= in)
      factor_panel<W>(panel, rule, ju, u, code);
    else
      while (first < panel.count && panel.columns[first] < in) ++first;
    switch (panel.end - panel.begin) {
      case 1:
        update_tail<W, 1>(panel, first, ju, u);
        break;
      case 2:
        update_tail<W, 2>(panel, first, ju, u);
        break;
      case 3:
        update_tail<W, 3>(panel, first, ju, u);
        break;
      case 4:
        update_tail<W, 4>(panel, first, ju, u);
        break;
      default:
        update_tail<W, 0>(panel, first, ju, u);
    }
    begin = panel.end;
  }
}

TQNLP_DISPATCH(void, factor_rows,
               (long in, long n, const PivotRule& rule, const long* ju, double* u, int& code),
               (in, n, rule, ju, u, code))

int sparse_factor(long in, long n, const PivotRule& rule, const long* ju, double* u) {
  int code = 0;
  if (in < n) factor_rows(std::max(in, 0L), n, rule, ju, u, code);
  return code;
}

// Adds value at column c of row r; rows before in are not touched. Short rows are searched from the
// front, long ones by halves. A column that the pattern lacks is an inconsistency of the caller.
static void add_element(long in, long r, long c, const long* ju, double* u, double value) {
  if (r < in) return;
  constexpr long SHORT_ROW = 24;
  const long* end = ju + ju[r + 1];
  const long* found = ju + ju[r];
  if (end - found > SHORT_ROW)
    found = std::lower_bound(found, end, c);
  else
    while (found != end && *found < c) ++found;
  if (found == end || *found != c) xexit(EXIT_INCONSISTENT, 0);
  u[found - ju] += value;
}

void sparse_load(long in, long n, const long* ju, double* u, long size, const long* ja,
                 const double* a, const long* first, const long* second) {
  if (in >= n) return;
  in = std::max(in, 0L);
  std::fill(u + in, u + n, 0.0);
  std::fill(u + ju[in], u + ju[n], 0.0);
  const auto place = [first, second](long v) {
    const long p = first ? first[v] : v;
    return second && p >= 0 ? second[p] : p;
  };
  for (long i = 0; i < size; ++i) {
    const long p = place(i);
    if (p < 0) continue;
    if (p >= in) u[p] = a[i];
    for (long k = ja[i]; k < ja[i + 1]; ++k) {
      const long q = place(ja[k]);
      if (q < 0) continue;
      add_element(in, std::min(p, q), std::max(p, q), ju, u, a[k]);
    }
  }
}

int zslltnf(int job, long in, long n, double sing, const long* ja, const long* ju, const long* perm,
            const double* a, double* u) {
  if (in >= n) return 0;
  if (job != 0) sparse_load(in, n, ju, u, n, ja, a, perm, nullptr);
  return sparse_factor(in, n, {sing, nullptr, false}, ju, u);
}

void sparse_load_second(int job, const long* jasl, const long* jusl, long in, long n,
                        const long* ja, const long* perm, const double* a, double* u) {
  const long* place = second_places(n, jusl);
  if (job == 2)
    sparse_load(in, n, jusl, u, ja[0] - 1, ja, a, perm, place);
  else if (job != 0)
    sparse_load(in, n, jusl, u, n, jasl, a, nullptr, place);
}

int zslltf2(int job, const long* jasl, const long* jusl, long in, long n, double sing,
            const long* ja, const long*, const long* perm, const double* a, double* u) {
  if (in >= n) return 0;
  sparse_load_second(job, jasl, jusl, in, n, ja, perm, a, u);
  return sparse_factor(in, n, {sing, nullptr, false}, jusl, u);
}

}  // namespace tqnlp
