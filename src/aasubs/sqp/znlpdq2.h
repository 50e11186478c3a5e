// Nonlinearly constrained QUANEW, technique 11 with nonlinear constraints (source znlpdq2).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x, which need not be feasible. vers 1: averaged weights and steps
// that lower merit or Lagrangian; otherwise weights that only rise, and the watchdog. Returns the
// code of the run.
int znlpdq2(MINSTR* str);

}  // namespace tqnlp
