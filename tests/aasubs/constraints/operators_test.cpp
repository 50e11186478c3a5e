// The projected operators against plain dense formulas with the basis Z that znlpvex spells out, in
// every frame, and their rule tables.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "embed/task.h"
#include "kernels/dense.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;
constexpr long N = 6;
constexpr double INF = HUGE_VALUE;

// A dense matrix by rows; a vector is a matrix of one column.
struct Dense {
  long rows, cols;
  Vec a;
  Dense(long m, long n) : rows(m), cols(n), a(m * n, 0.0) {}
  explicit Dense(const Vec& v) : rows(static_cast<long>(v.size())), cols(1), a(v) {}
  double& operator()(long i, long j = 0) { return a[i * cols + j]; }
  double operator()(long i, long j = 0) const { return a[i * cols + j]; }
  Dense t() const {
    Dense m(cols, rows);
    for (long i = 0; i < rows; ++i) {
      for (long j = 0; j < cols; ++j) m(j, i) = (*this)(i, j);
    }
    return m;
  }
};

Dense operator*(const Dense& a, const Dense& b) {
  Dense m(a.rows, b.cols);
  for (long i = 0; i < a.rows; ++i) {
    for (long j = 0; j < b.cols; ++j) {
      for (long k = 0; k < a.cols; ++k) m(i, j) += a(i, k) * b(k, j);
    }
  }
  return m;
}

Vec minus(Vec v) {
  for (double& x : v) x = -x;
  return v;
}

double dot(const Vec& a, const Vec& b) { return (Dense(a).t() * Dense(b))(0); }
double norm(const Vec& a) { return std::sqrt(dot(a, a)); }

// Solution of m x = b by elimination with pivoting.
Vec solve(Dense m, Vec b) {
  const long n = m.rows;
  for (long k = 0; k < n; ++k) {
    long p = k;
    for (long i = k; i < n; ++i) p = std::fabs(m(i, k)) > std::fabs(m(p, k)) ? i : p;
    for (long j = 0; j < n; ++j) std::swap(m(k, j), m(p, j));
    std::swap(b[k], b[p]);
    for (long i = 0; i < n; ++i) {
      const double f = i == k ? 0.0 : m(i, k) / m(k, k);
      for (long j = k; j < n; ++j) m(i, j) -= f * m(k, j);
      b[i] -= f * b[k];
    }
  }
  for (long k = 0; k < n; ++k) b[k] /= m(k, k);
  return b;
}

Vec pack(const Dense& m) {
  Vec p(packed_size(m.rows));
  for (long i = 0; i < m.rows; ++i) {
    for (long j = 0; j <= i; ++j) p[zisub(i, j)] = m(i, j);
  }
  return p;
}

void expect_near(const Vec& a, const double* b, double tolerance, const char* what) {
  for (std::size_t i = 0; i < a.size(); ++i) EXPECT_NEAR(a[i], b[i], tolerance) << what << " " << i;
}

// One way to stand in a frame.
struct Setting {
  std::string name;
  int tech;
  bool bounds;
  int rows;       // rows of the record: 0 none, 1 present but not active, 2 two of them active
  bool shuffled;  // a bound has left, so that ifxr is not ascending
};
std::ostream& operator<<(std::ostream& out, const Setting& s) { return out << s.name; }

class Frames : public testing::TestWithParam<Setting> {
 protected:
  Vec random(long n) {
    Vec v(n);
    for (double& x : v) x = std::normal_distribution<double>()(rng);
    return v;
  }

