// The subroutines of the Newton, quasi-Newton and conjugate-gradient family beside general
// optimizers, all from the same starts with the same analytic derivatives.
//
//   GROUP/SOLVER/PROBLEM   one run; groups start1, start10, start100 (the problems of More, Garbow
//                          and Hillstrom from their starts, and from starts 10 and 100 times as far
//                          out), bounded (Hock and Schittkowski), scalable100 to scalable1000000.
//                          Counters: calls_8, calls of objective, gradient and Hessian until the
//                          objective first came within 1e-8 max(1, |minimum|) of the minimum (0:
//                          never); points_8, those of the objective; own_ns, processor time of an
//                          iteration that is not the user's
//   memory/NLPCG/N         peak memory of a call beyond the user's: megabytes, and vectors of n
//   traffic/NLPCG/N        own time of an iteration, in times of reading and writing once the nine
//                          vectors that the method keeps
//
// Subroutines and peers go on until they give up, so that none is charged for its stopping rule,
// but at most 20000 calls of the objective or 20 seconds of processor time. Rows named _defaults
// stop by the defaults of the subroutine. Techniques that keep dense matrices take up to 100
// parameters where they factor one in every iteration and 1000 where they update it. The scalable
// problems have no Hessians: the Newton techniques form them there by differences of gradients,
// which count as calls.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>

#include "peers.h"

