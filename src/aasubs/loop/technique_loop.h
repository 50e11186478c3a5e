// The loop that all gradient-based techniques run through. A technique supplies three steps and the
// record of what its iterations share; the order of starts, restarts, iterations and ends is the
// same in all of them and stands here alone:
//
//   start      derivatives, working set and model at x, the technique's parameters at their first
//              values
//   (once)     the termination test at the start, job TEST_START
//   iterate    one iteration, again and again, each with the termination test, job TEST_ITERATION
//   finish     a run that cannot go on: quantities evaluated once more, the test has the last word
//
// A stop that the termination test overrules (100) starts over at the present x.
#pragma once

#include "aasubs/record/minstr.h"
#include "aasubs/record/stop_codes.h"
#include "aasubs/termination/znlptrm.h"

namespace tqnlp {

// What follows a step of a technique.
enum class Next {
  go_on,        // the next step of the iteration, or the next iteration
  solve_again,  // the same iteration once more from xold, with another ridge or radius
  restart,      // start again at x
  finish,       // end stage with the code in hand
  stop,         // the termination test has spoken: the code in hand is its answer
  leave         // the code in hand is returned as it stands, 100 included
};

// Run holds the state of one run of a technique; its member ij is the code in hand.
template <class Run>
struct TechniqueSteps {
  Next (*start)(MINSTR* str, Run& run);
  Next (*iterate)(MINSTR* str, Run& run);
  int (*finish)(MINSTR* str, Run& run);  // the answer of the termination test
};

// Runs a technique from str->x. Returns the code of the run.
template <class Run>
int technique_loop(MINSTR* str, Run& run, const TechniqueSteps<Run>& steps) {
  bool first = true;
  for (;;) {
    Next next = steps.start(str, run);
    if (next == Next::go_on && first) {
      first = false;
      run.ij = str->uster(str, TEST_START);
      if (run.ij != 0) next = Next::stop;
    }
    while (next == Next::go_on) next = steps.iterate(str, run);
    if (next == Next::finish) run.ij = steps.finish(str, run);
    if (next == Next::leave) return run.ij;
    if (next != Next::restart && run.ij != STOP_OVERRULED) return run.ij;
  }
}

// Restarts that lower nothing would go on for ever: counts those in a row.
struct RestartGuard {
  double crit_at_start = HUGE_VALUE;  // objective at the last start or restart
  int idle = 0;                       // restarts since the objective last fell between two

  // A shift alone may take two dozen of them from its first value to its limit.
  static constexpr int MOST_IDLE = 60;
  bool exhausted() const { return idle > MOST_IDLE; }
};

// Notes a start or restart at x, whose objective is in crit. False: nothing was gained for too
// long.
inline bool restart_makes_progress(const MINSTR* str, RestartGuard& guard) {
  guard.idle = str->crit < guard.crit_at_start ? 0 : guard.idle + 1;
  guard.crit_at_start = str->crit;
  return !guard.exhausted();
}

}  // namespace tqnlp
