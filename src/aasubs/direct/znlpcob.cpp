// znlpcob: Constrained Optimization BY Linear Approximations (COBYLA), the form of technique 14
// (NMSIMP) for nonlinear and linear constraints.
//
// Model      objective and all constraints c_i(x) >= 0 by linear interpolation at the n + 1
//            vertices of a simplex. Steps are judged by the merit function
//            phi = f + parmu max(0, max_i -c_i), whose penalty parmu rises as steps need it and
//            falls with the radius
// Reference  Powell (1994), A direct search optimization method that models the objective and
//            constraint functions by linear interpolation, in Advances in Optimization and
//            Numerical Analysis, 51-67. Beyond it the radius may also grow, after steps that
//            the models predicted well
// Reads      salf (first radius), axtl (last radius), atol, imax, maxf, bounds, linear and
//            nonlinear constraints as ntco inequalities
// Writes     x, crit, cmax, gmax (the penalty), pred (phi), cold (phi of the stage before), rhor
//            (the radius), fcon, counters
// Work       wrk2 = edges of the simplex (n rows of n), base (n) | inverse (n rows of n) | models
//            (ntco + 1 rows of n) | sigma (n) | eta (n) | sigma along a step (n) | trstlp;
//            jcon = for each vertex the constraints, f and the largest violation, the base last;
//            sdir = step | iact, liwk of trstlp | awrk = constraint row
// Ends       codes of uster; -1 no evaluable simplex, -3 a step failed at the last radius, -5 the
//            simplex collapsed or the radius cannot reach axtl, -8 too many calls
//
//   1  a stage starts: a simplex of the present radius at x
//   2  the best vertex becomes the base; models; is the simplex well shaped?
//   3  a step of the models within the radius, judged by phi; or
//   4  a step that mends the shape of the simplex
//   5  nothing is gained any more and the simplex is good: termination test, smaller radius
//
// Row j of the edges is vertex j less the base, row i of the inverse has the product 1 with edge i
// and 0 with the others. sigma_i = 1 / |row i| is the distance of vertex i from the face of the
// others, eta_i = |edge i|.
#include "aasubs/direct/znlpcob.h"

#include <algorithm>
#include <cmath>

#include "aasubs/direct/znlpcob_step.h"
#include "aasubs/loop/loads.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

// Shape of a simplex, in radii: heights are at least the first, edges at most the second.
static constexpr double LEAST_HEIGHT = 0.25;
static constexpr double LONGEST_EDGE = 2.1;

// Radii stay below it, so that their squares, and those of points that far out, can be formed.
static constexpr double LARGEST_RADIUS = 1e20;

struct CobylaRun {
  long n = 0, m = 0;
  double* edges = nullptr;  // n rows; the base follows as row n
  double* base = nullptr;
  double* inverse = nullptr;
  double* models = nullptr;  // gradients of the constraints; last the negative of the objective's
  double* sigma = nullptr;
  double* eta = nullptr;
  double* reach = nullptr;  // sigma that each vertex would have with the step in its place
  double* step_work = nullptr;
  double rho = 0.0;
  double rhoend = 0.0;
  double atol = 0.0;        // level of the objective that is minimized
  double parmu = 0.0;       // penalty
  long vertices = 0;        // vertices of this stage that are evaluated, besides the base
  bool base_known = false;  // the base has values
  bool acceptable = false;  // shape of the simplex
  bool take_step = true;    // ibrnch: a step of the models is due whatever the shape
  int ij = 0;               // code in hand
};

long cobyla_work(long n, long m) {
  return n * (n + 1) + n * n + (m + 1) * n + 3 * n + trust_step_work(n, m);
}

long cobyla_values(long n, long m) { return (n + 1) * (m + 2); }

static CobylaRun divide_work(MINSTR* str) {
  CobylaRun run;
  run.n = str->nvar;
  run.m = str->ntco;
  run.edges = str->wrk2;
  run.base = run.edges + run.n * run.n;
  run.inverse = run.base + run.n;
  run.models = run.inverse + run.n * run.n;
  run.sigma = run.models + (run.m + 1) * run.n;
  run.eta = run.sigma + run.n;
  run.reach = run.eta + run.n;
  run.step_work = run.reach + run.n;
  return run;
}

