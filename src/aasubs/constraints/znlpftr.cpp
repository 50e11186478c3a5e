// znlpftr: FRame of The Range space. The method and the layout are told in znlpftr.h.
#include "aasubs/constraints/znlpftr.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "host/files.h"
#include "host/log.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int SPARSE = 1;  // hfrm
static constexpr int DIAGONAL = 2;

// A solved row that keeps less than this share of its length depends on the rows before it.
static constexpr double DEPENDENT_SHARE = 1e-8;

// Where w falls below this share of its length, what is left of it is made orthogonal again.
static constexpr double CANCELLATION = 0.1;

static double* triangle(const MINSTR* str) { return str->uvwg + 4 * str->nvar; }
static double* column_of(const MINSTR* str, long j) { return triangle(str) + j * (j - 1) / 2; }
static double* row_work(const MINSTR* str) { return str->ywrk + str->nvar; }
static double* row_of_file(const MINSTR* str) { return str->ywrk + 2 * str->nvar; }
static double* row_coefficients(const MINSTR* str) { return str->ywrk + 3 * str->nvar; }

// ---- The factor ---------------------------------------------------------------------------------

static int packed_job(const MINSTR* str) { return str->bounds != 0 ? 1 : 2; }

static void scale_by_roots(const MINSTR* str, const double* half, double* b) {
  for (long l = 0; l < free_count(str); ++l) b[l] /= half[str->ifxr[l]];
}

// b := L^-1 b, or L^-T b, in the order of the free parameters.
static void solve_half(MINSTR* str, const double* half, double* b, bool transposed) {
  const SPAR& s = str->shes;
  const long free = free_count(str);
  if (half == nullptr || free < 1) return;
  if (str->hfrm == DIAGONAL) {
    scale_by_roots(str, half, b);
  } else if (str->hfrm == SPARSE) {
    const auto solve = transposed ? zslltui : zslltli;
    const bool second = str->bounds != 0;
    solve(second ? 1 : 0, free, s.perm, second ? s.jusl : s.jusp, half, b);
  } else {
    const auto solve = transposed ? znlpium : znlpilm;
    solve(str, packed_job(str), free, const_cast<double*>(half), b);
  }
}

static void solve_lower(MINSTR* str, const double* half, double* b) {
  solve_half(str, half, b, false);
}

static void solve_upper(MINSTR* str, const double* half, double* b) {
  solve_half(str, half, b, true);
}

// ---- Rows ---------------------------------------------------------------------------------------

static void check_file(int status) {
  if (status == 0) return;
  xprrlog(0, status);
  xexit(EXIT_WORK_FILE, 0);
}

static long row_bytes(const MINSTR* str) { return str->nvar * static_cast<long>(sizeof(double)); }

// Row i of Q; from the file it is read into the buffer.
static const double* frame_row(const MINSTR* str, long i, double* buffer) {
  if (str->qlcn != nullptr) return str->qlcn + i * str->nvar;
  check_file(xcpoint(str->utq, i * row_bytes(str)));
  check_file(xcread(str->utq, buffer, row_bytes(str)));
  return buffer;
}

static void store_row(const MINSTR* str, long i, const double* row) {
  if (str->qlcn != nullptr) {
    if (row != str->qlcn + i * str->nvar) std::copy_n(row, str->nvar, str->qlcn + i * str->nvar);
    return;
  }
  check_file(xcpoint(str->utq, i * row_bytes(str)));
  check_file(xcwrite(str->utq, row, row_bytes(str)));
}

static void open_row_file(MINSTR* str) {
  if (str->qlcn != nullptr || str->utq != nullptr || str->lincon == 0) return;
  const WorkFileOptions options{row_bytes(str)};
  check_file(xcopen(&str->utq, &options));
}

double row_product(MINSTR* str, long i, const double* v) {
  if (str->aspa == 0) {
    str->acget(str, i, str->awrk);
    return zvdot11(str->nvar, str->awrk, v);
  }
  double sum = 0.0;
  for (long k = i > 0 ? str->naco[i - 1] : 0; k < str->naco[i]; ++k) {
    sum += str->alcn[k] * v[str->jalc[k]];
  }
  return sum;
}

// The gradient of a constraint on the free parameters, solved: ywrk.
static void load_solved_row(MINSTR* str, int koc, long ic, const double* half) {
  const long free = free_count(str);
  double* y = str->ywrk;
  vzfdl(0.0, y, str->nvar);
  if (koc != 0) {
    y[std::find(str->ifxr, str->ifxr + free, ic) - str->ifxr] = 1.0;
  } else {
    str->acget(str, ic, str->awrk);
    for (long l = 0; l < free; ++l) y[l] = str->awrk[str->ifxr[l]];
  }
  solve_lower(str, half, y);
}

