// Records of post-analysis. None of the thirteen subroutines makes one: they stand for a caller
// that goes on to standard errors, covariances and profile-likelihood limits after a run. Where
// COVSTR supplies a callback, the driver prefers it to the one in MINSTR.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

struct PLCS;  // working record of the profile-likelihood limits

// How the search for one limit ended; value is missing unless it was found.
enum LimitStatus : int {
  LIMIT_NOT_SOUGHT = 0,     // Wald limits alone were asked for, the parameter is fixed, or the
                            // request was refused
  LIMIT_FOUND = 1,          // the objective has the target value there, the others being optimal
  LIMIT_AT_BOUND = 2,       // at the parameter's bound the rise is still below the target
  LIMIT_NOT_REACHED = 3,    // nor as far out as the search goes: the profile may be flat
  LIMIT_LOWER_POINT = 4,    // a lower objective was met: the result is no minimum
  LIMIT_SEARCH_FAILED = 5,  // the other parameters could not be optimized, or the profile jumps
  LIMIT_NO_TARGET = 6,  // no scale (no freedom, or residuals of zero), a level beyond (0, 1), or
                        // a rise within the rounding of the objective
  LIMIT_STOPPED = 7,    // the analysis ended before: the time limit, or no values any more
};

// One limit of one parameter.
struct PLLIM {
  long ipar;     // parameter, from 0
  int side;      // -1 lower, 1 upper
  double alfa;   // level: 1 - alfa is the confidence of the interval between both sides
  double value;  // profile-likelihood limit; or missing
  double wald;   // Wald limit; missing without standard errors
  int status;    // LimitStatus
};

// One point of a profile, as written to utprof. Of two at the same place the later one is better.
struct PLPNT {
  double ipar;  // parameter, from 0
  double xval;  // where it was held
  double yval;  // minimum over the others there, in the user's sense
};

// Options of profile-likelihood limits, and their results. What a limit is, and how ffac and forchi
// set its target, is told at the head of post/znlppli.h. The analysis completes options for its own
// time alone: afterwards they are as they were given, good for another run.
struct PLCSTR {
  PLCS* plcs;        // working record while limits are computed
  int job;           // nonzero: compute limits after a run. Meanwhile: 1 Wald, 2 profile, 3 both
  int forchi;        // 0, 1: chi-square quantile, else F
  int plal;          // nonzero: alfa 0.5, 0.1, 0.05, 0.01 for all; 2: only with standard errors
  int nalf;          // levels in alfa; 0: Wald limits at 0.05
  int ipri;          // print level; 0: 1 where npri of COVSTR is 0. Above 1: the runs too
  int otab;          // the caller takes the limits by usfout of COVSTR
  int oplg;          // the same for the profiles
  long npar;         // parameters in mpar, at most n; 0, and with plal: all
  long* mpar;        // parameters for which limits are wanted, from 0; null: the first npar
  double maxi;       // [iterations] limit of each optimization; missing or 0: that of the run
  double frat;       // the first step is frat times the one to the start; missing or 0: 1
  double ffac;       // quantile over rise of the objective, above 0; missing: 2, a likelihood
  double* alfa;      // nalf levels, each inside (0, 1)
  WorkFile* utprof;  // receives the points as PLPNT; null: nobody wants them
  // ---- Results; the caller owns the arrays, and null means that it does not want them ----
  PLLIM* limits;  // 2 npar nalf (8 n with plal, 2 npar with nalf 0): parameter, level, lower before
                  // upper. Null: usfout finds them here, and nobody after it
  double* xlow;   // n; a point lower than the result, when one was met
  double flow;    // the objective there in the user's sense; missing: none
  long npnt;      // points in utprof
  long nrun;      // optimizations
  long nf;        // function evaluations, those for differences included
  int rcod;       // the answer of znlppli
  // ---- Set by the driver ----
  Callback optimize;  // runs the technique from x, without reports; code of the run: -10 when no
                      // point satisfies the constraints, -6 when its end is none of those that do
};

// Options and outputs of post-analysis.
struct COVSTR {
  PLCSTR plcs;                                           // options of the limits, by value
  PLCSTR* plcstr;                                        // the options in force, or null
  int icov;                                              // kind of covariance matrix
  double sigs;                                           // scale of the residuals
  char vardef[8];                                        // divisor of the variance
  double asin, msin, vsin, csin;                         // singularity criteria
  int ihlf;                                              // form of the half factor
  long g4li;                                             // order limit of the generalized inverse
  double vardiv, sigm, df, cfac;                         // divisor, scale, freedom, factor; divisor
                                                         // 0: formed from nobs, df and vardef
  double* nobs;                                          // observations per function
  SPAR shes, scpj;                                       // patterns of Hessian and crossproduct
  short npri, prit, pall, psho, psum, phis, pini, pfun;  // print flags
  short ptim, pgra, pjac, pcpj, phes, pjnc, pstd, pcov, neig, peig;
  int fcov, hfrm, cfrm, jfrm, cgra, cjac, ches, ccpj, cjnc, ccov;  // forms and counts
  short fout, ogra, ojac, ocpj, ohes, ojnc, oitr, otim, grst, jast, cjst, hest, jnlcst;
  WorkFile* utpmat;  // file with the matrices
  Callback usfct, usgrd, usjac, uscpj, ushes, usnlc, usjnc;
  int (*uscmat)(MINSTR* str, int job);  // computes matrices: 0 at the start, 1 at the solution
  int (*uspmat)(MINSTR* str, int job);  // prints matrices: 0 start, -1 failed start, 1 solution
  Callback usfout;
};

}  // namespace tqnlp
