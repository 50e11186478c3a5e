// The older Newton code by itself: a problem in plain vectors, three callbacks, no record.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "kernels/vector.h"
#include "subs/znewsrv.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;

// A solver's two records with room for everything. tentry drops the constraint whose multiplier is
// most negative, and stops when the projected gradient is rounding.
struct Newton {
  SIZE_S s{};
  NRPTRS p{};
  Vec x, xold, g, pg, h, rows, sides, low, up, work;
  std::function<double(const Vec& x)> f;
  std::function<void(const Vec& x, Vec& g, Vec& h)> derivatives;
  double ridge = 0.0;
  long tests = 0, values = 0;

  explicit Newton(Vec start) : x(std::move(start)), xold(x), g(x), pg(x) {
    s.nvar = static_cast<long>(x.size());
    s.deflt = s.bound = 1;
    low.assign(x.size(), -HUGE_VALUE);
    up.assign(x.size(), HUGE_VALUE);
    h.resize(static_cast<std::size_t>(packed_size(s.nvar)));
  }
  void add_row(const Vec& a, double b) {
    s.bound = 0;
    ++s.nneq;
    rows.insert(rows.end(), a.begin(), a.end());
    sides.push_back(b);
  }
  int solve() {
    work.assign(static_cast<std::size_t>(newton_work_length(&s)), 0.0);
    p.work = work.data(), p.hess = h.data(), p.grad = g.data(), p.pgrad = pg.data();
    p.xold = xold.data(), p.xnew = x.data(), p.lowb = low.data(), p.upb = up.data();
    p.constr = rows.data(), p.values = sides.data();
    return znewrap(this, &p, &s, &ridge, value, load, test);
  }
  static double value(void* qq) {
    auto* self = static_cast<Newton*>(qq);
    ++self->values;
    return self->f(self->x);
  }
  static void load(void* qq) {
    auto* self = static_cast<Newton*>(qq);
    self->derivatives(self->x, self->g, self->h);
  }
  static int test(void* qq) {
    auto* self = static_cast<Newton*>(qq);
    SIZE_S& s = self->s;
    NRPTRS& p = self->p;
    ++self->tests;
    const long worst = std::min_element(p.pi, p.pi + s.nact) - p.pi;
    if (s.nact > s.neq && p.pi[worst] < -1e-9) return -1 - p.index[worst];
    zgproj(&s, &p, step_vector(&s, &p), column_vector(&s, &p));
    return zvamx(free_dimension(&s), p.pgrad) <= 1e-9 ? 0 : 1;
  }
};

// f = x'(D + cc')x/2 - b'x with D positive.
void random_quadratic(Newton& newton, std::mt19937& draw) {
  std::normal_distribution<> normal;
  const std::size_t n = newton.x.size();
  Vec d(n), c(n), b(n);
  for (std::size_t i = 0; i < n; ++i) {
    d[i] = 0.1 + std::fabs(normal(draw));
    c[i] = normal(draw);
    b[i] = 3.0 * normal(draw);
  }
  newton.derivatives = [=](const Vec& x, Vec& g, Vec& h) {
    const double t = std::inner_product(c.begin(), c.end(), x.begin(), 0.0);
    for (std::size_t i = 0; i < n; ++i) {
      g[i] = d[i] * x[i] + t * c[i] - b[i];
      for (std::size_t j = 0; j <= i; ++j) h[i * (i + 1) / 2 + j] = c[i] * c[j];
      h[i * (i + 1) / 2 + i] += d[i];
    }
  };
  newton.f = [=](const Vec& x) {
    const double t = std::inner_product(c.begin(), c.end(), x.begin(), 0.0);
    double sum = 0.5 * t * t;
    for (std::size_t i = 0; i < n; ++i) sum += (0.5 * d[i] * x[i] - b[i]) * x[i];
    return sum;
  };
}

// Multipliers of the right signs explain the gradient, and nothing is violated.
void expect_solution(const Newton& newton) {
  const SIZE_S& s = newton.s;
  const NRPTRS& p = newton.p;
  Vec rest = newton.g;
  for (long r = 0; r < s.nact; ++r) {
    const long c = p.index[r];
    EXPECT_GE(p.pi[r], -1e-9);
    if (s.bound != 0) rest[c] = 0.0;
    if (s.bound == 0) zvxay11(s.nvar, rest.data(), -p.pi[r], p.constr + c * s.nvar);
  }
  EXPECT_LE(zvamx(s.nvar, rest.data()), 1e-7);
  for (long i = 0; i < s.nneq; ++i)
    EXPECT_GE(zinner(s.nvar, p.constr + i * s.nvar, p.xnew), p.values[i] - 1e-11);
  for (long j = 0; j < s.nvar; ++j)
    EXPECT_EQ(std::clamp(p.xnew[j], p.lowb[j], p.upb[j]), p.xnew[j]);
}

