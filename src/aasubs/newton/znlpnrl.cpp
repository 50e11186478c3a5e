// znlpnrl: Newton-Raphson with a LINe search (NRLINS), technique 5: the wrapper that lets the older
// Newton code of src/subs run on the problem record.
//
// Model      that of znewrap (see subs/znewdrv.cpp): Newton steps with a ridge in the complement of
//            the active constraints, halved until the objective has fallen enough
// Frame      With bounds alone the solver sees them as such; with linear constraints it sees rows,
//            a bound being a row of its own. Rows stand in memory of the run: the record keeps its
//            own, as differences and the reports look at the bounds there.
// Active set The solver adds what blocks a step. What leaves is decided here, at the end of each
//            iteration, by the multipliers of the record's working set (znlpdac): the solver's set
//            follows it, so that a stop is a stop with multipliers of the right signs.
// Reads      hfrm (2 diagonal, else packed), sing, fsav, lsqu, ipre, maxi, bounds, lincon
// Writes     x, crit, grad, gmax, gcri, pred, rhor, ridg, chac, counters; thdstr during the run
// Work       sdir projected gradient of the test, gold that of the solver
// Ends       codes of uster; -3, -4 evaluations failed, -5 no ridge up to 1024 makes the Hessian
//            positive definite or no step is found, -6 feasibility lost, -7 the solver refuses the
//            start, -8 iterations without a step, or too many
//
//   1  start: derivatives, feasibility, x moved onto what it all but touches
//   2  run the solver; its callbacks evaluate, test, and keep the two active sets alike
//   3  its result becomes a code; an overruled stop starts again
#include "aasubs/newton/znlpnrl.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "aasubs/loop/loads.h"
#include "aasubs/loop/newton_load.h"
#include "aasubs/record/covstr.h"
#include "host/files.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/vector.h"
#include "subs/znewdrv.h"

