// The analysis at a stop: whole runs that must leave a saddle point, and the contracts of its three
// services one by one.
#include "aasubs/post/stop_analysis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include "aasubs/constraints/znlpbas.h"
#include "aasubs/linesearch/znlplis.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "kernels/indefinite.h"
#include "kernels/matrices.h"
#include "kernels/zranuni.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Point = std::vector<double>;

// A problem with its constraints; the record must not outlive it.
Problem within(Problem p, Point lower, Point upper, std::vector<LinearRow> rows = {}) {
  p.lower = std::move(lower);
  p.upper = std::move(upper);
  p.rows = std::move(rows);
  return p;
}

void install_constrained(TestRecord& r, const Problem& p) {
  install(r, p);
  if (!p.lower.empty()) r.with_bounds(p.lower, p.upper);
  if (!p.rows.empty()) r.with_rows(p.rows);
}

// An objective whose gradient is taken for zero, so that the run believes in every point.
void install_flat(TestRecord& r, std::function<double(const double*)> f, const Point& start) {
  r.f = std::move(f);
  r.g = [n = r.nvar](const double*, double* g) { std::fill_n(g, n, 0.0); };
  r.with_callbacks().at(start);
}

// Evaluates everything at x, as a technique has done when it stops.
void arrive(TestRecord& r) {
  r.usfct(&r);
  r.usgrd(&r);
  r.indf = IN_STOP_ANALYSIS;
  znlpfch(&r, 1, 0, 0);
  if (r.bounds != 0 || r.lincon != 0) znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
}

// A maximum of value 0 at 0, minima of value -1/4 at +-1.
template <typename T>
T well(const T& s) {
  return 0.25 * s * s * s * s - 0.5 * s * s;
}

// ---- Whole runs ---------------------------------------------------------------------------------

// Problems whose gradient from the start leads to a saddle point or a maximum, with the value there
// and that of the minima.
std::vector<Problem> stops_at_saddles() {
  const auto saddle = [](double y, double value, double minimum) {
    return scalar_problem("saddle", {2, y}, {value, minimum},
                          [](auto x) { return 1.0 + well(x[0] - 2.0) + x[1] * x[1]; });
  };
  const Problem peak = scalar_problem("maximum", {2, 2}, {1, 0.5}, [](auto x) {
    return 1.0 + well(x[0] - 2.0) + well(x[1] - 2.0);
  });
  // A saddle across the row 0.1 u + 0.3 v = 0, whose residual is never free of rounding.
  const auto slanted = [](double value, double minimum) {
    return scalar_problem("slanted", {0, 0, 3}, {value, minimum}, [](auto x) {
      return 1.0 + well((3.0 * x[0] - x[1]) / std::sqrt(10.0)) + x[2] * x[2];
    });
  };
  const LinearRow across{{0.1, 0.3, 0}, 0, 0}, above{{0, 0, 1}, 1, 1};
  return {saddle(1, 1, 0.75),
          peak,
          within(saddle(1, 1, 0.75), {2, -HUGE_VALUE}, {4, HUGE_VALUE}),
          within(saddle(3, 2, 1.75), {-5, 1}, {5, 9}),
          within(slanted(1, 0.75), {}, {}, {across}),
          within(slanted(2, 1.75), {}, {}, {across, above})};
}

TEST(StopAnalysis, ARunLeavesASaddlePointAndEndsAtAMinimum) {
  for (const Problem& problem : stops_at_saddles()) {
    for (const int technique : {4, 10, 11}) {
      for (const double rtop : {MISSING, 0.1, 1e-12}) {
        // Below what the objective can show, the curvature alone tells of the saddle. At the
        // minimum so small a radius finds decreases that a line search cannot.
        if (rtop == 1e-12 && (technique != 4 || !problem.rows.empty())) continue;
        SCOPED_TRACE(testing::Message() << problem.name << " " << technique << " " << rtop);
        TestRecord r(problem.n, technique);
        install_constrained(r, problem);
        r.updat = znlpbfg;
        r.linse = znlpls2;
        r.rtop = rtop;
        EXPECT_GT(run_technique(r), 0);
        EXPECT_NEAR(r.crit, problem.minima[wzmis(rtop) ? 0 : 1], 1e-8);
        EXPECT_EQ(znlpfch(&r, 0, 0, 0), 0);
        EXPECT_LT(r.nfct, 120);
      }
    }
  }
}

