// NLPQN beside general optimizers, all from the same starts with the same analytic derivatives.
//
//   solve/SOLVER/PROBLEM      and scalable/SOLVER/PROBLEM: one run; counters: calls of objective
//   and gradient until the
//                             objective first came within 1e-6 and 1e-10 of the minimum, relative
//                             to its value at the start (0: never), and the calls of the whole run
//   overhead/SOLVER/PROBLEM   time of a run to 1e-10 of the minimum that is not spent in objective
//                             and gradient, an iteration
//   update/FORM/N             the same for the forms of the matrix at orders where the memory
//                             decides, and the copy of a packed matrix of that order
//
// An iteration with the inverse (update 3) reads the matrix three times and writes it once. The
// factor of the default is read five times and written once: two products make Bs, both corrections
// ride in one pass, and a direction takes two solves. That is 1.5 times the traffic, and from
// n = 1000 on, where the memory decides, about the time too. With bounds the pass carries two
// sweeps of rotations, six operations an element each (1.6 to 1.8). At n = 500 the matrix stays in
// the second-level cache and the arithmetic of the pass shows: 1.6 to 1.8, with bounds up to 2. An
// element waits there for its neighbour in the row, so that rows are turned to work on eight of
// them side by side; fewer operations would need blocks of columns multiplied as small matrices or
// fused products, which would give up the order in which the method corrects its elements, or the
// same bits on every machine.
//
// In the first kind every peer goes on until it gives up, so that none is charged for its stopping
// rule. NLPQN runs twice: with the defaults, and to the end as the peers do.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <map>

#include "aasubs/record/packed.h"
#include "peers.h"

