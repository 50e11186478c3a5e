// The calling surface: table of the thirteen subroutines and their entries (source tqxnlp).
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

// An entry: list of argument handles and their number. Returns 0 done (also when the run ended with
// a negative code), 1 out of memory, 3 a named module does not exist, 6 bad argument, 100 the
// report object could not be made. The run's own code is the first result.
using TqxEntry = int (*)(TQLARG** arg, long* to_n);

// Answer to request 2: count and entries, in the order of the rows.
struct FNCENT {
  long nfnc;
  TqxEntry entry[13];
};

// Request 1 answers a FNCUSR, request 2 a FNCENT, in memory of the host that the caller frees with
// vmfree_handler; any other request null. Ends the call with xexit(1016) without memory.
void* qorinlp(int request);

}  // namespace tqnlp
