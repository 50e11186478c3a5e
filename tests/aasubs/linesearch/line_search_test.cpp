// Every line search on functions along a direction: what an accepted step promises, that a failed
// search restores its start, limits of the step, and the cost in evaluations.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/linesearch/znlplis.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Curve = std::function<double(double)>;
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
// Bisection to the last digit, and the rescue after it: no search may cost more.
constexpr long MOST_EVALUATIONS = 350;

// A function phi of one parameter, searched from 0 in the direction +1. Counts its evaluations.
struct Line {
  Line(Curve phi, Curve slope) : record(1, 10) {
    record.f = [this, phi](const double* x) {
      ++values;
      farthest = std::max(farthest, x[0]);
      return phi(x[0]);
    };
    record.g = [this, slope](const double* x, double* g) {
      ++slopes;
      g[0] = slope(x[0]);
    };
    record.with_callbacks();
    record.ider = 1;
    record.damp = 1.0;  // first trial: salf, and nothing estimated
    record.sdir[0] = 1.0;
    record.stub = HUGE_VALUE;
    start(0.0);
  }
  void start(double x0) {
    record.x[0] = record.xold[0] = x0;
    record.usfct(&record);
    record.usgrd(&record);
    znlpgmx(&record, 0, nullptr);
    record.gold[0] = record.grad[0];
    f0 = record.cold = record.crit;
    g0 = record.grad[0];
    values = slopes = 0;
    farthest = x0;
  }
  int search(int method) {
    return method == 9 ? znlpls9(&record) : select_line_search(method)(&record);
  }
  void expect_restored(const std::string& what) {
    EXPECT_EQ(record.x[0], record.xold[0]) << what;
    EXPECT_EQ(record.crit, f0) << what;
    EXPECT_EQ(record.gmax, std::fabs(g0)) << what;
    EXPECT_EQ(record.alfa, 0.0) << what;
    EXPECT_EQ(record.tbig, 0.0) << what;
    EXPECT_LE(values, MOST_EVALUATIONS) << what;
  }

  TestRecord record;
  double f0 = 0.0;
  double g0 = 0.0;
  double farthest = 0.0;
  long values = 0;
  long slopes = 0;
};

struct NamedCurve {
  std::string name;
  Curve phi;
  Curve slope;
};

// Smooth ones have minima at very different distances from the first trial.
std::vector<NamedCurve> smooth_curves() {
  std::vector<NamedCurve> curves;
  for (const double at : {1e-9, 1e-3, 0.3, 1.0, 7.0, 200.0}) {
    curves.push_back({"parabola " + std::to_string(at),
                      [=](double t) { return (t - at) * (t - at) - at * at; },
                      [=](double t) { return 2.0 * (t - at); }});
  }
  curves.push_back({"exponential", [](double t) { return std::exp(5.0 * t) - 30.0 * t; },
                    [](double t) { return 5.0 * std::exp(5.0 * t) - 30.0; }});
  curves.push_back({"quartic", [](double t) { return std::pow(t - 3.0, 4); },
                    [](double t) { return 4.0 * std::pow(t - 3.0, 3); }});
  curves.push_back({"flat tail", [](double t) { return -t / (t * t + 2.0); },
                    [](double t) { return (t * t - 2.0) / ((t * t + 2.0) * (t * t + 2.0)); }});
  curves.push_back({"wall", [](double t) { return t < 0.7 ? -std::log(1 - t / 0.7) - 5 * t : NAN; },
                    [](double t) { return t < 0.7 ? 1.0 / (0.7 - t) - 5.0 : NAN; }});
  return curves;
}

