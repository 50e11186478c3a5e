// znlpfea: FEAsible start for bounds and linear constraints.
//
// The start is disturbed as little as possible: as given; clipped to the bounds; moved to a near
// point; or accepted with a feasibility tolerance that is widened by powers of ten (ipre). A near
// point is sought by two methods in turn:
//
//   znlpfe2  the point of least distance, by the dual active-set method (znlpfea_distance.cpp),
//            at up to three widths of the tolerance
//   znlpfe1  phase one: descent on the sum of infeasibilities (znlpfea_phase1.cpp)
//
// Both share the equalities and the residuals (znlpfea_equalities.cpp).
//
// Work: xold the point of entry, gold and grad points and gradients of the methods, sdir steps. In
// a run without a frame (opro 0) lagm, gpro, dcds, qlcn and llcn are taken from a pool for the
// call.
#include "aasubs/constraints/znlpfea.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "host/memory.h"
#include "host/process.h"

namespace tqnlp {

static constexpr double DEFAULT_TOLERANCE = 1e-8;
static constexpr double WIDEST_TOLERANCE = 0.001;
static constexpr int WIDTHS = 4;           // least-distance trials widen ipre up to below this
static constexpr int DISTANCE_TRIALS = 2;  // trials beyond this one go to phase one
static constexpr int TO_PHASE_ONE = 5;

// ---- Working set to start from ----------------------------------------------------------------

// Leaves fixed parameters and the equalities of iact (they stand first) in the working set:
// violated inequalities are for the methods to choose from.
static void keep_equalities(MINSTR* str) {
  keep_fixed_bounds(str);
  str->nalc = std::min(str->nalc, str->neqc);
  str->nldc = 0;
  str->nlbc = 0;
}

// Puts the first violated constraint into an empty working set, bounds before rows and lower before
// upper. Returns whether there was one; values that are no numbers count as violated.
static bool plant_seed(MINSTR* str) {
  const long n = str->nvar;
  const double eps = feasibility_tolerance(str, str->ipre);
  const auto violated = [&](long c) {
    return !(constraint_residual(str, c) >= -residual_tolerance(constraint_side(str, c), eps));
  };
  for (long j = 0; str->bounds != 0 && j < n; ++j) {
    for (const long c : {j, n + j}) {
      if (!violated(c)) continue;
      str->iabc[j] = c < n ? 1 : -1;
      str->nabc = 1;
      return true;
    }
  }
  for (long i = 0; i < str->ncon; ++i) {
    if (!violated(2 * n + i)) continue;
    str->iact[0] = i;
    str->nalc = 1;
    return true;
  }
  return false;
}

// Solves for a feasible point near x; bjob is the job of the clipping between two trials. Returns 0
// or -1. ipre is only widened for the trials: how wide it must be for the point found is the
// caller's to test.
static int feasol(MINSTR* str, int job, int bjob) {
  const int entry_width = str->ipre;
  int trial = 0;
  int status = -1;
  // At most four passes: trials 0, 1, 2, and the last one in phase one.
  for (;;) {
    keep_equalities(str);
    if (str->nabc + str->nalc == 0 && !plant_seed(str)) xexit(EXIT_INCONSISTENT, 0);
    if (trial > DISTANCE_TRIALS) {
      str->ipre = entry_width;
      status = znlpfe1(str, job, -1) == 0 ? 0 : -1;
      break;
    }
    status = znlpfe2(str, job, -1) == 0 ? 0 : -1;
    if (status == 0) break;

    if (trial == 0) std::copy_n(str->xold, str->nvar, str->x);
    if (str->ipre + 1 < WIDTHS) {
      ++str->ipre;
      ++trial;
    } else {
      trial = TO_PHASE_ONE;
      str->ipre = entry_width;
    }
    // The wider tolerance, or the clipping, may be all that was missing.
    znlpfch(str, 1, 0, str->ipre);
    if (str->bounds != 0) znlpfbc(str, bjob);
    if (znlpfch(str, 1, 0, str->ipre) == 0) {
      status = 0;
      break;
    }
  }
  str->ipre = entry_width;
  return status;
}

// ---- Frame of the call ------------------------------------------------------------------------

// Arrays and switches of the record that the solve replaces, as they were.
struct SavedFrame {
  MemPool* pool;
  int opro;
  int nlicon;
  double* lagm;
  double* gpro;
  double* dcds;
  double* qlcn;
  double* llcn;
};

static double* pool_doubles(SavedFrame& saved, long count) {
  return static_cast<double*>(
      xmemdef(saved.pool, static_cast<std::size_t>(count) * sizeof(double)));
}

static void release_frame(MINSTR* str, const SavedFrame& saved) {
  str->opro = saved.opro;
  str->nlicon = saved.nlicon;
  str->lagm = saved.lagm;
  str->gpro = saved.gpro;
  str->dcds = saved.dcds;
  str->qlcn = saved.qlcn;
  str->llcn = saved.llcn;
  xmpoold(saved.pool);
}

// Makes the frame for the solve. A run without one (opro 0) gets its arrays from a pool and works
// in the null-space frame for the length of the call. Nonlinear constraints take no part. Returns
// whether the memory was granted; otherwise nothing has changed.
static bool make_frame(MINSTR* str, SavedFrame& saved) {
  saved = {nullptr, str->opro, str->nlicon, str->lagm, str->gpro, str->dcds, str->qlcn, str->llcn};
  str->nlicon = 0;
  if (str->opro != 0) return true;

  const long n = str->nvar;
  const long total = 4 * n + n * n + str->nnva;
  saved.pool = xmpoolc(static_cast<std::size_t>(total) * sizeof(double));
  if (saved.pool != nullptr) {
    str->opro = 1;
    str->lagm = pool_doubles(saved, n);
    str->gpro = pool_doubles(saved, n);
    str->dcds = pool_doubles(saved, 2 * n);
    str->qlcn = pool_doubles(saved, n * n);
    str->llcn = pool_doubles(saved, str->nnva);
    if (str->lagm != nullptr && str->gpro != nullptr && str->dcds != nullptr &&
        str->qlcn != nullptr && str->llcn != nullptr) {
      return true;
    }
  }
  release_frame(str, saved);
  xmemmsg(static_cast<std::size_t>(total) * sizeof(double));
  return false;
}

// ---- The road of a call -----------------------------------------------------------------------

// Feasibility test that notes the active constraints afresh: statuses of bounds that x has left
// would otherwise stay.
static int note_active(MINSTR* str) {
  keep_fixed_bounds(str);
  str->nldc = 0;
  str->nlbc = 0;
  return znlpfch(str, 1, 0, str->ipre);
}

int znlpfea(MINSTR* str, int job) {
  if (str->bounds == 0 && str->lincon == 0) return 0;
  if (str->opro == 2) xexit(EXIT_INCONSISTENT, 0);
  const int bjob = job < 0 ? 0 : job;
  str->nabc = 0;
  str->nalc = 0;
  str->ipre = 0;
  if (note_active(str) == 0) return 0;
  std::copy_n(str->x, str->nvar, str->xold);

  if (str->bounds != 0) {
    str->nabc = znlpfbc(str, bjob);
    if (znlpfch(str, 1, 0, str->ipre) == 0) return 1;
  }
  if (str->lincon != 0) {
    SavedFrame saved;
    if (!make_frame(str, saved)) {
      std::copy_n(str->xold, str->nvar, str->x);
      return -1;
    }
    const int status = feasol(str, std::abs(job), bjob);
    release_frame(str, saved);
    if (status != 0) {
      std::copy_n(str->xold, str->nvar, str->x);
      return -2;
    }
    if (note_active(str) == 0) return 2;
  }

  double eps = wzmis(str->ceps) ? DEFAULT_TOLERANCE : str->ceps;
  do {
    ++str->ipre;
    if (note_active(str) >= 0) return 3;
    eps *= 10.0;
  } while (eps < WIDEST_TOLERANCE);
  std::copy_n(str->xold, str->nvar, str->x);
  return -2;
}

}  // namespace tqnlp
