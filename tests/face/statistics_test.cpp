// Statistics of a result: certified standard errors, limits against brute force in long double,
// covariances that are known in closed form, and every way they can fail to exist.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <stdexcept>

#include "face/face_problem.h"
#include "kernels/distributions.h"
#include "problems/nist_data.h"

namespace tqnlp::test {
namespace {

using problems::Regression;

Options tight() {
  Options options;
  options.gradient_tolerance = 0.0;
  options.relative_gradient_tolerance = 1e-18;
  options.iterations = options.calls = 5000;
  return options;
}

TEST(Statistics, CertifiedErrors) {
  for (const Regression& set : problems::nist_regressions()) {
    // Residuals of 1e-13 and less: rounding decides.
    if (set.name == "Lanczos1") continue;
    SCOPED_TRACE(set.name);
    const auto problem = face_problem(set.start_2, Form::squares, Modules::all);
    const Covariance covariance = solve(problem, set.start_2.start, tight()).covariance();
    EXPECT_TRUE(covariance) << covariance.sentence();
    EXPECT_EQ(covariance.freedom, static_cast<double>(set.degrees_of_freedom));
    for (std::size_t j = 0; j < covariance.errors.size(); ++j)
      EXPECT_NEAR(covariance.errors[j] / set.deviations[j], 1.0, 1e-6) << j;
  }
}

// ---- Limits by brute force ----------------------------------------------------------------------

using Long = long double;
using Model = std::function<Long(Long, Long)>;

Long golden_minimum(const std::function<Long(Long)>& f, Long low, Long high) {
  const Long golden = 0.5L * (std::sqrt(5.0L) - 1.0L);
  for (int i = 0; i < 44; ++i) {
    const Long l = high - golden * (high - low), h = low + golden * (high - low);
    (f(l) < f(h) ? high : low) = f(l) < f(h) ? h : l;
  }
  return f(0.5L * (low + high));
}

// Minimum over the other of two parameters, within 0.6 and 1.6 times its estimate.
Long profiled(const Model& f, const std::vector<double>& x, int p, Long a) {
  const auto other = [&](Long b) { return p == 0 ? f(a, b) : f(b, a); };
  const Long middle = x[static_cast<std::size_t>(1 - p)];
  return golden_minimum(other, 0.6L * middle, 1.6L * middle);
}

Long bisected(const Model& f, const std::vector<double>& x, int p, int side, Long level) {
  Long inside = x[static_cast<std::size_t>(p)], outside = inside * (1.0L + 0.5L * side);
  while (std::fabs(outside - inside) > 1e-9L * inside) {
    const Long middle = 0.5L * (inside + outside);
    (profiled(f, x, p, middle) > level ? outside : inside) = middle;
  }
  return inside;
}

// rise: of f, at the limit.
void expect_limits(const Result& fit, double level, const Model& f, Long rise) {
  const Long least = golden_minimum([&](Long a) { return profiled(f, fit.x, 0, a); },
                                    0.9L * fit.x[0], 1.1L * fit.x[0]);
  int p = 0;
  for (const Limit& limit : fit.limits(level)) {
    SCOPED_TRACE(testing::Message() << limit);
    EXPECT_NEAR(limit.lower / bisected(f, fit.x, p, -1, least + rise), 1.0, 1e-7);
    EXPECT_NEAR(limit.upper / bisected(f, fit.x, p, 1, least + rise), 1.0, 1e-7);
    ++p;
  }
  EXPECT_EQ(p, 2);
}

TEST(Statistics, LimitsAgreeWithBruteForce) {
  const double lives[] = {17.88, 28.92, 33.0,   41.52,  42.12,  45.6,   48.48, 51.84,
                          51.96, 54.12, 55.56,  67.8,   68.64,  68.64,  68.88, 84.12,
                          93.12, 98.64, 105.12, 105.84, 127.92, 128.04, 173.4};
  const auto loss = [&](auto shape, auto scale) {
    auto sum = shape - shape;
    for (const double life : lives)
      sum -= std::log(shape / scale) + (shape - 1) * std::log(life / scale) -
             std::pow(life / scale, shape);
    return sum;
  };
  const auto q = zqc(0.95, 1.0);
  double lower = 0.0;
  for (const double sign : {-1.0, 1.0, 2.0}) {  // log L, -log L, -2 log L
    SCOPED_TRACE(sign);
    const auto objective = [&](Point x) { return sign * loss(x[0], x[1]); };
    auto problem = sign < 0.0 ? tqnlp::Problem::maximize(2, objective)
                              : tqnlp::Problem::minimize(2, objective);
    problem.bound(0, 1e-6, inf).bound(1, 1e-6, inf);
    const Result fit = solve(problem, {1.0, 72.0});
    if (sign < 0.0) expect_limits(fit, 0.95, loss, 0.5L * q);
    LimitOptions asked;
    asked.likelihood.multiple = std::fabs(sign);
    const Limits limits = fit.limits(asked);
    lower = sign < 0.0 ? limits[0].lower : lower;
    EXPECT_NEAR(limits[0].lower, lower, 1e-7);
    EXPECT_NEAR(fit.covariance(Variance::automatic, asked.likelihood).errors[1], 8.6005, 1e-3);
    // The profile passes through its estimate and its limits.
    const Profile profile = fit.profile(0, 0.95, asked.likelihood);
    EXPECT_TRUE(std::is_sorted(profile.root.begin(), profile.root.end()));
    EXPECT_NEAR(profile.values.front(), limits[0].lower, 1e-6);
    EXPECT_NEAR(profile.root.back(), profile.quantile, 1e-5);
    EXPECT_NEAR(profile.quantile, std::sqrt(q), 1e-12);
    EXPECT_TRUE(std::ranges::find(profile.root, 0.0) != profile.root.end());
  }
  for (const Regression& set : problems::nist_regressions()) {
    const bool exponential = set.name == "Misra1a";
    if (!exponential && set.name != "DanWood") continue;
    SCOPED_TRACE(set.name);
    const auto& p = set.start_2;
    const Result fit = solve(face_problem(p, Form::squares, Modules::all), p.start);
    const Model half = [&](Long a, Long b) {
      namespace data = problems::nist_data;
      Long sum = 0.0L;
      for (std::size_t i = 0; i < static_cast<std::size_t>(p.m); ++i) {
        const Long misfit =
            exponential
                ? a * -std::expm1(-b * data::misra1_x[i]) - data::misra1_y[i]
                : a * std::pow(static_cast<Long>(data::danwood_x[i]), b) - data::danwood_y[i];
        sum += misfit * misfit;
      }
      return 0.5L * sum;
    };
    const auto freedom = static_cast<double>(set.degrees_of_freedom);
    const double t = zqt(0.9, freedom);
    const auto rise = static_cast<Long>(fit.objective / freedom * t * t);
    for (const auto technique : {Technique::automatic, Technique::quasi_newton}) {
      Options options;
      options.technique = technique;
      expect_limits(solve(face_problem(p, Form::squares, Modules::all), p.start, options), 0.8,
                    half, rise);
    }
  }
}

// ---- What exists, and what does not -------------------------------------------------------------

// a + b t at t = 1 ... 6; variance factors of the ordinary fit are 13/15 and 2/35.
const double RESPONSES[] = {1.1, 1.9, 3.2, 3.9, 5.1, 5.8};
void line(Point x, Values r) {
  for (std::size_t i = 0; i < 6; ++i)
    r[i] = x[0] + x[1] * static_cast<double>(i + 1) + (x.size() > 2 ? x[2] : 0.0) - RESPONSES[i];
}

TEST(Statistics, WhatConstraintsLeave) {
  using P = tqnlp::Problem;
  const auto fit = [](P problem, std::vector<double> start) { return solve(problem, start); };
  struct Row {
    const char* name;
    Result result;
    Covariance::Ending ending;
    std::vector<Covariance::State> states;
    std::vector<double> factors;  // errors over the root of the residual variance
    double freedom;
  };
  const double a = std::sqrt(13.0 / 15.0), b = std::sqrt(2.0 / 35.0), none = missing;
  const auto squares = [](long n) { return P::least_squares(n, 6, line); };
  using C = Covariance;
  const Row rows[] = {
      {"free", fit(squares(2), {0, 0}), C::known, {C::estimated, C::estimated}, {a, b}, 4},
      {"bound",
       fit(squares(2).bound(0, 0.2, inf), {1, 1}),
       C::known,
       {C::at_bound, C::estimated},
       {0, 1 / std::sqrt(91.0)},
       5},
      {"redundant",
       fit(squares(3), {0, 0, 0}),
       C::not_determined,
       {C::undetermined, C::estimated, C::undetermined},
       {none, b, none},
       4},
      {"row",
       fit(squares(3).linear({1, 0, -1}, 0, 0), {0, 0, 0}),
       C::known,
       {C::estimated, C::estimated, C::estimated},
       {a / 2, b, a / 2},
       4},
      {"all held",
       fit(squares(2).bounds({0, 1}, {0, 1}), {0, 1}),
       C::all_held,
       {C::at_bound, C::at_bound},
       {0, 0},
       6},
  };
  for (const Row& row : rows) {
    for (const Variance kind : {Variance::crossproduct, Variance::hessian}) {
      SCOPED_TRACE(row.name);
      const Covariance found = row.result.covariance(kind);
      EXPECT_EQ(found.ending, row.ending) << found.sentence();
      EXPECT_EQ(found.states, row.states);
      EXPECT_EQ(found.freedom, row.freedom);
      for (std::size_t j = 0; j < row.factors.size(); ++j) {
        const double factor = found.errors[j] / std::sqrt(found.residual_variance);
        EXPECT_EQ(std::isnan(factor), std::isnan(row.factors[j]));
        EXPECT_TRUE(std::isnan(factor) || std::fabs(factor - row.factors[j]) < 1e-5) << factor;
      }
    }
    // The model is linear: where no bound is near, both kinds of limits agree.
    const Limits wald = row.result.limits(0.9, LimitKind::wald), profile = row.result.limits(0.9);
    for (std::size_t i = 0; i < wald.size(); ++i) {
      SCOPED_TRACE(testing::Message() << row.name << ": " << wald[i] << " / " << profile[i]);
      if (row.freedom == 4 && wald[i].lower_ending == Limit::found) {
        EXPECT_NEAR(wald[i].lower, profile[i].lower, 1e-6);
        EXPECT_NEAR(wald[i].upper, profile[i].upper, 1e-6);
      }
    }
  }
  EXPECT_EQ(rows[1].result.limits()[0].lower_ending, Limit::at_bound);
  EXPECT_EQ(rows[1].result.limits(0.9, LimitKind::wald)[0].lower_ending, Limit::no_error);
  EXPECT_EQ(rows[2].result.limits()[0].upper_ending, Limit::not_reached);
  EXPECT_EQ(rows[4].result.limits()[0].upper_ending, Limit::not_sought);

  // On the curve x0 x1 = 1/10, of which the Lagrangian knows the curvature: by its one parameter.
  const Result curve =
      fit(P::minimize(2, [](Point x) { return 0.5 * (x[0] * x[0] + (x[1] - 1) * (x[1] - 1)); })
              .nonlinear({0.1}, {0.1}, [](Point x, Values c) { c[0] = x[0] * x[1]; }),
          {0.1, 1});
  const double x = curve.x[0];
  const double second = 1 + 0.03 / std::pow(x, 4) - 0.2 / std::pow(x, 3);
  EXPECT_NEAR(curve.covariance().errors[0], 1 / std::sqrt(second), 1e-5);

  const auto saddle = P::minimize(2, [](Point p) { return p[0] * p[0] - p[1] * p[1]; });
  Options options;
  options.analysis = false;
  EXPECT_EQ(solve(saddle, {0, 0}, options).covariance().ending, C::not_a_minimum);
  const auto exact =
      P::least_squares(2, 2, [](Point p, Values r) { r[0] = p[0], r[1] = p[1] - 1; });
  EXPECT_EQ(solve(exact, {1, 1}).covariance().ending, C::no_freedom);
  EXPECT_EQ(solve(exact, {1, 1}).limits()[0].lower_ending, Limit::no_target);
  options.iterations = 0;
  const Limits early = solve(squares(2), {9, 9}, options).limits();
  EXPECT_EQ(early[0].lower_ending, Limit::lower_point);
  EXPECT_NEAR(early.better_objective, rows[0].result.objective, 1e-9);
}

TEST(Statistics, RefusalsAndExceptions) {
  bool thrown = false;
  const auto problem = tqnlp::Problem::minimize(1, [&](Point x) {
    if (thrown) throw std::runtime_error("no more");
    return x[0] * x[0];
  });
  const Result fit = solve(problem, {1});
  LimitOptions absent;
  absent.parameters = {1};
  EXPECT_THROW(Result{}.limits(), std::invalid_argument);
  EXPECT_THROW(fit.limits(1.0), std::invalid_argument);
  EXPECT_THROW(fit.limits(absent), std::invalid_argument);
  EXPECT_THROW(fit.profile(-1), std::invalid_argument);
  EXPECT_THROW(fit.covariance(Variance::crossproduct), std::invalid_argument);
  EXPECT_THROW(fit.covariance(Variance::automatic, {-1.0, {}}), std::invalid_argument);
  EXPECT_THROW(fit.jacobian(), std::invalid_argument);
  thrown = true;
  EXPECT_THROW(fit.limits(), std::runtime_error);
  EXPECT_THROW(fit.covariance(), std::runtime_error);
}

}  // namespace
}  // namespace tqnlp::test
