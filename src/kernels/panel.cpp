// Elimination by panels, right-looking (Golub and Van Loan, Matrix Computations, sec. 4.2.9).
//
// The rows of the panel are taken in chunks of 64, transposed into a buffer: column t of the panel
// lies contiguous over the rows of the chunk. In that form the triangular solve runs over many rows
// at once, and the update of a row i is a sum of contiguous vectors times the elements of its panel
// row. Every element is a plain sum in ascending order of the panel's columns: the result depends
// neither on the tiles nor on the width of the vectors. Chunks are taken from the last to the
// first, so that the rows that a chunk's update needs are finished.
//
//   columns     j0 .. j0+nb | c0 .. c0+63 |         chunk[t*64 + k] = a(c0+k, j0+t)
//   rows  c0 ..  | chunk'   | \           |         update_triangle
//   rows below   | left     | square      |         update_rows
//
// The rows from j0 + nb on are cut into chunks from their front, so that the last one alone may be
// narrower than 64: it has no rows below it, and update_rows always meets full width. Its columns
// in the buffer are filled up with zeros to whole groups of the solve.
//
// The tiles and chunks are chosen for registers and cache: a panel of 32 columns takes 16 KB for a
// chunk of 64 rows, which stays in the first-level cache while all rows below pass by.
#include "kernels/panel.h"

#include "aasubs/record/packed.h"
#include "kernels/lanes.h"

namespace tqnlp {

static constexpr long CHUNK = 64;
static constexpr long TILE = 2 * LANES;    // columns of a register tile
static constexpr long SOLVED = 4 * LANES;  // rows of a chunk that are solved side by side

// Rows of a register tile: eight machine vectors of sums at every width.
template <int W>
constexpr int TILE_ROWS = W / 2;

// to[r][g..g+15] -= sum over t of left[r][t] times row t of the chunk. The sums of the tile stay in
// registers over all nb columns of the panel.
template <int W, int R>
TQNLP_BODY void update_tile(double* const* to, const double* const* left, long g, long nb,
                            const double* chunk) {
  Lanes<W> sums[R][2], factor, low, high;
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    sums[r][0].load(to[r] + g);
    sums[r][1].load(to[r] + g + LANES);
  }
  for (long t = 0; t < nb; ++t) {
    low.load(chunk + t * CHUNK + g);
    high.load(chunk + t * CHUNK + g + LANES);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      factor.fill(left[r][t]);
      sums[r][0].subtract_product(factor, low);
      sums[r][1].subtract_product(factor, high);
    }
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    sums[r][0].store(to[r] + g);
    sums[r][1].store(to[r] + g + LANES);
  }
}

// The rows of the chunk itself: row i ends before its diagonal, and what stands behind it belongs
// to the next row, so that they are worked on in a copy.
template <int W>
TQNLP_BODY void update_triangle(long c0, long width, long j0, long nb, const double* chunk,
                                double* a) {
  constexpr int R = TILE_ROWS<W>;
  alignas(64) double copy[R * CHUNK];
  for (long k = 0; k < R * CHUNK; ++k) copy[k] = 0.0;
  double* to[R];
  const double* left[R];
  for (long k = 0; k < width; k += R) {
    const int rows = width - k < R ? static_cast<int>(width - k) : R;
    for (int r = 0; r < R; ++r) {
      const long i = c0 + k + (r < rows ? r : rows - 1);
      const double* row = a + packed_size(i);
      left[r] = row + j0;
      to[r] = copy + r * CHUNK;
      for (long q = 0; q < i - c0; ++q) to[r][q] = row[c0 + q];
    }
    // A tile is always R rows by sixteen columns: rows that are missing repeat the last one, and
    // what a row gets beyond its diagonal stays in the copy.
    for (long g = 0; g < k + rows - 1; g += TILE) update_tile<W, R>(to, left, g, nb, chunk);
    for (int r = 0; r < rows; ++r) {
      const long i = c0 + k + r;
      double* row = a + packed_size(i);
      for (long q = 0; q < i - c0; ++q) row[c0 + q] = to[r][q];
    }
  }
}

// The rows below the chunk, full width.
template <int W>
TQNLP_BODY void update_rows(long n, long c0, long j0, long nb, const double* chunk, double* a) {
  constexpr int R = TILE_ROWS<W>;
  double* to[R];
  const double* left[R];
  long i = c0 + CHUNK;
  for (; i + R <= n; i += R) {
    for (int r = 0; r < R; ++r) {
      double* row = a + packed_size(i + r);
      left[r] = row + j0;
      to[r] = row + c0;
    }
    for (long g = 0; g < CHUNK; g += TILE) update_tile<W, R>(to, left, g, nb, chunk);
  }
  for (; i < n; ++i) {
    double* row = a + packed_size(i);
    left[0] = row + j0;
    to[0] = row + c0;
    for (long g = 0; g < CHUNK; g += TILE) update_tile<W, 1>(to, left, g, nb, chunk);
  }
}

