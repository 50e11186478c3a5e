// znlpbas, part of the choice: which constraints leave the working set.
//
// Method     Multipliers below a threshold name the candidates, most negative first. Each is
//            dropped on trial; it stays out if the projected descent direction is then not blocked
//            at once, and goes back otherwise. At a degenerate point, where no single drop helps,
//            all candidates are dropped together and those that block come back one at a time; if
//            that leads nowhere either, nonnegative least squares settles the point.
//            With bounds alone the bound with the largest inward slope leaves without a trial: a
//            direction that frees it alone cannot be blocked by the others.
// Reference  Gill and Murray (1974), Numerical Methods for Constrained Optimization, chapter 2;
//            Fletcher (1987), Practical Methods of Optimization, section 10.3, on degeneracy;
//            Lawson and Hanson (1974), Solving Least Squares Problems, chapter 23.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpbas_internal.h"

namespace tqnlp {

namespace bas {

static constexpr double GRADIENT_SHARE = 0.001;  // threshold against gmax
static constexpr double TOLERANCE_SHARE = 0.1;   // threshold against ABSGCONV
static constexpr double LARGEST_THRESHOLD = 0.001;

double gtres(const MINSTR* str) {
  if (!wzmis(str->deat) && str->deat > 0.0) return str->deat;
  const double slope = reduced_dimension(str) == 0 ? EPS : GRADIENT_SHARE * str->gmax;
  return std::min(std::max(slope, TOLERANCE_SHARE * str->agtl), LARGEST_THRESHOLD);
}

// Ascending by value, codes alongside: Shell's method, which exchanges only on strictly greater.
static void sort_candidates(long count, double* value, long* code) {
  for (long gap = count / 2; gap > 0; gap /= 2) {
    for (long i = gap; i < count; ++i) {
      for (long j = i - gap; j >= 0 && value[j] > value[j + gap]; j -= gap) {
        std::swap(value[j], value[j + gap]);
        std::swap(code[j], code[j + gap]);
      }
    }
  }
}

long sortlm(MINSTR* str, int ilm2, double tres) {
  const double* multiplier = str->lag2;
  if (ilm2 == 0 || znlplm2(str) != 0) {
    znlpglm(str, 0, str->grad, str->lagm);
    multiplier = str->lagm;
  }
  // The list of candidates is never ahead of the multiplier that is read.
  long count = 0;
  auto take = [&](double value, long code) {
    if (!(value < -tres)) return;
    str->lagm[count] = value;
    str->liwk[count++] = code;
  };
  for (long k = 0; k < str->nabc; ++k) {
    const long j = str->ifxr[free_count(str) + k];
    if (str->iabc[j] != 2) take(multiplier[k], j);
  }
  for (long k = 0; k < str->nalc; ++k) {
    if (is_equality(str, str->iact[k])) continue;
    take(multiplier[str->nabc + k], str->nvar + str->iact[k]);
  }
  sort_candidates(count, str->lagm, str->liwk);
  return count;
}

}  // namespace bas

using namespace bas;

// Multipliers above this do not count in a block when the threshold is finer.
static constexpr double BLOCK_MULTIPLIER = 1e-6;

// What one call of znlpdac shares among its passes.
struct Selection {
  int job = 0;
  int second_form = 0;
  long* nhlf = nullptr;
  double* ches = nullptr;
  double* hess = nullptr;
  long chac_before = 0;
  long retries_left = 0;  // returns to the start because a deferred constraint entered
  bool tried = false;     // there were candidates, on which the frame may have changed
  int flag = 0;           // nonzero: ches has a row that was not computed, or retries ran out
};

static constexpr int UNIT_ROW_SINGLE = 3;
static constexpr int UNIT_ROW_BLOCK = 5;
static constexpr int NOT_SETTLED = 7;

enum class Search { restart, finish };

// ---- Bounds alone -----------------------------------------------------------------------------

// A slope must exceed the threshold, and a later one the best so far: the first of equals wins.
// Fixed parameters do not compete.
static int drop_one_bound(MINSTR* str, Selection& run) {
  double largest = gtres(str);
  long chosen = -1;
  for (long j = 0; j < str->nvar; ++j) {
    if (str->iabc[j] != 1 && str->iabc[j] != -1) continue;
    const double slope = -str->iabc[j] * str->grad[j];
    if (slope > largest) {
      largest = slope;
      chosen = j;
    }
  }
  if (chosen < 0) return 0;
  str->idac = chosen + 1;
  const int status = bcupd(str, run.job, chosen, run.nhlf, run.ches, run.hess);
  const long nfre = free_count(str);
  std::swap(str->ifxr[place_of(str, nfre, str->nvar, chosen)], str->ifxr[nfre]);
  str->iabc[chosen] = 0;
  --str->nabc;
  str->chac = -1 - str->chac;
  return status != 0 ? -status : static_cast<int>(str->idac);
}

// ---- General constraints ----------------------------------------------------------------------

// gpro := Z'grad, and the feasibility of -Z gpro at x, in the frame of the working set: Q counts
// for nonlinear constraints just as for linear ones.
static void project_gradient(MINSTR* str) {
  with_general_frame(str, [str] { znlpgcs(str, str->gpro); });
}

static bool direction_is_feasible(MINSTR* str, long* blocking, long* list) {
  int status = 0;
  with_general_frame(str, [&] { status = znlptcs(str, str->gpro, blocking, list); });
  return status == 0;
}

// A projected gradient below this share of the gradient is what rounding leaves of zero.
static constexpr double NEGLIGIBLE_SHARE = 1e-12;

// Is there no direction left, or none that leads downhill? Nothing blocks a zero direction, so that
// its feasibility would mean nothing.
static bool is_stationary(const MINSTR* str) {
  const long order = reduced_dimension(str);
  return order == 0 || largest_or_nan(order, str->gpro) <=
                           NEGLIGIBLE_SHARE * largest_or_nan(str->nvar, str->grad);
}

// Is there anything in the factors that may leave?
static bool an_inequality_is_active(const MINSTR* str) {
  for (long k = free_count(str); k < str->nvar; ++k) {
    if (str->iabc[str->ifxr[k]] != 2) return true;
  }
  return std::any_of(str->iact, str->iact + str->nalc,
                     [str](long entry) { return !is_equality(str, entry); });
}

// Drops the candidate with this code of liwk; the result is that of znlpdod.
static int drop_candidate(MINSTR* str, const Selection& run, long code) {
  const bool is_bound = code < str->nvar;
  return znlpdod(str, run.job, is_bound ? str->iabc[code] : 0, is_bound ? code : code - str->nvar,
                 run.nhlf, str->gpro, run.ches, run.hess);
}

static long deferred(const MINSTR* str) { return str->nldc + str->nlbc; }

// Did a deferred constraint enter? The pass then starts afresh. Each return uses up a deferred
// constraint, and a pass defers a constraint at most once, so that the limit is far from any
// regular run; past it the deferred ones wait and the result says that the search did not settle.
static bool deferred_entered(MINSTR* str, Selection& run) {
  if (deferred(str) == 0) return false;
  if (run.retries_left == 0) {
    run.flag = NOT_SETTLED;
    return false;
  }
  if (znlpcld(str, run.job, run.nhlf, str->gpro, run.ches) == 0) return false;
  --run.retries_left;
  return true;
}

// Puts a candidate back whose removal did not help. It was independent before, so that the test of
// dependence is left out; a refusal means that the factors are broken.
static void put_back(MINSTR* str, const Selection& run, long code, int status,
                     long deferred_before) {
  int refused = 0;
  if (deferred(str) != deferred_before) {
    refused = znlpact(str, run.job, 0, run.nhlf, str->gpro, run.ches);
  } else {
    refused = znlpupd(str, 0, run.job, 1, status, code < str->nvar ? code : code - str->nvar,
                      run.nhlf, str->gpro, run.ches);
  }
  if (refused != 0) inconsistent();
}

// First pass: one candidate at a time. Leaves idac at the code of the one that stays out, or at 0.
static Search drop_one_at_a_time(MINSTR* str, Selection& run, long count) {
  for (long k = 0; k < count; ++k) {
    const long code = str->liwk[k];
    const int status = code < str->nvar ? str->iabc[code] : 0;
    const long deferred_before = deferred(str);
    // The flag stays even if this candidate goes back: the rotations then mix the row in.
    if (drop_candidate(str, run, code) != 0) run.flag = UNIT_ROW_SINGLE;
    if (deferred_entered(str, run)) return Search::restart;
    long blocking = -1;
    if (direction_is_feasible(str, &blocking, nullptr)) {
      str->idac = code + 1;
      return Search::finish;
    }
    put_back(str, run, code, status, deferred_before);
  }
  return Search::finish;
}

// Is the constraint with this blocking code in the working set, active or deferred?
static bool in_working_set(const MINSTR* str, long code) {
  const long n = str->nvar;
  if (code < 2 * n) return str->iabc[code % n] != 0;
  const long* end = str->iact + str->nalc + str->nldc;
  return std::find(static_cast<const long*>(str->iact), end, code - 2 * n) != end;
}

// Adds the constraint with this blocking code. Returns false when it is dependent, and deferred.
static bool add_by_code(MINSTR* str, const Selection& run, long code) {
  const long n = str->nvar;
  const int koc = code < n ? 1 : (code < 2 * n ? -1 : 0);
  return znlpupd(str, 0, run.job, 0, koc, code < 2 * n ? code % n : code - 2 * n, run.nhlf,
                 str->gpro, run.ches) == 0;
}

// Adds the first of the listed blocking constraints that is not in the working set.
static bool add_blocking(MINSTR* str, const Selection& run, long listed) {
  for (long k = 0; k < listed; ++k) {
    if (in_working_set(str, str->liwk[k])) continue;
    add_by_code(str, run, str->liwk[k]);
    return true;
  }
  return false;
}

// Adds what blocks until the direction is feasible. Each pass takes a constraint into the working
// set or defers it, so that there are no more passes than constraints.
static bool regain_feasible_direction(MINSTR* str, const Selection& run) {
  const long most = 2 * str->nvar + str->ncon + str->nnlc;
  for (long pass = 0; pass <= most; ++pass) {
    long listed = -1;
    if (is_stationary(str)) return false;
    if (direction_is_feasible(str, &listed, str->liwk)) return true;
    if (!add_blocking(str, run, listed)) return false;
  }
  return false;
}

// Second pass: all candidates together. Sets idac to BLOCK_DROPPED or to minus their number.
static Search drop_block(MINSTR* str, Selection& run, double tres) {
  long count = sortlm(str, run.second_form, tres);
  if (tres < BLOCK_MULTIPLIER) {
    // The list ends with the first multiplier that is hardly negative.
    const double* end = str->lagm + count;
    const double* first = std::find_if(static_cast<const double*>(str->lagm), end,
                                       [](double value) { return value > -BLOCK_MULTIPLIER; });
    if (first != end) count = first - str->lagm + 1;
  }
  if (count < 2) return Search::finish;  // a single one has been tried
  project_gradient(str);
  for (long k = 0; k < count; ++k) {
    if (drop_candidate(str, run, str->liwk[k]) != 0) run.flag = UNIT_ROW_BLOCK;
  }
  if (deferred_entered(str, run)) return Search::restart;
  str->idac = regain_feasible_direction(str, run) ? BLOCK_DROPPED : -count;
  return Search::finish;
}

// ---- Degenerate points ------------------------------------------------------------------------

// Both passes may end without a direction though there is one: constraints that left for others
// block, and what came back is not weighed again. Such a point is settled by the nonnegative
// least-squares problem min |g - A'lambda| over all constraints active at x, whose residual is the
// steepest feasible descent direction (Lawson and Hanson, 1974, chapter 23). Its passive set is the
// working set. iwk and lagm hold its inequalities and their multipliers, work the trial ones; liwk
// lists what blocks.

// Inequalities no longer wait: what is active at x but not in the factors is found when it blocks.
// Equalities and fixed parameters stay, for they never block.
static void forget_deferred(MINSTR* str) {
  const long* end = str->iact + str->nalc + str->nldc;
  long* kept = str->iact + str->nalc;
  for (const long* entry = kept; entry != end; ++entry) {
    if (is_equality(str, *entry)) *kept++ = *entry;
  }
  str->nldc = kept - (str->iact + str->nalc);
  if (str->nlbc == 0) return;
  str->nlbc = 0;
  for (long k = 0; k < free_count(str); ++k) {
    int& status = str->iabc[str->ifxr[k]];
    if (status == 2) {
      ++str->nlbc;
    } else {
      status = 0;
    }
  }
}

// Place of a member of the working set among the multipliers of znlpglm.
static long multiplier_place(const MINSTR* str, long code) {
  if (code < str->nvar) return place_of(str, free_count(str), str->nvar, code) - free_count(str);
  const long entry = code - str->nvar;
  return str->nabc + (std::find(str->iact, str->iact + str->nalc, entry) - str->iact);
}

// Moves the multipliers of the list towards the trial ones until the first of those that end below
// -tres reaches zero; it leaves the working set. Returns whether one left.
static bool drop_first_at_zero(MINSTR* str, Selection& run, double tres, long* count) {
  double share = 1.0;
  long first = -1;
  znlpglm(str, 0, str->grad, str->work);
  for (long k = 0; k < *count; ++k) {
    const double trial = str->work[multiplier_place(str, str->iwk[k])];
    if (!(trial < -tres)) continue;
    const double old = std::max(str->lagm[k], 0.0);
    if (first >= 0 && !(old < share * (old - trial))) continue;
    share = old / (old - trial);
    first = k;
  }
  for (long k = 0; k < *count; ++k) {
    const double trial = str->work[multiplier_place(str, str->iwk[k])];
    str->lagm[k] += share * (trial - str->lagm[k]);
  }
  if (first < 0) return false;
  if (drop_candidate(str, run, str->iwk[first]) != 0) run.flag = UNIT_ROW_BLOCK;
  --*count;
  std::copy(str->iwk + first + 1, str->iwk + *count + 1, str->iwk + first);
  std::copy(str->lagm + first + 1, str->lagm + *count + 1, str->lagm + first);
  return true;
}

// Lists the inequalities of the working set with their multipliers. Returns their number.
static long list_members(MINSTR* str) {
  long count = 0;
  znlpglm(str, 0, str->grad, str->work);
  auto take = [&](long code, double value) {
    str->lagm[count] = value;
    str->iwk[count++] = code;
  };
  for (long k = 0; k < str->nabc; ++k) {
    const long j = str->ifxr[free_count(str) + k];
    if (str->iabc[j] != 2) take(j, str->work[k]);
  }
  for (long k = 0; k < str->nalc; ++k) {
    if (!is_equality(str, str->iact[k])) take(str->nvar + str->iact[k], str->work[str->nabc + k]);
  }
  return count;
}

// Adds the first of the listed blocking constraints that is independent of the working set, and to
// the members. Returns false when there is none. Only the list tells what blocks at x: the single
// code of znlptcs may name a constraint met further on, when the one on which x stands has a slope
// so small that a full step would still leave it within tolerance.
static bool add_member(MINSTR* str, const Selection& run, long listed, long* count) {
  const long n = str->nvar;
  for (long k = 0; k < listed; ++k) {
    const long code = str->liwk[k];
    if (in_working_set(str, code) || !add_by_code(str, run, code)) continue;
    str->lagm[*count] = 0.0;
    str->iwk[(*count)++] = code < 2 * n ? code % n : code - n;
    return true;
  }
  return false;
}

// Below this share of the worst multiplier a projected gradient counts as zero.
static constexpr double STATIONARY_SHARE = 0.1;

// Has the search ended without a feasible direction? Where x is stationary on the working set there
// is none as long as a multiplier has the wrong sign: the gradient that rounding leaves would pass
// for a direction that nothing blocks.
static bool stands_still(MINSTR* str, const Selection& run) {
  if (!run.tried || str->idac > 0) return false;
  const double worst = sortlm(str, 0, gtres(str)) > 0 ? -str->lagm[0] : 0.0;
  const long order = reduced_dimension(str);
  if (order == 0) return worst > 0.0;
  project_gradient(str);
  if (largest_or_nan(order, str->gpro) < STATIONARY_SHARE * worst) return true;
  long blocking = -1;
  return !direction_is_feasible(str, &blocking, nullptr);
}

// Returns whether the working set leaves a feasible direction; if not, x is stationary, or the flag
// says that the search did not settle.
static bool settle_degenerate_point(MINSTR* str, Selection& run) {
  const double tres = gtres(str);
  forget_deferred(str);
  // A start with multipliers of the right sign: the members of the wrong sign leave together.
  while (const long wrong = sortlm(str, 0, tres)) {
    for (long k = 0; k < wrong; ++k) {
      if (drop_candidate(str, run, str->liwk[k]) != 0) run.flag = UNIT_ROW_BLOCK;
    }
  }
  project_gradient(str);
  long count = list_members(str);
  const long most = 10 * (str->nvar + str->ncon + str->nnlc);
  for (long pass = 0; pass < most; ++pass) {
    if (is_stationary(str)) return false;
    long listed = -1;
    if (direction_is_feasible(str, &listed, str->liwk)) return true;
    if (!add_member(str, run, listed, &count)) break;
    while (drop_first_at_zero(str, run, tres, &count)) {
    }
  }
  run.flag = NOT_SETTLED;
  return false;
}

// One pass over the candidates of the present working set.
static Search search_once(MINSTR* str, Selection& run) {
  str->idac = 0;
  if (!an_inequality_is_active(str)) return Search::finish;
  const double tres = gtres(str);
  const long count = sortlm(str, run.second_form, tres);
  if (count == 0) return Search::finish;
  run.tried = true;
  project_gradient(str);
  if (drop_one_at_a_time(str, run, count) == Search::restart) return Search::restart;
  if (str->idac == 0) {
    // While constraints are still being picked up a single drop that fails is no dead end.
    const bool still_moving = run.chac_before != 0 && str->nabc + str->nalc < str->nvar;
    if (still_moving || count == 1) return Search::finish;
    if (drop_block(str, run, tres) == Search::restart) return Search::restart;
  }
  return deferred_entered(str, run) ? Search::restart : Search::finish;
}

// 1 for a single drop and for a block whose direction is feasible, 2 for a block without such a
// direction; negative when ches has a row that was not computed, -3 when nothing was dropped then.
static int drop_result(const MINSTR* str, const Selection& run) {
  const int result = str->idac > 0 ? 1 : (str->idac < 0 ? 2 : 0);
  if (run.flag == 0) return result;
  return result != 0 ? -result : -3;
}

int znlpdac(MINSTR* str, int job, int job2, long* nhlf, double* ches, double* hess) {
  refuse_range_frame(str);
  Selection run;
  run.job = job;
  run.second_form = job2;
  run.nhlf = nhlf;
  run.ches = ches;
  run.hess = hess;
  run.chac_before = str->chac;
  str->idac = 0;
  if (!has_general_constraints(str)) return drop_one_bound(str, run);
  if (str->ider == 0) inconsistent();

  const long bounds_before = str->nabc;
  const long rows_before = str->nalc;
  run.retries_left = 10 * (str->nvar + str->ncon + str->nnlc);
  while (search_once(str, run) == Search::restart) {
  }
  if (stands_still(str, run)) {
    str->idac = settle_degenerate_point(str, run) ? BLOCK_DROPPED : 0;
  }
  // Trials may have written chac. Where members only changed places with others, and nothing was
  // dropped in the end, it stays positive: a negative one would tell the termination test that
  // there is still something to gain.
  str->chac = run.chac_before;
  if (str->nabc < bounds_before || str->nalc < rows_before) {
    str->chac = str->idac != 0 ? -1 - run.chac_before : std::max(run.chac_before, 1L);
  }
  return drop_result(str, run);
}

}  // namespace tqnlp
