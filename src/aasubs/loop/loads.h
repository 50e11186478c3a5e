// What the techniques do alike around a point: evaluate there, go back, load a start or restart
// with a repair of feasibility, keep feasible after a step, evaluate the end once more.
#pragma once

#include "aasubs/loop/technique_loop.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

// Bounds or linear constraints: is there a working set? Without them frame and reduced space are
// those of x itself.
inline bool has_constraints(const MINSTR* str) { return str->bounds != 0 || str->lincon != 0; }

// ---- Evaluations and points ---------------------------------------------------------------------

// One evaluation of the given order at x. False: the callback failed, or left the mark of a failed
// evaluation, or the objective is no number (tbig is then 1).
bool evaluate(MINSTR* str, int order, Callback callback);
inline bool evaluate_objective(MINSTR* str) { return evaluate(str, ORDER_FUNCTION, str->usfct); }
inline bool evaluate_gradient(MINSTR* str) { return evaluate(str, ORDER_GRADIENT, str->usgrd); }

// Results that the user's code keeps between calls must belong to the point where derivatives are
// wanted (fsav): evaluates the objective again after a derivative call. False when that failed.
bool refresh_saved_results(MINSTR* str);

// Head of an iteration: cold and xold become the present point.
void start_iteration(MINSTR* str);

// Gives up a trial: crit and x are again those of xold.
void return_to_xold(MINSTR* str);

// Components that are rounding beside the largest one become zero.
void zero_negligible_components(MINSTR* str, double* step);

// Does the step change any parameter of xold at all?
bool step_moves(const MINSTR* str, const double* step);

// ---- Start and restart --------------------------------------------------------------------------

// L1: counters that every technique starts at zero, and xold; each technique resets its own
// besides.
void open_run(MINSTR* str);

// Counts a start or restart and forgets the change of the working set.
void open_restart(MINSTR* str);

// Objective at x, also into cold. A sum of squares expects to lose a twentieth at first. Returns 0
// or -1.
int load_function(MINSTR* str);

// Start load: objective, then derivatives by the technique's own routine (0, or a negative code,
// which is returned), then with bounds or linear constraints feasibility and the working set
// afresh. An infeasible point is repaired once (znlpfea with the job repair) and loaded again; what
// the repair leaves is judged by the tolerance that it had to widen. Returns 0, -1 function, -6 no
// feasible point, or the code of derivatives.
int load_feasible_point(MINSTR* str, int repair, int (*derivatives)(MINSTR* str, int choice),
                        int choice);

// Load after a step: the working set at the new point. ches and job: the matrix that is revised
// with it and its form, as for znlpact (null: none). second_form: multipliers of the second form.
void revise_working_set(MINSTR* str, int job, bool second_form, double* ches);

// ---- After a step -------------------------------------------------------------------------------

// Rounding may carry a step past a constraint. go_on: x is feasible. A point that had to be
// repaired is not that of the step: restart, or after the first step since a start (itre 0) finish
// with -5; finish with -6 when no feasible point is left. The code goes to *ij.
Next keep_feasible(MINSTR* str, int* ij);

// ---- End of a run -------------------------------------------------------------------------------

// The code in hand becomes final. After at least one iteration the objective (failing: -3) and what
// load loads (negative: -4) are evaluated once more at x, so that they belong to the point
// returned. Returns the answer of the termination test.
int finish_run(MINSTR* str, int code, int (*load)(MINSTR* str));

}  // namespace tqnlp
