// tqxnlp, the vectors of settings: opt (setoptn), par (setparm) and tc (setterm), translated into
// the record. A missing element, or a vector that is too short, keeps the default. Element numbers
// count from 1, as the language does.
#include <algorithm>
#include <cmath>

#include "aasubs/setup/defaults.h"
#include "front/tqxnlp_decode.h"

namespace tqnlp {

static constexpr double INTEGER_LIMIT = 2147483647.0;

int to_int(double value) {
  if (std::isnan(value)) return 0;
  return static_cast<int>(std::clamp(value, -INTEGER_LIMIT, INTEGER_LIMIT));
}

namespace {

// A vector of settings, read by element number.
struct Settings {
  const double* values;
  int reach;  // elements that are looked at

  // Is element k there?
  bool has(int k) const { return k <= reach && !std::isnan(values[k - 1]); }
  double at(int k) const { return values[k - 1]; }
  // Takes element k, if there; or only if positive.
  void take(int k, double* field) const {
    if (has(k)) *field = at(k);
  }
  void take(int k, int* field) const {
    if (has(k)) *field = to_int(at(k));
  }
  void take(int k, long* field) const {
    if (has(k)) *field = to_int(at(k));
  }
  void take_positive(int k, double* field) const {
    if (has(k) && at(k) > 0.0) *field = at(k);
  }
  void take_positive(int k, int* field) const {
    if (has(k) && to_int(at(k)) > 0) *field = to_int(at(k));
  }
};

}  // namespace

// ---- opt ----------------------------------------------------------------------------------------

static constexpr int OPTION_ELEMENTS = 12;

// Elements beyond what an int holds are brought into range in the caller's own vector, so that it
// shows what was used.
static void clamp_in_place(double* values, int reach) {
  for (int k = 0; k < reach; ++k) {
    if (!std::isnan(values[k])) values[k] = std::clamp(values[k], -INTEGER_LIMIT, INTEGER_LIMIT);
  }
}

// Element 2. A fraction is dropped: between two levels some tests would see one, some the other.
static void set_print_level(MINSTR* str, const Settings& opt) {
  static constexpr double MOST_DETAIL = 9.0;
  // Level 1 is left out on purpose: the lowest request already prints the history.
  str->dbug = opt.has(2) && opt.at(2) > 0.0 ? std::floor(opt.at(2) + 1.0) : 0.0;
  if (str->dbug > MOST_DETAIL) str->dbug = MOST_DETAIL;
}

// Elements 3 to 7, which techniques with derivatives read.
static void set_method(MINSTR* str, const Settings& opt, bool least_squares) {
  default_method(str, least_squares);
  opt.take(3, &str->hesc);
  opt.take_positive(4, &str->tupd);
  opt.take_positive(5, &str->tlin);
  opt.take_positive(6, &str->vers);
  opt.take(7, &str->load);
}

// Difference code c: tens choose the intervals that are estimated, units the kind of difference.
// The tens work as two bits, 1 objective and 2 constraints; the bit of what is not differenced is
// dropped.
static void set_difference_code(MINSTR* str, int code) {
  str->fidi = code % 10;
  str->cfdh = code / 10;
  if (str->cfdh > 3 || str->cfdh < 0) str->cfdh = 0;
  if (str->nnlc == 0) {
    if (str->cfdh == 2) str->cfdh = 0;
    if (str->cfdh == 3) str->cfdh = 1;
  }
  if (str->cfdh == 3 && str->secstr->igmod != 0) str->cfdh = 2;
}

// The order matters: the difference code looks at nnlc, the limits at what the elements gave.
void setoptn(MINSTR* str, int job) {
  ARGMTS* argm = str->secstr;
  str->hesc = str->imax = str->load = 0;
  str->vers = DEFAULT_VERSION;
  const Settings opt{argm->optn, std::min(argm->nopt, OPTION_ELEMENTS)};
  clamp_in_place(argm->optn, opt.reach);

  set_print_level(str, opt);
  if (job == 2) {
    str->mequ = 0;
    opt.take(1, &str->mequ);
  } else if (opt.has(1) && opt.at(1) != 0.0) {
    str->imax = 1;
  }
  if (job != 0) set_method(str, opt, job == 2);
  if (job == 1 && str->tech != QUADAS) {
    argm->hrow = 0;
    opt.take(9, &argm->hrow);
  }
  if (job != 2) {
    opt.take(10, &str->nnlc);
    opt.take(11, &str->nlec);
  }
  limit_method(str);
  int code = 0;
  if (job != 0) opt.take(8, &code);
  set_difference_code(str, code);
}

// ---- par ----------------------------------------------------------------------------------------

// Follows getncon, since the first step length depends on nlicon.
void setparm(MINSTR* str, int job) {
  const ARGMTS* argm = str->secstr;
  default_parameters(str, job);

  // An infinite parameter has no meaning and counts as missing.
  static constexpr int ELEMENTS = 12;
  double finite[ELEMENTS];
  const int reach = std::min(argm->npar, job > 0 ? ELEMENTS : 4);
  for (int k = 0; k < reach; ++k) {
    finite[k] = std::isfinite(argm->parm[k]) ? argm->parm[k] : MISSING;
  }
  const Settings par{finite, reach};
  par.take(1, &str->sing);
  par.take(2, &str->salf);
  par.take(3, &str->ceps);
  par.take(4, &str->deat);
  par.take_positive(5, &str->ldct);
  par.take_positive(6, &str->sigm);
  par.take_positive(7, &str->damp);
  par.take_positive(8, &str->fdig);
  par.take_positive(9, &str->cdig);
  par.take_positive(10, &str->dhes);

  limit_parameters(str);
}

// ---- tc -----------------------------------------------------------------------------------------

// Fields by element number; the simplex technique has no gradient criteria.
static constexpr double MINSTR::*SIMPLEX_CRITERIA[] = {
    &MINSTR::maxi, &MINSTR::maxf, &MINSTR::atol, &MINSTR::ftol, &MINSTR::fto2,
    &MINSTR::aftl, &MINSTR::fsiz, &MINSTR::xtol, &MINSTR::axtl, &MINSTR::xsiz,
};
static constexpr double MINSTR::*CRITERIA[] = {
    &MINSTR::maxi, &MINSTR::maxf, &MINSTR::atol, &MINSTR::gtol, &MINSTR::gto2,
    &MINSTR::agtl, &MINSTR::ftol, &MINSTR::fto2, &MINSTR::aftl, &MINSTR::fsiz,
    &MINSTR::xtol, &MINSTR::axtl, &MINSTR::xsiz,
};
static constexpr int SIMPLEX_ELEMENTS = 10;
static constexpr int CRITERIA_ELEMENTS = 13;
static constexpr int ELEMENT_MAX2 = 20;  // the elements between have no use

void setterm(MINSTR* str, int job) {
  const ARGMTS* argm = str->secstr;
  default_limits(str, job);
  default_criteria(str, job);
  const Settings tc{argm->tcri, argm->nitc};
  // The values are taken as they are; an infinite one as the largest number, a limit or level that
  // is never (or always) reached.
  const auto take = [&tc](int k, double* field) {
    if (tc.has(k)) *field = std::clamp(tc.at(k), -HUGE_VALUE, HUGE_VALUE);
  };
  const int elements = job == 0 ? SIMPLEX_ELEMENTS : CRITERIA_ELEMENTS;
  for (int k = 1; k <= elements; ++k) {
    take(k, &(str->*(job == 0 ? SIMPLEX_CRITERIA : CRITERIA)[k - 1]));
  }
  take(ELEMENT_MAX2, &str->max2);
}

}  // namespace tqnlp
