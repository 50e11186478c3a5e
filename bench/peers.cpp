// Peers: dlib, GSL, NLopt and libLBFGS behind one face. Contracts in peers.h.
#include "peers.h"

#include <dlib/global_optimization.h>
#include <dlib/optimization.h>
#include <gsl/gsl_errno.h>
#include <gsl/gsl_multifit_nlinear.h>
#include <gsl/gsl_multimin.h>
#include <lbfgs.h>
#include <nlopt.h>

#include <algorithm>
#include <ctime>

#include "aasubs/record/packed.h"

namespace tqnlp::bench {

// ---- What a solver asks -------------------------------------------------------------------------

double processor_seconds() {
  std::timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// A point outside the bounds has no claim to its value.
void Meter::note(const double* x, double f) {
  static constexpr double ROUNDING = 1e-10;
  if (!(f < lowest)) return;
  for (std::size_t j = 0; j < problem.lower.size(); ++j) {
    const double slack = ROUNDING * std::max(1.0, std::fabs(x[j]));
    if (x[j] < problem.lower[j] - slack || x[j] > problem.upper[j] + slack) return;
  }
  lowest = f;
  marks.push_back({functions, calls(), f});
}

double Meter::value(const double* x) {
  ++functions;
  const double f = charge([&] { return problem.value(x); });
  note(x, f);
  return f;
}

void Meter::gradient(const double* x, double* g) {
  ++gradients;
  charge([&] { return problem.evaluate(x, g); });
}

double Meter::both(const double* x, double* g) {
  ++functions;
  ++gradients;
  const double f = charge([&] { return problem.evaluate(x, g); });
  note(x, f);
  return f;
}

void Meter::hessian(const double* x, double* h) {
  const long n = problem.n;
  ++hessians;
  std::vector<double> g(static_cast<std::size_t>(n));
  std::vector<double> packed(static_cast<std::size_t>(packed_size(n)));
  charge([&] { return problem.evaluate(x, g.data(), packed.data()); });
  const double* next = packed.data();
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) h[i * n + j] = h[j * n + i] = *next++;
  }
}

void Meter::residuals(const double* x, double* r) {
  double f = 0.0;
  ++functions;
  charge([&] {
    problem.residuals(x, r);
    return true;
  });
  for (long i = 0; i < problem.m; ++i) f += r[i] * r[i];
  note(x, f);
}

void Meter::jacobian(const double* x, double* j) {
  ++gradients;
  charge([&] {
    problem.jacobian(x, j);
    return true;
  });
}

void run(const Solver& solver, Meter& meter) {
  const double before = processor_seconds();
  solver.run(meter);
  meter.run_seconds = processor_seconds() - before;
}

// ---- Subroutines --------------------------------------------------------------------------------

Matrix criteria(Stop stop, double target) {
  const double value = std::isfinite(target) ? target : missing;
  if (stop == Stop::by_defaults) return Matrix::row({missing, missing, value});
  static constexpr double LIMIT = MOST_CALLS, LEAST = 1e-18;
  return Matrix::row({LIMIT, LIMIT, value, LEAST, missing, LEAST, LEAST});
}

static Matrix bounds_of(const Problem& p) {
  if (p.lower.empty()) return {};
  Matrix blc(2, p.n);
  for (long j = 0; j < p.n; ++j) {
    blc(0, j) = p.lower[static_cast<std::size_t>(j)];
    blc(1, j) = p.upper[static_cast<std::size_t>(j)];
  }
  return blc;
}

namespace {
struct TimeIsUp {};
}  // namespace

// The matrix that a module makes for its answer is the user's, as what stands in it.
static void define_modules(Session& tql, Meter& meter) {
  const auto look_at_clock = [&meter] {
    if (meter.time_is_up()) throw TimeIsUp();
  };
  const long n = meter.problem.n;
  tql.module("F", [&meter, look_at_clock](const Matrix& x) {
    look_at_clock();
    return Matrix::scalar(meter.value(x.data()));
  });
  tql.module("G", [&meter, look_at_clock, n](const Matrix& x) {
    look_at_clock();
    Matrix g = meter.charge([n] { return Matrix(1, n); });
    meter.gradient(x.data(), g.data());
    return g;
  });
  tql.module("H", [&meter, look_at_clock, n](const Matrix& x) {
    look_at_clock();
    Matrix h = meter.charge([n] { return Matrix(n, n); });
    meter.hessian(x.data(), h.data());
    return h;
  });
}

