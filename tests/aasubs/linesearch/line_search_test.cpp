// Every line search on functions along a direction: the trials that it makes, that a failed search
// restores its start, and the limits of the step.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlpl12.h"
#include "aasubs/linesearch/znlplis.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Function = std::function<double(double)>;
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

struct Curve {
  std::string name;
  Function phi, slope;
};

double minus_one(double) { return -1.0; }

// Minimum at `at`. All interpolations and extrapolations are exact on it, within their margins.
Curve parabola(double at) {
  return {"parabola " + std::to_string(at), [=](double t) { return (t - at) * (t - at) - at * at; },
          [=](double t) { return 2.0 * (t - at); }};
}

// Falls with slope -1 up to the edge, and from there on has the value `beyond`.
Curve falling(double edge = HUGE_VALUE, double beyond = NOT_A_NUMBER) {
  return {"falling", [=](double t) { return t < edge ? -t : beyond; }, minus_one};
}

// A function of one parameter, searched from 0 in the direction +1 with 1 as the first trial. Notes
// the steps at which the value is called, and counts the slopes.
struct Line {
  explicit Line(const Curve& c) : curve(c), record(1, 10) {
    record.f = [this](const double* x) {
      trials.push_back(x[0] - record.xold[0]);
      return curve.phi(x[0]);
    };
    record.g = [this](const double* x, double* g) {
      ++slopes;
      g[0] = curve.slope(x[0]);
    };
    record.with_callbacks();
    record.ider = 1;
    record.damp = record.sdir[0] = 1.0;
    record.stub = HUGE_VALUE;
    start(0.0);
  }
  void start(double x0) {
    record.x[0] = record.xold[0] = x0;
    record.usfct(&record);
    record.usgrd(&record);
    znlpgmx(&record, 0, nullptr);
    g0 = record.gold[0] = record.grad[0];
    f0 = record.cold = record.crit;
    trials.clear();
    slopes = 0;
  }
  // Method 0 is the rescue, with the first trial as its step.
  int search(int method) {
    if (method == 12) return znlpl12(&record);
    if (method == 0) return bisect(&record, f0, g0, record.gmax, 1.0);
    return method == 9 ? znlpls9(&record) : select_line_search(method)(&record);
  }
  // What the record holds after a search with this result.
  void expect_end(int code) {
    EXPECT_EQ(record.x[0], record.xold[0] + record.alfa);
    EXPECT_EQ(record.tbig, 0.0);
    EXPECT_EQ(record.gmax, std::fabs(code == 0 ? record.grad[0] : g0));
    EXPECT_EQ(record.alfa > 0.0, code == 0);
    EXPECT_EQ(record.crit < f0, code == 0);
    EXPECT_LE(record.crit, f0);
    // Bisection to the last digit, and the rescue after it: no search may cost more.
    EXPECT_LE(trials.size(), 350);
  }
  // The first trials; all of them with `complete`.
  void expect_trials(const std::vector<double>& expected, bool complete) {
    EXPECT_TRUE(complete ? trials.size() == expected.size() : trials.size() > expected.size());
    for (std::size_t k = 0; k < std::min(trials.size(), expected.size()); ++k)
      EXPECT_NEAR(trials[k], expected[k], 1e-8 * expected[k]) << testing::PrintToString(trials);
  }

  Curve curve;
  TestRecord record;
  double f0 = 0.0, g0 = 0.0;
  std::vector<double> trials;
  long slopes = 0;
};

// ---- Trials -------------------------------------------------------------------------------------

