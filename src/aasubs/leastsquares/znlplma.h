// Technique LEVMAR (8): Levenberg-Marquardt.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Minimizes half a sum of squares from str->x. Returns the code of the run.
int znlplma(MINSTR* str);

}  // namespace tqnlp
