// NLPLM and NLPHQN beside other solvers of nonlinear least squares, all from the same starts with
// the same residuals and Jacobians (lmdif: residuals alone).
//
//   GROUP/SOLVER/PROBLEM    one run; groups nist (the 27 regression sets of NIST from both starts),
//                           mgh1, mgh10, mgh100 (the problems of More, Garbow and Hillstrom from
//                           their starts, and from 10 and 100 times as far out). Counters:
//                           residuals_8, jacobians_8: calls until the sum of squares first came
//                           within 1e-8 of the least known one, relative to it (mgh: to at least
//                           1), and calls_8, both together (0: never); residuals, jacobians: those
//                           of the whole run; digits: the log relative error of the worst
//                           parameter, certified digits of NIST that the answer has
//   iteration/SOLVER/MxN    own_ns: time of an iteration that is not the user's
//
// Subroutines and peers go on until they give up, so that none is charged for its stopping rule,
// but at most 20000 calls of the residuals or 20 seconds of processor time; rows named _defaults
// stop by the defaults of the subroutine. A Jacobian by columns and the matrix that a module makes
// for its answer are the user's.
#include <benchmark/benchmark.h>
#include <ceres/ceres.h>
#include <cminpack-1/cminpack.h>
#include <glog/logging.h>
#include <gsl/gsl_errno.h>
#include <gsl/gsl_multifit_nlinear.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "peers.h"