void run_subroutine(Meter& meter, const char* name, bool second_order, const Matrix& tc,
                    const Matrix& opt) {
  Session tql;
  define_modules(tql, meter);
  const Problem& p = meter.problem;
  std::vector<Matrix> arguments = {
      "F", Matrix::row(p.start), opt, bounds_of(p), tc, Matrix(), Matrix(), "G"};
  if (second_order && p.jet != nullptr) arguments.push_back("H");
  try {
    tql.call(name, std::move(arguments));
  } catch (const TimeIsUp&) {
  } catch (const CallError&) {
  }
  const Matrix iterations = tql.variable("_ITER_");
  if (!iterations.empty()) meter.iterations = std::lround(iterations[0]);
}

// ---- NLopt --------------------------------------------------------------------------------------

static void run_nlopt(Meter& meter, nlopt_algorithm algorithm) {
  struct Run {
    Meter* meter;
    nlopt_opt opt;
  };
  const Problem& p = meter.problem;
  nlopt_opt opt = nlopt_create(algorithm, static_cast<unsigned>(p.n));
  Run run{&meter, opt};
  nlopt_set_min_objective(
      opt,
      [](unsigned, const double* x, double* g, void* data) {
        Run& r = *static_cast<Run*>(data);
        if (r.meter->time_is_up()) nlopt_force_stop(r.opt);
        return g != nullptr ? r.meter->both(x, g) : r.meter->value(x);
      },
      &run);
  if (!p.lower.empty()) {
    nlopt_set_lower_bounds(opt, p.lower.data());
    nlopt_set_upper_bounds(opt, p.upper.data());
  }
  nlopt_set_maxeval(opt, static_cast<int>(MOST_CALLS));
  nlopt_set_ftol_rel(opt, 1e-16);
  nlopt_set_stopval(opt, meter.target);
  std::vector<double> x = p.start;
  double f = 0.0;
  nlopt_optimize(opt, x.data(), &f);
  nlopt_destroy(opt);
}

// ---- GSL ----------------------------------------------------------------------------------------

static void run_gsl(Meter& meter, const gsl_multimin_fdfminimizer_type* type) {
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
  gsl_multimin_fdfminimizer* s = gsl_multimin_fdfminimizer_alloc(type, n);
  int status = gsl_multimin_fdfminimizer_set(s, &fdf, x, FIRST_STEP, LINE_TOLERANCE);
  while (status == GSL_SUCCESS && !meter.over()) {
    status = gsl_multimin_fdfminimizer_iterate(s);
    ++meter.iterations;
  }
  gsl_multimin_fdfminimizer_free(s);
  gsl_vector_free(x);
}

// Levenberg-Marquardt as its trust region has it by default.
static void run_gsl_nlinear(Meter& meter) {
  gsl_set_error_handler_off();
  const Problem& p = meter.problem;
  const std::size_t n = static_cast<std::size_t>(p.n), m = static_cast<std::size_t>(p.m);
  gsl_multifit_nlinear_fdf fdf;
  fdf.n = m;
  fdf.p = n;
  fdf.params = &meter;
  fdf.fvv = nullptr;
  fdf.f = [](const gsl_vector* x, void* data, gsl_vector* r) {
    static_cast<Meter*>(data)->residuals(x->data, r->data);
    return static_cast<int>(GSL_SUCCESS);
  };
  fdf.df = [](const gsl_vector* x, void* data, gsl_matrix* j) {
    Meter& meter_of_run = *static_cast<Meter*>(data);
    meter_of_run.jacobian(x->data, j->data);
    return static_cast<int>(GSL_SUCCESS);
  };
  const gsl_multifit_nlinear_parameters parameters = gsl_multifit_nlinear_default_parameters();
  gsl_multifit_nlinear_workspace* w =
      gsl_multifit_nlinear_alloc(gsl_multifit_nlinear_trust, &parameters, m, n);
  const gsl_vector_const_view x = gsl_vector_const_view_array(p.start.data(), n);
  int status = gsl_multifit_nlinear_init(&x.vector, &fdf, w);
  while (status == GSL_SUCCESS && !meter.over()) {
    status = gsl_multifit_nlinear_iterate(w);
    ++meter.iterations;
  }
  gsl_multifit_nlinear_free(w);
}

