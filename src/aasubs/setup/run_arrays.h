// The arrays of a run: one ordered table says which there are, under what condition and how long;
// allocation and release both go by it. Every caller that fills a record takes them here.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// What sizes depend on beside the record.
struct ArrayRequest {
  const char* caller = "";         // who asks, for the line that tells of much memory
  long nonzeros = 0;               // coefficients of the linear constraints
  bool jacobian_supplied = false;  // least squares: the Jacobian is not made of differences
  bool triples = false;            // a quadratic's matrix is given as rows (i, j, value)
  bool late_hessian = false;       // the form of the Hessian is chosen at the start point
};

// Takes every array that the filled record asks for, zero-filled, each in one piece, and sets the
// references into blocks that hold several. Least squares opens the file of the Jacobian first, and
// ends the call with xexit(1020) when the host refuses it. Returns 0, or 1 with a line in the log
// when the host refuses memory; what was taken until then stands, for release_arrays. A late
// Hessian's matrices are left to allocate_matrices.
int allocate_arrays(MINSTR* str, const ArrayRequest& request);

// Takes hess, half and hpro in the form hfrm. Returns as allocate_arrays.
int allocate_matrices(MINSTR* str, ArrayRequest request);

// Does the packed matrix of a quadratic live in utquad, and not in hess? triples: as above.
bool matrix_in_file(const MINSTR* str, bool triples);

// Gives every array back, in the order of the table, closes the files, and clears the references.
// Good for a record with some of its arrays, or none.
void release_arrays(MINSTR* str);

}  // namespace tqnlp
