// Differences against derivatives known in closed form. With few digits (fdig 4) the intervals are
// so wide that the truncation error of each formula is far above rounding, and must be exactly the
// one that Taylor's series gives; with full digits the error must stay within the usual bounds.
#include "aasubs/derivatives/differences.h"

#include <gtest/gtest.h>

#include <set>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfid.h"
#include "problems/jet.h"

namespace tqnlp::test {
namespace {

constexpr double WIDE_DIGITS = 4.0;
const double WIDE = 1e-2;                            // forward interval of 4 digits
const double WIDE_CENTRAL = std::pow(10, -4.0 / 3);  // central interval of 4 digits

// ---- Truncation errors -------------------------------------------------------------------------

// f = x^3 + 2 x y^2, one function.
DifferenceRecord& cubic(DifferenceRecord& r) {
  r.functions = [](const double* x, double* f) {
    f[0] = x[0] * x[0] * x[0] + 2 * x[0] * x[1] * x[1];
  };
  r.gradient = [](const double* x, double* g) {
    g[0] = 3 * x[0] * x[0] + 2 * x[1] * x[1];
    g[1] = 4 * x[0] * x[1];
  };
  r.fdig = WIDE_DIGITS;
  return r;
}

// What every routine must leave as it found it.
struct Kept {
  Vec x, func;
  double crit, indf;
  explicit Kept(const DifferenceRecord& r)
      : x(r.point()), func(r.func, r.func + r.mequ), crit(r.crit), indf(r.indf) {}
  void expect(const DifferenceRecord& r) const {
    EXPECT_EQ(x, r.point());
    if (r.nfuv == 0) {
      EXPECT_EQ(func, Vec(r.func, r.func + r.mequ));
    }
    EXPECT_EQ(crit, r.crit);
    EXPECT_EQ(indf, r.indf);
  }
};

TEST(Gradient, TruncationErrorIsTaylors) {
  const double x = 1.5, y = -3.0;
  const double h = (1 + x) * WIDE, k = (1 - y) * WIDE, hc = (1 + x) * WIDE_CENTRAL;
  for (const int scalar : {0, 1}) {
    DifferenceRecord r(2, 1);
    cubic(r).start({x, y});
    r.nfuv = scalar;
    const Kept kept(r);
    EXPECT_EQ(znlpfig(&r), 0);
    EXPECT_NEAR(r.grad[0], 3 * x * x + 2 * y * y + 3 * x * h + h * h, 1e-10);
    EXPECT_NEAR(r.grad[1], 4 * x * y + 2 * x * k, 1e-10);
    EXPECT_EQ(r.visited.size(), 2U);
    EXPECT_EQ(znlpfg2(&r), 0);
    EXPECT_NEAR(r.grad[0], 3 * x * x + 2 * y * y + hc * hc, 1e-10);
    EXPECT_NEAR(r.grad[1], 4 * x * y, 1e-10);
    EXPECT_EQ(r.visited.size(), 6U);
    EXPECT_EQ(r.ngrd, 2);
    EXPECT_EQ(r.nfct, 1);  // differences are no function calls
    kept.expect(r);
  }
}

TEST(Hessian, TruncationErrorIsTaylors) {
  const double x = 1.5, y = -3.0;
  DifferenceRecord r(2, 1);
  cubic(r).start({x, y});
  r.fidi = 1001;
  const Kept kept(r);
  const double h = (1 + x) * WIDE_CENTRAL, k = (1 - y) * WIDE_CENTRAL;
  EXPECT_EQ(znlpfih(&r), 0);
  EXPECT_NEAR(r.hess[0], 6 * x, 1e-9);
  EXPECT_NEAR(r.hess[1], 4 * y + 2 * k, 1e-9);
  EXPECT_NEAR(r.hess[2], 4 * x, 1e-9);
  EXPECT_EQ(r.visited.size(), 5U + 2U);  // and the forward gradient
  EXPECT_NEAR(r.grad[1], 4 * x * y + 2 * x * (1 - y) * WIDE, 1e-10);
  kept.expect(r);

  r.fidi = 2002;
  r.visited.clear();
  EXPECT_EQ(znlpfh2(&r), 0);
  EXPECT_NEAR(r.hess[1], 4 * y, 1e-9);
  EXPECT_NEAR(r.hess[2], 4 * x, 1e-9);
  EXPECT_NEAR(r.grad[0], 3 * x * x + 2 * y * y + h * h, 1e-10);
  EXPECT_EQ(r.visited.size(), 8U + 4U + 4U);
  kept.expect(r);

  r.visited.clear();
  r.grad[0] = 77;  // the gradient that comes back is the one the routine formed itself
  EXPECT_EQ(znlpfh3(&r), 0);
  const double f = (1 + x) * WIDE, g = (1 - y) * WIDE;
  EXPECT_NEAR(r.hess[0], 6 * x + 3 * f, 1e-10);
  EXPECT_NEAR(r.hess[1], 4 * y + g, 1e-10);  // mean of 4y + 2g and 4y
  EXPECT_NEAR(r.grad[0], 3 * x * x + 2 * y * y, 1e-12);
  EXPECT_EQ(r.visited.size(), 3U);
  EXPECT_EQ(r.gradients, 3);
  kept.expect(r);

  r.visited.clear();
  r.gradients = 0;
  EXPECT_EQ(znlpfh4(&r), 0);
  EXPECT_NEAR(r.hess[0], 6 * x, 1e-10);
  EXPECT_NEAR(r.hess[1], 4 * y, 1e-10);
  EXPECT_EQ(r.visited.size(), 5U);
  EXPECT_EQ(r.gradients, 5);
  EXPECT_EQ(r.nhes, 4);
  kept.expect(r);
}

// The fourth-order formula is exact for quartics; the plain one is off by 2 h^2 for x^4.
TEST(Hessian, DiagonalFormAndItsOrder) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x, double* f) { f[0] = std::pow(x[0], 4) - std::pow(x[1], 4); };
  r.fdig = WIDE_DIGITS;
  r.hfrm = 2;
  r.start({1, 2});
  EXPECT_EQ(znlpfh2(&r), 0);
  EXPECT_NEAR(r.hess[0], 12, 1e-9);
  EXPECT_NEAR(r.hess[1], -48, 1e-9);
  EXPECT_EQ(r.visited.size(), 8U + 4U);  // no mixed points
  EXPECT_EQ(znlpfih(&r), 0);
  EXPECT_NEAR(r.hess[0], 12 + 2 * std::pow(2 * WIDE_CENTRAL, 2), 1e-9);
  r.gradient = [](const double* x, double* g) {
    g[0] = 4 * std::pow(x[0], 3);
    g[1] = -4 * std::pow(x[1], 3);
  };
  EXPECT_EQ(znlpfh4(&r), 0);
  EXPECT_NEAR(r.hess[1], -48 - 4 * std::pow(3 * WIDE_CENTRAL, 2), 1e-9);
}

