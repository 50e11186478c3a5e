// tqnlp: nonlinear optimization by names. A problem is said once; options have names; one result
// holds everything.
//
//   using tqnlp::Problem;
//   const auto rosenbrock = Problem::minimize(2, [](tqnlp::Point x) {
//     return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2);
//   });
//   const tqnlp::Result found = tqnlp::solve(rosenbrock, {-1.2, 1.0});
//   if (!found.status) std::cerr << found.status.sentence() << '\n';
//
// What is wrong with a problem, a start or an option is refused before anything runs, by
// std::invalid_argument that names the field, what was given and what was expected.
//
// The user's functions get spans on the arrays of the run: no memory is taken and nothing is copied
// in an evaluation. A span is valid until the function returns. A point at which a function cannot
// be evaluated is told by a value that is not finite or by EvaluationFailed; the techniques then
// back up. Any other exception ends the run and reaches the caller of solve as the same object;
// what was found until then stands in Options::partial. Functions may call solve.
//
// Parameters and constraints are counted from 0.
#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tqnlp/statistics.hpp"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {

namespace face {
struct ProblemData;
struct Origin;
}  // namespace face

using Point = std::span<const double>;  // n parameters
using Values = std::span<double>;       // what a function fills

inline constexpr double inf = std::numeric_limits<double>::infinity();

// ---- Problems -----------------------------------------------------------------------------------

// One element of a symmetric matrix; either triangle may be given.
struct Element {
  long row = 0;
  long col = 0;
  double value = 0.0;
};

// The matrix of a quadratic. A dense one must be symmetric; elements that a sparse one names twice
// must agree.
class SymmetricMatrix {
 public:
  SymmetricMatrix(long n, std::vector<double> by_rows) : n_(n), dense_(std::move(by_rows)) {}
  SymmetricMatrix(long n, std::vector<Element> elements)
      : n_(n), elements_(std::move(elements)), sparse_(true) {}
  static SymmetricMatrix diagonal(const std::vector<double>& values);

  long order() const { return n_; }
  bool is_sparse() const { return sparse_; }
  const std::vector<double>& dense() const { return dense_; }
  const std::vector<Element>& elements() const { return elements_; }

 private:
  long n_;
  std::vector<double> dense_;
  std::vector<Element> elements_;
  bool sparse_ = false;
};

// The places of a sparse Hessian, (row, col) of one triangle. Its function fills their values in
// this order; all other elements are zero.
struct SparsePattern {
  std::vector<std::pair<long, long>> places;
};

// The coefficients of a linear row that are not zero.
struct SparseRow {
  std::vector<long> columns;
  std::vector<double> values;
};

// A problem is a value that is cheap to copy. It does not change while it is solved, so that any
// number of threads may solve one at the same time if its functions allow that. A problem that was
// moved from is refused until another one is assigned to it. A setter that is called again replaces
// what was said before, but linear() adds a row.
class Problem {
 public:
  using Objective = std::function<double(Point x)>;
  using Function = std::function<void(Point x, Values values)>;

  static Problem minimize(long n, Objective objective);
  static Problem maximize(long n, Objective objective);
  // Half the sum of the squares of m residuals is minimized.
  static Problem least_squares(long n, long m, Function residuals);
  // c + g'x + x'Hx / 2 is minimized; it need not be convex.
  static Problem quadratic(SymmetricMatrix h, std::vector<double> g = {}, double c = 0.0);

  // Derivatives; differences stand in for those that are not given. A Hessian is of use only
  // together with a gradient, a Jacobian only for least squares.
  Problem& gradient(Function body);                        // n
  Problem& hessian(Function body);                         // n x n by rows
  Problem& hessian(SparsePattern pattern, Function body);  // one value a place
  Problem& jacobian(Function body);                        // m x n by rows

