// znlpupd, the product form of R'R (llupdat): R + u v' back to triangular form, in place in the
// packed array.
//
// Method     rotations of neighbouring rows of R turn u upward into a multiple of the first unit
//            vector, which makes R an upper Hessenberg matrix; row 0 takes u v'; rotations downward
//            bring the sub-diagonal to zero again
// Reference  Goldfarb (1976), Mathematics of Computation 30; Gill, Golub, Murray and Saunders
//            (1974), same journal 28
//
// R is packed by columns, so that a rotation of two rows of R joins two neighbours in each packed
// row of L = R'. The rotations upward depend on u alone and are made first; a rotation downward
// needs the columns before it. So all rotations of a packed row are known when the rows before it
// are done, and the matrix is walked once, in the order of its memory.
#include <algorithm>

#include "aasubs/quasinewton/znlpupd.h"
#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/rotation_sweeps.h"

namespace tqnlp {

// Rows that are worked on side by side. Long rows gain by sixteen; the small triangle of each
// block, which is left to scalars, grows with it.
static constexpr long BLOCK = 8;
static constexpr long LARGE_BLOCK = 16;
static constexpr long LARGE_ORDER = 200;

// Elements k and k+1 of a packed row.
static void rotate_neighbours(const RotationSweeps::Rotations& rotations, long k, double* row) {
  const double upper = row[k];
  row[k] = rotations.c[k] * upper + rotations.s[k] * row[k + 1];
  row[k + 1] = rotations.c[k] * row[k + 1] - rotations.s[k] * upper;
}

// Packed row j upward, down to element first. Returns its element on the sub-diagonal of the
// Hessenberg matrix: rotation j joins the diagonal with the zero below it. The last row has none.
static double turn_upward(const RotationSweeps& sweeps, long n, long first, long j, double* row) {
  double below = 0.0;
  if (j < n - 1) {
    below = -sweeps.up.s[j] * row[j];
    row[j] *= sweeps.up.c[j];
  }
  for (long k = j - 1; k >= first; --k) rotate_neighbours(sweeps.up, k, row);
  return below;
}

// Packed row j downward from element first on; then the rotation that takes its sub-diagonal away.
static void turn_downward(const RotationSweeps& sweeps, long n, long first, long j, double below,
                          double* row) {
  for (long k = first; k < j; ++k) rotate_neighbours(sweeps.down, k, row);
  if (j < n - 1) zgivcon(&row[j], &below, &sweeps.down.c[j], &sweeps.down.s[j]);
}

// The cosines upward take the place of the elements of u that are turned away, and the rotations
// downward that of v and gdif, row after row.
void llupdat(long n, double* gdif, double* half, double* uvec, double* vvec, double* wvec) {
  if (std::all_of(uvec, uvec + n, [](double u) { return u == 0.0; })) return;
  RotationSweeps sweeps{{uvec + 1, wvec}, 0.0, vvec, {vvec, gdif}};
  for (long k = n - 2; k >= 0; --k) {
    double c = 0.0;
    zgivcon(&uvec[k], &uvec[k + 1], &c, &wvec[k]);
    sweeps.up.c[k] = c;
  }
  sweeps.factor = uvec[0];
  // A matrix that one large block holds is left to scalars whole.
  const long block = n <= LARGE_BLOCK || n >= LARGE_ORDER ? LARGE_BLOCK : BLOCK;
  // Of n rows those that fill no block come first.
  for (long first = 0, end = 0; first < n; first = end) {
    end = first + (first == 0 && n % block != 0 ? n % block : block);
    double below[LARGE_BLOCK];
    for (long j = first; j < end; ++j) {
      below[j - first] = turn_upward(sweeps, n, first, j, half + packed_size(j));
    }
    if (first > 0) {
      sweep_rows(sweeps, first, block, half);
    } else {
      for (long j = 0; j < end; ++j) half[packed_size(j)] += sweeps.factor * vvec[j];
    }
    for (long j = first; j < end; ++j) {
      turn_downward(sweeps, n, first, j, below[j - first], half + packed_size(j));
    }
  }
}

}  // namespace tqnlp
