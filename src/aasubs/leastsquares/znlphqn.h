// znlphqn: HYbrid QUAsi-Newton method for least squares (HYQUAN), technique 12.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs HYQUAN from str->x. Returns the code of the termination test. opro 2 ends the run with exit
// code 9999: the technique works in the null-space frame alone.
int znlphqn(MINSTR* str);

}  // namespace tqnlp