// The solved row of a constraint, orthogonal to the members and of unit length; its coefficients
// stand in row_coefficients. Returns 1 when it depends on them. Places behind the free parameters
// are 0 in every row, so that they take no part.
static int updyl(MINSTR* str, int koc, long ic, const double* half, double* rho) {
  if (free_count(str) <= str->nalc) return 1;
  load_solved_row(str, koc, ic, half);
  const long n = str->nvar;
  const double length = zvenorm(n, 1, str->ywrk);
  const GsoBasis basis{str->qlcn, str->utq};
  const int failed = znlpgso(str->utq != nullptr ? 1 : 0, n, str->nalc, n, 1, 1, basis, str->ywrk,
                             row_coefficients(str), rho, row_work(str), row_of_file(str));
  return failed == 0 && *rho >= TINY && *rho > DEPENDENT_SHARE * length ? 0 : 1;
}

// ---- u, v, w ------------------------------------------------------------------------------------

void frame_advance(MINSTR* str, double alfa) {
  const long n = str->nvar;
  double* u = frame_u(str);
  double* w = frame_w(str);
  if (alfa == 0.0) return;
  if (alfa == 1.0) {
    std::copy_n(frame_v(str), n, u);
    vzfdl(0.0, w, n);
    return;
  }
  for (long l = 0; l < n; ++l) {
    u[l] = alfa * frame_v(str)[l] + (1.0 - alfa) * u[l];
    w[l] *= 1.0 - alfa;
  }
}

// Moves the part s q from w to v.
static void shift_range(MINSTR* str, const double* q, double s) {
  zvxay11(str->nvar, frame_v(str), s, q);
  zvxay11(str->nvar, frame_w(str), -s, q);
}

// Moves from w to v what w has in the range. w is what is left of a much larger u, and what
// rounding leaves there of the range would make a direction that leaves the rows: a second pass, or
// one after a change, takes it out.
static void purge_range(MINSTR* str) {
  for (long i = 0; i < str->nalc; ++i) {
    const double* q = frame_row(str, i, row_of_file(str));
    shift_range(str, q, zvdot11(str->nvar, q, frame_w(str)));
  }
}

// g := gradient of the quadratic with the free parameters at 0.
static void gmupd(MINSTR* str) {
  const long n = str->nvar;
  double* g = frame_g(str);
  vzfdl(0.0, g, n);
  if (str->fqad == 0) return;
  if (str->nabc > 0) {
    double* fixed = row_work(str);
    vzfdl(0.0, fixed, n);
    for (long l = free_count(str); l < n; ++l) fixed[str->ifxr[l]] = str->x[str->ifxr[l]];
    quadratic_product(str, fixed, g);
  }
  if (str->qvec != nullptr) zvxay11(n, g, 1.0, str->qvec);
}

static void gradient_parts(MINSTR* str, const double* half) {
  const long n = str->nvar;
  double* u = frame_u(str);
  vzfdl(0.0, u, n);
  for (long l = 0; l < free_count(str); ++l) u[l] = str->grad[str->ifxr[l]];
  solve_lower(str, half, u);
  vzfdl(0.0, frame_v(str), n);
  std::copy_n(u, n, frame_w(str));
  purge_range(str);
  purge_range(str);
}

void inuvwg(MINSTR* str, const double* half) {
  if (half != nullptr) gmupd(str);
  gradient_parts(str, half);
}

void frame_direction(MINSTR* str, const double* half) {
  double* d = str->ywrk;
  std::copy_n(frame_w(str), str->nvar, d);
  solve_upper(str, half, d);
  vzfdl(0.0, str->sdir, str->nvar);
  for (long l = 0; l < free_count(str); ++l) str->sdir[str->ifxr[l]] = -d[l];
}

// ---- Entering -----------------------------------------------------------------------------------

// Takes row ic out of the deferred ones, if it is there.
static void no_longer_deferred(MINSTR* str, long ic) {
  long* begin = str->iact + str->nalc;
  long* end = begin + str->nldc;
  long* found = std::find(begin, end, ic);
  if (found == end) return;
  std::copy(found + 1, end, found);
  --str->nldc;
}

static int defer_row(MINSTR* str, long ic) {
  no_longer_deferred(str, ic);
  str->iact[str->nalc + str->nldc++] = ic;
  return 1;
}

// The row in ywrk becomes the last member.
static void append_row(MINSTR* str, long ic, double rho) {
  const long last = str->nalc;
  no_longer_deferred(str, ic);
  if (str->nldc > 0) str->iact[last + str->nldc] = str->iact[last];
  str->iact[last] = ic;
  str->llcn[last] = rho;
  std::copy_n(row_coefficients(str), last, column_of(str, last));
  store_row(str, last, str->ywrk);
  ++str->nalc;
}

