// znlpgan: GAUss-Newton (GAUNEW), technique 7, for bound-constrained nonlinear least squares.
//
// Model      |F + J d|^2 over the free variables, by QR with column pivoting; where the step is not
//            trusted its minimum in the subspace of the leading variables, the dimension chosen
//            from how long the steps are and how much they remove; with large residuals Newton
// Reference  Lindstrom and Wedin (1984), Mathematical Programming 29, for the search; Lindstrom
//            (1983), University of Umea, UMINF-102.83, for the choice of the dimension
// Reads      lsqu, bounds, hesc (nonzero: columns scaled to unit norm), sing, salf, ftol, aftl,
//            xtol, maxi, maxf, fsav, usjac and utjacm (without them differences stand in)
// Writes     x, crit, func, grad, gmax, gcri, pred, alfa, stub, dfes, ridg, speed, dsca, iabc,
//            ifxr, ipiv, chac, idac, null (1 while kod is negative), counters
// Arrays     dsca (n, with hesc), func of 4m with fold in its second quarter, iwk,
//            ipiv (n), wrk2 (2n); hess (packed) where Newton steps are allowed
// Work       fold = F at xold | J sdir | work of the search (m each)
//            wrk2 = steps (n) | sums (n) of the second differences; iwk = free variables
//            taken from the host for the run, and given back on every path: Jacobian, factors,
//            vectors of GNSTR
// Ends       codes of uster; 10 all variables at bounds; -1 start or memory, -2 its Jacobian; -3,
//            -4 evaluations failed later; -5 no progress. Where the technique ends by itself its
//            own code is in speed (see termuc)
//
//   1  solve at x: Jacobian, factors, a bound variable to release, the full step   (soliuc)
//   2  convergence tests of the technique                                           (termuc)
//   3  kind and dimension of the step                                               (analuc)
//   4  the step: search of residuals, or a fixed Newton step                        (stepuc)
//   5  retry from the same point, or accept and solve at the new one                (evreuc)
//
// Second derivatives are allowed (sec) where the record has room for them, a packed hess.
#include "aasubs/leastsquares/znlpgan.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double ROOT_EPS = 1.053671212772351e-08;  // root of the rounding unit
static constexpr double FIRST_RIDGE = 0.03125;
static constexpr double NOISE = 0.25;    // alfnoi above it: the steps show rounding alone
static constexpr int FATAL = -10;        // codes below it end the run at once
static constexpr int MOST_RETRIES = 20;  // from one point, beyond one for each dimension

// ---- Convergence --------------------------------------------------------------------------------

// The units of a positive code: what the last steps were like.
static int state_digit(const GNSTR* g) {
  static constexpr double FULL_LENGTH = 0.01;
  const MINSTR* str = g->minstr;
  if (is_newton(g->kod1)) return 2;
  if (g->prank < str->nvar - str->nabc) return 1;
  if (g->kod2 != GN_FULL && str->nitr >= 2.0) return 3;
  const bool damped = std::max(std::fabs(g->alf1 - 1.0), std::fabs(g->alf2 - 1.0)) > FULL_LENGTH;
  return damped ? 4 : 0;
}

// A bound holds a variable that the gradient pulls away from it, clearly.
static bool holds_wrongly(const MINSTR* str) {
  static constexpr double CLEAR = 0.001;
  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
    const double pull = -str->grad[j] * str->iabc[j];
    if (std::abs(str->iabc[j]) == 1 && pull >= CLEAR) return true;
  }
  return false;
}

int termuc(GNSTR* g, int error) {
  const MINSTR* str = g->minstr;
  if (error == -1) return -6;
  if (error < -2) return error;
  if (g->imax != 0 || g->rest != 0) {
    return static_cast<double>(str->nfct) > str->maxf || str->nitr > str->maxi ? -2 : 0;
  }
  if (g->kod1 == GN_SUBSPACE && !(g->alfnoi > NOISE)) return 0;
  int code = g->d1sqs <= str->ftol * str->ftol * g->fsum ? 10000 : 0;
  if (g->fsum <= str->aftl) code += 2000;
  // With xtol 0, its default, the first xdif is 0 too: there is no step to judge yet.
  if (str->nitr > 0.0 && g->xdif <= g->xnrm * str->xtol) code += 300;
  if (g->alfnoi > NOISE || error == -2) code += 40;
  if (code == 0 || holds_wrongly(str)) return 0;
  return code + state_digit(g);
}

