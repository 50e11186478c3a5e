// trstlp: TRust region Step by Linear Programming, the subproblem of COBYLA.
//
// Problem    stage 1: minimize the largest violation max(0, max_k b_k - a_k'd) over |d| <= rho;
//            stage 2: minimize -a_m'd with the violation of stage 1 held. Rows a_k, k < m, are the
//            gradients of the constraints and b_k their negative values; a_m is the direction of
//            steepest descent of the objective
// Method     d is followed from 0 along the path that it takes as the radius grows. An active set
//            holds the constraints that share the largest violation; each piece of the path is a
//            line that leaves their values in common, and ends where a constraint joins, where a
//            multiplier changes sign so that a constraint leaves, or at the radius
// Reference  Powell (1994), in Advances in Optimization and Numerical Analysis, 51-67
// Work       zwrk = Z (n rows of n) | diagonal (n) | vmc (m+1) | vmd (m+1) | trial d (n) |
//            direction (n)
//
// Z holds an orthonormal basis by rows, the first nact of which span the active gradients: row k is
// orthogonal to the gradients before the k-th and has the product zdota[k] with it. iact lists the
// constraints, the nact active ones first; vmc belongs to its places: the multipliers of the active
// ones in d = sum vmc[k] a_k, and for the others the residuals a_k'd - b_k + resmax, both >= 0.
#include "aasubs/direct/znlpcob_step.h"

#include <algorithm>
#include <cmath>

#include "kernels/vector.h"

namespace tqnlp {

// Multipliers and pivots up to this size are zero.
static constexpr double NEGLIGIBLE = 2.004168360008972e-291;
// Of two ratios that differ by less, relative, the first found is the smaller.
static constexpr double TIE = 1.110223024625157e-15;

namespace {

struct Path {
  long n, m;
  double rho;
  const double* a;     // m + 1 rows of n
  const double* c;     // m values of the constraints at d = 0; b is their negative
  double* z;           // n rows of n
  double* zdota;       // n
  double* vmc;         // m + 1
  double* vmd;         // m + 1; what vmc becomes at the trial
  double* trial;       // n; the end of the present line, and scratch
  double* direction;   // n
  double* d;           // n
  long* iact;          // m + 1
  long nact = 0;       // active ones
  long rows = 0;       // m in stage 1, m + 1 in stage 2
  long blocking = -1;  // place of the constraint that ended the last line; -1 none
  double resmax = 0.0;

