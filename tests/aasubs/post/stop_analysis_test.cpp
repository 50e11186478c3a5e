// The analysis at a stop: whole runs that must leave a saddle point, and the contracts of its three
// services one by one.
#include "aasubs/post/stop_analysis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "aasubs/constraints/znlpbas.h"
#include "aasubs/control/znlpdrv.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "kernels/indefinite.h"
#include "kernels/vector.h"
#include "kernels/zranuni.h"
#include "problems/problem.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// Evaluates everything at x, as a technique has done when it stops.
void arrive(TestRecord& r) {
  r.usfct(&r);
  r.usgrd(&r);
  r.indf = IN_STOP_ANALYSIS;
  znlpfch(&r, 1, 0, 0);
  if (r.bounds != 0 || r.lincon != 0) znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
}

// f = x^4/4 - x^2/2 + y^2: a saddle at 0, minima of value -1/4 at (+-1, 0).
Problem saddle(std::vector<double> start) {
  return scalar_problem("saddle", std::move(start), {}, [](auto x) {
    return 0.25 * x[0] * x[0] * x[0] * x[0] - 0.5 * x[0] * x[0] + x[1] * x[1];
  });
}

// Minima of value -1/2 at (+-1, +-1), a maximum at 0, saddles between.
Problem four_wells(std::vector<double> start) {
  return scalar_problem("four wells", std::move(start), {}, [](auto x) {
    return 0.25 * (x[0] * x[0] * x[0] * x[0] + x[1] * x[1] * x[1] * x[1]) -
           0.5 * (x[0] * x[0] + x[1] * x[1]);
  });
}

// The saddle in s, across the row 0.1 u + 0.3 v = 0, whose residual is never free of rounding.
Problem slanted_saddle() {
  return scalar_problem("slanted saddle", {0.0, 0.0, 3.0}, {}, [](auto x) {
    auto s = (3.0 * x[0] - x[1]) / std::sqrt(10.0);
    return 0.25 * s * s * s * s - 0.5 * s * s + x[2] * x[2];
  });
}

// Nonlinear constraints beside the pieces of a TestRecord: values c (equalities first), Jacobian by
// rows.
struct NonlinearRecord : TestRecord {
  NonlinearRecord(long n, long count, long equalities) : TestRecord(n, 11) {
    nlicon = opro = 1;
    nnlc = count;
    nlec = equalities;
    make_lists();
    values.assign(static_cast<std::size_t>((count + 1) * (n + 1)), 0.0);
    fcon = values.data();
    jcon = fcon + count;
    grlf = jcon + count * n;
    acget = [](MINSTR* str, long i, double* w) {
      vzfdl(0.0, w, str->nvar);
      if (i >= str->ncon) {
        std::copy_n(str->jcon + (i - str->ncon) * str->nvar, str->nvar, w);
        return 0;
      }
      for (long k = i > 0 ? str->naco[i - 1] : 0; k < str->naco[i]; ++k) {
        w[str->jalc[k]] = str->alcn[k];
      }
      return 0;
    };
    usnlc = [](MINSTR* str) {
      auto* r = static_cast<NonlinearRecord*>(str);
      ++r->calls;
      r->c(r->x, r->fcon);
      r->tbig = std::isnan(r->fcon[0]) ? 1.0 : 0.0;
      return 0;
    };
    usjnc = [](MINSTR* str) {
      auto* r = static_cast<NonlinearRecord*>(str);
      r->j(r->x, r->jcon);
      return std::isnan(r->jcon[0]) ? -11 : 0;
    };
  }
  // Lists long enough for all constraints; again after bounds or rows were set.
  void make_lists() {
    ntec = neqc + nlec + nbec;
    ntco = ncon + nnlc + nbic + nbec;
    const long capacity = std::max(nvar, ntco);
    lists.assign(static_cast<std::size_t>(2 * capacity), 0);
    iact = lists.data();
    liwk = iact + capacity;
  }
  std::function<void(const double*, double*)> c, j;
  long calls = 0;
  std::vector<double> values;
  std::vector<long> lists;
};

