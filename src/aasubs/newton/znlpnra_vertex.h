// Turning a step away from the constraints that cut it to nothing (source znlpnra_vertex).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// znlpprj: PRoJects a blocked Newton step away from a vertex, on its way to steepest descent.
//   reads   x = xold, the step in sdir (with linear constraints its reduced form in spro), its
//   limit
//           in stub, the gradient (grad, with linear constraints gpro)
//   writes  sdir, spro, stub: the direction with the longest step that was found
// Returns 2 a turned direction allows a longer step, 1 steepest descent does, 0 nothing does (then
// all are as given). Uses work and gold.
int znlpprj(MINSTR* str);

}  // namespace tqnlp