  const double* row(long k) const { return a + iact[k] * n; }
  bool minimizes_objective() const { return rows > m; }
};

// What follows a line.
enum class Line { next, stage_over, radius_reached };

}  // namespace

// Does a value stand out from the rounding of a sum whose terms have this total size? Free of scale
// and of a tolerance: a tenth of it must change the total, and a fifth must change it more.
static bool significant(double value, double size) {
  const double tenth = size + 0.1 * std::fabs(value);
  const double fifth = size + 0.2 * std::fabs(value);
  return size < tenth && tenth < fifth;
}

// x'y, or 0 when it is rounding.
static double guarded_dot(long n, const double* x, const double* y) {
  double sum = 0.0;
  double size = 0.0;
  for (long i = 0; i < n; ++i) {
    const double term = x[i] * y[i];
    sum += term;
    size += std::fabs(term);
  }
  return significant(sum, size) ? sum : 0.0;
}

// Rows x and y become alpha x + beta y and alpha y - beta x.
static void rotate(long n, double alpha, double beta, double* x, double* y) {
  for (long i = 0; i < n; ++i) {
    const double xi = x[i];
    x[i] = alpha * xi + beta * y[i];
    y[i] = alpha * y[i] - beta * xi;
  }
}

// Exchanges active constraints k and k + 1.
static void exchange_active(Path& p, long k) {
  double* zk = p.z + k * p.n;
  double* next = zk + p.n;
  const double off = zvdot11(p.n, zk, p.row(k + 1));
  const double length = std::hypot(off, p.zdota[k + 1]);
  const double alpha = p.zdota[k + 1] / length;
  const double beta = off / length;
  p.zdota[k + 1] = alpha * p.zdota[k];
  p.zdota[k] = length;
  // The plane rotation with a reflection, so that both products keep their sign.
  for (long i = 0; i < p.n; ++i) {
    const double z = zk[i];
    zk[i] = alpha * next[i] + beta * z;
    next[i] = alpha * z - beta * next[i];
  }
  std::swap(p.iact[k], p.iact[k + 1]);
  std::swap(p.vmc[k], p.vmc[k + 1]);
}

static void make_last_active(Path& p, long k) {
  for (; k < p.nact - 1; ++k) exchange_active(p, k);
}

// ---- Changes of the active set ------------------------------------------------------------------

// Can a pivot, the product of a gradient with a unit row of Z, be divided by? The rotations of Z
// leave more rounding in it than that of the product alone, and a direction made from rounding is
// so long that it ends the path at once.
static bool is_pivot(const Path& p, double pivot, const double* gradient) {
  static constexpr double ROUNDING = 1e-14;
  return std::fabs(pivot) > std::max(NEGLIGIBLE, ROUNDING * zvenorm(p.n, 1, gradient));
}

// Turns the free rows of Z so that the first of them alone has a product with the gradient; returns
// it, 0 when the gradient lies in the span of the active ones.
static double isolate(Path& p, const double* gradient) {
  double total = 0.0;
  for (long k = p.n - 1; k >= p.nact; --k) {
    double* zk = p.z + k * p.n;
    const double product = guarded_dot(p.n, zk, gradient);
    if (total == 0.0) {
      total = product;
      continue;
    }
    const double length = std::hypot(product, total);
    rotate(p.n, product / length, total / length, zk, zk + p.n);
    total = length;
  }
  return total;
}

// The multipliers of the active gradients in v, which is destroyed; vmd receives them.
static void resolve(Path& p, double* v) {
  for (long k = p.nact - 1; k >= 0; --k) {
    p.vmd[k] = guarded_dot(p.n, p.z + k * p.n, v) / p.zdota[k];
    if (k > 0 && p.vmd[k] != 0.0) zvxay11(p.n, v, -p.vmd[k], p.row(k));
  }
}

// The gradient of the blocking constraint is a combination of the active ones: one with a positive
// share must leave to let it in, the first whose multiplier falls to zero as that of the blocking
// constraint grows. Returns false when there is none.
static bool replace_active(Path& p) {
  std::copy_n(p.row(p.blocking), p.n, p.trial);
  resolve(p, p.trial);
  double ratio = -1.0;
  long leaving = -1;
  for (long k = p.nact - 1; k >= 0; --k) {
    if (!(p.vmd[k] > NEGLIGIBLE) || p.iact[k] >= p.m) continue;
    const double candidate = p.vmc[k] / p.vmd[k];
    if (leaving >= 0 && !(candidate < ratio - TIE * std::fabs(ratio))) continue;
    ratio = candidate;
    leaving = k;
  }
  if (leaving < 0) return false;
  for (long k = 0; k < p.nact; ++k) p.vmc[k] = std::max(0.0, p.vmc[k] - ratio * p.vmd[k]);
  make_last_active(p, leaving);
  const long last = p.nact - 1;
  const double pivot = zvdot11(p.n, p.z + last * p.n, p.row(p.blocking));
  if (!is_pivot(p, pivot, p.row(p.blocking))) return false;
  p.zdota[last] = pivot;
  std::swap(p.iact[last], p.iact[p.blocking]);
  p.vmc[p.blocking] = 0.0;
  p.vmc[last] = ratio;
  return true;
}

// The blocking constraint becomes active. Returns false when it cannot.
static bool add_blocking(Path& p) {
  const double pivot = isolate(p, p.row(p.blocking));
  if (is_pivot(p, pivot, p.row(p.blocking))) {
    p.zdota[p.nact] = pivot;
    p.vmc[p.blocking] = p.vmc[p.nact];
    p.vmc[p.nact] = 0.0;
    std::swap(p.iact[p.nact], p.iact[p.blocking]);
    ++p.nact;
  } else if (!replace_active(p)) {
    return false;
  }
  // The objective stays the last of the active ones, for its row of Z is the direction of stage 2.
  const long last = p.nact - 1;
  if (p.minimizes_objective() && p.iact[last] != p.m && last > 0) exchange_active(p, last - 1);
  return true;
}

// Revises the active set for the constraint that ended the last line, and the direction with it. In
// stage 1 the direction has the product 1 with every active gradient, so that the violation falls
// by the length of the step. Returns false when no direction is left.
static bool next_direction(Path& p) {
  if (p.blocking < p.nact) {
    make_last_active(p, p.blocking);
    --p.nact;
    if (!p.minimizes_objective()) {
      const double* gone = p.z + p.nact * p.n;
      zvxay11(p.n, p.direction, -zvdot11(p.n, p.direction, gone), gone);
    }
  } else {
    if (!add_blocking(p)) return false;
    if (!p.minimizes_objective()) {
      const long last = p.nact - 1;
      const double excess = zvdot11(p.n, p.direction, p.row(last)) - 1.0;
      zvxay11(p.n, p.direction, -excess / p.zdota[last], p.z + last * p.n);
    }
  }
  if (p.minimizes_objective()) {
    const long last = p.nact - 1;
    zvz111(p.n, p.direction, 1.0 / p.zdota[last], p.z + last * p.n);
  }
  return true;
}

// ---- Along a line -------------------------------------------------------------------------------

// Step along the direction to the radius; 0 when there is none. Gradients of any size may make the
// direction very long or short, so that its square is not formed.
static double step_to_radius(const Path& p) {
  static constexpr double SMALL = 1e-6;  // shares that are taken for rounding
  double room = p.rho * p.rho;
  for (long i = 0; i < p.n; ++i) {
    if (std::fabs(p.d[i]) >= SMALL * p.rho) room -= p.d[i] * p.d[i];
  }
  if (!(room > 0.0)) return 0.0;
  const double along = zvdot11(p.n, p.d, p.direction);
  const double root = std::hypot(zvenorm(p.n, 1, p.direction) * std::sqrt(room), along);
  const double step = room / (root + along);
  return std::isfinite(step) ? step : 0.0;
}

// Residual of an inactive constraint at the trial, 0 when it is rounding. Rounding here is not that
// of the sum alone: the trial leaves the active constraints by what the rotations of Z have left in
// the direction. The opposite of an active equality would otherwise block the line, and, since
// nothing can leave for it, end the path far from the radius.
static double residual(const Path& p, long k) {
  static constexpr double ROUNDING = 1e-12;
  const double* gradient = p.row(k);
  const double value = p.c[p.iact[k]];
  double sum = p.resmax + value;
  double size = p.resmax + std::fabs(value);
  for (long i = 0; i < p.n; ++i) {
    const double term = gradient[i] * p.trial[i];
    sum += term;
    size += std::fabs(term);
  }
  return significant(sum, size) && std::fabs(sum) > ROUNDING * size ? sum : 0.0;
}

// vmd at d + step direction, from the active set there; in stage 1 resmax of that point too.
static void evaluate_trial(Path& p, double step) {
  zvaxpy(p.trial, p.direction, p.d, p.n, step);
  if (!p.minimizes_objective()) {
    p.resmax = 0.0;
    for (long k = 0; k < p.nact; ++k) {
      p.resmax = std::max(p.resmax, -p.c[p.iact[k]] - zvdot11(p.n, p.row(k), p.trial));
    }
  }
  resolve(p, p.trial);
  if (p.minimizes_objective()) p.vmd[p.nact - 1] = std::max(0.0, p.vmd[p.nact - 1]);
  zvaxpy(p.trial, p.direction, p.d, p.n, step);
  for (long k = p.nact; k < p.rows; ++k) p.vmd[k] = residual(p, k);
}

// The share of the line until the first value of vmd changes sign, whose place is then blocking.
static double share_of_line(Path& p) {
  double share = 1.0;
  p.blocking = -1;
  for (long k = 0; k < p.rows; ++k) {
    if (!(p.vmd[k] < -NEGLIGIBLE)) continue;
    const double candidate = p.vmc[k] / (p.vmc[k] - p.vmd[k]);
    if (!(candidate < share - TIE * share)) continue;
    share = candidate;
    p.blocking = k;
  }
  return share;
}

static Line follow_line(Path& p) {
  const double full = step_to_radius(p);
  if (full == 0.0) return p.minimizes_objective() ? Line::stage_over : Line::radius_reached;
  double step = full;
  if (!p.minimizes_objective()) {
    if (!significant(p.resmax, full)) return Line::stage_over;
    step = std::min(full, p.resmax);
  }
  const double before = p.resmax;
  evaluate_trial(p, step);
  const double share = share_of_line(p);
  for (long i = 0; i < p.n; ++i) p.d[i] = (1.0 - share) * p.d[i] + share * p.trial[i];
  for (long k = 0; k < p.rows; ++k) {
    p.vmc[k] = std::max(0.0, (1.0 - share) * p.vmc[k] + share * p.vmd[k]);
  }
  if (!p.minimizes_objective()) p.resmax = before + share * (p.resmax - before);
  if (p.blocking >= 0) return Line::next;
  return step == full ? Line::radius_reached : Line::stage_over;
}

// ---- Stages -------------------------------------------------------------------------------------

// Stands between a degenerate subproblem and endless exchanges of its active set: lines go on as
// long as the aim of the stage falls or the active set grows, and three more.
namespace {

struct Patience {
  double best = 0.0;
  long largest_set = 0;
  int left = 0;

