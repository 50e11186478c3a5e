// ztriprm: TRIangular factor PeRMuted, the factor of a symmetric matrix after one variable has
// moved to another place.
//
// R is upper triangular, packed by columns. The column moves by exchanges with its neighbour; each
// one leaves a single element below the diagonal, which a Givens rotation of two rows removes:
//
//   x x x x       x x x x      columns j, j+1 exchanged: the element + arises at (j+1, j),
//     x x x  ->     x x x      the rotation of rows j and j+1 removes it again
//       x x         + 0 x
//         x             x
//
// The same number of rotations as moving all columns at once (Dongarra and others 1979, LINPACK
// Users' Guide, chapter 10), without room for a column put aside.
#include <utility>

#include "aasubs/record/packed.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/indefinite.h"

namespace tqnlp {

// Exchanges columns j and j+1 of R and makes it triangular again, rows of z alike. The cosine and
// the sine go to cs.
static void exchange_columns(long n, long j, long nz, long incz, double* r, double* z, double* cs) {
  double* left = r + packed_size(j);
  double* right = r + packed_size(j + 1);
  for (long i = 0; i <= j; ++i) std::swap(left[i], right[i]);
  double below = right[j + 1];
  right[j + 1] = 0.0;
  zgivcon(&left[j], &below, &cs[0], &cs[1]);
  double* column = right;
  for (long c = j + 1; c < n; column += ++c)
    zgivapl(1, 1, 1, cs[0], cs[1], column + j, column + j + 1);
  zgivapl(nz, incz, incz, cs[0], cs[1], z + j, z + j + 1);
}

void ztriprm(int job, long n, long nz, long incz, long k1, long k2, double* r, double* z,
             double* dcds) {
  if (k2 <= k1) xexit(EXIT_INCONSISTENT, 0);
  for (long i = 0; i < k2 - k1; ++i)
    exchange_columns(n, job == 1 ? k1 + i : k2 - 1 - i, nz, incz, r, z, dcds + 2 * i);
}

}  // namespace tqnlp
