// zgivapl: GIVens rotations, APPLy, and zgivcon, their CONstruction (Golub and Van Loan, Matrix
// Computations, sec. 5.1). A rotation can be stored as one number and rebuilt from it (Stewart
// 1976, Numerische Mathematik 25).
//
//   |  c  s | | a |   | r |          r = +-sqrt(a^2 + b^2) with the sign of the larger of the two:
//   | -s  c | | b | = | 0 |          then c > 0 where |a| > |b|, else s > 0
//
// The number that stands for a rotation tells the smaller of c and s, since the root of 1 - c^2 or
// 1 - s^2 is then the other one to full precision: below 1 in modulus it is s, above 1 it is 1/c,
// and 1 is the exchange c = 0, s = 1. The root is positive because the sign of r is fixed as above.
#include <cmath>

#include "kernels/dense.h"
#include "kernels/lanes.h"

namespace tqnlp {

// Smallest cosine whose reciprocal is formed; a smaller one is stored as the exchange that it is to
// working precision.
static constexpr double SMALLEST_COSINE = 2.225073858507202e-305;

double zgivcon(double* pa, double* pb, double* pc, double* ps) {
  const double a = *pa;
  const double b = *pb;
  if (b == 0.0) {
    *pc = 1.0;
    *ps = 0.0;
    return 0.0;
  }
  if (a == 0.0) {
    *pa = b;
    *pb = 0.0;
    *pc = 0.0;
    *ps = 1.0;
    return 1.0;
  }
  const double size_a = std::fabs(a);
  const double size_b = std::fabs(b);
  // The squares are taken of parts of at most 1, so that they do not overflow.
  const double scale = size_a + size_b;
  const double larger = size_a > size_b ? a : b;
  const double part_a = a / scale;
  const double part_b = b / scale;
  const double length = scale * std::sqrt(part_a * part_a + part_b * part_b);
  const double r = larger < 0.0 ? -length : length;
  const double c = a / r;
  const double s = b / r;
  *pa = r;
  *pb = 0.0;
  *pc = c;
  *ps = s;
  if (size_a > size_b) return s;
  return std::fabs(c) > SMALLEST_COSINE ? 1.0 / c : 1.0;
}

// Both vectors contiguous. Each element is two products and one sum in either form, so that the
// strided walk of zgivapl gives the same bits.
template <int W>
TQNLP_BODY void rotate_body(long n, double c, double s, double* x, double* y) {
  Lanes<W> cosine, sine, a, b, t;
  cosine.fill(c);
  sine.fill(s);
  long i = 0;
  for (; i + LANES <= n; i += LANES) {
    a.load(x + i);
    b.load(y + i);
    t = a;
    t.multiply(cosine);
    t.add_product(sine, b);
    t.store(x + i);
    b.multiply(cosine);
    b.subtract_product(sine, a);
    b.store(y + i);
  }
#pragma GCC unroll 1
  for (; i < n; ++i) {
    const double rotated = c * x[i] + s * y[i];
    y[i] = c * y[i] - s * x[i];
    x[i] = rotated;
  }
}
TQNLP_DISPATCH(void, rotate, (long n, double c, double s, double* x, double* y), (n, c, s, x, y))

void zgivapl(long n, long incx, long incy, double c, double s, double* x, double* y) {
  // s = 0 is the identity and c = 0 the exchange, whatever the other number says: rotations of
  // zgivcon have c = 1 and s = 1 there. The exchange never forms 0 * infinity.
  if (n < 1 || s == 0.0) return;
  if (incx < 0) x -= (n - 1) * incx;
  if (incy < 0) y -= (n - 1) * incy;
  if (c == 0.0) {
    for (long i = 0; i < n; ++i, x += incx, y += incy) {
      const double old = *x;
      *x = *y;
      *y = -old;
    }
  } else if (incx == 1 && incy == 1) {
    rotate(n, c, s, x, y);
  } else {
    for (long i = 0; i < n; ++i, x += incx, y += incy) {
      const double rotated = c * *x + s * *y;
      *y = c * *y - s * *x;
      *x = rotated;
    }
  }
}

}  // namespace tqnlp
