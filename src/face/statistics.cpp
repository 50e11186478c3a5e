// Statistics of a result: what it remembers of its run, the members of Result, and their words.
#include "face/statistics.h"

#include <algorithm>
#include <cmath>
#include <ostream>
#include <sstream>

namespace tqnlp {

namespace face {

std::shared_ptr<const Origin> remember(const Problem& problem, const Shared& shared,
                                       Technique technique) {
  auto origin = std::make_shared<Origin>(Origin{problem, shared.options, technique, shared.units});
  Options& kept = origin->options;
  kept.progress = nullptr;
  kept.sink = nullptr;
  kept.partial = nullptr;
  kept.report = 0;
  kept.check_derivatives = kept.leave_saddles = false;
  kept.objective_target = kept.iterations = kept.calls = kept.seconds = std::nullopt;
  return origin;
}

const Origin& origin_of(const Result& result) {
  if (result.origin == nullptr) refuse("result", "one that no run has made", "a result of solve");
  return *result.origin;
}

void check_likelihood(const Likelihood& likelihood) {
  if (!(likelihood.multiple > 0.0) || !std::isfinite(likelihood.multiple))
    refuse("Likelihood::multiple", shown(likelihood.multiple), "a positive number");
  const double variance = likelihood.residual_variance.value_or(1.0);
  if (!(variance > 0.0) || !std::isfinite(variance))
    refuse("Likelihood::residual_variance", shown(variance), "a positive number");
}

void rethrow_or_end(const std::exception_ptr& thrown, int exit_code, std::vector<LogRecord>& log) {
  if (thrown != nullptr) std::rethrow_exception(thrown);
  if (exit_code != 0)
    throw FatalError(exit_code,
                     "statistics could not go on (exit code " + std::to_string(exit_code) + ")",
                     std::move(log));
}

}  // namespace face

Covariance Result::covariance(Variance kind, const Likelihood& likelihood) const {
  return face::covariance_of(*this, kind, likelihood);
}

std::vector<double> Result::jacobian() const { return face::jacobian_of(*this); }

Limits Result::limits(double level, LimitKind kind) const {
  LimitOptions options;
  options.levels = {level};
  options.kind = kind;
  return limits(options);
}

Limits Result::limits(const LimitOptions& options) const { return face::limits_of(*this, options); }

Profile Result::profile(long parameter, double level, const Likelihood& likelihood) const {
  return face::profile_of(*this, parameter, level, likelihood);
}

// ---- Words --------------------------------------------------------------------------------------

double Covariance::operator()(long i, long j) const {
  return matrix.at(static_cast<std::size_t>(i) * states.size() + static_cast<std::size_t>(j));
}

double Covariance::correlation(long i, long j) const {
  const double product =
      errors.at(static_cast<std::size_t>(i)) * errors.at(static_cast<std::size_t>(j));
  return product > 0.0 ? (*this)(i, j) / product : missing;
}

std::string Covariance::sentence() const {
  switch (ending) {
    case known:
      return "The covariance is known.";
    case not_determined:
      return "The data do not determine all parameters: some can be moved without an effect on the "
             "objective, and have no variance.";
    case not_a_minimum:
      return "The Hessian has a negative eigenvalue: the point is no optimum, or its derivatives "
             "are wrong.";
    case no_freedom:
      return "There are no more residuals than free parameters: their variance cannot be "
             "estimated.";
    case all_held:
      return "The active constraints hold every parameter.";
    case no_derivatives:
      return "Derivatives could not be had at the point.";
  }
  return "";
}

const char* sentence_of(Limit::Ending ending) {
  switch (ending) {
    case Limit::not_sought:
      return "The parameter is fixed.";
    case Limit::found:
      return "The limit was found.";
    case Limit::at_bound:
      return "At the bound, or where constraints end, the data do not contradict the value.";
    case Limit::not_reached:
      return "The profile levels off: there is no limit on this side.";
    case Limit::lower_point:
      return "A better point was met: the result is not the optimum.";
    case Limit::search_failed:
      return "The other parameters could not be optimized near the limit.";
    case Limit::no_target:
      return "There is no residual variance to measure by.";
    case Limit::no_error:
      return "The parameter has no standard error.";
  }
  return "";
}

static const char* short_word(Limit::Ending ending) {
  switch (ending) {
    case Limit::at_bound:
      return "bound";
    case Limit::not_reached:
      return "none";
    case Limit::not_sought:
      return "fixed";
    case Limit::no_error:
      return "no error";
    default:
      return "unknown";
  }
}

std::ostream& operator<<(std::ostream& out, const Limit& limit) {
  const auto side = [](double value, Limit::Ending ending) {
    std::ostringstream text;
    if (ending == Limit::found)
      text << value;
    else
      text << short_word(ending);
    return text.str();
  };
  std::ostringstream text;
  text << limit.name << "  " << limit.estimate << "  [" << side(limit.lower, limit.lower_ending)
       << ", " << side(limit.upper, limit.upper_ending) << "]  " << 100.0 * limit.level << " %";
  return out << text.str();
}

}  // namespace tqnlp