  void SetUp() override {
    const Setting& s = GetParam();
    owner = std::make_unique<TestRecord>(N, s.tech);
    owner->at(random(N));
    r = owner.get();
    if (s.bounds) {
      owner->with_bounds({r->x[0], -INF, -INF, r->x[3] - 5.0, r->x[4], -INF},
                         {INF, INF, r->x[2], INF, INF, INF});
    }
    if (s.rows > 0) {
      std::vector<LinearRow> rows;
      for (int i = 0; i < 3; ++i) {
        const Vec a = random(N);
        const double slack = s.rows == 2 && i != 1 ? 0.0 : 1.0;
        rows.push_back({a, s.rows == 2 && i == 0 ? 0 : 1, dot(a, owner->point()) - slack});
      }
      owner->with_rows(rows);
    }
    gradient = random(N);
    std::copy_n(gradient.data(), N, r->grad);
    ASSERT_EQ(0, znlpfch(r, 1, 0, 0));
    if (s.bounds || s.rows > 0) znlpfta(r, 0, 0, 0, nullptr, nullptr, nullptr);
    if (s.shuffled) znlpdod(r, 0, 1, 0, nullptr, nullptr, nullptr, nullptr);
    nz = reduced_dimension(r);
    ASSERT_EQ(N - (s.bounds ? 3 : 0) + (s.shuffled ? 1 : 0) - (s.rows == 2 ? 2 : 0), nz);
    members = r->nabc + r->nalc;

    basis = Dense(N, nz);
    for (long k = 0; k < nz; ++k) {
      Vec unit(N, 0.0), column(N, 7.0);
      unit[k] = 1.0;
      znlpvex(r, unit.data(), column.data());
      for (long j = 0; j < N; ++j) basis(j, k) = column[j];
    }
    for (long i = 0; i < N; ++i) {
      for (long j = 0; j < i; ++j) factor(i, j) = random(1)[0];
      factor(i, i) = 1.0 + 0.3 * static_cast<double>(i);
    }
    hessian = factor * factor.t();
    packed = pack(hessian);
    wanted = basis.t() * hessian * basis;
  }

  Vec reduced(const Vec& v) const { return (basis.t() * Dense(v)).a; }
  Vec expanded(const Vec& v) const { return (basis * Dense(v)).a; }
  Vec newton() const { return solve(wanted, minus(reduced(gradient))); }
  // Gradients of the working set as columns, in the order of the multipliers.
  Dense member_gradients() const {
    Dense rows(members, N);
    for (long i = 0; i < members; ++i) {
      const long j = i < r->nabc ? r->ifxr[N - r->nabc + i] : -1;
      if (j < 0) r->acget(r, r->iact[i - r->nabc], &rows(i, 0));
      if (j >= 0) rows(i, j) = r->iabc[j] < 0 ? -1.0 : 1.0;
    }
    return rows.t();
  }
  // v - sum of multiplier times gradient.
  Vec remainder(Vec v, const double* lambda) const {
    const Dense sum = member_gradients() * Dense(Vec(lambda, lambda + members));
    for (long j = 0; j < N; ++j) v[j] -= sum(j);
    return v;
  }

  std::mt19937 rng{20240611};
  std::unique_ptr<TestRecord> owner;
  TestRecord* r = nullptr;
  long nz = 0, members = 0;
  Vec gradient, packed;
  Dense basis{0, 0}, factor{N, N}, hessian{N, N}, wanted{0, 0};
};

TEST_P(Frames, BasisIsOrthonormalAndKeepsTheWorkingSet) {
  const Dense product = basis.t() * basis;
  for (long i = 0; i < nz * nz; ++i) EXPECT_NEAR(i % (nz + 1) == 0, product.a[i], 1e-14);
  if (members == 0) return;
  for (const double along : (basis.t() * member_gradients()).a) EXPECT_NEAR(0.0, along, 1e-13);
}

TEST_P(Frames, VectorsAndSlopes) {
  const Vec v = random(N), s = random(nz), g = reduced(gradient), full = expanded(s);
  Vec out(N), step = s;
  znlpvre(r, v.data(), out.data());
  expect_near(reduced(v), out.data(), 1e-14, "reduce");
  znlpgcs(r, out.data());
  expect_near(g, out.data(), 1e-14, "gradient");
  znlpgmx(r, 0, nullptr);
  double largest = 0.0;
  for (const double component : g) largest = std::max(largest, std::fabs(component));
  EXPECT_NEAR(largest, r->gmax, 1e-14);
  EXPECT_NEAR(dot(s, g), znlpgs(r, s.data(), g.data(), full.data(), r->grad), 1e-13);

  // The step stays away from the bounds, so that nothing is moved onto them.
  std::copy_n(r->x, N, r->xold);
  for (double& component : step) component *= 0.01;
  znlpgcs(r, r->gpro);
  EXPECT_NEAR(-0.5 * dot(step, g), znlpsp2(r, 2, step.data(), out.data()), 1e-14);
  expect_near(expanded(step), out.data(), 1e-14, "step");
  EXPECT_NEAR(norm(step), znlpsp2(r, 1, step.data(), out.data()), 1e-14);

  r->grad[1] = std::numeric_limits<double>::quiet_NaN();
  znlpgmx(r, 0, nullptr);
  EXPECT_TRUE(std::isnan(r->gmax));
}

