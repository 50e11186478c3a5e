// znlppli: Profile-LIkelihood limits of single parameters, the analysis as a whole. What a limit is
// stands in the header, how one is searched for in znlppli_search.cpp.
//
//   1  options, and who takes the limits
//   2  a copy of the record; callbacks that count; bounds, so that a parameter can be held
//   3  f* once more with tight tolerances, the scale, the targets, standard errors
//   4  Wald limits; both sides of every parameter
//   5  report, results, the record as it was
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
static constexpr double STANDARD_LEVELS[] = {0.5, 0.1, 0.05, 0.01};

// ---- Options ------------------------------------------------------------------------------------

// Completes the options. Returns the code to end with, or GO_ON.
static constexpr int GO_ON = 100;

static int complete_options(const MINSTR* str, PLCSTR* o, double* levels) {
  const COVSTR* post = str->covstr;
  if (o->npar <= 0 || o->npar > str->nvar) o->npar = str->nvar;
  if (o->ipri == 0 && post->npri == 0) o->ipri = 1;
  if (o->plal == 0) {
    o->job = o->nalf > 0 ? BOTH : WALD;
    if (post->usfout != nullptr) o->oplg = 1;
    if (o->nalf <= 0) {
      levels[0] = 0.05;
      o->alfa = levels;
      o->nalf = 1;
    }
  } else {
    o->job = PROFILE;
    std::copy(std::begin(STANDARD_LEVELS), std::end(STANDARD_LEVELS), levels);
    o->alfa = levels;
    o->nalf = std::size(STANDARD_LEVELS);
    o->otab = o->oplg = 1;
    o->maxi = o->frat = MISSING;
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

// Is the end of a run that rounding stopped before a criterion was met a solution? It is when a run
// from beside it comes to the same value. A run that comes lower takes its place, a few times.
static int confirm(MINSTR* str) {
  static constexpr double SAME = 1e-9;  // of the least target
  static constexpr int MOST_RUNS = 3;
  const PLCS* s = working_record(str);
  const double least = s->goal[s->ialf[0]];
  const double same = std::max(wzmis(least) ? 0.0 : SAME * least, s->noise);
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
  s->goal = take(o->nalf);
  return block;
}

static std::size_t length_of_doubles(const MINSTR* str, const PLCSTR* o) {
  const long points = 1 + POINTS_PER_LEVEL * o->nalf;
  return static_cast<std::size_t>(8 * str->nvar + points * (str->nvar + 2) + o->nalf);
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

// Only the limits of counts and time end an optimization before its values are as good as rounding
// allows; the rounding of f is an error of the rise.
static void set_criteria(MINSTR* str, const PLCSTR* o, const PLCS* s) {
  static constexpr double OF_TARGET = 1e-11;
  static constexpr double LEAST = 1e-20;
  double target = 1.0;
  for (int k = 0; k < o->nalf; ++k) {
    if (!wzmis(s->goal[k])) target = std::min(target, s->goal[k]);
  }
  const double scale = std::max({std::fabs(str->crit), str->fsiz, TINY});
  for (const Criterion& c : CRITERIA) str->*c.tolerance = 0.0;
  str->atol = -ROOT_HUGE;
  str->ftol = std::min(s->savstr.ftol, MACHINE_PRECISION);
  str->gtol = std::clamp(OF_TARGET * target / scale, LEAST, std::max(s->savstr.gtol, LEAST));
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

static void open_record(MINSTR* str, PLCSTR* o, PLCS* s) {
  s->savstr = *str;
  std::copy_n(str->x, str->nvar, s->xsav);
  if (str->iabc != nullptr) std::copy_n(str->iabc, str->nvar, s->iabc);
  if (str->toln != nullptr) std::copy_n(str->toln, 2 * COUNTED, s->toln);
  s->inner.plcstr = o;
  s->inner.utpmat = str->covstr->utpmat;
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

static void close_record(MINSTR* str, PLCSTR* o, const PLCSTR& given, PLCS* s) {
  const long n = str->nvar;
  std::copy_n(s->lb, n, str->lb);
  std::copy_n(s->ub, n, str->ub);
  *str = s->savstr;
  std::copy_n(s->xsav, n, str->x);
  if (str->iabc != nullptr) std::copy_n(s->iabc, n, str->iabc);
  if (str->toln != nullptr) std::copy_n(s->toln, COUNTED, str->toln);
  clear_counters(str->toln);
  s->inner.plcstr = nullptr;
  const PLCSTR results = *o;
  *o = given;
  o->limits = results.limits;
  o->flow = results.flow;
  o->npnt = results.npnt;
  o->nrun = results.nrun;
  o->nf = s->nf;
  o->plcs = nullptr;
  vmfree_handler(s);
}

// ---- Scale and targets --------------------------------------------------------------------------

// Observations: as told, else the functions of least squares; missing when nobody knows.
static double observations(const MINSTR* str, const COVSTR* post) {
  if (post->nobs != nullptr) return post->nobs[0];
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

// s2 and the rise at every level.
static void set_targets(const MINSTR* str, const PLCSTR* o, PLCS* s) {
  const COVSTR* post = s->savstr.covstr;
  s->sigm = 1.0;
  if (!wzmis(post->sigs) && post->sigs > 0.0) {
    s->sigm = post->sigs * post->sigs;
  } else if (str->lsqu != 0) {
    const double divisor = variance_divisor(str, s);
    s->sigm = divisor > 0.0 && s->yopt > 0.0 ? 2.0 * s->yopt / divisor : MISSING;
  }
  const double freedom = observations(str, post) - model_freedom(s);
  for (int k = 0; k < o->nalf; ++k) {
    const double alfa = o->alfa[k];
    const bool of_f = o->forchi != 1 && freedom > 0.0;
    const double t = of_f ? zqt(0.5 * alfa, freedom) : 0.0;
    const double q = of_f ? t * t : zqc(1.0 - alfa, 1.0);
    const bool good = alfa > 0.0 && alfa < 1.0 && q > 0.0 && !wzmis(s->sigm);
    s->goal[k] = good ? s->sigm * q / o->ffac : MISSING;
    s->ialf[k] = k;
  }
  const auto target = [s](int level) {
    return wzmis(s->goal[level]) ? HUGE_VALUE : s->goal[level];
  };
  std::sort(s->ialf, s->ialf + o->nalf, [=](int a, int b) { return target(a) < target(b); });
}

// f* to the last digits, from the result of the run. A value that falls by much shows a run that
// ended too early: the limits are then those of the better point, and flow tells of it.
static void set_optimum(MINSTR* str, PLCSTR* o, PLCS* s) {
  static constexpr double MUCH = 1e-2;
  static constexpr double DIGITS_OF_F = 32.0 * MACHINE_PRECISION;
  const long n = str->nvar;
  std::copy_n(s->xsav, n, s->xopt);
  s->yopt = s->savstr.crit;
  s->noise = DIGITS_OF_F * std::fabs(s->yopt);
  set_targets(str, o, s);
  set_criteria(&s->base, o, s);
  if (o->job == WALD) return;
  const int code = doopt(MISSING, str, 1, -1);
  if (code == 0 && str->crit <= s->yopt) {
    const double fall = s->yopt - str->crit;
    std::copy_n(str->x, n, s->xopt);
    s->yopt = str->crit;
    const double least = s->goal[s->ialf[0]];
    if (!wzmis(least) && fall > MUCH * least) {
      o->flow = users_value(str, str->crit);
      if (o->xlow != nullptr) std::copy_n(str->x, n, o->xlow);
      xpmlog(OPTIMIZATION, 287, {fall});
    }
    set_targets(str, o, s);
  }
  s->noise = DIGITS_OF_F * std::fabs(s->yopt);
}

// ---- The limits ---------------------------------------------------------------------------------

static long wanted_parameter(const PLCSTR* o, long kk) { return o->mpar ? o->mpar[kk] : kk; }

// Wald limits, and every status before the search.
static void set_wald_limits(const PLCSTR* o, const PLCS* s) {
  PLLIM* limit = s->limits;
  for (long kk = 0; kk < o->npar; ++kk) {
    const long p = wanted_parameter(o, kk);
    const double error = s->ster[p];
    const bool usable = !wzmis(error) && error > 0.0;
    for (int k = 0; k < o->nalf; ++k) {
      const double z = std::sqrt(s->goal[k] * o->ffac / s->sigm);
      for (const int side : SIDES) {
        const double wald = usable && !std::isnan(z) ? s->xsav[p] + side * z * error : MISSING;
        *limit++ = {p, side, o->alfa[k], MISSING, wald, LIMIT_NOT_SOUGHT};
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

static void set_errors(MINSTR* str, const PLCSTR* o, PLCS* s) {
  const long n = str->nvar;
  vzfdl(MISSING, s->ster, n);
  if (s->savstr.ster != nullptr) {
    std::copy_n(s->savstr.ster, n, s->ster);
  } else if (o->forchi == 1) {
    standard_errors(str);
  }
}

static int analyse(MINSTR* str, PLCSTR* o, PLCS* s) {
  set_optimum(str, o, s);
  set_errors(str, o, s);
  set_wald_limits(o, s);
  if (o->job != WALD) search_limits(str, o, s);
  if (o->ipri > 0) priplc(str, o->job);
  const long count = 2 * o->npar * o->nalf;
  if (o->limits != nullptr) std::copy_n(s->limits, count, o->limits);
  const bool output = o->otab != 0 || o->oplg != 0;
  if (output) s->savstr.covstr->usfout(str);
  return s->failed != 0 ? -2 : 0;
}

static bool names_parameters(const MINSTR* str, const PLCSTR* o) {
  return o->mpar == nullptr ||
         std::all_of(o->mpar, o->mpar + o->npar, [str](long p) { return p >= 0 && p < str->nvar; });
}

int znlppli(MINSTR* str) {
  if (str->tech == FREE_TECHNIQUE || str->tech == NO_TECHNIQUE || str->ider == 0) {
    xpmlog(OPTIMIZATION, 280);
    return 0;
  }
  PLCSTR* o = str->covstr->plcstr;
  const PLCSTR given = *o;
  double levels[std::size(STANDARD_LEVELS)];
  int code = complete_options(str, o, levels);
  o->flow = MISSING;
  o->npnt = o->nrun = o->nf = 0;
  if (code == GO_ON && o->plal == ONLY_WITH_ERRORS && str->ster == nullptr) {
    xpmlog(OPTIMIZATION, 282);
    code = 1;
  }
  const bool laid_out = str->lb != nullptr || (str->nlicon == 0 && str->hfrm != SPARSE_FORM);
  if (code == GO_ON && !(laid_out && names_parameters(str, o))) {
    xpslog("Bad npar=%li nalf=%i", o->npar, o->nalf);
    code = -1;
  }
  PLCS* s = code == GO_ON ? take_record(str, o) : nullptr;
  if (s == nullptr) {
    *o = given;
    o->flow = MISSING;
    o->npnt = o->nrun = o->nf = 0;
    return code == GO_ON ? -1 : code;
  }
  open_record(str, o, s);
  code = analyse(str, o, s);
  close_record(str, o, given, s);
  return code;
}

}  // namespace tqnlp