  bool exhausted(double aim, long nact) {
    static constexpr int REPEATS = 3;
    if (left == 0 || aim < best) {
      best = aim;
      largest_set = nact;
      left = REPEATS;
    } else if (nact > largest_set) {
      largest_set = nact;
      left = REPEATS;
    } else {
      --left;
    }
    return left == 0;
  }
};

}  // namespace

// Follows the path of a stage from the constraint in blocking. Returns true when it met the radius.
static bool run_stage(Path& p) {
  Patience patience;
  for (long lines = 20 * (p.n + p.m) + 100; lines > 0; --lines) {
    const double aim = p.minimizes_objective() ? -zvdot11(p.n, p.d, p.a + p.m * p.n) : p.resmax;
    if (patience.exhausted(aim, p.nact) || !next_direction(p)) return false;
    const Line line = follow_line(p);
    if (line != Line::next) return line == Line::radius_reached;
  }
  return false;
}

// d = 0, no active constraints; blocking is the most violated one.
static void open_path(Path& p) {
  std::fill_n(p.d, p.n, 0.0);
  std::fill_n(p.direction, p.n, 0.0);
  std::fill_n(p.z, p.n * p.n, 0.0);
  for (long i = 0; i < p.n; ++i) p.z[i * p.n + i] = 1.0;
  for (long k = 0; k < p.m; ++k) {
    if (-p.c[k] > p.resmax) {
      p.resmax = -p.c[k];
      p.blocking = k;
    }
    p.iact[k] = k;
  }
  for (long k = 0; k < p.m; ++k) p.vmc[k] = p.resmax + p.c[k];
}

static Path divide_work(MINSTR* str, double rho, const double* ader, double* zwrk) {
  Path p{};
  p.n = str->nvar;
  p.m = str->ntco;
  p.rho = rho;
  p.a = ader;
  p.c = str->jcon + p.n * (p.m + 2);
  p.z = zwrk;
  p.zdota = p.z + p.n * p.n;
  p.vmc = p.zdota + p.n;
  p.vmd = p.vmc + p.m + 1;
  p.trial = p.vmd + p.m + 1;
  p.direction = p.trial + p.n;
  p.d = str->sdir;
  p.iact = str->iact;
  p.blocking = -1;
  return p;
}

long trust_step_work(long n, long m) { return n * n + 3 * n + 2 * (m + 1); }

int trstlp(MINSTR* str, double rho, const double* ader, double* zwrk) {
  Path p = divide_work(str, rho, ader, zwrk);
  open_path(p);
  p.rows = p.m;
  if (p.resmax > 0.0 && run_stage(p)) return 1;
  p.rows = p.m + 1;
  p.blocking = p.m;
  p.iact[p.m] = p.m;
  p.vmc[p.m] = 0.0;
  return run_stage(p) ? 1 : 0;
}

}  // namespace tqnlp