// ---- Evaluations --------------------------------------------------------------------------------

// Values of vertex j, the base for j = n: m constraints, objective, largest violation.
static double* values(const MINSTR* str, const CobylaRun& run, long j) {
  return str->jcon + j * (run.m + 2);
}

static double objective(const MINSTR* str, const CobylaRun& run, long j) {
  return values(str, run, j)[run.m];
}

static double violation(const MINSTR* str, const CobylaRun& run, long j) {
  return values(str, run, j)[run.m + 1];
}

static double merit(const MINSTR* str, const CobylaRun& run, long j) {
  return objective(str, run, j) + run.parmu * violation(str, run, j);
}

// All constraints at x as values of inequalities, behind the nonlinear ones that stand in fcon:
// bounds, linear rows, and the opposites of the nonlinear equalities.
static void collect_constraints(MINSTR* str) {
  long k = str->nnlc;
  const auto add = [&](double value) {
    if (k >= str->ntco) xexit(EXIT_INCONSISTENT, 0);
    str->fcon[k++] = value;
  };
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (lower_exists(str->lb[j])) add(str->x[j] - str->lb[j]);
    if (upper_exists(str->ub[j])) add(str->ub[j] - str->x[j]);
  }
  for (long i = 0; str->lincon != 0 && i < str->ncon; ++i) {
    str->acget(str, i, str->awrk);
    const double value = zvdot11(str->nvar, str->awrk, str->x) - str->blcn[i];
    add(value);
    if (i < str->neqc) add(-value);
  }
  for (long i = 0; i < str->nlec; ++i) add(-str->fcon[i]);
  if (k != str->ntco) xexit(EXIT_INCONSISTENT, 0);
}

// Objective and constraints at x: crit, fcon, cmax. Returns 0, or 1 when an evaluation failed.
static int calfun(MINSTR* str) {
  if (!evaluate_objective(str)) return 1;
  if (str->usnlc != nullptr && (str->usnlc(str) != 0 || str->tbig != 0.0)) return 1;
  collect_constraints(str);
  str->cmax = 0.0;
  if (!std::isfinite(str->crit)) str->tbig = 1.0;
  for (long k = 0; k < str->ntco; ++k) {
    if (!std::isfinite(str->fcon[k])) str->tbig = 1.0;
    str->cmax = std::max(str->cmax, -str->fcon[k]);
  }
  return str->tbig == 0.0 ? 0 : 1;
}

// The values at x become those of vertex j.
static void store_values(MINSTR* str, const CobylaRun& run, long j) {
  double* place = values(str, run, j);
  std::copy_n(str->fcon, run.m, place);
  place[run.m] = str->crit;
  place[run.m + 1] = str->cmax;
}

// x, objective and constraints of the record become those of the base.
static void show_base(MINSTR* str, const CobylaRun& run) {
  std::copy_n(run.base, run.n, str->x);
  if (!run.base_known) {
    str->crit = str->cold;
    return;
  }
  std::copy_n(values(str, run, run.n), run.m, str->fcon);
  str->crit = objective(str, run, run.n);
  str->cmax = violation(str, run, run.n);
}

// ---- The simplex --------------------------------------------------------------------------------

// Vertex best becomes the base, and the base takes its place. Only the vertices of this stage that
// are evaluated are measured from the base; the later ones are still the axes of the start.
static void swap_base(MINSTR* str, CobylaRun& run, long best) {
  const long n = run.n;
  double* edge = run.edges + best * n;
  double* row = run.inverse + best * n;
  zvxay11(n, run.base, 1.0, edge);
  for (long j = 0; j < run.vertices; ++j) {
    if (j == best) continue;
    zvxay11(n, run.edges + j * n, -1.0, edge);
    zvxay11(n, row, 1.0, run.inverse + j * n);
  }
  zvscl11(n, edge, -1.0);
  zvscl11(n, row, -1.0);
  std::swap_ranges(values(str, run, best), values(str, run, best) + run.m + 2, values(str, run, n));
}

