// Modified Cholesky factorization (source chmod).
#pragma once

namespace tqnlp {

// Factors A + E = LL' in place, E diagonal and zero where A is safely positive definite, after Gill
// and Murray: no pivot is below delt, and no element of the factor larger than what bounds it for a
// definite A of this size.
//   a  in/out: packed, order n; the factor, diagonal included
// Returns the largest element of E; 0 for n below 1.
double chmod(long n, double delt, double* a);

}  // namespace tqnlp
