// A whole solve of Rosenbrock's function with its gradient, the cheapest objective there is: the
// named face by its defaults beside NLopt and dlib, which stop at a comparable accuracy. Then a
// thousand such solves, shared by threads.
//
//   rosenbrock/SOLVER/N  one solve in N parameters; counters: error_x, the largest error of a
//                        parameter, and calls of objective and gradient together
//   thousand/T           a thousand problems, each solved by one of T threads
//   many_starts/T        solve_from_many from a thousand starts in T threads
//
// Threads that do not wait for each other take the processor time of one.
#include <benchmark/benchmark.h>
#include <dlib/optimization.h>
#include <nlopt.h>

#include <algorithm>
#include <cmath>
#include <thread>
#include <vector>

#include "tqnlp/optimize.hpp"

namespace tqnlp {

static long calls = 0;  // of one solve, in a run of its own

// Pairs (x[i], x[i+1]): sum of 100 (x[i+1] - x[i]^2)^2 + (1 - x[i])^2.
static double value(std::size_t n, const double* x) {
  double sum = 0.0;
  for (std::size_t i = 0; i + 1 < n; ++i) {
    const double a = x[i + 1] - x[i] * x[i], b = 1.0 - x[i];
    sum += 100.0 * a * a + b * b;
  }
  return sum;
}

static void slope(std::size_t n, const double* x, double* g) {
  std::fill_n(g, n, 0.0);
  for (std::size_t i = 0; i + 1 < n; ++i) {
    const double a = x[i + 1] - x[i] * x[i];
    g[i] += -400.0 * a * x[i] - 2.0 * (1.0 - x[i]);
    g[i + 1] += 200.0 * a;
  }
}

static std::vector<double> start_of(std::size_t n) {
  std::vector<double> x(n);
  for (std::size_t i = 0; i < n; ++i) x[i] = i % 2 == 0 ? -1.2 : 1.0;
  return x;
}

// ---- Solvers ------------------------------------------------------------------------------------

static Problem problem_of(std::size_t n) {
  return Problem::minimize(static_cast<long>(n), [](Point x) { return value(x.size(), x.data()); })
      .gradient([](Point x, Values g) { slope(x.size(), x.data(), g.data()); });
}

static std::vector<double> by_face(std::size_t n, Technique technique) {
  Options options;
  options.technique = technique;
  const Result result = solve(problem_of(n), start_of(n), options);
  calls = result.counts.objective + result.counts.gradient;
  return result.x;
}

static double for_nlopt(unsigned n, const double* x, double* g, void* /*data*/) {
  ++calls;
  if (g != nullptr) {
    ++calls;
    slope(n, x, g);
  }
  return value(n, x);
}

static std::vector<double> by_nlopt(std::size_t n, nlopt_algorithm algorithm) {
  static constexpr double TOLERANCE = 1e-8;
  nlopt_opt opt = nlopt_create(algorithm, static_cast<unsigned>(n));
  nlopt_set_min_objective(opt, for_nlopt, nullptr);
  nlopt_set_xtol_rel(opt, TOLERANCE);
  std::vector<double> x = start_of(n);
  double f = 0.0;
  nlopt_optimize(opt, x.data(), &f);
  nlopt_destroy(opt);
  return x;
}

template <class Strategy>
static std::vector<double> by_dlib(std::size_t n, Strategy strategy) {
  using Column = dlib::matrix<double, 0, 1>;
  static constexpr double TOLERANCE = 1e-12;  // of the objective
  const std::vector<double> start = start_of(n);
  Column x = dlib::mat(start);
  dlib::find_min(
      strategy, dlib::objective_delta_stop_strategy(TOLERANCE),
      [n](const Column& at) { return ++calls, value(n, &at(0)); },
      [n](const Column& at) {
        Column g(static_cast<long>(n));
        slope(n, &at(0), &g(0));
        return ++calls, g;
      },
      x, -1.0);
  return {x.begin(), x.end()};
}

template <class Solver>
static void rosenbrock(benchmark::State& state, Solver solver) {
  const auto n = static_cast<std::size_t>(state.range(0));
  calls = 0;
  double error = 0.0;
  for (const double x : solver(n)) error = std::max(error, std::fabs(x - 1.0));
  state.counters["error_x"] = error;
  state.counters["calls"] = static_cast<double>(calls);
  for (auto _ : state) benchmark::DoNotOptimize(solver(n));
}

#define SOLVER(name, call) \
  BENCHMARK_CAPTURE(rosenbrock, name, [](std::size_t n) { return call; })->Arg(2)->Arg(10)

SOLVER(tqnlp, by_face(n, Technique::automatic));
SOLVER(tqnlp_quasi_newton, by_face(n, Technique::quasi_newton));
SOLVER(tqnlp_double_dogleg, by_face(n, Technique::double_dogleg));
SOLVER(nlopt_lbfgs, by_nlopt(n, NLOPT_LD_LBFGS));
SOLVER(nlopt_slsqp, by_nlopt(n, NLOPT_LD_SLSQP));
SOLVER(nlopt_tnewton, by_nlopt(n, NLOPT_LD_TNEWTON));
SOLVER(dlib_bfgs, by_dlib(n, dlib::bfgs_search_strategy()));
SOLVER(dlib_lbfgs, by_dlib(n, dlib::lbfgs_search_strategy(10)));

// ---- Threads ------------------------------------------------------------------------------------

static constexpr std::size_t THOUSAND = 1000, ORDER = 10;

static void thousand(benchmark::State& state) {
  const auto threads = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    std::vector<std::jthread> pool;
    for (std::size_t t = 0; t < threads; ++t)
      pool.emplace_back([=] {
        for (std::size_t i = t; i < THOUSAND; i += threads)
          benchmark::DoNotOptimize(solve(problem_of(ORDER), start_of(ORDER)));
      });
  }
}

static void many_starts(benchmark::State& state) {
  std::vector<std::vector<double>> starts(THOUSAND, start_of(ORDER));
  for (std::size_t i = 0; i < THOUSAND; ++i) starts[i][0] += 1e-3 * static_cast<double>(i);
  for (auto _ : state)
    benchmark::DoNotOptimize(
        solve_from_many(problem_of(ORDER), starts, {}, static_cast<int>(state.range(0))));
}

#define THREADS(function) \
  BENCHMARK(function)->Arg(1)->Arg(2)->Arg(8)->UseRealTime()->MeasureProcessCPUTime()

THREADS(thousand);
THREADS(many_starts);

}  // namespace tqnlp

BENCHMARK_MAIN();