// Index of the vertex with the lowest merit, n for the base, and that merit in *phimin. Without a
// penalty the smaller violation decides among equals.
static long getbest(const MINSTR* str, const CobylaRun& run, double parmu, double* phimin) {
  long best = run.n;
  *phimin = objective(str, run, best) + parmu * violation(str, run, best);
  for (long j = 0; j < run.vertices; ++j) {
    const double phi = objective(str, run, j) + parmu * violation(str, run, j);
    const bool tie = phi == *phimin && parmu == 0.0;
    if (phi < *phimin || (tie && violation(str, run, j) < violation(str, run, best))) {
      best = j;
      *phimin = phi;
    }
  }
  return best;
}

static void make_best_the_base(MINSTR* str, CobylaRun& run) {
  const long best = getbest(str, run, run.parmu, &str->pred);
  if (best < run.n) swap_base(str, run, best);
  str->gmax = run.parmu;
  show_base(str, run);
}

// Edge j becomes the given one; the caller moves the vertex's values. Needs a product of the edge
// with row j that is not zero.
static void replace_edge(CobylaRun& run, long j, const double* edge) {
  const long n = run.n;
  double* row = run.inverse + j * n;
  std::copy_n(edge, n, run.edges + j * n);
  zvscl11(n, row, 1.0 / zvdot11(n, row, edge));
  for (long i = 0; i < n; ++i) {
    if (i == j) continue;
    double* other = run.inverse + i * n;
    zvxay11(n, other, -zvdot11(n, other, edge), row);
  }
}

// Rounding in the updates of the inverse must not spoil the models: a step of Newton's method
// corrects the rows in which it shows. False: they are too far off for that, because the simplex
// has collapsed.
static bool inverse_is_good(CobylaRun& run) {
  static constexpr double LARGEST_ERROR = 0.1;
  static constexpr double NOTICEABLE = 1e-11;
  double* error = run.reach;
  for (long i = 0; i < run.n; ++i) {
    double* row = run.inverse + i * run.n;
    double largest = 0.0;
    for (long j = 0; j < run.n; ++j) {
      error[j] = zvdot11(run.n, row, run.edges + j * run.n) - (i == j ? 1.0 : 0.0);
      if (!(std::fabs(error[j]) <= LARGEST_ERROR)) return false;
      largest = std::max(largest, std::fabs(error[j]));
    }
    for (long j = 0; largest > NOTICEABLE && j < run.n; ++j) {
      zvxay11(run.n, row, -error[j], run.inverse + j * run.n);
    }
  }
  return true;
}

// Evaluates x, the base or vertex j for the present stage; the base is swapped when it is better.
static bool evaluate_vertex(MINSTR* str, CobylaRun& run, long j) {
  if (calfun(str) != 0) return false;
  store_values(str, run, j);
  if (j == run.n) {
    run.base_known = true;
    return true;
  }
  run.vertices = j + 1;
  const bool tie = merit(str, run, j) == merit(str, run, run.n) && run.parmu == 0.0;
  if (merit(str, run, j) < merit(str, run, run.n) ||
      (tie && violation(str, run, j) < violation(str, run, run.n))) {
    swap_base(str, run, j);
  }
  return true;
}

// The simplex of the present radius at the base. False: an evaluation failed.
static bool build_simplex(MINSTR* str, CobylaRun& run) {
  const long n = run.n;
  std::fill_n(run.edges, n * n, 0.0);
  std::fill_n(run.inverse, n * n, 0.0);
  for (long j = 0; j < n; ++j) {
    run.edges[j * n + j] = run.rho;
    run.inverse[j * n + j] = 1.0 / run.rho;
  }
  run.vertices = 0;
  std::copy_n(run.base, n, str->x);
  if (!evaluate_vertex(str, run, n)) return false;
  for (long j = 0; j < n; ++j) {
    zvaxpy(str->x, run.edges + j * n, run.base, n, 1.0);
    if (!evaluate_vertex(str, run, j)) return false;
  }
  return true;
}

// ---- Stages -------------------------------------------------------------------------------------

// The stage starts over at the best vertex with half the radius, or ends the run with the code.
static Next evaluation_failed(MINSTR* str, CobylaRun& run, int code) {
  show_base(str, run);
  if (run.rho > run.rhoend) {
    run.rho *= 0.5;
    return Next::restart;
  }
  run.ij = code;
  return Next::leave;
}