TEST(OldNewton, SolvesRandomQuadraticsUnderBoundsAndRows) {
  std::mt19937 draw(7);
  std::uniform_real_distribution<> share(0.0, 1.0);
  std::normal_distribution<> normal;
  for (int run = 0; run < 200; ++run) {
    SCOPED_TRACE(run);
    const std::size_t n = 1 + run % 9;
    Newton newton(Vec(n, 0.0));
    random_quadratic(newton, draw);
    for (std::size_t i = 0; run % 2 == 0 && i < 2 * n; ++i) {
      Vec a(n);
      for (double& v : a) v = normal(draw);
      newton.add_row(a, i % 3 == 0 ? 0.0 : -share(draw));
    }
    for (std::size_t j = 0; run % 2 == 1 && j < n; ++j) {
      newton.low[j] = -share(draw);
      if (run % 3 != 0) newton.up[j] = 0.0;
    }
    ASSERT_EQ(newton.solve(), 0);
    expect_solution(newton);
  }
}

// The polynomial of one variable with these coefficients, with factors that spoil its derivatives.
Newton line(double start, const Vec& c, double slope_factor = 1, double curvature_factor = 1) {
  Newton newton({start});
  newton.f = [c](const Vec& x) {
    return std::accumulate(c.rbegin(), c.rend(), 0.0,
                           [&](double v, double a) { return v * x[0] + a; });
  };
  newton.derivatives = [=](const Vec& x, Vec& g, Vec& h) {
    g[0] = h[0] = 0.0;
    for (int k = static_cast<int>(c.size()) - 1; k > 0; --k)
      g[0] = g[0] * x[0] + slope_factor * k * c[k];
    for (int k = static_cast<int>(c.size()) - 1; k > 1; --k)
      h[0] = h[0] * x[0] + curvature_factor * k * (k - 1) * c[k];
  };
  return newton;
}

const Vec PARABOLA = {0, 0, 1};

TEST(OldNewton, ResultsTellHowARunEnded) {
  EXPECT_EQ(line(1, {0, 0, -400}).solve(), RIDGE_TOO_LARGE);
  EXPECT_EQ(line(0, {0, 0, -1}).solve(), INDEFINITE_AT_STOP);
  Newton well = line(0.1, {2500, 0, -100, 0, 1});  // within reach of the ridge
  EXPECT_EQ(well.solve(), 0);
  EXPECT_NEAR(std::fabs(well.x[0]), std::sqrt(50.0), 1e-8);
  Newton wrong = line(1, PARABOLA, -1);  // no trial is low enough, again and again
  EXPECT_EQ(wrong.solve(), SEARCHES_FAILED);
  EXPECT_EQ(wrong.x[0], 1.0);
  Newton outside = line(0, PARABOLA);
  outside.low[0] = 1e-300;
  EXPECT_EQ(outside.solve(), START_INFEASIBLE);
  for (const double off : {5e-13, 2e-12}) {
    Newton row = line(off, PARABOLA);
    row.add_row({1.0}, 0.0);
    std::swap(row.s.neq, row.s.nneq);
    EXPECT_EQ(row.solve(), off < 1e-12 ? 0 : START_INFEASIBLE);
  }
}

TEST(OldNewton, SearchesByHalvingUpToTheFirstConstraint) {
  // A constraint at 1e-5 of the step or less enters at once, and x stands on it exactly.
  for (const double gap : {0.0, 1e-6, 0.3}) {
    Newton newton = line(-1, PARABOLA);
    newton.up[0] = gap - 1;
    EXPECT_EQ(newton.solve(), 0);
    EXPECT_EQ(newton.x[0], gap - 1);
    EXPECT_EQ(newton.s.nact, 1);
    EXPECT_EQ(newton.values, gap == 0.0 ? 1 : gap < 1e-5 ? 2 : 4);
    EXPECT_EQ(newton.p.fnew, newton.f({gap - 1}));
  }
  // Where the curvature is overrated, lengthening saves iterations.
  long tests[2] = {0, 0};
  for (int step : {0, 1}) {
    Newton newton = line(-1, PARABOLA, 1, 4);
    newton.s = {1, 0, 0, 0, 1, 0, 0, 200, 0, step, 1e-6, 1024, 0.3125, 4};
    EXPECT_EQ(newton.solve(), 0);
    EXPECT_NEAR(newton.x[0], 0.0, 1e-9);
    tests[step] = newton.tests;
  }
  EXPECT_LT(tests[0], tests[1]);
}

}  // namespace
}  // namespace tqnlp::test
