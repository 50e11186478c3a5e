// Contracts in constrained_peers.h.
#include "constrained_peers.h"

#include <coin/IpStdCInterface.h>
#include <gsl/gsl_errno.h>
#include <gsl/gsl_multimin.h>
#include <nlopt.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::bench {

using Vector = std::vector<double>;

static std::size_t size(long n) { return static_cast<std::size_t>(n); }

static double wall_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Of short iterations the reading of the processor's clock would show, of long ones other work of
// the machine in the time of day.
static double seconds(const Problem& p) {
  static constexpr long LARGE = 50;
  if (p.n < LARGE) return wall_seconds();
  std::timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// ---- What a solver asks -------------------------------------------------------------------------

template <typename F>
void Counted::charge(F f) {
  const double before = timed_ ? seconds(problem) : 0.0;
  f();
  if (timed_) user_seconds += seconds(problem) - before;
}

long Counted::points() const { return std::max(functions, constraint_values); }

long Counted::calls() const { return points() + std::max(gradients, jacobians) + hessians; }

bool reaches(double f, double minimum) {
  return f - minimum <= SOLVED * std::max(1.0, std::fabs(minimum));
}

double Counted::value(const double* at) {
  ++functions;
  double f = 0.0;
  charge([&] { f = problem.value(at); });
  // The check is none of the solver's calls.
  const bool found = !timed_ && calls_until_solved == 0 && !problem.minima.empty() &&
                     reaches(f, problem.minima.front()) &&
                     problems::largest_violation(problem, at) <= SOLVED;
  if (found) calls_until_solved = calls();
  return f;
}

void Counted::gradient(const double* at, double* g) {
  ++gradients;
  charge([&] { problem.evaluate(at, g); });
}

void Counted::constraints(const double* at, double* c) {
  ++constraint_values;
  charge([&] { problem.constraint_values(at, c); });
}

void Counted::constraint_jacobian(const double* at, double* j) {
  ++jacobians;
  charge([&] { problem.constraint_jacobian(at, j); });
}

void Counted::lagrangian(const double* at, double weight, const double* multipliers,
                         double* packed) {
  ++hessians;
  charge([&] {
    const long n = problem.n, length = problems::Jet::hessian_size(n);
    problem.evaluate(at, nullptr, packed);
    for (long k = 0; k < length; ++k) packed[k] *= weight;
    if (problem.constraints == 0) return;
    std::vector<problems::Jet> point, c(size(problem.constraints));
    for (long j = 0; j < n; ++j) point.push_back(problems::Jet::variable(at[j], j, n));
    problem.constraint_jets(point.data(), c.data());
    for (const problems::Jet& jet : c) {
      for (long k = 0; k < length; ++k) packed[k] += *multipliers * jet.hessian(k);
      ++multipliers;
    }
  });
}

void run(const ConstrainedSolver& solver, Counted& counted, long iterations) {
  const double before = seconds(counted.problem);
  solver.run(counted, iterations);
  counted.run_seconds = seconds(counted.problem) - before;
}

Verdict judge(const Counted& counted) {
  const Problem& p = counted.problem;
  Verdict verdict;
  verdict.certificate = problems::certify(p, counted.x.data());
  if (p.minima.empty()) return verdict;
  const double f = p.value(counted.x.data());
  const bool feasible = verdict.certificate.violation <= SOLVED;
  verdict.solved = feasible && reaches(f, p.minima.front());
  verdict.local = feasible && !verdict.solved &&
                  std::any_of(p.minima.begin(), p.minima.end(), [f](double minimum) {
                    return reaches(f, minimum) && reaches(minimum, f);
                  });
  verdict.wrong =
      counted.claimed && !verdict.solved && !verdict.local && !verdict.certificate.holds;
  return verdict;
}

// A start within the bounds, which many solvers ask for.
static Vector start_inside(const Problem& p) {
  Vector x = p.start;
  for (std::size_t j = 0; j < p.lower.size(); ++j) x[j] = std::clamp(x[j], p.lower[j], p.upper[j]);
  return x;
}

// ---- Subroutines --------------------------------------------------------------------------------

static Matrix bounds_and_rows(const Problem& p) {
  if (p.lower.empty() && p.rows.empty()) return {};
  Matrix blc = Matrix::filled(2 + static_cast<long>(p.rows.size()), p.n + 2, missing);
  for (long j = 0; j < static_cast<long>(p.lower.size()); ++j) {
    if (p.lower[size(j)] > -problems::NONE) blc(0, j) = p.lower[size(j)];
    if (p.upper[size(j)] < problems::NONE) blc(1, j) = p.upper[size(j)];
  }
  for (long i = 0; i < static_cast<long>(p.rows.size()); ++i) {
    const problems::LinearRow& row = p.rows[size(i)];
    std::copy(row.a.begin(), row.a.end(), blc.data() + (2 + i) * (p.n + 2));
    blc(2 + i, p.n) = row.op;
    blc(2 + i, p.n + 1) = row.b;
  }
  return blc;
}

namespace {
struct TimeIsUp {};

struct Call {
  const char* name;
  double version;  // opt element 6
  bool by_defaults;
};
}  // namespace

// Tolerances that only rounding meets; of NLPNMS with constraints the last radius.
static Matrix criteria_of(const Call& call, const Problem& p, long iterations) {
  static constexpr double LIMIT = MOST_POINTS, LEAST = 1e-18, RADIUS = 1e-9;
  const bool simplex = std::string(call.name) == "NLPNMS";
  const bool constrained = p.constraints > 0 || !p.rows.empty();
  Matrix tc = Matrix::filled(1, 13, missing);
  if (!call.by_defaults || iterations > 0) {
    tc(0, 0) = tc(0, 1) = LIMIT;
    for (const long k : {3L, 4L, 5L, 6L, 7L}) tc(0, k) = k == 4 || k == 7 ? 0.0 : LEAST;
    if (simplex) tc(0, 8) = constrained ? RADIUS : LEAST;
  }
  if (iterations > 0) tc(0, 0) = static_cast<double>(iterations);
  return tc;
}

static void define_modules(Session& tql, Counted& counted) {
  const Problem& p = counted.problem;
  const double begin = wall_seconds();
  tql.module("F", [&counted, begin](const Matrix& x) {
    if (wall_seconds() - begin > MOST_SECONDS_OF_RUN) throw TimeIsUp();
    return Matrix::scalar(counted.value(x.data()));
  });
  tql.module("G", [&counted, &p](const Matrix& x) {
    Matrix g(1, p.n);
    counted.gradient(x.data(), g.data());
    return g;
  });
  tql.module("C", [&counted, &p](const Matrix& x) {
    Matrix c(1, p.constraints);
    counted.constraints(x.data(), c.data());
    return c;
  });
  tql.module("J", [&counted, &p](const Matrix& x) {
    Matrix j(p.constraints, p.n);
    counted.constraint_jacobian(x.data(), j.data());
    return j;
  });
}

// A call that is refused or fails claims nothing, and ends where it started.
static void call_subroutine(const Call& call, Counted& counted, long iterations) {
  const Problem& p = counted.problem;
  const bool simplex = std::string(call.name) == "NLPNMS";
  Session tql;
  define_modules(tql, counted);
  Matrix opt = Matrix::filled(1, 11, missing);
  opt(0, 5) = call.version;
  opt(0, 9) = static_cast<double>(p.constraints);
  opt(0, 10) = static_cast<double>(p.equalities);
  std::vector<Matrix> arguments = {"F",
                                   Matrix::row(p.start),
                                   opt,
                                   bounds_and_rows(p),
                                   criteria_of(call, p, iterations),
                                   Matrix(),
                                   Matrix()};
  if (!simplex) arguments.emplace_back("G");
  if (p.constraints > 0) arguments.emplace_back("C");
  if (p.constraints > 0 && !simplex) arguments.emplace_back("J");
  try {
    const std::vector<Matrix> results = tql.call(call.name, arguments);
    counted.claimed = results[0][0] > 0.0;
    counted.x = results[1].values();
  } catch (const TimeIsUp&) {
  } catch (const CallError&) {
    counted.refused = true;
  } catch (const FatalError&) {
  }
  const Matrix count = tql.variable("_ITER_");
  if (!count.empty()) counted.iterations = std::lround(count[0]);
}

const std::vector<ConstrainedSolver>& constrained_subroutines() {
  static const std::vector<ConstrainedSolver> all = [] {
    std::vector<ConstrainedSolver> list;
    const auto add = [&](const std::string& name, Call call) {
      list.push_back(
          {name, [](const Problem&) { return true; },
           [call](Counted& c, long iterations) { call_subroutine(call, c, iterations); }});
    };
    for (const bool by_defaults : {true, false}) {
      const std::string end = by_defaults ? "_defaults" : "";
      add("NLPQN" + end, {"NLPQN", missing, by_defaults});
      add("NLPQN_1" + end, {"NLPQN", 1, by_defaults});
      add("NLPVMC" + end, {"NLPVMC", missing, by_defaults});
      add("NLPNMS" + end, {"NLPNMS", missing, by_defaults});
    }
    return list;
  }();
  return all;
}

// ---- NLopt --------------------------------------------------------------------------------------

static void linear_values(const Problem& p, bool equality, const double* x, double* result,
                          double* gradient) {
  for (const problems::LinearRow& row : p.rows) {
    if ((row.op == 0) != equality) continue;
    const double sign = row.op == 1 ? -1.0 : 1.0;  // it takes c <= 0
    double sum = -row.b;
    for (std::size_t j = 0; j < row.a.size(); ++j) {
      sum += row.a[j] * x[j];
      if (gradient != nullptr) *gradient++ = sign * row.a[j];
    }
    *result++ = sign * sum;
  }
}

// It asks for equalities and inequalities apart; of a point that was just asked for both come from
// one call of ours.
namespace {
struct NloptRun {
  explicit NloptRun(Counted& c) : counted(c) {}

  const Vector& values_at(const double* x) {
    const Problem& p = counted.problem;
    if (!std::equal(at.begin(), at.end(), x) || at.empty()) {
      at.assign(x, x + p.n);
      values.resize(size(p.constraints));
      counted.constraints(x, values.data());
      jacobian.clear();
    }
    return values;
  }
  const Vector& jacobian_at(const double* x) {
    const Problem& p = counted.problem;
    values_at(x);
    if (jacobian.empty()) {
      jacobian.resize(size(p.constraints * p.n));
      counted.constraint_jacobian(x, jacobian.data());
    }
    return jacobian;
  }

  Counted& counted;
  Vector at, values, jacobian;
};
}  // namespace

template <bool EQUALITY>
static void nonlinear_for_nlopt(unsigned m, double* result, unsigned n, const double* x,
                                double* gradient, void* data) {
  NloptRun& run_of = *static_cast<NloptRun*>(data);
  const std::size_t first = EQUALITY ? 0 : size(run_of.counted.problem.equalities);
  const double sign = EQUALITY ? 1.0 : -1.0;
  const Vector& values = run_of.values_at(x);
  for (std::size_t i = 0; i < m; ++i) result[i] = sign * values[first + i];
  if (gradient == nullptr) return;
  const Vector& jacobian = run_of.jacobian_at(x);
  for (std::size_t k = 0; k < std::size_t{m} * n; ++k) {
    gradient[k] = sign * jacobian[first * n + k];
  }
}

template <bool EQUALITY>
static void linear_for_nlopt(unsigned, double* result, unsigned, const double* x, double* gradient,
                             void* data) {
  linear_values(static_cast<NloptRun*>(data)->counted.problem, EQUALITY, x, result, gradient);
}

static void add_constraints(nlopt_opt opt, NloptRun& data) {
  static constexpr double TOLERANCE = 1e-8;
  const Problem& p = data.counted.problem;
  const auto rows = [&p](bool equality) {
    return std::count_if(p.rows.begin(), p.rows.end(),
                         [=](const auto& row) { return (row.op == 0) == equality; });
  };
  const auto add = [&](auto adder, long m, nlopt_mfunc f) {
    const Vector tolerances(size(m), TOLERANCE);
    if (m > 0) adder(opt, static_cast<unsigned>(m), f, &data, tolerances.data());
  };
  add(nlopt_add_equality_mconstraint, p.equalities, nonlinear_for_nlopt<true>);
  add(nlopt_add_inequality_mconstraint, p.constraints - p.equalities, nonlinear_for_nlopt<false>);
  add(nlopt_add_equality_mconstraint, rows(true), linear_for_nlopt<true>);
  add(nlopt_add_inequality_mconstraint, rows(false), linear_for_nlopt<false>);
}

static void run_nlopt(Counted& counted, nlopt_algorithm algorithm, long iterations) {
  static constexpr double LEAST = 1e-15, INNER = 1e-10;
  const Problem& p = counted.problem;
  nlopt_opt opt = nlopt_create(algorithm, static_cast<unsigned>(p.n));
  NloptRun data(counted);
  nlopt_set_min_objective(
      opt,
      [](unsigned, const double* x, double* g, void* run_of) {
        Counted& c = static_cast<NloptRun*>(run_of)->counted;
        if (g != nullptr) c.gradient(x, g);
        return c.value(x);
      },
      &data);
  if (!p.lower.empty()) {
    nlopt_set_lower_bounds(opt, p.lower.data());
    nlopt_set_upper_bounds(opt, p.upper.data());
  }
  add_constraints(opt, data);
  nlopt_set_maxeval(opt, static_cast<int>(iterations > 0 ? iterations : MOST_POINTS));
  nlopt_set_maxtime(opt, MOST_SECONDS_OF_RUN);
  nlopt_set_ftol_rel(opt, LEAST);
  nlopt_set_xtol_rel(opt, LEAST);
  if (algorithm == NLOPT_AUGLAG) {
    nlopt_opt inner = nlopt_create(NLOPT_LD_LBFGS, static_cast<unsigned>(p.n));
    nlopt_set_ftol_rel(inner, INNER);
    nlopt_set_xtol_rel(inner, INNER);
    nlopt_set_maxeval(inner, 1000);
    nlopt_set_local_optimizer(opt, inner);
    nlopt_destroy(inner);
  }
  counted.x = start_inside(p);
  double f = 0.0;
  const nlopt_result result = nlopt_optimize(opt, counted.x.data(), &f);
  counted.claimed =
      result > 0 && result != NLOPT_MAXEVAL_REACHED && result != NLOPT_MAXTIME_REACHED;
  nlopt_destroy(opt);
}

// ---- Ipopt --------------------------------------------------------------------------------------

// Nonlinear constraints first, then the rows, all gradients dense.
static Counted& counted_of(void* data) { return *static_cast<Counted*>(data); }

static Bool ipopt_value(Index, ::Number* x, Bool, ::Number* f, void* data) {
  *f = counted_of(data).value(x);
  return std::isfinite(*f) ? 1 : 0;
}

static Bool ipopt_gradient(Index, ::Number* x, Bool, ::Number* g, void* data) {
  counted_of(data).gradient(x, g);
  return 1;
}

static Bool ipopt_constraints(Index n, ::Number* x, Bool, Index, ::Number* c, void* data) {
  Counted& counted = counted_of(data);
  const Problem& p = counted.problem;
  if (p.constraints > 0) counted.constraints(x, c);
  for (std::size_t i = 0; i < p.rows.size(); ++i) {
    double sum = 0.0;
    for (Index j = 0; j < n; ++j) sum += p.rows[i].a[size(j)] * x[j];
    c[size(p.constraints) + i] = sum;
  }
  return std::all_of(c, c + p.constraints, [](double v) { return std::isfinite(v); }) ? 1 : 0;
}

static Bool ipopt_jacobian(Index n, ::Number* x, Bool, Index m, Index, Index* row, Index* column,
                           ::Number* values, void* data) {
  Counted& counted = counted_of(data);
  const Problem& p = counted.problem;
  if (values == nullptr) {
    for (Index k = 0; k < m * n; ++k) {
      row[k] = k / n;
      column[k] = k % n;
    }
    return 1;
  }
  if (p.constraints > 0) counted.constraint_jacobian(x, values);
  values += p.constraints * n;
  for (const problems::LinearRow& linear : p.rows) {
    values = std::copy(linear.a.begin(), linear.a.end(), values);
  }
  return 1;
}

static Bool ipopt_hessian(Index n, ::Number* x, Bool, ::Number weight, Index, ::Number* multipliers,
                          Bool, Index, Index* row, Index* column, ::Number* values, void* data) {
  if (values != nullptr) {
    counted_of(data).lagrangian(x, weight, multipliers, values);
    return 1;
  }
  for (Index i = 0; i < n; ++i) {
    for (Index j = 0; j <= i; ++j) {
      *row++ = i;
      *column++ = j;
    }
  }
  return 1;
}

static Bool ipopt_iteration(Index, Index iteration, ::Number, ::Number, ::Number, ::Number,
                            ::Number, ::Number, ::Number, ::Number, Index, void* data) {
  Counted& counted = counted_of(data);
  counted.iterations = iteration;
  return counted.functions < MOST_POINTS ? 1 : 0;
}

static void run_ipopt(Counted& counted, bool exact, long iterations) {
  static constexpr double FAR = 2e19, TOLERANCE = 1e-9;
  const Problem& p = counted.problem;
  Vector lower(size(p.n), -FAR), upper(size(p.n), FAR), below, above;
  for (std::size_t j = 0; j < p.lower.size(); ++j) {
    lower[j] = std::max(p.lower[j], -FAR);
    upper[j] = std::min(p.upper[j], FAR);
  }
  for (long i = 0; i < p.constraints; ++i) {
    below.push_back(0.0);
    above.push_back(i < p.equalities ? 0.0 : FAR);
  }
  for (const problems::LinearRow& row : p.rows) {
    below.push_back(row.op == -1 ? -FAR : row.b);
    above.push_back(row.op == 1 ? FAR : row.b);
  }
  const Index n = static_cast<Index>(p.n), m = static_cast<Index>(below.size());
  IpoptProblem nlp = CreateIpoptProblem(
      n, lower.data(), upper.data(), m, below.data(), above.data(), m * n, n * (n + 1) / 2, 0,
      ipopt_value, ipopt_constraints, ipopt_gradient, ipopt_jacobian, ipopt_hessian);
  const auto text = [&](std::string name, std::string value) {
    AddIpoptStrOption(nlp, name.data(), value.data());
  };
  const auto number = [&](std::string name, double value) {
    AddIpoptNumOption(nlp, name.data(), value);
  };
  const auto integer = [&](std::string name, int value) {
    AddIpoptIntOption(nlp, name.data(), value);
  };
  integer("print_level", 0);
  text("sb", "yes");
  if (!exact) text("hessian_approximation", "limited-memory");
  number("tol", TOLERANCE);
  number("constr_viol_tol", TOLERANCE);
  number("bound_relax_factor", 0.0);
  number("max_cpu_time", MOST_SECONDS_OF_RUN);
  integer("max_iter", static_cast<int>(iterations > 0 ? iterations : MOST_POINTS));
  SetIntermediateCallback(nlp, ipopt_iteration);
  counted.x = p.start;
  double f = 0.0;
  const auto status =
      IpoptSolve(nlp, counted.x.data(), nullptr, &f, nullptr, nullptr, nullptr, &counted);
  counted.claimed = status == Solve_Succeeded || status == Solved_To_Acceptable_Level;
  FreeIpoptProblem(nlp);
}

// ---- GSL ----------------------------------------------------------------------------------------

static void run_gsl_simplex(Counted& counted, long) {
  static constexpr double FIRST = 1.0, LEAST = 1e-10;  // the size of the simplex
  gsl_set_error_handler_off();
  const std::size_t n = size(counted.problem.n);
  gsl_multimin_function f{};
  f.n = n;
  f.params = &counted;
  f.f = [](const gsl_vector* x, void* data) { return counted_of(data).value(x->data); };
  gsl_vector* x = gsl_vector_alloc(n);
  gsl_vector* steps = gsl_vector_alloc(n);
  std::copy(counted.x.begin(), counted.x.end(), x->data);
  gsl_vector_set_all(steps, FIRST);
  gsl_multimin_fminimizer* s = gsl_multimin_fminimizer_alloc(gsl_multimin_fminimizer_nmsimplex2, n);
  int status = gsl_multimin_fminimizer_set(s, &f, x, steps);
  while (status == GSL_SUCCESS && !counted.claimed && counted.functions < MOST_POINTS) {
    status = gsl_multimin_fminimizer_iterate(s);
    ++counted.iterations;
    counted.claimed = gsl_multimin_fminimizer_size(s) < LEAST;
  }
  std::copy(s->x->data, s->x->data + n, counted.x.begin());
  gsl_multimin_fminimizer_free(s);
  gsl_vector_free(steps);
  gsl_vector_free(x);
}

// ---- The list -----------------------------------------------------------------------------------

static bool any(const Problem&) { return true; }
static bool bounds_only(const Problem& p) { return p.rows.empty() && p.constraints == 0; }
static bool unconstrained(const Problem& p) { return bounds_only(p) && p.lower.empty(); }
static bool no_equalities(const Problem& p) {
  return p.equalities == 0 &&
         std::none_of(p.rows.begin(), p.rows.end(), [](const auto& row) { return row.op == 0; });
}

const std::vector<ConstrainedSolver>& constrained_peers() {
  const auto nlopt = [](nlopt_algorithm algorithm) {
    return [algorithm](Counted& c, long iterations) { run_nlopt(c, algorithm, iterations); };
  };
  const auto ipopt = [](bool exact) {
    return [exact](Counted& c, long iterations) { run_ipopt(c, exact, iterations); };
  };
  static const std::vector<ConstrainedSolver> all = {
      {"NLopt_LD_SLSQP", any, nlopt(NLOPT_LD_SLSQP)},
      {"NLopt_LD_MMA", no_equalities, nlopt(NLOPT_LD_MMA)},
      {"NLopt_AUGLAG_LBFGS", any, nlopt(NLOPT_AUGLAG)},
      {"Ipopt_exact", any, ipopt(true)},
      {"Ipopt_limited_memory", any, ipopt(false)},
      // Without any constraint it circles for ever on one of More, Garbow and Hillstrom.
      {"NLopt_LN_COBYLA", [](const Problem& p) { return !unconstrained(p); },
       nlopt(NLOPT_LN_COBYLA)},
      {"NLopt_LN_BOBYQA", bounds_only, nlopt(NLOPT_LN_BOBYQA)},
      {"NLopt_LN_NELDERMEAD", bounds_only, nlopt(NLOPT_LN_NELDERMEAD)},
      {"NLopt_LN_SBPLX", bounds_only, nlopt(NLOPT_LN_SBPLX)},
      {"GSL_nmsimplex2", unconstrained, run_gsl_simplex},
  };
  return all;
}

}  // namespace tqnlp::bench
