// Runs of a technique over the whole problem library, judged by one table of exceptions a
// technique.
#pragma once

#include "techniques/outcome.h"

namespace tqnlp::test {

// How a run ends where no single code is sure.
inline constexpr int SOME_CODE = 200;  // not solved
inline constexpr int CLOSE_CALL =
    201;                          // rounding decides: solved, or not within limits or by GCONV
inline constexpr int NEAR = 202;  // near the minimum; a code of convergence, -5 or -8

inline constexpr int ANY = 0;  // digit of a variant: every update, every line search

// What does not end at a minimum to 1e-6 with a code of convergence. Variants are tupd * 10 + tlin,
// or whatever two digits tell the runs of a technique apart. The reasons were found in iteration
// histories and by runs with other limits and tolerances; the first row that fits a run counts.
struct Exception {
  std::vector<const char*> problems;
  std::vector<int> variants;
  int code;
  std::string reason;
  double within = 0.0;  // NEAR: of the minimum
};

using Exceptions = std::vector<Exception>;

const Exception* find(const Exceptions& rows, const std::string& problem, int variant);

// What every run must keep: feasibility, the objective and iterations of its report, the end that
// the table says.
void judge(const Problem& p, const Outcome& run, const Exception* exception);

// First-order optimality of a solved problem, with multipliers of the right signs. by_gconv: what
// may be left of the gradient, relative, after a stop by GCONV.
void expect_optimal(const Problem& p, const Outcome& run, double by_gconv = 1e-3);

// The subroutine over the whole library with its derivative modules. Also: the counts of the report
// are those of the modules (but for what the driver evaluates before the technique starts), and,
// with twice, a second call without a report gives the same bits. Returns the calls of the
// objective and its gradient.
long run_library(const std::string& subroutine, const Matrix& opt, const Exceptions& exceptions,
                 int variant, bool twice, double by_gconv = 1e-3);

// An option vector with the given elements, from 1; the report's summary is asked for.
Matrix options_of(std::initializer_list<std::pair<int, double>> elements);

}  // namespace tqnlp::test
