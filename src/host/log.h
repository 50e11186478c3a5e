// Host services: numbered messages and literal lines of the log, and the clock.
//
// A message is known by group and number; its text, with places for the arguments in order, lies
// with the host. Group 178 belongs to the calling surface, group 549 to the optimization code.
#pragma once

#include <initializer_list>
#include <variant>

namespace tqnlp {

inline constexpr int CALLING_SURFACE = 178;
inline constexpr int OPTIMIZATION = 549;

// An argument of a message: a count, a number, or a text that is valid during the call.
using MsgArg = std::variant<long, double, const char*>;
using MsgArgs = std::initializer_list<MsgArg>;

// Writes a numbered message to the log.
void xpmlog(int group, int number, MsgArgs args = {});

// Writes a numbered message to the print file (the report of the call).
void xpmout(int group, int number, MsgArgs args = {});

// Puts the text of a message into buffer (length bytes with the closing zero; longer texts are
// cut). Returns the length of the text put there.
long xpmstr(char* buffer, long length, int group, int number, MsgArgs args = {});

// Writes a literal line to the log, or to the print file; format as of printf.
[[gnu::format(printf, 1, 2)]] void xpslog(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void xpsout(const char* format, ...);

// Writes to the log that a host service answered rc.
void xprrlog(int flags, int rc);

// Builds a name from a prefix and a number: znamfix(to, 8, "X", 12) gives "X12". length counts the
// bytes of to with the closing zero. Returns the length of the name.
long znamfix(char* to, long length, const char* prefix, long number);

// The clock, in seconds from an origin of the host's.
double zdattim();

}  // namespace tqnlp