TEST_P(Frames, ProjectedHessian) {
  const Vec expected = pack(wanted), g = reduced(gradient);
  Vec out(packed.size()), gpro(N), matrix = packed;
  r->crit = -3.0;
  znlphgp(r, 1, 0, gpro.data(), matrix.data(), out.data());
  expect_near(expected, out.data(), 1e-12, "separate");
  expect_near(g, gpro.data(), 1e-14, "gradient");
  EXPECT_EQ(packed, matrix);
  double measure = 0.0;
  for (long k = 0; k < nz && r->tech != 16; ++k) {
    measure = std::max(measure, std::fabs(g[k]) / std::sqrt(3.0 * wanted(k, k)));
  }
  EXPECT_NEAR(measure, r->gcri, 1e-13);  // technique 16 does without

  znlphpr(r, 1, 0, 0, gpro.data(), matrix.data(), matrix.data());
  expect_near(expected, matrix.data(), 1e-12, "in place");
  matrix = pack(factor);
  znlphpr(r, 2, 1, 0, gpro.data(), matrix.data(), out.data());
  expect_near(expected, out.data(), 1e-12, "from the factor");
  znlphpr(r, 2, 0, 0, gpro.data(), matrix.data(), matrix.data());
  expect_near(expected, matrix.data(), 1e-12, "from the factor in place");

  Dense diagonal(N, N);
  for (long j = 0; j < N; ++j) out[j] = diagonal(j, j) = hessian(j, j);
  const Dense small = basis.t() * diagonal * basis;
  znlphpr(r, 1, 0, 2, gpro.data(), out.data(), out.data());
  if (r->lincon != 0) expect_near(pack(small), out.data(), 1e-12, "diagonal, packed");
  for (long k = 0; k < nz && r->lincon == 0; ++k) EXPECT_EQ(small(k, k), out[k]);
}

// Multipliers are least-squares estimates: what they leave of the gradient is ZZ'g. Those of the
// second form leave nothing of the gradient at the Newton point of the working set.
TEST_P(Frames, Multipliers) {
  if (r->lincon == 0) {
    EXPECT_THROW(znlpglm(r, 0, r->grad, r->lagm), embed::ExitRequest);
    return;
  }
  Vec lambda(N), again(N), ordered(N);
  znlpglm(r, 0, gradient.data(), lambda.data());
  expect_near(expanded(reduced(gradient)), remainder(gradient, lambda.data()).data(), 1e-12, "1");
  for (long k = 0; k < N; ++k) ordered[k] = gradient[r->ifxr[k]];
  znlpglm(r, 1, ordered.data(), again.data());
  EXPECT_EQ(lambda, again);

  std::copy(packed.begin(), packed.end(), r->hess);
  ASSERT_EQ(0, znlplm2(r));
  const Vec step = solve(hessian, minus(remainder(gradient, r->lag2)));
  expect_near(expanded(newton()), step.data(), 1e-10, "second form");
  r->sing = 1e30;
  EXPECT_EQ(3, znlplm2(r));
  r->ider = 1;
  EXPECT_THROW(znlplm2(r), embed::ExitRequest);
}

// A Newton step is the same with and without scaling, in every frame.
TEST_P(Frames, ScaledNewtonStep) {
  const bool linear = r->lincon != 0;
  double* matrix = linear ? r->hpro : r->hess;
  Vec step(N), direction(N);
  std::copy(packed.begin(), packed.end(), r->hess);
  r->hesc = 1;
  if (!linear) znlphsc(r, 0, N, r->hess);
  znlphgp(r, 1, 0, r->gpro, r->hess, matrix);
  if (linear) znlphsc(r, 0, nz, matrix);
  for (long k = 0; k < nz; ++k) {
    EXPECT_NEAR(std::sqrt(wanted(k, k)), component_scale(r, k), 1e-12);
  }
  const double length = znlphs2(r, 0, step.data());
  EXPECT_NEAR(norm(Vec(step.begin(), step.begin() + nz)), length, 1e-12);
  for (long k = 0; k < nz; ++k) EXPECT_NEAR(1.0, matrix[zisub(k, k)], 1e-12);

  ASSERT_EQ(0, znlpcde(r, 2, nz, 1e-12, nullptr, matrix, matrix, nullptr));
  ASSERT_EQ(0, znlpcso(r, 2, nz, matrix, step.data()));
  const double scaled = norm(Vec(step.begin(), step.begin() + nz));
  znlpscd(r, step.data());
  expect_near(newton(), step.data(), 1e-10, "newton");
  // The length of a step is measured in the scale; short and with xold away from the bounds.
  std::copy_n(r->x, N, r->xold);
  r->xold[0] += 1.0;
  for (double& component : step) component *= 1e-3;
  EXPECT_NEAR(1e-3 * scaled, znlpsp2(r, 1, step.data(), direction.data()), 1e-12);
}

