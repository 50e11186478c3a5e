// What the sources of znlppli share.
#pragma once

#include "aasubs/post/znlppli.h"

namespace tqnlp {

// Working record of the limits. Points of a profile are those of one side of one parameter.
struct PLCS {
  MINSTR savstr;                 // the record as it was
  MINSTR base;                   // as every optimization begins: counters 0, tolerances tight
  COVSTR inner;                  // post-analysis of the optimizations: the caller's, silent
  Callback usfct, usgrd, ushes;  // the run's callbacks
  int gole;                      // side: -1 lower, 1 upper
  int lower;                     // 1: a lower point was met, which is told once a parameter
  int failed;                    // 1: a search failed at its smallest step
  int ended;                     // nonzero: the code that ended the whole analysis
  long toln[20];                 // the run's counts
  int* iabc;                     // n; statuses of the run
  int* ialf;                     // nalf; levels in the order of their targets
  long ipar;                     // parameter of the search
  long nf, ng, nh;               // calls of function, gradient, Hessian
  long npnt;                     // points of the profile, in the order of their distance
  long mpnt;                     // room for points
  double yopt;                   // f*, in the sense of a minimization
  double sigm;                   // s2
  double noise;                  // differences of objectives below it say nothing
  double edge;                   // distance of the parameter's bound; infinite: none
  double wall;                   // least distance at which an optimization failed; or infinite
  double high;          // the root of the rise there, when it was only too high to follow; or 0
  int ierr;             // the code there
  double growth;        // outwards, at most this times the distance
  int resets;           // times that the search went on past wall
  double* xsav;         // n; x of the run
  double* xopt;         // n; x at f*
  double* xend;         // n; end of a run that another one is to confirm
  double *lb, *ub;      // n; bounds of the run, all absent where it had none
  double *lbnd, *ubnd;  // n; the record's bounds where it had none
  long* ifxr;           // n; the record's, where it had none
  int* stat;            // n; its statuses, where it had none
  double *xval, *yval, *xpnt;  // mpnt; distance, root of the rise, and mpnt x n parameters
  double* ster;                // n; standard errors; missing: none
  double* quan;                // nalf; quantiles; missing: none at this level
  double* goal;                // nalf; rises; missing: no quantile, or no scale
  PLLIM* limits;               // npar x nalf x 2
};

inline PLCS* working_record(const MINSTR* str) { return str->covstr->plcstr->plcs; }

// Side of one limit among the two of a parameter and level.
inline constexpr int SIDES[] = {-1, 1};

// Optimizes with the present x as start. job 0: prepares a search (counts of the criteria to 0, a
// line with the parameter's name in the log from dbug 2 on). job 1: holds parameter ipar at ai
// (ipar below 0: all are free) and optimizes the others. Returns 0, or the code of the
// optimization.
int doopt(double ai, MINSTR* str, int job, long ipar);

// The objective alone at a point, into crit, with x there; false when it has none.
bool objective_at(MINSTR* str, const double* x);

// Is the code of an optimization one after which no other makes sense: time is over, somebody wants
// to stop, or the objective has no value at the estimate any more?
bool ends_analysis(MINSTR* str, int code);

// Limits of one side of parameter ipar at all levels.
void znlpplc(MINSTR* str, long kk);

// Standard errors of the free parameters into ster, from a Hessian by differences at xopt. Leaves
// them missing where they do not exist.
void standard_errors(MINSTR* str);

// Writes the limits as a table: job 1 Wald limits, otherwise both kinds.
void priplc(MINSTR* str, int job);

}  // namespace tqnlp
