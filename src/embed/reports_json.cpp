// reports as JSON: the log, the printed lines, the tables and the work of the last call.
//
// Numbers are written in the shortest form that reads back to the same bits; those that JSON lacks
// and empty cells are null. The text is always valid UTF-8, whatever bytes the texts hold.
//
//   {"log":     [{"group", "number", "severity", "text"} ...],
//    "printed": [the same ...],
//    "tables":  [{"name", "template", "title", "columns": [...], "continued",
//                 "rows": [[cell ...] ...]} ...],
//    "work":    {"modules": [{"name", "calls", "failed", "seconds"} ...],
//                "seconds_in_sink", "seconds_in_library"}}
//
// "continued" stands only where it is true: the rows go on those of an earlier table of the name.
// The text is put together by hand: a cell has three forms, and the shape above is all there is.
// Line breaks fall between tables, rows and records, so that a report can be read and compared by
// lines.
#include <charconv>
#include <cmath>
#include <string_view>

#include "embed/task.h"

namespace tqnlp {

// Length of the UTF-8 character at the head of text, 0 when there is none. Overlong forms,
// surrogates and values beyond U+10FFFF are none: parsers of JSON refuse them.
static std::size_t utf8_length(std::string_view text) {
  const auto byte = [text](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned lead = byte(0);
  const std::size_t length = lead < 0x80                    ? 1
                             : lead >= 0xC2 && lead <= 0xDF ? 2
                             : (lead & 0xF0) == 0xE0        ? 3
                             : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                            : 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((byte(i) & 0xC0) != 0x80) return 0;
  // The lead byte alone does not tell these forms; the second byte does.
  const bool bad_second = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) > 0x9F) ||
                          (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) > 0x8F);
  return bad_second ? 0 : length;
}

// A text as a JSON string: quotes, backslashes and control characters escaped, always valid UTF-8.
static std::string json_text(std::string_view text) {
  constexpr const char* HEX = "0123456789abcdef";
  std::string out = "\"";
  while (!text.empty()) {
    const char c = text.front();
    std::size_t length = 1;
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (static_cast<unsigned char>(c) < ' ') {
      out += "\\u00";
      out += HEX[c >> 4];
      out += HEX[c & 15];
    } else if ((length = utf8_length(text)) > 0) {
      out += text.substr(0, length);
    } else {  // a byte that is no text: the replacement character
      out += "\xEF\xBF\xBD";
      length = 1;
    }
    text.remove_prefix(length);
  }
  return out + '"';
}

// A number, a count, a text or null. to_chars does not look at the locale, whose decimal comma
// would break the form.
static std::string json_cell(const Cell& cell) {
  if (const long* count = std::get_if<long>(&cell)) return std::to_string(*count);
  if (const auto* text = std::get_if<std::string>(&cell)) return json_text(*text);
  const double* number = std::get_if<double>(&cell);
  if (number == nullptr || !std::isfinite(*number)) return "null";
  char buffer[40];
  return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, *number).ptr);
}

// [item, item ...], each written by write.
template <class List, class Write>
static std::string json_list(const List& list, const char* separator, Write write) {
  std::string out = "[";
  const char* before = "";
  for (const auto& item : list) {
    out += before + write(item);
    before = separator;
  }
  return out + "]";
}

std::string json_table(const Table& table) {
  const auto row = [](const std::vector<Cell>& cells) { return json_list(cells, ", ", json_cell); };
  return "{\"name\": " + json_text(table.name) +
         ", \"template\": " + json_text(table.template_name) +
         ", \"title\": " + json_text(table.title) +
         ",\n    \"columns\": " + json_list(table.columns, ", ", json_text) +
         (table.continued ? ", \"continued\": true" : "") +
         ",\n    \"rows\": " + json_list(table.rows, ",\n      ", row) + "}";
}

static std::string json_record(const LogRecord& line) {
  constexpr const char* NAMES[] = {"note", "warning", "error"};
  return "{\"group\": " + std::to_string(line.group) +
         ", \"number\": " + std::to_string(line.number) + ", \"severity\": \"" +
         NAMES[static_cast<int>(line.severity)] + "\", \"text\": " + json_text(line.text) + "}";
}

static std::string json_module(const ModuleWork& module) {
  return "{\"name\": " + json_text(module.name) + ", \"calls\": " + std::to_string(module.calls) +
         ", \"failed\": " + std::to_string(module.failed) +
         ", \"seconds\": " + json_cell(module.seconds) + "}";
}

static std::string json_work(const Work& work) {
  return "{\"modules\": " + json_list(work.modules, ",\n    ", json_module) +
         ",\n    \"seconds_in_sink\": " + json_cell(work.seconds_in_sink) +
         ", \"seconds_in_library\": " + json_cell(work.seconds_in_library) + "}";
}

std::string json_report(const Session& session) {
  const embed::Task& task = session.task();
  return "{\n  \"log\": " + json_list(task.log, ",\n    ", json_record) +
         ",\n  \"printed\": " + json_list(task.printed, ",\n    ", json_record) +
         ",\n  \"tables\": " + json_list(task.tables, ",\n    ", json_table) +
         ",\n  \"work\": " + json_work(session.work()) + "\n}\n";
}

}  // namespace tqnlp
