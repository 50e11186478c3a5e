// The calling surface: table of the thirteen subroutines and their entries (source tqxnlp).
//
// A host asks qorinlp for the table and the entries, and calls an entry with the argument list of a
// call. Nothing persists between calls.
#pragma once

#include "host/language.h"

namespace tqnlp {

// What a row says about its arguments and results.
struct FNCSTR {
  short fpack;          // 0
  short fnum;           // 0
  short fmin;           // fewest arguments
  short fmax;           // most arguments
  char fprod;           // product code
  unsigned long fdesc;  // 1
  long fargi;           // three bits an argument, the first in the low bits: 1 matrix, 2 name
};

struct FNCITEM {
  char fncname[16];  // zero-filled
  FNCSTR fncstr;
};

// Answer to request 1: count and table.
struct FNCUSR {
  long nfnc;
  const FNCITEM* fncitem;
};

// Returns of an entry.
inline constexpr int ENTRY_DONE = 0;          // also when the run ended with a negative code
inline constexpr int ENTRY_NO_MEMORY = 1;     // memory was refused
inline constexpr int ENTRY_NO_MODULE = 3;     // a named module does not exist
inline constexpr int ENTRY_BAD_ARGUMENT = 6;  // a number or shape that cannot be
inline constexpr int ENTRY_NO_REPORT = 100;   // the report object could not be made or delivered

// An entry: list of argument handles and their number. Returns one of the codes above, or the
// nonzero status with which the host refused to prepare a module. On ENTRY_DONE result 1 is the
// run's own return code and result 2 the final point, a row (NLPFEA: result 1 is the point, NLPFDD:
// function, gradient, Hessian). Any other return leaves a message of group 178 in the log, or the
// host's own line about memory. Arguments beyond the row's largest number are not looked at.
using TqxEntry = int (*)(TQLARG** arg, long* to_n);

inline constexpr int SUBROUTINES = 13;

// Answer to request 2: count and entries, in the order of the rows.
struct FNCENT {
  long nfnc;
  TqxEntry entry[SUBROUTINES];
};

// Request 1 answers a FNCUSR, request 2 a FNCENT, in memory of the host that the caller frees with
// vmfree_handler; any other request null. Ends the call with xexit(1016) without memory.
void* qorinlp(int request);

// The entries, in the order of the rows.
int tqxfdd(TQLARG** arg, long* to_n);  // NLPFDD: differences at a point
int tqxfea(TQLARG** arg, long* to_n);  // NLPFEA: feasible point
int tqxqas(TQLARG** arg, long* to_n);  // NLPQUA: quadratic objective
int tqxnms(TQLARG** arg, long* to_n);  // NLPNMS: Nelder-Mead simplex, COBYLA
int tqxvmc(TQLARG** arg, long* to_n);  // NLPVMC: variable metric with watchdog
int tqxcg(TQLARG** arg, long* to_n);   // NLPCG: conjugate gradient
int tqxqn(TQLARG** arg, long* to_n);   // NLPQN: quasi-Newton
int tqxdd(TQLARG** arg, long* to_n);   // NLPDD: double dogleg
int tqxtr(TQLARG** arg, long* to_n);   // NLPTR: trust region
int tqxnra(TQLARG** arg, long* to_n);  // NLPNRA: Newton-Raphson with line search
int tqxnrr(TQLARG** arg, long* to_n);  // NLPNRR: Newton-Raphson with ridging
int tqxlm(TQLARG** arg, long* to_n);   // NLPLM: Levenberg-Marquardt
int tqxhqn(TQLARG** arg, long* to_n);  // NLPHQN: hybrid quasi-Newton least squares

}  // namespace tqnlp
