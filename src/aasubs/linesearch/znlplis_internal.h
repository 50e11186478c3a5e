// What the sources of the line searches share: the start of a search, trials, interpolation, and
// the three ways in which a search ends.
#pragma once

#include "aasubs/linesearch/znlplis.h"

namespace tqnlp::lis {

// No search needs as many trials as this: it ends those that noise or inconsistent derivatives
// would keep going.
inline constexpr int MOST_TRIALS = 100;

// Share of a step that a failed evaluation leaves.
inline constexpr double RETREAT = 0.1;

// 1.110223024625157e-15: relative moves of a parameter below it are none; steps below it are given
// up by the rescue.
inline constexpr double TEN_EPS = 1.110223024625157e-15;

// What stays the same during one search.
struct Search {
  double f0 = 0.0;     // value at xold
  double gs0 = 0.0;    // slope at xold
  double gmx0 = 0.0;   // gmax at xold
  double limit = 0.0;  // step limit of this search: stub, and smax in the first searches
  int failure = 1;     // value that a failed search returns
  double gate = 1e-4;  // gmax above which a failed search is worth a rescue
};

// A step with what is known there.
struct Sample {
  double alfa = 0.0;
  double f = 0.0;
  double gs = 0.0;
};

// ---- Start --------------------------------------------------------------------------------------

// Counts the search and notes value, gmax and step limit; the slope is the caller's.
Search begin_search(MINSTR* str);

// The same for methods 1 to 5, which take the slope from gold. False: the search is over before a
// first trial, and *code is its result.
bool begin_descent(MINSTR* str, Search* search, int* code);

// The same for methods 6 to 9. with_slope: the slope is taken from grad, and gmax refreshed;
// otherwise it counts as 0. A zero step limit, or a zero slope that was asked for, ends the search
// with code 0 and alfa 0.
bool begin_comparison(MINSTR* str, bool with_slope, Search* search, int* code);

// Share rho of the decrease promised by the slope that methods 6 to 8 compare with.
double promised_share(const MINSTR* str);

// ---- Trials -------------------------------------------------------------------------------------

// x := xold + alfa sdir.
void move_to(MINSTR* str, double alfa);

// Objective at xold + alfa sdir, which is then in x. False: the evaluation failed.
bool try_function(MINSTR* str, double alfa);

// Gradient at x, gmax, and the slope along sdir. False: the evaluation failed.
bool try_slope(MINSTR* str, double* slope);

// Both at trial->alfa; f and gs are only meaningful on success.
bool try_sample(MINSTR* str, Sample* trial);

// Does a step alfa along sdir change xold beyond rounding? Parameters that neither are nor become
// anything count as moved; the largest move decides then.
bool moves_something(const MINSTR* str, double alfa);

// Is the step at the limit or, where the smallest noticeable step is longer, beyond it?
inline bool at_limit(const Search& search, double alfa) {
  return alfa + SMALLEST_TOLERANCE >= search.limit;
}

// Is a value above f0 so close to it that shorter steps would only show more of the same rounding?
inline bool rise_is_rounding(const Search& search, double f) {
  return f - search.f0 <= HUNDRED_EPS * (search.f0 < 0.0 ? -search.f0 : search.f0);
}

// ---- Interpolation ------------------------------------------------------------------------------

// Value kept in [low, high]; low when value is no number.
double kept_within(double low, double value, double high);

// Minimum of the cubic that fits values and slopes at two steps, low before high, as a fraction of
// their distance, kept in [margin, 1 - margin].
double cubic_fraction(const Sample& low, const Sample& high, double margin);

// How much further to go from `at`, where the slope is still steep: to the minimum of a parabola,
// but not less than at.alfa and not more than `most`, which counts more.
double quadratic_extension(const Search& search, const Sample& at, double most);

// ---- End ----------------------------------------------------------------------------------------

// The point in x, with its gradient, becomes the result if it is not worse than xold; otherwise the
// rescue is tried.
int accept_step(MINSTR* str, const Search& search, double alfa);

// Tries bisect with the given step if gmax was large at the start; otherwise, and when that fails
// too, the search has failed.
int rescue(MINSTR* str, const Search& search, double step);

// Step from which the rescue of a search that ends at trial alfa sets out. It begins with a tenth:
// with the trial itself, or inside it when that was as long as the step may be.
inline double rescue_step(const Search& search, double alfa) {
  return at_limit(search, alfa) ? search.limit : 10.0 * alfa;
}

// Back to xold. Returns search.failure.
int fail(MINSTR* str, const Search& search);

// End of methods 6 to 9 at the point in x, which the method has found no worse than xold.
// with_slope: the gradient is called first; when it fails the search has failed.
int accept_comparison(MINSTR* str, const Search& search, double alfa, bool with_slope);

// At the fifth search of a run: the user's limit of the first step no longer holds.
void release_first_step(MINSTR* str);

}  // namespace tqnlp::lis