// A deferred bound has its status, though its parameter is free: out of sight while parameters are
// sorted by status.
void hide_deferred_bounds(MINSTR* str) {
  if (str->nlbc == 0) return;
  std::fill_n(str->ipiv, str->nvar, 0L);
  for (long l = 0; l < free_count(str); ++l) {
    const long j = str->ifxr[l];
    str->ipiv[j] = str->iabc[j];
    str->iabc[j] = 0;
  }
}

void show_deferred_bounds(MINSTR* str) {
  for (long j = 0; str->nlbc > 0 && j < str->nvar; ++j) {
    if (str->ipiv[j] != 0) str->iabc[j] = static_cast<int>(str->ipiv[j]);
  }
}

static int add_row(MINSTR* str, int job, long ic, double alfa, const double* half) {
  double rho = 0.0;
  if (updyl(str, 0, ic, half, &rho) != 0) return job != 0 ? 1 : defer_row(str, ic);
  if (job != 0) return 0;
  frame_advance(str, alfa);
  const double before = zvenorm(str->nvar, 1, frame_w(str));
  shift_range(str, str->ywrk, zvdot11(str->nvar, str->ywrk, frame_w(str)));
  append_row(str, ic, rho);
  if (zvenorm(str->nvar, 1, frame_w(str)) < CANCELLATION * before) purge_range(str);
  return 0;
}

static int add_bound(MINSTR* str, int job, int koc, long ic, double* half) {
  double rho = 0.0;
  const bool dependent = updyl(str, koc, ic, half, &rho) != 0;
  if (job != 0) return dependent ? 1 : 0;
  if (dependent) {
    str->iabc[ic] = koc;
    ++str->nlbc;
    return 1;
  }
  str->iabc[ic] = 0;
  hide_deferred_bounds(str);
  str->iabc[ic] = koc;
  ++str->nabc;
  const int status = renew_frame(str, half);
  show_deferred_bounds(str);
  return status;
}

int znlpupr(MINSTR* str, int job, int koc, long ic, double alfa, double* half) {
  return koc == 0 ? add_row(str, job, ic, alfa, half) : add_bound(str, job, koc, ic, half);
}

// ---- Leaving ------------------------------------------------------------------------------------

// Rotates rows k and k + 1 of Q by (c, s); row k comes from upper and the new row k + 1 stays
// there.
static void rotate_rows(MINSTR* str, long k, double c, double s, double* upper) {
  const long n = str->nvar;
  const double* next = frame_row(str, k + 1, row_of_file(str));
  double* lower = row_work(str);
  std::copy_n(next, n, lower);
  zgivapl(n, 1, 1, c, s, upper, lower);
  store_row(str, k, upper);
  std::copy_n(lower, n, upper);
}

// Row k of R and Q leaves: R without its column k has an element below the diagonal in each column
// from there on, which a rotation of two rows of Q and R takes away. ywrk: the row left over.
static void remove_row(MINSTR* str, long k) {
  const long last = str->nalc - 1;
  std::copy_n(frame_row(str, k, row_of_file(str)), str->nvar, str->ywrk);
  // columns k + 1 .. last move one to the front, each with its diagonal below its new diagonal
  for (long j = k; j < last; ++j) {
    double* old = column_of(str, j + 1);
    double* to = column_of(str, j);
    double above = old[j];  // R(j, j+1), the new diagonal before the rotations
    double below = str->llcn[j + 1];
    double c = 1.0;
    double s = 0.0;
    zgivcon(&above, &below, &c, &s);
    for (long later = j + 2; later <= last; ++later) {
      double* column = column_of(str, later);
      zgivapl(1, 1, 1, c, s, column + j, column + j + 1);
    }
    std::copy_n(old, j, to);
    str->llcn[j] = above;
    rotate_rows(str, j, c, s, str->ywrk);
  }
}

static int drop_row(MINSTR* str, long ic, double alfa) {
  const long* end = str->iact + str->nalc;
  long* found = std::find(str->iact, str->iact + str->nalc, ic);
  if (found == end) return 1;
  frame_advance(str, alfa);
  remove_row(str, found - str->iact);
  shift_range(str, str->ywrk, -zvdot11(str->nvar, str->ywrk, frame_u(str)));
  std::copy(found + 1, str->iact + str->nalc + str->nldc, found);
  --str->nalc;
  purge_range(str);
  return 0;
}

