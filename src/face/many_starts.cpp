// solve_from_many: runs from many starts in several threads. Which thread runs which start is
// chance; the results are put together in the order of the starts.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>
#include <tuple>

#include "face/problem.h"
#include "tqnlp/optimize.hpp"

namespace tqnlp {

namespace face {

namespace {

// How one start ended.
struct Ended {
  std::optional<Result> result;
  std::exception_ptr thrown;
};

// The lowest start that threw: starts behind it are not worth a run.
struct FirstFailure {
  std::atomic<std::size_t> start{std::numeric_limits<std::size_t>::max()};

  void note(std::size_t i) {
    std::size_t known = start;
    while (i < known && !start.compare_exchange_weak(known, i)) {
    }
  }
};

}  // namespace

static void check_starts(const Problem& problem, const std::vector<std::vector<double>>& starts,
                         int threads) {
  if (starts.empty()) refuse("starts", "none", "at least one");
  if (threads < 0) refuse("threads", std::to_string(threads), "a number from 0 on");
  const auto n = static_cast<std::size_t>(problem.parameters());
  for (std::size_t i = 0; i < starts.size(); ++i) {
    const std::string field = "start " + std::to_string(i);
    if (starts[i].size() != n)
      refuse(field, std::to_string(starts[i].size()) + " elements", std::to_string(n));
    for (const double x : starts[i]) {
      if (!std::isfinite(x)) refuse(field, "an element that is " + shown(x), "numbers");
    }
  }
}

// Options for runs side by side: what the user listens with is called by one at a time.
static Options shared_options(const Options& options, std::mutex& one) {
  Options shared = options;
  shared.partial = nullptr;
  if (options.progress) {
    shared.progress = [&options, &one](const Progress& progress) {
      const std::scoped_lock lock(one);
      return options.progress(progress);
    };
  }
  if (options.sink) {
    shared.sink = [&options, &one](std::string_view line) {
      const std::scoped_lock lock(one);
      options.sink(line);
    };
  }
  return shared;
}

// Takes one start after the other, until there is none or an earlier one has failed.
static void work(const Problem& problem, const std::vector<std::vector<double>>& starts,
                 const Options& options, std::atomic<std::size_t>& next, FirstFailure& failure,
                 std::vector<Ended>& ended) {
  for (std::size_t i = next++; i < starts.size() && i < failure.start; i = next++) {
    try {
      ended[i].result = solve(problem, starts[i], options);
    } catch (...) {
      ended[i].thrown = std::current_exception();
      failure.note(i);
    }
  }
}

static std::vector<Ended> run_all(const Problem& problem,
                                  const std::vector<std::vector<double>>& starts,
                                  const Options& options, int threads) {
  std::mutex one;
  const Options shared = shared_options(options, one);
  std::vector<Ended> ended(starts.size());
  std::atomic<std::size_t> next = 0;
  FirstFailure failure;
  const auto run = [&] { work(problem, starts, shared, next, failure, ended); };
  const unsigned wanted = threads > 0 ? static_cast<unsigned>(threads)
                                      : std::max(1U, std::thread::hardware_concurrency());
  const std::size_t others = std::min<std::size_t>(wanted, starts.size()) - 1;
  {
    std::vector<std::jthread> pool;
    for (std::size_t k = 0; k < others; ++k) pool.emplace_back(run);
    run();
  }
  return ended;
}

// ---- Putting together ---------------------------------------------------------------------------

static bool is_feasible(const Result& result) {
  return result.optimality.verdict != Optimality::not_feasible && std::isfinite(result.objective);
}

// 0 the best kind of end.
static int kind_of_end(const Result& result) {
  if (result.optimality) return 0;
  if (result.status && is_feasible(result)) return 1;
  return is_feasible(result) ? 2 : 3;
}

static bool close(double a, double b, double tolerance) {
  return std::fabs(a - b) <= tolerance * (1.0 + std::max(std::fabs(a), std::fabs(b)));
}

static bool same_solution(const Result& a, const Result& b) {
  static constexpr double SAME_POINT = 1e-4;
  static constexpr double SAME_VALUE = 1e-6;
  if (kind_of_end(a) != kind_of_end(b) || kind_of_end(a) > 1) return false;
  if (!close(a.objective, b.objective, SAME_VALUE)) return false;
  return std::equal(a.x.begin(), a.x.end(), b.x.begin(),
                    [](double u, double v) { return close(u, v, SAME_POINT); });
}

static std::vector<Solution> merge(std::vector<Result>& results) {
  std::vector<Solution> solutions;
  for (std::size_t i = 0; i < results.size(); ++i) {
    Result& result = results[i];
    const auto known = std::find_if(solutions.begin(), solutions.end(), [&](const Solution& s) {
      return same_solution(s.result, result);
    });
    if (known != solutions.end()) {
      known->starts.push_back(static_cast<long>(i));
    } else {
      solutions.push_back({std::move(result), {static_cast<long>(i)}});
    }
  }
  return solutions;
}

static void sort_by_worth(std::vector<Solution>& solutions, bool maximize) {
  const auto rank = [maximize](const Solution& s) {
    const double f = std::isfinite(s.result.objective) ? s.result.objective : inf;
    return std::tuple(kind_of_end(s.result), maximize && f < inf ? -f : f, s.starts.front());
  };
  std::sort(solutions.begin(), solutions.end(),
            [&rank](const Solution& a, const Solution& b) { return rank(a) < rank(b); });
}

static Table summarize(const std::vector<Solution>& solutions) {
  Table table;
  table.name = "ManyStarts";
  table.title = "Solutions from many starts";
  table.columns = {"Solution", "Objective", "Starts", "FirstStart", "Ending", "Optimality"};
  for (std::size_t k = 0; k < solutions.size(); ++k) {
    const Solution& s = solutions[k];
    table.rows.push_back({static_cast<long>(k), s.result.objective,
                          static_cast<long>(s.starts.size()), s.starts.front(),
                          std::string(s.result.status.name()),
                          std::string(s.result.optimality ? "holds" : "does not hold")});
  }
  return table;
}

}  // namespace face

ManyResults solve_from_many(const Problem& problem, const std::vector<std::vector<double>>& starts,
                            const Options& options, int threads) {
  const Problem held = problem;  // a function of the problem may change the caller's own
  face::check_starts(held, starts, threads);
  std::vector<face::Ended> ended = face::run_all(held, starts, options, threads);
  std::vector<Result> results;
  for (face::Ended& end : ended) {
    if (end.thrown != nullptr) std::rethrow_exception(end.thrown);
    results.push_back(std::move(*end.result));
  }
  return merge_results(std::move(results), held.data().maximize);
}

ManyResults merge_results(std::vector<Result> results, bool maximize) {
  ManyResults merged;
  merged.solution_of.resize(results.size());
  merged.solutions = face::merge(results);
  face::sort_by_worth(merged.solutions, maximize);
  for (std::size_t k = 0; k < merged.solutions.size(); ++k) {
    for (const long i : merged.solutions[k].starts) {
      merged.solution_of[static_cast<std::size_t>(i)] = static_cast<long>(k);
    }
  }
  merged.summary = face::summarize(merged.solutions);
  return merged;
}

}  // namespace tqnlp