// ---- dlib ---------------------------------------------------------------------------------------

using Column = dlib::matrix<double, 0, 1>;

// Ends a run when nothing changes any more, or at the target.
struct DlibStop {
  Meter* meter;
  double last = HUGE_VAL;
  template <typename ColumnLike>
  bool should_continue_search(const ColumnLike&, double f, const ColumnLike&) {
    const bool moved = f != last;
    last = f;
    ++meter->iterations;
    return moved && !meter->over();
  }
};

static Column start_of(const Problem& p) {
  Column x(p.n);
  std::copy(p.start.begin(), p.start.end(), x.begin());
  return x;
}

// It gives up at values that are not finite; the marks up to there count.
template <typename Run>
static void run_dlib(Meter& meter, Run search) {
  Column x = start_of(meter.problem);
  const auto f = [&](const Column& at) { return meter.value(&at(0)); };
  const auto g = [&](const Column& at) {
    Column result(at.size());
    meter.gradient(&at(0), &result(0));
    return result;
  };
  try {
    search(DlibStop{&meter}, f, g, x);
  } catch (const std::exception&) {
  }
}

template <typename Strategy>
static void run_dlib_line(Meter& meter, Strategy strategy) {
  run_dlib(meter, [&](DlibStop stop, auto& f, auto& g, Column& x) {
    dlib::find_min(strategy, stop, f, g, x, -HUGE_VAL);
  });
}

static void run_dlib_box(Meter& meter) {
  static constexpr double FAR = 1e20;
  const Problem& p = meter.problem;
  Column lower(p.n), upper(p.n);
  for (long j = 0; j < p.n; ++j) {
    const std::size_t k = static_cast<std::size_t>(j);
    lower(j) = p.lower.empty() ? -FAR : std::max(p.lower[k], -FAR);
    upper(j) = p.upper.empty() ? FAR : std::min(p.upper[k], FAR);
  }
  run_dlib(meter, [&](DlibStop stop, auto& f, auto& g, Column& x) {
    dlib::find_min_box_constrained(dlib::lbfgs_search_strategy(10), stop, f, g, x, lower, upper);
  });
}

// The form in which its trust region takes an objective.
struct DlibModel {
  using column_vector = Column;
  using general_matrix = dlib::matrix<double>;
  Meter* meter;
  double operator()(const Column& x) const { return meter->value(&x(0)); }
  void get_derivative_and_hessian(const Column& x, Column& g, general_matrix& h) const {
    g.set_size(x.size());
    h.set_size(x.size(), x.size());
    meter->gradient(&x(0), &g(0));
    meter->hessian(&x(0), &h(0, 0));
  }
};

static void run_dlib_trust_region(Meter& meter) {
  Column x = start_of(meter.problem);
  try {
    dlib::find_min_trust_region(DlibStop{&meter}, DlibModel{&meter}, x);
  } catch (const std::exception&) {
  }
}

// ---- libLBFGS -----------------------------------------------------------------------------------

