// NMSIM2: Nelder-Mead simplex search, second form (source znlpnm2).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x, with bounds or without any constraint; returns the code of the
// run.
int znlpnm2(MINSTR* str);

}  // namespace tqnlp
