// Assessment of trust-region steps, shared by TRUREG and DBLDOG: the record of a run (DGWSTR), the
// state machine that judges a trial (assess), and what both do with its verdict.
//
// The method is the adaptive assessment of Dennis, Gay and Welsch (1981), ACM Trans. Math. Software
// 7, with the singular-convergence test of Gay (1983), same journal 9.
//
// How a technique uses it. The technique owns the record, points xsav and ssav to n doubles each,
// and sets dogleg; then
//
//   start or restart   open_assessment
//   iteration head     open_step_search
//   trial              make a step of length at most delt that fills sdir, pred, lamb of the run
//                      and dstn, gtst, dst0, nred here; where trial_is_wanted, evaluate at
//                      x = xold + stub sdir (irc 6 asks for the model's value alone)
//   verdict            judge_trial, which goes through measure_step, assess, carry_out_rest and
//   1, 5               delt by next_radius (or radf dstn), another trial from xold
//   6                  a trial of length lmxs
//   3, 4               x is the next point; after its gradient is known and irc was 3,
//                      apply_gradient_tests; then delt from radf
//   above 6            the model has converged: cnvcod = irc - 4; x is better than xold or is xold
//
// After carry_out_rest x, crit and sdir belong together, and crit >= cold means x = xold.
#pragma once

#include "aasubs/loop/technique_loop.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

// What assess answers, and what it is told by the next call (irc).
enum Assessment {
  RETRY_MODEL = 1,         // smaller radius, another model may be tried (one model: not produced)
  ACCEPT_MODEL = 2,        // accepted unless another model does better (one model: not produced)
  ACCEPT_TEST = 3,         // accepted, the gradient decides whether the radius grows
  ACCEPT = 4,              // accepted, the radius changes by radf
  RETRY = 5,               // another radius, radf dstn, longer or shorter, from the same point
  SINGULAR_STEP = 6,       // wants the model's value of a step of length lmxs
  STEP_CONVERGED = 7,      // relative change of x
  FUNCTION_CONVERGED = 8,  // relative reduction of the Newton step
  BOTH_CONVERGED = 9,
  ABSOLUTELY_CONVERGED = 10,  // not produced here: the termination test has that criterion
  SINGULAR_CONVERGED = 11,    // no step of length lmxs gains anything worth having
  FALSE_CONVERGED = 12        // steps have shrunk to rounding without a decrease
};

// cnvcod is the answer less this.
inline constexpr int ASSESSMENT_TO_CODE = 4;
// xirc while the step of a converged model is taken.
inline constexpr int LAST_STEP = 14;

// What is to be done with the saved step (rest).
enum SavedStep {
  LEAVE_SAVED = 0,
  BACK_TO_XOLD = 1,  // the trial is given up
  SAVE_STEP = 2,     // the trial may be wanted again
  TAKE_SAVED = 3     // the saved step is the answer
};

struct DGWSTR {
  MINSTR* minstr;  // the run
  bool dogleg;     // the model is a quasi-Newton one (DBLDOG); set by the technique
  double* xsav;    // n; point of the saved step; of the technique
  double* ssav;    // n; its sdir
  double dpsv;     // its length dpnm

  // ---- State of the assessment
  int irc;      // state, see Assessment; ACCEPT at an iteration head
  int xirc;     // state to go on with after a detour
  int cnvcod;   // convergence of the model, held until the step of the iteration is taken
  int rest;     // what to do with the saved step, see SavedStep
  long nfgc;    // nfct at the point that crit and the user's saved results belong to
  long modl;    // model in use; one here
  long mlgd;    // model of the last good point
  long rinc;    // radius increases in this iteration; negative after a decrease
  long stag;    // stage of the iteration; negative while an oversized step is retried
  long stgl;    // stages before models are no longer exchanged; 1
  double clgd;  // objective at the last judged or saved point
  double rldx;  // relative change of x
  double radf;  // factor for the radius, result of assess
  double decf;  // factor after an oversized step; 0.5
  double incf;  // factor of an increase; 2
  double lmxs;  // length of the step of the singular test; 1
  double xftl;  // relative change of x below which a failed step is false convergence
  double sctl;  // relative tolerance of the singular test
  double xtol;  // relative change of x, and ...
  double ftol;  // ... relative reduction of the Newton step, at which the model has converged
  double dsts;  // saved dstn; negative while a FALSE_CONVERGED waits for the singular test
  double gtsl;  // saved gtst
  double plgd;  // saved pred
  double rtst;  // radius while the step of the singular test is made (of the technique)

