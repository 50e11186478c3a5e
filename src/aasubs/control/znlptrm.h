// Termination test and iteration history (source znlptrm).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Jobs of the termination test; any other positive number stands for a finished iteration, without
// a history line when it is even, and a negative number for the code that a technique stopped with.
inline constexpr int TEST_LIMITS_ONLY = 0;
inline constexpr int TEST_ITERATION = 1;
inline constexpr int TEST_START = 10;

// Codes that the test itself makes.
inline constexpr int STOP_OVERRULED = 100;
inline constexpr int ALL_PARAMETERS_ACTIVE = 10;
inline constexpr int NEAR_CRITERION = 101;  // plus the counter 1..8: stopped close to a criterion
inline constexpr int FUNCTION_FAILED = -3;
inline constexpr int NO_PROGRESS = -5;
inline constexpr int COUNT_LIMIT = -8;
inline constexpr int TIME_LIMIT = -9;
inline constexpr int MODULE_FAILED = -11;

// A convergence criterion: the code of a run that it ends, its name, its tolerance, and its place
// among the counters of toln (0: the criterion ends the run at once and has no counter).
struct Criterion {
  int code;
  const char* name;  // eight characters, padded with blanks
  double MINSTR::*tolerance;
  int counter;
};

inline constexpr Criterion CRITERIA[] = {
    {1, "ABSCONV ", &MINSTR::atol, 0},   // objective at the level atol
    {2, "ABSFCONV", &MINSTR::aftl, 1},   // change of the objective
    {3, "ABSGCONV", &MINSTR::agtl, 2},   // largest projected gradient element
    {4, "ABSXCONV", &MINSTR::axtl, 3},   // change of the parameters, or size of the simplex
    {5, "FCONV   ", &MINSTR::ftol, 4},   // relative change of the objective
    {6, "GCONV   ", &MINSTR::gtol, 5},   // relative predicted reduction
    {7, "XCONV   ", &MINSTR::xtol, 6},   // relative change of the parameters
    {8, "FCONV2  ", &MINSTR::fto2, 7},   // predicted reduction, or spread of the simplex
    {9, "GCONV2  ", &MINSTR::gto2, 8}};  // scaled gradient of least squares
inline constexpr int FIRST_CRITERION = 1;
inline constexpr int LAST_CRITERION = 9;
inline constexpr int CONSECUTIVE_COUNTERS = 8;  // toln[1..8] wanted, toln[11..18] counted
inline constexpr int COUNTED = 10;              // place of a count behind the wanted number

constexpr const Criterion& criterion(int code) { return CRITERIA[code - FIRST_CRITERION]; }

// The techniques that move a simplex of points; they have no gradient.
inline bool is_simplex(const MINSTR* str) { return str->tech == 14 || str->tech == 15; }

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

// Largest change between x and y (n elements) relative to max(|x|, |y|, xsiz), guarded against
// overflow; 0 for n = 0. A NaN element makes the result NaN.
double reldx(long n, double xsiz, const double* x, const double* y);

// Euclidean norm of x - y; 0 for n = 0.
double xdif(long n, const double* x, const double* y);

// Writes the iteration history: the start table and the head of the history at the start of a run,
// a row at a later call whose job is negative or odd. job1 selects the layout of the start table
// and of the marks, job2 the columns. A service of the report that fails is logged; the line is
// lost.
void prihist(MINSTR* str, int job, int job1, int job2);

}  // namespace tqnlp
