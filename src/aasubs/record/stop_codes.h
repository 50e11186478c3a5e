// Codes that a run ends with, and the convergence criteria behind the positive ones. The
// termination test makes them, techniques and reports read them. docs/return-codes.md tells what
// they mean to a caller.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

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

}  // namespace tqnlp