  // Constraints lower <= ... <= upper; +-inf (or beyond 1.79e308) on a side where there is none,
  // and equal sides for an equality. A row with a single coefficient tightens the bounds of its
  // parameter. The functions of a problem are never called at a point outside of its bounds.
  Problem& bounds(std::vector<double> lower, std::vector<double> upper);
  Problem& bound(long parameter, double lower, double upper);
  Problem& linear(std::vector<double> a, double lower, double upper, std::string name = "");
  Problem& linear(SparseRow a, double lower, double upper, std::string name = "");
  Problem& nonlinear(std::vector<double> lower, std::vector<double> upper, Function body);
  Problem& nonlinear_jacobian(Function body);  // constraints x n by rows

  // Names for reports and messages; X1, X2, ... without them.
  Problem& names(std::vector<std::string> parameters);
  Problem& nonlinear_names(std::vector<std::string> constraints);

  long parameters() const;

  const face::ProblemData& data() const;  // for this library

 private:
  explicit Problem(std::shared_ptr<face::ProblemData> data) : data_(std::move(data)) {}
  face::ProblemData& change();

  std::shared_ptr<face::ProblemData> data_;
};

// ---- Options ------------------------------------------------------------------------------------

// Enumerator, name. docs/cpp.md tells what each is for and what it takes.
#define TQNLP_FACE_TECHNIQUES(X)                                                                 \
  X(automatic)            /* chosen by the kind of the problem; Result::technique tells which */ \
  X(trust_region)         /* Newton steps within a trust region */                               \
  X(newton_line_search)   /* Newton-Raphson with line search */                                  \
  X(newton_ridge)         /* Newton-Raphson with ridging */                                      \
  X(newton_line_search_2) /* an older form of it */                                              \
  X(quasi_newton)         /* updates of the Cholesky factor; with nonlinear constraints SQP */   \
  X(quasi_newton_inverse) /* updates of the inverse */                                           \
  X(double_dogleg)        /* quasi-Newton within a trust region */                               \
  X(conjugate_gradient)   /* no matrix at all */                                                 \
  X(levenberg_marquardt)  /* least squares */                                                    \
  X(hybrid_quasi_newton)  /* least squares with large residuals */                               \
  X(gauss_newton)         /* least squares, small residuals */                                   \
  X(nelder_mead)          /* no derivatives; bounds alone */                                     \
  X(nelder_mead_2)        /* a second form of it */                                              \
  X(cobyla)               /* no derivatives; any constraints */                                  \
  X(quadratic_active_set) /* quadratics */                                                       \
  X(quadratic_barrier)    /* quadratics */                                                       \
  X(watchdog)             /* SQP with the watchdog rule; any constraints */

enum class Technique {
#define TQNLP_ENUMERATOR(name) name,
  TQNLP_FACE_TECHNIQUES(TQNLP_ENUMERATOR)
#undef TQNLP_ENUMERATOR
};
const char* name_of(Technique technique);

enum class Differences { forward, central };

// automatic: a run counts parameters of very different sizes, and an objective far from 1, in units
// of its own, powers of two. off: in the user's units.
enum class Scaling { automatic, off };

// A look at a run after an iteration. The spans are valid until the function returns.
struct Progress {
  long iteration = 0;
  long calls = 0;  // of the objective, those for differences not counted
  double seconds = 0.0;
  double objective = 0.0;  // as the user states it
  double gradient = 0.0;   // largest element of the projected gradient, each times the unit that
                           // the run counts its parameter in; missing without one
  double violation = 0.0;  // largest of the nonlinear constraints
  Point x;
};

struct Result;

// Every field that is not set has the default of the technique.
struct Options {
  Technique technique = Technique::automatic;

  // Criteria: a run has converged when a measure is at most its tolerance; 0 is met by 0 alone.
  std::optional<double> objective_target;               // ABSCONV: the objective itself is as good
  std::optional<double> objective_tolerance;            // ABSFCONV: change of the objective
  std::optional<double> gradient_tolerance;             // ABSGCONV: largest projected gradient
  std::optional<double> step_tolerance;                 // ABSXCONV: change of the parameters
  std::optional<double> relative_objective_tolerance;   // FCONV
  std::optional<double> predicted_reduction_tolerance;  // FCONV2
  std::optional<double> relative_gradient_tolerance;    // GCONV
  std::optional<double> scaled_gradient_tolerance;      // GCONV2, of least squares
  std::optional<double> relative_step_tolerance;        // XCONV
  std::optional<double> objective_size;  // least magnitude of the objective in relative tests
  std::optional<double> parameter_size;  // and of a parameter