// A failed evaluation runs the analysis without rtop; noise and an objective without a lower limit
// offer a better point at every stop. All such runs end, at the latest at their limits.
TEST(StopAnalysis, RunsEndWhateverTheObjectiveDoes) {
  const Problem square =
      scalar_problem("square", {1, 2}, {}, [](auto x) { return x[0] * x[0] + x[1] * x[1]; });
  const std::function<double(const double*)> objectives[] = {
      [&](auto x) { return square.value(x) + 1e-3 * std::sin(1e7 * x[0] + 3e7 * x[1]); },
      [](auto x) { return -x[0] * x[0] - x[1]; },
      [&](auto x) { return x[0] + x[1] < 0.3 ? MISSING : square.value(x); }};
  for (const auto& objective : objectives) {
    for (const double rtop : {MISSING, 1e-3, 0.1}) {
      TestRecord r(2);
      install(r, square);
      r.f = objective;
      r.rtop = rtop;
      r.agtl = 0.0;
      run_technique(r);
      EXPECT_GT(r.nfct, 2);
      EXPECT_LT(r.nfct, r.maxf + 200);
    }
  }
}

// ---- znlpnoi ------------------------------------------------------------------------------------

TEST(NoiseProbe, GeneratorIsTheMinimalStandard) {
  long seed = 1;
  std::minstd_rand reference(1);
  for (int k = 0; k < 10000; ++k) EXPECT_EQ(zranuni(&seed) * 2147483647.0, double(reference()));
  EXPECT_EQ(seed, 399268537);  // the published check value
}

TEST(NoiseProbe, LeavesAMinimumAsItIsAndRepeatsItself) {
  for (const bool constrained : {false, true}) {
    Point visited[2];
    for (Point& trace : visited) {
      TestRecord r(2);
      const auto f = [&](const double* x) {
        trace.insert(trace.end(), {x[0], x[1]});
        return well(x[0]) + x[1] * x[1];
      };
      install_flat(r, f, {1, 0});
      if (constrained) r.with_rows({{{1, 2}, 0, 1}}).with_bounds({-4, -4}, {4, 4});
      arrive(r);
      r.rtop = 0.1;
      r.salf = 0.7;
      EXPECT_EQ(znlpnoi(&r, 0), 0);
      EXPECT_TRUE(r.point() == (Point{1, 0}) && r.crit == -0.25 && r.salf == 0.7);
      EXPECT_LE(trace.size() / 2, 2u * 2 + 2 + 43);
      EXPECT_GE(trace.size() / 2, constrained ? 3u : 25u);
    }
    EXPECT_EQ(visited[0], visited[1]);
  }
}

TEST(NoiseProbe, AcceptsOnlyWhatIsBetterInsideTheConstraints) {
  TestRecord r(2);
  install_flat(r, [](auto x) { return x[0] + x[1]; }, {0.05, -1});
  r.with_bounds({0, -1}, {3, -1});
  arrive(r);
  r.rtop = 1.0;
  r.alfa = 0.25;
  EXPECT_EQ(znlpnoi(&r, 1), 1);
  EXPECT_EQ(r.point(), (Point{0, -1}));  // clipped at the bound, the other one fixed
  EXPECT_TRUE(r.crit == -1.0 && r.cold == 0.05 - 1.0 && r.alfa == 0.25);
  EXPECT_TRUE(r.iabc[0] == 1 && r.nabc == 2);
  // x <= 1 in a tiny scale: beyond it the violation is below the tolerance, but above that of x.
  TestRecord beyond(2);
  install_flat(beyond, [](auto x) { return -x[0]; }, {1, 0});
  beyond.with_rows({{{-1e-9, 0}, 1, -1e-9}});
  arrive(beyond);
  EXPECT_EQ(znlpnoi(&beyond, 0), 0);
}

