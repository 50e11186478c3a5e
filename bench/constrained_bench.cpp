// NLPQN, NLPVMC and NLPNMS on constrained problems beside general optimizers, all from the same
// starts with the same analytic derivatives, or with values alone.
//
//   hs/SOLVER/PROBLEM        one run on a problem of Hock and Schittkowski
//   free/SOLVER/PROBLEM      NLPNMS and other methods that ask for values alone, on the problems of
//                            More, Garbow and Hillstrom
//   overhead/SOLVER/PROBLEM  time of an iteration that is not the user's
//
// Counters of a run. solved: it ends feasible within 1e-6 and within 1e-6 max(1, |minimum|) of the
// published minimum; local: at another listed minimum; wrong: it claims success, is at none of
// these, and the certificate of optimality does not hold; refused: there was no run. calls_8, calls
// until the first point that solves the problem (0: never), and calls, those of the whole run: a
// point where values of objective and constraints are asked for is one, a point where gradients are
// is another.
//
// Subroutines and peers go on until they give up, so that none is charged for its stopping rule,
// but at most 20000 points or 20 seconds; rows named _defaults stop by the defaults of the
// subroutine.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "constrained_peers.h"

namespace tqnlp {

using namespace bench;
using problems::Number;
using problems::square;

static bool by_values(const std::string& solver) {
  return solver.starts_with("NLPNMS") || solver.starts_with("NLopt_LN_") ||
         solver.starts_with("GSL_");
}

static const std::vector<ConstrainedSolver>& solvers() {
  static const std::vector<ConstrainedSolver> all = [] {
    std::vector<ConstrainedSolver> list = constrained_subroutines();
    list.insert(list.end(), constrained_peers().begin(), constrained_peers().end());
    return list;
  }();
  return all;
}

// ---- Runs ---------------------------------------------------------------------------------------

static void show_run(benchmark::State& state, const Problem& problem,
                     const ConstrainedSolver& solver) {
  for (auto _ : state) {
    Counted counted(problem);
    run(solver, counted);
    const Verdict verdict = judge(counted);
    state.counters["solved"] = verdict.solved;
    state.counters["local"] = verdict.local;
    state.counters["wrong"] = verdict.wrong;
    state.counters["claimed"] = counted.claimed;
    state.counters["refused"] = counted.refused;
    state.counters["calls_8"] = static_cast<double>(counted.calls_until_solved);
    state.counters["calls"] = static_cast<double>(counted.calls());
    state.counters["violation"] = std::min(verdict.certificate.violation, 1e300);
    state.counters["stationarity"] = std::min(verdict.certificate.stationarity, 1e300);
  }
}

// Published minima have few digits: where a run with exact Hessians ends a little lower, that
// counts.
static std::vector<Problem> free_problems() {
  static constexpr double NEAR = 1e-4;
  std::vector<Problem> all = problems::more_garbow_hillstrom();
  const auto exact = std::find_if(solvers().begin(), solvers().end(),
                                  [](const auto& s) { return s.name == "Ipopt_exact"; });
  for (Problem& p : all) {
    Counted counted(p);
    run(*exact, counted);
    const double f = p.value(counted.x.data());
    for (double& minimum : p.minima) {
      if (std::fabs(f - minimum) <= NEAR * std::max(1.0, std::fabs(minimum))) minimum = f;
    }
  }
  return all;
}

// ---- Overhead -----------------------------------------------------------------------------------

// Rosenbrock's function along a chain, in a box and in a ball for each quarter of the parameters.
static Problem chain(long n) {
  Problem p =
      problems::scalar_problem("chain", std::vector<double>(std::size_t(n), -1.0), {}, [n](auto x) {
        Number<decltype(x)> sum(0.0);
        for (long i = 0; i + 1 < n; ++i) {
          sum += 100.0 * square(x[i + 1] - square(x[i])) + square(1.0 - x[i]);
        }
        return sum;
      });
  p.by_hand = [n](const double* x, double* g) {
    double sum = 0.0;
    if (g != nullptr) std::fill_n(g, n, 0.0);
    for (long i = 0; i + 1 < n; ++i) {
      const double curve = x[i + 1] - square(x[i]), rest = 1.0 - x[i];
      sum += 100.0 * square(curve) + square(rest);
      if (g == nullptr) continue;
      g[i] -= 400.0 * curve * x[i] + 2.0 * rest;
      g[i + 1] += 200.0 * curve;
    }
    return sum;
  };
  p = problems::constrained(std::move(p), 0, 4, [n](auto x, auto c) {
    for (long k = 0; k < 4; ++k) {
      Number<decltype(x)> sum(0.0);
      const long first = k * n / 4, last = (k + 1) * n / 4;
      for (long i = first; i < last; ++i) sum += square(x[i]);
      c[k] = 0.8 * static_cast<double>(last - first) - sum;
    }
  });
  const std::size_t size = static_cast<std::size_t>(n);
  return problems::with(std::move(p), std::vector<double>(size, -2.0),
                        std::vector<double>(size, 2.0));
}

// A trigonometric function of all parameters, with three equalities.
static Problem trigonometric(long n) {
  const auto residuals = [n](auto x, auto r) {
    Number<decltype(x)> sum(0.0);
    for (long i = 0; i < n; ++i) sum += cos(x[i]);
    for (long i = 0; i < n; ++i) {
      r[i] = static_cast<double>(n) - sum + (1.0 + static_cast<double>(i)) * (1.0 - cos(x[i])) -
             sin(x[i]);
    }
  };
  Problem p = problems::residual_problem(
      "trigonometric", n, std::vector<double>(std::size_t(n), 1.0 / static_cast<double>(n)), {},
      residuals);
  return problems::constrained(std::move(p), 3, 0, [n](auto x, auto c) {
    for (long k = 0; k < 3; ++k) {
      Number<decltype(x)> sum(0.0);
      const long first = k * n / 3, last = (k + 1) * n / 3;
      for (long i = first; i < last; ++i) sum += cos(x[i]);
      c[k] = sum - 0.9 * static_cast<double>(last - first);
    }
  });
}

// A long run less a short one: neither start nor end counts. Of each the shortest of several.
static void measure_iteration(benchmark::State& state, const Problem& problem,
                              const ConstrainedSolver& solver) {
  static constexpr long FEW = 3, MOST = 12;
  struct Own {
    double seconds = HUGE_VAL;
    long iterations = 0;
  } brief, extended;
  for (auto _ : state) {
    for (auto [own, iterations] : {std::pair(&brief, FEW), std::pair(&extended, MOST)}) {
      Counted counted(problem, true);
      run(solver, counted, iterations);
      if (counted.refused) return state.SkipWithError("refused");
      own->seconds = std::min(own->seconds, counted.run_seconds - counted.user_seconds);
      own->iterations = counted.iterations > 0 ? counted.iterations : counted.gradients;
    }
  }
  const long iterations = extended.iterations - brief.iterations;
  if (iterations <= 0) return state.SkipWithError("no iterations");
  state.counters["own_ns"] =
      1e9 * (extended.seconds - brief.seconds) / static_cast<double>(iterations);
}

// ---- Registration -------------------------------------------------------------------------------

static void add_runs(const std::string& group, const std::vector<Problem>& problems,
                     bool (*takes_part)(const std::string& solver)) {
  for (const ConstrainedSolver& solver : solvers()) {
    if (!takes_part(solver.name)) continue;
    for (const Problem& problem : problems) {
      if (!solver.takes(problem)) continue;
      benchmark::RegisterBenchmark(
          (group + "/" + solver.name + "/" + problem.name).c_str(),
          [&](benchmark::State& state) { show_run(state, problem, solver); })
          ->Iterations(1);
    }
  }
}

static void add_overheads(const std::vector<Problem>& problems) {
  for (const ConstrainedSolver& solver : solvers()) {
    const bool timed = !by_values(solver.name) && !solver.name.ends_with("_defaults") &&
                       solver.name != "NLopt_AUGLAG_LBFGS" && solver.name != "Ipopt_exact";
    for (const Problem& problem : problems) {
      if (!timed || !solver.takes(problem)) continue;
      benchmark::RegisterBenchmark(
          ("overhead/" + solver.name + "/" + problem.name).c_str(),
          [&](benchmark::State& state) { measure_iteration(state, problem, solver); })
          ->Iterations(problem.n > 200 ? 2 : 20);
    }
  }
}

}  // namespace tqnlp

int main(int argc, char** argv) {
  using namespace tqnlp;
  const std::vector<Problem> published = problems::hock_schittkowski(), free = free_problems();
  std::vector<Problem> large;
  for (const long n : {10, 100, 500}) {
    for (Problem p : {chain(n), trigonometric(n)}) {
      p.name += " " + std::to_string(n);
      large.push_back(std::move(p));
    }
  }
  add_runs("hs", published, [](const std::string&) { return true; });
  add_runs("free", free, by_values);
  add_overheads(large);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