std::vector<NamedCurve> rough_curves() {
  return {
      {"kink", [](double t) { return std::fabs(t - 0.37) - 0.37; },
       [](double t) { return t < 0.37 ? -1.0 : 1.0; }},
      {"noise", [](double t) { return (t - 0.5) * (t - 0.5) + 1e-7 * std::sin(1e9 * t); },
       [](double t) { return 2.0 * (t - 0.5); }},
      {"gradient fails beyond", [](double t) { return (t - 2.0) * (t - 2.0); },
       [](double t) { return t < 0.2 ? 2.0 * (t - 2.0) : NOT_A_NUMBER; }},
      // Descent only in the first 3e-4; then a ridge, and a valley above the start.
      {"ridge", [](double t) { return 50 * (t - 0.65) * (t - 0.65) - 22 * std::exp(-1e4 * t * t); },
       [](double t) { return 100 * (t - 0.65) + 44e4 * t * std::exp(-1e4 * t * t); }}};
}

TEST(LineSearch, IsSelectedByNumber) {
  const Callback own[] = {znlpls1, znlpls2, znlpls3, znlpls4, znlpls5, znlpls6, znlpls7, znlpls8};
  for (int tlin = 1; tlin <= 8; ++tlin) EXPECT_EQ(select_line_search(tlin), own[tlin - 1]);
  for (const int tlin : {-1, 0, 9, 12}) EXPECT_EQ(select_line_search(tlin), &znlpls2);
}

// ---- What an accepted step promises -------------------------------------------------------------

TEST(LineSearch, AcceptedStepsKeepThePromiseOfTheirMethod) {
  for (const NamedCurve& curve : smooth_curves()) {
    for (const double sigm : {0.02, 0.4, 0.9}) {
      for (int method = 1; method <= 8; ++method) {
        SCOPED_TRACE(curve.name + ", method " + std::to_string(method) + ", sigm " +
                     std::to_string(sigm));
        Line line(curve.phi, curve.slope);
        line.record.sigm = sigm;
        ASSERT_EQ(line.search(method), 0);
        const double t = line.record.alfa;
        const double decrease = line.f0 - curve.phi(t);
        EXPECT_GT(decrease, 0.0);
        EXPECT_EQ(line.record.x[0], t);
        EXPECT_EQ(line.record.crit, curve.phi(t));
        EXPECT_EQ(line.record.grad[0], curve.slope(t));
        EXPECT_EQ(line.record.gmax, std::fabs(curve.slope(t)));
        EXPECT_LE(line.values, 60);
        const double share = sigm < 0.2 ? sigm / 2.0 : 0.1;
        // Method 7 takes what it has when bisection takes too long.
        if (method <= 3 || (method == 7 && t > 0.01)) {
          EXPECT_GE(decrease, -share * line.g0 * t * (1 - 1e-12));
        }
        if (method <= 3) {
          EXPECT_GE(curve.slope(t), sigm * line.g0);
        }
        if ((method == 2 || method == 3) && sigm < 0.1) {
          EXPECT_LE(curve.slope(t), -sigm * line.g0);
        }
        if (method == 7) {
          EXPECT_LE(decrease, -(1.0 - share) * line.g0 * t * (1 + 1e-12));
        }
      }
    }
  }
}

TEST(LineSearch, SucceedsOnRoughFunctions) {
  for (const NamedCurve& curve : rough_curves()) {
    for (int method = 1; method <= 8; ++method) {
      // These two call the gradient at the end only, and cannot know where it fails.
      if (curve.name[0] == 'g' && method >= 6) continue;
      SCOPED_TRACE(curve.name + ", method " + std::to_string(method));
      Line line(curve.phi, curve.slope);
      EXPECT_EQ(line.search(method), 0);
      EXPECT_LT(line.record.crit, line.f0);
      EXPECT_GT(line.record.alfa, 0.0);
      EXPECT_LE(line.values, 60);
    }
  }
}

TEST(LineSearch, CostsOneOrTwoEvaluationsWhereTheFirstTrialIsGood) {
  const long values[] = {0, 1, 1, 1, 2, 2, 14, 1, 14};
  const long slopes[] = {0, 1, 1, 1, 2, 2, 1, 1, 1};
  for (int method = 1; method <= 8; ++method) {
    Line line([](double t) { return (t - 0.9) * (t - 0.9); },
              [](double t) { return 2.0 * (t - 0.9); });
    EXPECT_EQ(line.search(method), 0);
    EXPECT_LE(line.values, values[method]) << method;
    EXPECT_EQ(line.slopes, slopes[method]) << method;
  }
  // Method 2 pays for no gradient at a trial that is too long.
  Line line([](double t) { return (t - 0.1) * (t - 0.1); },
            [](double t) { return 2.0 * (t - 0.1); });
  EXPECT_EQ(line.search(2), 0);
  EXPECT_EQ(line.values, 2);
  EXPECT_EQ(line.slopes, 1);
}

