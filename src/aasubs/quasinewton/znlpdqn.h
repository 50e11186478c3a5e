// QUANEW on the factor: dual quasi-Newton with a line search (source znlpdqn).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs technique 11 from str->x, without nonlinear constraints; returns the code of the termination
// test. Needs updat and linse.
int znlpdqn(MINSTR* str);

}  // namespace tqnlp
