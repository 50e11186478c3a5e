// What a result remembers of its run, and the statistics that follow from it.
#pragma once

#include "face/run.h"

namespace tqnlp::face {

struct Origin {
  Problem problem;
  Options options;  // without what watches and stops a run
  Technique technique;
  Units units;
};

std::shared_ptr<const Origin> remember(const Problem& problem, const Shared& shared,
                                       Technique technique);

// Throws std::invalid_argument when the result is of no run.
const Origin& origin_of(const Result& result);

// Throws std::invalid_argument for numbers that are not positive.
void check_likelihood(const Likelihood& likelihood);

// Throws the exception of a user's function, or FatalError when the library ended the call.
void rethrow_or_end(const std::exception_ptr& thrown, int exit_code, std::vector<LogRecord>& log);

Covariance covariance_of(const Result& result, Variance kind, const Likelihood& likelihood);
std::vector<double> jacobian_of(const Result& result);
Limits limits_of(const Result& result, const LimitOptions& options);
Profile profile_of(const Result& result, long parameter, double level,
                   const Likelihood& likelihood);

}  // namespace tqnlp::face
