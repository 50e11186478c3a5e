// Host services: the end of a call that cannot go on, resuming after a math error, debug options.
#pragma once

namespace tqnlp {

struct MINSTR;
struct JumpBuffer;  // a point to resume at; a type of the host

// Exit codes of xexit.
inline constexpr int EXIT_NO_MEMORY = 1016;     // no memory for the subroutine table
inline constexpr int EXIT_WORK_FILE = 1020;     // a utility file failed
inline constexpr int EXIT_INCONSISTENT = 9999;  // inconsistent counts or an unknown job

// Ends the call at once (in the embedded host: the call, never the caller's process).
[[noreturn]] void xexit(int code, int flags);

// Runs body(str) with a resume point: *point is set to it while body runs and put back after.
// Returns what body returned, or the code given to wtresum for this point.
int wtguard(JumpBuffer** point, int (*body)(MINSTR* str), MINSTR* str);

// Resumes at a point that wtguard made; wtguard answers code.
[[noreturn]] void wtresum(JumpBuffer* point, int code);

// A trapped math error, as the host hands it to znlpmer.
struct WTSIGHDR {
  int eventno;         // number of the event
  int size;            // bytes of the whole record
  const char* caller;  // routine that ran, or null
  int rc;              // the host's own code
};
struct WTMTHERR {
  WTSIGHDR header;
  int type;  // 1 domain, 2 singular, 3 and 12 overflow, 4 and 11 underflow, 5 and 6 precision loss,
             // 13 division by zero, 14 and 15 bad number
};

// Value of a debug option such as "-nlpitermsg"; 0 when it is not set.
int zbugi(const char* name);

}  // namespace tqnlp
