// log: numbered messages and literal lines, in the log of the task or in its report.
//
// The log is a list of records, so that a program can ask for group and number instead of searching
// in texts. The report of a call consists of its tables; lines that are printed between them
// remember how many tables stood before, and the writers put them back into their place.
#include "host/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "embed/messages.h"
#include "embed/task.h"

namespace tqnlp {

using embed::Task;

static void add_printed(Task& task, LogRecord record) {
  task.printed.push_back(record);
  task.printed_after.push_back(task.tables.size());
  embed::give_printed_line(task, record);
}

// A message without a text is at least a warning, so that it shows where only those are shown.
static LogRecord numbered(int group, int number, MsgArgs args) {
  const embed::Message* message = embed::find_message(group, number);
  return {group, number, message == nullptr ? Severity::warning : message->severity,
          embed::message_text(group, number, args)};
}

// When a module or the sink has thrown, no module is run any more. What the techniques then say of
// modules that fail is no news, and would accuse the wrong one: the end of the call names the
// cause.
void xpmlog(int group, int number, MsgArgs args) {
  Task& task = embed::current_task();
  LogRecord line = numbered(group, number, args);
  if (task.frame().thrown != nullptr && line.severity != Severity::note) return;
  embed::add_log(task, std::move(line));
}

void xpmout(int group, int number, MsgArgs args) {
  add_printed(embed::current_task(), numbered(group, number, args));
}

// Copies a text into a buffer of length bytes with the closing zero; what does not fit is cut.
static long put_text(char* buffer, long length, const std::string& text) {
  if (length <= 0) return 0;
  const auto count = std::min(text.size(), static_cast<std::size_t>(length - 1));
  std::memcpy(buffer, text.data(), count);
  buffer[count] = '\0';
  return static_cast<long>(count);
}

long xpmstr(char* buffer, long length, int group, int number, MsgArgs args) {
  return put_text(buffer, length, embed::message_text(group, number, args));
}

// The text of a format as of printf, of any length.
[[gnu::format(printf, 1, 0)]] static std::string formatted(const char* format, va_list list) {
  va_list again;
  va_copy(again, list);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return format;  // a format that cannot be followed is shown as it is
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, list);
  text.pop_back();
  return text;
}

void xpslog(const char* format, ...) {
  va_list list;
  va_start(list, format);
  std::string text = formatted(format, list);
  va_end(list);
  embed::add_log(embed::current_task(), 0, 0, Severity::note, std::move(text));
}

void xpsout(const char* format, ...) {
  va_list list;
  va_start(list, format);
  std::string text = formatted(format, list);
  va_end(list);
  add_printed(embed::current_task(), {0, 0, Severity::note, std::move(text)});
}

void xprrlog(int, int rc) {
  // Codes of host services are bit patterns more often than counts: both forms are shown.
  char text[64];
  std::snprintf(text, sizeof text, "A service of the host answered %d (0x%08X).", rc,
                static_cast<unsigned>(rc));
  embed::add_log(embed::current_task(), 0, 0, Severity::error, text);
}

long znamfix(char* to, long length, const char* prefix, long number) {
  return put_text(to, length, prefix + std::to_string(number));
}

}  // namespace tqnlp