// Slope -2 at x = 1, but the first trial falls by less than the threshold: a line search goes on to
// the minimum.
TEST(NoiseProbe, ASmallDecreaseIsLeftToALineSearch) {
  const Problem parabola =
      scalar_problem("parabola", {1}, {}, [](auto x) { return (x[0] - 2.0) * (x[0] - 2.0); });
  TestRecord r(1);
  install(r, parabola);
  arrive(r);
  r.rtop = 0.01;
  r.aftl = 10.0;
  EXPECT_EQ(znlpnoi(&r, 0), 1);
  EXPECT_LT(r.crit, 0.98);
  EXPECT_EQ(r.crit, r.f(r.x));
  EXPECT_TRUE(r.ider == 4 && wzmis(r.damp));
}

TEST(NoiseProbe, AFailedBaseCountsAsTheLargestValue) {
  using Function = std::function<double(const double*)>;
  const std::tuple<Function, double, int> rows[] = {
      {[](auto x) { return x[0] < 1.05 ? MISSING : 1e5 * x[0]; }, 1, 1},
      {[](auto) { return MISSING; }, 1, 0},
      // A stale mark of failure at a good point does not make its neighbours better.
      {[](auto x) { return x[0] * x[0] + x[1] * x[1]; }, 0, 0}};
  for (const auto& [f, left, found] : rows) {
    TestRecord r(2);
    install_flat(r, f, {left, 0});
    r.tbig = 1.0;
    r.crit = MISSING;
    r.usgrd = [](MINSTR*) { return -11; };  // a better point stands without derivatives, too
    EXPECT_EQ(znlpnoi(&r, 0), found);
    EXPECT_EQ(r.tbig, found != 0 ? 0.0 : 1.0);
    EXPECT_TRUE(wzmis(r.f(r.x)) || r.crit == r.f(r.x));
  }
}

// ---- znlpdnc ------------------------------------------------------------------------------------

// f = (x - c)'H(x - c)/2 + q sum (x - c)^4 / 4, stationary at c.
Problem quadratic(long n, Point h, double c, double q) {
  return scalar_problem("quadratic", Point(std::size_t(n), c), {}, [=](auto x) {
    auto sum = 0.0 * x[0];
    for (long i = 0; i < n; ++i) {
      const auto s = x[i] - c;
      sum += 0.25 * q * s * s * s * s;
      for (long k = 0; k < n; ++k) sum += 0.5 * h[std::size_t(zisub(i, k))] * s * (x[k] - c);
    }
    return sum;
  });
}

TEST(SecondOrderTest, AgreesWithTheInertiaOfRandomHessians) {
  embed::Task task;
  embed::Activation active(task);
  int saddles = 0;
  for (unsigned trial = 0; trial < 200; ++trial) {
    const long n = 1 + trial % 6;
    Point h = random_vector(packed_size(n), trial);
    for (long i = 0; i < n; ++i) h[std::size_t(zisub(i, i))] += trial % 3 == 0 ? double(n) : 0.3;
    Point factor = h;
    long pivots[7];
    double inertia[5];
    zududec(n, TINY, inertia, factor.data(), pivots);
    const bool indefinite = inertia[3] > 0;
    saddles += indefinite ? 1 : 0;

    const Problem problem = quadratic(n, h, 0.5, 20.0);
    TestRecord r(n);
    install(r, problem);
    if (trial % 4 == 1) r.ushes = nullptr;                   // gradients differenced
    if (trial % 2 == 1) r.hesalo = r.hpralo = r.hlfalo = 0;  // memory of its own
    arrive(r);
    const double before = r.crit;
    const double* const hess = r.hess;
    for (int k = 0; k < 3 && trial % 4 == 3; ++k) {
      embed::plan_fault(task, embed::Fault::allocation, k);
      EXPECT_EQ(znlpdnc(&r, 1), -2);
      EXPECT_EQ(r.hess, hess);
    }
    EXPECT_EQ(znlpdnc(&r, 1), indefinite ? 0 : 2) << "trial " << trial;
    EXPECT_TRUE(indefinite ? r.crit < before : r.point() == problem.start) << "trial " << trial;
    EXPECT_EQ(r.crit, r.f(r.x));
  }
  EXPECT_TRUE(saddles > 50 && saddles < 150);
  EXPECT_EQ(task.counters.blocks_taken, task.counters.blocks_given);
}

