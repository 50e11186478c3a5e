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
#include <dlib/optimization.h>
#include <gsl/gsl_errno.h>
#include <gsl/gsl_multimin.h>
#include <nlopt.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <map>

#include "aasubs/record/packed.h"
#include "problems/problem.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {

using problems::Problem;

static constexpr long MOST_CALLS = 20000;
static constexpr double MOST_SECONDS = 20.0;  // a run; only cubic work an iteration comes near

// ---- What a solver asks -------------------------------------------------------------------------

// Counts the calls and notes every new lowest value with the calls that it took.
struct Meter {
  struct Mark {
    long points, calls;  // calls of the objective; of objective and gradient together
    double lowest;
  };

  explicit Meter(const Problem& p) : problem(p) {}

  double value(const double* x) {
    ++functions;
    return note(problem.value(x));
  }
  void gradient(const double* x, double* g) {
    ++gradients;
    problem.evaluate(x, g);
  }
  double both(const double* x, double* g) {
    ++functions;
    ++gradients;
    return note(problem.evaluate(x, g));
  }
  double note(double f) {
    if (f < lowest) {
      lowest = f;
      marks.push_back({functions, functions + gradients, f});
    }
    return f;
  }

  const Problem& problem;
  double target = -HUGE_VAL;  // a run may stop below it
  long functions = 0, gradients = 0;
  long iterations = 0;  // 0: the solver does not tell
  double lowest = HUGE_VAL;
  std::vector<Mark> marks;
};

// ---- Solvers ------------------------------------------------------------------------------------

enum class Stop { by_defaults, at_the_end };

// Termination criteria: of the defaults the target alone, or the limits of the peers and tolerances
// that only rounding meets.
static Matrix criteria(Stop stop, double target) {
  const double value = std::isfinite(target) ? target : missing;
  if (stop == Stop::by_defaults) return Matrix::row({missing, missing, value});
  static constexpr double LIMIT = MOST_CALLS, LEAST = 1e-18;
  return Matrix::row({LIMIT, LIMIT, value, LEAST, missing, LEAST, LEAST});
}

static void run_nlpqn(Meter& meter, Stop stop, double tupd, double tlin) {
  Session tql;
  tql.module("F", [&](const Matrix& x) { return Matrix::scalar(meter.value(x.data())); });
  tql.module("G", [&](const Matrix& x) {
    Matrix g(1, x.cols());
    meter.gradient(x.data(), g.data());
    return g;
  });
  const Matrix opt = Matrix::row({0, 0, missing, tupd, tlin});
  tql.call("NLPQN", {"F", Matrix::row(meter.problem.start), opt, Matrix(),
                     criteria(stop, meter.target), Matrix(), Matrix(), "G"});
  meter.iterations = static_cast<long>(tql.variable("_ITER_")(0, 0));
}

static void run_nlopt(Meter& meter, nlopt_algorithm algorithm) {
  nlopt_opt opt = nlopt_create(algorithm, static_cast<unsigned>(meter.problem.n));
  nlopt_set_min_objective(
      opt,
      [](unsigned, const double* x, double* g, void* data) {
        Meter& m = *static_cast<Meter*>(data);
        return g != nullptr ? m.both(x, g) : m.value(x);
      },
      &meter);
  nlopt_set_maxeval(opt, static_cast<int>(MOST_CALLS));
  nlopt_set_maxtime(opt, MOST_SECONDS);
  nlopt_set_ftol_rel(opt, 1e-16);
  nlopt_set_stopval(opt, meter.target);
  std::vector<double> x = meter.problem.start;
  double f = 0.0;
  nlopt_optimize(opt, x.data(), &f);
  nlopt_destroy(opt);
}

static void run_gsl(Meter& meter) {
  static constexpr double FIRST_STEP = 0.01;  // both as its manual's example and advice have them
  static constexpr double LINE_TOLERANCE = 0.1;
  gsl_set_error_handler_off();
  const std::size_t n = static_cast<std::size_t>(meter.problem.n);
  gsl_multimin_function_fdf fdf;
  fdf.n = n;
  fdf.params = &meter;
  fdf.f = [](const gsl_vector* x, void* m) { return static_cast<Meter*>(m)->value(x->data); };
  fdf.df = [](const gsl_vector* x, void* m, gsl_vector* g) {
    static_cast<Meter*>(m)->gradient(x->data, g->data);
  };
  fdf.fdf = [](const gsl_vector* x, void* m, double* f, gsl_vector* g) {
    *f = static_cast<Meter*>(m)->both(x->data, g->data);
  };
  gsl_vector* x = gsl_vector_alloc(n);
  std::copy(meter.problem.start.begin(), meter.problem.start.end(), x->data);
  gsl_multimin_fdfminimizer* s =
      gsl_multimin_fdfminimizer_alloc(gsl_multimin_fdfminimizer_vector_bfgs2, n);
  int status = gsl_multimin_fdfminimizer_set(s, &fdf, x, FIRST_STEP, LINE_TOLERANCE);
  while (status == GSL_SUCCESS && meter.functions < MOST_CALLS && meter.lowest > meter.target) {
    status = gsl_multimin_fdfminimizer_iterate(s);
    ++meter.iterations;
  }
  gsl_multimin_fdfminimizer_free(s);
  gsl_vector_free(x);
}