TEST(LineSearch, ChoosesItsTrialsAsTheMethodSays) {
  const Curve constant = {"constant", [](double) { return 7.0; }, minus_one};
  const Curve kink = {"kink", [](double t) { return std::fabs(t - 1.5); },
                      [](double t) { return t < 1.5 ? -1.0 : 1.0; }};
  const auto rising = [](double rise) {
    return Curve{"rising", [=](double t) { return 1.0 + rise * t; }, minus_one};
  };
  // Descent at first, then a valley above the start.
  const Curve ridge = {"ridge", [](double t) { return t < 3e-4 ? -t : 1.0 + std::fabs(t - 0.65); },
                       minus_one};
  const Curve no_slope = {"no slope", falling().phi,
                          [](double t) { return t < 0.9 ? -1.0 : NOT_A_NUMBER; }};
  const double low = 0.3819660112501051, high = 0.6180339887498949;  // golden section
  std::vector<double> halvings;
  for (int k = 0; k <= 11; ++k) halvings.push_back(std::ldexp(1.0, -k));
  struct Case {
    std::vector<int> methods;
    Curve curve;
    double sigm;
    std::vector<double> trials;
    bool complete = true;
  };
  const Case cases[] = {
      // Interpolation and extrapolation at most tenfold; one-sided and two-sided slope test.
      {{1, 2, 3}, parabola(0.3), 0.02, {1, 0.3}},
      {{1, 2, 3}, parabola(100.0), 0.02, {1, 10, 100}},
      {{1}, parabola(1.5), 0.02, {1, 2}},
      // tau asks for decrease, and keeps an interpolated trial from the ends.
      {{1, 2, 3}, parabola(0.07), 0.4, {1, 0.1}},
      // Between a steep trial and one that is too long, or whose value or slope failed.
      {{1}, kink, 0.4, {1, 10, 2.381497893}},
      {{2}, kink, 0.02, {1, 10, 1 + 9 * 9.0 / 34, 1.75379136, 1.530772256, 1.448945635}, false},
      {{3}, kink, 0.02, {1, 10, 2.381497893, 1.441792665, 1.587698272, 1.494355147}, false},
      {{1}, falling(0.35), 0.4, {1, 0.1, 0.55, 0.1}},
      {{2}, falling(0.35), 0.4, {1, 0.1, 0.28, 0.424, 0.28}},
      {{3}, falling(0.35), 0.4, {1, 0.1, 0.19, 0.271, 0.3439, 0.40951, 0.3439}},
      {{2}, no_slope, 0.4, {1, 0.1, 0.82, 0.964, 0.82}},
      // Values that do not change at all: the third trial is the last.
      {{1}, constant, 0.4, {1, 0.2113248654, 0.04465819874}},
      {{2}, constant, 0.4, {1, 0.25, 0.0625}},
      {{3}, constant, 0.4, {1, 0.1, 0.01}},
      // Extrapolation past the minimum by the cubic, at most fivefold by the parabola; the end of
      // the interval is taken where the interpolation is no better.
      {{4}, parabola(4.0), 0.4, {1, 5, 4}},
      {{5}, parabola(100.0), 0.4, {1, 5, 25, 100, 90, 100}},
      {{4, 5}, falling(5e-4), 0.4, {1, 0.1, 0.01, 0.001, 0.0001}, false},
      // At most eight doublings, then golden section of the last two intervals; no doubling without
      // the promised share of decrease. A failed step ends it, or is tried with half the increment.
      {{6, 8}, parabola(5.0), 0.4, {1, 2, 4, 8, 2 + 6 * low, 2 + 6 * high}, false},
      {{6, 8}, falling(), 0.4, {1, 2, 4, 8, 16, 32, 64, 128, 256}},
      {{6, 8}, ridge, 0.4, {1, low, high, low * high, low * high * high}, false},
      {{6}, falling(1.6), 0.4, {1, 2, 1}},
      {{8}, falling(1.6), 0.4, {1, 2, 1.5, 2.25, 1.875, 1.6875, 1.59375}, false},
      // Goldstein: lengthened, bisected, and right away.
      {{7}, parabola(0.54), 0.4, {1, 0.5}},
      {{7}, falling(3.6, 1.0), 0.4, {1, 5, 3, 4, 3.5, 3.75}, false},
      {{7}, falling(5e-4, 1.0), 0.4, halvings},
      // By cubics, at most ninefold or by three, four, nine; up to a failure, no further.
      {{12}, parabola(0.51), 0.1, {1, 0.51}},
      {{12}, parabola(100.0), 0.1, {1, 9, 81}},
      {{12}, falling(), 0.1, {1, 3, 12, 108, 972}, false},
      {{12}, falling(0.35), 0.1, {1, 0.1}},
      {{12}, constant, 0.1, {1, 0.2113248654}},
      // The rescue shortens the faster the larger the rise, then doubles up to a failure or a
      // minimum.
      {{0}, rising(1e5), 0.4, {0.1, 1e-4}, false},
      {{0}, parabola(1.3e-4), 0.4, {0.1, 1e-4, 2e-4, 1.3e-4}},
  };
  for (const Case& c : cases) {
    for (const int method : c.methods) {
      SCOPED_TRACE(c.curve.name + ", method " + std::to_string(method));
      Line line(c.curve);
      line.record.sigm = c.sigm;
      const int code = line.search(method);
      if (method > 0 || code == 0) line.expect_end(code);
      if (code == 0) {
        EXPECT_EQ(line.record.crit, c.curve.phi(line.record.alfa));
        EXPECT_EQ(line.record.grad[0], c.curve.slope(line.record.alfa));
      }
      line.expect_trials(c.trials, c.complete);
    }
  }
}

