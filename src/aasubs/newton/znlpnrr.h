// NRRIDG: Newton-Raphson with ridging (source znlpnrr).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x; returns the code of the termination test.
int znlpnrr(MINSTR* str);

}  // namespace tqnlp
