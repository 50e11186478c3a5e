// Correct digits on the regressions of NIST: the log relative error, at most the eleven certified
// digits, of the worst parameter and of the worst standard error. Signs do not count: Eckerle4 has
// a solution that differs in signs alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

double worst_digits(const std::vector<double>& values, const std::vector<double>& certified) {
  double worst = 11.0;
  for (std::size_t j = 0; j < values.size(); ++j) {
    worst = std::min(worst, -std::log10(std::fabs(std::fabs(values[j] / certified[j]) - 1.0)));
  }
  return worst;
}

// s sqrt(diag (J'J)^-1): element j is s over the length of what column j has beside all others.
std::vector<double> standard_errors(const Problem& p, const std::vector<double>& x, double s) {
  const long m = p.m, n = p.n;
  std::vector<double> jacobian(static_cast<std::size_t>(m * n)), errors(x.size());
  for (long last = 0; last < n; ++last) {
    p.jacobian(x.data(), jacobian.data());
    const auto at = [&](long i, long j) -> double& {
      return jacobian[static_cast<std::size_t>(i * n + (last + 1 + j) % n)];
    };
    double length = 0.0;
    for (long j = 0; j < n; ++j) {
      for (long k = 0; k < 2 * j; ++k) {  // twice, for full digits
        double along = 0.0;
        for (long i = 0; i < m; ++i) along += at(i, j) * at(i, k % j);
        for (long i = 0; i < m; ++i) at(i, j) -= along * at(i, k % j);
      }
      length = 0.0;
      for (long i = 0; i < m; ++i) length = std::hypot(length, at(i, j));
      for (long i = 0; i < m; ++i) at(i, j) /= length;
    }
    errors[static_cast<std::size_t>(last)] = s / length;
  }
  return errors;
}

// From two far starts the sum of squares falls to a plain. In BoxBOD the first step goes to where
// the curve is constant. In MGH17 rounding decides whether the run comes into a valley in which
// both exponentials become flat and their factors grow without bound.
TEST(Nist, ParametersAndStandardErrors) {
  const Matrix to_the_end = Matrix::row({5000, 5000, missing, 1e-18, missing, 0, 1e-18});
  double sum = 0.0, count = 0.0;
  for (const Regression& set : nist_regressions()) {
    for (const Problem* p : {&set.start_1, &set.start_2}) {
      SCOPED_TRACE(p->name);
      const Outcome run = solve(*p, "NLPLM", 1e-8, Matrix(), to_the_end);
      if (p->name == "BoxBOD 1" || (p->name == "MGH17 1" && !run.solved)) {
        EXPECT_GT(run.f, 8.0 * set.residual_sum);
        continue;
      }
      const double digits = worst_digits(run.x, set.parameters);
      const double s = std::sqrt(run.f / double(set.degrees_of_freedom));
      const double of_errors = worst_digits(standard_errors(*p, run.x, s), set.deviations);
      EXPECT_GE(digits, 9.0);
      // Residuals of 1e-13 have three digits.
      EXPECT_GE(of_errors, set.name == "Lanczos1" ? 2.0 : 9.0);
      sum += digits;
      count += 1.0;
    }
  }
  EXPECT_GE(sum / count, 10.4);
}

}  // namespace
}  // namespace tqnlp::test
