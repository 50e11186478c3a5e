// What the sequential quadratic techniques do alike: their state, the start, points and their
// measures, the matrix, the step with the way out of contradictory constraints.
#pragma once

#include "aasubs/loop/technique_loop.h"
#include "aasubs/sqp/terms.h"

namespace tqnlp {

// What the iterations of one run share, in every technique.
struct SequentialRun {
  VMCSTR v;
  int ij = 0;           // code in hand
  int load = 0;         // nonzero: the user's Hessian starts the matrix
  bool fresh = false;   // no step has been made since the start or restart
  double gs = 0.0;      // slope of the objective along the step
  double psiopt = 0.0;  // best point: merit
  double fopt = 0.0;    // objective
  double cmxopt = 0.0;  // largest violation
  double iopt = 0.0;    // iteration
  int struggle = 0;     // steps in a row that take only a part of the linearized violations
  bool moved = false;   // has x left the best point for one with smaller violations?
  bool slid = false;    // has a step been made along constraints that contradict each other?
  double restored = HUGE_VALUE;  // largest violation before the last restoration
};

// Counters, settings that make no sense, terms and subproblem.
void open_sequential_run(MINSTR* str, SequentialRun& run);

// After so many steps the violations themselves are minimized.
inline constexpr int MOST_STRUGGLE = 8;

// ---- Points -------------------------------------------------------------------------------------

// The present point becomes the best one.
void keep_best(MINSTR* str, SequentialRun& run);

// cpsi and cmax at x, from crit and vcon.
void measure_merit(MINSTR* str, const SequentialRun& run);

// Forgets what is active, but for fixed parameters: the working set of a subproblem is not that of
// another point.
void forget_active(MINSTR* str);

// Start or restart: zero multipliers, weights next to nothing (their merit at the best point too),
// values and derivatives at x. Limits are asked at a restart. go_on, stop, or leave with -1.
Next load_restart(MINSTR* str, SequentialRun& run);

// Values, then derivatives at x. Returns 0, or the code of what failed.
int load_point(MINSTR* str, SequentialRun& run, int values_code, int derivatives_code);

// Status of the constraints at x for the first test, and the Lagrangian with the multipliers that
// fit best. A member with a multiplier of the wrong sign gets none: with it, a point that this
// constraint should leave would look stationary.
void measure_start(MINSTR* str, SequentialRun& run);

// gs, Lagrangian, and what the termination test measures, with the multipliers of the last step.
void reset(MINSTR* str, SequentialRun& run);

// x := xold + alfa sdir, inside the bounds where xold is. False: rounding moved nothing.
bool move_along(MINSTR* str);

// The point before a search that failed (xold, cbeg), whose merit was that.
void return_to_start(MINSTR* str, SequentialRun& run, double merit);

// The end of a run whose derivatives failed after a step.
Next derivatives_failed(MINSTR* str, SequentialRun& run);

// ---- Matrix -------------------------------------------------------------------------------------

// hess := factor of the user's Hessian (load), made positive definite, or of a multiple of the
// identity: dhes, or what suits the gradient, but at least 1. Returns 0, -1 or -2.
int load_matrix(MINSTR* str, SequentialRun& run);

// B by the change of the gradient of the Lagrangian over the step from xold, with the multipliers
// of the iteration at both ends; gold holds it at xold and is lost.
void update_matrix(MINSTR* str, SequentialRun& run);

// ---- Step ---------------------------------------------------------------------------------------

// The step at x, with its measures. False: the subproblem has none.
bool make_step(MINSTR* str, SequentialRun& run);

// Does the step promise nothing though the Lagrangian is far from stationary? Then the matrix,
// which has learnt curvature that the problem does not have, keeps it short; a fresh one will tell.
bool matrix_hides_descent(const MINSTR* str);

// No step at all: restart from where the violations are smaller, or finish with -5, and where
// constraints contradict each other a line in the log that names the worst.
Next restore(MINSTR* str, SequentialRun& run);

}  // namespace tqnlp
