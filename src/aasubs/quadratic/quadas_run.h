// What the two forms of QUADAS (znlpqas, znlpqar) share: the state of a run, the rules by which
// changes of the working set in place come to an end, the ratio test, the end at a solution.
#pragma once

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/members.h"
#include "aasubs/loop/technique_loop.h"

namespace tqnlp {

inline constexpr double NEGLIGIBLE_STEP = 1e-14;  // of the size of a parameter
inline constexpr double ENOUGH_DECREASE = 1e-4;   // of the slope, along a bent step
inline constexpr int MOST_REFINEMENTS = 2;        // full steps on one working set

struct QuadasRun {
  int ij = 0;               // code in hand
  double value_size = 0.0;  // of what the objective is the sum of
  int full_steps = 0;       // to the minimizer, on this working set
  bool restored = false;    // were the members satisfied exactly on this working set?
  long idle = 0;            // changes of the working set since x moved
  bool untested = false;    // has the termination test not yet looked at x as a solution?
  unsigned lots = 1;
  RestartGuard guard;
};

// Many changes in place: not the best candidate leaves and enters, but any. The rule by which a
// cycle goes round is broken then, and with it the cycle.
bool cycling(const MINSTR* str, const QuadasRun& run);

// How much a candidate is worth then.
double lot(QuadasRun& run);

// So many changes in place that no end is to be hoped for.
bool exhausted(const MINSTR* str, const QuadasRun& run);

double value_rounding(const MINSTR* str, const QuadasRun& run);

// Nothing moves and nothing wants to leave: only the tolerances are left to say so. Asked again,
// the test compares x with itself; if not even that ends the run, nothing will.
Next at_solution(MINSTR* str, QuadasRun& run);

// One constraint outside the working set that the direction approaches.
struct Approach {
  Member m;
  double slope;      // n'd, negative
  double steepness;  // against the length of n
  double residual;
  double tolerance;
};

// Ratio test: the largest step up to `longest` in stub, and the constraint that stops it (ic -1:
// none). Of those met within a tolerance the one that the direction meets most steeply: a vertex of
// nearly dependent constraints then keeps the working set well conditioned. One that is violated by
// its tolerance already lets nothing pass, so that the violations do not add up. visit_all calls
// its argument for every Approach, each time in the same order.
template <class VisitAll>
Member ratio_test(MINSTR* str, QuadasRun& run, double longest, VisitAll visit_all) {
  double reach = longest;
  visit_all([&reach](const Approach& a) {
    reach = std::min(reach, std::max(a.residual + a.tolerance, 0.0) / -a.slope);
  });
  Member met;
  double highest = 0.0;
  str->stub = longest;
  if (!(reach < longest)) return met;
  visit_all([&](const Approach& a) {
    const double step = std::max(a.residual, 0.0) / -a.slope;
    if (step > reach) return;
    const double worth = cycling(str, run) ? lot(run) : a.steepness;
    if (worth <= highest) return;
    met = a.m;
    highest = worth;
    str->stub = step;
  });
  return met;
}

}  // namespace tqnlp