// ---- Full accuracy -----------------------------------------------------------------------------

template <typename T>
void curved(const T* x, T* r) {
  using std::atan, std::exp, std::log, std::sin;
  r[0] = exp(x[0] * 0.3) * sin(x[1]);
  r[1] = x[0] * x[1] * x[2] - 2.0;
  r[2] = log(x[2] * x[2] + 1.0) + x[0];
  r[3] = atan(x[1] - x[2]) * x[0] * x[0];
}

struct Exact {
  Vec value;
  std::vector<Vec> jacobian;
  explicit Exact(const Vec& x) : value(4), jacobian(4, Vec(3)) {
    Jet at[3], r[4];
    for (long j = 0; j < 3; ++j) at[j] = Jet::variable(x[static_cast<std::size_t>(j)], j, 3);
    curved<Jet>(at, r);
    for (std::size_t i = 0; i < 4; ++i) {
      value[i] = r[i].value();
      for (long j = 0; j < 3; ++j) jacobian[i][static_cast<std::size_t>(j)] = r[i].gradient(j);
    }
  }
};

void curved_functions(const double* x, double* r) { curved<double>(x, r); }

// Forward differences are good to about the root of the rounding unit, central ones to its power
// 2/3. The Jacobian reaches the file, the gradient is J'w, the crossproduct J'J.
TEST(Jacobian, AccuracyGradientAndCrossproduct) {
  const Vec at = {0.7, -1.3, 2.4};
  const Exact exact(at);
  struct Routine {
    int (*run)(MINSTR*);
    double error;
    bool crossproduct;
    std::size_t evaluations;
  };
  for (const Routine& routine :
       {Routine{znlpfij, 2e-7, false, 3}, Routine{znlpfj2, 2e-9, false, 6},
        Routine{znlpfic, 2e-7, true, 3}, Routine{znlpfc2, 2e-9, true, 6}}) {
    for (const int kind : {0, 1, 2}) {  // sum, sum of squares, sum of absolute values
      DifferenceRecord r(3, 4);
      r.functions = curved_functions;
      r.lsqu = kind == 1 ? 1 : 0;
      r.l1nm = kind == 2 ? 1 : 0;
      r.start(at);
      const Kept kept(r);
      ASSERT_EQ(routine.run(&r), 0);
      kept.expect(r);
      EXPECT_EQ(r.visited.size(), routine.evaluations);
      EXPECT_EQ(r.nhes, 1);
      Vec jacobian(12), product(4);
      znlpjrd(&r, jacobian.data());
      const Vec direction = {1, -2, 0.5};
      znlpjve(&r, direction.data(), product.data());
      for (std::size_t j = 0; j < 3; ++j) {
        double slope = 0.0;
        for (std::size_t i = 0; i < 4; ++i) {
          const double f = exact.value[i];
          EXPECT_NEAR(jacobian[3 * i + j], exact.jacobian[i][j], routine.error);
          slope += exact.jacobian[i][j] * (kind == 1 ? f : (kind == 2 && f < 0 ? -1 : 1));
        }
        EXPECT_NEAR(r.grad[j], slope, 10 * routine.error);
        for (std::size_t k = 0; routine.crossproduct && k <= j; ++k) {
          double sum = 0.0;
          for (std::size_t i = 0; i < 4; ++i) sum += jacobian[3 * i + j] * jacobian[3 * i + k];
          EXPECT_NEAR(r.hess[zisub(static_cast<long>(j), static_cast<long>(k))], sum, 1e-13 * 50);
        }
      }
      for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(product[i],
                    jacobian[3 * i] - 2 * jacobian[3 * i + 1] + 0.5 * jacobian[3 * i + 2],
                    1e-14 * 20);
      }
    }
  }
}