static Next start_stage(MINSTR* str, CobylaRun& run) {
  open_restart(str);
  std::copy_n(str->x, run.n, run.base);
  std::copy_n(str->x, run.n, str->xold);
  str->rhor = run.rho;
  if (!build_simplex(str, run)) return evaluation_failed(str, run, -1);
  make_best_the_base(str, run);
  run.take_step = true;
  return Next::go_on;
}

static bool level_reached(const MINSTR* str, const CobylaRun& run) { return str->crit <= run.atol; }

// A smaller radius needs a smaller penalty: one that does what the spread of the objective over the
// simplex asks for, against the spread of those constraints that the simplex sees nearly met.
static void reduce_penalty(const MINSTR* str, CobylaRun& run) {
  if (!(run.parmu > 0.0)) return;
  double low = 0.0, high = 0.0;
  const auto range = [&](long k) {
    low = high = values(str, run, run.n)[k];
    for (long j = 0; j < run.n; ++j) {
      low = std::min(low, values(str, run, j)[k]);
      high = std::max(high, values(str, run, j)[k]);
    }
  };
  double least = 0.0;
  for (long k = 0; k < run.m; ++k) {
    range(k);
    if (!(low < 0.5 * high)) continue;
    const double spread = std::max(high, 0.0) - low;
    if (spread > 0.0 && (least == 0.0 || spread < least)) least = spread;
  }
  range(run.m);
  if (least == 0.0) {
    run.parmu = 0.0;
  } else if (high - low <= run.parmu * least) {
    run.parmu = (high - low) / least;
  }
}

// The radius has done what it can. A stage that changed the merit, and the last one, is an
// iteration of the report.
static Next reduce_radius(MINSTR* str, CobylaRun& run) {
  static constexpr double NEARLY_LAST = 1.5;
  static constexpr double FAST = 4.0;
  make_best_the_base(str, run);
  str->rhor = run.rho;
  const bool changed = str->cold != str->pred;
  if (run.rho <= NEARLY_LAST * run.rhoend || changed || level_reached(str, run)) {
    str->nitr += 1.0;
    ++str->itre;
    run.ij = str->uster(str, TEST_ITERATION);
    if (run.ij == STOP_OVERRULED) return Next::restart;
    if (run.ij != 0) return Next::stop;
    // axtl may be below every radius that can be told from rounding.
    if (run.rho <= run.rhoend && run.rho > str->axtl) {
      run.ij = NO_PROGRESS;
      return Next::leave;
    }
    str->cold = str->pred;
    std::copy_n(str->x, run.n, str->xold);
  }
  const double before = run.rho;
  if (changed) {
    run.rho = run.rho <= NEARLY_LAST * run.rhoend ? run.rhoend : 0.5 * run.rho;
  } else {
    run.rho = run.rho <= FAST * run.rhoend ? run.rhoend : run.rho / FAST;
  }
  if (run.rho < before) reduce_penalty(str, run);
  run.take_step = true;
  return Next::go_on;
}

// A step that gained nothing: mend the simplex, or reduce the radius when it is in good shape.
static Next no_gain(MINSTR* str, CobylaRun& run) {
  if (run.acceptable) return reduce_radius(str, run);
  run.take_step = false;
  return Next::go_on;
}

// ---- Models and shape ---------------------------------------------------------------------------

static void form_models(const MINSTR* str, CobylaRun& run) {
  const double* at_base = values(str, run, run.n);
  std::fill_n(run.models, (run.m + 1) * run.n, 0.0);
  for (long k = 0; k <= run.m; ++k) {
    const double sign = k == run.m ? -1.0 : 1.0;
    for (long j = 0; j < run.n; ++j) {
      const double slope = sign * (values(str, run, j)[k] - at_base[k]);
      if (slope != 0.0) zvxay11(run.n, run.models + k * run.n, slope, run.inverse + j * run.n);
    }
  }
}

static void judge_shape(CobylaRun& run) {
  run.acceptable = true;
  for (long j = 0; j < run.n; ++j) {
    run.sigma[j] = 1.0 / zvenorm(run.n, 1, run.inverse + j * run.n);
    run.eta[j] = zvenorm(run.n, 1, run.edges + j * run.n);
    if (run.sigma[j] < LEAST_HEIGHT * run.rho || run.eta[j] > LONGEST_EDGE * run.rho) {
      run.acceptable = false;
    }
  }
}

