// The older Newton code by itself: a problem in plain vectors, three callbacks, no record.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "subs/znewsrv.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;

// A solver's two records with room for everything. tentry drops the constraint whose multiplier is
// most negative, and stops when the projected step is rounding.
struct Newton {
  SIZE_S s{};
  NRPTRS p{};
  Vec x, xold, g, pg, h, rows, sides, low, up, work;
  std::function<double(const Vec& x)> f;
  std::function<void(const Vec& x, Vec& g, Vec& h)> derivatives;
  double ridge = 0.0;
  int tests = 0;
  long values = 0;

  explicit Newton(Vec start) : x(std::move(start)), xold(x), g(x), pg(x) {
    s.nvar = static_cast<long>(x.size());
    s.deflt = 1;
    s.bound = 1;
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
    p.work = work.data();
    p.hess = h.data(), p.grad = g.data(), p.pgrad = pg.data();
    p.xold = xold.data(), p.xnew = x.data();
    p.constr = rows.data(), p.values = sides.data(), p.lowb = low.data(), p.upb = up.data();
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
    ++self->tests;
    long worst = -1;
    for (long r = 0; r < self->s.nact; ++r) {
      const bool equality = self->s.bound == 0 && self->p.index[r] < self->s.neq;
      if (equality || self->p.pi[r] > -1e-9) continue;
      if (worst < 0 || self->p.pi[r] < self->p.pi[worst]) worst = r;
    }
    if (worst >= 0) return -1 - self->p.index[worst];
    zgproj(&self->s, &self->p, step_vector(&self->s, &self->p), column_vector(&self->s, &self->p));
    double largest = 0.0;
    for (long k = 0; k < free_dimension(&self->s); ++k) {
      largest = std::max(largest, std::fabs(self->pg[static_cast<std::size_t>(k)]));
    }
    return largest <= 1e-9 ? 0 : 1;
  }
};

// f = x'Hx/2 - b'x with a random positive definite H.
void random_quadratic(Newton& newton, std::mt19937& draw) {
  std::normal_distribution<> normal;
  const long n = newton.s.nvar;
  Vec root(static_cast<std::size_t>(n * n)), b(static_cast<std::size_t>(n)), packed;
  for (double& r : root) r = normal(draw);
  for (double& v : b) v = 3.0 * normal(draw);
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      double sum = i == j ? 0.1 : 0.0;
      for (long k = 0; k < n; ++k) sum += root[i * n + k] * root[j * n + k];
      packed.push_back(sum);
    }
  }
  newton.derivatives = [=](const Vec& x, Vec& g, Vec& h) {
    h = packed;
    for (long i = 0; i < n; ++i) {
      g[i] = -b[i];
      for (long j = 0; j < n; ++j) g[i] += packed[zisub(i, j)] * x[j];
    }
  };
  newton.f = [=](const Vec& x) {
    Vec g(x), h;
    newton.derivatives(x, g, h);
    double sum = 0.0;
    for (long i = 0; i < n; ++i) sum += 0.5 * x[i] * (g[i] - b[i]);
    return sum;
  };
}

// The largest part of the gradient that the multipliers leave, and the largest violation.
void expect_solution(const Newton& newton) {
  const long n = newton.s.nvar;
  Vec rest = newton.g;
  for (long r = 0; r < newton.s.nact; ++r) {
    const long c = newton.p.index[r];
    EXPECT_GE(newton.p.pi[r], -1e-9);
    for (long j = 0; j < n; ++j) {
      if (newton.s.bound == 0) rest[j] -= newton.p.pi[r] * newton.rows[c * n + j];
    }
    if (newton.s.bound != 0) rest[c] = 0.0;
  }
  for (double v : rest) EXPECT_LE(std::fabs(v), 1e-7);
  for (long i = 0; i < newton.s.nneq; ++i) {
    double residual = -newton.sides[i];
    for (long j = 0; j < n; ++j) residual += newton.rows[i * n + j] * newton.x[j];
    EXPECT_GE(residual, -1e-11);
  }
  for (long j = 0; j < n; ++j) {
    EXPECT_TRUE(newton.x[j] >= newton.low[j] && newton.x[j] <= newton.up[j]);
  }
}

TEST(OldNewton, SolvesRandomQuadraticsUnderBoundsAndRows) {
  std::mt19937 draw(7);
  std::uniform_real_distribution<> share(0.0, 1.0);
  std::normal_distribution<> normal;
  for (int run = 0; run < 200; ++run) {
    SCOPED_TRACE(run);
    const long n = 1 + run % 9;
    Newton newton(Vec(static_cast<std::size_t>(n), 0.0));
    random_quadratic(newton, draw);
    for (long i = 0; run % 2 == 0 && i < 2 * n; ++i) {
      Vec a(static_cast<std::size_t>(n));
      for (double& v : a) v = normal(draw);
      newton.add_row(a, -share(draw) * (i % 3 == 0 ? 0.0 : 1.0));
    }
    for (long j = 0; run % 2 == 1 && j < n; ++j) {
      newton.low[j] = -share(draw);
      newton.up[j] = run % 3 == 0 ? HUGE_VALUE : 0.0;
    }
    ASSERT_EQ(newton.solve(), 0);
    expect_solution(newton);
  }
}

