// Crossproducts as sums of outer products of the rows.
//
// A row of J is a vector along the columns as it stands, and its elements are the factors of the
// rows of the result: nothing has to be turned. J is taken in blocks of rows that stay in the
// cache, each copied into panels of eight columns, where a group of eight never crosses a line of
// the cache and the last one is as wide as the others. The result is cut into tiles of eight rows
// by one or two panels, whose sums stay in registers while the block goes by.
//
//   panels       0      1      2          panel k = columns 8k .. 8k+7 of the block, row by row
//   rows 0-7  |  t0  |      |      |      t1 = panel 1 as factors, panels 0 and 1 as vectors
//   rows 8-15 |  t1     t1  |      |
//   rows 16-  |  t2     t2  |  t3  |
//
// What a panel holds behind column n-1 is dropped with the sums that it gives.
#include "kernels/crossproduct.h"

#include <algorithm>

#include "aasubs/record/packed.h"
#include "kernels/lanes.h"

namespace tqnlp {

static constexpr long BLOCK = 128;             // most rows of a block
static constexpr long PANELS = 32;             // most panels that stand side by side
static constexpr long STRIP = LANES * PANELS;  // columns of them

namespace {

// Rows of J, and what follows them of it: vectors may be read up to there.
struct Block {
  const double* rows;
  long count;
  const double* end;
};

}  // namespace

// Columns from .. from+7 of a block, n apart, into a panel. A vector that would end behind J is
// made of the elements that are there.
template <int W>
TQNLP_BODY void copy_panel(const Block& block, long n, long from, double* panel) {
  Lanes<W> group;
  long i = 0;
  const double* row = block.rows + from;
  for (; i < block.count && row + LANES <= block.end; ++i, row += n) {
    group.load(row);
    group.store(panel + i * LANES);
  }
  for (; i < block.count; ++i, row += n) {
    for (long c = 0; c < LANES; ++c) panel[i * LANES + c] = row + c < block.end ? row[c] : 0.0;
  }
}

// sums[r*16 + c] := sum over the rows i of a block of left[i*step + r] times element c of row i in
// V panels: the one at right, and the one behind it.
template <int W, int R, int V>
TQNLP_BODY void sum_tile(long count, const double* left, long step, const double* right,
                         double* sums) {
  Lanes<W> sum[R][V], column[V], factor;
#pragma GCC unroll 8
  for (int r = 0; r < R; ++r) {
#pragma GCC unroll 2
    for (int v = 0; v < V; ++v) sum[r][v].clear();
  }
  for (long i = 0; i < count; ++i) {
#pragma GCC unroll 2
    for (int v = 0; v < V; ++v) column[v].load(right + v * BLOCK * LANES);
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r) {
      factor.fill(left[r]);
#pragma GCC unroll 2
      for (int v = 0; v < V; ++v) sum[r][v].add_fused(factor, column[v]);
    }
    left += step;
    right += LANES;
  }
#pragma GCC unroll 8
  for (int r = 0; r < R; ++r) {
#pragma GCC unroll 2
    for (int v = 0; v < V; ++v) sum[r][v].store(sums + (r * 2 + v) * LANES);
  }
}

// The same for 1 to 8 rows, as many at once as the registers hold beside the vectors.
template <int W, int V>
TQNLP_BODY void sum_rows(long rows, long count, const double* left, long step, const double* right,
                         double* sums) {
  constexpr int M = W == 8 ? 8 : W / V;
  for (; rows >= M; rows -= M, left += M, sums += 2 * M * LANES) {
    sum_tile<W, M, V>(count, left, step, right, sums);
  }
  if (rows >= 4) {
    sum_tile<W, 4, V>(count, left, step, right, sums);
    rows -= 4, left += 4, sums += 8 * LANES;
  }
  if (rows >= 2) {
    sum_tile<W, 2, V>(count, left, step, right, sums);
    rows -= 2, left += 2, sums += 4 * LANES;
  }
  if (rows >= 1) sum_tile<W, 1, V>(count, left, step, right, sums);
}

// Adds to rows r0 .. r0+rows-1 of J'J, columns c0 on, what a block gives: left holds the columns of
// J that are the rows, right the panel of c0.
template <int W, int V>
TQNLP_BODY void add_tile(long r0, long rows, long c0, long count, const double* left,
                         const double* right, double* packed) {
  double sums[2 * LANES * LANES];
  sum_rows<W, V>(rows, count, left, LANES, right, sums);
  for (long r = 0; r < rows; ++r) {
    double* to = packed + packed_size(r0 + r) + c0;
    const long width = std::min(r0 + r - c0 + 1, V * LANES);
    for (long c = 0; c < width; ++c) to[c] += sums[r * 2 * LANES + c];
  }
}

template <int W>
TQNLP_BODY void add_block(const Block& block, long n, const double* f, double* gradient,
                          double* packed) {
  alignas(64) double panels[PANELS * BLOCK * LANES];
  alignas(64) double leading[BLOCK * LANES];
  for (long s0 = 0; s0 < n; s0 += STRIP) {
    const long s1 = std::min(s0 + STRIP, n);
    for (long c = s0; c < s1; c += LANES) {
      copy_panel<W>(block, n, c, panels + (c - s0) * BLOCK);
    }
    for (long c = s0; gradient != nullptr && c < s1; c += LANES) {
      double sums[2 * LANES];
      sum_tile<W, 1, 1>(block.count, f, 1, panels + (c - s0) * BLOCK, sums);
      for (long k = 0; k < std::min(n - c, LANES); ++k) gradient[c + k] += sums[k];
    }
    for (long r = s0; packed != nullptr && r < n; r += LANES) {
      const long rows = std::min(n - r, LANES);
      if (r >= s1) copy_panel<W>(block, n, r, leading);
      const double* left = r < s1 ? panels + (r - s0) * BLOCK : leading;
      const long end = std::min(r + LANES, s1);
      for (long c = s0; c < end; c += 2 * LANES) {
        const double* right = panels + (c - s0) * BLOCK;
        if (c + LANES < end) {
          add_tile<W, 2>(r, rows, c, block.count, left, right, packed);
        } else {
          add_tile<W, 1>(r, rows, c, block.count, left, right, packed);
        }
      }
    }
  }
}

template <int W>
TQNLP_BODY void form_body(long m, long n, const double* j, const double* f, double* gradient,
                          double* packed) {
  if (gradient != nullptr) std::fill_n(gradient, n, 0.0);
  if (packed != nullptr) std::fill_n(packed, packed_size(n), 0.0);
  for (long i = 0; i < m; i += BLOCK) {
    add_block<W>({j + i * n, std::min(BLOCK, m - i), j + m * n}, n, f + i, gradient, packed);
  }
}
TQNLP_DISPATCH(void, form,
               (long m, long n, const double* j, const double* f, double* gradient, double* packed),
               (m, n, j, f, gradient, packed))

void crossproduct(long m, long n, const double* j, const double* f, double* gradient,
                  double* packed) {
  form(m, n, j, f, gradient, packed);
}

}  // namespace tqnlp