  // Units of the run. All that the user's functions see, and all of a result but the lines and
  // tables of its report, is in his own units; so are the criteria above, which hold there when a
  // run in other units meets them.
  Scaling scaling = Scaling::automatic;
  std::vector<double>
      scale;  // typical sizes of the parameters, above 0; empty: by start and bounds

  // Limits.
  std::optional<double> iterations;
  std::optional<double> calls;  // of the objective, those for differences not counted
  std::optional<double> seconds;

  // Differences.
  std::optional<Differences> differences;
  bool estimate_intervals = false;          // for each parameter, from the noise of the functions
  std::optional<double> objective_digits;   // decimal digits that are right in the objective
  std::optional<double> constraint_digits;  // and in the nonlinear constraints

  // Method. update: 1 BFGS, 2 DFP, 3 and 4 other forms (conjugate gradients: Powell and Beale,
  // Fletcher and Reeves, Polak and Ribiere, conjugate descent); line_search: 1 to 8, 12 for least
  // squares; scaling of Hessian or trust region: 0 to 3.
  std::optional<int> update;
  std::optional<int> line_search;
  std::optional<int> hessian_scaling;
  std::optional<int> version;
  std::optional<bool> start_from_hessian;  // quasi-Newton: from the Hessian at the start
  std::optional<double> initial_hessian;   // quasi-Newton: from this multiple of the identity
  std::optional<double> first_step;        // length, or radius, of the first step
  std::optional<double> step_damping;      // the first step of a search, relative to the last
  std::optional<double> line_search_accuracy;
  std::optional<double> restart_after;  // [iterations]
  std::optional<double> feasibility_tolerance;
  std::optional<double> singularity_tolerance;
  std::optional<double> dependence_tolerance;  // of linear constraints, 0 to 0.1

  // Around the run.
  // Compare all derivatives that the problem gives with differences at the start: the log names
  // each wrong element, Result::derivatives holds both values.
  bool check_derivatives = false;
  bool leave_saddles = false;  // within the technique: look for a better point at each stop
  bool analysis = true;        // start again where a success proves to be none; see Optimality
  bool check_result = true;    // false: nothing is evaluated after the run, and no analysis
  int report = 0;              // 0 none, 1 summary and history, up to 9
  std::function<bool(const Progress&)> progress;    // after each iteration; false stops the run
  std::function<void(std::string_view line)> sink;  // gets the lines of the report as they come
  // Where a run that an exception of a user's function ended leaves what it has found.
  Result* partial = nullptr;
};

// ---- Results ------------------------------------------------------------------------------------

// Why a run ended: enumerator, code of the run.
#define TQNLP_FACE_ENDINGS(X)   \
  X(finished, 0)                \
  X(objective_target_met, 1)    \
  X(objective_tolerance_met, 2) \
  X(gradient_tolerance_met, 3)  \
  X(step_tolerance_met, 4)      \
  X(relative_objective_met, 5)  \
  X(relative_gradient_met, 6)   \
  X(relative_step_met, 7)       \
  X(predicted_reduction_met, 8) \
  X(scaled_gradient_met, 9)     \
  X(all_parameters_active, 10)  \
  X(close_to_a_criterion, 102)  \
  X(no_value_at_start, -1)      \
  X(no_derivative_at_start, -2) \
  X(no_value, -3)               \
  X(no_derivative, -4)          \
  X(no_progress, -5)            \
  X(feasibility_lost, -6)       \
  X(start_not_feasible, -7)     \
  X(count_limit, -8)            \
  X(time_limit, -9)             \
  X(no_feasible_start, -10)     \
  X(function_failed, -11)       \
  X(stopped_by_caller, -20)     \
  X(unbounded, -22)             \
  X(interrupted_by_exception, -21)

