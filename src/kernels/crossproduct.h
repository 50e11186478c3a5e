// Crossproducts of a matrix by rows, for sums of squares.
#pragma once

namespace tqnlp {

// One pass over the m x n matrix J by rows: gradient := J'f (n doubles; null: not formed) and
// packed := J'J (lower triangle by rows, n(n+1)/2; null: not formed). f is m doubles, not read
// without a gradient. Never fails: a NaN, and an overflow as an infinity or NaN, reach the elements
// that they belong to. Each element is a plain sum over blocks of rows and then over the blocks, in
// ascending order; the result does not depend on the processor.
void crossproduct(long m, long n, const double* j, const double* f, double* gradient,
                  double* packed);

}  // namespace tqnlp
