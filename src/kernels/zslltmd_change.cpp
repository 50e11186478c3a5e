// zslltmd, changes: a Cholesky factor after a term of rank one, or after a variable came or went.
//
// Rank one (zslltf5) after Gill, Golub, Murray and Saunders (1974), Mathematics of Computation 28,
// method C1 by rows of U = L': only the rows on a path of the elimination tree change (Davis and
// Hager 1999, SIAM J. Matrix Anal. Appl. 20). With A = U'U and the row r of U
//
//   | d  x' |'| d  x' |            | w |          |  cos   sin |   rotations for sigma > 0, and
//   | 0  U2 | | 0  U2 |  + sigma   | v | (w v')    | -sin   cos |   hyperbolic ones for sigma < 0
//
// A row comes in or goes out after Davis and Hager (2005), SIAM J. Matrix Anal. Appl. 26: with the
// place k in the middle,
//
//        | U11 u12 U13 |     taking k out leaves U11, U13 and the factor of U33'U33 + u23 u23';
//    U = |     u22 u23 |     bringing it in solves U11'u12 = a12, finds u22 and u23, and takes
//        |         U33 |     u23 u23' off again.
#include <algorithm>
#include <cmath>

#include "host/process.h"
#include "kernels/sparse.h"

namespace tqnlp {

// Row r must hold every place behind r where w is not zero.
static void check_pattern(long n, long r, const long* ju, const double* w) {
  long present = 0, held = 0;
  for (long c = r + 1; c < n; ++c) present += w[c] != 0.0;
  for (long k = ju[r]; k < ju[r + 1]; ++k) held += w[ju[k]] != 0.0;
  if (present != held) xexit(EXIT_INCONSISTENT, 0);
}

// The factor of U'U + sign w w', rows from first on.
static int change_rank_one(long first, long n, double sign, double sing, const long* ju, double* u,
                           double* w) {
  const double limit = sing > 0.0 ? sing : 0.0;
  bool checked = false;
  // A removed place has no part in the product.
  for (long r = first; r < n; ++r)
    if (u[r] == 0.0) w[r] = 0.0;
  for (long r = first; r < n; ++r) {
    if (w[r] == 0.0) continue;
    if (!checked) check_pattern(n, r, ju, w);
    checked = true;
    const double old = 1.0 / u[r];
    // For sign < 0, (old - w)(old + w) keeps its digits where old^2 - w^2 would cancel.
    const double square = sign > 0.0 ? 0.0 : (old - w[r]) * (old + w[r]);
    if (sign < 0.0 && !(square > limit)) return static_cast<int>(r + 1);
    const double root = sign > 0.0 ? std::hypot(old, w[r]) : std::sqrt(square);
    const double ratio = root / old, tangent = w[r] / old;
    for (long k = ju[r]; k < ju[r + 1]; ++k) {
      const long c = ju[k];
      const double changed = (u[k] + sign * tangent * w[c]) / ratio;
      w[c] = ratio * w[c] - tangent * changed;
      u[k] = changed;
    }
    u[r] = 1.0 / root;
  }
  return 0;
}

int zslltf5(long n, double sigma, double sing, const long* ju, double* u, double* w) {
  if (n <= 0 || sigma == 0.0) return 0;
  const double root = std::sqrt(std::fabs(sigma));
  for (long r = 0; r < n; ++r) w[r] *= root;
  return change_rank_one(0, n, sigma > 0.0 ? 1.0 : -1.0, sing, ju, u, w);
}

// The position of column c in row r, -1 if it has none.
static long find_column(const long* ju, long r, long c) {
  const long* end = ju + ju[r + 1];
  const long* found = std::lower_bound(ju + ju[r], end, c);
  return found != end && *found == c ? found - ju : -1;
}

// Solves U11'u12 = a12 in w and brings it into the factor; w[k] becomes the square of the pivot and
// w behind k the right side of row k.
static void enter_column(long k, const long* ju, double* u, double* w) {
  for (long r = 0; r < k; ++r) {
    if (w[r] == 0.0) continue;
    if (u[r] == 0.0) {
      w[r] = 0.0;
      continue;
    }
    const double x = w[r] * u[r];
    const long position = find_column(ju, r, k);
    if (position < 0) xexit(EXIT_INCONSISTENT, 0);
    for (long q = ju[r]; q < ju[r + 1]; ++q)
      if (ju[q] != k) w[ju[q]] -= u[q] * x;
    w[k] -= x * x;
    u[position] = x;
  }
}

int zslltra(long n, long k, double sing, const long* ju, double* u, double* w) {
  if (k < 0 || k >= n) return 0;
  const double limit = sing > 0.0 ? sing : 0.0;
  enter_column(k, ju, u, w);
  if (!(w[k] > limit)) {
    for (long r = 0; r < k; ++r)
      if (const long position = find_column(ju, r, k); position >= 0) u[position] = 0.0;
    return static_cast<int>(k + 1);
  }
  u[k] = 1.0 / std::sqrt(w[k]);
  for (long q = ju[k]; q < ju[k + 1]; ++q) {
    const long c = ju[q];
    // Columns that are out stay zero.
    w[c] = u[c] != 0.0 ? w[c] * u[k] : 0.0;
    u[q] = w[c];
  }
  return change_rank_one(k + 1, n, -1.0, sing, ju, u, w);
}

void zslltrd(long n, long k, const long* ju, double* u, double* w) {
  if (k < 0 || k >= n) return;
  for (long r = 0; r < k; ++r)
    if (const long position = find_column(ju, r, k); position >= 0) u[position] = 0.0;
  std::fill(w + k, w + n, 0.0);
  for (long q = ju[k]; q < ju[k + 1]; ++q) {
    w[ju[q]] = u[q];
    u[q] = 0.0;
  }
  u[k] = 0.0;
  change_rank_one(k + 1, n, 1.0, 0.0, ju, u, w);
}

}  // namespace tqnlp
