// Defaults of a run and the limits of settings, one place for every caller that fills a record.
#include "aasubs/setup/defaults.h"

#include <algorithm>
#include <cmath>

#include "aasubs/linesearch/znlplis.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "aasubs/setup/constraint_rows.h"

namespace tqnlp {

// Digits of a double: -log10(2.2204460492503141e-16).
static constexpr double MACHINE_DIGITS = 15.653559774527022;
static constexpr double MINUS_LOG_10 = -2.302585092994046;
static constexpr double DEFAULT_TOLERANCE = 1e-8;  // sing, ceps, ldct, and some of the criteria

// Machine precision with its last bit up.
static constexpr double DEFAULT_FTOL = 2.2204460492503141e-16;

// ssin is kept below the root of the largest double, so that its square can be formed.
void default_start(MINSTR* str, int tech, int ider, long n) {
  str->tech = tech;
  str->ider = ider;
  str->nvar = n;
  str->nnva = packed_size(n);
  str->mfun = str->mequ = 1;
  str->upti = HUGE_VALUE;
  str->dfes = str->rtop = str->damp = str->dhes = MISSING;
  str->ssin = std::min(1e20, 1.3407807929942999e151);
}

// ---- Method -------------------------------------------------------------------------------------

void default_method(MINSTR* str, bool least_squares) {
  str->hesc = least_squares && str->tech == LEVMAR ? 1 : 0;
  str->tupd = 1;
  str->tlin = least_squares ? 12 : 2;
}

// DBLDOG and HYQUAN update a factor, for which there are two formulas; the others know four.
void limit_method(MINSTR* str) {
  const int updates = str->tech == DBLDOG || str->tech == HYQUAN ? 2 : 4;
  if (str->tupd > updates) str->tupd = 1;
  if (str->vers > 2) str->vers = 2;
}

void default_sparse_form(MINSTR* str) {
  const bool projected = str->lincon != 0 && !is_barrier(str);
  str->ratio = !projected && str->tech != TRUREG ? 0.5 : 0.0;
  str->tzer = 1.1102230246251569e-15;
  str->ddif = 1e-6;
}

void choose_methods(MINSTR* str) {
  static constexpr int DFP = 2;
  str->updat = str->tupd == DFP ? znlpdfp : znlpbfg;
  str->linse = select_line_search(str->tlin);
  str->acget = nlpaget;
}

// ---- Parameters ---------------------------------------------------------------------------------

double limited_digits(double digits) {
  if (std::isnan(digits)) return MACHINE_DIGITS;
  return std::clamp(digits, 1.0, 2.0 * MACHINE_DIGITS);
}

void limit_constraint_tolerances(MINSTR* str) {
  static constexpr double LARGEST_LDCT = 0.1;
  str->ceps = std::max(str->ceps, SMALLEST_TOLERANCE);
  str->ldct = std::clamp(str->ldct, 0.0, LARGEST_LDCT);
}

// Slope reduction at which a line search is content. Newton steps are good enough to ask for
// little.
static double default_sigma(const MINSTR* str, int job) {
  static constexpr double TIGHT = 0.06;  // for the DFP update, which asks for exact searches
  if (str->tech == NEWRAP) return 0.9;
  if (str->tech == HYQUAN) return str->tupd == 2 ? TIGHT : 0.1;
  if (job == 1) return 0.1;
  return str->tupd == 2 ? TIGHT : 0.4;
}

// Iterations after which a technique restarts.
static double default_restart(const MINSTR* str) {
  if (str->tech == CONGRA) return 0.0;  // the technique chooses n
  return str->tech == LEVMAR ? 40.0 : NEVER;
}

void default_parameters(MINSTR* str, int job) {
  str->sing = str->ceps = str->ldct = DEFAULT_TOLERANCE;
  str->salf = str->tech == NMSIMP && str->nlicon != 0 ? 0.5 : 1.0;
  str->dhes = str->damp = str->deat = str->cdig = str->fdig = MISSING;
  if (job == SETTINGS_SIMPLEX) return;
  str->sigm = default_sigma(str, job);
  str->nres = default_restart(str);
}

void limit_parameters(MINSTR* str) {
  str->fdig = limited_digits(str->fdig);
  str->cdig = limited_digits(str->cdig);
  limit_constraint_tolerances(str);
}

// ---- Limits and criteria ------------------------------------------------------------------------

// Numbers of iterations and calls, by job: techniques without second derivatives get more.
void default_limits(MINSTR* str, int job) {
  static constexpr double ITERATIONS[] = {1000.0, 400.0, 200.0};
  static constexpr double CALLS[] = {3000.0, 1000.0, 500.0};
  str->maxi = ITERATIONS[job];
  str->maxf = CALLS[job];
  str->max2 = 0.0;
}

// A criterion at 0 is off. ABSCONV stands where no objective gets, on the side of the run's sign.
void default_criteria(MINSTR* str, int job) {
  const bool nonlinear = str->nlicon != 0;
  str->atol = str->imax != 0 ? ROOT_HUGE : -ROOT_HUGE;
  str->ftol = str->fdig > 0.0 ? std::exp(str->fdig * MINUS_LOG_10) : DEFAULT_FTOL;
  str->gto2 = str->aftl = str->fsiz = str->xsiz = 0.0;
  if (job == 0) {
    str->gtol = str->agtl = 0.0;
    str->fto2 = 1e-6;
    str->xtol = nonlinear ? 0.0 : DEFAULT_TOLERANCE;
    str->axtl = nonlinear ? 1e-4 : DEFAULT_TOLERANCE;
  } else {
    str->gtol = DEFAULT_TOLERANCE;
    str->agtl = 1e-5;
    str->fto2 = nonlinear ? 1e-6 : 0.0;
    str->xtol = str->axtl = 0.0;
  }
}

}  // namespace tqnlp
