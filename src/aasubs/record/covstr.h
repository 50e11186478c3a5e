// Records of post-analysis. None of the thirteen subroutines makes one: they stand for a caller
// that goes on to standard errors, covariances and profile-likelihood limits after a run. Where
// COVSTR supplies a callback, the driver prefers it to the one in MINSTR.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

struct PLCS;  // working record of the profile-likelihood limits

// Options of profile-likelihood limits.
struct PLCSTR {
  PLCS* plcs;        // working record while limits are computed
  int job;           // nonzero: compute limits after a run
  int forchi;        // 1: chi-square quantile, else F
  int plal;          // declared kind of the alpha list
  int nalf;          // levels in alfa
  int ipri;          // print the iterations
  int otab;          // write an output table
  int oplg;          // write the output of the likelihood
  long npar;         // parameters in mpar
  long* mpar;        // parameters for which limits are wanted
  double maxi;       // iteration limit of a limit's search
  double frat;       // ratio of the first step
  double ffac;       // factor of the objective in the likelihood
  double* alfa;      // nalf confidence levels
  WorkFile* utprof;  // file with the results
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
  double vardiv, sigm, df, cfac;                         // divisor, scale, freedom, factor
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