TEST(LineSearch, ComparesValuesAloneWithoutDerivatives) {
  for (const int method : {6, 8}) {
    Line line([](double t) { return (t - 5.0) * (t - 5.0); }, [](double) { return NOT_A_NUMBER; });
    line.record.ider = 0;
    EXPECT_EQ(line.search(method), 0);
    EXPECT_EQ(line.slopes, 0);
    EXPECT_NEAR(line.record.alfa, 5.0, 0.01) << "the parabola is exact";
    // A function that falls for ever stops after eight doublings.
    Line falling([](double t) { return -t; }, [](double) { return -1.0; });
    falling.record.ider = 0;
    EXPECT_EQ(falling.search(method), 0);
    EXPECT_EQ(falling.record.alfa, 256.0);
    EXPECT_EQ(falling.values, 9);
    // Where a longer step fails, method 8 feels its way with half the increment.
    Line wall([](double t) { return t < 1.6 ? -t : NOT_A_NUMBER; }, [](double) { return -1.0; });
    EXPECT_EQ(wall.search(method), 0);
    if (method == 6) {
      EXPECT_EQ(wall.record.alfa, 1.0);
    } else {
      EXPECT_GE(wall.record.alfa, 1.5);
    }
  }
}

TEST(LineSearch, WorksInTheNullSpaceOfLinearConstraints) {
  for (int method = 1; method <= 8; ++method) {
    SCOPED_TRACE(method);
    TestRecord r(3, 10);
    r.f = [](const double* x) { return std::exp(x[0]) + x[1] * x[1] + 4.0 * x[2] * x[2]; };
    r.g = [](const double* x, double* g) {
      g[0] = std::exp(x[0]);
      g[1] = 2.0 * x[1];
      g[2] = 8.0 * x[2];
    };
    r.with_rows({{{1, 1, 1}, 0, 3}}).with_callbacks().at({3, 2, -2});
    std::copy_n(r.x, 3, r.xold);
    r.usfct(&r);
    r.usgrd(&r);
    ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
    znlpfta(&r, 1, 0, 0, nullptr, nullptr, nullptr);
    znlpgmx(&r, 0, nullptr);
    std::copy_n(r.grad, 3, r.gold);
    r.spro = r.wrk2;
    for (int k = 0; k < 2; ++k) r.spro[k] = -r.gpro[k];
    znlpvex(&r, r.spro, r.sdir);
    r.stub = HUGE_VALUE;
    const double slope = znlpgs(&r, r.spro, r.gpro, r.sdir, r.gold), f0 = r.crit;
    ASSERT_EQ(select_line_search(method)(&r), 0);
    EXPECT_LT(r.crit, f0);
    EXPECT_NEAR(r.x[0] + r.x[1] + r.x[2], 3.0, 1e-12);
    double end = 0.0;
    for (int j = 0; j < 3; ++j) end += r.grad[j] * r.sdir[j];
    EXPECT_NEAR(znlpgs(&r, r.spro, r.gpro, r.sdir, r.grad), end, 1e-8 * std::fabs(slope));
    if (method <= 3) {
      EXPECT_GE(end, r.sigm * slope);
    }
  }
}

// ---- Failures -----------------------------------------------------------------------------------