// A decrease that is no progress: a run with differences leaves it at intervals of 1e-6.
TEST(LineSearch, EndsAtTheAccuracyOfTheFunction) {
  for (const int method : {1, 2, 3}) {
    for (const int fidi : {0, 1}) {
      Line line({"step", [](double t) { return t > 0.0 ? -1e-9 : 0.0; }, minus_one});
      line.record.fidi = fidi;
      line.record.fdig = 8;
      EXPECT_EQ(line.search(method), 0);
      EXPECT_EQ(line.record.alfa, line.trials.back()) << "the last of equal values counts";
      EXPECT_EQ(line.record.alfa > 1e-7, fidi == 1) << method;
      EXPECT_LE(line.record.alfa, 1e-6) << method;
    }
  }
}

// A point that failed once is no wall: the way to it must not cost a hundred trials.
TEST(LineSearch, GivesUpTheWayToAPointThatFailed) {
  for (const int method : {2, 3}) {
    const auto calls = std::make_shared<int>(0);
    const auto fails_once = [calls](double t) {
      return t > 0.0 && ++*calls == 1 ? NOT_A_NUMBER : -t;
    };
    Line line({"fails once", fails_once, minus_one});
    EXPECT_EQ(line.search(method), 0);
    EXPECT_EQ(line.trials.size(), 12);
    EXPECT_GT(line.record.alfa, 0.6);
  }
}

// ---- Failures -----------------------------------------------------------------------------------

TEST(LineSearch, FailuresRestoreTheStart) {
  const auto at_start = [](double inside, double outside) {
    return [=](double t) { return t == 0.0 ? inside : outside; };
  };
  const Curve curves[] = {
      {"uphill", [](double t) { return t; }, [](double) { return 1.0; }},
      {"slope lies", [](double t) { return 1.0 + t; }, at_start(-1.0, -2.0)},
      {"no value", at_start(1.0, NOT_A_NUMBER), minus_one},
      {"infinite", at_start(1.0, HUGE_VALUE * 10), minus_one},
      {"no slope", falling().phi, at_start(-1.0, NOT_A_NUMBER)},
      {"no room", falling().phi, minus_one},
      {"zero slope", [](double t) { return -t * t; }, [](double t) { return -2 * t; }},
  };
  for (const Curve& c : curves) {
    for (const int method : {1, 2, 3, 4, 5, 6, 7, 8, 9, 12}) {
      for (const double x0 : {0.0, 3.0}) {
        SCOPED_TRACE(c.name + ", method " + std::to_string(method));
        Line line({"", [&](double x) { return c.phi(x - x0); },
                   [&](double x) { return c.slope(x - x0); }});
        line.start(x0);
        line.record.alfa = 0.7;
        if (c.name == "no room") line.record.stub = 0.0;
        const bool tries_nothing = c.name == "no room" || c.name == "zero slope";
        const int code = tries_nothing && method >= 6 ? 0 : method == 2 ? -1 : 1;
        const int answer = line.search(method);
        EXPECT_TRUE(method == 12 ? answer < 0 : answer == code) << answer;
        EXPECT_EQ(line.trials.empty(), tries_nothing || c.name == "uphill");
        line.expect_end(1);
      }
    }
  }
}

// Lets evaluations fail from the k-th on, and the k-th alone, until the run no longer meets it.
TEST(LineSearch, SurvivesAFailureAtAnyEvaluation) {
  for (const int method : {1, 2, 3, 4, 5, 6, 7, 8, 12}) {
    for (const bool once : {true, false}) {
      bool met = true;
      for (long k = 1; met; ++k) {
        SCOPED_TRACE("method " + std::to_string(method) + ", evaluation " + std::to_string(k));
        long count = -2;  // two evaluations at the start
        const auto fails = [&] { return ++count == k || (!once && count > k); };
        Line line({"", [&](double t) { return fails() ? NOT_A_NUMBER : std::exp(t) - 8.0 * t; },
                   [&](double t) { return fails() ? NOT_A_NUMBER : std::exp(t) - 8.0; }});
        line.expect_end(line.search(method));
        EXPECT_EQ(line.record.crit, std::exp(line.record.x[0]) - 8.0 * line.record.x[0]);
        met = count >= k;
        ASSERT_LT(k, 200);
      }
    }
  }
}

// ---- Limits of the step -------------------------------------------------------------------------