// Largest violation of the models at base + sign step.
static double model_violation(const MINSTR* str, const CobylaRun& run, const double* step,
                              double sign) {
  const double* at_base = values(str, run, run.n);
  double largest = 0.0;
  for (long k = 0; k < run.m; ++k) {
    const double change = sign * zvdot11(run.n, run.models + k * run.n, step);
    largest = std::max(largest, -(at_base[k] + change));
  }
  return largest;
}

static double model_gain(const CobylaRun& run, const double* step) {
  return zvdot11(run.n, run.models + run.m * run.n, step);
}

// Technique 14 looks at its limit of calls between stages only; a stage may go this far beyond.
static bool calls_exhausted(const MINSTR* str) {
  static constexpr double BEYOND = 5.0;
  return static_cast<double>(str->nfct) >= str->maxf + BEYOND * static_cast<double>(str->nvar);
}

// The vertex that spoils the shape moves to a point near the base, square to the face of the others
// and on the side of the smaller merit.
static Next mend_shape(MINSTR* str, CobylaRun& run) {
  static constexpr double NEW_HEIGHT = 0.5;
  if (calls_exhausted(str)) {
    run.ij = COUNT_LIMIT;
    return Next::leave;
  }
  const double* sigma = run.sigma;
  const double* eta = run.eta;
  long leaving = std::max_element(eta, eta + run.n) - eta;
  if (!(eta[leaving] > LONGEST_EDGE * run.rho)) {
    leaving = std::min_element(sigma, sigma + run.n) - sigma;
  }
  double* step = str->sdir;
  zvz111(run.n, step, NEW_HEIGHT * run.rho * sigma[leaving], run.inverse + leaving * run.n);
  const double plus = model_violation(str, run, step, 1.0);
  const double minus = model_violation(str, run, step, -1.0);
  if (run.parmu * (plus - minus) > 2.0 * model_gain(run, step)) zvscl11(run.n, step, -1.0);

  zvaxpy(str->x, step, run.base, run.n, 1.0);
  if (calfun(str) != 0) return evaluation_failed(str, run, FUNCTION_FAILED);
  replace_edge(run, leaving, step);
  store_values(str, run, leaving);
  run.take_step = true;
  return Next::go_on;
}

// ---- Steps --------------------------------------------------------------------------------------

// What the models promise of a step: the fall of the largest violation and of the merit. A promise
// of less violation must pay in the merit: the penalty rises where it does not.
struct Promise {
  double violation;
  double merit;
};

static Promise promise_of(const MINSTR* str, CobylaRun& run, const double* step) {
  static constexpr double ENOUGH = 1.5;
  static constexpr double RAISE = 2.0;
  Promise promise{};
  promise.violation = violation(str, run, run.n) - model_violation(str, run, step, 1.0);
  const double gain = model_gain(run, step);
  double needed = 0.0;
  if (promise.violation > TINY) needed = -gain / promise.violation;
  if (run.parmu < ENOUGH * needed) run.parmu = std::min(RAISE * needed, ROOT_HUGE);
  promise.merit = run.parmu * promise.violation + gain;
  return promise;
}

// The vertex that the end of the step replaces; -1: none, the step is dropped. A step that gained
// takes the place where it leaves the largest height; one that did not must raise a height by its
// product with sigma. Among the vertices whose height stays good the farthest one goes first.
static long leaving_vertex(CobylaRun& run, const double* step, bool gained) {
  static constexpr double FAR = 1.1;
  long leaving = -1;
  double largest = gained ? 0.0 : 1.0;
  for (long j = 0; j < run.n; ++j) {
    const double share = std::fabs(zvdot11(run.n, run.inverse + j * run.n, step));
    run.reach[j] = share * run.sigma[j];
    if (share > largest) {
      largest = share;
      leaving = j;
    }
  }
  double farthest = FAR * run.rho;
  long far = -1;
  for (long j = 0; j < run.n; ++j) {
    if (run.reach[j] < LEAST_HEIGHT * run.rho && run.reach[j] < run.sigma[j]) continue;
    const double distance = gained ? xdif(run.n, step, run.edges + j * run.n) : run.eta[j];
    if (distance > farthest) {
      farthest = distance;
      far = j;
    }
  }
  return far >= 0 ? far : leaving;
}