namespace tqnlp {

using namespace bench;

// ---- Solvers ------------------------------------------------------------------------------------

struct Member {
  const char* name;
  bool second_order;
  long largest;
};
static constexpr Member FAMILY[] = {
    {"NLPTR", true, LARGEST_FACTORED},  {"NLPNRA", true, LARGEST_FACTORED},
    {"NLPNRR", true, LARGEST_FACTORED}, {"NLPDD", false, LARGEST_UPDATED},
    {"NLPQN", false, LARGEST_UPDATED},  {"NLPCG", false, 1000000}};

static const std::vector<Solver>& solvers() {
  static const std::vector<Solver> all = [] {
    std::vector<Solver> list;
    for (const Member& s : FAMILY) {
      for (const Stop stop : {Stop::at_the_end, Stop::by_defaults}) {
        list.push_back({std::string(s.name) + (stop == Stop::by_defaults ? "_defaults" : ""),
                        [s](const Problem& p) { return p.n <= s.largest; },
                        [=](Meter& m) {
                          run_subroutine(m, s.name, s.second_order, criteria(stop, m.target));
                        }});
      }
    }
    list.insert(list.end(), peers().begin(), peers().end());
    return list;
  }();
  return all;
}

// ---- Runs ---------------------------------------------------------------------------------------

// The problems of a group, made when the first of its runs is asked for: a million parameters take
// their room then.
struct Group {
  std::string name;
  std::vector<std::string> names;  // of the problems
  std::function<std::vector<Problem>()> make;
  std::vector<Problem> problems = {};
};

// All runs on the problem asked for last; their order makes one enough.
static const std::vector<Meter>& runs_on(Group& group, std::size_t which) {
  static const Problem* last = nullptr;
  static std::vector<Meter> runs;
  if (group.problems.empty()) group.problems = group.make();
  const Problem& problem = group.problems[which];
  if (last == &problem) return runs;
  last = &problem;
  runs.clear();
  runs.reserve(solvers().size());
  for (const Solver& solver : solvers()) {
    Meter& meter = runs.emplace_back(problem, true);
    if (solver.takes(problem)) run(solver, meter);
  }
  return runs;
}

static void show_run(benchmark::State& state, Group& group, std::size_t which, std::size_t solver) {
  static constexpr double CLOSE = 1e-8;
  for (auto _ : state) {
    const std::vector<Meter>& runs = runs_on(group, which);
    const Meter& run = runs[solver];
    const double minimum = minimum_for(run, runs);
    const Meter::Mark* hit = first_below(run, minimum + CLOSE * std::max(1.0, std::fabs(minimum)));
    const auto count = [](long value) { return static_cast<double>(value); };
    state.counters["calls_8"] = hit != nullptr ? count(hit->calls) : 0.0;
    state.counters["points_8"] = hit != nullptr ? count(hit->points) : 0.0;
    state.counters["calls"] = count(run.calls());
    const long iterations = run.iterations > 0 ? run.iterations : run.gradients;
    state.counters["own_ns"] =
        1e9 * (run.run_seconds - run.user_seconds) / count(std::max(iterations, 1L));
  }
}

// ---- Groups -------------------------------------------------------------------------------------

// A start at zero goes to where all parameters are the factor.
static std::vector<Problem> from_far(double factor) {
  std::vector<Problem> all = problems::more_garbow_hillstrom();
  for (Problem& p : all) {
    const bool zero = std::all_of(p.start.begin(), p.start.end(), [](double x) { return x == 0; });
    for (double& x : p.start) {
      if (factor != 1.0) x = zero ? factor : factor * x;
    }
  }
  return all;
}

static std::vector<Problem> bounded() {
  std::vector<Problem> all = problems::hock_schittkowski_linear();
  std::erase_if(all, [](const Problem& p) { return !p.rows.empty() || p.lower.empty(); });
  return all;
}

static std::vector<std::string> names_of(const std::vector<Problem>& problems) {
  std::vector<std::string> names;
  for (const Problem& p : problems) names.push_back(p.name);
  return names;
}

static std::vector<std::unique_ptr<Group>>& groups() {
  static std::vector<std::unique_ptr<Group>> all = [] {
    std::vector<std::unique_ptr<Group>> list;
    for (int factor : {1, 10, 100}) {
      list.push_back(
          std::make_unique<Group>(Group{"start" + std::to_string(factor), names_of(from_far(1.0)),
                                        [factor] { return from_far(factor); }}));
    }
    list.push_back(std::make_unique<Group>(Group{"bounded", names_of(bounded()), bounded}));
    for (long n : {100, 1000, 10000, 100000, 1000000}) {
      list.push_back(std::make_unique<Group>(
          Group{"scalable" + std::to_string(n), names_of(problems::scalable_problems(12)),
                [n] { return problems::scalable_problems(n); }}));
    }
    return list;
  }();
  return all;
}

static void add_group(Group& group) {
  const std::vector<Problem> few =
      group.name.starts_with("scalable") ? std::vector<Problem>() : group.make();
  for (std::size_t p = 0; p < group.names.size(); ++p) {
    for (std::size_t s = 0; s < solvers().size(); ++s) {
      Problem shape;  // what a solver is asked of, without the start of a large problem
      if (few.empty()) {
        shape.n = std::stol(group.name.substr(8));
      } else {
        shape = few[p];
      }
      if (!solvers()[s].takes(shape)) continue;
      benchmark::RegisterBenchmark(
          (group.name + "/" + solvers()[s].name + "/" + group.names[p]).c_str(),
          [&group, p, s](benchmark::State& state) { show_run(state, group, p, s); })
          ->Iterations(1);
    }
  }
}

// ---- Conjugate gradients on a million parameters ------------------------------------------------

static void run_conjugate(Meter& meter, double iterations) {
  Matrix tc = criteria(Stop::at_the_end, missing);
  tc(0, 0) = iterations;
  run_subroutine(meter, "NLPCG", false, tc);
}

static Problem tridiagonal(long n) {
  for (Problem& p : problems::scalable_problems(n)) {
    if (p.name == "TRIDIA") return std::move(p);
  }
  return {};
}

static double peak_bytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

// The peak of a process of its own, less that of one that makes no call. The user's are the problem
// with its start, and the gradient that the module makes; the argument is counted.
static double peak_of_call(const Problem& problem, bool call) {
  int ends[2];
  if (pipe(ends) != 0) return 0.0;
  const pid_t child = fork();
  if (child == 0) {
    Meter meter(problem);
    if (call) run_conjugate(meter, 5);
    const double peak = peak_bytes();
    const bool told = write(ends[1], &peak, sizeof peak) == sizeof peak;
    _exit(told ? 0 : 1);
  }
  double peak = 0.0;
  const bool heard = read(ends[0], &peak, sizeof peak) == sizeof peak;
  waitpid(child, nullptr, 0);
  close(ends[0]);
  close(ends[1]);
  return heard ? peak : 0.0;
}

static void measure_memory(benchmark::State& state, long n) {
  const Problem problem = tridiagonal(n);
  const double vector = 8.0 * static_cast<double>(n);
  double bytes = 0.0;
  for (auto _ : state) {
    bytes = peak_of_call(problem, true) - peak_of_call(problem, false) - vector;
  }
  state.counters["megabytes"] = 1e-6 * bytes;
  state.counters["vectors"] = bytes / vector;
}

// A long run less a short one: neither start nor end counts. Of each the shortest of several.
static void measure_traffic(benchmark::State& state, long n) {
  static constexpr double SHORT = 5, LONG = 25;
  static constexpr std::size_t VECTORS = 9;
  const Problem problem = tridiagonal(n);
  std::vector<std::vector<double>> vectors(VECTORS,
                                           std::vector<double>(static_cast<std::size_t>(n), 1.0));
  double brief = HUGE_VAL, extended = HUGE_VAL, walk = HUGE_VAL;
  const auto own = [&](double iterations) {
    Meter meter(problem, true);
    const double before = processor_seconds();
    run_conjugate(meter, iterations);
    return processor_seconds() - before - meter.user_seconds;
  };
  for (auto _ : state) {
    brief = std::min(brief, own(SHORT));
    extended = std::min(extended, own(LONG));
    const double before = processor_seconds();
    for (auto& v : vectors) {
      for (double& x : v) x *= 1.0000001;
      benchmark::DoNotOptimize(v.data());
    }
    walk = std::min(walk, processor_seconds() - before);
  }
  const double iteration = (extended - brief) / (LONG - SHORT);
  state.counters["iteration_ns"] = 1e9 * iteration;
  state.counters["walks"] = iteration / walk;
}

}  // namespace tqnlp

int main(int argc, char** argv) {
  using namespace tqnlp;
  for (auto& group : groups()) add_group(*group);
  for (long n : {100000, 1000000}) {
    const std::string end = "/NLPCG/" + std::to_string(n);
    benchmark::RegisterBenchmark(("memory" + end).c_str(), [n](benchmark::State& state) {
      measure_memory(state, n);
    })->Iterations(1);
    benchmark::RegisterBenchmark(("traffic" + end).c_str(), [n](benchmark::State& state) {
      measure_traffic(state, n);
    })->Iterations(10);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