// The start matrices of the quasi-Newton techniques: reduced in place and factored as each needs.
TEST_P(Frames, StartMatrix) {
  Vec m = packed;
  ASSERT_EQ(0, znlphin(r, 2, 1, 0, 0, m.data()));
  expect_near(pack(wanted), m.data(), 1e-12, "reduced");
  for (const int chol : {1, 2}) {
    m = packed;
    ASSERT_EQ(0, znlphin(r, 2, 1, 0, chol, m.data()));
    Dense l(nz, nz), d(nz, nz);
    for (long i = 0; i < nz; ++i) {
      for (long j = 0; j <= i; ++j) l(i, j) = m[zisub(i, j)];
      d(i, i) = chol == 1 ? l(i, i) : 1.0;
      if (chol == 1) l(i, i) = 1.0;
    }
    expect_near((l * d * l.t()).a, wanted.a.data(), 1e-11, "factored");
  }
  m = minus(packed);
  EXPECT_GT(znlphin(r, 2, 1, 0, 2, m.data()), 0);

  if (r->nalc == 0 && r->lincon != 0) return;  // technique 10 would leave the frame of the basis
  r->tech = 10;
  m = packed;
  ASSERT_EQ(0, znlphin(r, 2, 1, 0, 2, m.data()));
  for (long k = 0; k < nz; ++k) {
    Vec unit(nz, 0.0);
    unit[k] = 1.0;
    const Vec column = solve(wanted, unit);
    for (long i = 0; i < nz; ++i) EXPECT_NEAR(column[i], m[zisub(i, k)], 1e-10);
  }
  r->dhes = 4.0;
  znlphin(r, 1, 0, 0, 2, m.data());
  ASSERT_EQ(0, znlphin(r, 2, 0, 0, 2, m.data()));
  for (long k = 0; k < nz; ++k) EXPECT_NEAR(0.25, m[zisub(k, k)], 1e-15);
}

TEST_P(Frames, ReducedSteps) {
  const Vec g = reduced(gradient), down = minus(g), inverse_of_g = solve(wanted, g);
  Vec triangle = pack(wanted), product = triangle, step(N), direction(N);
  znlpgcs(r, r->gpro);
  ASSERT_EQ(0, znlpcde(r, 4, nz, 1e-12, nullptr, triangle.data(), triangle.data(), nullptr));
  EXPECT_EQ(0, znlpsdi(r, 1, 1, 2, nz, step.data(), g.data(), triangle.data()));
  expect_near(inverse_of_g, step.data(), 1e-10, "pivots given");
  EXPECT_EQ(0, znlpsdi(r, 1, 0, 4, nz, step.data(), g.data(), triangle.data()));
  expect_near(inverse_of_g, step.data(), 1e-10, "pivots by the form");
  EXPECT_EQ(0, znlpsd2(r, 1, 1, 2, nz, step.data(), direction.data(), triangle.data()));
  expect_near(expanded(newton()), direction.data(), 1e-10, "newton direction");
  EXPECT_EQ(0, znlpsd2(r, -1, 0, 0, nz, step.data(), direction.data(), product.data()));
  expect_near((wanted * Dense(down)).a, step.data(), 1e-12, "product");

  // A factor with a zero pivot: gradient and steepest descent stand in.
  Vec singular(packed.size(), 0.0);
  EXPECT_EQ(-5, znlpsdi(r, 1, 0, 2, nz, step.data(), g.data(), singular.data()));
  expect_near(g, step.data(), 0.0, "restored");
  EXPECT_EQ(-5, znlpsd2(r, 1, 0, 2, nz, step.data(), direction.data(), singular.data()));
  expect_near(expanded(down), direction.data(), 1e-14, "steepest descent");

  // Only the first row of the factor is nonsingular: the others give nothing.
  singular[0] = 2.0;
  EXPECT_EQ(0, znlpsdi(r, 1, 0, 2, 1, step.data(), g.data(), singular.data()));
  EXPECT_NEAR(g[0] / 4.0, step[0], 1e-15);
  for (long k = 1; k < nz; ++k) EXPECT_EQ(0.0, step[k]);
}

