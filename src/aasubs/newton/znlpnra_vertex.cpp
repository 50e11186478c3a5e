// znlpprj: turns a Newton step that a constraint cuts to nothing.
//
// Method     Newton and steepest descent directions bound an angle; halving it again and again
// leads
//            from the one to the other, and the first direction along which the constraints leave
//            no more room than along the one before ends the search. All directions are in the free
//            subspace and descend.
#include "aasubs/newton/znlpnra_vertex.h"

#include <algorithm>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/loop/loads.h"
#include "kernels/vector.h"

namespace tqnlp {

// Cosines between step and gradient.
static constexpr double STEEPEST = -0.99;        // the step is steepest descent as it is
static constexpr double NEARLY_STEEPEST = -0.9;  // a half angle more would not tell them apart
static constexpr int MOST_TURNS = 60;            // the angle has then vanished

// A direction d of some length, in the space where the step lives; the gradient there is in work.
struct Turn {
  long order;
  double* d;        // sdir, or spro with linear constraints
  const double* w;  // free gradient
  double* best;     // the direction with the longest step so far
  double limit;     // and that step
};

static double cosine(const Turn& turn) {
  const double lengths = zvenorm(turn.order, 1, turn.w) * zvenorm(turn.order, 1, turn.d);
  return lengths > TINY ? dotprd(turn.order, turn.w, turn.d) / lengths : STEEPEST - 1.0;
}

static void expand(MINSTR* str) {
  if (str->lincon != 0) znlpvex(str, str->spro, str->sdir);
}

// Step limit along d; true when it is longer than the best one, which it then replaces.
static bool allows_more(MINSTR* str, Turn& turn) {
  long blocking = -1;
  expand(str);
  znlpstl(str, 0, 1, 0, str->xold, str->sdir, &blocking, nullptr);
  if (!(str->stub > turn.limit)) return false;
  turn.limit = str->stub;
  std::copy_n(turn.d, turn.order, turn.best);
  return true;
}

static bool try_steepest_descent(MINSTR* str, Turn& turn) {
  zvz111(turn.order, turn.d, -1.0, turn.w);
  return allows_more(str, turn);
}

static void halve_angle(Turn& turn) {
  const double to_d = 0.5 / zvenorm(turn.order, 1, turn.d);
  const double to_w = 0.5 / zvenorm(turn.order, 1, turn.w);
  for (long k = 0; k < turn.order; ++k) turn.d[k] = to_d * turn.d[k] - to_w * turn.w[k];
}

static Turn begin_turn(MINSTR* str) {
  const long n = str->nvar;
  if (str->lincon != 0) {
    return {reduced_dimension(str), str->spro, str->gpro, str->gold, str->stub};
  }
  for (long j = 0; j < n; ++j) str->work[j] = str->iabc[j] == 0 ? str->grad[j] : 0.0;
  return {n, str->sdir, str->work, str->gold, str->stub};
}

int znlpprj(MINSTR* str) {
  if (str->opro == 2 || !has_constraints(str)) return 0;
  Turn turn = begin_turn(str);
  std::copy_n(turn.d, turn.order, turn.best);
  int result = 0;
  for (int pass = 0; pass < MOST_TURNS; ++pass) {
    const double c = cosine(turn);
    if (!(c >= STEEPEST)) break;
    if (c < NEARLY_STEEPEST) {
      if (try_steepest_descent(str, turn)) result = 1;
      break;
    }
    halve_angle(turn);
    if (!allows_more(str, turn)) break;
    result = 2;
  }
  std::copy_n(turn.best, turn.order, turn.d);
  expand(str);
  str->stub = turn.limit;
  return result;
}

}  // namespace tqnlp