int znlpdor(MINSTR* str, int koc, long ic, double alfa, double* half) {
  if (koc == 0) return drop_row(str, ic, alfa);
  const long free = free_count(str);
  if (std::find(str->ifxr + free, str->ifxr + str->nvar, ic) == str->ifxr + str->nvar) return 1;
  hide_deferred_bounds(str);
  str->iabc[ic] = 0;
  --str->nabc;
  const int status = renew_frame(str, half);
  show_deferred_bounds(str);
  return status;
}

// ---- A new frame --------------------------------------------------------------------------------

int renew_frame(MINSTR* str, double* half) {
  const long rows = str->nalc;
  const long deferred = str->nldc;
  if (znlpinc(str, half != nullptr ? 1 : 0) != 0) return -1;
  open_row_file(str);
  std::copy_n(str->iact, rows + deferred, str->liwk);
  str->nalc = str->nldc = 0;
  for (long k = 0; k < rows; ++k) {
    const long ic = str->liwk[k];
    double rho = 0.0;
    if (updyl(str, 0, ic, half, &rho) != 0) {
      defer_row(str, ic);
    } else {
      append_row(str, ic, rho);
    }
  }
  for (long k = rows; k < rows + deferred; ++k) defer_row(str, str->liwk[k]);
  inuvwg(str, half);
  return 0;
}

int znlpftr(MINSTR* str, int job, int job2, double* half) {
  str->nldc = str->nlbc = 0;
  str->nabc = 0;
  if (str->lincon == 0) str->nalc = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) str->nabc += str->iabc[j] != 0;
  std::stable_partition(str->iact, str->iact + str->nalc, [str](long i) { return i < str->neqc; });
  if (const int failed = renew_frame(str, half); failed != 0) return failed;
  if (job != 0 && znlpdar(str, 0.0, half) < 0) return -1;
  if (job2 != 0) frame_projection(str);
  return 0;
}

// ---- Multipliers --------------------------------------------------------------------------------

void frame_multipliers(MINSTR* str, double* lambda) {
  for (long i = 0; i < str->nalc; ++i) {
    lambda[i] = zvdot11(str->nvar, frame_row(str, i, row_of_file(str)), frame_u(str));
  }
  for (long j = str->nalc - 1; j >= 0; --j) {
    if (!(std::fabs(str->llcn[j]) > TINY)) xexit(EXIT_INCONSISTENT, 0);
    lambda[j] /= str->llcn[j];
    zvxay11(j, lambda, -lambda[j], column_of(str, j));
  }
}

static void subtract_row(MINSTR* str, long i, double lambda, double* from) {
  if (str->aspa == 0) {
    str->acget(str, i, str->awrk);
    zvxay11(str->nvar, from, -lambda, str->awrk);
    return;
  }
  for (long k = i > 0 ? str->naco[i - 1] : 0; k < str->naco[i]; ++k) {
    from[str->jalc[k]] -= lambda * str->alcn[k];
  }
}

void frame_projection(MINSTR* str) {
  const double* projected = str->grad;
  if (str->nalc > 0) {
    double* lambda = str->lagm + str->nabc;
    frame_multipliers(str, lambda);
    std::copy_n(str->grad, str->nvar, str->gpro);
    for (long i = 0; i < str->nalc; ++i) subtract_row(str, str->iact[i], lambda[i], str->gpro);
    projected = str->gpro;
  } else if (str->gpro != nullptr) {
    std::copy_n(str->grad, str->nvar, str->gpro);
  }
  str->gmax = 0.0;
  for (long l = 0; l < free_count(str); ++l) {
    const double size = std::fabs(projected[str->ifxr[l]]);
    if (!(size <= str->gmax)) str->gmax = size;
  }
  for (long i = 0; str->lagm != nullptr && i < str->nabc; ++i) {
    const long j = str->ifxr[free_count(str) + i];
    str->lagm[i] = str->iabc[j] < 0 ? -projected[j] : projected[j];
  }
}

// R's = -residual, then sdir = L^-T Q s.
void frame_correction(MINSTR* str, const double* half) {
  const long n = str->nvar;
  double* s = row_coefficients(str);
  double* d = str->ywrk;
  vzfdl(0.0, d, n);
  for (long j = 0; j < str->nalc; ++j) {
    const long i = str->iact[j];
    const double rest = str->blcn[i] - row_product(str, i, str->x);
    s[j] = (rest - zvdot11(j, column_of(str, j), s)) / str->llcn[j];
    zvxay11(n, d, s[j], frame_row(str, j, row_of_file(str)));
  }
  solve_upper(str, half, d);
  vzfdl(0.0, str->sdir, n);
  for (long l = 0; l < free_count(str); ++l) str->sdir[str->ifxr[l]] = d[l];
}

}  // namespace tqnlp