// chunk := the transposed solution X of X L' = chunk, for width rows, with L the panel's triangle.
// Column t of the factor is column t of the matrix less its part in the columns before it, times
// the reciprocal of the diagonal: the substitution runs over the columns of the panel, 32 rows side
// by side.
template <int W>
TQNLP_BODY void solve_chunk(long width, long nb, const PanelTriangle& triangle, double* chunk) {
  Lanes<W> sum0, sum1, sum2, sum3, factor, x;
  for (long g = 0; g < width; g += SOLVED) {
    for (long t = 0; t < nb; ++t) {
      double* to = chunk + t * CHUNK + g;
      sum0.load(to);
      sum1.load(to + LANES);
      sum2.load(to + 2 * LANES);
      sum3.load(to + 3 * LANES);
      for (long s = 0; s < t; ++s) {
        const double* solved = chunk + s * CHUNK + g;
        factor.fill(triangle.u[s * PANEL + t]);
        x.load(solved);
        sum0.subtract_product(factor, x);
        x.load(solved + LANES);
        sum1.subtract_product(factor, x);
        x.load(solved + 2 * LANES);
        sum2.subtract_product(factor, x);
        x.load(solved + 3 * LANES);
        sum3.subtract_product(factor, x);
      }
      factor.fill(triangle.reciprocal[t]);
      sum0.multiply(factor);
      sum1.multiply(factor);
      sum2.multiply(factor);
      sum3.multiply(factor);
      sum0.store(to);
      sum1.store(to + LANES);
      sum2.store(to + 2 * LANES);
      sum3.store(to + 3 * LANES);
    }
  }
}

// The chunks of a panel, from the last to the first.
template <int W>
TQNLP_BODY void eliminate_body(long n, long j0, long nb, const PanelTriangle* triangle, double* a) {
  alignas(64) double chunk[PANEL * CHUNK];
  const long first = j0 + nb;
  if (first >= n) return;
  for (long c0 = first + (n - first - 1) / CHUNK * CHUNK; c0 >= first; c0 -= CHUNK) {
    const long width = n - c0 < CHUNK ? n - c0 : CHUNK;
    const long padded = (width + SOLVED - 1) / SOLVED * SOLVED;
    for (long k = 0; k < width; ++k) {
      const double* row = a + packed_size(c0 + k) + j0;
      for (long t = 0; t < nb; ++t) chunk[t * CHUNK + k] = row[t];
    }
    for (long t = 0; t < nb; ++t) {
      for (long k = width; k < padded; ++k) chunk[t * CHUNK + k] = 0.0;
    }
    if (triangle != nullptr) {
      solve_chunk<W>(width, nb, *triangle, chunk);
      for (long k = 0; k < width; ++k) {
        double* row = a + packed_size(c0 + k) + j0;
        for (long t = 0; t < nb; ++t) row[t] = chunk[t * CHUNK + k];
      }
    }
    update_triangle<W>(c0, width, j0, nb, chunk, a);
    update_rows<W>(n, c0, j0, nb, chunk, a);
  }
}
TQNLP_DISPATCH(void, eliminate,
               (long n, long j0, long nb, const PanelTriangle* triangle, double* a),
               (n, j0, nb, triangle, a))

void eliminate_panel(long n, long j0, long nb, const PanelTriangle* triangle, double* a) {
  eliminate(n, j0, nb, triangle, a);
}

// One column by axpy along the rows. Column j of a packed matrix is not contiguous, the step from
// row i to row i+1 is i+1 elements; and here nothing is gained from several columns.
template <int W>
TQNLP_BODY void column_body(long n, long j, double* a) {
  // The column is gathered chunk by chunk, so that the rows are updated along their length.
  alignas(64) double chunk[CHUNK];
  for (long c0 = j + 1; c0 < n; c0 += CHUNK) {
    const long width = n - c0 < CHUNK ? n - c0 : CHUNK;
    const double* element = a + packed_size(c0) + j;
    for (long k = 0; k < width; ++k) {
      chunk[k] = *element;
      element += c0 + k + 1;
    }
    double* row = a + packed_size(c0);
    for (long i = c0; i < n; row += ++i) {
      const long length = i - c0 + 1 < width ? i - c0 + 1 : width;
      axpy_lanes<W>(length, row + c0, row + c0, -row[j], chunk);
    }
  }
}
TQNLP_DISPATCH(void, column, (long n, long j, double* a), (n, j, a))

void eliminate_column(long n, long j, double* a) { column(n, j, a); }

}  // namespace tqnlp
