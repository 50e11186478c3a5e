// What a run has where its caller says nothing, by technique, and the limits of what he says.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Kinds of runs, by which parameters, limits and criteria differ (job).
inline constexpr int SETTINGS_SIMPLEX = 0;    // NMSIMP, NMSIM2
inline constexpr int SETTINGS_CONJUGATE = 1;  // CONGRA
inline constexpr int SETTINGS_GENERAL = 2;    // and above: all others

inline constexpr int DEFAULT_VERSION = 2;  // vers

// What every run starts from: one function, sizes that belong to nvar, no limit of time, the
// objective unbounded beyond ssin, and nothing of what is missing by default.
void default_start(MINSTR* str, int tech, int ider, long n);

// hesc, tupd, tlin. Reads tech. limit_method: what a technique does not know is replaced.
void default_method(MINSTR* str, bool least_squares);
void limit_method(MINSTR* str);

// sing, ceps, ldct, salf, dhes, damp, deat, cdig, fdig; sigm and nres where job is not the simplex.
// Reads tech, tupd, nlicon. limit_parameters: the accuracies of the functions and the tolerances of
// constraints into their ranges.
void default_parameters(MINSTR* str, int job);
void limit_parameters(MINSTR* str);

// maxi, maxf, max2.
void default_limits(MINSTR* str, int job);

// The tolerances of the convergence criteria. Reads fdig (so it follows the parameters), imax and
// nlicon.
void default_criteria(MINSTR* str, int job);

// Limits of an accuracy (fdig, cdig): missing becomes the digits of machine precision, others are
// kept within 1 and twice that.
double limited_digits(double digits);

// Limits of the tolerances of feasibility and linear dependence.
void limit_constraint_tolerances(MINSTR* str);

// The sparse form of a Hessian. ratio: density above which the dense form is kept; with linear
// constraints the projection fills the matrix, so that it is always dense (but in the range-space
// frame, which does not project), and TRUREG has no sparse factor.
void default_sparse_form(MINSTR* str);

// Update, line search and the rows of the constraints, by tupd and tlin.
void choose_methods(MINSTR* str);

}  // namespace tqnlp