namespace tqnlp {

using namespace bench;
using problems::Regression;

static std::size_t size(long count) { return static_cast<std::size_t>(count); }

// A least-squares solver: runs a problem for at most so many iterations.
struct Fitter {
  std::string name;
  std::function<void(Meter& meter, long iterations)> run;
};

// ---- Subroutines --------------------------------------------------------------------------------

namespace {
struct TimeIsUp {};
}  // namespace

static void run_subroutine(Meter& meter, const char* name, Matrix tc) {
  const Problem& p = meter.problem;
  Session tql;
  tql.module("F", [&](const Matrix& x) {
    if (meter.time_is_up()) throw TimeIsUp();
    Matrix r = meter.charge([&] { return Matrix(p.m, 1); });
    meter.residuals(x.data(), r.data());
    return r;
  });
  tql.module("J", [&](const Matrix& x) {
    Matrix j = meter.charge([&] { return Matrix(p.m, p.n); });
    meter.jacobian(x.data(), j.data());
    return j;
  });
  const Matrix opt = Matrix::row({static_cast<double>(p.m)});
  try {
    const auto results = tql.call(
        name, {"F", Matrix::row(p.start), opt, Matrix(), std::move(tc), Matrix(), Matrix(), "J"});
    meter.answer = results[1].values();
  } catch (const TimeIsUp&) {
  } catch (const CallError&) {
  }
}

static Fitter subroutine(const char* name, Stop stop) {
  return {std::string(name) + (stop == Stop::by_defaults ? "_defaults" : ""),
          [=](Meter& meter, long iterations) {
            Matrix tc = criteria(stop, meter.target);
            if (stop == Stop::at_the_end) {
              static constexpr int ABSGCONV = 5;
              tc(0, 0) = static_cast<double>(iterations);
              tc(0, ABSGCONV) = 0.0;
            }
            run_subroutine(meter, name, std::move(tc));
          }};
}

// ---- cminpack -----------------------------------------------------------------------------------

// What a run of it is called back with.
struct Caller {
  Meter* meter;
  long iterations;
  std::vector<double> by_rows;
  bool over() const { return meter->over() || meter->gradients > iterations; }
};

static void jacobian_by_columns(Caller& caller, const double* x, double* columns, long leading) {
  const long m = caller.meter->problem.m, n = caller.meter->problem.n;
  caller.meter->jacobian(x, caller.by_rows.data());
  caller.meter->charge([&] {
    const double* next = caller.by_rows.data();
    for (long i = 0; i < m; ++i) {
      for (long j = 0; j < n; ++j) columns[i + j * leading] = *next++;
    }
    return true;
  });
}

// Arrays of a call, and settings: no tolerance is met but by rounding.
struct Arrays {
  explicit Arrays(const Problem& p)
      : m(static_cast<int>(p.m)),
        n(static_cast<int>(p.n)),
        r(size(p.m)),
        j(size(p.m * p.n)),
        vectors(size(5 * p.n + p.m)),
        pivots(size(p.n)) {}
  double* vector(int k) { return vectors.data() + k * n; }
  int m, n;
  std::vector<double> r, j, vectors;
  std::vector<int> pivots;
};
static constexpr double FIRST_BOUND = 100.0;  // as its documentation recommends
static constexpr int MOST_EVALUATIONS = static_cast<int>(MOST_CALLS);

static void run_lmder(Meter& meter, long iterations) {
  Arrays a(meter.problem);
  Caller caller{&meter, iterations, a.j};
  std::vector<double>& x = meter.answer = meter.problem.start;
  int calls = 0, jacobians = 0;
  lmder(
      [](void* data, int, int, const double* at, double* r, double* j, int leading, int flag) {
        Caller& c = *static_cast<Caller*>(data);
        if (flag == 1) {
          if (c.over()) return -1;
          c.meter->residuals(at, r);
        } else {
          jacobian_by_columns(c, at, j, leading);
        }
        return 0;
      },
      &caller, a.m, a.n, x.data(), a.r.data(), a.j.data(), a.m, 0.0, 0.0, 0.0, MOST_EVALUATIONS,
      a.vector(0), 1, FIRST_BOUND, 0, &calls, &jacobians, a.pivots.data(), a.vector(1), a.vector(2),
      a.vector(3), a.vector(4), a.vector(5));
}

static void run_lmdif(Meter& meter, long) {
  Arrays a(meter.problem);
  std::vector<double>& x = meter.answer = meter.problem.start;
  std::vector<double> scale(size(meter.problem.n));
  int calls = 0;
  lmdif(
      [](void* data, int, int, const double* at, double* r, int) {
        Meter& m = *static_cast<Meter*>(data);
        if (m.over()) return -1;
        m.residuals(at, r);
        return 0;
      },
      &meter, a.m, a.n, x.data(), a.r.data(), 0.0, 0.0, 0.0, MOST_EVALUATIONS, 0.0, scale.data(), 1,
      FIRST_BOUND, 0, &calls, a.j.data(), a.m, a.pivots.data(), a.vector(0), a.vector(1),
      a.vector(2), a.vector(3), a.vector(4));
}

// ---- GSL ----------------------------------------------------------------------------------------

// It ends when no step makes progress any more.
static void run_gsl(Meter& meter, const gsl_multifit_nlinear_trs* method, long iterations) {
  gsl_set_error_handler_off();
  const Problem& p = meter.problem;
  gsl_multifit_nlinear_fdf fdf{};
  fdf.n = size(p.m);
  fdf.p = size(p.n);
  fdf.params = &meter;
  fdf.f = [](const gsl_vector* x, void* data, gsl_vector* r) {
    static_cast<Meter*>(data)->residuals(x->data, r->data);
    return static_cast<int>(GSL_SUCCESS);
  };
  fdf.df = [](const gsl_vector* x, void* data, gsl_matrix* j) {
    static_cast<Meter*>(data)->jacobian(x->data, j->data);
    return static_cast<int>(GSL_SUCCESS);
  };
  gsl_multifit_nlinear_parameters parameters = gsl_multifit_nlinear_default_parameters();
  parameters.trs = method;
  gsl_multifit_nlinear_workspace* w =
      gsl_multifit_nlinear_alloc(gsl_multifit_nlinear_trust, &parameters, fdf.n, fdf.p);
  const gsl_vector_const_view start = gsl_vector_const_view_array(p.start.data(), fdf.p);
  int status = gsl_multifit_nlinear_init(&start.vector, &fdf, w);
  for (long k = 0; k < iterations && status == GSL_SUCCESS && !meter.over(); ++k) {
    status = gsl_multifit_nlinear_iterate(w);
  }
  const gsl_vector* x = gsl_multifit_nlinear_position(w);
  meter.answer.assign(x->data, x->data + p.n);
  gsl_multifit_nlinear_free(w);
}

static Fitter gsl(const gsl_multifit_nlinear_trs* method, const std::string& name) {
  return {"GSL_" + name, [=](Meter& meter, long k) { run_gsl(meter, method, k); }};
}

// ---- Ceres --------------------------------------------------------------------------------------

// It asks for the residuals again wherever it asks for a Jacobian: these calls are not counted.
class CeresResiduals : public ceres::CostFunction {
 public:
  explicit CeresResiduals(Meter& meter) : meter_(meter), r_(size(meter.problem.m)) {
    set_num_residuals(static_cast<int>(meter.problem.m));
    mutable_parameter_block_sizes()->push_back(static_cast<int>(meter.problem.n));
  }