struct Status {
  enum Ending {
#define TQNLP_ENUMERATOR(name, code) name = code,
    TQNLP_FACE_ENDINGS(TQNLP_ENUMERATOR)
#undef TQNLP_ENUMERATOR
  };
  Ending ending = finished;
  int code = 0;  // of the run, as docs/return-codes.md lists them

  // Did the run converge? What the independent check makes of it stands in Result::optimality.
  explicit operator bool() const { return code > 0 && code <= all_parameters_active; }
  const char* name() const;      // "gradient_tolerance_met"
  const char* why() const;       // the three sentences of a code: why it ended,
  const char* now() const;       // what is true now,
  const char* next() const;      // what to try
  std::string sentence() const;  // all of them
};

// A check of the point of a result that does not ask the technique. All numbers are in the units of
// the user's problem, and relative to its size there where their comments say so.
struct Optimality {
  enum Verdict {
    optimal,             // first-order conditions hold, and no negative curvature is seen
    not_feasible,        // a constraint is violated
    not_stationary,      // the gradient is not that of any active constraints of the right signs
    negative_curvature,  // the conditions of first order hold, but a direction leads on: a saddle
    not_known,           // values or derivatives could not be had there
  };
  Verdict verdict = not_known;
  double feasibility = 0.0;   // largest violation, relative to 1 + |side|, in units near x
  double stationarity = 0.0;  // largest element of gradient less multipliers times normals
  // The same as a decrease that it promises over the size of a parameter, relative to the
  // objective; differences are given their error. Where it is too much, the decrease of the
  // quadratic model decides.
  double relative_stationarity = 0.0;
  double complementarity = 0.0;  // largest product of a multiplier and the distance of its side
  bool curvature_known = false;  // was the Hessian (of the Lagrangian) for the free directions
                                 // looked at?
  int restarts = 0;              // runs that were started again because of this check
  explicit operator bool() const { return verdict == optimal; }
  std::string sentence() const;
};

// A multiplier is the change of the objective, as the user states it, for a unit change of the side
// (bound) that is active; 0 where none is. The gradient is the sum of multipliers times gradients
// of the constraints.
struct Multipliers {
  std::vector<double> bounds;  // one a parameter; missing where it is fixed and no gradient given
  std::vector<double> linear;  // one a row, also of a row that became a bound
  std::vector<double> nonlinear;  // one a constraint
};

// Which constraints hold with equality: -1 at the lower side, 1 at the upper, 2 both, 0 none.
struct ActiveSet {
  std::vector<int> bounds;
  std::vector<int> linear;
  std::vector<int> nonlinear;
};

struct Counts {
  long iterations = 0;
  long restarts = 0;   // of the technique itself
  long objective = 0;  // calls of the user's functions, all of them
  long gradient = 0;   // gradient or Jacobian
  long hessian = 0;
  long constraints = 0;
  long constraint_jacobian = 0;
  long for_differences = 0;  // of these, calls for differences
  long failed = 0;           // of these, without a value
};

// The iterations of a run, a column each.
struct History {
  std::vector<long> iteration;
  std::vector<long> calls;
  std::vector<double> objective;  // as the user states it
  std::vector<double> gradient;
  std::vector<double> violation;
  std::vector<double> step;  // length of the step along its direction, as far as there is one
};

// ---- Checks of derivatives ----------------------------------------------------------------------

enum class DerivativeKind { gradient, hessian, jacobian, constraint_jacobian };

// An element of the derivatives that a problem gives.
struct DerivativeElement {
  DerivativeKind kind = DerivativeKind::gradient;
  long row = 0;  // of what: a residual, a constraint; of a Hessian the row
  long parameter = 0;
  double given = 0.0;
  double difference = 0.0;  // the same by differences,
  double error = 0.0;       // with an estimate of their error
};

struct DerivativeCheck {
  std::vector<DerivativeElement> wrong;  // further off than the error and 1e-6 of the size explain
  long compared = 0;                     // elements
  long left_out = 0;                     // of fixed parameters, or without a value beside the point
  Table summary;                         // a row an element that is wrong
  Counts calls;                          // of the user's functions
  explicit operator bool() const { return wrong.empty(); }
};

