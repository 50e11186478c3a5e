// zslltmd, triangular solves in the order of the places.
//
// The forward solve with L = U' walks the rows of U and scatters, the backward solve gathers. Rows
// of a run, which have one pattern, are taken together: their list of columns and the entries of b
// behind it are then read once for all of them. Up to FEW rows are combined element by element;
// where rows are long, up to PANEL, by way of a contiguous piece of b of fixed size.
//
//   row r    | d x x | x x x |     x d y z: the triangle of the run, solved by itself
//   row r+1  |   d x | x x x |     the tail, in the columns that the last row lists; an element
//   row r+2  |     d | x x x |     q of it stands at tail[p][q] for row r+p
//
// u holds reciprocals of the diagonal, so that a row is closed by a product. A failed row has zeros
// in all places: b gets 0 there, and nothing of it goes to other rows.
#include <algorithm>

#include "kernels/row_update.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

// Rows of a run that are taken together; LONG_ROW columns make the detour by a piece worth it.
static constexpr long FEW = 4;
static constexpr long PANEL = 32;
static constexpr long LONG_ROW = 64;

// Columns of long rows that are handled together.
static constexpr long CHUNK = 256;

namespace {

struct Panel {
  long begin, end;
  long count;                 // columns behind the panel
  const long* columns;        // those columns
  const double* tail[PANEL];  // their values in each row
};

}  // namespace

static Panel take_panel(long begin, long end, const long* ju, const double* u) {
  Panel panel;
  panel.begin = begin;
  panel.end = end;
  panel.count = row_length(ju, end - 1);
  panel.columns = ju + ju[end - 1];
  for (long r = begin; r < end; ++r) panel.tail[r - begin] = u + ju[r] + (end - 1 - r);
  return panel;
}

// ---- Forward -----------------------------------------------------------------------------------

// Rows r .. r+R-1 of a run: the triangle, then each element of b behind it less its R products, in
// the order of the rows.
template <int R>
static void forward_rows(long r, const long* ju, const double* u, double* b) {
  const double* tail[R];
  double x[R];
  for (int p = 0; p < R; ++p) {
    tail[p] = u + ju[r + p] + (R - 1 - p);
    x[p] = b[r + p];
    for (int k = 0; k < p; ++k) x[p] -= u[ju[r + k] + (p - 1 - k)] * x[k];
    x[p] *= u[r + p];
    b[r + p] = x[p];
  }
  const long* columns = ju + ju[r + R - 1];
  const long count = ju[r + R] - ju[r + R - 1];
  for (long q = 0; q < count; ++q) {
    double sum = b[columns[q]];
    for (int p = 0; p < R; ++p) sum -= tail[p][q] * x[p];
    b[columns[q]] = sum;
  }
}

// The same for a panel of long rows: what the columns list is gathered, updated at full width and
// scattered back.
template <int W>
TQNLP_BODY void forward_panel_body(const Panel& panel, const long* ju, const double* u, double* b) {
  for (long r = panel.begin; r < panel.end; ++r) {
    b[r] *= u[r];
    subtract_row<W>(panel.end - 1 - r, b[r], u + ju[r], b + r + 1);
  }
  double piece[CHUNK];
  for (long begin = 0; begin < panel.count; begin += CHUNK) {
    const long count = std::min(CHUNK, panel.count - begin);
    const long* columns = panel.columns + begin;
    for (long i = 0; i < count; ++i) piece[i] = b[columns[i]];
    subtract_rows<W>(count, panel.end - panel.begin, b + panel.begin, panel.tail, begin, piece);
    for (long i = 0; i < count; ++i) b[columns[i]] = piece[i];
  }
}

TQNLP_DISPATCH(void, forward_panel,
               (const Panel& panel, const long* ju, const double* u, double* b), (panel, ju, u, b))

