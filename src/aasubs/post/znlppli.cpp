// znlppli: Profile-LIkelihood limits of single parameters, the analysis as a whole. What a limit is
// stands in the header, how one is searched for in znlppli_search.cpp.
//
//   1  lists of parameters and levels, options, and who takes the limits
//   2  a copy of the record; callbacks that count; bounds, so that a parameter can be held
//   3  f* once more with tight tolerances, the scale, the targets, standard errors
//   4  Wald limits; both sides of every parameter
//   5  report, results, the record as it was, the caller's output
//
// Every optimization begins with the same record (base), its start point apart, so that what one
// run leaves behind never reaches the next.
#include "aasubs/post/znlppli.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

#include "aasubs/post/znlppli_internal.h"
#include "aasubs/record/stop_codes.h"
#include "aasubs/reports/report_tables.h"
#include "host/log.h"
#include "host/memory.h"
#include "kernels/distributions.h"

namespace tqnlp {

static constexpr int FREE_TECHNIQUE = 20;
static constexpr int WALD = 1;
static constexpr int PROFILE = 2;
static constexpr int BOTH = 3;
static constexpr int ONLY_WITH_ERRORS = 2;  // plal
static constexpr int SPARSE_FORM = 1;
static constexpr long POINTS_PER_LEVEL = 60;
static constexpr double DIGITS_OF_F = 32.0 * MACHINE_PRECISION;
static constexpr double STANDARD_LEVELS[] = {0.5, 0.1, 0.05, 0.01};

// ---- Options ------------------------------------------------------------------------------------

// Parameters and levels: with plal, and where none are named, all of them, and the usual ones.
static void complete_lists(const MINSTR* str, PLCSTR* o, double* levels) {
  if (o->npar <= 0 || o->plal != 0) o->mpar = nullptr;
  if (o->npar <= 0 || o->plal != 0 || (o->mpar == nullptr && o->npar > str->nvar)) {
    o->npar = str->nvar;
  }
  o->job = o->plal != 0 ? PROFILE : o->nalf > 0 ? BOTH : WALD;
  if (o->plal != 0) {
    std::copy(std::begin(STANDARD_LEVELS), std::end(STANDARD_LEVELS), levels);
    o->alfa = levels;
    o->nalf = std::size(STANDARD_LEVELS);
  } else if (o->nalf <= 0) {
    levels[0] = 0.05;
    o->alfa = levels;
    o->nalf = 1;
  }
}

// Can the lists be worked through? Tells what is wrong.
static bool lists_are_good(const MINSTR* str, const PLCSTR* o) {
  if (o->alfa == nullptr || o->npar > str->nvar) {
    xpslog("Bad jpnt=%li nalf=%i", o->alfa == nullptr ? 0L : o->npar, o->nalf);
    return false;
  }
  for (long kk = 0; o->mpar != nullptr && kk < o->npar; ++kk) {
    if (o->mpar[kk] >= 0 && o->mpar[kk] < str->nvar) continue;
    xpslog(" Bad k=%li kk=%li ierr=%i", o->mpar[kk], kk, -1);
    return false;
  }
  return true;
}

// Completes the other options. Returns the code to end with, or GO_ON.
static constexpr int GO_ON = 100;

static int complete_options(const MINSTR* str, PLCSTR* o) {
  const COVSTR* post = str->covstr;
  if (o->ipri == 0 && post->npri == 0) o->ipri = 1;
  if (o->plal != 0) {
    o->otab = o->oplg = 1;
    o->maxi = o->frat = MISSING;
  } else if (post->usfout != nullptr) {
    o->oplg = 1;
  }
  if (post->usfout == nullptr) o->otab = o->oplg = 0;
  if (o->forchi == 0) o->forchi = 1;
  if (wzmis(o->ffac)) o->ffac = 2.0;
  if (!(o->ffac > TINY)) {
    xpmlog(OPTIMIZATION, 284);
    return -1;
  }
  // An array of limits counts as one who takes them, like the output flags.
  const bool output = o->otab != 0 || o->oplg != 0 || o->limits != nullptr;
  if (!output && (o->ipri == 0 || o->job == WALD)) return 0;
  return GO_ON;
}

// ---- Callbacks while limits are computed --------------------------------------------------------

static int fplc(MINSTR* str) {
  PLCS* s = working_record(str);
  ++s->nf;
  return s->usfct(str);
}

static int gplc(MINSTR* str) {
  PLCS* s = working_record(str);
  ++s->ng;
  return s->usgrd(str);
}

static int hplc(MINSTR* str) {
  PLCS* s = working_record(str);
  ++s->nh;
  return s->ushes(str);
}

// ---- One optimization ---------------------------------------------------------------------------

// The least target; 1 when there is none.
static double least_target(const PLCS* s) {
  const double least = s->goal[s->ialf[0]];
  return wzmis(least) ? 1.0 : least;
}

static int optimize(MINSTR* str) {
  PLCSTR* options = str->covstr->plcstr;
  *str = working_record(str)->base;
  ++options->nrun;
  return options->optimize(str);
}

// Moves the free parameters a little, to and fro.
static void disturb(MINSTR* str) {
  static constexpr double SHARE = 1e-4;
  static constexpr double SIZE_OF_ZERO = 1e-2;
  for (long j = 0; j < str->nvar; ++j) {
    const double size = SHARE * std::max(std::fabs(str->x[j]), SIZE_OF_ZERO);
    str->x[j] = std::clamp(str->x[j] + (j % 2 == 0 ? size : -size), str->lb[j], str->ub[j]);
  }
}

bool objective_at(MINSTR* str, const double* x) {
  *str = working_record(str)->base;
  std::copy_n(x, str->nvar, str->x);
  str->indf = AT_SOLUTION;
  str->ifdr = ORDER_FUNCTION;
  return str->usfct(str) == 0 && str->tbig == 0.0 && std::isfinite(str->crit);
}

// Codes beyond those of the library are requests to stop. A module that failed may only have had
// no value: it is asked where it had one.
bool ends_analysis(MINSTR* str, int code) {
  if (code == TIME_LIMIT || code < MODULE_FAILED) return true;
  return code == MODULE_FAILED && !objective_at(str, working_record(str)->xopt);
}

// Is the end of a run that rounding stopped before a criterion was met a solution? It is when a run
// from beside it comes to the same value. A run that comes lower takes its place, a few times.
static int confirm(MINSTR* str) {
  static constexpr double SAME = 1e-9;  // of the least target
  static constexpr int MOST_RUNS = 3;
  const PLCS* s = working_record(str);
  const double same = std::max(SAME * least_target(s), s->noise);
  for (int i = 0; i < MOST_RUNS; ++i) {
    const double value = str->crit;
    std::copy_n(str->x, str->nvar, s->xend);
    disturb(str);
    const int code = optimize(str);
    if (code < 0 && code != NO_PROGRESS) return code;
    if (!(str->crit <= value + same)) return NO_PROGRESS;
    const bool agrees = code >= 0 || str->crit >= value - same;
    if (str->crit > value) {
      str->crit = value;
      std::copy_n(s->xend, str->nvar, str->x);
    }
    if (agrees) return 0;
  }
  return NO_PROGRESS;
}

// foplc: optimizes from x, with the callbacks above. 0, or a negative code.
static int foplc(MINSTR* str) {
  int code = optimize(str);
  if (code == NO_PROGRESS) code = confirm(str);
  if (code < 0) return code;
  return std::isfinite(str->crit) ? 0 : FUNCTION_FAILED;
}

static void clear_counters(long* toln) {
  if (toln != nullptr) std::fill_n(toln + COUNTED, COUNTED, 0L);
}

int doopt(double ai, MINSTR* str, int job, long ipar) {
  const PLCS* s = working_record(str);
  const long n = str->nvar;
  if (job == 0) {
    if (str->toln != nullptr) std::fill_n(str->toln, 2 * COUNTED, 0L);
    if (s->base.dbug >= 2.0) xpmlog(OPTIMIZATION, 285, {parameter_name(str, ipar).text});
    return 0;
  }
  std::copy_n(s->lb, n, str->lb);
  std::copy_n(s->ub, n, str->ub);
  for (long j = 0; j < n; ++j) str->iabc[j] = s->lb[j] == s->ub[j] ? 2 : 0;
  if (ipar >= 0) {
    str->iabc[ipar] = 2;
    str->lb[ipar] = str->ub[ipar] = str->x[ipar] = ai;
  }
  clear_counters(str->toln);
  return foplc(str);
}

// ---- Working record -----------------------------------------------------------------------------

// Lays arrays out one behind the other: with a null block only their length is found.
static double* divide_doubles(const MINSTR* str, const PLCSTR* o, PLCS* s, double* block) {
  const long n = str->nvar;
  const auto take = [&block](long count) {
    double* array = block;
    block = block != nullptr ? block + count : nullptr;
    return array;
  };
  s->mpnt = 1 + POINTS_PER_LEVEL * o->nalf;
  s->xsav = take(n), s->xopt = take(n), s->lb = take(n), s->ub = take(n);
  s->lbnd = take(n), s->ubnd = take(n), s->ster = take(n);
  s->xend = take(n);
  s->xval = take(s->mpnt), s->yval = take(s->mpnt), s->xpnt = take(s->mpnt * n);
  s->quan = take(o->nalf), s->goal = take(o->nalf);
  return block;
}

static std::size_t length_of_doubles(const MINSTR* str, const PLCSTR* o) {
  const long points = 1 + POINTS_PER_LEVEL * o->nalf;
  return static_cast<std::size_t>(8 * str->nvar + points * (str->nvar + 2) + 2 * o->nalf);
}

// The working record with its arrays in one block of the host; null when it is refused.
static PLCS* take_record(const MINSTR* str, const PLCSTR* o) {
  const auto n = static_cast<std::size_t>(str->nvar);
  const auto levels = static_cast<std::size_t>(o->nalf);
  const std::size_t doubles = length_of_doubles(str, o) * sizeof(double);
  const std::size_t limits = 2 * static_cast<std::size_t>(o->npar) * levels * sizeof(PLLIM);
  const std::size_t bytes =
      sizeof(PLCS) + doubles + limits + n * sizeof(long) + (2 * n + levels) * sizeof(int);
  auto* block = static_cast<char*>(vmalloc_handler(bytes, 0));
  if (block == nullptr) {
    xmemmsg(bytes);
    return nullptr;
  }
  auto* s = reinterpret_cast<PLCS*>(block);
  block += sizeof(PLCS);
  divide_doubles(str, o, s, reinterpret_cast<double*>(block));
  block += doubles;
  s->limits = reinterpret_cast<PLLIM*>(block);
  block += limits;
  s->ifxr = reinterpret_cast<long*>(block);
  s->iabc = reinterpret_cast<int*>(s->ifxr + n);
  s->stat = s->iabc + n;
  s->ialf = s->stat + n;
  return s;
}

// ---- The record while limits are computed -------------------------------------------------------

// Bounds, absent ones where the run has none, so that a parameter can be held by them.
static void set_bounds(MINSTR* str, PLCS* s) {
  const long n = str->nvar;
  if (str->bounds == 0) {
    vzfdl(-HUGE_VALUE, s->lbnd, n);
    vzfdl(HUGE_VALUE, s->ubnd, n);
    str->lb = s->lbnd;
    str->ub = s->ubnd;
  }
  if (str->iabc == nullptr) str->iabc = s->stat;
  if (str->ifxr == nullptr) {
    str->ifxr = s->ifxr;
    for (long j = 0; j < n; ++j) str->ifxr[j] = j;
  } else {
    std::copy_n(str->ifxr, n, s->ifxr);
  }
  str->bounds = 1;
  std::copy_n(str->lb, n, s->lb);
  std::copy_n(str->ub, n, s->ub);
}

// Central in place of forward differences: what they leave undone would move the limits.
static int central_digits(int fidi) {
  int result = 0;
  for (int k = 0, place = 1; k < 5; ++k, place *= 10) {
    const int digit = fidi_digit(fidi, k);
    result += place * (digit + digit % 2);
  }
  return result;
}

static void set_callbacks(MINSTR* str, PLCS* s) {
  s->usfct = str->usfct;
  s->usgrd = str->usgrd;
  s->ushes = str->ushes;
  str->usfct = fplc;
  if (str->usgrd != nullptr) str->usgrd = gplc;
  if (str->ushes != nullptr) str->ushes = hplc;
}

static double largest_target(const PLCSTR* o, const PLCS* s) {
  double largest = 0.0;
  for (int k = 0; k < o->nalf; ++k) {
    if (!wzmis(s->goal[k])) largest = std::max(largest, s->goal[k]);
  }
  return largest;
}

// Only the limits of counts and time end an optimization before its values are as good as rounding
// allows; the rounding of f is an error of the rise. The scale is that of f along the profile,
// which for an f* near 0 is the target.
static void set_criteria(MINSTR* str, const PLCSTR* o, const PLCS* s) {
  static constexpr double OF_TARGET = 1e-11;
  static constexpr double LEAST = 1e-20;
  const double scale = std::max({std::fabs(s->yopt), str->fsiz, TINY}) + largest_target(o, s);
  for (const Criterion& c : CRITERIA) str->*c.tolerance = 0.0;
  str->atol = str->imax != 0 ? ROOT_HUGE : -ROOT_HUGE;
  str->ftol = std::min(s->savstr.ftol, MACHINE_PRECISION);
  str->gtol =
      std::clamp(OF_TARGET * least_target(s) / scale, LEAST, std::max(s->savstr.gtol, LEAST));
  str->mini = 0;
  if (!wzmis(o->maxi) && o->maxi > 0.0) str->maxi = o->maxi;
}

static void clear_counts(MINSTR* str) {
  str->nitr = 0.0;
  str->nfct = str->ngrd = str->nhes = str->nfnc = str->njnc = str->nret = 0;
  str->nhup = str->nlis = str->itre = str->ires = str->nter = 0;
  str->chac = str->idac = 0;
  str->unbd = 0;
}

// The optimizations have the callbacks of the run alone.
static void clear_callbacks(COVSTR* post) {
  post->usfct = post->usgrd = post->usjac = post->uscpj = post->ushes = nullptr;
  post->usnlc = post->usjnc = post->usfout = nullptr;
  post->uscmat = post->uspmat = nullptr;
}

static void open_record(MINSTR* str, PLCSTR* o, PLCS* s) {
  s->savstr = *str;
  std::copy_n(str->x, str->nvar, s->xsav);
  if (str->iabc != nullptr) std::copy_n(str->iabc, str->nvar, s->iabc);
  if (str->toln != nullptr) std::copy_n(str->toln, 2 * COUNTED, s->toln);
  s->inner = *str->covstr;
  s->inner.plcstr = o;
  clear_callbacks(&s->inner);
  o->plcs = s;
  str->covstr = &s->inner;
  str->dbug = o->ipri > 1 ? 2.0 : 0.0;
  str->mtim = zdattim();
  str->fidi = central_digits(str->fidi);
  set_bounds(str, s);
  set_callbacks(str, s);
  clear_counts(str);
  s->base = *str;
}

static void restore_record(MINSTR* str, const PLCS* s) {
  const long n = str->nvar;
  std::copy_n(s->lb, n, str->lb);
  std::copy_n(s->ub, n, str->ub);
  *str = s->savstr;
  std::copy_n(s->xsav, n, str->x);
  if (str->iabc != nullptr) std::copy_n(s->iabc, n, str->iabc);
  if (str->ifxr != nullptr) std::copy_n(s->ifxr, n, str->ifxr);
  if (str->toln != nullptr) std::copy_n(s->toln, COUNTED, str->toln);
  clear_counters(str->toln);
}

// ---- Scale and targets --------------------------------------------------------------------------

// Observations: as told, else the functions of least squares; missing when nobody knows.
static double observations(const MINSTR* str, const COVSTR* post) {
  if (post->nobs != nullptr && !wzmis(post->nobs[0])) return post->nobs[0];
  return str->lsqu != 0 ? static_cast<double>(str->mequ) : MISSING;
}

// Parameters that the data determine, less one for each active constraint.
static double model_freedom(const PLCS* s) {
  const COVSTR* post = s->savstr.covstr;
  const bool told = !wzmis(post->df) && post->df > 0.0;
  const double df = told ? post->df : static_cast<double>(s->savstr.nvar);
  return df - static_cast<double>(s->savstr.nabc + s->savstr.nalc);
}

static double variance_divisor(const MINSTR* str, const PLCS* s) {
  const COVSTR* post = s->savstr.covstr;
  if (!wzmis(post->vardiv) && post->vardiv > 0.0) return post->vardiv;
  return zvardiv(post->vardef, observations(str, post), model_freedom(s));
}

// s2: that of the residuals, told or estimated from f*, or 1.
static double scale(const MINSTR* str, const PLCS* s) {
  if (str->lsqu == 0) return 1.0;
  const COVSTR* post = s->savstr.covstr;
  if (!wzmis(post->sigs) && post->sigs > 0.0) return post->sigs * post->sigs;
  const double divisor = variance_divisor(str, s);
  return divisor > 0.0 && s->yopt > 0.0 ? 2.0 * s->yopt / divisor : MISSING;
}

// The quantile of a level, from the lower tail, where a small level keeps its digits; missing for a
// level that has none.
static double quantile(const PLCSTR* o, double alfa, double freedom) {
  if (!(alfa > 0.0 && alfa < 1.0)) return MISSING;
  const bool of_f = o->forchi != 1 && freedom > 0.0;
  const double root = of_f ? zqt(0.5 * alfa, freedom) : zprobit(0.5 * alfa);
  const double q = root * root;
  return q > 0.0 && std::isfinite(q) ? q : MISSING;
}

// s2, and quantile and rise of every level.
static void set_targets(const MINSTR* str, const PLCSTR* o, PLCS* s) {
  s->sigm = scale(str, s);
  const double freedom = observations(str, s->savstr.covstr) - model_freedom(s);
  for (int k = 0; k < o->nalf; ++k) {
    s->quan[k] = quantile(o, o->alfa[k], freedom);
    const bool good = !wzmis(s->quan[k]) && !wzmis(s->sigm);
    s->goal[k] = good ? s->sigm * s->quan[k] / o->ffac : MISSING;
    s->ialf[k] = k;
  }
  const auto target = [s](int level) {
    return wzmis(s->goal[level]) ? HUGE_VALUE : s->goal[level];
  };
  std::sort(s->ialf, s->ialf + o->nalf, [=](int a, int b) { return target(a) < target(b); });
}

// The value at the end of the run, of the function that the profile is made of: post-analysis may
// have had another one. The differences of values below noise say nothing.
static void set_value(MINSTR* str, PLCSTR* o, PLCS* s) {
  s->yopt = s->savstr.crit;
  if (o->job != WALD) {
    if (objective_at(str, s->xsav)) {
      s->yopt = str->crit;
    } else {
      s->ended = FUNCTION_FAILED;
    }
  }
  s->noise = DIGITS_OF_F * std::fabs(s->yopt);
}

// f* to the last digits, from the result of the run. A value that falls by much shows a run that
// ended too early: the limits are then those of the better point, and flow tells of it.
static void improve_optimum(MINSTR* str, PLCSTR* o, PLCS* s) {
  static constexpr double MUCH = 1e-2;
  const long n = str->nvar;
  const int code = doopt(MISSING, str, 1, -1);
  if (code < 0) {
    xpslog(" Bad estimate: ierr=%i", code);
    if (ends_analysis(str, code)) s->ended = code;
    return;
  }
  if (!(str->crit <= s->yopt)) return;
  const double fall = s->yopt - str->crit;
  std::copy_n(str->x, n, s->xopt);
  s->yopt = str->crit;
  s->noise = DIGITS_OF_F * std::fabs(s->yopt);
  if (!wzmis(s->goal[s->ialf[0]]) && fall > MUCH * least_target(s)) {
    o->flow = users_value(str, str->crit);
    if (o->xlow != nullptr) std::copy_n(str->x, n, o->xlow);
    xpmlog(OPTIMIZATION, 287, {fall});
  }
  set_targets(str, o, s);
}

static void set_optimum(MINSTR* str, PLCSTR* o, PLCS* s) {
  std::copy_n(s->xsav, str->nvar, s->xopt);
  set_value(str, o, s);
  set_targets(str, o, s);
  set_criteria(&s->base, o, s);
  if (o->job != WALD && s->ended == 0) improve_optimum(str, o, s);
}

// ---- The limits ---------------------------------------------------------------------------------

static long wanted_parameter(const PLCSTR* o, long kk) { return o->mpar ? o->mpar[kk] : kk; }

// A row for each limit, in the order of the results.
static void open_limits(const PLCSTR* o, PLLIM* limit) {
  for (long kk = 0; kk < o->npar; ++kk) {
    for (int k = 0; k < o->nalf; ++k) {
      const double alfa = o->alfa != nullptr ? o->alfa[k] : MISSING;
      for (const int side : SIDES) {
        *limit++ = {wanted_parameter(o, kk), side, alfa, MISSING, MISSING, LIMIT_NOT_SOUGHT};
      }
    }
  }
}

static void set_wald_limits(const PLCSTR* o, const PLCS* s) {
  PLLIM* limit = s->limits;
  for (long kk = 0; kk < o->npar; ++kk) {
    const double error = s->ster[wanted_parameter(o, kk)];
    for (int k = 0; k < o->nalf; ++k) {
      const bool exist = !wzmis(error) && error > 0.0 && !wzmis(s->quan[k]);
      for (int i = 0; i < 2; ++i, ++limit) {
        if (exist) limit->wald = s->xsav[limit->ipar] + limit->side * std::sqrt(s->quan[k]) * error;
      }
    }
  }
}

static void search_limits(MINSTR* str, const PLCSTR* o, PLCS* s) {
  for (long kk = 0; kk < o->npar; ++kk) {
    s->ipar = wanted_parameter(o, kk);
    if (s->lb[s->ipar] == s->ub[s->ipar]) continue;
    s->lower = 0;
    doopt(MISSING, str, 0, s->ipar);
    for (const int side : SIDES) {
      s->gole = side;
      znlpplc(str, kk);
    }
  }
}

static void set_errors(MINSTR* str, const PLCS* s) {
  const long n = str->nvar;
  vzfdl(MISSING, s->ster, n);
  if (s->savstr.ster != nullptr) {
    std::copy_n(s->savstr.ster, n, s->ster);
  } else if (s->ended == 0) {
    standard_errors(str);
  }
}

static int analyse(MINSTR* str, PLCSTR* o, PLCS* s) {
  open_limits(o, s->limits);
  set_optimum(str, o, s);
  set_errors(str, s);
  set_wald_limits(o, s);
  if (o->job != WALD) search_limits(str, o, s);
  if (o->ipri > 0) priplc(str, o->job);
  if (o->limits != nullptr) std::copy_n(s->limits, 2 * o->npar * o->nalf, o->limits);
  return s->failed != 0 ? -2 : 0;
}

// Tells the caller's usfout, which finds x, crit and the record as they were, and the options in
// force with the limits.
static void hand_over(MINSTR* str, PLCSTR* o, PLCS* s) {
  o->nf = s->nf;
  if (o->otab == 0 && o->oplg == 0) return;
  if (o->limits == nullptr) o->limits = s->limits;
  str->covstr->usfout(str);
}

// ---- The analysis -------------------------------------------------------------------------------

static bool has_errors(const MINSTR* str) {
  return str->ster != nullptr && !std::all_of(str->ster, str->ster + str->nvar, wzmis);
}

static bool has_room_for_bounds(const MINSTR* str) {
  if (str->lb != nullptr || (str->nlicon == 0 && str->hfrm != SPARSE_FORM)) return true;
  xpslog(" Bad: no room for bounds");
  return false;
}

static int compute(MINSTR* str, PLCSTR* o) {
  if (str->tech == FREE_TECHNIQUE || str->tech == NO_TECHNIQUE || str->ider == 0) {
    xpmlog(OPTIMIZATION, 280);
    return 0;
  }
  int code = complete_options(str, o);
  if (code != GO_ON) return code;
  if (o->plal == ONLY_WITH_ERRORS && !has_errors(str)) {
    xpmlog(OPTIMIZATION, 282);
    return 1;
  }
  if (!lists_are_good(str, o) || !has_room_for_bounds(str)) return -1;
  PLCS* s = take_record(str, o);
  if (s == nullptr) return -1;
  open_record(str, o, s);
  code = analyse(str, o, s);
  restore_record(str, s);
  hand_over(str, o, s);
  vmfree_handler(s);
  return code;
}

int znlppli(MINSTR* str) {
  PLCSTR* o = str->covstr->plcstr;
  const PLCSTR given = *o;
  double levels[std::size(STANDARD_LEVELS)];
  o->flow = MISSING;
  o->npnt = o->nrun = o->nf = 0;
  complete_lists(str, o, levels);
  if (o->limits != nullptr) open_limits(o, o->limits);
  const int code = compute(str, o);
  const PLCSTR results = *o;
  *o = given;
  o->flow = results.flow;
  o->npnt = results.npnt;
  o->nrun = results.nrun;
  o->nf = results.nf;
  o->rcod = code;
  o->plcs = nullptr;
  return code;
}

}  // namespace tqnlp