void outuc(GNSTR* g, int job) {
  MINSTR* str = g->minstr;
  // A cut by a bound says nothing about how much there is to gain: the promise is that of the whole
  // step.
  str->pred = g->d1sqs;
  str->null = g->kod < 0 ? 1 : 0;
  if (job == TEST_START) str->speed = 0.0;
  if (g->imax != 0) {
    str->chac = -1;
    str->idac = g->imax;
  }
}

// ---- The run ------------------------------------------------------------------------------------

namespace {

struct GaunewRun {
  GNSTR g{};
  RestartGuard guard;
  bool started = false;
  int ij = 0;     // code in hand
  int error = 0;  // of the last step
};

}  // namespace

// The technique ends by itself: its code goes to speed.
static Next end_with(MINSTR* str, GaunewRun& run, int own_code, int code) {
  outuc(&run.g, code);
  str->speed = own_code;
  run.ij = code;
  return Next::finish;
}

static Next no_derivatives(MINSTR* str, GaunewRun& run, int code) {
  return end_with(str, run, code, code == -2 ? -4 : FUNCTION_FAILED);
}

// Start or restart at x.
static Next load_start(MINSTR* str, GaunewRun& run) {
  static constexpr int PUSH_INSIDE = 2;
  GNSTR* g = &run.g;
  const bool first = !run.started;
  run.started = true;
  if (str->bounds != 0) str->nabc = znlpfbc(str, first ? PUSH_INSIDE : 0);
  if (str->bounds != 0 && str->nabc == str->nvar) {
    run.ij = ALL_PARAMETERS_ACTIVE;
    return Next::leave;
  }
  std::copy_n(str->x, str->nvar, str->xold);
  if (first) g->xdif = 2.0 * zvenorm(str->nvar, 1, str->x) * str->xtol;
  open_restart(str);
  str->alfa = str->salf;
  str->ridg = 0.0;
  g->icount = g->rest = run.error = 0;
  g->kod = g->kod1;
  g->reach = HUGE_VALUE;
  g->bestpg = 0.0;
  g->irank = 0;
  int code = load_function(str);
  if (code == 0 && !(str->dfes > 0.0)) str->dfes = std::fabs(str->crit / 20.0);
  if (code == 0) code = soliuc(g, &g->prank, &g->d1sqs, &g->beta, &g->gnrm);
  if (code != 0) {
    if (!first) return no_derivatives(str, run, code);
    run.ij = code;
    return Next::leave;
  }
  if (first) outuc(g, TEST_START);
  if (restart_makes_progress(str, run.guard)) return Next::go_on;
  run.ij = NO_PROGRESS;
  return Next::leave;
}

// ---- Iteration ----------------------------------------------------------------------------------

static void measure_point(GNSTR* g) {
  const MINSTR* str = g->minstr;
  g->xnrm = zvenorm(str->nvar, 1, str->x);
  g->snrm = zvenorm(str->nvar, 1, str->sdir);
  g->fsum = 2.0 * str->crit;
  g->alfnoi = ROOT_EPS / (g->snrm + EPS);
}

// What a retry goes back to.
static void note_point(GNSTR* g) {
  MINSTR* str = g->minstr;
  start_iteration(str);
  g->alfa = str->alfa;
  std::copy_n(str->func, str->mequ, str->fold);
  if (str->bounds != 0) std::copy_n(str->iabc, str->nvar, g->held);
}

// Back to xold, with the working set that belongs to it. solved: the factors are those of the point
// that is given up, and are made anew. Returns 0, or the code of soliuc.
static int return_to_point(GNSTR* g, bool solved) {
  MINSTR* str = g->minstr;
  ++g->icount;
  return_to_xold(str);
  str->alfa = g->alfa;
  str->tbig = 0.0;
  str->chac = 0;
  if (str->bounds != 0) {
    // The factors are made with the released variable at its bound, from where it is released anew.
    if (solved && g->imax != 0) g->held[g->imax - 1] = g->ival;
    std::copy_n(g->held, str->nvar, str->iabc);
    str->nabc = std::count_if(g->held, g->held + str->nvar, [](int state) { return state != 0; });
    znlpinc(str, 0);
  }
  std::copy_n(str->fold, str->mequ, str->func);
  if (!solved) return 0;
  // The user's code may keep what it needs for its derivatives from the last call.
  if (str->fsav != 0 && !evaluate_objective(str)) return -1;
  return soliuc(g, &g->prank, &g->d1sqs, &g->beta, &g->gnrm);
}