TEST(LineSearch, FailuresRestoreTheStart) {
  struct Case {
    std::string name;
    Curve phi;
    Curve slope;
    double stub;
  };
  const auto at_start = [](double inside, double outside) {
    return [=](double t) { return t == 0.0 ? inside : outside; };
  };
  const std::vector<Case> cases = {
      {"uphill", [](double t) { return t; }, [](double) { return 1.0; }, HUGE_VALUE},
      {"slope lies", [](double t) { return 1.0 + t; }, [](double) { return -1.0; }, HUGE_VALUE},
      {"no value", at_start(1.0, NOT_A_NUMBER), [](double) { return -1.0; }, HUGE_VALUE},
      {"infinite", at_start(1.0, HUGE_VALUE * 10), [](double) { return -1.0; }, HUGE_VALUE},
      {"no slope", [](double t) { return -t; }, at_start(-1.0, NOT_A_NUMBER), HUGE_VALUE},
      {"no room", [](double t) { return -t; }, [](double) { return -1.0; }, 0.0},
      {"zero slope", [](double t) { return -t * t; }, [](double t) { return -2 * t; }, HUGE_VALUE},
  };
  for (const Case& c : cases) {
    for (int method = 1; method <= 9; ++method) {
      const std::string what = c.name + ", method " + std::to_string(method);
      for (const double x0 : {0.0, 3.0}) {
        const auto moved = [&](const Curve& curve) {
          return [curve, x0](double x) { return curve(x - x0); };
        };
        Line line(moved(c.phi), moved(c.slope));
        line.start(x0);
        line.record.stub = c.stub;
        const int code = line.search(method);
        const bool nothing_tried = c.name == "no room" || c.name == "zero slope";
        EXPECT_EQ(code, method >= 6 && nothing_tried ? 0 : method == 2 ? -1 : 1) << what;
        if (nothing_tried || c.name == "uphill") {
          EXPECT_EQ(line.values, 0) << what;
        }
        line.expect_restored(what);
      }
    }
  }
  // Numbers that are none at the start or in the direction.
  for (int method = 1; method <= 9; ++method) {
    for (const bool start : {true, false}) {
      Line line([](double t) { return t * t - t; }, [](double t) { return 2.0 * t - 1.0; });
      (start ? line.record.crit : line.record.sdir[0]) = NOT_A_NUMBER;
      EXPECT_NE(line.search(method), 0) << method;
      EXPECT_EQ(line.record.alfa, 0.0);
      EXPECT_LE(line.values, MOST_EVALUATIONS);
    }
  }
}

// Lets evaluations fail from the k-th on, and the k-th alone, until the run no longer meets it.
TEST(LineSearch, SurvivesAFailureAtAnyEvaluation) {
  for (int method = 1; method <= 8; ++method) {
    for (const bool once : {true, false}) {
      long k = 1;
      for (bool met = true; met; ++k) {
        SCOPED_TRACE("method " + std::to_string(method) + ", evaluation " + std::to_string(k));
        long count = -2;  // two evaluations at the start
        const auto fails = [&] { return ++count == k || (!once && count > k); };
        Line line([&](double t) { return fails() ? NOT_A_NUMBER : std::exp(t) - 8.0 * t; },
                  [&](double t) { return fails() ? NOT_A_NUMBER : std::exp(t) - 8.0; });
        line.record.ifdr = 0;
        const int code = line.search(method);
        met = count >= k;
        if (code != 0) {
          line.expect_restored("");
        } else {
          EXPECT_LT(line.record.crit, line.f0);
          EXPECT_EQ(line.record.crit, std::exp(line.record.x[0]) - 8.0 * line.record.x[0]);
          EXPECT_EQ(line.record.tbig, 0.0);
        }
        ASSERT_LT(k, 200);
      }
    }
  }
}

TEST(LineSearch, EndsOnFlatFunctions) {
  for (int method = 1; method <= 9; ++method) {
    for (const double slope : {-1.0, -1e-12}) {
      Line line([](double) { return 7.0; }, [=](double) { return slope; });
      const int code = line.search(method);
      EXPECT_LE(line.values, MOST_EVALUATIONS) << method;
      EXPECT_EQ(line.record.crit, 7.0);
      if (code != 0) line.expect_restored(std::to_string(method));
    }
  }
}

// ---- Limits of the step -------------------------------------------------------------------------