INSTANTIATE_TEST_SUITE_P(All, Frames,
                         testing::Values(Setting{"identity", 4, false, 0, false},
                                         Setting{"bounds", 4, true, 0, false},
                                         Setting{"bounds_after_a_drop", 4, true, 0, true},
                                         Setting{"rows_inactive", 4, true, 1, false},
                                         Setting{"rows", 4, false, 2, false},
                                         Setting{"bounds_and_rows", 4, true, 2, false},
                                         Setting{"bounds_and_rows_after_a_drop", 2, true, 2, true},
                                         Setting{"full_by_technique", 16, true, 1, true},
                                         Setting{"full_by_technique_with_rows", 9, true, 2, false}),
                         [](const auto& each) { return each.param.name; });

// ---- Without parameters in the reduced space ----------------------------------------------------

TEST(Operators, EmptyReducedSpace) {
  TestRecord r(2);
  r.at({0.0, 0.0}).with_bounds({0.0, 0.0}, {INF, INF});
  r.grad[0] = r.grad[1] = 5.0;
  znlpfch(&r, 1, 0, 0);
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  double reduced[] = {7.0, 7.0}, full[] = {8.0, 8.0};
  znlpvex(&r, reduced, full);
  znlpvre(&r, full, reduced);
  EXPECT_EQ(0.0, znlpgs(&r, reduced, reduced, full, r.grad));
  EXPECT_EQ(0.0, znlpsp2(&r, 2, reduced, full));
  EXPECT_EQ(7.0, reduced[0]);
  EXPECT_EQ(8.0, full[1]);
  r.gmax = r.gcri = 9.0;
  znlphgp(&r, 1, 0, reduced, r.hess, r.hpro);
  EXPECT_EQ(0.0, r.gmax);
  EXPECT_EQ(0.0, r.gcri);
}

TEST(Operators, ImpossibleStatesEndTheRun) {
  TestRecord r(2);
  r.with_rows({{{1.0, 1.0}, 0, 0.0}}).at({0.0, 0.0});
  znlpfch(&r, 1, 0, 0);
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  EXPECT_THROW(znlphin(&r, 1, 0, 0, 3, r.hess), embed::ExitRequest);
  r.opro = 2;
  EXPECT_THROW(znlpgcs(&r, r.gpro), embed::ExitRequest);
  EXPECT_THROW(znlpglm(&r, 0, r.grad, r.lagm), embed::ExitRequest);
}

TEST(Operators, UnderflowingProductsAreLeftOut) {
  const double x[] = {1e-200, 1e-100, 2.0, 1e-160}, y[] = {1e-120, 1e-50, 3.0, 4.0};
  EXPECT_EQ(6.0 + 1e-150 + 4e-160, dotprd(4, x, y));
  EXPECT_EQ(0.0, dotprd(1, x, y));
}

// ---- Steps and bounds ---------------------------------------------------------------------------

TEST(Operators, StepsSnapOntoBoundsTheyReachOrPass) {
  TestRecord r(4);
  r.at({1.0, 1.0, 1.0, 1.0}).with_bounds({0.0, 0.0, -INF, 0.0}, {INF, INF, 3.0, 3.0});
  std::copy_n(r.x, 4, r.xold);
  double reduced[] = {-1.0 + 1e-9, -7.0, 2.0 + 1e-9, 1.0}, full[4];
  r.ifxr[0] = 3, r.ifxr[3] = 0;
  std::swap(reduced[0], reduced[3]);
  znlpsp2(&r, 3, reduced, full);
  expect_near({-1.0, -1.0, 2.0, 1.0}, full, 0.0, "snapped");
  EXPECT_EQ(1.0, reduced[0]);
}

TEST(Operators, DirectionIsCutOnlyWhenLong) {
  TestRecord r(2);
  r.at({0.0, 0.0}).with_bounds({0.0, -INF}, {INF, INF});
  long icon = 5;
  double gpro[] = {-3.0, 4.0};
  EXPECT_EQ(0, znlptcs(&r, gpro, &icon, nullptr));
  EXPECT_EQ(-1, icon);
  EXPECT_EQ(-4.0, r.work[1]);
  gpro[0] = 12.0, gpro[1] = -16.0;
  EXPECT_NE(0, znlptcs(&r, gpro, &icon, nullptr));
  EXPECT_EQ(0, icon);
  EXPECT_DOUBLE_EQ(-0.6, r.work[0]);
}