// The second forms of the crossproduct, and its diagonal alone.
TEST(Jacobian, FormsOfTheCrossproduct) {
  double far = 0.0;  // a constant function that makes the objective large
  DifferenceRecord r(1, 3);
  r.functions = [&far](const double* x, double* f) {
    f[0] = 2 * x[0];
    f[1] = 0.25 * x[0];
    f[2] = far;
  };
  r.start({2});  // values 4 and 0.5, derivatives 2 and 0.25
  const auto crossproduct = [&r] {
    EXPECT_EQ(znlpfc2(&r), 0);
    return r.hess[0];
  };
  EXPECT_NEAR(crossproduct(), 4 + 0.0625, 1e-9);
  r.icpj = 1;
  EXPECT_NEAR(crossproduct(), 4 / 4.0 + 0.0625 / 0.5, 1e-9);
  far = 1e14;  // against an objective this large the value 0.5 is rounding
  r.start({2});
  EXPECT_NEAR(crossproduct(), 1, 1e-9);
  far = 0.0;
  r.start({2});
  r.imax = 1;
  EXPECT_NEAR(crossproduct(), 1.125, 1e-9);  // packed: the sign is left alone
  r.hfrm = 2;
  EXPECT_NEAR(crossproduct(), -1.125, 1e-9);  // diagonal: it follows imax
  r.lsqu = 1;
  EXPECT_NEAR(crossproduct(), 4 * 16 + 0.0625 * 0.25, 1e-8);
}

// ---- Scale -------------------------------------------------------------------------------------