TEST(LineSearch, StaysWithinTheLimitsOfTheStep) {
  for (int method = 1; method <= 8; ++method) {
    SCOPED_TRACE(method);
    for (const bool by_stub : {true, false}) {
      Line line([](double t) { return -t; }, [](double) { return -1.0; });
      (by_stub ? line.record.stub : line.record.smax) = 3.5;
      line.record.smit = 1;
      EXPECT_EQ(line.search(method), 0);
      EXPECT_EQ(line.record.alfa, 3.5);
      EXPECT_EQ(line.farthest, 3.5);
      if (!by_stub) {
        // smax holds in the first smit searches only.
        line.start(0.0);
        EXPECT_EQ(line.search(method), 0);
        EXPECT_GT(line.record.alfa, 3.5);
      }
    }
    if (method == 6 || method == 8) continue;  // end after eight doublings
    Line unbounded([](double t) { return -t; }, [](double) { return -1.0; });
    unbounded.record.ssin = 1e6;
    EXPECT_EQ(unbounded.search(method), 0);
    EXPECT_GE(unbounded.record.alfa, 1e6);
    EXPECT_LE(unbounded.record.alfa, 1e8);
  }
}

TEST(LineSearch, TheFifthSearchFreesTheFirstStep) {
  for (int method = 1; method <= 8; ++method) {
    Line line([](double t) { return (t - 1.0) * (t - 1.0); },
              [](double t) { return 2.0 * (t - 1.0); });
    line.record.salf = 0.25;
    for (int k = 1; k <= 5; ++k) {
      EXPECT_EQ(line.record.salf, 0.25) << method;
      line.start(0.0);
      EXPECT_EQ(line.search(method), 0);
    }
    EXPECT_EQ(line.record.nlis, 5);
    EXPECT_EQ(line.record.salf, 1.0) << method;
  }
}

// ---- Rescue, constraint violation, parabola -----------------------------------------------------

TEST(Bisect, FindsDescentThatTheSearchMissed) {
  const auto parabola = [](double t) { return (t - 1.3e-4) * (t - 1.3e-4); };
  Line line(parabola, [](double t) { return 2.0 * (t - 1.3e-4); });
  EXPECT_EQ(bisect(&line.record, line.f0, line.g0, 2.6e-4, 1.0), 0);
  EXPECT_NEAR(line.record.alfa, 1.3e-4, 1e-12) << "the parabola through three points is exact";
  EXPECT_EQ(line.record.crit, parabola(line.record.x[0]));
  EXPECT_EQ(line.record.grad[0], 2.0 * (line.record.x[0] - 1.3e-4));

  line.start(0.0);
  EXPECT_EQ(bisect(&line.record, line.f0, line.g0, 2e-4, 0.0), -1);
  EXPECT_EQ(line.values, 0);

  // Never beyond the constraints, nor for ever where the function has no minimum.
  Line falling([](double t) { return -t; }, [](double) { return -1.0; });
  EXPECT_EQ(bisect(&falling.record, 0.0, -1.0, 1.0, 1.0), 0);
  EXPECT_GE(falling.record.alfa, 0.5 * falling.record.ssin);
  falling.start(0.0);
  falling.record.stub = 0.9;
  EXPECT_EQ(bisect(&falling.record, 0.0, -1.0, 1.0, 0.9), 0);
  EXPECT_LE(falling.farthest, 0.9);

  // A doubling into a region without values keeps the point before it.
  Line wall([](double t) { return t < 0.35 ? -t : NOT_A_NUMBER; }, [](double) { return -1.0; });
  EXPECT_EQ(bisect(&wall.record, 0.0, -1.0, 1.0, 1.0), 0);
  EXPECT_DOUBLE_EQ(wall.record.alfa, 0.2);
}

