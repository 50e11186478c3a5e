// The projected operators against plain dense formulas with the basis Z that znlpvex spells out, in
// every frame, and their rule tables.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <utility>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "embed/task.h"
#include "host/process.h"
#include "kernels/dense.h"

namespace tqnlp::test {
namespace {

constexpr long N = 6;

// H v for a packed symmetric H.
Vec times(const Vec& packed, const Vec& v) {
  return unpack(static_cast<long>(v.size()), packed) * v;
}

// L D L' packed, with L in the lower triangle of the factor; ldl: its diagonal is D, else D = I.
Vec multiply_out(const Vec& factor, long n, bool ldl) {
  Dense l = unpack(n, factor, true), d = identity(n);
  for (long i = 0; ldl && i < n; ++i) d(i, i) = std::exchange(l(i, i), 1.0);
  Vec product = pack(l * d * transpose(l));
  product.resize(packed_size(n));
  return product;
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

class Frames : public testing::TestWithParam<Setting> {
 protected:
  void SetUp() override {
    const Setting& s = GetParam();
    owner = std::make_unique<TestRecord>(N, s.tech);
    owner->at(random.vector(N, 2.0));
    r = owner.get();
    if (s.bounds)
      owner->with_bounds({r->x[0], -INF, -INF, r->x[3] - 5.0, r->x[4], -INF},
                         {INF, INF, r->x[2], INF, INF, INF});
    std::vector<LinearRow> rows;
    for (int i = 0; i < (s.rows > 0 ? 3 : 0); ++i) {
      const Vec a = random.vector(N, 2.0);
      const double slack = s.rows == 2 && i != 1 ? 0.0 : 1.0;
      rows.push_back({a, s.rows == 2 && i == 0 ? 0 : 1, dot(a, owner->point()) - slack});
    }
    if (s.rows > 0) owner->with_rows(rows);
    gradient = random.vector(N);
    std::copy_n(gradient.data(), N, r->grad);
    std::copy_n(r->x, N, r->xold);
    r->xold[0] += 1.0;  // away from the bounds, so that no short step is moved onto them
    ASSERT_EQ(0, znlpfch(r, 1, 0, 0));
    if (s.bounds || s.rows > 0) znlpfta(r, 0, 0, 0, nullptr, nullptr, nullptr);
    if (s.shuffled) znlpdod(r, 0, 1, 0, nullptr, nullptr, nullptr, nullptr);
    nz = reduced_dimension(r);
    ASSERT_EQ(N - (s.bounds ? 3 : 0) + (s.shuffled ? 1 : 0) - (s.rows == 2 ? 2 : 0), nz);

    for (long i = free_count(r); i < N; ++i)
      members.emplace_back(N, 0.0)[r->ifxr[i]] = r->iabc[r->ifxr[i]] < 0 ? -1.0 : 1.0;
    for (long i = 0; i < r->nalc; ++i) members.push_back(row_of(*r, r->iact[i]));
    for (long k = 0; k < nz; ++k) {
      Vec unit(N, 0.0);
      unit[k] = 1.0;
      basis.emplace_back(N, 7.0);
      znlpvex(r, unit.data(), basis.back().data());
    }
    factor = random.vector(packed_size(N));
    for (long i = 0; i < N; ++i) factor[zisub(i, i)] = 1.0 + 0.3 * static_cast<double>(i);
    hessian = multiply_out(factor, N, false);
    wanted = projected(hessian);
    r->crit = -3.0;
  }

  Vec reduced(const Vec& v) const {
    Vec p;
    for (const Vec& column : basis) p.push_back(dot(column, v));
    return p;
  }
  Vec expanded(const Vec& s) const {
    Vec v(N, 0.0);
    for (long k = 0; k < N * nz; ++k) v[k % N] += basis[k / N][k % N] * s[k / N];
    return v;
  }
  Vec projected(const Vec& matrix) const {
    Vec p;
    for (long i = 0; i < nz; ++i) {
      for (long j = 0; j <= i; ++j) p.push_back(dot(basis[i], times(matrix, basis[j])));
    }
    return p;
  }
  // What the multipliers leave of the gradient.
  Vec remainder(const double* lambda) const {
    Vec rest = gradient;
    for (std::size_t i = 0; i < members.size(); ++i) {
      for (long j = 0; j < N; ++j) rest[j] -= lambda[i] * members[i][j];
    }
    return rest;
  }
  // Is -Z'g the product of the projected matrix and the step?
  void expect_newton(const Vec& step, const char* what) const {
    const Vec product = times(wanted, Vec(step.begin(), step.begin() + nz));
    for (long k = 0; k < nz; ++k) EXPECT_NEAR(-reduced(gradient)[k], product[k], 1e-10) << what;
  }

  Random random{20240611};
  std::unique_ptr<TestRecord> owner;
  TestRecord* r = nullptr;
  long nz = 0;
  Vec gradient, factor, hessian, wanted;
  std::vector<Vec> basis, members;
};

TEST_P(Frames, VectorsAndSlopes) {
  const Vec v = random.vector(N), g = reduced(gradient);
  Vec s = random.vector(nz, 0.01), out(N);
  znlpvre(r, v.data(), out.data());
  expect_near(reduced(v), out.data(), 1e-14, "reduce");
  znlpgmx(r, 0, nullptr);
  const auto less = [](double a, double b) { return std::fabs(a) < std::fabs(b); };
  EXPECT_NEAR(std::fabs(*std::ranges::max_element(g, less)), r->gmax, 1e-14);
  EXPECT_NEAR(dot(s, g), znlpgs(r, s.data(), g.data(), expanded(s).data(), r->grad), 1e-13);
  znlpgcs(r, r->gpro);
  expect_near(g, r->gpro, 1e-14, "gradient");
  EXPECT_NEAR(-0.5 * dot(s, g), znlpsp2(r, 2, s.data(), out.data()), 1e-14);
  expect_near(expanded(s), out.data(), 1e-14, "step");
  r->grad[1] = MISSING;
  znlpgmx(r, 0, nullptr);
  EXPECT_TRUE(std::isnan(r->gmax));
}

TEST_P(Frames, ProjectedHessian) {
  const Vec g = reduced(gradient);
  Vec out(hessian.size()), gpro(N), matrix = hessian, diagonal(hessian.size(), 0.0);
  znlphgp(r, 1, 0, gpro.data(), matrix.data(), out.data());
  expect_near(wanted, out.data(), 1e-12, "separate");
  expect_near(g, gpro.data(), 1e-14, "gradient");
  double measure = 0.0;
  for (long k = 0; k < nz && r->tech != 16; ++k) {  // technique 16 does without
    measure = std::max(measure, std::fabs(g[k]) / std::sqrt(3.0 * wanted[zisub(k, k)]));
  }
  EXPECT_NEAR(measure, r->gcri, 1e-13);
  znlphpr(r, 1, 0, 0, gpro.data(), matrix.data(), matrix.data());
  expect_near(wanted, matrix.data(), 1e-12, "in place");
  znlphpr(r, 2, 1, 0, gpro.data(), factor.data(), out.data());
  expect_near(wanted, out.data(), 1e-12, "from the factor");

  for (long j = 0; j < N; ++j) out[j] = diagonal[zisub(j, j)] = hessian[zisub(j, j)];
  const Vec small = projected(diagonal);
  znlphpr(r, 1, 0, 2, gpro.data(), out.data(), out.data());
  if (r->lincon != 0) expect_near(small, out.data(), 1e-12, "diagonal, packed");
  for (long k = 0; k < nz && r->lincon == 0; ++k) EXPECT_EQ(small[zisub(k, k)], out[k]);
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
  expect_near(expanded(reduced(gradient)), remainder(lambda.data()).data(), 1e-12, "first form");
  for (long k = 0; k < N; ++k) ordered[k] = gradient[r->ifxr[k]];
  znlpglm(r, 1, ordered.data(), again.data());
  EXPECT_EQ(lambda, again);

  std::copy(hessian.begin(), hessian.end(), r->hess);
  ASSERT_EQ(0, znlplm2(r));
  Vec step = remainder(r->lag2);  // H times the way from the Newton point
  znlpcde(r, 2, N, 1e-12, nullptr, hessian.data(), factor.data(), nullptr);
  znlpcso(r, 2, N, factor.data(), step.data());
  for (double& component : step) component = -component;
  expect_newton(reduced(step), "second form");
  for (const Vec& member : members) EXPECT_NEAR(0.0, dot(member, step), 1e-10);
  r->sing = 1e30;
  EXPECT_EQ(3, znlplm2(r));
}

TEST_P(Frames, ReducedSteps) {
  const Vec g = reduced(gradient);
  Vec down = g, triangle = wanted, step(N), direction(N);
  for (double& component : down) component = -component;
  znlpgcs(r, r->gpro);
  ASSERT_EQ(0, znlpcde(r, 4, nz, 1e-12, nullptr, triangle.data(), triangle.data(), nullptr));
  EXPECT_EQ(0, znlpsdi(r, 1, 0, 4, nz, step.data(), down.data(), triangle.data()));
  expect_newton(step, "pivots by the form");
  EXPECT_EQ(0, znlpsd2(r, 1, 1, 2, nz, step.data(), direction.data(), triangle.data()));
  expect_newton(reduced(direction), "pivots given");
  EXPECT_EQ(0, znlpsd2(r, -1, 0, 0, nz, step.data(), direction.data(), wanted.data()));
  expect_near(times(wanted, down), step.data(), 1e-12, "product");

  // A factor with a zero pivot: gradient and steepest descent stand in.
  Vec singular(hessian.size(), 0.0);
  EXPECT_EQ(-5, znlpsdi(r, 1, 0, 2, nz, step.data(), g.data(), singular.data()));
  expect_near(g, step.data(), 0.0, "restored");
  EXPECT_EQ(-5, znlpsd2(r, 1, 0, 2, nz, step.data(), direction.data(), singular.data()));
  expect_near(expanded(down), direction.data(), 1e-14, "steepest descent");
  // Rows past the nonsingular ones give nothing.
  singular[0] = 2.0;
  EXPECT_EQ(0, znlpsdi(r, 1, 0, 2, 1, step.data(), g.data(), singular.data()));
  EXPECT_NEAR(g[0] / 4.0, step[0], 1e-15);
  EXPECT_EQ(0.0, step[nz - 1]);
}

INSTANTIATE_TEST_SUITE_P(All, Frames,
                         testing::Values(Setting{"identity", 4, false, 0, false},
                                         Setting{"bounds", 4, true, 0, true},
                                         Setting{"rows_inactive", 4, true, 1, false},
                                         Setting{"rows", 4, false, 2, false},
                                         Setting{"bounds_and_rows", 2, true, 2, true},
                                         Setting{"full_by_technique", 16, true, 1, true},
                                         Setting{"full_by_technique_with_rows", 9, true, 2, true}),
                         [](const auto& each) { return each.param.name; });

TEST(Operators, SpecialStates) {
  TestRecord r(2);
  r.with_bounds({0.0, -INF}, {INF, INF}).with_rows({{{1.0, 1.0}, 0, 0.0}});
  znlpfch(&r, 1, 0, 0);
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  double reduced[] = {7.0, 7.0}, full[] = {8.0, 8.0};
  znlpvex(&r, reduced, full);
  znlpvre(&r, full, reduced);
  EXPECT_EQ(15.0, znlpsp2(&r, 2, reduced, full) + reduced[0] + full[1]);
  r.grad[0] = r.gmax = r.gcri = 9.0;
  znlphgp(&r, 1, 0, reduced, r.hess, r.hpro);
  EXPECT_EQ(0.0, r.gmax + r.gcri);
  // Products that underflow are left out.
  const double x[] = {1e-200, 1e-100, 2.0, 1e-160}, y[] = {1e-120, 1e-50, 3.0, 4.0};
  EXPECT_EQ(6.0 + 1e-150 + 4e-160, dotprd(4, x, y));
}

// Whoever needs the null-space frame ends the run in the range-space frame.
TEST(Operators, RangeSpaceFrameIsRefused) {
  TestRecord r(3);
  r.with_bounds({0, 0, 0}, {1, 1, 1}).with_rows({{{1, 1, 1}, 1, 1}, {{1, 2, 0}, 1, 0}});
  r.at({0, .5, .5});
  znlpfch(&r, 1, 0, 0);
  znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr);
  r.opro = 2;
  EXPECT_EQ(0, znlpfch(&r, 1, 0, 0));
  using Call = void (*)(MINSTR*);
  for (const Call call :
       {Call([](MINSTR* str) { znlpfta(str, 0, 0, 0, nullptr, nullptr, nullptr); }),
        Call([](MINSTR* str) { znlpact(str, 0, 0, nullptr, nullptr, nullptr); }),
        Call([](MINSTR* str) { znlpdac(str, 0, 0, nullptr, nullptr, nullptr); }),
        Call([](MINSTR* str) { znlpdod(str, 0, 0, 0, nullptr, nullptr, nullptr, nullptr); }),
        Call([](MINSTR* str) { znlpcld(str, 0, nullptr, nullptr, nullptr); }),
        Call([](MINSTR* str) { znlpgcs(str, str->gpro); }),
        Call([](MINSTR* str) { znlpglm(str, 0, str->grad, str->lagm); }),
        Call([](MINSTR* str) { znlpfea(str, 0); }),
        Call([](MINSTR* str) { znlplcq(str, 0, 0, 2.0, str->grad, nullptr, nullptr); })}) {
    EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { call(&r); }));
  }
}