TEST(Gradient, HugeAndTinyParameters) {
  for (const double x : {1e-300, 0.0, -1e-12, 3e7, -1e15, 1e200}) {
    DifferenceRecord r(1, 1);
    r.functions = [](const double* at, double* f) { f[0] = 3 * at[0]; };
    r.start({x});
    for (const auto run : {znlpfig, znlpfg2}) {
      EXPECT_EQ(run(&r), 0);
      EXPECT_NEAR(r.grad[0], 3, 1e-7) << x;
      EXPECT_EQ(r.x[0], x);
    }
  }
  DifferenceRecord none(0, 1);
  EXPECT_EQ(znlpfig(&none), 0);
  EXPECT_EQ(none.ngrd, 0);
  // Without digits: the root of 2^-51, and the step from zero is the interval itself.
  DifferenceRecord r(1, 1);
  r.functions = [](const double* at, double* f) { f[0] = at[0]; };
  r.fdig = 0;
  r.start({0});
  EXPECT_EQ(znlpfig(&r), 0);
  EXPECT_DOUBLE_EQ(r.visited[0][0], 0x1p-26 * std::sqrt(2.0));
  // The central Jacobian alone steps by the interval without the factor |x| + 1.
  r.start({9});
  r.nhes = 0;
  EXPECT_EQ(znlpfj2(&r), 0);
  EXPECT_NEAR(r.visited[0][0] - 9, central_interval(0), 1e-14);
}

TEST(Gradient, SumsAreKeptInRange) {
  double a = 1e306;
  EXPECT_EQ(tstsum(&a, 1e306), 1);
  EXPECT_EQ(a, HUGE_VALUE);
  a = -1e306;
  EXPECT_EQ(tstsum(&a, -1e306), -1);
  EXPECT_EQ(a, -HUGE_VALUE);
  a = -1.7e306;
  EXPECT_EQ(tstsum(&a, 1.7e306), 0);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(tstsum2(&a, 1e200, 1e200), 1);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(tstsum2(&a, 1e306, 5), 1);  // 5e306 is beyond, but neither factor is small
  EXPECT_EQ(tstsum2(&a, 1.797e306, 1), 0);
  EXPECT_EQ(tstsum2(&a, 1e306, 1), 2);
  a = -1.797e306;
  EXPECT_EQ(tstsum2(&a, -1e306, 1), -1);

  // f = 1e300 x twice: J'J overflows; as least squares the gradient does.
  DifferenceRecord r(1, 2);
  r.functions = [](const double* x, double* f) { f[0] = f[1] = 1e153 * x[0]; };
  r.start({1});
  EXPECT_EQ(znlpfic(&r), -9);
  EXPECT_EQ(znlpfc2(&r), -9);
  r.lsqu = 1;
  for (const auto run : {znlpfij, znlpfj2, znlpfic, znlpfc2, znlpfig, znlpfg2}) {
    r.start({1});
    EXPECT_EQ(run(&r), -3);
    EXPECT_EQ(r.grad[0], HUGE_VALUE);
  }
}

// ---- Bounds ------------------------------------------------------------------------------------

// The base moves away from a bound; the derivative is that of the moved base, no point leaves the
// box, and the user's state comes back with one more evaluation.
TEST(Bounds, BaseMovesAway) {
  const double h = 3 * WIDE, hc = 3 * WIDE_CENTRAL;
  const double moved = 4 - 2 * h + (3 - h) * WIDE;  // at 2 - h, with the step that belongs there
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x, double* f) { f[0] = x[0] * x[0] + x[1] * x[1]; };
  r.gradient = [](const double* x, double* g) {
    g[0] = 2 * x[0];
    g[1] = 2 * x[1];
  };
  r.fdig = WIDE_DIGITS;
  r.with_bounds({-2, -2}, {2, 2});
  struct Case {
    int (*run)(MINSTR*);
    double gradient;  // first element of grad; 0: not looked at
    std::size_t evaluations;
  };
  for (const Case& c :
       {Case{znlpfig, moved, 2 + 2}, Case{znlpfg2, 4 - 2 * hc, 4 + 2}, Case{znlpfij, moved, 2 + 2},
        Case{znlpfih, 0, 5 + 4 + 2}, Case{znlpfh2, 0, 12 + 4 + 2}, Case{znlpfh3, 4, 3 + 1},
        Case{znlpfh4, 4, 4 + 1}}) {
    r.start({2, -2});
    const Kept kept(r);
    EXPECT_EQ(c.run(&r), 0);
    kept.expect(r);
    EXPECT_EQ(r.visited.size(), c.evaluations);
    if (c.gradient != 0) {
      EXPECT_NEAR(r.grad[0], c.gradient, 1e-9);
    }
    const bool fourth_order = c.run == znlpfh2;  // reaches two steps out, one beyond the bound
    for (const Vec& point : r.visited) {
      for (const double x : point) EXPECT_LE(std::fabs(x), fourth_order ? 2 + hc : 2 + 1e-15);
    }
  }
  // A fixed parameter stays, though it is perturbed.
  r.with_bounds({2, -9}, {2, 9});
  r.start({2, 0});
  EXPECT_EQ(znlpfig(&r), 0);
  EXPECT_NEAR(r.grad[0], 4 + h, 1e-9);
  EXPECT_EQ(r.visited.size(), 2U);
}

