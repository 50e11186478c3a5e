// QUANEW on the inverse: quasi-Newton with a line search (source znlpqun).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs technique 10 from str->x, without nonlinear constraints; returns the code of the termination
// test. Needs updat and linse.
int znlpqun(MINSTR* str);

}  // namespace tqnlp