// The models predicted well in good shape: larger steps may pay. Returns restart when the gain was
// so much larger than predicted that a new simplex is in place.
static Next widen_radius(MINSTR* str, CobylaRun& run, double gained, double promised) {
  static constexpr double GOOD = 0.6;
  static constexpr double VERY_GOOD = 0.8;
  static constexpr double SURPRISING = 2.0;
  if (!run.acceptable || !(gained >= GOOD * promised)) return Next::go_on;
  run.rho = std::min(run.rho * (gained > VERY_GOOD * promised ? 2.0 : 1.5), LARGEST_RADIUS);
  if (!(gained > SURPRISING * promised)) return Next::go_on;
  make_best_the_base(str, run);
  return Next::restart;
}

// Evaluates base + step and takes it into the simplex. No other step follows a closing one.
static Next try_step(MINSTR* str, CobylaRun& run, const double* step, Promise promise,
                     bool closing) {
  static constexpr double WORTH_WHILE = 0.1;
  if (calls_exhausted(str)) {
    run.ij = COUNT_LIMIT;
    return Next::leave;
  }
  zvaxpy(str->x, step, run.base, run.n, 1.0);
  if (calfun(str) != 0) return evaluation_failed(str, run, FUNCTION_FAILED);
  double gained = merit(str, run, run.n) - (str->crit + run.parmu * str->cmax);
  double promised = promise.merit;
  if (run.parmu == 0.0 && str->crit == objective(str, run, run.n)) {
    gained = violation(str, run, run.n) - str->cmax;
    promised = promise.violation;
  }
  const long leaving = leaving_vertex(run, step, gained > 0.0);
  if (leaving < 0) return no_gain(str, run);
  replace_edge(run, leaving, step);
  store_values(str, run, leaving);
  if (closing || !(gained > 0.0 && gained >= WORTH_WHILE * promised)) return no_gain(str, run);
  run.take_step = true;
  return widen_radius(str, run, gained, promised);
}

static Next model_step(MINSTR* str, CobylaRun& run) {
  static constexpr double SHORT = 0.5;
  const bool full = trstlp(str, run.rho, run.models, run.step_work) != 0;
  const double* step = str->sdir;
  const double length = zvenorm(run.n, 1, step);
  const bool brief = !full && !(length >= SHORT * run.rho);
  // A brief step waits for a smaller radius. At the last one there is none, and the step is worth a
  // call: it leaves a violation of the order of its square in place of its own size.
  const bool closing = brief && length > 0.0 && run.acceptable && run.rho <= run.rhoend;
  if (brief && !closing) return no_gain(str, run);
  const double penalty = run.parmu;
  const Promise promise = promise_of(str, run, step);
  double phi = 0.0;
  // A larger penalty may make another vertex the best, whose models are others.
  if (run.parmu > penalty && getbest(str, run, run.parmu, &phi) != run.n) return Next::go_on;
  return try_step(str, run, step, promise, closing);
}

static Next iterate(MINSTR* str, CobylaRun& run) {
  make_best_the_base(str, run);
  if (level_reached(str, run)) return reduce_radius(str, run);
  if (!inverse_is_good(run)) {
    run.ij = NO_PROGRESS;
    return Next::leave;
  }
  form_models(str, run);
  judge_shape(run);
  return run.take_step || run.acceptable ? model_step(str, run) : mend_shape(str, run);
}

// Every end in iterate sets the code; this one is for the loop alone.
static int keep_code(MINSTR*, CobylaRun& run) { return run.ij; }

int znlpcob(MINSTR* str) {
  static constexpr double USUAL_RADIUS = 0.5;
  open_run(str);
  str->nlbc = str->nldc = str->nalc = str->nabc = 0;
  str->cold = str->crit;
  CobylaRun run = divide_work(str);
  run.rho = str->salf > 0.0 ? std::min(str->salf, LARGEST_RADIUS) : USUAL_RADIUS;
  run.rhoend = std::max(str->axtl, HUNDRED_EPS);
  run.atol = str->imax != 0 ? -str->atol : str->atol;
  const int code = technique_loop<CobylaRun>(str, run, {start_stage, iterate, keep_code});
  if (run.vertices == run.n) make_best_the_base(str, run);
  show_base(str, run);
  str->gmax = 0.0;
  return code;
}

}  // namespace tqnlp
