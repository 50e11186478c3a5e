// Termination test and iteration history (source znlptrm).
#pragma once

#include "aasubs/record/minstr.h"
#include "aasubs/record/stop_codes.h"

namespace tqnlp {

// Jobs of the termination test; any other positive number stands for a finished iteration, without
// a history line when it is even, and a negative number for the code that a technique stopped with.
inline constexpr int TEST_LIMITS_ONLY = 0;
inline constexpr int TEST_ITERATION = 1;
inline constexpr int TEST_START = 10;

// Tests whether a technique goes on, and writes the iteration history.
//   job     10 start or restart (no step yet), 1 or any positive odd number an iteration has ended,
//           positive even the same without a history line, 0 look at the limits alone, negative the
//           technique stopped with this code
//   reads   the termination group, crit, cold, x, xold and the iteration values of the record
//   writes  rcod, the counters toln[11..18], idac (cleared when the run goes on), fidi (by a switch
//           to central differences), the history; x and crit when the analysis of a stop finds a
//           better point
// Returns 0 go on; 100 a stop was overruled, go on; 1..9 convergence by that criterion; 10 all
// parameters on active constraints (for every job but 10, failures included); 102..109 stopped
// while a criterion was being counted; negative failure. A NaN among the values meets no criterion;
// the limits then end the run.
int znlptrm(MINSTR* str, int job);

// Code of the limit on iterations, evaluations or time that the run has reached; 0 none.
int limit_reached(const MINSTR* str);

// Writes the iteration history: the start table and the head of the history at the start of a run,
// a row at a later call whose job is negative or odd. job1 selects the layout of the start table
// and of the marks, job2 the columns. A service of the report that fails is logged; the line is
// lost.
void prihist(MINSTR* str, int job, int job1, int job2);

}  // namespace tqnlp