// Compares all derivatives that a problem gives at a point (brought into the bounds) with central
// differences, Hessians with those of the gradient: 4 evaluations a parameter. Of options
// objective_digits and constraint_digits count. Throws std::invalid_argument for a point that
// cannot be meant, and what a function throws.
DerivativeCheck check_derivatives(const Problem& problem, std::vector<double> x,
                                  const Options& options = {});

// ---- Result -------------------------------------------------------------------------------------

struct Result {
  Status status;
  Technique technique = Technique::automatic;  // the one that ran
  std::vector<double> x;  // after a failure the best feasible point that was evaluated
  double objective = missing;
  std::vector<double> gradient;     // of the objective as stated; missing where it failed, and of
                                    // a fixed parameter without a gradient
  std::vector<double> residuals;    // of least squares
  std::vector<double> linear;       // values a'x of the rows
  std::vector<double> constraints;  // values of the nonlinear constraints
  Multipliers multipliers;
  ActiveSet active;
  Optimality optimality;
  DerivativeCheck derivatives;  // where Options::check_derivatives asked for it
  Counts counts;
  double seconds = 0.0;          // in all
  double seconds_in_user = 0.0;  // of these in the user's functions (sampled where they are quick)
  History history;
  std::vector<Table> tables;
  std::vector<LogRecord> log;

  // Statistics of a result that solve made; functions of the problem are called. The options of the
  // run count, but for what reports and stops it. All throw std::invalid_argument for arguments out
  // of range and for a result that is of no run, and what a user's function throws.
  //
  // Standard errors and covariance at x.
  Covariance covariance(Variance kind = Variance::automatic,
                        const Likelihood& likelihood = {}) const;
  // The Jacobian of the residuals at x, m x n by rows; missing where it cannot be had.
  std::vector<double> jacobian() const;
  // Confidence limits of all parameters: from standard errors (Wald), or of the profile likelihood,
  // each where the optimum over the other parameters has become too bad for the level.
  Limits limits(double level = 0.95, LimitKind kind = LimitKind::profile) const;
  Limits limits(const LimitOptions& options) const;
  // The profile of one parameter as far as its limits at the level.
  Profile profile(long parameter, double level = 0.99, const Likelihood& likelihood = {}) const;

  std::shared_ptr<const face::Origin> origin;  // for this library
};

// Solves a problem from a start, which need not be feasible. Throws std::invalid_argument for what
// cannot be meant, what a user's function threw, FatalError when the run could not go on.
Result solve(const Problem& problem, std::vector<double> start, const Options& options = {});

// ---- Many starts --------------------------------------------------------------------------------

// One of the points that runs from several starts led to.
struct Solution {
  Result result;             // of the first of these starts
  std::vector<long> starts;  // ascending
};

struct ManyResults {
  // The best first: solutions that pass the check of optimality, then converged runs, then feasible
  // points, each by objective and, where these are equal, by the first start.
  std::vector<Solution> solutions;
  std::vector<long> solution_of;  // one a start: its place among the solutions
  Table summary;                  // a row a solution
  const Result& best() const { return solutions.front().result; }
};

// Solves a problem from each of the starts, at least one, in so many threads (0: one a processor).
// The results do not depend on the number of threads. Runs that converged to the same point, within
// 1e-4 of 1 + the size of each parameter and 1e-6 of 1 + the size of the objective, are one
// solution. The functions of the problem are called from several threads at the same time;
// Options::progress and Options::sink are called by one thread at a time, Options::partial is not
// used. An exception of a function ends the starts behind its own and reaches the caller when the
// starts before it have ended. Throws as solve does; the message names the start.
ManyResults solve_from_many(const Problem& problem, const std::vector<std::vector<double>>& starts,
                            const Options& options = {}, int threads = 0);

// The same of results that were found elsewhere, such as by other processes: one a start.
ManyResults merge_results(std::vector<Result> results, bool maximize = false);

}  // namespace tqnlp
