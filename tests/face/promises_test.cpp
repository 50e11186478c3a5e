// What the named face promises beyond the subroutines, each promise once; refusals as one table.
#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <thread>

#include "embed/task.h"
#include "face/face_problem.h"
#include "tqnlp/optimize.hpp"

namespace tqnlp {
namespace {

using Vector = std::vector<double>;

double rosenbrock(Point x) { return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2); }
void rosenbrock_slopes(Point x, Values g) {
  g[0] = -400 * x[0] * (x[1] - x[0] * x[0]) - 2 * (1 - x[0]);
  g[1] = 200 * (x[1] - x[0] * x[0]);
}
const Problem ROSENBROCK = Problem::minimize(2, rosenbrock);
const Vector START = {-1.2, 1.0};

// ---- Constraints and multipliers ----------------------------------------------------------------

// min (x - 3)^2 + (y - 2)^2 with a row -2x >= -2 (x <= 1), which only tightens, and 0 <= y <= 1.
TEST(Face, RowsOfOneCoefficientTightenAndMultipliersAreChangesOfTheObjective) {
  const auto value = [](Point x) { return std::pow(x[0] - 3, 2) + std::pow(x[1] - 2, 2); };
  for (const bool maximize : {false, true}) {
    auto problem = maximize ? Problem::maximize(2, [&](Point x) { return -value(x); })
                            : Problem::minimize(2, value);
    problem.bounds({-5, 0}, {5, 1}).linear(Vector{-2, 0}, -2, inf, "half").linear({1, 0}, -inf, 4);
    const Result found = solve(problem, {0, 0});
    ASSERT_TRUE(found.status && found.optimality) << found.status.sentence();
    EXPECT_NEAR(found.x[0], 1, 1e-7);
    EXPECT_EQ(found.x[1], 1);
    // Row: raising its lower side by 1 lowers x by 1/2, which costs (3 - x)^2' / 2 = 2.
    const double sign = maximize ? -1.0 : 1.0;
    EXPECT_NEAR(sign * found.multipliers.linear[0], 2, 1e-4);
    EXPECT_NEAR(sign * found.multipliers.bounds[1], -2, 1e-4);
    EXPECT_EQ(found.multipliers.bounds[0], 0);
    EXPECT_EQ(found.active.linear, (std::vector<int>{-1, 0}));
    EXPECT_EQ(found.active.bounds, (std::vector<int>{1, 1}));
  }
}

// The nearest point to (2, 2) in the ring 1 <= x^2 + y^2 <= 4 on the line x = y, as two ranges.
TEST(Face, NonlinearRangesAndEqualities) {
  auto problem =
      Problem::minimize(2, [](Point x) { return std::pow(x[0] - 2, 2) + std::pow(x[1] - 2, 2); });
  problem.nonlinear({1, 0}, {4, 0}, [](Point x, Values c) {
    c[0] = x[0] * x[0] + x[1] * x[1];
    c[1] = x[0] - x[1];
  });
  for (const Technique technique : {Technique::automatic, Technique::watchdog, Technique::cobyla}) {
    Options options;
    options.technique = technique;
    const Result found = solve(problem, {0.9, 0.7}, options);
    ASSERT_TRUE(found.status && found.optimality) << found.optimality.sentence();
    EXPECT_NEAR(found.x[0], std::sqrt(2.0), 1e-3);
    // d f / d 4: the distance 2 sqrt 2 - r, squared, by r^2: -(2 sqrt 2 - r) / r.
    EXPECT_NEAR(found.multipliers.nonlinear[0], -(std::sqrt(2.0) - 1), 1e-3);
    EXPECT_EQ(found.active.nonlinear, (std::vector<int>{1, 2}));
    EXPECT_NEAR(found.constraints[0], 4, 1e-3);
  }
}

// ---- Runs that end otherwise --------------------------------------------------------------------

// A search from far away that is cut off, and one whose function has no value beyond x = -0.9: the
// best point that was evaluated is the answer.
TEST(Face, ARunThatFailsEndsAtItsBestPoint) {
  double best = HUGE_VAL;
  auto problem = Problem::minimize(2, [&](Point x) {
    if (x[0] > -0.9) throw EvaluationFailed();
    const double f = rosenbrock(x);
    best = std::min(best, f);
    return f;
  });
  problem.gradient(rosenbrock_slopes);
  for (const Technique technique :
       {Technique::nelder_mead, Technique::quasi_newton, Technique::newton_line_search}) {
    best = HUGE_VAL;
    Options options;
    options.technique = technique;
    options.calls = 40;
    const Result found = solve(problem, START, options);
    ASSERT_FALSE(found.status);
    EXPECT_FALSE(found.optimality);
    EXPECT_EQ(found.objective, rosenbrock(found.x));
    EXPECT_EQ(found.objective, best) << name_of(technique);
    EXPECT_GT(found.counts.failed, 0);
  }
}

// f = (x^2 - 1)^2 + y^2 at its saddle, and a criterion that is met at once far from the minimum:
// both codes claim success, the check tells, and the analysis goes on from there.
TEST(Face, SuccessThatIsNoneIsToldAndLeft) {
  auto saddle =
      Problem::minimize(2, [](Point x) { return std::pow(x[0] * x[0] - 1, 2) + x[1] * x[1]; });
  saddle.gradient([](Point x, Values g) {
    g[0] = 4 * x[0] * (x[0] * x[0] - 1);
    g[1] = 2 * x[1];
  });
  Options loose, off;
  loose.relative_gradient_tolerance = 1e3;
  off.analysis = false;
  Options loose_off = loose;
  loose_off.analysis = false;
  EXPECT_EQ(solve(saddle, {0, 1}, off).x[0], 0);
  const Result left = solve(saddle, {0, 1});
  EXPECT_NEAR(std::fabs(left.x[0]), 1, 1e-4);
  EXPECT_GT(left.optimality.restarts, 0);
  EXPECT_TRUE(left.optimality && left.optimality.curvature_known);
  const Result told = solve(ROSENBROCK, START, loose_off);
  EXPECT_TRUE(told.status && told.optimality.verdict == Optimality::not_stationary);
  EXPECT_TRUE(solve(ROSENBROCK, START, loose).optimality);
}

struct Thrown {
  int number;
};

// The same object comes back, the run ends there, and what was found is kept; also out of progress
// and sink, and from a solve within a function of another.
TEST(Face, ExceptionsArriveAndLeaveThePartialResult) {
  const auto thrown = std::make_shared<Thrown>(Thrown{7});
  int calls = 0;
  const auto throwing = Problem::minimize(2, [&](Point x) {
    if (++calls == 20) throw thrown;
    return rosenbrock(x);
  });
  Result partial;
  Options options;
  options.partial = &partial;
  try {
    solve(throwing, START, options);
    FAIL();
  } catch (const std::shared_ptr<Thrown>& caught) {
    EXPECT_EQ(caught, thrown);
  }
  EXPECT_EQ(calls, 20);
  EXPECT_EQ(partial.status.ending, Status::interrupted_by_exception);
  EXPECT_LT(partial.objective, rosenbrock(START));
  EXPECT_EQ(partial.objective, rosenbrock(partial.x));

  options.progress = [](const Progress& at) -> bool {
    if (at.iteration == 2) throw Thrown{2};
    return true;
  };
  EXPECT_THROW(solve(ROSENBROCK, START, options), Thrown);
  Options loud;
  loud.report = 1;
  loud.sink = [](std::string_view) { throw Thrown{3}; };
  EXPECT_THROW(solve(ROSENBROCK, START, loud), Thrown);
  const auto outer = Problem::minimize(1, [](Point x) {
    return solve(ROSENBROCK, {x[0], 1.0}).objective + x[0] * x[0];
  });
  EXPECT_NEAR(solve(outer, {1.0}).x[0], 0, 1e-4);
}

TEST(Face, ProgressStopsARunAndLimitsEndIt) {
  Options options;
  std::vector<double> seen;
  options.progress = [&](const Progress& at) {
    seen.push_back(at.objective);
    return at.iteration < 5;
  };
  const Result stopped = solve(ROSENBROCK, START, options);
  EXPECT_EQ(stopped.status.ending, Status::stopped_by_caller);
  EXPECT_EQ(seen.size(), 5u);
  EXPECT_EQ(stopped.history.objective.size(), 6u);  // the start too
  EXPECT_EQ(stopped.objective, rosenbrock(stopped.x));
  Options limits;
  limits.seconds = 0;
  EXPECT_EQ(solve(ROSENBROCK, START, limits).status.ending, Status::time_limit);
  EXPECT_EQ(solve(Problem::minimize(1, [](Point) { return std::nan(""); }), {0}).status.ending,
            Status::no_value_at_start);
}

// Every allocation of a solve is refused in its turn: an answer that says so, no block left, and
// the next solve as if nothing had been.
void walk_through_refusals(const Problem& problem, const Options& options = {}) {
  static constexpr auto ALLOCATION = static_cast<std::size_t>(embed::Fault::allocation);
  const Result whole = solve(problem, START, options);
  ASSERT_TRUE(whole.status) << whole.status.sentence();
  bool struck = true;
  for (long k = 0; struck; ++k) {
    embed::Watch watch;
    watch.faults[ALLOCATION].left = k;
    try {
      const Result found = solve(problem, START, options);
      EXPECT_EQ(found.x.size(), START.size());
      EXPECT_TRUE(!found.status || whole.objective == found.objective) << k;
    } catch (const FatalError& error) {
      EXPECT_EQ(error.code(), 1016) << error.what();
    }
    struck = watch.faults[ALLOCATION].left < 0;
    EXPECT_EQ(watch.counters.blocks_left, 0) << k;
  }
  const Result again = solve(problem, START, options);
  EXPECT_EQ(again.x, whole.x);
  EXPECT_EQ(again.log.size(), whole.log.size());
}

TEST(Face, RefusedMemoryIsToldAndLeavesNothing) {
  auto constrained = Problem(ROSENBROCK).bounds({-3, -3}, {3, 3}).linear(Vector{1, 1}, -4, 1);
  Options loud;
  loud.report = 5;
  walk_through_refusals(constrained, loud);
  constrained.nonlinear({0}, {2}, [](Point x, Values c) { c[0] = x[0] * x[0] + x[1] * x[1]; });
  walk_through_refusals(constrained);
  walk_through_refusals(Problem::least_squares(2, 2, [](Point x, Values r) {
    r[0] = 10 * (x[1] - x[0] * x[0]);
    r[1] = 1 - x[0];
  }));
  walk_through_refusals(Problem::quadratic(SymmetricMatrix(2, {4, 1, 1, 3}), {1, 1})
                            .bounds({-2, -2}, {2, 2})
                            .linear(Vector{1, 1}, -1, 3));
}

// ---- The rest -----------------------------------------------------------------------------------

TEST(Face, NamesTablesCountsAndThreads) {
  long values = 0, slopes = 0;
  auto problem = Problem::minimize(2, [&](Point x) {
    ++values;
    return rosenbrock(x);
  });
  problem.gradient([&](Point x, Values g) {
    ++slopes;
    rosenbrock_slopes(x, g);
  });
  problem.names({"slope", "offset"});
  Options options;
  options.report = 2;
  options.check_derivatives = true;
  const Result found = solve(problem, START, options);
  EXPECT_TRUE(found.optimality);
  EXPECT_EQ(found.counts.objective, values);
  EXPECT_EQ(found.counts.gradient, slopes);
  const auto names = [](const Result& result, const char* name) {
    bool named = false;
    for (const Table& table : result.tables)
      for (const auto& row : table.rows)
        for (const Cell& cell : row) named |= cell == Cell(std::string(name));
    return named;
  };
  EXPECT_TRUE(names(found, "slope"));
  const auto within = [](Point x, Values c) { c[0] = x[0] * x[0] + x[1] * x[1]; };
  options.report = 3;
  const Result constrained = solve(problem.linear({1, 1}, -inf, 1, "budget")
                                       .nonlinear({-inf}, {1}, within)
                                       .nonlinear_names({"disk"}),
                                   START, options);
  EXPECT_TRUE(names(constrained, "budget") && names(constrained, "disk"));

  Vector ends[4];
  std::vector<std::thread> threads;
  for (Vector& end : ends) threads.emplace_back([&end] { end = solve(ROSENBROCK, START).x; });
  for (std::thread& thread : threads) thread.join();
  for (const Vector& end : ends) EXPECT_EQ(end, ends[0]);
}

TEST(Face, WithoutEndWithoutCheckAndWithoutAValue) {
  const auto falling = Problem::minimize(2, [](Point x) { return x[0] * x[0] - std::exp(x[1]); });
  EXPECT_EQ(solve(falling, {1, 1}).status.ending, Status::unbounded);
  Options options;
  options.objective_target = -1e3;
  EXPECT_EQ(solve(falling, {1, 1}, options).status.ending, Status::objective_target_met);

  // What a success of the caller's criteria becomes by the analysis is no failure.
  options = {};
  options.relative_gradient_tolerance = 0.5;
  const Result analysed = solve(ROSENBROCK, START, options);
  EXPECT_TRUE(analysed.status && analysed.optimality && analysed.optimality.restarts > 0);
  options = {};
  options.check_result = false;
  const Result unchecked = solve(ROSENBROCK, START, options);
  EXPECT_EQ(unchecked.optimality.verdict, Optimality::not_known);
  EXPECT_EQ(unchecked.gradient.size(), 2u);

  auto nowhere = Problem::minimize(2, [](Point) { return std::nan(""); });
  nowhere.linear({1, 1}, 0, 1).nonlinear({0}, {1}, [](Point x, Values c) { c[0] = x[0]; });
  const Result failed = solve(nowhere, {1, 1});
  EXPECT_EQ(failed.status.ending, Status::no_value_at_start);
  EXPECT_EQ(
      failed.multipliers.bounds.size() + failed.active.linear.size() + failed.constraints.size(),
      4u);
}

// Each wrong element is named with both values, at a bound and beside one too; right ones are not.
TEST(Face, WrongDerivativesAreNamedElementByElement) {
  for (const double lower : {-5.0, 1.5 - 1e-7, 1.5}) {
    auto problem = Problem::minimize(2, [](Point x) { return std::exp(x[0]) * x[1] + x[1]; });
    problem.gradient([](Point x, Values g) { g[0] = std::exp(x[0]) * x[1], g[1] = std::exp(x[0]); })
        .hessian([](Point x, Values h) { h[0] = h[3] = 0, h[1] = h[2] = std::exp(x[0]); })
        .nonlinear({0, 0}, {inf, inf}, [](Point x, Values c) { c[0] = x[0] - x[1], c[1] = x[1]; })
        .nonlinear_jacobian([](Point, Values j) { j[0] = j[3] = 1, j[1] = -1, j[2] = 0.01; })
        .bounds({lower, -1}, {9, 9});
    const DerivativeCheck check = check_derivatives(problem, {1.5, 2});
    EXPECT_EQ(check.compared, 2 + 3 + 4);
    ASSERT_EQ(check.wrong.size(), 3) << text_table(check.summary);
    const double wanted[3][4] = {
        {0, 1, std::exp(1.5), std::exp(1.5) + 1}, {1, 0, 0.01, 0}, {0, 0, 0, 2 * std::exp(1.5)}};
    for (std::size_t k = 0; k < 3; ++k) {
      EXPECT_EQ(check.wrong[k].row, wanted[k][0]);
      EXPECT_EQ(check.wrong[k].parameter, wanted[k][1]);
      EXPECT_DOUBLE_EQ(check.wrong[k].given, wanted[k][2]);
      EXPECT_NEAR(check.wrong[k].difference, wanted[k][3], 1e-7);
    }
    Options options;
    options.check_derivatives = true;
    options.technique = Technique::cobyla;  // which uses none of them
    EXPECT_EQ(solve(problem, {1.5, 2}, options).derivatives.wrong.size(), 3);
  }
}

TEST(Face, RightDerivativesAreNotBlamed) {
  for (const auto& p : test::problem_library()) {
    for (const auto form : {test::Form::scalar, test::Form::squares}) {
      if (form == test::Form::squares && p.m == 0) continue;
      const auto check =
          check_derivatives(test::face_problem(p, form, test::Modules::all), p.start);
      EXPECT_TRUE(check && check.compared > 0) << p.name << '\n' << text_table(check.summary);
    }
  }
}

struct Refusal {
  const char* words[3];  // field, given, expected
  std::function<void()> attempt;
};

TEST(Face, RefusalsNameFieldGivenAndExpected) {
  const auto with = [](auto&& change) {
    Options options;
    change(options);
    solve(ROSENBROCK, START, options);
  };
  const auto residuals = [](Point, Values) {};
  const auto linear = [](Problem p) { return p.linear(Vector{1, 1}, 0, 1); };
  const Refusal rows[] = {
      {{"start", "3", "2"},
       [] {
         solve(ROSENBROCK, {1, 2, 3});
       }},
      {{"start, \"b\"", "nan", "finite"},
       [] {
         solve(Problem(ROSENBROCK).names({"a", "b"}), {1, NAN});
       }},
      {{"n", "0", "1 to"}, [] { Problem::minimize(0, rosenbrock); }},
      {{"objective", "empty", "called"}, [] { Problem::minimize(2, nullptr); }},
      {{"bounds, upper", "1", "2"},
       [] {
         Problem(ROSENBROCK).bounds({0, 0}, {1});
       }},
      {{"bound of \"b\"", "no number", "inf"},
       [] {
         Problem(ROSENBROCK).names({"a", "b"}).bound(1, NAN, 1);
       }},
      {{"\"a\"", "lower 2 above upper 1", "at most"},
       [] {
         solve(Problem(ROSENBROCK).names({"a", "b"}).bound(0, 2, 1), START);
       }},
      {{"parameter 0", "\"cap\"", "some value"},
       [] {
         solve(Problem(ROSENBROCK).bound(0, 2, 9).linear(Vector{-1, 0}, -1, inf, "cap"), START);
       }},
      {{"linear row 0", "3", "at most"},
       [] {
         solve(Problem(ROSENBROCK).linear(Vector{1, 1}, 3, 1), START);
       }},
      {{"\"low\" beside the parallel linear row \"high\"", "at most 1 and at least 2",
        "some point"},
       [] {
         auto p = Problem(ROSENBROCK).linear(Vector{1, 2}, 2, inf, "high");
         solve(p.linear(Vector{-2, -4}, -2, inf, "low"), START);
       }},
      {{"\"sum\"", "lower 5, and bounds that allow at most 3", "within the bounds"},
       [] {
         auto p = Problem(ROSENBROCK).bounds({-9, -1}, {1, 9}).linear(Vector{1, -2}, 5, inf, "sum");
         solve(p, START);
       }},
      {{"scale", "1", "2"}, [&] { with([](Options& o) { o.scale = {1}; }); }},
      {{"scale", "-1", "1e-100"}, [&] { with([](Options& o) {
                                          o.scale = {1, -1};
                                        }); }},
      {{"column", "2", "0 to 1"},
       [] {
         Problem(ROSENBROCK).linear(SparseRow{{2}, {1.0}}, 0, 1);
       }},
      {{"h, row", "5", "0 to 1"},
       [] {
         Problem::quadratic(SymmetricMatrix(2, std::vector<Element>{{5, 0, 1.0}}));
       }},
      {{"h", "mirror", "symmetric"},
       [] {
         Problem::quadratic(SymmetricMatrix(2, Vector{1, 2, 3, 4}));
       }},
      {{"hessian", "no gradient", "gradient"},
       [] { solve(Problem(ROSENBROCK).hessian([](Point, Values) {}), START); }},
      {{"jacobian", "scalar", "least squares"}, [&] { Problem(ROSENBROCK).jacobian(residuals); }},
      {{"technique", "nelder_mead", "cobyla"},
       [&] {
         Options options;
         options.technique = Technique::nelder_mead;
         solve(linear(ROSENBROCK), START, options);
       }},
      {{"technique", "levenberg", "quasi_newton"},
       [&] { with([](Options& o) { o.technique = Technique::levenberg_marquardt; }); }},
      {{"gradient_tolerance", "-1", "0 to"},
       [&] { with([](Options& o) { o.gradient_tolerance = -1; }); }},
      {{"iterations", "nan", "number"}, [&] { with([](Options& o) { o.iterations = NAN; }); }},
      {{"update", "9", "1 to 4"}, [&] { with([](Options& o) { o.update = 9; }); }},
      {{"report", "12", "0 to 9"}, [&] { with([](Options& o) { o.report = 12; }); }},
      {{"problem", "moved", "holds"},
       [] {
         Problem gone = ROSENBROCK;
         const Problem taken = std::move(gone);
         solve(gone, START);
       }},
  };
  for (const Refusal& row : rows) {
    try {
      row.attempt();
      ADD_FAILURE() << row.words[0] << " was taken";
    } catch (const std::invalid_argument& refusal) {
      const std::string text = refusal.what();
      for (const char* word : row.words)
        EXPECT_NE(text.find(word), std::string::npos) << word << " is not in: " << text;
    }
  }
}

}  // namespace
}  // namespace tqnlp