// Ends a run of dlib when nothing changes any more, or at the target.
struct DlibStop {
  Meter* meter;
  double last = HUGE_VAL;
  template <typename Column>
  bool should_continue_search(const Column&, double f, const Column&) {
    static constexpr long MOST_ITERATIONS = 5000;
    const bool moved = f != last;
    last = f;
    return moved && ++meter->iterations <= MOST_ITERATIONS && f > meter->target;
  }
};

static void run_dlib(Meter& meter) {
  using Column = dlib::matrix<double, 0, 1>;
  Column x(meter.problem.n);
  std::copy(meter.problem.start.begin(), meter.problem.start.end(), x.begin());
  const auto f = [&](const Column& at) { return meter.value(&at(0)); };
  const auto g = [&](const Column& at) {
    Column result(at.size());
    meter.gradient(&at(0), &result(0));
    return result;
  };
  try {
    dlib::find_min(dlib::bfgs_search_strategy(), DlibStop{&meter}, f, g, x, -HUGE_VAL);
  } catch (const dlib::error&) {
    // It gives up at values that are not finite; the marks up to there count.
  }
}

struct Solver {
  std::string name;
  std::function<void(Meter&)> run;
};

static const std::vector<Solver>& solvers() {
  static const std::vector<Solver> all = {
      {"NLPQN", [](Meter& m) { run_nlpqn(m, Stop::by_defaults, missing, missing); }},
      {"NLPQN_to_the_end", [](Meter& m) { run_nlpqn(m, Stop::at_the_end, missing, missing); }},
      {"NLopt_LD_LBFGS", [](Meter& m) { run_nlopt(m, NLOPT_LD_LBFGS); }},
      {"NLopt_LD_SLSQP", [](Meter& m) { run_nlopt(m, NLOPT_LD_SLSQP); }},
      {"GSL_vector_bfgs2", run_gsl},
      {"dlib_bfgs", run_dlib},
  };
  return all;
}

// NLPQN with the defaults and with the update of the inverse, beside the peers.
static const std::vector<Solver>& timed_solvers() {
  static const std::vector<Solver> all = [] {
    std::vector<Solver> list = solvers();
    list[1] = {"NLPQN_tupd3", [](Meter& m) { run_nlpqn(m, Stop::by_defaults, 3, missing); }};
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
        list.push_back({"tupd" + std::to_string(tupd) + "_tlin" + std::to_string(tlin),
                        [=](Meter& m) { run_nlpqn(m, Stop::at_the_end, tupd, tlin); }});
      }
    }
    return list;
  }();
  return all;
}

// ---- Outcome ------------------------------------------------------------------------------------

// What a minimum is taken to be: published values have few digits, so that the lowest value that
// some solver found near one stands for it.
static double sharpened(double minimum, const std::vector<Meter>& runs) {
  double best = HUGE_VAL;
  for (const Meter& run : runs) {
    if (std::fabs(run.lowest - minimum) <= 1e-4 * std::max(1.0, std::fabs(minimum))) {
      best = std::min(best, run.lowest);
    }
  }
  return best < HUGE_VAL ? best : minimum;
}

// The minimum that a run was on its way to: of several, the one nearest to where it ended.
static double target(const Meter& run, const std::vector<Meter>& runs) {
  if (run.problem.minima.empty()) {
    return std::min_element(runs.begin(), runs.end(),
                            [](auto& a, auto& b) { return a.lowest < b.lowest; })
        ->lowest;
  }
  double nearest = HUGE_VAL;
  for (double published : run.problem.minima) {
    const double minimum = sharpened(published, runs);
    if (std::fabs(run.lowest - minimum) < std::fabs(run.lowest - nearest)) nearest = minimum;
  }
  return nearest;
}

static void count_hits(benchmark::State& state, const Meter& run, double minimum) {
  const double start = run.problem.value(run.problem.start.data());
  for (const auto& [name, tolerance] : {std::pair("6", 1e-6), std::pair("10", 1e-10)}) {
    const auto hit = std::find_if(run.marks.begin(), run.marks.end(), [&](const Meter::Mark& m) {
      return m.lowest <= minimum + tolerance * (start - minimum);
    });
    const bool found = hit != run.marks.end();
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
    count_hits(state, runs[which], target(runs[which], runs));
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
      for (Problem& p : test::scalable_problems(n)) {
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