// ---- Points that cannot be evaluated -----------------------------------------------------------

DifferenceRecord& square_within(DifferenceRecord& r, double low, double high) {
  r.functions = [low, high](const double* x, double* f) {
    f[0] = x[0] < low || x[0] > high ? NAN : x[0] * x[0];
  };
  r.gradient = [](const double* x, double* g) { g[0] = 2 * x[0]; };
  r.fdig = WIDE_DIGITS;
  return r;
}

TEST(Retreat, OtherSideThenSmallerSteps) {
  const double h = 2 * WIDE, hc = 2 * WIDE_CENTRAL;
  DifferenceRecord r(1, 1);
  square_within(r, -9, 1).start({1});
  EXPECT_EQ(znlpfig(&r), 0);  // the other side
  EXPECT_NEAR(r.grad[0], 2 - h, 1e-10);
  EXPECT_EQ(r.visited.size(), 2U);
  square_within(r, 1, 1).start({1});
  EXPECT_EQ(znlpfig(&r), -2);  // both sides fail: the flipped step is not halved
  EXPECT_EQ(r.visited.size(), 2U);
  EXPECT_EQ(r.x[0], 1);

  square_within(r, -9, 1 + h / 4).start({1});
  EXPECT_EQ(znlpfij(&r), 0);  // the Jacobian halves instead
  EXPECT_NEAR(r.grad[0], 2 + h / 4, 1e-10);
  EXPECT_EQ(r.visited.size(), 3U);
  square_within(r, 1 - hc / 2, 9).start({1});
  EXPECT_EQ(znlpfg2(&r), 0);  // the pair is repeated with one step
  EXPECT_NEAR(r.grad[0], 2, 1e-10);
  EXPECT_EQ(r.visited.size(), 4U);
  square_within(r, -9, 1 + hc / 2).start({1});
  EXPECT_EQ(znlpfih(&r), 0);  // the whole matrix once more
  EXPECT_NEAR(r.hess[0], 2, 1e-9);
  EXPECT_EQ(r.visited.size(), 1U + 2U + 2U);  // and a central gradient
  square_within(r, -9, 1 + h / 2).start({1});
  EXPECT_EQ(znlpfh3(&r), 0);
  EXPECT_NEAR(r.hess[0], 2, 1e-10);
  EXPECT_EQ(r.gradients, 2);
}

// With intervals a parameter the halved number serves no step: some fifty equal tries, then -2.
TEST(Retreat, OwnIntervalsRepeatThePoint) {
  DifferenceRecord r(1, 1);
  r.cfdh = 1;
  r.hfwd[0] = r.hcnt[0] = 1e-3;
  square_within(r, -9, 1).start({1});
  EXPECT_EQ(znlpfih(&r), -2);
  EXPECT_NEAR(static_cast<double>(r.visited.size()), 50, 2);
  for (const Vec& point : r.visited) EXPECT_EQ(point[0], 1 + 2e-3);
}