namespace tqnlp {

static constexpr long LARGEST_ORDER = 2147483646;
static constexpr double LARGEST_COUNT = 2147483647.0;
static constexpr double CLEAR_DECREASE = 2.2250738585072018e-307;
static constexpr int LLT_FORM = 2;  // job of the factorization kernels
static constexpr int DERIVATIVES_FAILED = -4;
static constexpr int FEASIBILITY_LOST = -6;

// Calls of the termination test: after an iteration, and at the end, where no history line is due.
static constexpr int TEST_STEP = 11;
static constexpr int TEST_END = 2;

// A decrease that the line search does not try for, relative to the objective: 1000 rounding units
// over the share of the slope that it asks for.
static constexpr double INVISIBLE_DECREASE = 2e4 * EPS;

namespace {

// One run.
struct NrlinsRun {
  int ij = 0;  // code in hand
  SIZE_S sizes{};
  NRPTRS arrays{};
  long* codes = nullptr;             // code of the constraint behind each row (see znlpba1.h)
  bool value_at_hand = false;        // crit is that of the solver's start
  bool derivatives_at_hand = false;  // grad and hess are those of x
  int failure = 0;                   // code of the last derivative call when it failed
  double nitr_at_infeasible = 0.0;   // nitr when the solver last refused its start
};

}  // namespace

static NrlinsRun& run_of(MINSTR* str) { return *static_cast<NrlinsRun*>(str->thdstr); }

// ---- Constraints of the solver ------------------------------------------------------------------

// Do the bounds of parameter j fix it?
static bool is_fixed(const MINSTR* str, long j) {
  static constexpr double DEFAULT_TOLERANCE = 1e-8;
  const double lb = str->lb[j];
  if (!lower_exists(lb) || !upper_exists(str->ub[j])) return false;
  const double eps = str->ceps > 0.0 ? str->ceps : str->sing > 0.0 ? str->sing : DEFAULT_TOLERANCE;
  return lb + (std::fabs(lb) + 1.0) * eps >= str->ub[j];
}

// Calls use(code, is_equality) for each row in the solver's order, the equalities first.
template <class F>
static void for_each_row(const MINSTR* str, F use) {
  const long n = str->nvar;
  const long bounded = str->bounds != 0 ? n : 0;
  for (long i = 0; i < str->neqc; ++i) use(2 * n + i, true);
  for (long j = 0; j < bounded; ++j) {
    if (is_fixed(str, j)) use(j, true);
  }
  for (long i = str->neqc; i < str->ncon; ++i) use(2 * n + i, false);
  for (long j = 0; j < bounded; ++j) {
    if (is_fixed(str, j)) continue;
    if (lower_exists(str->lb[j])) use(j, false);
    if (upper_exists(str->ub[j])) use(n + j, false);
  }
}

static void fill_rows(MINSTR* str, NrlinsRun& run) {
  double* row = run.arrays.constr;
  long i = 0;
  for_each_row(str, [&](long code, bool) {
    constraint_normal(str, code, row);
    run.codes[i] = code;
    const double side = constraint_side(str, code);
    run.arrays.values[i++] = code >= str->nvar && code < 2 * str->nvar ? -side : side;
    row += str->nvar;
  });
}

static void fill_bounds(MINSTR* str, NrlinsRun& run) {
  for (long j = 0; j < str->nvar; ++j) {
    run.arrays.lowb[j] = str->bounds != 0 ? str->lb[j] : -HUGE_VALUE;
    run.arrays.upb[j] = str->bounds != 0 ? str->ub[j] : HUGE_VALUE;
    if (str->bounds != 0 && is_fixed(str, j)) run.arrays.upb[j] = str->lb[j];
  }
}

// Is constraint c of the solver in the record's working set?
static bool in_record(const MINSTR* str, const NrlinsRun& run, long c) {
  const long n = str->nvar;
  if (run.sizes.bound != 0) return str->iabc[c] != 0;
  const long code = run.codes[c];
  if (code >= 2 * n) return in_working_set(str, code);
  const int status = str->iabc[code < n ? code : code - n];
  return status == 2 || status == (code < n ? 1 : -1);
}

// Lets the solver's active set become that of the record. Returns what tentry answers: the last
// constraint that leaves is left to the solver.
static int follow_working_set(MINSTR* str, NrlinsRun& run) {
  SIZE_S* s = &run.sizes;
  NRPTRS* p = &run.arrays;
  if (!has_constraints(str)) return 1;
  long leaving = -1;
  for (long r = s->nact - 1; r >= 0; --r) {
    const long c = p->index[r];
    if ((s->bound == 0 && c < s->neq) || in_record(str, run, c)) continue;
    if (leaving >= 0) zcondrp(s, p, leaving);
    leaving = c;
  }
  if (s->bound != 0) {
    for (long j = 0; j < s->nvar; ++j) {
      if (in_record(str, run, j)) zconadd(s, p, j);
    }
  } else {
    for (long r = s->nact; r < s->neq + s->nneq; ++r) {
      const long c = p->index[r];
      if (in_record(str, run, c)) zconadd(s, p, c);
    }
  }
  return leaving >= 0 ? -1 - static_cast<int>(leaving) : 1;
}

// ---- Callbacks of the solver --------------------------------------------------------------------

static void stay_inside_bounds(MINSTR* str) {
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    str->x[j] = std::min(std::max(str->x[j], str->lb[j]), str->ub[j]);
  }
}

// fentry. On the way to a row rounding may carry x past a bound.
static double nrlfunc(void* qq) {
  auto* str = static_cast<MINSTR*>(qq);
  NrlinsRun& run = run_of(str);
  if (run.value_at_hand) {
    run.value_at_hand = false;
    return str->crit;
  }
  run.derivatives_at_hand = false;
  stay_inside_bounds(str);
  if (!evaluate_objective(str)) {
    str->crit = HUGE_VALUE;
    str->tbig = 1.0;
  }
  return str->crit;
}

// A diagonal Hessian in packed form, for the solver.
static void spread_diagonal(const MINSTR* str, double* packed) {
  vzfdl(0.0, packed, str->nnva);
  for (long j = 0; j < str->nvar; ++j) packed[zisub(j, j)] = str->hess[j];
}

