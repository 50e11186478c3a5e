// Differences against derivatives known in closed form. With few digits (fdig 4) the intervals are
// so wide that the truncation error of each formula is far above rounding, and must be exactly the
// one that Taylor's series gives; with full digits the error must stay within the usual bounds.
#include "aasubs/derivatives/differences.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <tuple>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfdh.h"
#include "aasubs/derivatives/znlpfid.h"

namespace tqnlp::test {
namespace {

constexpr double WIDE_DIGITS = 4.0;
const double WIDE = 1e-2;                            // forward interval of 4 digits
const double WIDE_CENTRAL = std::pow(10, -4.0 / 3);  // central interval of 4 digits

// f = x^3 + 2 x y^2, one function.
DifferenceRecord& cubic(DifferenceRecord& r) {
  r.functions = [](const double* x) -> Vec {
    return {x[0] * x[0] * x[0] + 2 * x[0] * x[1] * x[1]};
  };
  r.gradient = [](const double* x) -> Vec {
    return {3 * x[0] * x[0] + 2 * x[1] * x[1], 4 * x[0] * x[1]};
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
    EXPECT_TRUE(r.nfuv != 0 || func == Vec(r.func, r.func + r.mequ));
    EXPECT_EQ(crit, r.crit);
    EXPECT_EQ(indf, r.indf);
  }
};

// ---- Truncation errors, and bounds -------------------------------------------------------------

// Gradient and Hessian of the cubic at (1.5, -3): free, and at the upper bound of x and the lower
// one of y. There the base moves inside by the reach of the formula, the derivative is that of the
// moved base, and the user's state comes back with further evaluations.
TEST(Truncation, ErrorIsTaylors) {
  struct Case {
    Routine run;
    int fidi;
    double interval;  // of the shift
    std::size_t functions, further;
    long gradients;
  };
  for (const Case& c :
       {Case{znlpfig, 1, WIDE, 2, 2, 0}, Case{znlpfg2, 2, WIDE_CENTRAL, 4, 2, 0},
        Case{znlpfij, 1, WIDE, 2, 2, 0}, Case{znlpfih, 1001, WIDE_CENTRAL, 5 + 2, 2, 0},
        Case{znlpfh2, 2002, WIDE_CENTRAL, 12 + 4, 2, 0}, Case{znlpfh3, 3000, WIDE, 3, 1, 3},
        Case{znlpfh4, 4000, WIDE_CENTRAL, 5, 0, 5}}) {
    for (const bool bounded : {false, true}) {
      DifferenceRecord r(2, 1);
      cubic(r);
      if (bounded) r.with_bounds({-9, -3}, {1.5, 9});
      r.start({1.5, -3});
      r.nfuv = !bounded && c.gradients == 0 && c.run != znlpfij ? 1 : 0;  // the value alone
      r.grad[0] = 77;  // the gradient that comes back is the one that the routine formed itself
      const Kept kept(r);
      r.fidi = c.fidi;
      EXPECT_EQ(c.run(&r), 0);
      kept.expect(r);
      EXPECT_EQ(r.visited.size(), c.functions + (bounded ? c.further : 0));
      EXPECT_EQ(r.gradients, c.gradients + (bounded && c.run == znlpfh3 ? 1 : 0));
      EXPECT_EQ(r.ngrd + r.nhes, 1);
      EXPECT_EQ(r.nfct, 1);  // differences are no function calls
      const bool central = c.interval == WIDE_CENTRAL, forward_slope = c.fidi % 2 == 1;
      double x = 1.5, y = -3.0;
      const double reach = (c.run == znlpfh2 ? 2 : 1) * c.interval;
      if (bounded) x -= (1 + x) * reach;
      if (bounded && central) y += (1 - y) * reach;
      const double h = (1 + x) * (forward_slope ? WIDE : WIDE_CENTRAL), k = (1 - y) * WIDE;
      double slope[] = {3 * x * x + 2 * y * y + (forward_slope ? 3 * x * h : 0) + h * h,
                        4 * x * y + (forward_slope ? 2 * x * k : 0)};
      if (c.gradients > 0)
        std::copy_n(r.gradient(r.x).data(), 2, slope);  // that of the user, at the true point
      for (int e : {0, 1}) EXPECT_NEAR(r.grad[e], slope[e], 1e-10) << c.fidi;
      double curvature[] = {6 * x, 4 * y, 4 * x};
      if (c.run == znlpfih) curvature[1] += 2 * (1 - y) * WIDE_CENTRAL;
      if (c.run == znlpfh3) curvature[0] += 3 * (1 + x) * WIDE;
      if (c.run == znlpfh3) curvature[1] += k;  // the mean of 4y + 2k and 4y
      for (int e = 0; c.fidi > 1000 && e < 3; ++e) EXPECT_NEAR(r.hess[e], curvature[e], 1e-9);
    }
  }
  // A fixed parameter stays, though it is perturbed.
  DifferenceRecord r(2, 1);
  cubic(r).with_bounds({1.5, -9}, {1.5, 9});
  r.start({1.5, -3});
  EXPECT_EQ(znlpfig(&r), 0);
  EXPECT_EQ(r.visited.size(), 2U);
}

// The fourth-order formula is exact for quartics; the plain one is off by 2 h^2 for x^4.
TEST(Truncation, DiagonalFormAndItsOrder) {
  DifferenceRecord r(2, 1);
  r.functions = [](const double* x) -> Vec { return {std::pow(x[0], 4) - std::pow(x[1], 4)}; };
  r.gradient = [](const double* x) -> Vec {
    return {4 * std::pow(x[0], 3), -4 * std::pow(x[1], 3)};
  };
  r.fdig = WIDE_DIGITS;
  r.hfrm = 2;
  r.start({1, 2});
  EXPECT_EQ(znlpfh2(&r), 0);
  EXPECT_NEAR(r.hess[0], 12, 1e-9);
  EXPECT_NEAR(r.hess[1], -48, 1e-9);
  EXPECT_EQ(r.visited.size(), 8U + 4U);  // no mixed points
  EXPECT_EQ(znlpfih(&r), 0);
  EXPECT_NEAR(r.hess[0], 12 + 2 * std::pow(2 * WIDE_CENTRAL, 2), 1e-9);
  EXPECT_EQ(znlpfh4(&r), 0);
  EXPECT_NEAR(r.hess[1], -48 - 4 * std::pow(3 * WIDE_CENTRAL, 2), 1e-9);
}

// ---- Jacobian and crossproduct -----------------------------------------------------------------

// The Jacobian reaches the file, the gradient is J'w, the crossproduct J'J. Of these functions only
// the last has a truncation error, in forward differences.
TEST(Jacobian, GradientAndCrossproduct) {
  const double x = 1.5, y = -3.0;
  using Case = std::tuple<Routine, double, bool, std::size_t>;
  const double k = (1 - y) * WIDE;
  for (const auto& [run, error, crossproduct, evaluations] :
       {Case{znlpfij, k, false, 2}, Case{znlpfj2, 0, false, 4}, Case{znlpfic, k, true, 2},
        Case{znlpfc2, 0, true, 4}}) {
    for (const int kind : {0, 1, 2}) {  // sum, sum of squares, sum of absolute values
      DifferenceRecord r(2, 3);
      r.functions = [](const double* at) -> Vec {
        return {at[0] * at[1], at[0] - 3, at[1] * at[1]};
      };
      r.fdig = WIDE_DIGITS;
      r.lsqu = kind == 1 ? 1 : 0;
      r.l1nm = kind == 2 ? 1 : 0;
      r.start({x, y});
      const Kept kept(r);
      ASSERT_EQ(run(&r), 0);
      kept.expect(r);
      EXPECT_EQ(r.visited.size(), evaluations);
      EXPECT_EQ(r.nhes, 1);
      const double slope = 2 * y + error;
      Vec j(6);
      znlpjrd(&r, j.data());
      const double exact[] = {y, x, 1, 0, 0, slope};
      for (std::size_t e = 0; e < 6; ++e) EXPECT_NEAR(j[e], exact[e], 1e-11);
      Vec w(3, 1.0);
      if (kind == 1) w = kept.func;
      if (kind == 2) w = {-1, -1, 1};
      EXPECT_NEAR(r.grad[0], w[0] * y + w[1], 1e-10);
      EXPECT_NEAR(r.grad[1], w[0] * x + w[2] * slope, 1e-10);
      const double product[] = {y * y + 1, x * y, x * x + slope * slope};
      for (int e = 0; crossproduct && e < 3; ++e) EXPECT_NEAR(r.hess[e], product[e], 1e-10);
    }
  }
}

// The second forms of the crossproduct, and its diagonal alone.
TEST(Jacobian, FormsOfTheCrossproduct) {
  DifferenceRecord r(1, 3);
  double far = 0.0;  // a constant function that makes the objective large
  r.functions = [&far](const double* x) -> Vec { return {2 * x[0], 0.25 * x[0], far}; };
  const struct {
    int icpj, imax, hfrm, lsqu;
    double far, product;
  } rows[] = {{0, 0, 0, 0, 0, 4 + 0.0625},
              {1, 0, 0, 0, 0, 4 / 4.0 + 0.0625 / 0.5},
              {1, 0, 0, 0, 1e14, 1},    // against it the value 0.5 is rounding
              {1, 1, 0, 0, 0, 1.125},   // packed: the sign is left alone
              {1, 1, 2, 0, 0, -1.125},  // diagonal: it follows imax
              {1, 1, 2, 1, 0, 4 * 16 + 0.0625 * 0.25}};
  for (const auto& row : rows) {  // values 4 and 0.5, derivatives 2 and 0.25
    r.icpj = row.icpj, r.imax = row.imax, r.hfrm = row.hfrm, r.lsqu = row.lsqu, far = row.far;
    r.start({2});
    EXPECT_EQ(znlpfc2(&r), 0);
    EXPECT_NEAR(r.hess[0], row.product, 1e-8);
  }
}

// ---- Scale -------------------------------------------------------------------------------------

TEST(Scale, HugeAndTinyParameters) {
  DifferenceRecord r(1, 1);
  r.functions = [](const double* at) -> Vec { return {3 * at[0]}; };
  for (const double x : {1e-300, 0.0, -1e-12, 3e7, -1e15, 1e200}) {
    r.start({x});
    for (const auto run : {znlpfig, znlpfg2}) {
      EXPECT_EQ(run(&r), 0);
      EXPECT_NEAR(r.grad[0], 3, 1e-7) << x;
    }
  }
  // Without digits: the root of 2^-51, and the step from zero is the interval itself.
  r.fdig = 0;
  r.start({0});
  EXPECT_EQ(znlpfig(&r), 0);
  EXPECT_DOUBLE_EQ(r.visited[0][0], 0x1p-26 * std::sqrt(2.0));
  // The central Jacobian alone steps by the interval without the factor |x| + 1.
  r.start({9});
  EXPECT_EQ(znlpfj2(&r), 0);
  EXPECT_NEAR(r.visited[0][0] - 9, central_interval(0), 1e-14);
}

TEST(Scale, SumsAreKeptInRange) {
  // f = 1e153 x twice: J'J overflows; as least squares the gradient does.
  DifferenceRecord r(1, 2);
  r.functions = [](const double* x) -> Vec { return Vec(2, 1e153 * x[0]); };
  r.start({1});
  EXPECT_EQ(znlpfic(&r) + znlpfc2(&r), -18);
  r.lsqu = 1;
  for (const auto run : {znlpfij, znlpfj2, znlpfic, znlpfc2, znlpfig, znlpfg2}) {
    r.start({1});
    EXPECT_EQ(run(&r), -3);
    EXPECT_EQ(r.grad[0], HUGE_VALUE);
  }
}

// ---- Bounds ------------------------------------------------------------------------------------

// No routine evaluates a point outside the bounds, wherever the box lies, however narrow it is, and
// whatever fails; and the gradient of a linear function is right up to the rounding of its values
// over the points' distance. A fixed parameter is the exception: it has no inside.
TEST(Bounds, NoPointLeavesThem) {
  static constexpr long N = 3;
  std::mt19937 random(1);
  const auto uniform = [&](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  const auto adaptive = [](MINSTR* str) { return znlpfg3(str, 0.0, nullptr, nullptr); };
  const auto intervals = [](MINSTR* str) { return znlpfdh(str, 3); };
  const Routine routines[] = {znlpfig, znlpfg2, znlpfij, znlpfj2, znlpfic, znlpfc2,  znlpfih,
                              znlpfh2, znlpfh3, znlpfh4, znlpfcj, znlpfcc, adaptive, intervals};
  for (int box = 0; box < 400; ++box) {
    DifferenceRecord r(N, 1, 1);
    const Vec slope = {1, -2, 3};
    r.functions = [&](const double* x) -> Vec {
      return {slope[0] * x[0] + slope[1] * x[1] + slope[2] * x[2]};
    };
    r.constraints = r.functions;
    r.gradient = [&](const double*) { return slope; };
    Vec low(N), high(N), at(N);
    for (std::size_t j = 0; j < N; ++j) {
      const double size = std::pow(10, uniform(-6, 6));
      low[j] = box % 3 == 0 ? 0 : uniform(-1, 1) * size;
      high[j] = low[j] + size * std::pow(10, uniform(-12, 1));
      if (box % 4 == 1) high[j] = low[j];
      if (box % 8 == 3) low[j] = -HUGE_VALUE;
      at[j] = box % 2 == 0 && lower_exists(low[j]) ? low[j] : high[j];
      if (box % 5 == 4 && lower_exists(low[j])) at[j] = std::lerp(low[j], high[j], uniform(0, 1));
    }
    r.with_bounds(low, high);
    r.fdig = r.cdig = box % 7 == 0 ? 31 : uniform(1, 16);
    r.fidi = box % 2 == 0 ? 1 : 2;
    r.cfdh = box % 3;
    for (long j = 0; j < N; ++j) r.hfwd[j] = r.hcnt[j] = std::pow(10, uniform(-16, 0.5));
    for (const Routine run : routines) {
      for (const bool failures : {false, true}) {
        r.start(at);
        const long k = static_cast<long>(random() % 12) + 2;
        r.fail(failures ? k : 0, failures ? k + static_cast<long>(random() % 3) : -1);
        run(&r);
        for (std::size_t j = 0; j < N; ++j) {
          double least = HUGE_VALUE, most = -HUGE_VALUE, size = 0;
          for (const Vec& x : r.visited) {
            least = std::min(least, x[j]);
            most = std::max(most, x[j]);
            size = std::max({size, std::fabs(x[0]), std::fabs(x[1]), std::fabs(x[2])});
          }
          EXPECT_TRUE(low[j] == high[j] || (low[j] <= least && most <= high[j]))
              << "routine " << &run - routines << " box " << box << " parameter " << j;
          if (failures || (run != znlpfig && run != znlpfg2)) continue;
          EXPECT_LE(std::fabs(r.grad[j] - slope[j]) * (most - least), 100 * EPS * size) << box;
        }
      }
      if (HasFailure()) return;
    }
  }
}

// What a routine could not compute, though it answers 0, is missing in a gradient from a moved
// base; a matrix keeps the columns before, and has zeros behind them.
TEST(Retreat, WhatIsLeftOfIt) {
  DifferenceRecord r(2, 1, 1);
  r.functions = [](const double* x) -> Vec { return {x[1] == 1 ? x[0] : NAN}; };
  r.constraints = r.functions;
  r.gradient = [](const double* x) -> Vec { return {x[1] == 1 ? 4 * x[0] : NAN, 1}; };
  r.with_bounds({-9, -9}, {2, 9});
  r.start({2, 1});
  for (const auto run : {znlpfig, znlpfg2, znlpfij, znlpfj2}) {
    r.grad[1] = 7;
    const Kept kept(r);
    EXPECT_EQ(run(&r), 0);
    EXPECT_TRUE(wzmis(r.grad[1]));
    kept.expect(r);
  }
  for (const auto run : {znlpfcj, znlpfcc, znlpfh3, znlpfh4}) {
    r.jcon[0] = r.jcon[1] = r.hess[0] = r.hess[2] = 7;
    EXPECT_EQ(run(&r), 0);
    const bool constraints = run == znlpfcj || run == znlpfcc;
    EXPECT_NEAR(constraints ? r.jcon[0] : r.hess[0], constraints ? 1 : 4, 1e-7);
    EXPECT_EQ(constraints ? r.jcon[1] : r.hess[2], 0);
  }
  EXPECT_EQ(r.nret, 4);
}

// ---- Points that cannot be evaluated -----------------------------------------------------------

// x^2 at 1, which can be evaluated between low and high.
TEST(Retreat, OtherSideThenSmallerSteps) {
  const double h = 2 * WIDE, hc = 2 * WIDE_CENTRAL;
  struct Case {
    Routine run;
    double low, high;
    int code;
    double derivative;  // error of gradient or Hessian
    std::size_t evaluations;
  };
  for (const Case& c :
       {Case{znlpfig, -9, 1, 0, -h, 2},             // the other side
        Case{znlpfig, 1, 1, -2, 0, 2},              // both fail: the flipped step is not halved
        Case{znlpfij, -9, 1 + h / 4, 0, h / 4, 3},  // the Jacobian halves instead
        Case{znlpfg2, 1 - hc / 2, 9, 0, 0, 4},      // the pair is repeated with one step
        Case{znlpfih, -9, 1 + hc / 2, 0, 0, 1 + 2 + 2},  // the matrix once more, then the gradient
        Case{znlpfh3, -9, 1 + h / 2, 0, 0, 3}}) {
    DifferenceRecord r(1, 1);
    r.functions = [c](const double* x) -> Vec {
      return {x[0] < c.low || x[0] > c.high ? NAN : x[0] * x[0]};
    };
    r.gradient = [](const double* x) -> Vec { return {2 * x[0]}; };
    r.fdig = WIDE_DIGITS;
    r.start({1});
    EXPECT_EQ(c.run(&r), c.code);
    const bool hessian = c.run == znlpfih || c.run == znlpfh3;
    if (c.code == 0) {
      EXPECT_NEAR(hessian ? r.hess[0] : r.grad[0], 2 + c.derivative, 1e-9);
    }
    EXPECT_EQ(r.visited.size(), c.evaluations);
    EXPECT_EQ(r.x[0], 1);
  }
}

// Every routine with all calls failing from the k-th on: the codes of its contract and no others,
// and x back wherever the run may go on. A Hessian starts again with its first point.
TEST(Retreat, EveryCallFails) {
  using Codes = std::set<int>;
  using Case = std::tuple<Routine, Codes, Codes>;  // without bounds, and with a shifted base
  const Codes plain = {0, -2}, shifted = {0, -10}, pairs = {0, -10, -11};
  for (const auto& [run, codes, codes_shifted] :
       {Case{znlpfig, plain, shifted}, Case{znlpfg2, plain, shifted}, Case{znlpfij, plain, shifted},
        Case{znlpfj2, plain, shifted}, Case{znlpfic, plain, shifted},
        Case{znlpfc2, {0, -3}, shifted}, Case{znlpfih, plain, shifted},
        Case{znlpfh2, plain, shifted}, Case{znlpfh3, {0, -1, -3}, pairs},
        Case{znlpfh4, pairs, pairs}, Case{znlpfcj, {0, -1, -10}, {0, -1, -10}},
        Case{znlpfcc, shifted, shifted}}) {
    for (const bool bounded : {false, true}) {
      Codes seen;
      for (long k = 1; k < 60; ++k) {
        DifferenceRecord r(2, 1, 2);
        cubic(r);
        r.constraints = [](const double* x) -> Vec { return {x[0] * x[1], x[0]}; };
        if (bounded) r.with_bounds({-9, -9}, {2, 2});
        r.start({2, 1});
        const double indf = r.indf;
        r.fail(k, 1000000);
        const int code = run(&r);
        seen.insert(code);
        if (run == znlpfcj && code == -1) continue;  // left as it stands: the run is to stop
        EXPECT_EQ(r.point(), (Vec{2, 1})) << k;
        EXPECT_EQ(r.indf, indf);
      }
      EXPECT_EQ(seen, bounded ? codes_shifted : codes);
    }
  }
  // Only at mixed points of a Hessian, on the plus or the minus side of the first parameter.
  for (const double side : {1.0, -1.0})
    for (const auto run : {znlpfih, znlpfh2}) {
      DifferenceRecord r(2, 1);
      r.functions = [side](const double* x) -> Vec {
        return {(x[0] - 2) * side > 0 && x[1] != 1 ? NAN : x[0]};
      };
      r.start({2, 1});
      EXPECT_EQ(run(&r), side > 0 ? -4 : run == znlpfih ? 0 : -5);
    }
}

// ---- Nonlinear constraints ---------------------------------------------------------------------

TEST(Constraints, JacobianAndItsErrors) {
  DifferenceRecord r(2, 1, 2);
  cubic(r);
  r.constraints = [](const double* x) -> Vec { return {x[0] * x[0] * x[1], 5 * x[1] - x[0]}; };
  r.cdig = WIDE_DIGITS;
  const double x = 1.5, y = -3;
  r.start({x, y});
  for (const bool central : {false, true}) {
    EXPECT_EQ((central ? znlpfcc : znlpfcj)(&r), 0);
    const double exact[] = {2 * x * y + (central ? 0 : (1 + x) * WIDE * y), x * x, -1, 5};
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(r.jcon[k], exact[k], 1e-10);
    EXPECT_EQ(r.visited.size(), central ? 4U + 5U : 4U);
  }
  EXPECT_EQ(r.njnc, 2);
  EXPECT_EQ(r.fcon[0], x * x * y);
  EXPECT_EQ(r.point(), (Vec{x, y}));
}

// H - sum of multipliers times the constraints' Hessians; missing and zero multipliers count not.
TEST(Constraints, CurvatureLeavesTheHessian) {
  DifferenceRecord r(2, 1, 3);
  cubic(r);
  r.constraints = [](const double* x) { return Vec(3, x[0]); };
  // x^2 + 3xy, 100 x^2, y^2
  r.constraint_jacobian = [](const double* x) -> Vec {
    return {2 * x[0] + 3 * x[1], 3 * x[0], 200 * x[0], 0, 0, 2 * x[1]};
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
  const double exact[] = {10 - 2 * 2, 20 - 2 * 3, 30 + 2};
  for (std::size_t k = 0; k < 3; ++k) EXPECT_NEAR(hess[k], exact[k], 1e-6);
  EXPECT_EQ(Vec(r.jcon, r.jcon + 6), jacobian);
  EXPECT_EQ(r.indf, IN_RUN);
  xcclose(post.utpmat, 1);
}

// ---- Adaptive gradient -------------------------------------------------------------------------

// Near a minimum the adaptive form goes central and is far better than the forward form.
TEST(Adaptive, CentralWhereTheSlopeIsSmall) {
  DifferenceRecord r(2, 1);
  const double curvature[] = {1, std::exp(0.5)};
  const auto gradient = [&](Vec (*f)(const double* x)) {
    r.functions = f;
    r.start({1e-5, 0.5});
    r.grad[0] = 1e-5, r.grad[1] = MISSING;
    const int code = znlpfg3(&r, 0.0, curvature, nullptr);
    EXPECT_EQ(r.point(), (Vec{1e-5, 0.5}));
    return code;
  };
  const auto smooth = [](const double* x) -> Vec { return {5 + std::cosh(x[0]) + std::exp(x[1])}; };
  EXPECT_EQ(gradient(smooth), 0);
  EXPECT_EQ(r.visited.size(), 3U);  // two for the first, one for the second
  EXPECT_NEAR(r.grad[0], std::sinh(1e-5), 1e-9);
  EXPECT_NEAR(r.grad[1], std::exp(0.5), 1e-6);
  // A plus side that never works leaves the minus side at the smallest step; not the other way.
  EXPECT_EQ(gradient([](const double* x) -> Vec { return {x[0] > 1e-5 ? NAN : 5 + x[0]}; }), 0);
  EXPECT_EQ(gradient([](const double* x) -> Vec { return {x[0] < 1e-5 ? NAN : 5 + x[0]}; }), -2);
}

}  // namespace
}  // namespace tqnlp::test