  bool Evaluate(const double* const* blocks, double* r, double** jacobians) const override {
    const double* x = blocks[0];
    const long n = meter_.problem.n;
    if (x_.empty() || !std::equal(x_.begin(), x_.end(), x)) {
      meter_.residuals(x, r_.data());
      x_.assign(x, x + n);
    }
    std::copy(r_.begin(), r_.end(), r);
    if (jacobians != nullptr && jacobians[0] != nullptr) meter_.jacobian(x, jacobians[0]);
    return std::all_of(r_.begin(), r_.end(), [](double value) { return std::isfinite(value); });
  }

 private:
  Meter& meter_;
  mutable std::vector<double> x_, r_;
};

static void run_ceres(Meter& meter, ceres::TrustRegionStrategyType strategy,
                      ceres::DoglegType dogleg, long iterations) {
  ceres::Problem problem;
  meter.answer = meter.problem.start;
  problem.AddResidualBlock(new CeresResiduals(meter), nullptr, meter.answer.data());
  ceres::Solver::Options options;
  options.trust_region_strategy_type = strategy;
  options.dogleg_type = dogleg;
  options.linear_solver_type = ceres::DENSE_QR;
  options.max_num_iterations = static_cast<int>(iterations);
  options.max_solver_time_in_seconds = MOST_SECONDS;
  options.function_tolerance = options.gradient_tolerance = options.parameter_tolerance = 0.0;
  options.logging_type = ceres::SILENT;
  options.num_threads = 1;
  ceres::Solver::Summary summary;
  ceres::Solve(options, &problem, &summary);
}

static Fitter ceres_solver(const std::string& name, ceres::TrustRegionStrategyType strategy,
                           ceres::DoglegType dogleg = ceres::TRADITIONAL_DOGLEG) {
  return {"Ceres_" + name, [=](Meter& m, long k) { run_ceres(m, strategy, dogleg, k); }};
}

// ---- The list -----------------------------------------------------------------------------------

static const std::vector<Fitter>& fitters() {
  static const std::vector<Fitter> all = {
      subroutine("NLPLM", Stop::at_the_end),
      subroutine("NLPLM", Stop::by_defaults),
      subroutine("NLPHQN", Stop::at_the_end),
      subroutine("NLPHQN", Stop::by_defaults),
      {"cminpack_lmder", run_lmder},
      {"cminpack_lmdif", run_lmdif},
      gsl(gsl_multifit_nlinear_trs_lm, "lm"),
      gsl(gsl_multifit_nlinear_trs_lmaccel, "lmaccel"),
      gsl(gsl_multifit_nlinear_trs_dogleg, "dogleg"),
      gsl(gsl_multifit_nlinear_trs_ddogleg, "ddogleg"),
      gsl(gsl_multifit_nlinear_trs_subspace2D, "subspace2D"),
      ceres_solver("LM", ceres::LEVENBERG_MARQUARDT),
      ceres_solver("dogleg", ceres::DOGLEG),
      ceres_solver("subspace_dogleg", ceres::DOGLEG, ceres::SUBSPACE_DOGLEG),
  };
  return all;
}

// ---- Fits ---------------------------------------------------------------------------------------

struct Fit {
  Problem problem;
  std::vector<double> certified;  // parameters; empty: none
};

struct Group {
  std::string name;
  std::vector<Fit> fits;
};

static Group nist() {
  Group group{"nist", {}};
  for (Regression& set : problems::nist_regressions()) {
    group.fits.push_back({std::move(set.start_1), set.parameters});
    group.fits.push_back({std::move(set.start_2), set.parameters});
  }
  return group;
}

// A start at zero goes to where all parameters are the factor. Peers ask for m >= n.
static Group far_starts(double factor) {
  Group group{"mgh" + std::to_string(std::lround(factor)), {}};
  for (Problem& p : problems::more_garbow_hillstrom()) {
    const bool zero = std::all_of(p.start.begin(), p.start.end(), [](double x) { return x == 0; });
    for (double& x : p.start) {
      if (factor != 1.0) x = zero ? factor : factor * x;
    }
    if (p.m >= p.n) group.fits.push_back({std::move(p), {}});
  }
  return group;
}

// Digits of the worst parameter, at most the certified eleven. Signs do not count: Eckerle4 and the
// peaks of Gauss have solutions that differ in signs alone.
static double digits(const Meter& run, const std::vector<double>& certified) {
  static constexpr double CERTIFIED = 11.0;
  double worst = run.answer.empty() ? 0.0 : CERTIFIED;
  for (std::size_t j = 0; j < run.answer.size(); ++j) {
    const double error = std::fabs(std::fabs(run.answer[j] / certified[j]) - 1.0);
    worst = std::min(worst, std::isfinite(error) ? -std::log10(error) : 0.0);
  }
  return std::max(worst, 0.0);
}

// How near to the least sum of squares a run must come. Sums of 1e-25 have no eight digits.
static double solved_below(const Fit& fit, const Meter& run, const std::vector<Meter>& runs) {
  static constexpr double CLOSE = 1e-8, ROUNDING = 1e-26;
  if (fit.certified.empty()) {
    const double minimum = minimum_for(run, runs);
    return minimum + CLOSE * std::max(1.0, std::fabs(minimum));
  }
  return (1.0 + CLOSE) * fit.problem.minima[0] + ROUNDING;
}

// All runs on the problem asked for last; their order makes one enough.
static const std::vector<Meter>& runs_on(const Problem& problem) {
  static const Problem* last = nullptr;
  static std::vector<Meter> runs;
  if (last == &problem) return runs;
  last = &problem;
  runs.clear();
  runs.reserve(fitters().size());
  for (const Fitter& fitter : fitters()) fitter.run(runs.emplace_back(problem), MOST_CALLS);
  return runs;
}

static void show_fit(benchmark::State& state, const Fit& fit, std::size_t which) {
  for (auto _ : state) {
    const std::vector<Meter>& runs = runs_on(fit.problem);
    const Meter& run = runs[which];
    const Meter::Mark* hit = first_below(run, solved_below(fit, run, runs));
    const auto count = [](long value) { return static_cast<double>(value); };
    state.counters["calls_8"] = hit != nullptr ? count(hit->calls) : 0.0;
    state.counters["residuals_8"] = hit != nullptr ? count(hit->points) : 0.0;
    state.counters["jacobians_8"] = hit != nullptr ? count(hit->calls - hit->points) : 0.0;
    state.counters["residuals"] = count(run.functions);
    state.counters["jacobians"] = count(run.gradients);
    if (!fit.certified.empty()) state.counters["digits"] = digits(run, fit.certified);
  }
}

// ---- Time of an iteration -----------------------------------------------------------------------

static constexpr long LARGE = 1000000;  // elements of the Jacobian

// r_i = (a_i'x)^2: an iteration halves x, whatever the method, for hundreds of iterations.
static Problem squares(long m, long n) {
  auto a = std::make_shared<std::vector<double>>(size(m * n));
  unsigned seed = 1;
  for (double& value : *a) {
    seed = seed * 1664525U + 1013904223U;  // Numerical Recipes' generator
    value = seed / 4294967296.0 - 0.5;
  }
  const auto product = [a, n](long i, const double* x) {
    const double* row = a->data() + i * n;
    double sum = 0.0;
    for (long j = 0; j < n; ++j) sum += row[j] * x[j];
    return sum;
  };
  Problem p;
  p.name = std::to_string(m) + "x" + std::to_string(n);
  p.m = m;
  p.n = n;
  p.start.assign(size(n), 1.0);
  p.residuals = [=](const double* x, double* r) {
    for (long i = 0; i < m; ++i) r[i] = problems::square(product(i, x));
  };
  p.jacobian_by_hand = [=](const double* x, double* j) {
    for (long i = 0; i < m; ++i) {
      const double twice = 2.0 * product(i, x);
      for (long k = 0; k < n; ++k) *j++ = twice * (*a)[size(i * n + k)];
    }
  };
  return p;
}

// Cheaper to read than the clock of the processor, which short iterations would feel; long ones
// would feel other work of the machine.
static double wall_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A long run less a short one: neither start nor end counts. Of each the shortest of several, which
// other work of the machine has not disturbed.
static void measure_iteration(benchmark::State& state, const Problem& problem,
                              const Fitter& fitter) {
  static constexpr long SMALL = 10000;
  const long few = problem.m * problem.n > LARGE ? 1 : 3, most = 4 * few;
  const auto clock = problem.m * problem.n > SMALL ? processor_seconds : wall_seconds;
  struct Own {
    double seconds = HUGE_VAL;
    long jacobians = 0;
  } brief, extended;
  for (auto _ : state) {
    for (auto [own, iterations] : {std::pair(&brief, few), std::pair(&extended, most)}) {
      Meter meter(problem, true);
      meter.clock = clock;
      const double before = clock();
      fitter.run(meter, iterations);
      own->seconds = std::min(own->seconds, clock() - before - meter.user_seconds);
      own->jacobians = meter.gradients;
    }
  }
  const long iterations = extended.jacobians - brief.jacobians;
  if (iterations == 0) return state.SkipWithError("no iterations");
  state.counters["own_ns"] =
      1e9 * (extended.seconds - brief.seconds) / static_cast<double>(iterations);
}

// ---- Registration -------------------------------------------------------------------------------

static void add_fits(const Group& group) {
  for (const Fit& fit : group.fits) {
    for (std::size_t k = 0; k < fitters().size(); ++k) {
      benchmark::RegisterBenchmark(
          (group.name + "/" + fitters()[k].name + "/" + fit.problem.name).c_str(),
          [&fit, k](benchmark::State& state) { show_fit(state, fit, k); })
          ->Iterations(1);
    }
  }
}

// Of large problems one method a peer: an iteration takes seconds.
static bool is_timed(const Problem& problem, const std::string& solver) {
  if (solver == "cminpack_lmdif" || solver.ends_with("_defaults")) return false;
  const bool variant = solver.starts_with("GSL_") || solver.starts_with("Ceres_");
  return problem.m * problem.n <= LARGE || !variant || solver == "GSL_lm" || solver == "Ceres_LM";
}

static void add_iterations(const Problem& problem, int times) {
  for (const Fitter& fitter : fitters()) {
    if (!is_timed(problem, fitter.name)) continue;
    benchmark::RegisterBenchmark(
        ("iteration/" + fitter.name + "/" + problem.name).c_str(),
        [&](benchmark::State& state) { measure_iteration(state, problem, fitter); })
        ->Iterations(times);
  }
}

}  // namespace tqnlp

int main(int argc, char** argv) {
  using namespace tqnlp;
  google::InitGoogleLogging(argv[0]);
  FLAGS_minloglevel = google::FATAL;
  const std::vector<Group> groups = {nist(), far_starts(1), far_starts(10), far_starts(100)};
  for (const Group& group : groups) add_fits(group);
  struct Shape {
    long m, n;
    int times;
  };
  static constexpr Shape SHAPES[] = {
      {20, 5, 2000}, {200, 10, 500}, {10000, 10, 10}, {500, 200, 5}, {100000, 50, 1}};
  std::vector<Problem> problems;
  for (const Shape& shape : SHAPES) problems.push_back(squares(shape.m, shape.n));
  for (std::size_t k = 0; k < problems.size(); ++k) add_iterations(problems[k], SHAPES[k].times);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
