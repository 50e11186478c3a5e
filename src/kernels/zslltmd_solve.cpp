// zslltmd, triangular solves in the order of the places.
//
// The forward solve with L = U' walks the rows of U and scatters, the backward solve gathers. A run of
// rows with one pattern is a panel, as in the factorization: its list of columns and the entries of b
// behind it are read once for all its rows. Up to FEW rows are combined element by element; only where
// rows are long are more taken together, by way of a contiguous piece of fixed size.
#include <algorithm>

#include "kernels/row_update.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

// Rows in a panel, rows that are combined by element, the length from which more pay, and columns that
// are handled together.
static constexpr long PANEL = 32;
static constexpr long FEW = 4;
static constexpr long LONG_ROW = 64;
static constexpr long CHUNK = 256;

namespace {

struct Rows {
  long begin, end;            // of the panel
  long count;                 // columns of the tail
  const long* columns;        // of the tail
  const double* tail[PANEL];  // values of the tail in each row
};

}  // namespace

static inline void take_rows(long begin, long end, const long* ju, const double* u, Rows& rows) {
  rows.begin = begin;
  rows.end = end;
  rows.count = row_length(ju, end - 1);
  rows.columns = ju + ju[end - 1];
  for (long r = begin; r < end; ++r) rows.tail[r - begin] = u + ju[r] + (end - 1 - r);
}

// b at the tail's columns receives its terms from R rows with the solution x.
template <int R>
static inline void scatter_few(const Rows& rows, const double* x, double* b) {
  const double* tail[R];
  for (int p = 0; p < R; ++p) tail[p] = rows.tail[p];
  const long* columns = rows.columns;
#pragma GCC unroll 2
  for (long q = 0; q < rows.count; ++q) {
    double sum = b[columns[q]];
#pragma GCC unroll 4
    for (int p = 0; p < R; ++p) sum -= tail[p][q] * x[p];
    b[columns[q]] = sum;
  }
}

template <int W>
TQNLP_BODY void scatter_many_body(const Rows& rows, const double* x, double* b) {
  double piece[CHUNK];
  for (long begin = 0; begin < rows.count; begin += CHUNK) {
    const long count = std::min(CHUNK, rows.count - begin);
    const long* columns = rows.columns + begin;
    for (long i = 0; i < count; ++i) piece[i] = b[columns[i]];
    subtract_rows<W>(count, rows.end - rows.begin, x, rows.tail, begin, piece);
    for (long i = 0; i < count; ++i) b[columns[i]] = piece[i];
  }
}

TQNLP_DISPATCH(void, scatter_many, (const Rows& rows, const double* x, double* b), (rows, x, b))

void sparse_forward(long n, const long* ju, const double* u, double* b) {
  for (long begin = 0; begin < n;) {
    long end = begin + 1;
    const long most = row_length(ju, begin) < LONG_ROW ? FEW : PANEL;
    while (end < n && end - begin < most && run_goes_on(ju, end - 1)) ++end;
    Rows rows;
    take_rows(begin, end, ju, u, rows);
    double* x = b + begin;
    for (long r = begin; r < end; ++r) {
      b[r] *= u[r];
      const double* row = u + ju[r];
#pragma GCC unroll 1
      for (long c = r + 1; c < end; ++c) b[c] -= row[c - r - 1] * b[r];
    }
    switch (end - begin) {
      case 1: scatter_few<1>(rows, x, b); break;
      case 2: scatter_few<2>(rows, x, b); break;
      case 3: scatter_few<3>(rows, x, b); break;
      case 4: scatter_few<4>(rows, x, b); break;
      default: scatter_many(rows, x, b);
    }
    begin = end;
  }
}

// sum[p]: row p of the tail times b.
template <int R>
static inline void gather_few(const Rows& rows, const double* b, double* sum) {
  const double* tail[R];
  double even[R] = {}, odd[R] = {};
  for (int p = 0; p < R; ++p) tail[p] = rows.tail[p];
  const long* columns = rows.columns;
  long q = 0;
  for (; q + 2 <= rows.count; q += 2) {
    const double x0 = b[columns[q]], x1 = b[columns[q + 1]];
#pragma GCC unroll 4
    for (int p = 0; p < R; ++p) {
      even[p] += tail[p][q] * x0;
      odd[p] += tail[p][q + 1] * x1;
    }
  }
  if (q < rows.count)
    for (int p = 0; p < R; ++p) even[p] += tail[p][q] * b[columns[q]];
  for (int p = 0; p < R; ++p) sum[p] = even[p] + odd[p];
}

template <int W>
TQNLP_BODY void gather_many_body(const Rows& rows, const double* b, double* sum) {
  double piece[CHUNK];
  const long height = rows.end - rows.begin;
  for (long p = 0; p < height; ++p) sum[p] = 0.0;
  for (long begin = 0; begin < rows.count; begin += CHUNK) {
    const long count = std::min(CHUNK, rows.count - begin);
    const long* columns = rows.columns + begin;
    for (long i = 0; i < count; ++i) piece[i] = b[columns[i]];
    for (long p = 0; p < height; ++p) sum[p] += dot_lanes<W>(count, rows.tail[p] + begin, piece);
  }
}

TQNLP_DISPATCH(void, gather_many, (const Rows& rows, const double* b, double* sum), (rows, b, sum))

void sparse_backward(long n, const long* ju, const double* u, double* b) {
  for (long end = n; end > 0;) {
    long begin = end - 1;
    const long most = row_length(ju, begin) < LONG_ROW ? FEW : PANEL;
    while (begin > 0 && end - begin < most && run_goes_on(ju, begin - 1)) --begin;
    Rows rows;
    take_rows(begin, end, ju, u, rows);
    double sum[PANEL];
    switch (end - begin) {
      case 1: gather_few<1>(rows, b, sum); break;
      case 2: gather_few<2>(rows, b, sum); break;
      case 3: gather_few<3>(rows, b, sum); break;
      case 4: gather_few<4>(rows, b, sum); break;
      default: gather_many(rows, b, sum);
    }
    for (long r = end - 1; r >= begin; --r) {
      const double* row = u + ju[r];
      double rest = b[r] - sum[r - begin];
#pragma GCC unroll 1
      for (long c = r + 1; c < end; ++c) rest -= row[c - r - 1] * b[c];
      b[r] = rest * u[r];
    }
    end = begin;
  }
}

}  // namespace tqnlp
