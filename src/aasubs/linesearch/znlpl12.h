// znlpl12: the line search of HYQUAN (tlin 12), between the Goldstein limits.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// The contract of the searches in znlplis.h, by values and slopes (gradient at xold in gold), for
// any technique. In HYQUAN fold holds the residuals at xold and, behind them, J sdir: corrections
// of a first step then come from a model of the residuals.
// Returns 0; or, with x, crit and gmax as at xold and alfa 0: -1 the direction is not downhill, -2
// no acceptable step, -3 ten evaluations in a row failed, -11 the best point could not be evaluated
// a second time.
int znlpl12(MINSTR* str);

}  // namespace tqnlp
