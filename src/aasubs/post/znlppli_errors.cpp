// znlppli, the standard errors where the run has none: roots of the diagonal of the covariance
// matrix
//
//   2 s2 / ffac  Z (Z'HZ)^-1 Z'
//
// of the Hessian H of the objective by differences, Z a basis of the null space of the active
// constraints. The factor makes it the inverse Hessian for a negative log-likelihood (s2 = 1, ffac
// 2) and s2 times that for half a sum of squares.
#include <algorithm>
#include <cmath>
#include <utility>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/post/zcovinv.h"
#include "aasubs/post/znlppli_internal.h"
#include "host/memory.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int SPARSE_FORM = 1;

namespace {

// Room for the errors.
struct Room {
  double* hess;  // packed n; H, and the covariance of the reduced space
  double* wfid;  // difference work
  double* z;     // nz x n; Z by columns
  double* hz;    // n
  double* inv;   // packed nz
  double* cdia;  // nz
  double* work;  // n
};

}  // namespace

double zvardiv(const char* vardef, double nobs, double df) {
  return vardef[0] == 'N' || vardef[0] == 'n' ? nobs : nobs - df;
}

// fih: full Hessian at x, packed, by differences of fourth order (indf 8), or central ones of a
// gradient that is not made of differences itself (indf 9). The options of the run do not count.
static int fih(MINSTR* str, const Room& room) {
  const MINSTR before = *str;
  COVSTR& post = *str->covstr;
  const int form = std::exchange(post.hfrm, 0);
  str->hess = room.hess;
  str->wfid = room.wfid;
  str->hfrm = 0;
  const bool gradient = str->usgrd != nullptr && fidi_digit(str->fidi, 0) == 0;
  int code = str->usfct(str);
  if (code == 0 && str->tbig == 0.0) code = gradient ? znlpfh4(str) : znlpfh2(str);
  const bool failed = code != 0 || str->tbig != 0.0;
  *str = before;
  post.hfrm = form;
  const auto finite = [](double h) { return std::isfinite(h); };
  return failed || !std::all_of(room.hess, room.hess + str->nnva, finite) ? -1 : 0;
}

// The working set at x with its frame, made afresh.
static void collect_active(MINSTR* str) {
  for (long j = 0; j < str->nvar; ++j) str->iabc[j] = str->lb[j] == str->ub[j] ? 2 : 0;
  znlpfch(str, 1, 1, str->ipre);
  znlpfta(str, 0, 0, 0, nullptr, nullptr, nullptr);
}

// Z by columns, and Z'HZ into inv.
static void reduce_hessian(MINSTR* str, const Room& room, long order) {
  const long n = str->nvar;
  for (long k = 0; k < order; ++k) {
    vzfdl(0.0, str->gold, n);
    str->gold[k] = 1.0;
    znlpvex(str, str->gold, room.z + k * n);
  }
  for (long k = 0; k < order; ++k) {
    znlpsmv(n, nullptr, room.hess, room.z + k * n, room.hz);
    for (long l = 0; l <= k; ++l) room.inv[zisub(k, l)] = zvdot11(n, room.hz, room.z + l * n);
  }
}

// Inverts Z'HZ; false unless it is positive definite by the criteria of COVSTR. Where there are
// none it is that of the run's factorizations, for each variable by itself: the zeros of a Hessian
// by differences are small numbers, and units of variables differ.
static bool invert(const MINSTR* str, const Room& room, long order) {
  static constexpr double SINGULAR = 1e-8;
  const COVSTR* post = working_record(str)->savstr.covstr;
  const auto given = [](double criterion) { return criterion > 0.0 ? criterion : MISSING; };
  double vsin = given(post->vsin);
  if (wzmis(vsin) && wzmis(given(post->asin)) && wzmis(given(post->msin))) {
    vsin = std::max(str->sing, SINGULAR);
  }
  double det[5];
  const int code = zcovinv(1, 0, order, given(post->asin), given(post->msin), vsin, room.inv, det,
                           room.cdia, room.work, str->iwk);
  return code == 0 && det[3] == 0.0 && det[4] == 0.0;
}

static void set_errors(const MINSTR* str, const PLCS* s, const Room& room, long order) {
  const long n = str->nvar;
  const double factor = 2.0 * s->sigm / str->covstr->plcstr->ffac;
  for (long j = 0; j < n; ++j) {
    double variance = 0.0;
    for (long k = 0; k < order; ++k) {
      for (long l = 0; l < order; ++l) {
        variance += room.z[k * n + j] * room.inv[zisub(k, l)] * room.z[l * n + j];
      }
    }
    if (variance > 0.0) s->ster[j] = std::sqrt(factor * variance);
  }
}

void standard_errors(MINSTR* str) {
  const PLCS* s = working_record(str);
  const long n = str->nvar;
  const bool active_rows = str->lincon != 0 || str->nlicon != 0;
  if (wzmis(s->sigm) || str->hfrm == SPARSE_FORM || str->fqad != 0) return;
  if (active_rows && str->opro != 1) return;
  std::copy_n(s->xopt, n, str->x);
  const long wfid = std::max({2 * str->mequ, str->mequ + n, n + 2});
  const std::size_t bytes =
      static_cast<std::size_t>(2 * str->nnva + wfid + n * n + 3 * n) * sizeof(double);
  auto* block = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (block == nullptr) {  // the search does without
    xmemmsg(bytes);
    return;
  }
  Room room{};
  room.hess = block;
  room.inv = room.hess + str->nnva;
  room.wfid = room.inv + str->nnva;
  room.z = room.wfid + wfid;
  room.hz = room.z + n * n;
  room.cdia = room.hz + n;
  room.work = room.cdia + n;
  if (fih(str, room) == 0) {
    collect_active(str);
    const long order = reduced_dimension(str);
    // The curvature of active nonlinear constraints is not in H.
    if (order > 0 && str->nanc == 0) {
      reduce_hessian(str, room, order);
      if (invert(str, room, order)) set_errors(str, s, room, order);
    }
  }
  vmfree_handler(block);
}

}  // namespace tqnlp
