// messages: the one table of message texts, and how a text takes its arguments.
//
// The texts of each group stand in a list of their own that is included here, and nowhere else: a
// number, its severity and its wording are written once. Lists may be in any order; the table is
// sorted when it is asked for first, which is safe with threads.
#include "embed/messages.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace tqnlp::embed {

using enum Severity;

#define TQNLP_MESSAGE(number, severity, text) Message{number, severity, text},

// The last entry keeps a list from being empty; it is no message.
static constexpr Message calling_surface[] = {
#include "embed/messages_178.inc"
    {0, note, nullptr}};

static constexpr Message optimization[] = {
#include "embed/messages_549.inc"
    {0, note, nullptr}};

#undef TQNLP_MESSAGE

static std::vector<Message> by_number(std::span<const Message> list) {
  std::vector<Message> sorted(list.begin(), list.end() - 1);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Message& a, const Message& b) { return a.number < b.number; });
  return sorted;
}

std::span<const Message> messages(int group) {
  static const std::vector<Message> surface = by_number(calling_surface);
  static const std::vector<Message> library = by_number(optimization);
  if (group == CALLING_SURFACE) return surface;
  if (group == OPTIMIZATION) return library;
  return {};
}

const Message* find_message(int group, int number) {
  const auto list = messages(group);
  const auto place = std::lower_bound(list.begin(), list.end(), number,
                                      [](const Message& m, int n) { return m.number < n; });
  return place != list.end() && place->number == number ? &*place : nullptr;
}

// to_chars, unlike printf, does not depend on the locale of the program around.
std::string readable(double value) {
  if (is_missing(value)) return ".";
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value < 0 ? "-infinity" : "infinity";
  constexpr double LARGEST_WHOLE = 1e12;  // whole numbers below this are written in full
  constexpr int DIGITS = 8;
  char buffer[48];
  char* const end = buffer + sizeof buffer;
  const bool whole = std::fabs(value) < LARGEST_WHOLE && value == std::floor(value);
  const auto done = whole ? std::to_chars(buffer, end, static_cast<long>(value))
                          : std::to_chars(buffer, end, value, std::chars_format::general, DIGITS);
  return std::string(buffer, done.ptr);
}

static std::string argument_text(const MsgArg& argument) {
  if (const long* count = std::get_if<long>(&argument)) return std::to_string(*count);
  if (const double* number = std::get_if<double>(&argument)) return readable(*number);
  const char* text = std::get<const char*>(argument);
  return text == nullptr ? "" : text;
}

// Braces that are no place are a part of the text.
std::string message_text(int group, int number, MsgArgs args) {
  const Message* message = find_message(group, number);
  if (message == nullptr) {
    std::string text = "message " + std::to_string(group) + "/" + std::to_string(number);
    const char* separator = ": ";
    for (const MsgArg& argument : args) {
      text += separator + argument_text(argument);
      separator = ", ";
    }
    return text;
  }
  std::string text;
  for (const char* p = message->text; *p != '\0';) {
    char* close = nullptr;
    const unsigned long place =
        *p == '{' && p[1] >= '1' && p[1] <= '9' ? std::strtoul(p + 1, &close, 10) : 0;
    if (place == 0 || *close != '}') {
      text += *p++;
      continue;
    }
    // A place whose argument was not given stays visible.
    text += place <= args.size() ? argument_text(args.begin()[place - 1]) : "?";
    p = close + 1;
  }
  return text;
}

}  // namespace tqnlp::embed
