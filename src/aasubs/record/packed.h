// Index of a packed symmetric or triangular matrix: lower triangle by rows.
#pragma once

namespace tqnlp {

// Length of the packed form of a matrix of order n; also the index of element (n, 0).
constexpr long packed_size(long n) { return n * (n + 1) / 2; }

// Index of element (i, j) = (j, i).
constexpr long zisub(long i, long j) { return i >= j ? packed_size(i) + j : packed_size(j) + i; }

}  // namespace tqnlp