// Another step from xold after one that failed.
static Next retry(MINSTR* str, GaunewRun& run, bool solved) {
  GNSTR* g = &run.g;
  const long most = g->free + MOST_RETRIES;
  g->philat = g->phi;
  g->rest = 1;
  const int code = return_to_point(g, solved);
  if (code != 0) return no_derivatives(str, run, code);
  if (g->icount > most) return end_with(str, run, -2, NO_PROGRESS);
  const int limits = termuc(g, 0);
  return limits == 0 ? Next::solve_again : end_with(str, run, limits, NO_PROGRESS);
}

// The derivatives at the new point failed: the same step once more, but not so far.
static Next retreat(MINSTR* str, GaunewRun& run, int failed) {
  static constexpr double SHORTER = 0.1;
  GNSTR* g = &run.g;
  g->reach = SHORTER * str->alfa;
  const int code = return_to_point(g, true);
  if (code != 0 || g->icount > MOST_RETRIES) return no_derivatives(str, run, failed);
  g->rest = 0;
  g->kod = g->kod1;
  return Next::solve_again;
}

static void shift_history(GNSTR* g, double length) {
  const MINSTR* str = g->minstr;
  g->kod2 = std::exchange(g->kod1, g->kod);
  g->rng2 = std::exchange(g->rng1, g->prank);
  g->bet2 = std::exchange(g->bet1, g->beta);
  g->alf2 = std::exchange(g->alf1, str->alfa);
  g->d1m2 = std::exchange(g->d1m1, g->d1sqs);
  g->fsq2 = std::exchange(g->fsq1, g->fsum);
  g->dxn2 = std::exchange(g->dxn1, length);
  g->aup2 = std::exchange(g->aup1, str->stub);
}

// The ridge of a step that was accepted is halved, and forgotten where it is below the first one,
// which then starts lower.
static void relax_ridge(GNSTR* g) {
  static constexpr double LOWER_START = 0.25;
  MINSTR* str = g->minstr;
  if (!(str->ridg > 0.0)) return;
  str->ridg *= 0.5;
  if (str->ridg >= g->rs) return;
  str->ridg = 0.0;
  g->rs *= LOWER_START;
}

// What soliuc found at the new point, and the length of the step that led there.
struct Solved {
  long rank = 0;
  double d1sqs = 0.0;
  double gnrm = 0.0;
  double length = 0.0;
};

static Next accept(MINSTR* str, GaunewRun& run, const Solved& solved) {
  GNSTR* g = &run.g;
  str->nitr += 1.0;
  ++str->itre;
  g->icount = 0;
  g->reach = HUGE_VALUE;
  g->bestpg = 0.0;
  g->irank = 0;
  shift_history(g, solved.length);
  relax_ridge(g);
  g->prank = solved.rank;
  g->d1sqs = solved.d1sqs;
  g->gnrm = solved.gnrm;
  g->beta = g->betnew;
  str->speed = g->bet1 > 0.0 ? g->beta / g->bet1 : 0.0;
  outuc(g, TEST_ITERATION);
  run.ij = str->uster(str, TEST_ITERATION);
  return run.ij == 0 ? Next::go_on : Next::stop;
}

