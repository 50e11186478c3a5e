// How should an alkylation plant be run? Olefins and isobutane react over sulphuric acid to a fuel
// of high octane number. Profit a day is maximal subject to balances, to fitted formulas of yield
// and octane number that hold within 1 and 10 percent, and to what may flow. NLPVMC solves it with
// derivatives, NLPNMS from values alone, side by side.
//
// Data: Bracken and McCormick, Selected Applications of Nonlinear Programming (1968), as Hock and
// Schittkowski (1981) print them in number 114, where the profit is 1768.807 dollars a day.
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tqnlp/tqnlp.hpp"

using tqnlp::Matrix;

// The parameters of the subroutines are these quantities in units in which all are near 1: steps
// and radii of a method without derivatives mean the same for each of them.
struct Quantity {
  const char* name;
  double unit, lower, upper, start;
};
static const Quantity QUANTITIES[] = {
    {"olefin feed [barrels/day]", 1000, 1e-5, 2000, 1745},
    {"isobutane recycle [barrels/day]", 10000, 1e-5, 16000, 12000},
    {"acid addition [1000 pounds/day]", 100, 1e-5, 120, 110},
    {"alkylate yield [barrels/day]", 1000, 1e-5, 5000, 3048},
    {"isobutane makeup [barrels/day]", 1000, 1e-5, 2000, 1974},
    {"acid strength [weight percent]", 100, 85, 93, 89.2},
    {"octane number", 100, 90, 95, 92.8},
    {"isobutane to olefin ratio", 10, 3, 12, 8},
    {"acid dilution factor", 1, 1.2, 4, 3.6},
    {"F-4 performance number", 100, 145, 162, 145}};
static constexpr long N = 10, EQUALITIES = 2, LIMITS = 6;
static constexpr double TIGHT = 0.99;  // how well formulas hold: within 1 percent,
static constexpr double LOOSE = 0.9;   // and that of the dilution within 10

static std::vector<double> quantities(const Matrix& x) {
  std::vector<double> q(N);
  for (long j = 0; j < N; ++j) q[std::size_t(j)] = x[j] * QUANTITIES[j].unit;
  return q;
}

// From derivatives by the quantities, one row a function, to those by the parameters.
static Matrix by_parameters(Matrix derivatives) {
  for (long i = 0; i < derivatives.rows(); ++i) {
    for (long j = 0; j < N; ++j) derivatives(i, j) *= QUANTITIES[j].unit;
  }
  return derivatives;
}

static Matrix profit(const Matrix& x) {
  const auto q = quantities(x);
  return Matrix::scalar(0.063 * q[3] * q[6] - 5.04 * q[0] - 0.035 * q[1] - 10 * q[2] - 3.36 * q[4]);
}

static Matrix profit_gradient(const Matrix& x) {
  const auto q = quantities(x);
  return by_parameters(
      Matrix::row({-5.04, -0.035, -10, 0.063 * q[6], -3.36, 0, 0.063 * q[3], 0, 0, 0}));
}

// Two balances that must be 0, of the acid in thousands and of the ratio, then yield and octane
// number of the formulas against those of the plant, each at least 0.
static Matrix limits(const Matrix& x) {
  const auto q = quantities(x);
  const double acid = q[2] * (98000 - 1000 * q[5]) - q[3] * q[5] * q[8];
  const double ratio = q[1] + q[4] - q[0] * q[7];
  const double yield = q[0] * (1.12 + 0.13167 * q[7] - 0.00667 * q[7] * q[7]);
  const double octane = 57.425 + 1.098 * q[7] - 0.038 * q[7] * q[7] + 0.325 * q[5];
  return Matrix::row({acid / 1e6, ratio / 1e4, (yield - TIGHT * q[3]) / 1000,
                      (q[3] / TIGHT - yield) / 1000, (octane - TIGHT * q[6]) / 100,
                      (q[6] / TIGHT - octane) / 100});
}

static Matrix limits_jacobian(const Matrix& x) {
  const auto q = quantities(x);
  Matrix j(LIMITS, N);
  j(0, 2) = (98000 - 1000 * q[5]) / 1e6;
  j(0, 3) = -q[5] * q[8] / 1e6;
  j(0, 5) = (-1000 * q[2] - q[3] * q[8]) / 1e6;
  j(0, 8) = -q[3] * q[5] / 1e6;
  j(1, 0) = -q[7] / 1e4;
  j(1, 1) = j(1, 4) = 1 / 1e4;
  j(1, 7) = -q[0] / 1e4;
  for (const long side : {0L, 1L}) {
    const double sign = side == 0 ? 1.0 : -1.0, share = side == 0 ? -TIGHT : 1 / TIGHT;
    j(2 + side, 0) = sign * (1.12 + 0.13167 * q[7] - 0.00667 * q[7] * q[7]) / 1000;
    j(2 + side, 7) = sign * q[0] * (0.13167 - 0.01334 * q[7]) / 1000;
    j(2 + side, 3) = share / 1000;
    j(4 + side, 7) = sign * (1.098 - 0.076 * q[7]) / 100;
    j(4 + side, 5) = sign * 0.325 / 100;
    j(4 + side, 6) = share / 100;
  }
  return by_parameters(j);
}