TEST(Bisect, TurnsToTheSlopeWhereRoundingHidesTheValues) {
  // The value shows nothing of the parabola, whose slope is zero at 0.03.
  Line line([](double t) { return 1e20 + (t - 0.03) * (t - 0.03); },
            [](double t) { return 2.0 * (t - 0.03); });
  EXPECT_EQ(bisect(&line.record, line.f0, line.g0, line.record.gmax, 1.0), 1);
  EXPECT_NEAR(line.record.alfa, 0.03, 1e-5);
  line.start(0.0);
  EXPECT_EQ(bisect(&line.record, line.f0, line.g0, 1e-9, 1.0), -2) << "no smaller gradient";
  Line steeper([](double) { return 1.0; }, [](double t) { return -1.0 - t; });
  EXPECT_EQ(bisect(&steeper.record, 1.0, -1.0, 1.0, 1.0), -2);
}

TEST(Bisect, IsTriedOnlyWhileTheGradientIsLarge) {
  // Rises at every trial of the search; the gradient at the start is all that differs.
  for (const double slope : {-1e-5, -1.0}) {
    Line line([](double t) { return 1.0 + t; }, [=](double) { return slope; });
    EXPECT_NE(line.search(4), 0);
    if (slope == -1.0) {
      EXPECT_GT(line.values, line.slopes) << "the rescue asks for values alone";
    } else {
      EXPECT_EQ(line.values, line.slopes);
    }
  }
}

TEST(ViolationSearch, ReducesTheLargestViolation) {
  // The circle x^2 + y^2 = 4 and the half plane y >= 1, from the origin.
  TestRecord r(2, 11);
  r.f = [](const double* x) { return x[0] + x[1]; };
  r.with_rows({{{0, 1}, 1, 1}}).with_callbacks().at({0, 0});
  static double residual;
  r.nlicon = 1;
  r.nnlc = r.nlec = 1;
  r.fcon = &residual;
  r.usnlc = [](MINSTR* str) {
    if (str->x[0] > 100.0) return -11;
    str->fcon[0] = str->x[0] * str->x[0] + str->x[1] * str->x[1] - 4.0;
    return 0;
  };
  EXPECT_DOUBLE_EQ(gtcmx(&r), 4.0);
  r.x[1] = 2.0;
  EXPECT_DOUBLE_EQ(gtcmx(&r), 0.0);
  r.x[1] = -1.0;
  EXPECT_DOUBLE_EQ(gtcmx(&r), 3.0) << "the equality counts on both sides";
  r.x[0] = 101.0;
  EXPECT_EQ(gtcmx(&r), HUGE_VALUE);

  r.at({0, 0});
  r.usfct(&r);
  r.cmax = 4.0;
  r.ider = 0;
  r.damp = 2.0;
  r.sdir[0] = r.sdir[1] = 0.1;
  r.stub = HUGE_VALUE;
  ASSERT_EQ(znlpls9(&r), 0);
  EXPECT_LT(gtcmx(&r), 0.2) << "it vanishes at 14.1 times the direction";
  EXPECT_NEAR(r.crit, 0.2 * r.alfa, 1e-12);

  // From a point without violation only a lower one without violation will do.
  r.at({0, 2});
  std::copy_n(r.x, 2, r.xold);
  r.usfct(&r);
  r.cmax = 0.0;
  EXPECT_NE(znlpls9(&r), 0);
  EXPECT_EQ(r.x[1], 2.0);
}

TEST(ParabolaMinimum, FallsBackToTheMean) {
  const auto f = [](double t) { return 3.0 * (t - 0.4) * (t - 0.4) - 1.0; };
  EXPECT_NEAR(xqmin(0, 0.3, 2, f(0), f(0.3), f(2)), 0.4, 1e-14);
  EXPECT_DOUBLE_EQ(xqmin(0, 1, 1, 3, 2, 1), 2.0 / 3.0) << "equal abscissae";
  EXPECT_DOUBLE_EQ(xqmin(0, 1, 2, 3, 2, 1), 1.0) << "a line";
  EXPECT_DOUBLE_EQ(xqmin(1, 2, 3, f(1), f(2), f(3)), 2.0) << "outside";
  EXPECT_DOUBLE_EQ(xqmin(0, 1, 2, 3, HUGE_VALUE, HUGE_VALUE), 1.0) << "failed evaluations";
}

}  // namespace
}  // namespace tqnlp::test
