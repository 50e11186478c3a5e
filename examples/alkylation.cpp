// How should an alkylation plant be run? Olefins and isobutane react over sulphuric acid to a fuel
// of high octane number. Profit a day is maximal subject to balances, to fitted formulas of yield
// and octane number that hold within 1 and 10 percent, and to what may flow. A variable metric
// method solves it with derivatives, COBYLA from values alone, side by side; then the prices of
// what holds the profit down.
//
// Data: Bracken and McCormick, Selected Applications of Nonlinear Programming (1968), as Hock and
// Schittkowski (1981) print them in number 114, where the profit is 1768.807 dollars a day.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tqnlp/optimize.hpp"

using tqnlp::inf;
using tqnlp::Point;
using tqnlp::Problem;
using tqnlp::Result;
using tqnlp::SparseRow;
using tqnlp::Technique;
using tqnlp::Values;

// The parameters in the order of the table of quantities.
enum { OLEFIN, RECYCLE, ACID, YIELD, MAKEUP, STRENGTH, OCTANE, RATIO, DILUTION, F4 };

struct Quantity {
  const char* name;
  double lower, upper, start;
};
static const std::vector<Quantity> QUANTITIES = {
    {"olefin feed [barrels/day]", 1e-5, 2000, 1745},
    {"isobutane recycle [barrels/day]", 1e-5, 16000, 12000},
    {"acid addition [1000 pounds/day]", 1e-5, 120, 110},
    {"alkylate yield [barrels/day]", 1e-5, 5000, 3048},
    {"isobutane makeup [barrels/day]", 1e-5, 2000, 1974},
    {"acid strength [weight percent]", 85, 93, 89.2},
    {"octane number", 90, 95, 92.8},
    {"isobutane to olefin ratio", 3, 12, 8},
    {"acid dilution factor", 1.2, 4, 3.6},
    {"F-4 performance number", 145, 162, 145}};
static constexpr double TIGHT = 0.99;  // how well formulas hold: within 1 percent,
static constexpr double LOOSE = 0.9;   // and that of the dilution within 10

static double profit(Point q) {
  return 0.063 * q[YIELD] * q[OCTANE] - 5.04 * q[OLEFIN] - 0.035 * q[RECYCLE] - 10 * q[ACID] -
         3.36 * q[MAKEUP];
}

static void profit_gradient(Point q, Values g) {
  std::fill(g.begin(), g.end(), 0.0);
  g[OLEFIN] = -5.04;
  g[RECYCLE] = -0.035;
  g[ACID] = -10;
  g[YIELD] = 0.063 * q[OCTANE];
  g[MAKEUP] = -3.36;
  g[OCTANE] = 0.063 * q[YIELD];
}

// Balances of the acid and of isobutane over olefin, in millions and in ten thousands of their
// units; then what the formulas of yield and octane number say, as shares of what the plant has.
static void plant(Point q, Values c) {
  c[0] = (q[ACID] * (98000 - 1000 * q[STRENGTH]) - q[YIELD] * q[STRENGTH] * q[DILUTION]) / 1e6;
  c[1] = (q[RECYCLE] + q[MAKEUP] - q[OLEFIN] * q[RATIO]) / 1e4;
  c[2] = q[OLEFIN] * (1.12 + 0.13167 * q[RATIO] - 0.00667 * q[RATIO] * q[RATIO]) / q[YIELD];
  c[3] =
      (57.425 + 1.098 * q[RATIO] - 0.038 * q[RATIO] * q[RATIO] + 0.325 * q[STRENGTH]) / q[OCTANE];
}