TEST(Operators, StepsSnapOntoBoundsTheyReachOrPass) {
  TestRecord r(4);
  r.at({1.0, 1.0, 1.0, 1.0}).with_bounds({0.0, 0.0, -INF, 0.0}, {INF, INF, 3.0, 3.0});
  std::copy_n(r.x, 4, r.xold);
  double reduced[] = {1.0, -7.0, 2.0 - 1e-9, -1.0 + 1e-9}, full[4];
  r.ifxr[0] = 3, r.ifxr[3] = 0;
  znlpsp2(&r, 3, reduced, full);
  expect_near({-1.0, -1.0, 2.0, 1.0}, full, 0.0, "snapped");
}

TEST(Operators, DirectionIsCutOnlyWhenLong) {
  TestRecord r(2);
  r.at({0.0, 0.0}).with_bounds({0.0, -INF}, {INF, INF});
  long icon = 5;
  double inside[] = {-3.0, 4.0}, blocked[] = {12.0, -16.0};
  EXPECT_EQ(0, znlptcs(&r, inside, &icon, nullptr));
  EXPECT_EQ(-1, icon);
  EXPECT_EQ(-4.0, r.work[1]);
  EXPECT_NE(0, znlptcs(&r, blocked, &icon, nullptr));
  EXPECT_EQ(0, icon);
  EXPECT_DOUBLE_EQ(-0.6, r.work[0]);
}