// ghentry. After a step of length zero the derivatives are still there.
static void nrlderi(void* qq) {
  auto* str = static_cast<MINSTR*>(qq);
  NrlinsRun& run = run_of(str);
  if (run.derivatives_at_hand) return;
  const int code = newton_derivatives(str, 1);
  run.derivatives_at_hand = code == 0;
  run.failure = code == 0 ? 0 : code == -1 ? FUNCTION_FAILED : DERIVATIVES_FAILED;
  if (code != 0) {
    vzfdl(HUGE_VALUE, str->grad, str->nvar);
    str->tbig = 1.0;
  } else if (run.arrays.hess != str->hess) {
    spread_diagonal(str, run.arrays.hess);
  }
}

// ---- Test of an iteration -----------------------------------------------------------------------

// The working set at x, afresh. release: constraints with a multiplier of the wrong sign leave it.
static bool note_working_set(MINSTR* str, bool release) {
  str->idac = 0;
  if (!has_constraints(str)) return true;
  keep_fixed_bounds(str);
  if (znlpfch(str, 1, 0, str->ipre) != 0) return false;
  znlpfta(str, release ? 1 : 0, 0, 0, nullptr, nullptr, nullptr);
  return true;
}

// The projected gradient in sdir, with gmax and gcri, the projected Hessian in the solver's work.
static void project(MINSTR* str, const NrlinsRun& run) {
  static constexpr int FROM_MATRIX = 1;  // hess holds the matrix, not a factor of it
  if (reduced_dimension(str) == 0) {
    str->gcri = str->gmax = 0.0;
  } else {
    znlphgp(str, FROM_MATRIX, 0, str->sdir, run.arrays.hess, run.arrays.work);
  }
}

// The measures that the termination test reads, at the solver's point. False: x is not feasible.
static bool measure(MINSTR* str, const NrlinsRun& run) {
  str->chac = 0;
  str->crit = run.arrays.fnew;
  if (!note_working_set(str, true)) return false;
  const long order = reduced_dimension(str);
  project(str, run);
  if (order == 0) return true;
  double* half = run.arrays.work;  // whose contents each iteration of the solver makes anew
  for (long i = 0; i < order; ++i) half[zisub(i, i)] += str->ridg;
  double logdet = 0.0;
  if (znlpcde(str, LLT_FORM, order, str->sing, &logdet, half, half, nullptr) != 0) {
    str->pred = HUGE_VALUE;
    str->rhor = 0.0;
    return true;
  }
  znlpilm(str, LLT_FORM, order, half, str->sdir);
  str->pred = zvdot11(order, str->sdir, str->sdir);
  const double decrease = str->cold - str->crit;
  str->rhor = decrease < EPS || str->pred <= TINY ? 1.0 : decrease / str->pred;
  return true;
}

// The termination test with the job given. A step of length zero meets every criterion that looks
// at changes: there a constraint that leaves asks for the limits alone, and a model that promises a
// decrease which the search did not find is a failure.
static int judge(MINSTR* str, int job) {
  if (str->cold - str->crit > TINY) return str->uster(str, job);
  if (str->idac != 0) return str->uster(str, TEST_LIMITS_ONLY);
  const double size = std::fabs(str->crit);
  const bool small = str->gmax <= str->agtl || str->pred <= INVISIBLE_DECREASE * size ||
                     str->pred <= str->gtol * std::max(size, str->fsiz);
  if (small || reduced_dimension(str) == 0) return str->uster(str, job);
  // Asked once, at the end of the run: the analysis at a stop may move x.
  return job == TEST_STEP ? NO_PROGRESS : str->uster(str, NO_PROGRESS);
}

// tentry.
static int nrlterm(void* qq) {
  auto* str = static_cast<MINSTR*>(qq);
  NrlinsRun& run = run_of(str);
  if (str->tbig != 0.0) return 0;
  str->nitr += 1.0;
  ++str->itre;
  if (!measure(str, run) || judge(str, TEST_STEP) != 0) return 0;
  str->cold = str->crit;
  return follow_working_set(str, run);
}

