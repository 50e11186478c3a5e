// znlpstl: STep Limit of bounds and linear constraints, the ratio test.
//
// Along x + t s a bound at distance r is met at t = r / |s_j|, a linear inequality a'x >= b with
// residual r = a'x - b at t = r / (-a's) when the slope a's is negative. The smallest t is the
// limit. A constraint on which x stands (|r| within tolerance) and into which s moves makes it zero
// at once; one that x violates by more, and s violates still more, is counted, and is the caller's
// to judge. Reference: Gill, Murray and Wright, Practical Optimization (1981), section 5.1.
//
// Work: awrk holds one constraint row.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double LARGEST_TOLERANCE = 0.001;
static constexpr double MOVEMENT_RATIO = 1e-8;  // slopes below this share of max |s| do not count
static constexpr double SMALLEST_MOVEMENT = 2.225073858507202e-305;

// The state of one scan over the constraints.
struct Scan {
  double limit = HUGE_VALUE;  // smallest step to a constraint so far
  long blocker = -1;          // its code
  double deepest = 0.0;       // least predicted residual among the constraints that block at once
  long blocked = 0;           // constraints that block at once
  long violated = 0;          // constraints that x violates
  long* list;                 // receives the codes of those that block at once, or null
  long capacity;              // entries that list can hold
};

// Takes down a constraint that blocks at once; ahead is its residual after a full step.
static void block_at_once(Scan& scan, long code, double ahead) {
  if (ahead < scan.deepest) {
    scan.deepest = ahead;
    scan.blocker = code;
  } else if (scan.blocker < 0) {
    scan.blocker = code;
  }
  if (scan.list != nullptr) {
    if (scan.blocked >= scan.capacity) xexit(EXIT_INCONSISTENT, 0);
    scan.list[scan.blocked] = code;
  }
  ++scan.blocked;
  scan.limit = 0.0;
}

// A constraint at distance r is approached with speed > 0. Of equal steps the first keeps its
// place.
static void meet(Scan& scan, long code, double r, double speed) {
  const double t = speed > EPS * std::max(r, 1.0) ? r / speed : HUGE_VALUE;
  if (t < scan.limit) {
    scan.limit = t;
    scan.blocker = code;
  }
}

// Returns true when the scan ends at once: a bound blocks and no list is wanted.
static bool scan_bounds(MINSTR* str, long count, double eps, double least, const double* x,
                        const double* sdir, Scan& scan) {
  const long free = str->nvar - str->nabc;
  for (long l = 0; l < free; ++l) {
    const long j = str->ifxr[l];
    if (j >= count) break;
    const double s = sdir[j];
    if (!(std::fabs(s) > least)) continue;

    long code;
    double bound;
    double r;
    if (s < 0.0 && lower_exists(str->lb[j])) {
      code = j;
      bound = str->lb[j];
      r = x[j] - bound;
    } else if (s > 0.0 && upper_exists(str->ub[j])) {
      code = str->nvar + j;
      bound = str->ub[j];
      r = bound - x[j];
    } else {
      continue;
    }

    const double tolerance = (std::fabs(bound) + 1.0) * eps;
    const double speed = std::fabs(s);
    if (r < -tolerance) {
      ++scan.violated;
    } else if (r > tolerance) {
      meet(scan, code, r, speed);
    } else if (str->iabc[j] == 0) {
      block_at_once(scan, code, r - speed);
      if (scan.list == nullptr) return true;
    } else if (r > 0.0) {
      // A bound that waits as linearly dependent: it may still be approached.
      meet(scan, code, r, speed);
    } else {
      scan.limit = 0.0;
    }
  }
  return false;
}

static bool is_active(const MINSTR* str, long i) {
  return std::find(str->iact, str->iact + str->nalc, i) != str->iact + str->nalc;
}

// Does constraint i wait as linearly dependent? The search deliberately ends at the count nldc
// itself, not at nalc + nldc.
static bool is_deferred(const MINSTR* str, long i) {
  for (long k = str->nalc; k < str->nldc; ++k) {
    if (str->iact[k] == i) return true;
  }
  return false;
}

static void scan_rows(MINSTR* str, long count, double eps, double least, const double* x,
                      const double* sdir, Scan& scan) {
  const long n = str->nvar;
  for (long i = str->neqc; i < count; ++i) {
    if (is_active(str, i)) continue;
    str->acget(str, i, str->awrk);
    const double slope = zvdot11(n, str->awrk, sdir);
    if (!(slope < -least)) continue;

    const double b = str->blcn[i];
    const double tolerance = std::max((std::fabs(b) + 1.0) * eps, eps);
    const double r = zvdot11(n, str->awrk, x) - b;
    const long code = 2 * n + i;
    if (r < -tolerance) {
      ++scan.violated;
    } else if (r > tolerance) {
      meet(scan, code, r, -slope);
    } else if (!is_deferred(str, i)) {
      block_at_once(scan, code, slope + r);
    } else if (r > TINY) {
      meet(scan, code, r, -slope);
    } else {
      scan.limit = 0.0;
    }
  }
}

int znlpstl(MINSTR* str, int, int ibo, long ncon, const double* x, const double* sdir, long* icon,
            long* iwk) {
  const long n = str->nvar;
  const double eps = std::min(feasibility_tolerance(str, str->ipre), LARGEST_TOLERANCE);
  const double least = std::max(MOVEMENT_RATIO * zvamx(n, sdir), SMALLEST_MOVEMENT);
  const long count = ncon == 0 ? n + str->ncon : std::min(ncon, n + str->ncon);

  Scan scan;
  scan.list = iwk;
  scan.capacity = std::max(n, str->ntco);
  bool ended = false;
  if (str->bounds != 0) ended = scan_bounds(str, count, eps, least, x, sdir, scan);
  if (!ended && str->lincon != 0 && count > n) {
    scan_rows(str, count - n, eps, least, x, sdir, scan);
  }

  str->stub = scan.limit;
  if (ibo == 0 && scan.limit > 1.0) {
    scan.blocker = -1;
    str->stub = 1.0;
  }
  *icon = iwk != nullptr ? scan.blocked : scan.blocker;
  if (scan.violated > 0) {
    str->stub = 0.0;
    return static_cast<int>(scan.violated);
  }
  return str->stub <= TINY ? -1 : 0;
}

}  // namespace tqnlp
