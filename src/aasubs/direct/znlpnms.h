// NMSIMP: Nelder-Mead simplex search (source znlpnms).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x, with bounds or without any constraint; returns the code of the
// run.
int znlpnms(MINSTR* str);

}  // namespace tqnlp