// The same at the end of the solver's run: the code of the run, 100 when it is to start again.
static int final_verdict(MINSTR* str, const NrlinsRun& run) {
  str->crit = run.arrays.fnew;
  if (run.failure != 0) return str->uster(str, run.failure);
  str->tbig = 0.0;  // a trial that failed has been given up
  if (!measure(str, run)) return str->uster(str, FEASIBILITY_LOST);
  return judge(str, TEST_END);
}

// ---- Start --------------------------------------------------------------------------------------

// Moves x onto the constraints of the working set: the solver wants them to hold to rounding, not
// as the feasibility tolerance allows.
static void settle_start(MINSTR* str) {
  std::copy_n(str->x, str->nvar, str->gold);
  settle_on_working_set(str);
  stay_inside_bounds(str);
  if (znlpfch(str, 0, 0, str->ipre) != 0) std::copy_n(str->gold, str->nvar, str->x);
}

// Feasibility comes first, so that nothing is evaluated at a point that is then left.
static int load_start(MINSTR* str) {
  static constexpr int REPAIR = 0;
  static constexpr int USER_HESSIAN = 1;
  if (has_constraints(str)) {
    if (!note_working_set(str, false)) {
      if (znlpfea(str, REPAIR) < 0 || !note_working_set(str, false)) return FEASIBILITY_LOST;
    }
    settle_start(str);
  }
  int code = load_function(str);
  if (code == 0) code = newton_derivatives(str, USER_HESSIAN);
  if (code != 0) return code;
  return note_working_set(str, true) ? 0 : FEASIBILITY_LOST;
}

static Next start(MINSTR* str, NrlinsRun& run) {
  open_restart(str);
  str->ridg = 0.0;
  const int code = load_start(str);
  if (code != 0) {
    if (run.ij == 0) run.ij = code;  // after a restart the code in hand stands
    return Next::leave;
  }
  if (run.arrays.hess != str->hess) spread_diagonal(str, run.arrays.hess);
  project(str, run);
  run.failure = 0;
  run.value_at_hand = run.derivatives_at_hand = true;
  return Next::go_on;
}

// ---- Runs of the solver -------------------------------------------------------------------------

static Next end_with(MINSTR* str, NrlinsRun& run, int code) {
  run.ij = str->uster(str, code);
  return Next::stop;
}

// The solver does not take x for feasible. After some iterations a repair is worth a try, if it
// also lowers the objective.
static Next repair_refused_start(MINSTR* str, NrlinsRun& run) {
  static constexpr int START_REFUSED = -7;
  if (str->nitr == run.nitr_at_infeasible) {
    run.ij = final_verdict(str, run);
    return run.ij == STOP_OVERRULED ? Next::restart : end_with(str, run, START_REFUSED);
  }
  run.nitr_at_infeasible = str->nitr;
  const double before = str->crit;
  std::copy_n(str->x, str->nvar, str->xold);
  if (znlpfea(str, -1) < 0) return end_with(str, run, START_REFUSED);
  if (evaluate_objective(str) && str->crit < before - CLEAR_DECREASE) return Next::restart;
  str->crit = before;
  str->tbig = 0.0;  // the repaired point has been given up
  std::copy_n(str->xold, str->nvar, str->x);
  return end_with(str, run, START_REFUSED);
}

static Next run_solver(MINSTR* str, NrlinsRun& run) {
  const int result = znewrap(str, &run.arrays, &run.sizes, &str->ridg, nrlfunc, nrlderi, nrlterm);
  if (result == START_INFEASIBLE) return repair_refused_start(str, run);
  run.ij = final_verdict(str, run);
  if (run.ij == STOP_OVERRULED) return Next::restart;
  if (result == RIDGE_TOO_LARGE) return end_with(str, run, NO_PROGRESS);
  if (result == SEARCHES_FAILED || result < 0) return end_with(str, run, COUNT_LIMIT);
  return run.ij == 0 ? end_with(str, run, NO_PROGRESS) : Next::stop;
}

