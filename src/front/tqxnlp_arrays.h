// The arrays of a run (source tqxnlp): one ordered table says which there are, under what condition
// and how long; allocation and release both go by it.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Takes every array that the filled record asks for, zero-filled, each in one piece, and sets the
// references into blocks that hold several. nonzeros: coefficients of the linear constraints, as
// getncon counted them. Least squares opens the file of the Jacobian first, and ends the call with
// xexit(1020) when the host refuses it. Returns 0, or 1 with a line in the log when the host
// refuses memory; what was taken until then stands, for release_arrays. The matrices of a Hessian
// whose form is chosen only at the start point (hrow) are left to allocate_matrices.
int allocate_arrays(MINSTR* str, long nonzeros);

// Takes hess, half and hpro in the form hfrm. Returns as allocate_arrays.
int allocate_matrices(MINSTR* str);

// Does the packed matrix of a quadratic live in utquad, and not in hess?
bool matrix_in_file(const MINSTR* str);

// Gives every array back, in the order of the table, closes the files, and clears the references.
// Good for a record with some of its arrays, or none.
void release_arrays(MINSTR* str);

}  // namespace tqnlp