// How rows are taken together changes the order of no sum: each element of b loses the rows'
// products in ascending order of the rows.
void sparse_forward(long n, const long* ju, const double* u, double* b) {
  for (long r = 0; r < n;) {
    const long most = row_length(ju, r) < LONG_ROW ? FEW : PANEL;
    long end = r + 1;
    while (end < n && end - r < most && run_goes_on(ju, end - 1)) ++end;
    switch (end - r) {
      case 1:
        forward_rows<1>(r, ju, u, b);
        break;
      case 2:
        forward_rows<2>(r, ju, u, b);
        break;
      case 3:
        forward_rows<3>(r, ju, u, b);
        break;
      case 4:
        forward_rows<4>(r, ju, u, b);
        break;
      default:
        forward_panel(take_panel(r, end, ju, u), ju, u, b);
    }
    r = end;
  }
}

// ---- Backward ----------------------------------------------------------------------------------

// Rows r .. r+R-1 of a run from the last one: the products with what lies behind the run for all R
// rows at once, in two partial sums each (even and odd entries), then the triangle.
template <int R>
static void backward_rows(long r, const long* ju, const double* u, double* b) {
  const double* tail[R];
  double even[R] = {}, odd[R] = {};
  for (int p = 0; p < R; ++p) tail[p] = u + ju[r + p] + (R - 1 - p);
  const long* columns = ju + ju[r + R - 1];
  const long count = ju[r + R] - ju[r + R - 1];
  long q = 0;
  for (; q + 2 <= count; q += 2) {
    const double x0 = b[columns[q]], x1 = b[columns[q + 1]];
    for (int p = 0; p < R; ++p) {
      even[p] += tail[p][q] * x0;
      odd[p] += tail[p][q + 1] * x1;
    }
  }
  if (q < count)
    for (int p = 0; p < R; ++p) even[p] += tail[p][q] * b[columns[q]];
  for (int p = R - 1; p >= 0; --p) {
    double sum = even[p] + odd[p];
    for (int k = p + 1; k < R; ++k) sum += u[ju[r + p] + (k - p - 1)] * b[r + k];
    b[r + p] = (b[r + p] - sum) * u[r + p];
  }
}

// The same for a panel of long rows, piece by piece of b.
template <int W>
TQNLP_BODY void backward_panel_body(const Panel& panel, const long* ju, const double* u,
                                    double* b) {
  double piece[CHUNK];
  for (long begin = 0; begin < panel.count; begin += CHUNK) {
    const long count = std::min(CHUNK, panel.count - begin);
    const long* columns = panel.columns + begin;
    for (long i = 0; i < count; ++i) piece[i] = b[columns[i]];
    for (long r = panel.begin; r < panel.end; ++r)
      b[r] -= dot_lanes<W>(count, panel.tail[r - panel.begin] + begin, piece);
  }
  for (long r = panel.end - 1; r >= panel.begin; --r)
    b[r] = (b[r] - dot_lanes<W>(panel.end - 1 - r, u + ju[r], b + r + 1)) * u[r];
}

TQNLP_DISPATCH(void, backward_panel,
               (const Panel& panel, const long* ju, const double* u, double* b), (panel, ju, u, b))

// Runs are found from their ends. Here the sums of a row depend on how rows are taken together, and
// that on the pattern alone.
void sparse_backward(long n, const long* ju, const double* u, double* b) {
  for (long end = n; end > 0;) {
    const long most = row_length(ju, end - 1) < LONG_ROW ? FEW : PANEL;
    long r = end - 1;
    while (r > 0 && end - r < most && run_goes_on(ju, r - 1)) --r;
    switch (end - r) {
      case 1:
        backward_rows<1>(r, ju, u, b);
        break;
      case 2:
        backward_rows<2>(r, ju, u, b);
        break;
      case 3:
        backward_rows<3>(r, ju, u, b);
        break;
      case 4:
        backward_rows<4>(r, ju, u, b);
        break;
      default:
        backward_panel(take_panel(r, end, ju, u), ju, u, b);
    }
    end = r;
  }
}

}  // namespace tqnlp