TEST(Operators, PointIsPutInsideItsBounds) {
  using Row = std::array<double, 6>;
  for (const auto& [lb, ub, x, job, wanted, status] :
       {Row{0, INF, 5, 0, 5, 0}, Row{2, INF, 1, 0, 2, 1}, Row{2, INF, 1, 2, 3, 0},
        Row{50, INF, 1, 2, 55, 0}, Row{0, 2, -1, 2, 1, 0}, Row{0, 10, -1, 2, 1, 0},
        Row{0, 10, -1, 1, 0.01, 0}, Row{0, 10, 11, 0, 10, -1}, Row{0, 10, 11, 2, 9, 0},
        Row{-INF, -50, 0, 2, -55, 0}, Row{1, 1 + 1e-9, 9, 2, 1, 2}, Row{0, 10, 5e-9, 0, 0, 1}}) {
    TestRecord r(1);
    r.at({x}).with_bounds({lb}, {ub});
    EXPECT_EQ(status != 0 ? 1 : 0, znlpfbc(&r, static_cast<int>(job)));
    EXPECT_EQ(status, r.iabc[0]) << lb << " " << x;
    EXPECT_DOUBLE_EQ(wanted, r.x[0]) << lb << " " << x;
  }
}

// Where the second part of the step climbs along the bound, only a shorter length descends, or
// none.
TEST(Operators, StepIsBentAlongTheBounds) {
  using Row = std::array<double, 9>;
  for (const auto& [g0, g1, s1, slope, code, bent0, bent1, bent_slope, stub] :
       {Row{1, 1, -1, -2, 1, -0.1, -1, -1.1, 1}, Row{30, -10, -0.5, -25, 1, -0.1, -0.275, -0.25, 1},
        Row{1, -10, -0.05, -0.5, 0, -1, -0.05, -0.5, 0.1}}) {
    TestRecord r(2);
    r.at({0.1, 0.0}).with_bounds({0.0, -INF}, {INF, INF});
    std::copy_n(r.x, 2, r.xold);
    r.grad[0] = g0, r.grad[1] = g1, r.sdir[0] = -1.0, r.sdir[1] = s1;
    double found = slope;
    EXPECT_EQ(code, znlppro(&r, 0, &found));
    expect_near({bent0, bent1}, r.sdir, 1e-15, "bent");
    EXPECT_NEAR(bent_slope, found, 1e-14);
    EXPECT_NEAR(stub, r.stub, 1e-15);
  }
}