// Bounds, and the linear constraints: the volume balance (alkylation shrinks it by 22 percent),
// then formulas of the dilution factor and of the performance number from both sides.
static Matrix bounds_and_rows() {
  Matrix blc = Matrix::filled(7, N + 2, tqnlp::missing);
  for (long j = 0; j < N; ++j) {
    blc(0, j) = QUANTITIES[j].lower / QUANTITIES[j].unit;
    blc(1, j) = QUANTITIES[j].upper / QUANTITIES[j].unit;
  }
  struct Row {
    std::vector<std::pair<long, double>> coefficients;
    double kind, right;
  };
  const Row rows[] = {{{{3, 1.22}, {0, -1}, {4, -1}}, 0, 0},
                      {{{8, -LOOSE}, {9, -0.222}}, 1, -35.82},
                      {{{8, 1 / LOOSE}, {9, 0.222}}, 1, 35.82},
                      {{{6, 3}, {9, -TIGHT}}, 1, 133},
                      {{{6, -3}, {9, 1 / TIGHT}}, 1, -133}};
  for (long i = 0; i < 5; ++i) {
    for (long j = 0; j < N + 2; ++j) blc(2 + i, j) = 0;
    // A row is divided by its largest unit.
    const double size = i == 0 ? 1000 : 100;
    for (const auto& [j, a] : rows[i].coefficients) blc(2 + i, j) = a * QUANTITIES[j].unit / size;
    blc(2 + i, N) = rows[i].kind;
    blc(2 + i, N + 1) = rows[i].right / size;
  }
  return blc;
}

struct Plan {
  std::string subroutine;
  double code = 0;  // of the run; 0: there was none
  double profit = 0;
  std::vector<double> quantities;
  long values = 0, derivatives = 0;
};

static Plan plan_by(const std::string& subroutine, const Matrix& tc) {
  Plan plan;
  plan.subroutine = subroutine;
  tqnlp::Session tql;
  tql.module("PROFIT", [&plan](const Matrix& x) {
    ++plan.values;
    return profit(x);
  });
  tql.module("GRADIENT", [&plan](const Matrix& x) {
    ++plan.derivatives;
    return profit_gradient(x);
  });
  tql.module("LIMITS", limits);
  tql.module("SLOPES", limits_jacobian);
  Matrix start(1, N);
  for (long j = 0; j < N; ++j) start[j] = QUANTITIES[j].start / QUANTITIES[j].unit;
  Matrix opt = Matrix::filled(1, 11, tqnlp::missing);
  opt[0] = 1;  // maximize
  opt[9] = LIMITS;
  opt[10] = EQUALITIES;
  std::vector<Matrix> arguments = {"PROFIT", start, opt, bounds_and_rows(), tc, Matrix(), Matrix()};
  const bool derivatives = subroutine != "NLPNMS";
  if (derivatives) arguments.emplace_back("GRADIENT");
  arguments.emplace_back("LIMITS");
  if (derivatives) arguments.emplace_back("SLOPES");
  try {
    const auto results = tql.call(subroutine, arguments);
    plan.code = results[0][0];
    plan.profit = profit(results[1])[0];
    plan.quantities = quantities(results[1]);
  } catch (const tqnlp::CallError& error) {
    std::printf("%s\n", error.what());
  }
  return plan;
}

static void print(const std::vector<Plan>& plans) {
  std::printf("%-34s", "");
  for (const Plan& plan : plans) std::printf("%14s", plan.subroutine.c_str());
  for (long j = 0; j < N; ++j) {
    std::printf("\n%-34s", QUANTITIES[j].name);
    for (const Plan& plan : plans) std::printf("%14.4f", plan.quantities[std::size_t(j)]);
  }
  std::printf("\n%-34s", "profit [dollars/day]");
  for (const Plan& plan : plans) std::printf("%14.4f", plan.profit);
  std::printf("\n%-34s", "return code");
  for (const Plan& plan : plans) std::printf("%14.0f", plan.code);
  std::printf("\n%-34s", "values asked for");
  for (const Plan& plan : plans) std::printf("%14ld", plan.values);
  std::printf("\n%-34s", "gradients asked for");
  for (const Plan& plan : plans) std::printf("%14ld", plan.derivatives);
  std::printf("\n");
}

int main() try {
  const double M = tqnlp::missing;
  // Of NLPNMS more calls and a smaller last radius than by default.
  const Matrix patient = Matrix::row({5000, 20000, M, M, M, M, M, M, 1e-7, M});
  std::vector<Plan> plans;
  for (const Plan& plan : {plan_by("NLPVMC", Matrix()), plan_by("NLPNMS", patient)}) {
    if (!plan.quantities.empty()) plans.push_back(plan);
  }
  print(plans);
  int failed = plans.size() == 2 ? 0 : 1;
  for (const Plan& plan : plans) failed |= plan.code > 0 && plan.profit > 1768.8 ? 0 : 1;
  return failed;
} catch (const std::exception& error) {
  std::fprintf(stderr, "alkylation: %s\n", error.what());
  return 1;
}