// ---- Memory and utility file --------------------------------------------------------------------

static void fill_sizes(const MINSTR* str, SIZE_S* s) {
  s->nvar = str->nvar;
  s->bound = str->lincon == 0 ? 1 : 0;
  if (s->bound == 0) {
    for_each_row(str, [s](long, bool equality) { ++(equality ? s->neq : s->nneq); });
  }
  s->maxiter =
      str->maxi < LARGEST_COUNT ? static_cast<int>(str->maxi) : static_cast<int>(LARGEST_COUNT);
  s->step = 1;
  s->tol = 1e-6;
  s->rmax = 1024.0;
  s->rmin = 0.3125;
  s->rfact = 4.0;
}

// Takes the memory of a run in one block, which starts at arrays.work. False: it was refused.
static bool take_memory(MINSTR* str, NrlinsRun& run) {
  const long n = str->nvar;
  const long rows = run.sizes.neq + run.sizes.nneq;
  const long work = newton_work_length(&run.sizes);
  const long constraints = run.sizes.bound != 0 ? 2 * n : rows * (n + 2);
  const long spread = str->hfrm == 2 ? str->nnva : 0;
  const std::size_t bytes = static_cast<std::size_t>(work + constraints + spread) * sizeof(double);
  auto* block = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (block == nullptr) {
    xmemmsg(bytes);
    return false;
  }
  NRPTRS& p = run.arrays;
  p.work = block;
  p.lowb = p.constr = block + work;
  p.upb = p.lowb + n;
  p.values = p.constr + rows * n;
  run.codes = reinterpret_cast<long*>(p.values + rows);
  p.hess = spread > 0 ? block + work + constraints : str->hess;
  p.grad = str->grad;
  p.pgrad = str->gold;
  p.xold = str->xold;
  p.xnew = str->x;
  return true;
}

// Moves coefficients, right sides and bounds between the record and the utility file of
// post-analysis, by xcread or xcwrite. A repair of feasibility merges bounds that all but coincide;
// who analyses the run afterwards finds the constraints as they were. Without that file the record
// keeps what the repair made of them, as after every other technique.
template <class Transfer>
static void transfer_constraints(MINSTR* str, Transfer transfer) {
  if (str->covstr == nullptr || str->covstr->utpmat == nullptr) return;
  WorkFile* file = str->covstr->utpmat;
  const auto check = [](int code) {
    if (code == 0) return;
    xprrlog(0, code);
    xexit(EXIT_WORK_FILE, 0);
  };
  const auto move = [&](double* values, long count) {
    check(transfer(file, values, count * static_cast<long>(sizeof(double))));
  };
  check(xcpoint(file, 0));
  if (str->lincon != 0 && str->ncon > 0) {
    move(str->alcn, str->aspa != 0 ? str->naco[str->ncon - 1] : str->ncon * str->nvar);
    move(str->blcn, str->ncon);
  }
  if (str->bounds != 0) {
    move(str->lb, str->nvar);
    move(str->ub, str->nvar);
  }
}

int znlpnrl(MINSTR* str) {
  static constexpr int NO_MEMORY = -1;
  if (str->nvar > LARGEST_ORDER) xexit(EXIT_INCONSISTENT, 0);
  open_run(str);
  str->nhes = 0;
  str->job = 0;
  NrlinsRun run;
  fill_sizes(str, &run.sizes);
  if (!take_memory(str, run)) return NO_MEMORY;
  if (run.sizes.bound != 0) {
    fill_bounds(str, run);
  } else {
    fill_rows(str, run);
  }
  transfer_constraints(str, xcwrite);

  void* outer_run = str->thdstr;
  str->thdstr = &run;
  static constexpr TechniqueSteps<NrlinsRun> STEPS = {start, run_solver, nullptr};
  const int code = technique_loop(str, run, STEPS);

  str->thdstr = outer_run;
  transfer_constraints(str, xcread);
  vmfree_handler(run.arrays.work);
  return code;
}

}  // namespace tqnlp
