// Inner loops of a rank-one correction of a packed L D L': what the pivots of a panel of columns
// decide for the rows below them.
#pragma once

namespace tqnlp {

// Changes of the columns of a panel. Column k changes the element l of a row, and y of that row:
//   y -= l v,  l += w y            usually
//   l := w y + u l,  y -= l v      (by the old l) where a pivot has grown much
struct ColumnChanges {
  static constexpr long MOST = 64;
  static constexpr long GROUP = 4;
  double v[MOST], w[MOST], u[MOST];
  bool by_ratio[MOST];       // the second form
  bool mixed[MOST / GROUP];  // a column of the group takes it
  void set(long k, double v_of_k, double w_of_k, double u_of_k, bool second_form) {
    v[k] = v_of_k;
    w[k] = w_of_k;
    u[k] = u_of_k;
    by_ratio[k] = second_form;
    mixed[k / GROUP] = second_form || (k % GROUP != 0 && mixed[k / GROUP]);
  }
};

// Applies the first count changes to one row of the panel, which begins at row[0].
void change_row(const ColumnChanges& changes, long count, double* row, double* y);

// The same for rows from to n-1 of the packed lower triangle c; the panel begins at column first.
void change_rows(const ColumnChanges& changes, long count, long from, long n, long first, double* c,
                 double* y);

}  // namespace tqnlp
