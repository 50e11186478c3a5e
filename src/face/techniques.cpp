// The table of the techniques, and the rule of the automatic choice.
#include "face/techniques.h"

#include <algorithm>
#include <iterator>

#include "aasubs/record/techniques.h"
#include "aasubs/setup/defaults.h"

namespace tqnlp {

const char* name_of(Technique technique) {
  switch (technique) {
#define TQNLP_NAME(name) \
  case Technique::name:  \
    return #name;
    TQNLP_FACE_TECHNIQUES(TQNLP_NAME)
#undef TQNLP_NAME
  }
  return "unknown";
}

namespace face {

static constexpr int FIRST = 1, JACOBIAN = 3, SECOND = 4;
static constexpr int SIMPLEX = SETTINGS_SIMPLEX;
static constexpr int CONJUGATE = SETTINGS_CONJUGATE;
static constexpr int GENERAL = SETTINGS_GENERAL;

// technique, number, derivatives, settings, residuals, linear rows, nonlinear constraints,
// quadratic
static constexpr TechniqueRow ROWS[] = {
    {Technique::trust_region, TRUREG, SECOND, GENERAL, false, true, false, false},
    {Technique::newton_line_search, NEWRAP, SECOND, GENERAL, false, true, false, false},
    {Technique::newton_ridge, NRRIDG, SECOND, GENERAL, false, true, false, false},
    {Technique::newton_line_search_2, NRLINS, SECOND, GENERAL, false, true, false, false},
    {Technique::quasi_newton, QUANEW_DUAL, FIRST, GENERAL, false, true, true, false},
    {Technique::quasi_newton_inverse, QUANEW, FIRST, GENERAL, false, true, false, false},
    {Technique::double_dogleg, DBLDOG, FIRST, GENERAL, false, true, false, false},
    {Technique::conjugate_gradient, CONGRA, FIRST, CONJUGATE, false, true, false, false},
    {Technique::levenberg_marquardt, LEVMAR, JACOBIAN, GENERAL, true, true, false, false},
    {Technique::hybrid_quasi_newton, HYQUAN, JACOBIAN, GENERAL, true, true, false, false},
    {Technique::gauss_newton, GAUNEW, JACOBIAN, GENERAL, true, false, false, false},
    {Technique::nelder_mead, NMSIMP, FIRST, SIMPLEX, false, false, false, false},
    {Technique::nelder_mead_2, NMSIM2, FIRST, SIMPLEX, false, false, false, false},
    {Technique::cobyla, NMSIMP, FIRST, SIMPLEX, false, true, true, false},
    {Technique::quadratic_active_set, QUADAS, SECOND, GENERAL, false, true, false, true},
    {Technique::quadratic_barrier, QUADAS, SECOND, GENERAL, false, true, false, true},
    {Technique::watchdog, VMCWD, FIRST, GENERAL, false, true, true, false},
};

const TechniqueRow& row_of(Technique technique) {
  return *std::find_if(std::begin(ROWS), std::end(ROWS),
                       [=](const TechniqueRow& row) { return row.technique == technique; });
}

static bool takes(const TechniqueRow& row, const ProblemData& problem, const Constraints& c) {
  if (row.squares && problem.kind != Kind::least_squares) return false;
  if (row.quadratic && problem.kind != Kind::quadratic) return false;
  return (row.general || c.rows.empty()) && (row.nonlinear || c.nonlinear.empty());
}

// What a technique that does not take the problem lacks.
static const char* missing_in(const TechniqueRow& row, const ProblemData& problem,
                              const Constraints& c) {
  if (row.squares && problem.kind != Kind::least_squares) return "objectives without residuals";
  if (row.quadratic && problem.kind != Kind::quadratic) return "objectives that are no quadratic";
  return row.nonlinear || c.nonlinear.empty() ? "linear rows" : "nonlinear constraints";
}

static Technique automatic_choice(const ProblemData& problem, const Constraints& c,
                                  const Options& options) {
  static constexpr double FEW_DIGITS = 5.0;
  static constexpr long MODERATE = 500;  // a factorization an iteration
  static constexpr long LARGE = 300;     // a matrix of differences of gradients
  const bool general = !c.rows.empty() || !c.nonlinear.empty();
  const bool noisy = options.objective_digits.value_or(FEW_DIGITS) < FEW_DIGITS;
  const bool sparse = problem.pattern.has_value();
  if (problem.kind == Kind::least_squares && c.nonlinear.empty())
    return Technique::levenberg_marquardt;
  if (problem.kind == Kind::quadratic && c.nonlinear.empty())
    return Technique::quadratic_active_set;
  if (problem.gradient == nullptr && noisy)
    return general ? Technique::cobyla : Technique::nelder_mead;
  if (!c.nonlinear.empty()) return Technique::quasi_newton;
  if (problem.gradient != nullptr && problem.hessian != nullptr) {
    if (sparse && c.rows.empty()) return Technique::newton_line_search;
    if (problem.n <= MODERATE) return Technique::trust_region;
  }
  if (problem.n > LARGE) return Technique::conjugate_gradient;
  // The inverse solves as much, in two thirds of the time of the factor.
  return c.rows.empty() ? Technique::quasi_newton_inverse : Technique::quasi_newton;
}

const TechniqueRow& choose_technique(const ProblemData& problem, const Constraints& constraints,
                                     const Options& options) {
  if (options.technique == Technique::automatic)
    return row_of(automatic_choice(problem, constraints, options));
  if (std::string(name_of(options.technique)) == "unknown")
    refuse("Options::technique", "a number that is none of them", "one of Technique");
  const TechniqueRow& asked = row_of(options.technique);
  if (takes(asked, problem, constraints)) return asked;
  std::string others;
  for (const TechniqueRow& row : ROWS)
    if (takes(row, problem, constraints))
      others += (others.empty() ? "" : ", ") + std::string(name_of(row.technique));
  refuse("Options::technique",
         std::string(name_of(options.technique)) + ", which does not take " +
             missing_in(asked, problem, constraints),
         "one of " + others);
}

}  // namespace face
}  // namespace tqnlp
