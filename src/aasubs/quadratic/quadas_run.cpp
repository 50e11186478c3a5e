// What the two forms of QUADAS share. Contracts in quadas_run.h.
#include "aasubs/quadratic/quadas_run.h"

#include "aasubs/loop/loads.h"

namespace tqnlp {

bool cycling(const MINSTR* str, const QuadasRun& run) { return run.idle > str->nvar; }

double lot(QuadasRun& run) {
  run.lots = run.lots * 1664525U + 1013904223U;
  return static_cast<double>(run.lots >> 8U) + 1.0;
}

bool exhausted(const MINSTR* str, const QuadasRun& run) {
  return run.idle > 100 + 20 * (str->nvar + str->ncon);
}

double value_rounding(const MINSTR* str, const QuadasRun& run) {
  return (10.0 + static_cast<double>(str->nvar)) * EPS * run.value_size;
}

Next at_solution(MINSTR* str, QuadasRun& run) {
  static constexpr int WITHOUT_HISTORY = 2;
  str->chac = 0;
  if (!run.untested) start_iteration(str);
  const bool last_word = !run.untested;
  run.untested = false;
  run.ij = str->uster(str, WITHOUT_HISTORY);
  if (run.ij != 0) return Next::stop;
  if (!last_word) return Next::solve_again;
  run.ij = NO_PROGRESS;
  return Next::finish;
}

}  // namespace tqnlp