  // ---- The step (made by the technique)
  double dst0;  // length of the Newton step; negative: minus the best lower bound on the ridge that
                // makes the matrix positive definite
  double dstn;  // length of the step, scaled
  double dpnm;  // length of the full step after bounds moved it, scaled
  double gtst;  // gradient times step; negative for descent
  double nred;  // reduction of the model at its Newton step; minus that of the singular test's step
  double dgnm;  // length of the scaled reduced gradient

  // ---- Double dogleg
  double gthg;        // |R g|, g scaled
  double ghinvg;      // g'B^-1 g; nred is half of it until the singular test overwrites that
  double gfac, nfac;  // the step as a combination of gradient and Newton step

  // ---- Kept by gqtstp between the radii of an iteration
  long kagqt;         // factorizations of this iteration; -1 before the first call
  long kamin;         // factorizations before the hard case is looked for without a hint
  double rad0;        // radius of the last call
  double dstsav;      // length of its step
  double dhdm;        // largest element in magnitude
  bool bounded;       // emin and emax are those of this iteration
  double emin, emax;  // bounds of the spectrum
  double lk0, uk0;    // bounds of the multiplier at the end of the last call
  double phipin;      // turns the excess of the Newton step into a lower bound of the multiplier
};

// Constants; forgets saved step and convergence. Keeps minstr, dogleg, xsav, ssav.
void open_assessment(DGWSTR* d);

// Head of an iteration: the next trial is its first.
void open_step_search(DGWSTR* d);

// Is the trial to be evaluated? Not for the singular test, not for an empty step, and not for a
// longer step of which the model promises hardly more than the last one already gave.
bool trial_is_wanted(const DGWSTR* d);

// A constraint cuts the step to stub: its lengths, and what the model promises for the cut step, by
// which the trial is judged.
void cut_step(DGWSTR* d);

// The full promise of a step that was cut, for the termination test: a cut says nothing about how
// much there is to gain.
void restore_promise(const DGWSTR* d);

// Relative change of x against xold, in alfa, and that of the step before a cut, in rldx: a
// constraint that is near is no sign of convergence.
void measure_step(DGWSTR* d);

// Judges the trial: reads the step, crit, cold, tbig, nfct; sets irc (also the result), radf, rest
// and dfes = cold - crit. crit becomes that of the point which the verdict leaves in x.
int assess(DGWSTR* d);

// A step that was accepted is given up after all: the next trial from xold is judged as a first
// one.
void forget_verdict(DGWSTR* d);

// The model has converged (irc above 6). go_on: a last step that lowers the objective is taken
// before the run ends; stop: the termination test has spoken, its answer is in *ij.
Next end_of_model(DGWSTR* d, int* ij);

// A start where the active constraints leave no freedom: there is no step to try, and the
// termination test ends the run.
Next end_at_vertex(MINSTR* str, int* ij);

// Does what rest asks for: x, sdir and dpnm saved or brought back; a trial that is no better than
// xold is given up.
void carry_out_rest(DGWSTR* d);

// The radius for another trial, or of the next iteration, from radf and the length of the step:
// not above limit, and not more than four powers of ten below the present one.
double next_radius(const DGWSTR* d, double length, double limit);

// All of a verdict: measures and judges the trial, does what rest asks for, and sets the radius of
// another one: radf dstn on the dogleg, else next_radius within limit. go_on: the step is taken;
// solve_again: another trial from xold; restart: gives_up, asked about the verdict before rest is
// carried out (null: never), wants no more retries; or what end_of_model answers.
Next judge_trial(DGWSTR* d, double limit, bool (*gives_up)(const DGWSTR& d), int* ij);

// After ACCEPT_TEST: the radius may grow when the gradient changed as the model says, mismatch (the
// scaled length of their difference) being at most half of length, that of the gradient, or when
// the slope along the step is still clearly negative.
void apply_gradient_tests(DGWSTR* d, double mismatch, double length, double slope);

}  // namespace tqnlp
