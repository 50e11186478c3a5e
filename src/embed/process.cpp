// process: the end of a call that cannot go on, points to resume at, debug options, the clock.
//
// Both ways out are private exceptions: the module below has no clean-up of its own that could be
// passed over, for all that it takes belongs to the call's frame.
#include "host/process.h"

#include <chrono>

#include "embed/task.h"
#include "host/log.h"

namespace tqnlp {

void xexit(int code, int) { throw embed::ExitRequest{code}; }

struct JumpBuffer {
  char place;  // only the address matters
};

// A guard answers for its own point only: a resume further out passes through, and each guard on
// the way puts its outer point back.
int wtguard(JumpBuffer** point, int (*body)(MINSTR* str), MINSTR* str) {
  // Puts the outer point back on every way out.
  struct Guard {
    JumpBuffer** point;
    JumpBuffer* outer;
    JumpBuffer here;
    explicit Guard(JumpBuffer** p) : point(p), outer(*p), here{} { *point = &here; }
    ~Guard() { *point = outer; }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
  } guard(point);
  try {
    return body(str);
  } catch (const embed::MathResume& resume) {
    if (resume.point != &guard.here) throw;
    return resume.code;
  }
}

// Nowhere to resume at: the call cannot go on.
void wtresum(JumpBuffer* point, int code) {
  if (point == nullptr) xexit(EXIT_INCONSISTENT, 0);
  throw embed::MathResume{point, code};
}

int zbugi(const char* name) {
  const auto& options = embed::current_task().debug_options;
  const auto place = options.find(name);
  return place == options.end() ? 0 : place->second;
}

// A steady clock: a limit of time must not be met because somebody set the wall clock.
double zdattim() {
  using Seconds = std::chrono::duration<double>;
  return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count() +
         embed::current_task().clock_ahead;
}

}  // namespace tqnlp
