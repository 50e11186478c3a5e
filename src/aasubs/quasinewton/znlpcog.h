// Conjugate-gradient technique (source znlpcog).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Runs technique 13 from str->x; returns the code of the run. A gradient is needed (usgrd), no
// matrix. nres 0 becomes the technique's own restart period, sigm missing 0.1.
int znlpcog(MINSTR* str);

}  // namespace tqnlp