namespace tqnlp {

using namespace bench;

// ---- Solvers ------------------------------------------------------------------------------------

static Solver nlpqn(std::string name, Stop stop, double tupd, double tlin) {
  return {std::move(name), [](const Problem&) { return true; },
          [=](Meter& meter) {
            run_subroutine(meter, "NLPQN", false, criteria(stop, meter.target),
                           Matrix::row({0, 0, missing, tupd, tlin}));
          }};
}

static const std::vector<Solver>& solvers() {
  static const std::vector<Solver> all = {
      nlpqn("NLPQN", Stop::by_defaults, missing, missing),
      nlpqn("NLPQN_to_the_end", Stop::at_the_end, missing, missing),
      peer("NLopt_LD_LBFGS"),
      peer("NLopt_LD_SLSQP"),
      peer("GSL_vector_bfgs2"),
      peer("dlib_bfgs"),
  };
  return all;
}

// NLPQN with the defaults and with the update of the inverse, beside the peers.
static const std::vector<Solver>& timed_solvers() {
  static const std::vector<Solver> all = [] {
    std::vector<Solver> list = solvers();
    list[1] = nlpqn("NLPQN_tupd3", Stop::by_defaults, 3, missing);
    return list;
  }();
  return all;
}

// The pairs of update and line search, against one another.
static const std::vector<Solver>& pairs() {
  static const std::vector<Solver> all = [] {
    std::vector<Solver> list;
    for (int tupd = 1; tupd <= 4; ++tupd) {
      for (int tlin = 1; tlin <= 8; ++tlin) {
        list.push_back(nlpqn("tupd" + std::to_string(tupd) + "_tlin" + std::to_string(tlin),
                             Stop::at_the_end, tupd, tlin));
      }
    }
    return list;
  }();
  return all;
}

// ---- Outcome ------------------------------------------------------------------------------------

static void count_hits(benchmark::State& state, const Meter& run, double minimum) {
  const double start = run.problem.value(run.problem.start.data());
  for (const auto& [name, tolerance] : {std::pair("6", 1e-6), std::pair("10", 1e-10)}) {
    const Meter::Mark* hit = first_below(run, minimum + tolerance * (start - minimum));
    const bool found = hit != nullptr;
    state.counters[std::string("points_") + name] = found ? static_cast<double>(hit->points) : 0.0;
    state.counters[std::string("calls_") + name] = found ? static_cast<double>(hit->calls) : 0.0;
  }
  state.counters["functions"] = static_cast<double>(run.functions);
  state.counters["gradients"] = static_cast<double>(run.gradients);
}

// All runs on a problem, made when the first of them is asked for.
static const std::vector<Meter>& runs_on(const Problem& problem, const std::vector<Solver>& list) {
  static std::map<std::pair<const Problem*, const void*>, std::vector<Meter>> done;
  std::vector<Meter>& runs = done[{&problem, &list}];
  if (runs.empty()) {
    runs.reserve(list.size());
    for (const Solver& solver : list) solver.run(runs.emplace_back(problem));
  }
  return runs;
}

static void show_run(benchmark::State& state, const Problem& problem,
                     const std::vector<Solver>& list, std::size_t which) {
  for (auto _ : state) {
    const std::vector<Meter>& runs = runs_on(problem, list);
    count_hits(state, runs[which], minimum_for(runs[which], runs));
  }
}

// ---- Overhead -----------------------------------------------------------------------------------

template <typename F>
static double seconds(long times, F f) {
  const auto begin = std::chrono::steady_clock::now();
  for (long k = 0; k < times; ++k) f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The evaluations of the run are timed once more, at the start point, and taken off. Repeated so
// that the shortest of many, which other work of the machine has not disturbed, counts.
static void measure_overhead(benchmark::State& state, const Problem& problem,
                             const Solver& solver) {
  static constexpr long TIMES = 2000;
  static constexpr double RELATIVE_TARGET = 1e-10;
  std::vector<double> g(static_cast<std::size_t>(problem.n));
  const double* x = problem.start.data();
  const double value = seconds(TIMES, [&] { benchmark::DoNotOptimize(problem.value(x)); }) / TIMES;
  const double gradient =
      seconds(TIMES, [&] { benchmark::DoNotOptimize(problem.evaluate(x, g.data())); }) / TIMES;
  double least = HUGE_VAL;
  for (auto _ : state) {
    Meter meter(problem);
    const double minimum = problem.minima.front();
    meter.target = minimum + RELATIVE_TARGET * (problem.value(x) - minimum);
    const double run = seconds(1, [&] { solver.run(meter); });
    const double asked = static_cast<double>(meter.functions) * value +
                         static_cast<double>(meter.gradients) * gradient;
    const long iterations = meter.iterations > 0 ? meter.iterations : meter.gradients;
    least = std::min(least, (run - asked) / static_cast<double>(iterations));
  }
  state.counters["overhead_ns"] = 1e9 * least;
}

// ---- Forms of the matrix ------------------------------------------------------------------------

struct Form {
  const char* name;
  double tupd;
  bool bounded;  // by bounds that no step meets: the factor is then that of bounded problems
};
static constexpr Form FORMS[] = {{"update_3", 3, false},
                                 {"update_1", 1, false},
                                 {"update_3_bounds", 3, true},
                                 {"update_1_bounds", 1, true}};

// Processor seconds of a run of so many iterations. The functions of the problem are a few
// operations a parameter, against several a pair of parameters for the matrix: they are left in.
static double seconds_of_run(const Problem& problem, const Form& form, double iterations) {
  static constexpr double FAR = 1e6;
  Session tql;
  tql.module("F", [&](const Matrix& x) { return Matrix::scalar(problem.value(x.data())); });
  tql.module("G", [&](const Matrix& x) {
    Matrix g(1, x.cols());
    problem.evaluate(x.data(), g.data());
    return g;
  });
  Matrix blc;
  if (form.bounded) {
    blc = Matrix(2, problem.n);
    for (long j = 0; j < problem.n; ++j) {
      blc(0, j) = -FAR;
      blc(1, j) = FAR;
    }
  }
  Matrix tc = criteria(Stop::at_the_end, missing);
  tc(0, 0) = iterations;
  const Matrix opt = Matrix::row({0, 0, missing, form.tupd});
  const std::clock_t begin = std::clock();
  tql.call("NLPQN", {"F", Matrix::row(problem.start), opt, blc, tc, Matrix(), Matrix(), "G"});
  return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
}

// A long run less a short one: neither start nor end counts. Of each the shortest of several.
static void measure_form(benchmark::State& state, const Problem& problem, const Form& form) {
  static constexpr double SHORT = 10, LONG = 30;
  double brief = HUGE_VAL, extended = HUGE_VAL;
  for (auto _ : state) {
    brief = std::min(brief, seconds_of_run(problem, form, SHORT));
    extended = std::min(extended, seconds_of_run(problem, form, LONG));
  }
  state.counters["iteration_ns"] = 1e9 * (extended - brief) / (LONG - SHORT);
}

static void measure_copy(benchmark::State& state, long n) {
  static constexpr long TIMES = 10;
  std::vector<double> from(static_cast<std::size_t>(packed_size(n)), 1.0), to = from;
  double least = HUGE_VAL;
  for (auto _ : state) {
    least = std::min(least, seconds(TIMES, [&] {
                              std::memcpy(to.data(), from.data(), sizeof(double) * from.size());
                              benchmark::DoNotOptimize(to.data());
                              benchmark::ClobberMemory();
                            }) / TIMES);
  }
  state.counters["iteration_ns"] = 1e9 * least;
}

// ---- Registration -------------------------------------------------------------------------------

static const std::vector<Problem>& small_problems() {
  static const std::vector<Problem> all = problems::more_garbow_hillstrom();
  return all;
}

static const std::vector<Problem>& large_problems() {
  static const std::vector<Problem> all = [] {
    std::vector<Problem> list;
    for (long n : {10, 50, 200, 1000}) {
      for (Problem& p : problems::scalable_problems(n)) {
        p.name += " " + std::to_string(n);
        list.push_back(std::move(p));
      }
    }
    return list;
  }();
  return all;
}

static void add_runs(const std::string& group, const std::vector<Problem>& problems,
                     const std::vector<Solver>& list) {
  for (const Problem& problem : problems) {
    for (std::size_t k = 0; k < list.size(); ++k) {
      benchmark::RegisterBenchmark(
          (group + "/" + list[k].name + "/" + problem.name).c_str(),
          [&problem, &list, k](benchmark::State& state) { show_run(state, problem, list, k); })
          ->Iterations(1);
    }
  }
}

static void add_overheads(const std::vector<Problem>& problems) {
  for (const Problem& problem : problems) {
    for (const Solver& solver : timed_solvers()) {
      benchmark::RegisterBenchmark(
          ("overhead/" + solver.name + "/" + problem.name).c_str(),
          [&](benchmark::State& state) { measure_overhead(state, problem, solver); });
    }
  }
}

static void add_forms() {
  static constexpr int TIMES = 25;
  static const std::vector<Problem> problems = [] {
    std::vector<Problem> list;
    for (long n : {50, 100, 200, 500, 1000, 2000}) {
      for (Problem& p : problems::scalable_problems(n)) {
        if (p.name == "TRIDIA") list.push_back(std::move(p));
      }
    }
    return list;
  }();
  for (const Problem& problem : problems) {
    const std::string n = "/" + std::to_string(problem.n);
    benchmark::RegisterBenchmark(("update/copy" + n).c_str(), [&](benchmark::State& state) {
      measure_copy(state, problem.n);
    })->Iterations(TIMES);
    for (const Form& form : FORMS) {
      benchmark::RegisterBenchmark(
          ("update/" + (form.name + n)).c_str(),
          [&](benchmark::State& state) { measure_form(state, problem, form); })
          ->Iterations(TIMES);
    }
  }
}

}  // namespace tqnlp

int main(int argc, char** argv) {
  using namespace tqnlp;
  add_runs("solve", small_problems(), solvers());
  add_runs("scalable", large_problems(), solvers());
  add_runs("pairs", small_problems(), pairs());
  add_overheads(large_problems());
  add_forms();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