TEST(Operators, FirstTrialStep) {
  const struct {
    double dfes, slope, itre, nlis, smit, damp, alfa, xold, sdir, stub, wanted;
  } rows[] = {{MISSING, -1, 0, 0, 0, MISSING, 0, 0, 1, INF, 0.1},  // no expected decrease
              {0.1, -0.5, 0, 0, 0, MISSING, 0, 0, 1, INF, 0.5},
              {100, -1, 0, 0, 0, MISSING, 0, 0, 1, INF, 1},  // salf
              {100, -1, 2, 5, 0, MISSING, 0, 0, 1, INF, 1},
              {100, -1, 2, 6, 0, MISSING, 0, 0, 1, INF, 10},
              {100, -1, 2, 6, 6, MISSING, 0, 0, 1, INF, 3},  // smax
              {100, -1, 2, 6, 0, 2, 0.2, 0, 1, INF, 0.4},
              {100, -1, 2, 6, 0, 2, 4, 0, 1, INF, 1},
              // A step too small to move is lengthened, and only stub can shorten it again.
              {100, -1, 2, 6, 0, 2, 4, 4, 1e-10, INF, 400},
              {100, -1, 2, 6, 0, 2, 4, 4, 1e-10, 7, 7},
              {100, -1, 2, 6, 0, 2, 4, 4, 0, 7, 1}};
  for (const auto& row : rows) {
    TestRecord r(1);
    r.dfes = row.dfes, r.itre = long(row.itre), r.nlis = long(row.nlis), r.smit = long(row.smit);
    r.damp = row.damp, r.alfa = row.alfa, r.xold[0] = row.xold, r.sdir[0] = row.sdir;
    r.stub = row.stub, r.smax = 3.0;
    EXPECT_DOUBLE_EQ(row.wanted, znlpalf(&r, row.slope)) << &row - rows;
  }
}

