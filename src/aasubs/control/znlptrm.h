// Termination test and iteration history (source znlptrm).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Result: 0 go on; 100 a stop was overruled; 1..10 and 102..109 stop with success; negative
// failure.
int znlptrm(MINSTR* str, int job);
double reldx(long n, double xsiz, const double* x, const double* y);
double xdif(long n, const double* x, const double* y);
void prihist(MINSTR* str, int job, int job1, int job2);

}  // namespace tqnlp
