// Newton-Raphson with line search (source znlpnra).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs technique 3 from str->x; returns the code of the run. Needs ushes (which also leaves the
// gradient), usgrd and a line search in linse.
int znlpnra(MINSTR* str);

}  // namespace tqnlp