// However often rows enter and leave, Q stays orthogonal and A Q = (T 0).
TEST(OldNewton, ProjectorStaysOrthogonal) {
  const long n = 12, count = 30;
  std::mt19937 draw(3);
  std::normal_distribution<> normal;
  Newton newton(Vec(static_cast<std::size_t>(n), 0.0));
  random_quadratic(newton, draw);
  for (long i = 0; i < count; ++i) {
    Vec a(static_cast<std::size_t>(n));
    for (double& v : a) v = normal(draw) * std::pow(10.0, i % 7 - 3);
    newton.add_row(a, -1e9);
  }
  ASSERT_EQ(newton.solve(), 0);
  SIZE_S* s = &newton.s;
  NRPTRS* p = &newton.p;
  for (int change = 0; change < 20000; ++change) {
    const long c = static_cast<long>(draw() % count);
    if (zcondrp(s, p, c) == 0) continue;
    const int full = s->nact == n ? 1 : 0;
    EXPECT_EQ(zconadd(s, p, c), full);
  }
  EXPECT_GT(s->nact, n / 2);
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      double sum = i == j ? -1.0 : 0.0;
      for (long k = 0; k < n; ++k) sum += p->proj[k * n + i] * p->proj[k * n + j];
      EXPECT_LE(std::fabs(sum), 1e-12);
    }
  }
  const double* triangle = active_triangle(s, p);
  for (long r = 0; r < s->nact; ++r) {
    const double* a = p->constr + p->index[r] * n;
    double size = 0.0;
    for (long k = 0; k < n; ++k) size = std::max(size, std::fabs(a[k]));
    for (long c = 0; c < n; ++c) {
      double sum = c <= r ? -triangle[zisub(r, c)] : 0.0;
      for (long k = 0; k < n; ++k) sum += a[k] * p->proj[k * n + c];
      EXPECT_LE(std::fabs(sum), 1e-11 * size);
    }
  }
}

// One variable, f and its derivatives by hand.
Newton line(double start, double (*f)(double), double (*f1)(double), double (*f2)(double)) {
  Newton newton({start});
  newton.f = [f](const Vec& x) { return f(x[0]); };
  newton.derivatives = [f1, f2](const Vec& x, Vec& g, Vec& h) {
    g[0] = f1(x[0]);
    h[0] = f2(x[0]);
  };
  return newton;
}

double parabola(double x) { return (x - 1) * (x - 1); }
double slope(double x) { return 2 * (x - 1); }
double two(double) { return 2; }
double square(double x) { return x * x; }

TEST(OldNewton, ResultsTellHowARunEnded) {
  // Curvature beyond the reach of the largest ridge, within it, and none at all at the stop.
  EXPECT_EQ(line(
                1, [](double x) { return -400 * x * x; }, [](double x) { return -800 * x; },
                [](double) { return -800.0; })
                .solve(),
            RIDGE_TOO_LARGE);
  Newton well = line(
      0.1, [](double x) { return square(square(x) - 50); },
      [](double x) { return 4 * x * (square(x) - 50); },
      [](double x) { return 12 * square(x) - 200; });
  EXPECT_EQ(well.solve(), 0);
  EXPECT_NEAR(std::fabs(well.x[0]), std::sqrt(50.0), 1e-8);
  EXPECT_EQ(line(
                0, [](double x) { return -x * x; }, [](double x) { return -2 * x; },
                [](double) { return -2.0; })
                .solve(),
            INDEFINITE_AT_STOP);
  // A slope of the wrong sign: no trial is low enough, again and again.
  Newton wrong = line(
      0, parabola, [](double x) { return -slope(x); }, two);
  EXPECT_EQ(wrong.solve(), SEARCHES_FAILED);
  EXPECT_EQ(wrong.x[0], 0.0);
  // Starts outside a bound, and off an equality by more than 1e-12.
  Newton outside = line(0, parabola, slope, two);
  outside.low[0] = 1e-300;
  EXPECT_EQ(outside.solve(), START_INFEASIBLE);
  for (const double off : {5e-13, 2e-12}) {
    Newton row = line(off, parabola, slope, two);
    row.add_row({1.0}, 0.0);
    std::swap(row.s.neq, row.s.nneq);
    EXPECT_EQ(row.solve(), off < 1e-12 ? 0 : START_INFEASIBLE);
  }
}

TEST(OldNewton, SearchesByHalvingUpToTheFirstConstraint) {
  // A constraint at 1e-5 of the step or less enters at once, and its variable stands on it exactly.
  for (const double gap : {0.0, 1e-6, 0.3}) {
    Newton newton = line(0, parabola, slope, two);
    newton.up[0] = gap;
    EXPECT_EQ(newton.solve(), 0);
    EXPECT_EQ(newton.x[0], gap);
    EXPECT_EQ(newton.s.nact, 1);
    EXPECT_EQ(newton.values, gap == 0.0 ? 1 : gap < 1e-5 ? 2 : 4);
    EXPECT_EQ(newton.p.fnew, parabola(gap));
  }
  // Curvature overrated fourfold: full steps, unless lengthening is asked for.
  long tests[2];
  for (int step : {0, 1}) {
    Newton newton = line(0, parabola, slope, [](double) { return 8.0; });
    newton.s = {1, 0, 0, 0, 1, 0, 0, 200, 0, step, 1e-6, 1024, 0.3125, 4};
    EXPECT_EQ(newton.solve(), 0);
    EXPECT_NEAR(newton.x[0], 1.0, 1e-9);
    tests[step] = newton.tests;
  }
  EXPECT_LT(tests[0], tests[1]);
}

}  // namespace
}  // namespace tqnlp::test