TEST(Operators, PointIsPutInsideItsBounds) {
  // lower, upper, x, then the expected x and status for job 0 and for job 2.
  struct Row {
    double lb, ub, x, x0;
    int s0;
    double x2;
    int s2;
  };
  const Row rows[] = {
      {0, INF, 5, 5, 0, 5, 0},         {2, INF, 1, 2, 1, 3, 0},      {50, INF, 1, 50, 1, 55, 0},
      {0, 2, -1, 0, 1, 1, 0},          {0, 10, -1, 0, 1, 1, 0},      {0, 10, 11, 10, -1, 9, 0},
      {-INF, -50, 0, -50, -1, -55, 0}, {1, 1 + 1e-9, 9, 1, 2, 1, 2}, {0, 10, 5e-9, 0, 1, 1, 0}};
  for (const Row& row : rows) {
    for (const int job : {0, 2}) {
      TestRecord r(1);
      r.at({row.x}).with_bounds({row.lb}, {row.ub});
      const int status = job == 0 ? row.s0 : row.s2;
      EXPECT_EQ(status != 0 ? 1 : 0, znlpfbc(&r, job));
      EXPECT_EQ(status, r.iabc[0]) << row.lb << " " << row.x;
      EXPECT_DOUBLE_EQ(job == 0 ? row.x0 : row.x2, r.x[0]) << row.lb << " " << row.x;
    }
  }
  TestRecord r(1);
  r.at({-1.0}).with_bounds({0.0}, {10.0});
  znlpfbc(&r, 1);
  EXPECT_DOUBLE_EQ(0.01, r.x[0]);
}

TEST(Operators, StepIsBentAlongTheBounds) {
  TestRecord r(2);
  r.at({0.1, 0.0}).with_bounds({0.0, -INF}, {INF, INF});
  std::copy_n(r.x, 2, r.xold);
  const auto direction = [&](double a, double b) { r.sdir[0] = a, r.sdir[1] = b; };
  r.grad[0] = 1.0, r.grad[1] = 1.0;
  direction(-1.0, -1.0);
  double slope = -2.0;
  EXPECT_EQ(1, znlppro(&r, 0, &slope));
  EXPECT_EQ(-0.1, r.sdir[0]);
  EXPECT_EQ(-1.0, r.sdir[1]);
  EXPECT_DOUBLE_EQ(-1.1, slope);
  EXPECT_EQ(1.0, r.stub);
  // The part along the bound climbs: only shorter lengths descend, or none.
  r.grad[0] = 30.0, r.grad[1] = -10.0;
  direction(-1.0, -0.5);
  slope = -25.0;
  EXPECT_EQ(1, znlppro(&r, 0, &slope));
  EXPECT_DOUBLE_EQ(-0.1, r.sdir[0]);
  EXPECT_NEAR(-0.275, r.sdir[1], 1e-15);
  EXPECT_NEAR(-0.25, slope, 1e-14);
  r.grad[0] = 1.0, r.grad[1] = -10.0;
  direction(-1.0, -0.05);
  slope = -0.5;
  EXPECT_EQ(0, znlppro(&r, 0, &slope));
  EXPECT_EQ(-0.5, slope);
  EXPECT_NEAR(0.1, r.stub, 1e-15);
}

TEST(Operators, FirstTrialStep) {
  TestRecord r(1);
  r.stub = HUGE_VALUE;
  r.sdir[0] = 1.0;
  const auto first = [&](double slope) { return znlpalf(&r, slope); };
  EXPECT_EQ(0.1, first(-1.0));  // no expected decrease
  r.dfes = 0.1;
  EXPECT_DOUBLE_EQ(0.5, first(-0.5));
  r.dfes = 100.0;
  EXPECT_EQ(1.0, first(-1.0));  // salf
  r.itre = 2, r.nlis = 6;
  EXPECT_EQ(10.0, first(-1.0));
  r.smit = 6, r.smax = 3.0;
  EXPECT_EQ(3.0, first(-1.0));
  r.stub = 0.25;
  EXPECT_EQ(0.25, first(-1.0));
  r.stub = HUGE_VALUE, r.smit = 0;
  r.damp = 2.0, r.alfa = 0.2;
  EXPECT_DOUBLE_EQ(0.4, first(-1.0));
  r.alfa = 4.0;
  EXPECT_EQ(1.0, first(-1.0));
  // A step too small to move is lengthened, and only stub can shorten it again.
  r.xold[0] = 4.0, r.sdir[0] = 1e-10;
  EXPECT_DOUBLE_EQ(400.0, first(-1.0));
  r.stub = 7.0;
  EXPECT_EQ(7.0, first(-1.0));
  r.sdir[0] = 0.0;
  EXPECT_EQ(1.0, first(-1.0));
}