// ---- Whole runs ---------------------------------------------------------------------------------

struct Start {
  const char* name;
  Problem problem;
  double at_saddle;  // value where a run without the analysis stops
  double minimum;
  std::function<void(TestRecord&)> constrain;
};

std::vector<Start> stops_at_saddles() {
  const double inf = HUGE_VALUE;
  return {{"free", saddle({0, 1}), 0.0, -0.25, [](TestRecord&) {}},
          {"diagonal", saddle({0, 1}), 0.0, -0.25,
           [](TestRecord& r) {
             r.hfrm = 2;
             r.h = [](const double* x, double* h) {
               h[0] = 3 * x[0] * x[0] - 1;
               h[1] = 2;
             };
           }},
          {"maximum", four_wells({0, 0}), 0.0, -0.5, [](TestRecord&) {}},
          {"on a bound", saddle({0, 1}), 0.0, -0.25,
           [=](TestRecord& r) {
             r.with_bounds({0, -inf}, {2, inf});
           }},
          {"y on a bound", saddle({0, 3}), 1.0, 0.75,
           [=](TestRecord& r) {
             r.with_bounds({-5, 1}, {5, 9});
           }},
          {"equality", slanted_saddle(), 0.0, -0.25,
           [](TestRecord& r) {
             r.with_rows({{{0.1, 0.3, 0}, 0, 0}});
           }},
          {"active inequality", slanted_saddle(), 1.0, 0.75, [](TestRecord& r) {
             r.with_rows({{{0.1, 0.3, 0}, 0, 0}, {{0, 0, 1}, 1, 1}});
           }}};
}

TEST(StopAnalysis, ARunLeavesASaddlePointAndEndsAtAMinimum) {
  for (const Start& start : stops_at_saddles()) {
    for (const double rtop : {MISSING, 0.1}) {
      SCOPED_TRACE(testing::Message() << start.name << " rtop " << rtop);
      TestRecord r(start.problem.n);
      install(r, start.problem);
      start.constrain(r);
      r.rtop = rtop;
      ASSERT_GE(znlpdrv(&r, 1, 0, 0, 0), 0);
      EXPECT_GT(znlpdrv(&r, 2, 0, 0, 0), 0);
      EXPECT_NEAR(r.crit, wzmis(rtop) ? start.at_saddle : start.minimum, 1e-8);
      EXPECT_EQ(znlpfch(&r, 0, 0, 0), 0);
      EXPECT_LT(r.nfct, 120);
    }
  }
}

// With a radius below what the objective can show, the curvature alone tells of the saddle.
TEST(StopAnalysis, ARunFollowsNegativeCurvatureWhereTheProbeSeesNothing) {
  const Problem problem = scalar_problem("shifted saddle", {2, 1}, {}, [](auto x) {
    auto s = x[0] - 2.0;
    return 1.0 + 0.25 * s * s * s * s - 0.5 * s * s + x[1] * x[1];
  });
  for (const bool bounded : {false, true}) {
    TestRecord r(2);
    install(r, problem);
    if (bounded) r.with_bounds({0, -3}, {9, 3});
    r.rtop = 1e-12;
    ASSERT_GE(znlpdrv(&r, 1, 0, 0, 0), 0);
    EXPECT_GT(znlpdrv(&r, 2, 0, 0, 0), 0);
    EXPECT_NEAR(r.crit, 0.75, 1e-8);
  }
}