// Every routine with all calls failing from the k-th on: the codes of its contract and no others,
// and x back wherever the run may go on. A Hessian starts again with its first point.
TEST(Retreat, EveryCallFails) {
  struct Routine {
    int (*run)(MINSTR*);
    std::set<int> codes;
    std::set<int> codes_shifted;
  };
  const Routine routines[] = {
      {znlpfig, {0, -2}, {0, -10}},          {znlpfg2, {0, -2}, {0, -10}},
      {znlpfij, {0, -2}, {0, -10}},          {znlpfj2, {0, -2}, {0, -10}},
      {znlpfic, {0, -2}, {0, -10}},          {znlpfc2, {0, -3}, {0, -10}},
      {znlpfih, {0, -2}, {0, -10}},          {znlpfh2, {0, -2}, {0, -10}},
      {znlpfh3, {0, -1, -3}, {0, -10, -11}}, {znlpfh4, {0, -10, -11}, {0, -10, -11}},
      {znlpfcj, {0, -1, -10}, {0, -1, -10}}, {znlpfcc, {0, -10}, {0, -10}},
  };
  for (const Routine& routine : routines) {
    for (const bool shifted : {false, true}) {
      std::set<int> seen;
      for (long k = 1; k < 60; ++k) {
        DifferenceRecord r(2, 1, 2);
        cubic(r);
        r.constraints = [](const double* x, double* c) {
          c[0] = x[0] * x[1];
          c[1] = x[0];
        };
        if (shifted) r.with_bounds({-9, -9}, {2, 2});
        r.start({2, 1});
        const double indf = r.indf;
        r.fail(k, 1000000);
        const int code = routine.run(&r);
        seen.insert(code);
        if (routine.run == znlpfcj && code == -1)
          continue;  // left as it stands: the run is to stop
        EXPECT_EQ(r.point(), (Vec{2, 1})) << k;
        EXPECT_EQ(r.indf, indf);
      }
      EXPECT_EQ(seen, shifted ? routine.codes_shifted : routine.codes) << &routine - routines;
    }
  }
}

// The code tells which of its points a routine could not reach.
TEST(Retreat, CodesTellThePoint) {
  struct Case {
    int (*run)(MINSTR*);
    int code;
    bool (*outside)(double x, double y);
  };
  const auto left = [](double x, double) { return x < 0; };
  const auto right = [](double x, double) { return x > 0; };
  const auto both_right = [](double x, double y) { return x > 0 && y > 0; };
  const auto left_and_right = [](double x, double y) { return x < 0 && y > 0; };
  const auto above = [](double, double y) { return y > 0; };
  for (const Case& c :
       {Case{znlpfg2, -2, right}, Case{znlpfg2, -2, left}, Case{znlpfj2, -2, left},
        Case{znlpfc2, -3, right}, Case{znlpfc2, -2, left}, Case{znlpfic, -2, above},
        Case{znlpfih, -2, right}, Case{znlpfih, -3, left}, Case{znlpfih, -4, both_right},
        Case{znlpfh2, -2, right}, Case{znlpfh2, -3, left}, Case{znlpfh2, -4, both_right},
        Case{znlpfh2, -5, left_and_right}, Case{znlpfh3, -3, above}}) {
    DifferenceRecord r(2, 1);
    cubic(r);
    const auto outside = c.outside;
    r.functions = [outside](const double* x, double* f) {
      f[0] = outside(x[0], x[1]) ? NAN : x[0] + x[1];
    };
    r.start({0, 0});
    const Kept kept(r);
    EXPECT_EQ(c.run(&r), c.code);
    kept.expect(r);
  }
  // A gradient that fails everywhere but at the base.
  DifferenceRecord r(1, 1);
  square_within(r, -9, 9).start({1});
  r.usfct = [](MINSTR*) { return 0; };
  r.fail(2, 1000);
  EXPECT_EQ(znlpfh3(&r), -2);
}

// ---- Nonlinear constraints ---------------------------------------------------------------------

TEST(Constraints, JacobianAndItsErrors) {
  DifferenceRecord r(2, 1, 2);
  cubic(r);
  r.constraints = [](const double* x, double* c) {
    c[0] = x[0] * x[0] * x[1];
    c[1] = 5 * x[1] - x[0];
  };
  r.cdig = WIDE_DIGITS;
  const double x = 1.5, y = -3;
  const double h = (1 + x) * WIDE;
  r.start({x, y});
  EXPECT_EQ(znlpfcj(&r), 0);
  EXPECT_NEAR(r.jcon[0], 2 * x * y + h * y, 1e-10);
  EXPECT_NEAR(r.jcon[1], x * x, 1e-10);
  EXPECT_NEAR(r.jcon[2], -1, 1e-10);
  EXPECT_NEAR(r.jcon[3], 5, 1e-10);
  EXPECT_EQ(r.visited.size(), 4U);
  EXPECT_EQ(znlpfcc(&r), 0);
  EXPECT_NEAR(r.jcon[0], 2 * x * y, 1e-10);
  EXPECT_EQ(r.visited.size(), 4U + 5U);
  EXPECT_EQ(r.njnc, 2);
  EXPECT_EQ(r.fcon[0], x * x * y);
  EXPECT_EQ(r.point(), (Vec{x, y}));
  // Their own intervals, and a bound: the base is x = 1.5 - 0.25.
  r.cfdh = 2;
  r.hfwd[0] = r.hfwd[1] = 0.1;
  r.with_bounds({-9, -9}, {1.5, 9});
  EXPECT_EQ(znlpfcj(&r), 0);
  EXPECT_NEAR(r.jcon[0], 2 * 1.25 * y + 0.225 * y, 1e-10);
}