TEST(LineSearch, StaysWithinTheLimitsOfTheStep) {
  for (int method = 1; method <= 8; ++method) {
    for (const bool by_stub : {true, false}) {
      SCOPED_TRACE(method);
      Line line(falling());
      (by_stub ? line.record.stub : line.record.smax) = 3.5;
      line.record.smit = 1;
      EXPECT_EQ(line.search(method), 0);
      EXPECT_EQ(line.record.alfa, 3.5);
      EXPECT_EQ(*std::max_element(line.trials.begin(), line.trials.end()), 3.5);
      // smax holds in the first smit searches only; ssin ends the others.
      line.start(0.0);
      line.record.ssin = 100.0;
      EXPECT_EQ(line.search(method), 0);
      EXPECT_GE(line.record.alfa, by_stub ? 3.5 : 100.0);
      EXPECT_LE(line.record.alfa, by_stub ? 3.5 : method == 6 || method == 8 ? 128.0 : 1000.0);
    }
  }
}

TEST(LineSearch, TheFifthSearchFreesTheFirstStep) {
  for (int method = 1; method <= 8; ++method) {
    Line line(parabola(1.0));
    for (int k = 1; k <= 6; ++k) {
      line.record.salf = 0.25;
      line.start(0.0);
      EXPECT_EQ(line.search(method), 0);
      // The Goldstein search frees it in every later one too.
      EXPECT_EQ(line.record.salf, k == 5 || (k == 6 && method == 7) ? 1.0 : 0.25) << method;
    }
  }
}

// ---- Rescue, constraint violation, parabola -----------------------------------------------------

TEST(Bisect, StaysWithinTheLimitsOfTheStep) {
  for (double MINSTR::*limit : {&MINSTR::stub, &MINSTR::ssin}) {
    Line line(falling());
    line.record.*limit = 0.9;
    EXPECT_EQ(line.search(0), 0);
    line.expect_trials({0.1, 0.2, 0.4, 0.8}, true);
  }
}

TEST(Bisect, TurnsToTheSlopeWhereRoundingHidesTheValues) {
  // The value shows nothing of a parabola whose slope is zero at 0.03.
  Line line({"", [](double) { return 1e20; }, parabola(0.03).slope});
  EXPECT_EQ(line.search(0), 1);
  EXPECT_NEAR(line.record.alfa, 0.03, 1e-5);
  line.start(0.0);
  EXPECT_EQ(bisect(&line.record, line.f0, line.g0, 1e-9, 1.0), -2) << "no smaller gradient";
}

TEST(ViolationSearch, ReducesTheLargestViolation) {
  // The circle x^2 + y^2 = 4 and the half plane y >= 1.
  TestRecord r(2, 11);
  r.f = [](const double* x) { return x[0] + x[1]; };
  r.with_rows({{{0, 1}, 1, 1}}).with_callbacks();
  static double residual;
  r.nlicon = r.nnlc = r.nlec = 1;
  r.fcon = &residual;
  r.usnlc = [](MINSTR* str) {
    str->fcon[0] = str->x[0] * str->x[0] + str->x[1] * str->x[1] - 4.0;
    return str->x[0] > 100.0 ? -11 : 0;
  };
  EXPECT_EQ(gtcmx(&r.at({0, 3})), 5.0);
  EXPECT_EQ(gtcmx(&r.at({101, 0})), HUGE_VALUE);
  EXPECT_EQ(gtcmx(&r.at({0.5, 1.5})), 1.5) << "the equality counts on both sides";
  const auto constraints = std::exchange(r.usnlc, nullptr);
  EXPECT_EQ(gtcmx(&r), 1.5) << "the values that usfct has left in fcon";
  r.usnlc = constraints;
  // From the origin the violation vanishes at 14.1 times the direction; from a point without
  // violation only a lower one without violation will do.
  r.ider = 0;
  r.damp = 2.0;
  r.sdir[0] = r.sdir[1] = 0.1;
  r.stub = HUGE_VALUE;
  for (const double y : {0.0, 2.0}) {
    r.cmax = gtcmx(&r.at({0, y}));
    r.usfct(&r);
    std::copy_n(r.x, 2, r.xold);
    EXPECT_EQ(znlpls9(&r) == 0, y == 0.0);
    EXPECT_LT(gtcmx(&r), 0.2);
    EXPECT_NEAR(r.crit, y + 0.2 * r.alfa, 1e-12);
  }
}

TEST(ParabolaMinimum, FallsBackToTheMean) {
  EXPECT_NEAR(xqmin(0, 1, 4, 9, 4, 1), 3.0, 1e-14);
  EXPECT_DOUBLE_EQ(xqmin(0, 1, 1, 3, 2, 1), 2.0 / 3.0) << "equal abscissae";
  EXPECT_DOUBLE_EQ(xqmin(0, 1, 2, 9, 4, 1), 1.0) << "outside";
}

}  // namespace
}  // namespace tqnlp::test