TEST(Operators, ScaleRules) {
  using Row = std::array<double, 5>;
  for (const auto& [hesc, itre, null, curvature, wanted] :
       {Row{0, 0, 0, 9, 1}, Row{2, 0, 0, 9, 3}, Row{1, 1, 0, 9, 5}, Row{1, 1, 0, 49, 7},
        Row{2, 1, 0, 4, 3}, Row{2, 1, 0, 16, 4}, Row{3, 1, 0, 4, 2}, Row{0, 1, 0, 4, 5},
        Row{3, 1, 1, 4, 1}, Row{3, 1, 0, -9, 3}, Row{3, 1, 0, 0, 1.053671212772351e-08}}) {
    TestRecord r(2);
    r.hesc = static_cast<int>(hesc);
    r.itre = static_cast<long>(itre), r.null = static_cast<long>(null);
    r.dsca[1] = 5.0;
    double packed[] = {1.0, 1.0, curvature};
    znlphsc(&r, 0, 2, packed);
    EXPECT_EQ(wanted, r.dsca[1]) << hesc << " " << curvature;
  }
}

TEST(Operators, StartCurvature) {
  TestRecord r(2);
  r.ridg = 0.5;
  for (const auto& [gradient, wanted] : {std::pair{0.0, 0.51}, {-20.0, 4.5}, {1e9, 100.5}}) {
    r.grad[1] = gradient;
    znlphin(&r, 1, 0, 0, 0, r.hess);
    expect_near({wanted, 0.0, wanted}, r.hess, 1e-15, "start");
  }
  znlphin(&r, 1, 1, 0, 0, r.hess);
  EXPECT_EQ(101.0, r.hess[2]);
}

TEST(Operators, Lagrangian) {
  TestRecord r(2);
  r.at({1.0, 2.0}).with_bounds({-INF, -INF}, {INF, 2.0}).with_rows({{{1.0, 1.0}, 1, 2.5}});
  double values[] = {0.25}, jacobian[] = {2.0, 3.0}, lagrange_gradient[2];
  r.nlicon = 1, r.nnlc = 1;
  r.fcon = values, r.jcon = jacobian, r.grlf = lagrange_gradient;
  r.acget = [](MINSTR* str, long, double* w) { return std::copy_n(str->jcon, 2, w), 0; };
  r.crit = 10.0, r.grad[0] = 8.0, r.grad[1] = 9.0;
  r.iabc[1] = -1, r.nabc = 1, r.nalc = 1, r.iact[0] = 1;  // the nonlinear constraint is active
  znlpfta(&r, 0, 1, 0, nullptr, nullptr, nullptr);
  expect_near({3.0, 4.0}, r.lagm, 1e-14, "multipliers");  // -(9 - 4*3), 8/2
  EXPECT_DOUBLE_EQ(10.0 - 4.0 * 0.25, r.crlf);
  expect_near({0.0, 0.0}, lagrange_gradient, 1e-14, "gradient");
}

}  // namespace
}  // namespace tqnlp::test