static void plant_jacobian(Point q, Values jacobian) {
  std::fill(jacobian.begin(), jacobian.end(), 0.0);
  const auto row = [&](std::size_t i) { return jacobian.subspan(i * q.size(), q.size()); };
  const Values acid = row(0), isobutane = row(1), yield = row(2), octane = row(3);
  acid[ACID] = (98000 - 1000 * q[STRENGTH]) / 1e6;
  acid[YIELD] = -q[STRENGTH] * q[DILUTION] / 1e6;
  acid[STRENGTH] = -(1000 * q[ACID] + q[YIELD] * q[DILUTION]) / 1e6;
  acid[DILUTION] = -q[YIELD] * q[STRENGTH] / 1e6;
  isobutane[OLEFIN] = -q[RATIO] / 1e4;
  isobutane[RECYCLE] = isobutane[MAKEUP] = 1 / 1e4;
  isobutane[RATIO] = -q[OLEFIN] / 1e4;
  double share[4];
  plant(q, share);
  yield[OLEFIN] = share[2] / q[OLEFIN];
  yield[RATIO] = q[OLEFIN] * (0.13167 - 0.01334 * q[RATIO]) / q[YIELD];
  yield[YIELD] = -share[2] / q[YIELD];
  octane[RATIO] = (1.098 - 0.076 * q[RATIO]) / q[OCTANE];
  octane[STRENGTH] = 0.325 / q[OCTANE];
  octane[OCTANE] = -share[3] / q[OCTANE];
}

static Problem alkylation() {
  auto problem = Problem::maximize(long(QUANTITIES.size()), profit);
  std::vector<std::string> names;
  for (std::size_t j = 0; j < QUANTITIES.size(); ++j) {
    problem.bound(long(j), QUANTITIES[j].lower, QUANTITIES[j].upper);
    names.emplace_back(QUANTITIES[j].name);
  }
  problem.names(names)
      .gradient(profit_gradient)
      .nonlinear({0, 0, TIGHT, TIGHT}, {0, 0, 1 / TIGHT, 1 / TIGHT}, plant)
      .nonlinear_jacobian(plant_jacobian)
      .nonlinear_names({"acid balance", "isobutane balance", "yield formula", "octane formula"});
  return problem.linear(SparseRow{{OLEFIN, YIELD, MAKEUP}, {-1, 1.22, -1}}, 0, 0, "volume balance")
      .linear(SparseRow{{DILUTION, F4}, {LOOSE, 0.222}}, -inf, 35.82, "dilution formula, high")
      .linear(SparseRow{{DILUTION, F4}, {1 / LOOSE, 0.222}}, 35.82, inf, "dilution formula, low")
      .linear(SparseRow{{OCTANE, F4}, {3, -TIGHT}}, 133, inf, "F-4 formula, high")
      .linear(SparseRow{{OCTANE, F4}, {3, -1 / TIGHT}}, -inf, 133, "F-4 formula, low");
}

static Result plan_by(Technique technique) {
  std::vector<double> start;
  for (const Quantity& quantity : QUANTITIES) start.push_back(quantity.start);
  tqnlp::Options options;
  options.technique = technique;
  return tqnlp::solve(alkylation(), start, options);
}

static void print(const Result& a, const Result& b) {
  std::printf("%-34s%14s%14s\n", "", name_of(a.technique), name_of(b.technique));
  for (std::size_t j = 0; j < QUANTITIES.size(); ++j) {
    std::printf("%-34s%14.4f%14.4f\n", QUANTITIES[j].name, a.x[j], b.x[j]);
  }
  std::printf("%-34s%14.4f%14.4f\n", "profit [dollars/day]", a.objective, b.objective);
  std::printf("%-34s%14ld%14ld\n", "values asked for", a.counts.objective, b.counts.objective);
  std::printf("%-34s%14s%14s\n", "conditions of an optimum", a.optimality ? "hold" : "DO NOT HOLD",
              b.optimality ? "hold" : "DO NOT HOLD");
}

// A multiplier is what the profit gains when the bound that is active is moved by a unit.
static void print_prices(const Result& plan) {
  std::printf("\nWhat one more of a quantity at its bound is worth [dollars/day]\n");
  for (std::size_t j = 0; j < QUANTITIES.size(); ++j) {
    if (plan.active.bounds[j] == 0) continue;
    std::printf("%-34s%14.4f\n", QUANTITIES[j].name, plan.multipliers.bounds[j]);
  }
}

int main() try {
  const Result by_slopes = plan_by(Technique::watchdog);
  const Result by_values = plan_by(Technique::cobyla);
  print(by_slopes, by_values);
  print_prices(by_slopes);
  const auto good = [](const Result& plan) { return plan.optimality && plan.objective > 1768.8; };
  return good(by_slopes) && good(by_values) ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "alkylation: %s\n", error.what());
  return 1;
}
