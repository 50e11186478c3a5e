// znlpls6, Goldstein: line search 7.
//
// Method     A step is right when the decrease is neither less than a share rho of what the slope
//            promises, nor more than the share 1 - rho:
//              -rho gs0 alfa <= f(0) - f(alfa) <= -(1 - rho) gs0 alfa
//            More shows that a longer step would do, less that the step is too long. Only values
//            are compared; the gradient is called at the accepted point.
// Reference  Goldstein (1965), SIAM J. Control 3; Goldstein and Price (1967), Numer. Math. 10
// Work       none: x holds the trial

#include <algorithm>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/linesearch/znlplis_internal.h"

namespace tqnlp {

using namespace lis;

static constexpr double INTERVAL_SHARE = 1e-3;  // smallest useful interval, of the first trial
static constexpr double GROWTH = 4.0;           // of the increment
static constexpr int MOST_BISECTIONS = 8;
static constexpr long SEARCHES_HELD_BACK = 4;  // after them the first step is free

namespace {

enum class Length { too_short, right, too_long };

struct Goldstein {
  Search search;
  double rho = 0.0;
  double ltol = 0.0;
  double alfa = 0.0;       // present trial
  bool has_value = false;  // it could be evaluated
  double alf1 = 0.0;       // longest step known to be too short; 0 none
};

}  // namespace

// A step that cannot be evaluated is too long.
static Length try_length(MINSTR* str, Goldstein& g) {
  g.has_value = try_function(str, g.alfa);
  if (!g.has_value) return Length::too_long;
  const double decrease = g.search.f0 - str->crit;
  const double u = (1.0 - g.rho) * g.search.gs0 * g.alfa + decrease;
  const double v = decrease + g.rho * g.search.gs0 * g.alfa;
  if (u > 0.0) return Length::too_short;
  return v < 0.0 ? Length::too_long : Length::right;
}

static int accept_trial(MINSTR* str, const Goldstein& g) {
  if (!(str->crit <= g.search.f0)) return fail(str, g.search);
  const int code = accept_comparison(str, g.search, g.alfa, true);
  // Unlike the other methods, this one frees the first step in every later search too.
  if (code == 0 && str->nlis > SEARCHES_HELD_BACK) str->salf = 1.0;
  return code;
}

// The trial is too long. When the interval or the bisections are used up, any point that is no rise
// will do: the trial in hand, or the lower end, which had decreased more than enough. Without such
// a point the bisection goes on, since a first trial may be too long by many orders of magnitude.
static int bisect_interval(MINSTR* str, Goldstein& g) {
  double alf2 = g.alfa;
  for (int nit = 0; nit < MOST_TRIALS && moves_something(str, alf2); ++nit) {
    const bool narrow = nit > MOST_BISECTIONS || alf2 - g.alf1 <= g.ltol;
    if (narrow && g.has_value && str->crit <= g.search.f0) return accept_trial(str, g);
    if (narrow && (g.alf1 > 0.0 || (g.has_value && rise_is_rounding(g.search, str->crit)))) break;
    g.alfa = (g.alf1 + alf2) / 2.0;
    const Length length = try_length(str, g);
    if (length == Length::right) return accept_trial(str, g);
    (length == Length::too_long ? alf2 : g.alf1) = g.alfa;
  }
  g.alfa = g.alf1;
  if (!(g.alfa > 0.0) || !try_function(str, g.alfa)) return fail(str, g.search);
  return accept_trial(str, g);
}

int znlpls7(MINSTR* str) {
  Goldstein g;
  g.search = begin_search(str);
  int code = 0;
  if (!begin_comparison(str, true, &g.search, &code)) return code;
  g.rho = promised_share(str);
  g.alfa = znlpalf(str, g.search.gs0);
  g.ltol = INTERVAL_SHARE * g.alfa;

  Length length = try_length(str, g);
  for (int trial = 0; !g.has_value; ++trial) {
    g.alfa *= RETREAT;
    if (trial == MOST_TRIALS || !moves_something(str, g.alfa)) return fail(str, g.search);
    length = try_length(str, g);
  }
  double increment = g.alfa;
  for (int trial = 0; length == Length::too_short; ++trial) {
    if (at_limit(g.search, g.alfa) || str->ssin <= g.alfa || trial == MOST_TRIALS) break;
    increment *= GROWTH;
    g.alf1 = g.alfa;
    g.alfa = std::min(g.alfa + increment, g.search.limit);
    length = try_length(str, g);
  }
  return length == Length::too_long ? bisect_interval(str, g) : accept_trial(str, g);
}

}  // namespace tqnlp