TEST(SecondOrderTest, AnswersForEveryKindOfPoint) {
  const auto test = [](const Problem& p, int ider = 4, const Point& diagonal = {}) {
    TestRecord r(2);
    install_constrained(r, p);
    r.ider = ider;
    if (!diagonal.empty()) {
      r.hfrm = 2;
      r.h = [&](auto, double* h) { std::copy(diagonal.begin(), diagonal.end(), h); };
    }
    arrive(r);
    const int result = znlpdnc(&r, 1);
    EXPECT_TRUE(result == 0 || r.point() == p.start);
    return result;
  };
  const auto at = [](Point h, double c = 0.5) { return quadratic(2, std::move(h), c, 1.0); };
  EXPECT_EQ(test(at({1, 0, -1}), 4, {1, -1}), 0);
  EXPECT_EQ(test(at({0, 1, 0})), 0);  // a saddle without a negative diagonal element
  EXPECT_EQ(test(at({0, 0, 0})), 1);
  EXPECT_EQ(test(at({1, 0, -1}, 0.0)), 3);  // a step as long as x = 0 is none
  EXPECT_EQ(test(at({1, 0, -1}), 0), -1);
  EXPECT_EQ(test(at({1, 0, -1}), 4, {1, NAN}), -1);
  // Negative curvature on an active bound, or off the equality, does not count.
  EXPECT_EQ(test(within(at({1, 0, -1}), {-9, 0.5}, {9, 0.5})), 2);
  EXPECT_EQ(test(within(at({-1, 0, 1}), {0.5, 0.5}, {0.5, 0.5})), 2);
  EXPECT_EQ(test(within(at({1, 4, 1}), {}, {}, {{{1, -1}, 0, 0}})), 2);
  EXPECT_EQ(test(within(at({1, 4, 1}), {}, {}, {{{1, 1}, 0, 1}})), 0);
  // The matrix lies: the value rises along its direction.
  EXPECT_EQ(test(within(at({-1, 0, 1}), {-9, -9}, {9, 9}), 4, {1, -1}), 3);
}

// ---- Nonlinear constraints ----------------------------------------------------------------------

// Nonlinear constraints, the residuals of a problem of two parameters (equalities first), beside
// the pieces of a TestRecord.
struct NonlinearRecord : TestRecord {
  NonlinearRecord(Problem p, long equalities) : TestRecord(2, 11), problem(std::move(p)) {
    nlicon = opro = 1;
    nnlc = problem.m;
    nlec = equalities;
    make_lists();
    fcon = numbers;
    jcon = fcon + 2;
    grlf = jcon + 4;
    at(problem.start);
    acget = [](MINSTR* str, long i, double* w) {
      auto* r = static_cast<NonlinearRecord*>(str);
      if (i < str->ncon) return r->linear_row(str, i, w);
      std::copy_n(str->jcon + (i - str->ncon) * 2, 2, w);
      return 0;
    };
    usnlc = [](MINSTR* str) {
      auto* r = static_cast<NonlinearRecord*>(str);
      r->problem.residuals(str->x, str->fcon);
      str->tbig = ++r->calls >= r->fails_at ? 1.0 : 0.0;
      return 0;
    };
    usjnc = [](MINSTR* str) {
      const Jet point[] = {Jet::variable(str->x[0], 0, 2), Jet::variable(str->x[1], 1, 2)};
      Jet c[2];
      static_cast<NonlinearRecord*>(str)->problem.residual_jets(point, c);
      for (long i = 0; i < 2 * str->nnlc; ++i) str->jcon[i] = c[i / 2].gradient(i % 2);
      return 0;
    };
  }
  // Counts; again after bounds or rows were set. The lists take eight constraints.
  void make_lists() {
    ntec = neqc + nlec + nbec;
    ntco = ncon + nnlc + nbic + nbec;
    iact = lists;
    liwk = lists + 8;
  }
  Problem problem;
  int (*linear_row)(MINSTR*, long, double*) = acget;
  long calls = 0, fails_at = 1000000;
  double numbers[10] = {};
  long lists[16] = {};
};

