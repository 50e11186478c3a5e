// tqxnlp, bounds and linear constraints: blc, one matrix, becomes bounds and sparse rows.
//
// Row 1 of blc holds lower bounds, row 2 upper bounds; every later row is a constraint: n
// coefficients, an operator (0 equal, 1 at least, -1 at most) and a right-hand side. A row with one
// coefficient turns into a bound, so that the working set sees the smallest problem; rows with two
// or more are stored as a'x >= b, equalities first, nonzeros only.
//
// Two passes: getncon counts, so that arrays can be sized; setcons fills them.
#include <algorithm>
#include <cmath>

#include "aasubs/setup/constraint_rows.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "host/log.h"
#include "host/process.h"

namespace tqnlp {

// Bounds this close on the wrong side are made equal.
static constexpr double CROSSING_FACTOR = 1.00000001;
static constexpr int BOUND_ROWS = 2;

static constexpr double EQUAL = 0.0;
static constexpr double AT_LEAST = 1.0;
static constexpr double AT_MOST = -1.0;

namespace {

// A row of blc as a constraint.
struct Row {
  const double* a;  // n coefficients; missing and zero ones are absent
  double op;
  double b;    // missing counts as 0
  long count;  // coefficients
  long last;   // column of the last one
};

struct BoundCount {
  long equal = 0;  // pairs of equal bounds, rows that fix a parameter
  long other = 0;
};

}  // namespace

// Is there a coefficient, a bound? A NaN of any kind is a missing element.
static bool coefficient_there(double a) { return !std::isnan(a) && a != 0.0; }

static bool bound_there(double bound) { return bound > -HUGE_VALUE && bound < HUGE_VALUE; }

// Row i of blc, from 2 on; both passes read through this, so that they cannot disagree on a row.
static Row read_row(const ARGMTS* argm, long i) {
  Row row{argm->cons + i * argm->ccol, 0.0, 0.0, 0, 0};
  for (long j = 0; j < argm->n; ++j) {
    if (!coefficient_there(row.a[j])) continue;
    ++row.count;
    row.last = j;
  }
  row.op = row.a[argm->n];
  row.b = std::isnan(row.a[argm->n + 1]) ? 0.0 : row.a[argm->n + 1];
  return row;
}

static bool operator_known(double op) { return op == EQUAL || op == AT_LEAST || op == AT_MOST; }

// ---- First pass ---------------------------------------------------------------------------------

// Names the element by its place in blc, counted from 1.
static int refuse_infinite(const ARGMTS* argm, long row, long column) {
  xpmlog(CALLING_SURFACE, 196,
         {call_name(argm).text, static_cast<long>(argm->iargc), row + 1, column + 1});
  return -1;
}

// The distance goes with the two bounds, which may look alike in print.
static void log_crossing(const ARGMTS* argm, int message, long j, double lower, double upper) {
  xpmlog(CALLING_SURFACE, message, {call_name(argm).text, j + 1, lower, upper, lower - upper});
}

// An infinite lower bound below and upper bound above mean none; the other two cannot be met.
static int count_bounds(ARGMTS* argm, BoundCount* count) {
  double* lower = argm->cons;
  double* upper = argm->ncon > 1 ? argm->cons + argm->ccol : nullptr;
  for (long j = 0; j < argm->n; ++j) {
    if (lower[j] >= HUGE_VALUE) return refuse_infinite(argm, 0, j);
    if (upper != nullptr && upper[j] <= -HUGE_VALUE) return refuse_infinite(argm, 1, j);
    const bool below = bound_there(lower[j]);
    const bool above = upper != nullptr && bound_there(upper[j]);
    if (below && above && lower[j] * CROSSING_FACTOR > upper[j]) {
      if (upper[j] < lower[j]) log_crossing(argm, 180, j, lower[j], upper[j]);
      upper[j] = lower[j];
      ++count->equal;
    } else {
      count->other += (below ? 1 : 0) + (above ? 1 : 0);
    }
  }
  return 0;
}

// Infinite coefficients and right-hand sides are refused, and a bound that overflows. So are
// coefficients whose sum overflows: such a row has neither a norm nor residuals.
static int check_numbers(const ARGMTS* argm, const Row& row, long i) {
  double sum = 0.0;
  for (long j = 0; j < argm->n; ++j) {
    if (coefficient_there(row.a[j])) sum += std::fabs(row.a[j]);
    if (!bound_there(sum)) return refuse_infinite(argm, i, j);
  }
  if (std::isinf(row.b)) return refuse_infinite(argm, i, argm->n + 1);
  if (row.count == 1 && !bound_there(row.b / row.a[row.last])) {
    return refuse_infinite(argm, i, argm->n + 1);
  }
  return 0;
}

// Counts the rows of constraints: bounds, rows of alcn and their coefficients.
static int count_rows(MINSTR* str, BoundCount* count, long* mzac) {
  const ARGMTS* argm = str->secstr;
  for (long i = BOUND_ROWS; i < argm->ncon; ++i) {
    const Row row = read_row(argm, i);
    if (row.count == 0) continue;  // whatever its operator
    if (!operator_known(row.op)) {
      xpmlog(CALLING_SURFACE, 173,
             {call_name(argm).text, static_cast<long>(argm->iargc), i + 1, argm->n + 1L});
      return -1;
    }
    if (const int rc = check_numbers(argm, row, i); rc != 0) return rc;
    if (row.count == 1) {
      ++(row.op == EQUAL ? count->equal : count->other);
      continue;
    }
    ++str->ncon;
    if (row.op == EQUAL) ++str->neqc;
    *mzac += row.count;
  }
  return 0;
}

// The counts are upper bounds: setcons may find that two rows bound the same side of a parameter. A
// pair of bounds that cross is counted once and made equal here, since the second pass must not
// find more than was counted.
int getncon(MINSTR* str, int job, long* mzac) {
  ARGMTS* argm = str->secstr;
  const long n = argm->n;
  str->nlicon = str->lincon = str->bounds = 0;
  str->neqc = str->ncon = 0;
  *mzac = 0;
  str->ntec = str->nlec;
  str->ntco = job == CONS_SIMPLEX ? str->nnlc + str->nlec : str->nnlc;
  if (argm->icmod != 0 && str->nnlc > 0) str->nlicon = 1;
  if (argm->ncon <= 0) return 0;

  BoundCount count;
  if (count_bounds(argm, &count) != 0 || count_rows(str, &count, mzac) != 0) return -1;
  if (str->ncon > 0) str->lincon = 1;
  str->ntco += job == CONS_SIMPLEX ? str->ncon + str->neqc : str->ncon;
  // The simplex technique meets linear rows in its branch for nonlinear constraints.
  if (job == CONS_SIMPLEX && str->lincon != 0) str->nlicon = 1;

  if (count.equal + count.other > 0) str->bounds = 1;
  count.equal = std::min(count.equal, n);
  count.other = std::min(count.other, 2 * n);
  if (job == CONS_SIMPLEX) count.equal *= 2;
  str->ntco += count.equal + count.other;
  return 0;
}

// ---- Second pass --------------------------------------------------------------------------------

// Rows 1 and 2 of blc; rows with one coefficient may replace them later.
static void copy_bound_rows(MINSTR* str) {
  const ARGMTS* argm = str->secstr;
  vzfdl(-HUGE_VALUE, str->lb, str->nvar);
  vzfdl(HUGE_VALUE, str->ub, str->nvar);
  const double* upper = argm->ncon > 1 ? argm->cons + argm->ccol : nullptr;
  for (long j = 0; j < str->nvar; ++j) {
    if (bound_there(argm->cons[j])) str->lb[j] = argm->cons[j];
    if (upper != nullptr && bound_there(upper[j])) str->ub[j] = upper[j];
  }
}

// Does row k set a bound of the parameter of row i before row i does? Equalities are taken first.
static bool is_taken_before(const Row& one, long k, const Row& other, long i) {
  if (one.count != 1 || one.last != other.last || k == i) return false;
  const bool equality = one.op == EQUAL;
  return equality == (other.op == EQUAL) ? k < i : equality;
}

// The row of blc that set a bound before row i does: a row with one coefficient, else row 1 or 2.
static long row_that_set(const ARGMTS* argm, const Row& row, long i, bool lower) {
  long setter = lower ? 0 : 1;
  bool by_inequality = false;
  for (long k = BOUND_ROWS; k < argm->ncon; ++k) {
    const Row other = read_row(argm, k);
    if (!is_taken_before(other, k, row, i) || other.op == (lower ? AT_MOST : AT_LEAST)) continue;
    if (by_inequality && other.op == EQUAL) continue;
    by_inequality = other.op != EQUAL;
    setter = k;
  }
  return setter;
}

// Sets one side. A bound that another row with one coefficient has set, or that was tighter, goes
// lost without a trace in the run: the log tells. Row 1 or 2 may be tightened freely.
static void replace_bound(MINSTR* str, const Row& row, long i, bool lower, double bound) {
  const ARGMTS* argm = str->secstr;
  double& place = (lower ? str->lb : str->ub)[row.last];
  if (bound_there(place) && place != bound) {
    const long setter = row_that_set(argm, row, i, lower);
    const bool looser = lower ? bound < place : bound > place;
    if (setter >= BOUND_ROWS || looser) {
      xpmlog(CALLING_SURFACE, 182,
             {call_name(argm).text, static_cast<long>(argm->iargc), i + 1,
              lower ? "lower" : "upper", row.last + 1, bound, place, setter + 1});
    }
  }
  place = bound;
}

// A row with one coefficient. The sign of the coefficient is not looked at, on purpose: a negative
// one does not swap the roles of the two bounds, so that -x >= 3 sets the lower bound -3. Who
// writes such a row expects the opposite, and is told.
static void set_bound(MINSTR* str, const Row& row, long i) {
  const ARGMTS* argm = str->secstr;
  const double bound = row.b / row.a[row.last];
  if (row.op != AT_MOST) replace_bound(str, row, i, true, bound);
  if (row.op != AT_LEAST) replace_bound(str, row, i, false, bound);
  if (row.op == EQUAL || row.a[row.last] > 0.0) return;
  xpmlog(CALLING_SURFACE, 183,
         {call_name(argm).text, static_cast<long>(argm->iargc), i + 1,
          row.op == AT_LEAST ? "lower" : "upper", row.last + 1, bound});
}

// Rows are appended behind `stored` coefficients.
static void append_row(MINSTR* str, const Row& row, long place, long* stored) {
  const double sign = row.op == AT_MOST ? -1.0 : 1.0;
  for (long j = 0; j < str->nvar; ++j) {
    if (!coefficient_there(row.a[j])) continue;
    str->alcn[*stored] = sign * row.a[j];
    str->jalc[(*stored)++] = j;
  }
  str->blcn[place] = sign * row.b;
  str->naco[place] = *stored;
}

// Takes the rows of equalities, or those of inequalities, from `place` on. Returns the place after
// the last.
static long take_rows(MINSTR* str, bool equalities, long place, long* stored) {
  const ARGMTS* argm = str->secstr;
  for (long i = BOUND_ROWS; i < argm->ncon; ++i) {
    const Row row = read_row(argm, i);
    if (row.count == 0 || (row.op == EQUAL) != equalities) continue;
    if (row.count == 1) {
      set_bound(str, row, i);
    } else {
      append_row(str, row, place++, stored);
    }
  }
  return place;
}

// Bounds that cross fix the parameter at the upper one: the message of that.
static void log_fixed(MINSTR* str, long j) {
  const FieldText name = call_name(str->secstr);
  const double lower = str->lb[j];
  const double upper = str->ub[j];
  log_crossing(str->secstr, 156, j, lower, upper);
  if (str->dbug != 0.0) {
    xpmout(CALLING_SURFACE, 156, {name.text, j + 1, lower, upper, lower - upper});
  }
}

// Two passes over the rows put equalities first without sorting. The counts must come out as
// getncon found them; a caller whose matrix changes in between has a fault that no code can
// describe.
void setcons(MINSTR* str, int job) {
  const long capacity = str->ntco;
  if (str->bounds != 0) copy_bound_rows(str);

  long stored = 0;
  const long equalities = take_rows(str, true, 0, &stored);
  if (equalities != str->neqc) xexit(EXIT_INCONSISTENT, 0);
  const long rows = take_rows(str, false, equalities, &stored);
  if (rows != str->ncon) xexit(EXIT_INCONSISTENT, 0);

  for (long j = 0; j < str->nvar && str->bounds != 0; ++j) {
    if (str->ub[j] < str->lb[j]) log_fixed(str, j);
  }
  complete_constraints(str, job == CONS_SIMPLEX);
  if (str->ntco > capacity) xexit(EXIT_INCONSISTENT, 0);
}

}  // namespace tqnlp
