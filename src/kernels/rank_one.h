// Inner loops of quasi-Newton updates in packed form: rows of L under rank-one corrections of
// L D L', by what the pivots of a panel of columns decide for them, and a symmetric matrix under
// two products of vectors.
#pragma once

namespace tqnlp {

// Changes of the columns of a panel. Column k changes the element l of a row, and y of that row:
//   y -= l v,  l += w y            usually
//   l := w y + u l,  y -= l v      (by the old l) where a pivot has grown much
struct ColumnChanges {
  static constexpr long MOST = 512;
  static constexpr long GROUP = 8;
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

// One or two corrections that ride in the same pass: element by element the first goes ahead.
struct RowCorrections {
  static constexpr int MOST = 2;
  int count;
  ColumnChanges changes[MOST];
  double* y[MOST];
};

// Applies the changes begin..end-1 to row i of a panel, which begins at row[0].
void change_row(const RowCorrections& corrections, long begin, long end, long i, double* row);

// Applies the changes 0..count-1 to rows from..to-1 of the packed lower triangle c; the panel
// begins at column first.
void change_rows(const RowCorrections& corrections, long count, long from, long to, long first,
                 double* c);

// h(i,j) += a[i] s[j] - b[i] p[j] for j <= i < n, h a packed lower triangle.
void add_products(long n, const double* a, const double* s, const double* b, const double* p,
                  double* h);

}  // namespace tqnlp
