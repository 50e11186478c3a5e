// NRLINS: Newton-Raphson with a LINe Search, the older code (source znlpnrl).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x; returns the code of the termination test.
int znlpnrl(MINSTR* str);

}  // namespace tqnlp
