// The elements of a Hessian in the form in use (hfrm 0 packed, 1 sparse, 2 diagonal).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Elements of hess.
long hessian_length(const MINSTR* str);

// Place of element (i, j), i not below j, in hess; -1 outside the pattern.
long hessian_place(const MINSTR* str, long i, long j);

}  // namespace tqnlp
