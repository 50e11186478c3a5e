// Rows of L under a rank-one correction.
//
// Along a row y is a running difference: y behind column k is y before the panel less the sum of
// l v up to k. The sums of four columns are formed side by side, as (l0), (l0 + l1), (l2) + ...,
// so that only one subtraction a group waits for the group before it. The grouping is the same at
// every vector width.
//
//   lane                    0      1        2              3
//   l v                     p0     p1       p2             p3
//   first step, neighbours  p0     p0+p1    p2             p2+p3
//   second step, halves     p0     p0+p1    (p0+p1)+p2     (p0+p1)+(p2+p3)
//   y behind the column     y less the sum of its lane; the last lane goes to the next group
//
// Column by column the same row would be a chain of one product and one difference a column, each
// waiting for the one before. Which pivots and multipliers the changes hold is the caller's matter:
// a panel of columns is decided on its own rows first and then carried through the rows below in
// one walk along each of them.
#include "kernels/rank_one.h"

#include "aasubs/record/packed.h"
#include "kernels/lanes.h"

namespace tqnlp {

typedef double Group __attribute__((vector_size(32), aligned(8), may_alias));

// The changes of columns begin..end-1 in their plain order. It serves what does not fill a group
// and groups with a column of the second form, which needs y before it.
TQNLP_BODY void change_one_by_one(const ColumnChanges& changes, long begin, long end, double* row,
                                  double& y) {
  for (long k = begin; k < end; ++k) {
    const double l = row[k];
    const double before = y;
    y -= l * changes.v[k];
    row[k] = changes.by_ratio[k] ? before * changes.w[k] + l * changes.u[k] : l + changes.w[k] * y;
  }
}

// Four changes of the first form; y is that of the row in all lanes, before and after. The shuffles
// move sums to higher lanes: 0 to 3 name the lanes of the zero vector, 4 to 7 those of sum.
TQNLP_BODY void change_group(const double* v, const double* w, double* row, Group& y) {
  const Group none = {};
  const Group l = *reinterpret_cast<const Group*>(row);
  Group sum = l * *reinterpret_cast<const Group*>(v);
  sum += __builtin_shufflevector(none, sum, 0, 4, 0, 6);
  sum += __builtin_shufflevector(none, sum, 0, 0, 5, 5);
  *reinterpret_cast<Group*>(row) = l + *reinterpret_cast<const Group*>(w) * (y - sum);
  y -= __builtin_shufflevector(sum, sum, 3, 3, 3, 3);
}

// The first count changes of one row: whole groups, then the rest. A row that meets both kinds of
// groups hands y over between them.
TQNLP_BODY void change_one_row(const ColumnChanges& changes, long count, double* row, double& y) {
  static constexpr long GROUP = ColumnChanges::GROUP;
  const long grouped = count - count % GROUP;
  Group all = {y, y, y, y};
  for (long k = 0; k < grouped; k += GROUP) {
    if (changes.mixed[k / GROUP]) {
      double one = all[0];
      change_one_by_one(changes, k, k + GROUP, row, one);
      all = Group{one, one, one, one};
    } else {
      change_group(changes.v + k, changes.w + k, row + k, all);
    }
  }
  y = all[0];
  change_one_by_one(changes, grouped, count, row, y);
}

template <int W>
TQNLP_BODY void row_by_groups_body(const ColumnChanges& changes, long count, double* row,
                                   double* y) {
  change_one_row(changes, count, row, *y);
}
TQNLP_DISPATCH(void, row_by_groups,
               (const ColumnChanges& changes, long count, double* row, double* y),
               (changes, count, row, y))

template <int W>
TQNLP_BODY void rows_by_groups_body(const ColumnChanges& changes, long count, long from, long n,
                                    double* row, double* y) {
  for (long i = from; i < n; ++i) {
    change_one_row(changes, count, row, y[i]);
    row += i + 1;
  }
}
TQNLP_DISPATCH(void, rows_by_groups,
               (const ColumnChanges& changes, long count, long from, long n, double* row,
                double* y),
               (changes, count, from, n, row, y))

void change_row(const ColumnChanges& changes, long count, double* row, double* y) {
  if (count < ColumnChanges::GROUP) {
    // Too short for a group: the call through the dispatch is spared.
    change_one_by_one(changes, 0, count, row, *y);
  } else {
    row_by_groups(changes, count, row, y);
  }
}

void change_rows(const ColumnChanges& changes, long count, long from, long n, long first, double* c,
                 double* y) {
  if (count > 0) rows_by_groups(changes, count, from, n, c + packed_size(from) + first, y);
}

}  // namespace tqnlp