static void run_liblbfgs(Meter& meter) {
  const Problem& p = meter.problem;
  const int n = static_cast<int>(p.n);
  lbfgs_parameter_t parameters;
  lbfgs_parameter_init(&parameters);
  parameters.epsilon = 0.0;
  double* x = lbfgs_malloc(n);
  std::copy(p.start.begin(), p.start.end(), x);
  double f = 0.0;
  lbfgs(
      n, x, &f,
      [](void* m, const double* at, double* g, const int, const double) {
        return static_cast<Meter*>(m)->both(at, g);
      },
      [](void* m, const double*, const double*, const double, const double, const double,
         const double, int, int iteration, int) {
        Meter& meter_of_run = *static_cast<Meter*>(m);
        meter_of_run.iterations = iteration;
        return meter_of_run.over() ? 1 : 0;
      },
      &meter, &parameters);
  lbfgs_free(x);
}

// ---- The list -----------------------------------------------------------------------------------

static bool unbounded(const Problem& p) { return p.lower.empty(); }
static bool any(const Problem&) { return true; }
static bool updated(const Problem& p) { return unbounded(p) && p.n <= LARGEST_UPDATED; }
static bool few(const Problem& p) { return p.n <= LARGEST_FACTORED; }
static bool has_hessian(const Problem& p) { return unbounded(p) && p.jet != nullptr; }
static bool least_squares(const Problem& p) { return unbounded(p) && p.m >= p.n; }

const std::vector<Solver>& peers() {
  static const std::vector<Solver> all = {
      {"dlib_trust_region", has_hessian, run_dlib_trust_region},
      {"GSL_nlinear_trust", least_squares, run_gsl_nlinear},
      {"dlib_bfgs", updated, [](Meter& m) { run_dlib_line(m, dlib::bfgs_search_strategy()); }},
      {"GSL_vector_bfgs2", updated,
       [](Meter& m) { run_gsl(m, gsl_multimin_fdfminimizer_vector_bfgs2); }},
      {"NLopt_LD_SLSQP", few, [](Meter& m) { run_nlopt(m, NLOPT_LD_SLSQP); }},
      {"NLopt_LD_LBFGS", any, [](Meter& m) { run_nlopt(m, NLOPT_LD_LBFGS); }},
      {"NLopt_LD_TNEWTON", any, [](Meter& m) { run_nlopt(m, NLOPT_LD_TNEWTON_PRECOND_RESTART); }},
      {"libLBFGS", unbounded, run_liblbfgs},
      {"dlib_box", any, run_dlib_box},
      {"dlib_cg", unbounded, [](Meter& m) { run_dlib_line(m, dlib::cg_search_strategy()); }},
      {"GSL_conjugate_pr", unbounded,
       [](Meter& m) { run_gsl(m, gsl_multimin_fdfminimizer_conjugate_pr); }},
  };
  return all;
}

const Solver& peer(const std::string& name) {
  return *std::find_if(peers().begin(), peers().end(),
                       [&](const Solver& solver) { return solver.name == name; });
}

// ---- Outcomes -----------------------------------------------------------------------------------

// The published minimum nearest to where a run ended.
static double published_minimum(const Meter& run) {
  const auto& minima = run.problem.minima;
  return *std::min_element(minima.begin(), minima.end(), [&](double a, double b) {
    return std::fabs(run.lowest - a) < std::fabs(run.lowest - b);
  });
}

double minimum_for(const Meter& run, const std::vector<Meter>& runs) {
  static constexpr double NEAR = 1e-4;
  const bool published = !run.problem.minima.empty();
  const double minimum = published ? published_minimum(run) : HUGE_VAL;
  double best = HUGE_VAL;
  for (const Meter& other : runs) {
    const double room = NEAR * std::max(1.0, std::fabs(minimum));
    const bool same = !published || (published_minimum(other) == minimum &&
                                     std::fabs(other.lowest - minimum) <= room);
    if (same) best = std::min(best, other.lowest);
  }
  return best < HUGE_VAL ? best : minimum;
}

const Meter::Mark* first_below(const Meter& run, double value) {
  const auto hit = std::find_if(run.marks.begin(), run.marks.end(),
                                [&](const Meter::Mark& m) { return m.lowest <= value; });
  return hit == run.marks.end() ? nullptr : &*hit;
}

}  // namespace tqnlp::bench
