// Words for the ways in which a run can end, and for what the check of its point finds. What each
// code means in the record stands in docs/return-codes.md.
#include <algorithm>
#include <cmath>
#include <iterator>
#include <sstream>

#include "tqnlp/optimize.hpp"

namespace tqnlp {

namespace {

struct Words {
  Status::Ending ending;
  const char* name;
  const char* why;
  const char* now;
  const char* next;
};

}  // namespace

static constexpr const char* CONVERGED = "x is the point that the criterion was met at.";
static constexpr const char* BEST = "x is the best feasible point that was evaluated.";
static constexpr const char* NOTHING = "Nothing; Result::optimality tells what the point is worth.";

#define TQNLP_WORDS(name, why, now, next) \
  { Status::name, #name, why, now, next }
static constexpr Words WORDS[] = {
    TQNLP_WORDS(finished, "The technique ended without a criterion.", BEST,
                "Another technique, or tolerances that ask for something."),
    TQNLP_WORDS(objective_target_met, "The objective is as good as Options::objective_target.",
                CONVERGED, "A lower target if the minimum itself is wanted."),
    TQNLP_WORDS(objective_tolerance_met,
                "The objective changed by no more than Options::objective_tolerance.", CONVERGED,
                NOTHING),
    TQNLP_WORDS(gradient_tolerance_met,
                "No element of the projected gradient exceeds Options::gradient_tolerance.",
                CONVERGED, NOTHING),
    TQNLP_WORDS(step_tolerance_met, "The last step, or the simplex, is as short as asked.",
                CONVERGED, "A start from here, to see whether it goes on."),
    TQNLP_WORDS(relative_objective_met,
                "The objective changed by no more than a share of its size.", CONVERGED, NOTHING),
    TQNLP_WORDS(relative_gradient_met,
                "The decrease that is still predicted is a small share of the objective.",
                CONVERGED, NOTHING),
    TQNLP_WORDS(relative_step_met, "No parameter moved by more than a share of its size.",
                CONVERGED, "A start from here, to see whether it goes on."),
    TQNLP_WORDS(predicted_reduction_met,
                "The predicted decrease, or the spread of the simplex, is as small as asked.",
                CONVERGED, NOTHING),
    TQNLP_WORDS(scaled_gradient_met, "The scaled gradient of the least squares is small.",
                CONVERGED, NOTHING),
    TQNLP_WORDS(all_parameters_active, "Active constraints fix every parameter.",
                "x is a vertex of the constraints.",
                "Nothing, unless a multiplier has the wrong sign."),
    TQNLP_WORDS(close_to_a_criterion,
                "A limit ended the run while a criterion held, though not often enough in a row.",
                BEST, "A start from here with a larger limit."),
    TQNLP_WORDS(no_value_at_start, "The objective or the constraints have no value at the start.",
                "x is the start.", "A start where the functions give finite numbers."),
    TQNLP_WORDS(no_derivative_at_start, "A derivative has no value at the start.",
                "x is the start.",
                "A look at the derivative with Options::check_derivatives, or to leave it out."),
    TQNLP_WORDS(no_value, "The objective had no value where the run could not do without it.", BEST,
                "Bounds that keep x where the functions can be evaluated."),
    TQNLP_WORDS(no_derivative, "Derivatives had no value where the run could not do without them.",
                BEST, "A look at the derivative with Options::check_derivatives."),
    TQNLP_WORDS(no_progress, "No step improves the objective any more.", BEST,
                "If Result::optimality is content, nothing; otherwise a check of the derivatives, "
                "other units of the parameters, another start."),
    TQNLP_WORDS(
        feasibility_lost, "A step left the constraints and no way back was found.", BEST,
        "A larger feasibility tolerance, or a look for constraints that nearly contradict."),
    TQNLP_WORDS(start_not_feasible, "The technique does not take the start for feasible.", BEST,
                "Another technique, or a look at the constraints."),
    TQNLP_WORDS(count_limit, "The limit of iterations or calls was reached.", BEST,
                "Larger limits, or a start from here."),
    TQNLP_WORDS(time_limit, "The limit of time was reached.", BEST,
                "More time, or a start from here."),
    TQNLP_WORDS(no_feasible_start, "No point was found that satisfies the constraints.",
                "x is the start.", "Other constraints, a larger tolerance, another start."),
    TQNLP_WORDS(function_failed, "A function failed in a way that ends the run.", BEST,
                "A look at the log."),
    TQNLP_WORDS(stopped_by_caller, "Options::progress asked to stop.", BEST, "A start from here."),
    TQNLP_WORDS(unbounded, "The objective gets better without end, as far as the run went.", BEST,
                "Bounds, a constraint that is missing, or a look at the sign of the objective."),
    TQNLP_WORDS(interrupted_by_exception, "A function threw an exception.", BEST,
                "A look at the exception."),
};
#undef TQNLP_WORDS

static const Words& words_of(Status::Ending ending) {
  const auto* found = std::find_if(std::begin(WORDS), std::end(WORDS),
                                   [=](const Words& row) { return row.ending == ending; });
  return found == std::end(WORDS) ? WORDS[0] : *found;
}

const char* Status::name() const { return words_of(ending).name; }
const char* Status::why() const { return words_of(ending).why; }
const char* Status::now() const { return words_of(ending).now; }
const char* Status::next() const { return words_of(ending).next; }

std::string Status::sentence() const {
  return std::string(why()) + " " + now() + " To try: " + next();
}

std::string Optimality::sentence() const {
  std::ostringstream text;
  text.precision(3);
  switch (verdict) {
    case optimal:
      text << "The optimality conditions hold";
      text << (curvature_known ? ", and no direction of negative curvature is seen." : ".");
      break;
    case not_feasible:
      text << "The point violates a constraint, by " << feasibility << " relative to its side.";
      break;
    case not_stationary:
      text << "The gradient is not that of active constraints: " << stationarity << " is left.";
      break;
    case negative_curvature:
      text << "The point is a saddle: the objective gets better along a direction of negative "
              "curvature.";
      break;
    case not_known:
      text << "The point could not be checked: a value or derivative could not be had there.";
      break;
  }
  return text.str();
}

}  // namespace tqnlp