TEST(Operators, ScaleRules) {
  struct Row {
    int hesc;
    long itre, null;
    double curvature, wanted;
  };
  for (const Row& row :
       {Row{0, 0, 0, 9, 1}, Row{2, 0, 0, 9, 3}, Row{1, 1, 0, 9, 5}, Row{1, 1, 0, 49, 7},
        Row{2, 1, 0, 4, 3}, Row{2, 1, 0, 16, 4}, Row{3, 1, 0, 4, 2}, Row{0, 1, 0, 4, 5},
        Row{3, 1, 1, 4, 1}, Row{3, 1, 0, -9, 3}, Row{3, 1, 0, 0, 1.053671212772351e-08}}) {
    TestRecord r(2);
    r.hesc = row.hesc, r.itre = row.itre, r.null = row.null;
    r.dsca[1] = 5.0;
    double packed[] = {1.0, 1.0, row.curvature};
    znlphsc(&r, 0, 2, packed);
    EXPECT_EQ(row.wanted, r.dsca[1]) << row.hesc << " " << row.curvature;
  }
}

TEST(Operators, StartCurvature) {
  TestRecord r(2);
  const auto start = [&] {
    znlphin(&r, 1, 0, 0, 0, r.hess);
    EXPECT_EQ(0.0, r.hess[1]);
    EXPECT_EQ(r.hess[0], r.hess[2]);
    return r.hess[0];
  };
  r.ridg = 0.5;
  EXPECT_EQ(0.51, start());
  r.grad[1] = -20.0;
  EXPECT_DOUBLE_EQ(4.5, start());
  r.grad[1] = 1e9;
  EXPECT_EQ(100.5, start());
  r.dhes = 3.0;
  EXPECT_EQ(3.5, start());
  znlphin(&r, 1, 1, 0, 0, r.hess);
  EXPECT_EQ(4.0, r.hess[0]);
}

TEST(Operators, Lagrangian) {
  TestRecord r(2);
  r.at({1.0, 2.0}).with_bounds({-INF, -INF}, {INF, 2.0}).with_rows({{{1.0, 1.0}, 1, 2.5}});
  double values[] = {0.25}, jacobian[] = {2.0, 3.0}, lagrange_gradient[2];
  r.nlicon = 1, r.nnlc = 1;
  r.fcon = values, r.jcon = jacobian, r.grlf = lagrange_gradient;
  r.acget = [](MINSTR* str, long i, double* w) {
    const double linear[] = {1.0, 1.0};
    std::copy_n(i < str->ncon ? linear : str->jcon, 2, w);
    return 0;
  };
  r.crit = 10.0, r.grad[0] = 8.0, r.grad[1] = 9.0;
  r.iabc[1] = -1, r.nabc = 1, r.nalc = 1, r.iact[0] = 1;  // the nonlinear constraint is active
  znlpfta(&r, 0, 1, 0, nullptr, nullptr, nullptr);
  EXPECT_DOUBLE_EQ(4.0, r.lagm[1]);
  EXPECT_DOUBLE_EQ(3.0, r.lagm[0]);  // -(9 - 4*3)
  EXPECT_DOUBLE_EQ(10.0 - 4.0 * 0.25, r.crlf);
  EXPECT_NEAR(0.0, lagrange_gradient[0], 1e-14);
  EXPECT_NEAR(0.0, lagrange_gradient[1], 1e-14);
  EXPECT_EQ(0.0, r.gmlf);
  r.nabc = r.nalc = 0, r.iabc[1] = 0;
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  EXPECT_EQ(10.0, r.crlf);
  EXPECT_EQ(9.0, r.gmlf);
}

}  // namespace
}  // namespace tqnlp::test
