// The table of message texts, and the forms in which numbers stand in texts.
#pragma once

#include <span>
#include <string>

#include "host/log.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::embed {

struct Message {
  int number;
  Severity severity;
  const char* text;  // with places {1}, {2} ... for the arguments in order
};

// All messages of a group, by rising number; empty for a group that is not known.
std::span<const Message> messages(int group);

// The message, or null when there is no such text.
const Message* find_message(int group, int number);

// The text with its arguments in their places; without a text "message 549/123: " and the
// arguments, so that nothing is lost.
std::string message_text(int group, int number, MsgArgs args);

// A number for reading: up to 8 significant digits, whole numbers in full, "." for the missing
// value. Independent of the locale.
std::string readable(double value);

}  // namespace tqnlp::embed
