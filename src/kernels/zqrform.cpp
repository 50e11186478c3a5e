// zqrform: what the reflections of zqrdec do to vectors (QR FORM). Reflection l is I - v v'/v_l
// with v in column l of the factored matrix from row l down; a null column, whose v_l is 0, made
// none. Q' takes them in the order in which zqrdec made them, Q in the opposite one.
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

enum FormJob : int { FORWARD = 3, BACK = 4 };

// Applies reflection l to the p columns of b, along its rows. h: p products.
static void reflect_rows(long m, long l, long p, long incu, long incb, const double* u, double* b,
                         double* h) {
  const double top = u[l * incu + l];
  if (top == 0.0) return;
  vzfdl(0.0, h, p);
  for (long i = l; i < m; ++i) zvxay11(p, h, u[i * incu + l], b + i * incb);
  zvscl11(p, h, -1.0 / top);
  for (long i = l; i < m; ++i) zvxay11(p, b + i * incb, u[i * incu + l], h);
}

static void copy_rows(long from, long to, long p, long inc, const double* source, double* target) {
  for (long i = from; i < to; ++i) zvz111(p, target + i * inc, 1.0, source + i * inc);
}

static void clear_rows(long from, long to, long p, long inc, double* target) {
  for (long i = from; i < to; ++i) vzfdl(0.0, target + i * inc, p);
}

void zqrform(int job, long m, long n, long p, long incu, long incy, const double* u,
             const double* y, double* b, double* rs, double* ab, double* h) {
  if (job != FORWARD && job != BACK) xexit(EXIT_INCONSISTENT, 0);
  const long count = m < n ? m : n;
  if (b != y) copy_rows(0, m, p, incy, y, b);
  if (job == BACK) {
    for (long l = count - 1; l >= 0; --l) reflect_rows(m, l, p, incu, incy, u, b, h);
    return;
  }
  for (long l = 0; l < count; ++l) reflect_rows(m, l, p, incu, incy, u, b, h);
  if (rs != nullptr) {
    clear_rows(0, count, p, incy, rs);
    copy_rows(count, m, p, incy, b, rs);
    zqrform(BACK, m, n, p, incu, incy, u, rs, rs, nullptr, nullptr, h);
  }
  if (ab != nullptr) {
    copy_rows(0, count, p, incy, b, ab);
    clear_rows(count, m, p, incy, ab);
    zqrform(BACK, m, n, p, incu, incy, u, ab, ab, nullptr, nullptr, h);
  }
}

}  // namespace tqnlp
