// TRUREG: trust-region Newton (source znlptre).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs the technique from str->x; returns the code of the termination test.
int znlptre(MINSTR* str);

}  // namespace tqnlp