// A failed evaluation runs the analysis without rtop; noise and an objective without a lower limit
// offer a better point at every stop. All such runs end, at the latest at their limits.
TEST(StopAnalysis, RunsEndWhateverTheObjectiveDoes) {
  const std::function<double(const double*)> objectives[] = {
      [](const double* x) {  // rough
        return x[0] * x[0] + x[1] * x[1] + 1e-3 * std::sin(1e7 * x[0] + 3e7 * x[1]);
      },
      [](const double* x) { return -x[0] * x[0] - x[1]; },  // unbounded
      [](const double* x) {                                 // undefined where it would be least
        return x[0] + x[1] < 0.3 ? MISSING : x[0] * x[0] + x[1] * x[1];
      }};
  for (const auto& objective : objectives) {
    for (const double rtop : {MISSING, 1e-3, 0.1}) {
      TestRecord r(2);
      r.f = objective;
      r.g = [](const double* x, double* g) {
        g[0] = 2 * x[0];
        g[1] = 2 * x[1];
      };
      r.h = [](const double*, double* h) {
        h[0] = h[2] = 2;
        h[1] = 0;
      };
      r.with_callbacks().at({1, 2});
      r.rtop = rtop;
      r.agtl = 0.0;
      ASSERT_EQ(znlpdrv(&r, 1, 0, 0, 0), 0);
      znlpdrv(&r, 2, 0, 0, 0);
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
  const Problem problem = saddle({1, 0});
  for (const bool constrained : {false, true}) {
    std::vector<double> visited[2];
    for (std::vector<double>& trace : visited) {
      TestRecord r(2);
      install(r, problem);
      if (constrained) r.with_rows({{{1, 2}, 0, 1}}).with_bounds({-4, -4}, {4, 4});
      arrive(r);
      r.f = [&](const double* x) {
        trace.insert(trace.end(), {x[0], x[1]});
        return problem.value(x);
      };
      r.rtop = 0.1;
      r.salf = 0.7;
      EXPECT_EQ(znlpnoi(&r, 0), 0);
      EXPECT_EQ(r.point(), problem.start);
      EXPECT_EQ(r.crit, -0.25);
      EXPECT_EQ(r.salf, 0.7);
      EXPECT_LE(trace.size() / 2, 2u * 2 + 2 + 42);
      EXPECT_GE(trace.size() / 2, constrained ? 2u : 24u);
    }
    EXPECT_EQ(visited[0], visited[1]);
  }
}

TEST(NoiseProbe, AcceptsOnlyWhatIsBetterInsideTheConstraints) {
  // The slope of 1 is hidden by a wrong gradient: the decrease stands beside no slope at all.
  TestRecord r(2);
  r.f = [](const double* x) { return x[0] + x[1]; };
  r.g = [](const double*, double* g) { g[0] = g[1] = 0.0; };
  r.with_callbacks().with_bounds({0, -1}, {3, -1}).at({0.05, -1});
  arrive(r);
  r.rtop = 1.0;
  r.alfa = 0.25;
  EXPECT_EQ(znlpnoi(&r, 1), 1);
  EXPECT_EQ(r.point(), (std::vector<double>{0, -1}));  // clipped at the bound, the other one fixed
  EXPECT_EQ(r.crit, -1.0);
  EXPECT_EQ(r.cold, 0.05 - 1.0);
  EXPECT_EQ(r.iabc[0], 1);
  EXPECT_EQ(r.nabc, 2);
  EXPECT_EQ(r.alfa, 0.25);
}

TEST(NoiseProbe, ASmallDecreaseIsLeftToALineSearch) {
  // Slope -2 at x = 1, but the first trial falls by less than the threshold: the search goes on to
  // the minimum. Where the value falls at one trial alone the search confirms it all the same.
  TestRecord r(1);
  r.f = [](const double* x) { return (x[0] - 2) * (x[0] - 2); };
  r.g = [](const double* x, double* g) { g[0] = 2 * (x[0] - 2); };
  r.with_callbacks().at({1});
  arrive(r);
  r.rtop = 0.01;
  r.aftl = 10.0;
  EXPECT_EQ(znlpnoi(&r, 0), 1);
  EXPECT_LT(r.crit, 0.98);
  EXPECT_EQ(r.crit, r.f(r.x));
  EXPECT_EQ(r.ider, 4);
  EXPECT_TRUE(wzmis(r.damp));
}

TEST(NoiseProbe, AFailedBaseCountsAsTheLargestValue) {
  TestRecord r(2);
  r.f = [](const double* x) { return x[0] < 1.05 ? MISSING : 1e5 * x[0]; };
  r.g = [](const double*, double* g) { g[0] = g[1] = 0.0; };
  r.with_callbacks().at({1, 0});
  r.tbig = 1.0;
  r.crit = MISSING;
  EXPECT_EQ(znlpnoi(&r, 0), 1);
  EXPECT_EQ(r.tbig, 0.0);
  EXPECT_EQ(r.crit, 1e5 * r.x[0]);
  r.f = [](const double*) { return MISSING; };
  r.tbig = 1.0;
  EXPECT_EQ(znlpnoi(&r, 0), 0);
  EXPECT_EQ(r.tbig, 1.0);
  // A stale mark of failure at a good point does not make its neighbours better.
  r.f = [](const double* x) { return x[0] * x[0] + x[1] * x[1]; };
  r.at({0, 0});
  EXPECT_EQ(znlpnoi(&r, 0), 0);
  EXPECT_EQ(r.crit, 0.0);
}

// ---- znlpdnc ------------------------------------------------------------------------------------

// f = (x - c)'H(x - c)/2 + q sum (x - c)^4 / 4, stationary at c.
void install_quadratic(TestRecord& r, std::vector<double> h, double c, double q) {
  const long n = r.nvar;
  const auto gradient = [=](const double* x, double* g) {
    std::vector<double> s(x, x + n);
    for (double& v : s) v -= c;
    for (long i = 0; i < n; ++i) {
      g[i] = q * std::pow(s[std::size_t(i)], 3);
      for (long k = 0; k < n; ++k) g[i] += h[std::size_t(zisub(i, k))] * s[std::size_t(k)];
    }
  };
  r.f = [=](const double* x) {
    std::vector<double> g(static_cast<std::size_t>(n));
    gradient(x, g.data());
    double sum = 0.0;
    for (long i = 0; i < n; ++i) {
      const double s = x[i] - c;
      sum += 0.5 * s * (g[std::size_t(i)] - q * s * s * s) + 0.25 * q * s * s * s * s;
    }
    return sum;
  };
  r.g = gradient;
  r.h = [=](const double* x, double* out) {
    std::copy(h.begin(), h.end(), out);
    for (long i = 0; i < n; ++i) out[zisub(i, i)] += 3 * q * (x[i] - c) * (x[i] - c);
  };
  r.with_callbacks().at(std::vector<double>(std::size_t(n), c));
}

TEST(SecondOrderTest, AgreesWithTheInertiaOfRandomHessians) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  embed::Task task;
  embed::Activation active(task);
  int seen[4] = {0, 0, 0, 0};
  for (int trial = 0; trial < 200; ++trial) {
    const long n = 1 + trial % 6;
    std::vector<double> h(std::size_t(packed_size(n)));
    for (double& v : h) v = uniform(random);
    for (long i = 0; i < n; ++i) h[std::size_t(zisub(i, i))] += trial % 3 == 0 ? double(n) : 0.3;
    std::vector<double> factor = h;
    std::vector<long> pivots(std::size_t(n) + 1);
    double inertia[5];
    zududec(n, TINY, inertia, factor.data(), pivots.data());

    TestRecord r(n);
    install_quadratic(r, h, 0.5, 20.0);
    if (trial % 4 == 1) r.ushes = nullptr;                   // gradients differenced
    if (trial % 2 == 1) r.hesalo = r.hpralo = r.hlfalo = 0;  // memory of its own
    arrive(r);
    const double before = r.crit;
    const int result = znlpdnc(&r, 1);
    ++seen[std::max(result, 0)];
    EXPECT_EQ(result, inertia[3] > 0 ? 0 : 2) << "trial " << trial;
    if (result == 0) {
      EXPECT_LT(r.crit, before);
      EXPECT_EQ(r.crit, r.f(r.x));
    } else {
      EXPECT_EQ(r.point(), std::vector<double>(std::size_t(n), 0.5));
    }
  }
  EXPECT_GT(seen[0], 50);
  EXPECT_GT(seen[2], 50);
  EXPECT_EQ(task.counters.blocks_taken, task.counters.blocks_given);
}

TEST(SecondOrderTest, AnswersForEveryKindOfPoint) {
  const auto test = [](std::vector<double> h, double c,
                       const std::function<void(TestRecord&)>& set) {
    TestRecord r(2);
    install_quadratic(r, std::move(h), c, 1.0);
    set(r);
    arrive(r);
    const int result = znlpdnc(&r, 1);
    if (result != 0) {
      EXPECT_EQ(r.point(), (std::vector<double>{c, c}));
    }
    return result;
  };
  const auto nothing = [](TestRecord&) {};
  EXPECT_EQ(test({1, 0, -1}, 0.5, nothing), 0);
  EXPECT_EQ(test({0, 1, 0}, 0.5, nothing), 0);  // a saddle without a negative diagonal element
  EXPECT_EQ(test({1, 1, 1}, 0.5, nothing), 1);
  EXPECT_EQ(test({0, 0, 0}, 0.5, nothing), 1);
  EXPECT_EQ(test({1, 0, -1}, 0.0, nothing), 3);  // a step as long as x = 0 is none
  EXPECT_EQ(test({1, 0, -1}, 0.5, [](TestRecord& r) { r.ider = 0; }), -1);
  EXPECT_EQ(test({1, 0, -1}, 0.5, [](TestRecord& r) { r.h = [](auto, double* h) { h[0] = NAN; }; }),
            -1);
  // Negative curvature on an active bound, or off the equality, does not count.
  EXPECT_EQ(test({1, 0, -1}, 0.5, [](TestRecord& r) { r.with_bounds({-9, 0.5}, {9, 0.5}); }), 2);
  EXPECT_EQ(test({-1, 0, 1}, 0.5, [](TestRecord& r) { r.with_bounds({0.5, 0.5}, {0.5, 0.5}); }), 2);
  EXPECT_EQ(test({1, 4, 1}, 0.5, [](TestRecord& r) { r.with_rows({{{1, -1}, 0, 0}}); }), 2);
  EXPECT_EQ(test({1, 4, 1}, 0.5, [](TestRecord& r) { r.with_rows({{{1, 1}, 0, 1}}); }), 0);
  EXPECT_EQ(test({-1, 0, 1}, 0.5,
                 [](TestRecord& r) {
                   r.hfrm = 2;
                   r.h = [](auto, double* h) { h[0] = 1, h[1] = -1; };
                   r.with_bounds({-9, -9}, {9, 9});
                 }),
            3);  // the matrix lies: the value rises along its direction
}

TEST(SecondOrderTest, RefusedMemoryIsACode) {
  for (int k = 0; k < 3; ++k) {
    embed::Task task;
    embed::Activation active(task);
    TestRecord r(2);
    install_quadratic(r, {1, 0, -1}, 0.5, 1.0);
    arrive(r);
    r.hesalo = r.hpralo = r.hlfalo = 0;
    double* const hess = r.hess;
    embed::plan_fault(task, embed::Fault::allocation, k);
    EXPECT_EQ(znlpdnc(&r, 1), -2);
    EXPECT_EQ(r.hess, hess);
  }
}

// With f = y^2 - x^2 and an active constraint x = 1 the tangent space is y alone: the rows of
// nonlinear constraints belong to the frame.
TEST(SecondOrderTest, StaysInTheTangentSpaceOfNonlinearConstraints) {
  NonlinearRecord r(2, 1, 1);
  r.f = [](const double* x) { return x[1] * x[1] - x[0] * x[0]; };
  r.g = [](const double* x, double* g) { g[0] = -2 * x[0], g[1] = 2 * x[1]; };
  r.h = [](const double*, double* h) { h[0] = -2, h[1] = 0, h[2] = 2; };
  r.c = [](const double* x, double* c) { c[0] = x[0] - 1; };
  r.j = [](const double*, double* j) { j[0] = 1, j[1] = 0; };
  r.with_callbacks().at({1, 0.5});
  r.usfct(&r);
  r.usjnc(&r);
  r.indf = IN_STOP_ANALYSIS;
  EXPECT_EQ(znlpdnc(&r, 1), 2);
  EXPECT_EQ(r.nalc, 1);
  EXPECT_EQ(r.lincon, 0);
  EXPECT_EQ(znlpdnc(&r, 0), -1);
}

// ---- znlpfnc ------------------------------------------------------------------------------------

// On the circle of radius 2 and the line x = y, inside a box, above a linear row.
void install_circle(NonlinearRecord& r, double radius2) {
  r.c = [=](const double* x, double* c) {
    c[0] = x[0] * x[0] + x[1] * x[1] - radius2;
    c[1] = x[0] - x[1] * x[1] / 2;
  };
  r.j = [](const double* x, double* j) {
    j[0] = 2 * x[0], j[1] = 2 * x[1];
    j[2] = 1, j[3] = -x[1];
  };
}

TEST(NonlinearFeasibility, RepairsAPointUnderAllKindsOfConstraints) {
  for (const bool borrowed : {false, true}) {
    NonlinearRecord r(2, 2, 1);
    install_circle(r, 4.0);
    r.with_bounds({0, 0}, {5, 1}).with_rows({{{1, 0}, 1, 1}}).at({-3, 7});
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
    const std::vector<double> point = r.point();
    EXPECT_EQ(znlpfnc(&r, 0), 0);
    EXPECT_LE(r.calls, 2);
    EXPECT_EQ(r.point(), point);
  }
}

// y moves no residual, so that J'J is singular everywhere: the factor must still give Newton's
// steps.
TEST(NonlinearFeasibility, ASingularJacobianCostsNoSpeed) {
  NonlinearRecord r(2, 1, 1);
  r.c = [](const double* x, double* c) { c[0] = std::exp(x[0]) - 20; };
  r.j = [](const double* x, double* j) { j[0] = std::exp(x[0]), j[1] = 0; };
  r.at({0, 1});
  EXPECT_EQ(znlpfnc(&r, 1), 0);
  EXPECT_NEAR(r.x[0], std::log(20.0), 1e-9);
  EXPECT_EQ(r.x[1], 1.0);
  EXPECT_LE(r.calls, 40);  // some nine iterations of three or four calls
}

// What cannot be satisfied ends at the limits, with x as given or a smaller violation; so does a
// start where the Jacobian vanishes, and one from which evaluations fail.
TEST(NonlinearFeasibility, EndsAtItsLimitsWithoutAGain) {
  for (int job : {0, 1}) {
    for (const double start : {0.0, 1e-3, 3.0}) {
      NonlinearRecord r(2, 1, 1);
      r.c = [](const double* x, double* c) { c[0] = x[0] * x[0] + 1; };
      r.j = [](const double* x, double* j) { j[0] = 2 * x[0], j[1] = 0; };
      r.at({start, 1});
      r.grad[0] = 17.0;
      const int code = znlpfnc(&r, job);
      EXPECT_LE(r.calls, job == 0 ? 25 : 205);
      if (code == 3) {
        EXPECT_LT(std::fabs(r.x[0]), start);
      } else {
        EXPECT_TRUE(code == -3 || code == -5) << code;
        EXPECT_EQ(r.point(), (std::vector<double>{start, 1}));
        EXPECT_EQ(r.grad[0], 17.0);
      }
      EXPECT_NE(code, 0);
    }
  }
  for (long k = 1; k < 12; ++k) {
    NonlinearRecord r(2, 2, 1);
    install_circle(r, 4.0);
    const auto good = r.c;
    r.c = [&](const double* x, double* c) {
      good(x, c);
      if (r.calls >= k) c[0] = NAN;
    };
    r.at({-3, 7});
    const int code = znlpfnc(&r, 1);
    EXPECT_EQ(k == 1, code == -1);
    EXPECT_TRUE(code == 3 || code < 0);
    if (code < 0) {
      EXPECT_EQ(r.point(), (std::vector<double>{-3, 7}));
    }
    EXPECT_LE(r.calls, 205);
  }
}

}  // namespace
}  // namespace tqnlp::test
