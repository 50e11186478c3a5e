// What tests need of the embedded host: planned failures, counters, the private exceptions.
//
// A test plans the failure of the k-th operation of a kind, k = 0, 1, 2 ..., until a run comes
// through without meeting it, and looks after each run whether the answer is the expected one,
// whether the blocks taken were given back, and whether the session still works.
#pragma once

namespace tqnlp {

struct JumpBuffer;
class Session;

namespace embed {

struct Task;

// Thrown by xexit. Session::call turns it into FatalError; without a session it reaches the test.
struct ExitRequest {
  int code;
};

// Thrown by wtresum, caught by the wtguard that made the point.
struct MathResume {
  JumpBuffer* point;
  int code;
};

enum class Fault {
  allocation,      // memory, pools and their blocks, matrix memory, results, variables
  file_operation,  // open, point, read, write, close
  module_call,     // the module is not run, and counts as failed
  report,          // making the delivery object, methods of report objects
};
inline constexpr int fault_kinds = 4;

struct Counters {
  long blocks_taken = 0;  // since the session was made
  long blocks_given = 0;  // by the module itself, since the session was made
  long blocks_left = 0;   // left behind by the last outermost call and the calls within, then freed
  long bytes_left = 0;    // bytes of those
  long files_left = 0;    // work files left open by them
};

// Plans that the k-th (from 0) operation of a kind from now on fails; with onwards, also all after.
void plan_fault(Task& task, Fault kind, long k, bool onwards = false);

// Calls off what is planned.
void clear_faults(Task& task);

// Has a planned fault of this kind still to come?
bool fault_pending(const Task& task, Fault kind);

// Operations of a kind so far, failed ones too.
long operations(const Task& task, Fault kind);

Counters counters(const Task& task);

// Moves the clock of a task ahead.
void advance_clock(Task& task, double seconds);

// The active task of this thread, or the thread's own when no session is active.
Task& current_task();

}  // namespace embed
}  // namespace tqnlp