// With f = y^2 - x^2 and an active constraint x = 1 the tangent space is y alone: the rows of
// nonlinear constraints belong to the frame.
TEST(SecondOrderTest, StaysInTheTangentSpaceOfNonlinearConstraints) {
  const Problem objective =
      scalar_problem("saddle", {1, 0.5}, {}, [](auto x) { return x[1] * x[1] - x[0] * x[0]; });
  const auto line = [](auto x, auto* c) { c[0] = x[0] - 1.0; };
  NonlinearRecord r(residual_problem("line", 1, {1, 0.5}, {}, line), 1);
  install(r, objective);
  r.usfct(&r);
  r.usjnc(&r);
  r.indf = IN_STOP_ANALYSIS;
  EXPECT_EQ(znlpdnc(&r, 1), 2);
  EXPECT_TRUE(r.nalc == 1 && r.lincon == 0);
  EXPECT_EQ(znlpdnc(&r, 0), -1);
}

// On the circle of radius 2, beside the parabola 2x = y^2.
Problem circle() {
  return residual_problem("circle", 2, {-3, 7}, {}, [](auto x, auto* c) {
    c[0] = x[0] * x[0] + x[1] * x[1] - 4.0;
    c[1] = x[0] - x[1] * x[1] / 2.0;
  });
}

TEST(NonlinearFeasibility, RepairsAPointUnderAllKindsOfConstraints) {
  for (const bool borrowed : {false, true}) {
    NonlinearRecord r(circle(), 1);
    r.with_bounds({0, 0}, {5, 1}).with_rows({{{1, 0}, 1, 1}});
    r.make_lists();
    if (borrowed) {
      r.tech = 14;
      r.hess = r.half = r.hpro = nullptr;
    }
    r.iabc[0] = 1;  // of a point that the repair leaves
    EXPECT_EQ(znlpfnc(&r, 1), 0);
    EXPECT_EQ(r.iabc[0], 0);
    EXPECT_EQ(znlpfch(&r, 0, 1, 0), 0);
    EXPECT_NEAR(std::hypot(r.x[0], r.x[1]), 2.0, 1e-7);
    EXPECT_EQ(r.xold[1], 7.0);
    r.calls = 0;
    const Point point = r.point();
    EXPECT_EQ(znlpfnc(&r, 0), 0);
    EXPECT_LE(r.calls, 2);
    EXPECT_EQ(r.point(), point);
  }
}

// What cannot be satisfied ends at the limits, with x as given or a smaller violation; so does a
// start where the Jacobian vanishes, and one from which evaluations fail.
TEST(NonlinearFeasibility, EndsAtItsLimitsWithoutAGain) {
  const auto repair = [](NonlinearRecord& r, int job) {
    r.grad[0] = 17.0;
    const int code = znlpfnc(&r, job);
    EXPECT_LE(r.calls, job == 0 ? 25 : 205);
    EXPECT_TRUE(code == 3 || (r.point() == r.problem.start && r.grad[0] == 17.0 && code < 0));
    return code;
  };
  for (int job : {0, 1}) {
    for (const double start : {0.0, 1e-3, 3.0}) {
      const auto never = [](auto x, auto* c) { c[0] = x[0] * x[0] + 1.0; };
      NonlinearRecord r(residual_problem("never", 1, {start, 1}, {}, never), 1);
      const int code = repair(r, job);
      EXPECT_TRUE(code == 3 ? std::fabs(r.x[0]) < start : code != -1);
    }
  }
  for (long k = 1; k < 12; ++k) {
    NonlinearRecord r(circle(), 1);
    r.fails_at = k;
    EXPECT_EQ(repair(r, 1) == -1, k == 1);
  }
}

}  // namespace
}  // namespace tqnlp::test