// H - sum of multipliers times the constraints' Hessians; missing and zero multipliers count not.
TEST(Constraints, CurvatureLeavesTheHessian) {
  DifferenceRecord r(2, 1, 3);
  cubic(r);
  r.constraints = [](const double* x, double* c) {
    c[0] = x[0] * x[0] + 3 * x[0] * x[1];
    c[1] = 100 * x[0] * x[0];
    c[2] = x[1] * x[1];
  };
  r.constraint_jacobian = [](const double* x, double* j) {
    const double rows[] = {2 * x[0] + 3 * x[1], 3 * x[0], 200 * x[0], 0, 0, 2 * x[1]};
    std::copy_n(rows, 6, j);
  };
  COVSTR post{};
  const WorkFileOptions options;
  xcopen(&post.utpmat, &options);
  r.covstr = &post;
  r.with_bounds({-9, -9}, {9, 9});
  r.ncon = 1;
  long working_set[] = {0, 1, 2, 3};  // the linear row, then all constraints
  double multipliers[] = {50, 7, 2, MISSING, -1};
  r.iact = working_set;
  r.lagm = multipliers;
  r.nabc = 1;
  r.nalc = 4;
  r.start({1, 2});
  r.usjnc(&r);
  const Vec jacobian(r.jcon, r.jcon + 6);
  Vec hess = {10, 20, 30};
  EXPECT_EQ(znlphlf(&r, hess.data(), 64), 0);
  EXPECT_EQ(r.nanc, 3);
  EXPECT_NEAR(hess[0], 10 - 2 * 2, 1e-6);
  EXPECT_NEAR(hess[1], 20 - 2 * 3, 1e-6);
  EXPECT_NEAR(hess[2], 30 + 2, 1e-6);
  EXPECT_EQ(Vec(r.jcon, r.jcon + 6), jacobian);
  EXPECT_EQ(r.indf, IN_RUN);
  xcclose(post.utpmat, 1);
}

// ---- Adaptive gradient -------------------------------------------------------------------------

// Near a minimum the adaptive form goes central and is far better than the forward form.
TEST(Adaptive, CentralWhereTheSlopeIsSmall) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x, double* f) { f[0] = 5 + std::cosh(x[0]) + std::exp(x[1]); };
  const Vec point = {1e-5, 0.5};
  r.start(point);
  const double curvature[] = {1, std::exp(0.5)};
  r.grad[0] = 1e-5;
  r.grad[1] = MISSING;
  EXPECT_EQ(znlpfg3(&r, 0.0, curvature, nullptr), 0);
  EXPECT_NEAR(r.grad[0], std::sinh(1e-5), 1e-9);
  EXPECT_NEAR(r.grad[1], std::exp(0.5), 1e-6);
  EXPECT_EQ(r.visited.size(), 3U);  // two for the first, one for the second
  EXPECT_EQ(r.point(), point);
  EXPECT_EQ(znlpfg3(&r, 0.0, curvature, nullptr), 0);
  EXPECT_NEAR(r.grad[1], std::exp(0.5), 1e-6);
  // Central with a plus side that never works: the minus side at the smallest step.
  r.start(point);
  r.grad[0] = 1e-5;
  r.functions = [](const double* x, double* f) { f[0] = x[0] > 1e-5 ? NAN : 5 + x[0]; };
  EXPECT_EQ(znlpfg3(&r, 0.0, curvature, nullptr), 0);
  r.start(point);
  r.grad[0] = 1e-5;
  r.functions = [](const double* x, double* f) { f[0] = x[0] < 1e-5 ? NAN : 5 + x[0]; };
  EXPECT_EQ(znlpfg3(&r, 0.0, curvature, nullptr), -2);
  EXPECT_EQ(r.point(), point);
}

}  // namespace
}  // namespace tqnlp::test