// One step from xold and what becomes of it; solve_again: another one from there. The step is
// judged twice: what can be said without derivatives at the new point saves making them.
static Next try_one_step(MINSTR* str, GaunewRun& run) {
  GNSTR* g = &run.g;
  const int chosen = analuc(g);
  if (chosen < 0) return end_with(str, run, termuc(g, chosen), NO_PROGRESS);
  run.error = stepuc(g);
  if (run.error < FATAL) return end_with(str, run, run.error, FUNCTION_FAILED);
  // A search that saw no slope or no room has no complaint either.
  if (run.error == 0 && !(str->alfa > 0.0)) run.error = -2;

  g->betnew = 0.0;
  const int verdict = evreuc(g, run.error);
  if (verdict < 0) return end_with(str, run, verdict, NO_PROGRESS);
  if (verdict > 0) return retry(str, run, false);
  if (!(str->alfa > 0.0)) return end_with(str, run, termuc(g, run.error), NO_PROGRESS);

  Solved solved;
  solved.length = g->snrm;
  // The factors of this point give way to those of the new one; what belongs to the step stays.
  const long rank = g->prank;
  const int failed = soliuc(g, &solved.rank, &solved.d1sqs, &g->betnew, &solved.gnrm);
  g->prank = rank;
  if (failed != 0 || str->tbig != 0.0) return retreat(str, run, failed != 0 ? failed : -2);
  if (evreuc(g, run.error) > 0) return retry(str, run, true);
  return accept(str, run, solved);
}

static Next one_iteration(MINSTR* str, GaunewRun& run) {
  GNSTR* g = &run.g;
  measure_point(g);
  const int code = termuc(g, run.error);
  if (code != 0) return end_with(str, run, code, NO_PROGRESS);
  note_point(g);
  Next next = Next::solve_again;
  while (next == Next::solve_again) next = try_one_step(str, run);
  return next;
}

// ---- The technique ------------------------------------------------------------------------------

// Derivatives at the point of the end.
static int load_end(MINSTR* str) {
  auto* g = static_cast<GNSTR*>(str->thdstr);
  return soliuc(g, &g->prank, &g->d1sqs, &g->beta, &g->gnrm);
}

static int end_stage(MINSTR* str, GaunewRun& run) { return finish_run(str, run.ij, load_end); }

// Takes the memory of a run in one block, which starts at jac. False: it was refused.
static bool take_memory(MINSTR* str, GNSTR* g) {
  const long n = str->nvar;
  const long m = str->mequ;
  const long doubles = 2 * m * n + 2 * m + 7 * n + str->nnva;
  const std::size_t bytes = static_cast<std::size_t>(doubles) * sizeof(double) +
                            static_cast<std::size_t>(n) * sizeof(int);
  auto* block = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (block == nullptr) {
    xmemmsg(bytes);
    return false;
  }
  const auto take = [&block](long count) {
    double* array = block;
    block += count;
    return array;
  };
  g->jac = take(m * n);
  g->qr = take(m * n);
  g->qf = take(m);
  g->column = take(m);
  for (double** vector : {&g->diag, &g->sums, &g->stepb, &g->redc, &g->h, &g->pick, &g->norms}) {
    *vector = take(n);
  }
  g->factor = take(str->nnva);
  g->held = reinterpret_cast<int*>(block);
  return true;
}

// The entries of the calling surface do not select this technique: a record that it cannot run is
// the mistake of the code that made it.
static void check_record(const MINSTR* str) {
  if (str->lsqu != 0 && str->lincon == 0 && str->nlicon == 0) return;
  xpslog("GAUNEW takes least squares with bounds alone.");
  xexit(EXIT_INCONSISTENT, 0);
}

static void open_gauss_newton(MINSTR* str, GNSTR* g) {
  static constexpr double USUAL_ACCURACY = 0.1;
  open_run(str);
  str->ngrd = str->nhes = str->nlis = 0;
  if (!(str->salf > 0.0 && str->salf <= 1.0)) str->salf = 1.0;
  if (!(str->sigm > 0.0)) str->sigm = USUAL_ACCURACY;
  g->minstr = str;
  g->sec = str->hess != nullptr && str->hfrm == 0 ? 1 : 0;
  g->kod = g->kod1 = g->kod2 = GN_FULL;
  g->alf1 = g->alf2 = 1.0;
  g->rs = FIRST_RIDGE;
  g->reach = HUGE_VALUE;
}

int znlpgan(MINSTR* str) {
  static constexpr int NO_MEMORY = -1;
  check_record(str);
  GaunewRun run;
  open_gauss_newton(str, &run.g);
  if (!take_memory(str, &run.g)) return NO_MEMORY;
  void* outer_run = str->thdstr;
  str->thdstr = &run.g;
  const int code = technique_loop<GaunewRun>(str, run, {load_start, one_iteration, end_stage});
  str->thdstr = outer_run;
  vmfree_handler(run.g.jac);
  return code;
}

}  // namespace tqnlp
