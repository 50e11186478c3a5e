// reports: writers of the last call's log and tables, as aligned text and as JSON.
//
// The module says what stands in a table and in which order; how it looks is decided here, by what
// is in the columns: numbers to the right with their points below one another, texts to the left,
// labels and values two pairs a line, remarks above the rows that they belong to. All numbers are
// written by to_chars, which no locale changes.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "embed/messages.h"
#include "embed/task.h"

namespace tqnlp {

// ---- Numbers of a column ------------------------------------------------------------------------
//
// All numbers of a column are written with the same number of decimals, so that their points stand
// below one another. Numbers for which these decimals are too few, or that are very large, are
// written with an exponent: a history whose objective goes to zero stays readable from its first
// row to its last.

struct NumberForm {
  int decimals = 0;
  double smallest_fixed = 0.0;  // nonzero numbers below are written with an exponent
};

static constexpr double MODERATE_LOW = 1e-4;  // numbers from here
static constexpr double MODERATE_HIGH = 1e7;  // to below this decide on the decimals
static constexpr int LARGE_DIGITS = 7;        // significant digits of the largest number
static constexpr int SMALL_DIGITS = 5;        // at least, of the smallest number
static constexpr int WIDEST_FIXED = 12;       // digits before and after the point
static constexpr int SMALL_DECIMALS = 5;      // of small numbers with an exponent
static constexpr int LARGE_DECIMALS = 6;      // of large ones

// One number of a column. Numbers that are not finite are written as words.
static std::string number_text(double value, const NumberForm& form) {
  if (!std::isfinite(value)) return embed::readable(value);
  const double magnitude = std::fabs(value);
  const bool large = magnitude >= MODERATE_HIGH;
  const bool small = magnitude > 0.0 && magnitude < form.smallest_fixed;
  char buffer[64];
  char* const end = buffer + sizeof buffer;
  if (large || small) {
    const int decimals = large ? LARGE_DECIMALS : SMALL_DECIMALS;
    return std::string(
        buffer, std::to_chars(buffer, end, value, std::chars_format::scientific, decimals).ptr);
  }
  // Adding zero turns -0 into 0.
  return std::string(
      buffer, std::to_chars(buffer, end, value + 0.0, std::chars_format::fixed, form.decimals).ptr);
}

// Decimals that are left when zeros at the end are dropped.
static int needed_decimals(const std::string& text) {
  const std::size_t point = text.find('.');
  if (point == std::string::npos || text.find('e') != std::string::npos) return 0;
  return static_cast<int>(text.find_last_not_of('0') - point);
}

static int decimal_exponent(double value) {
  return static_cast<int>(std::floor(std::log10(std::fabs(value))));
}

// As many decimals as the largest number needs for its digits, more if a small one would lose its
// digits otherwise; then without the zeros that all of them end in.
static NumberForm form_for(const std::vector<double>& values) {
  double largest = 0.0;
  double smallest = MODERATE_HIGH;
  for (const double value : values) {
    const double magnitude = std::fabs(value);
    if (!(magnitude >= MODERATE_LOW && magnitude < MODERATE_HIGH)) continue;  // also what is NaN
    largest = std::max(largest, magnitude);
    smallest = std::min(smallest, magnitude);
  }
  if (largest == 0.0) return {0, MODERATE_LOW};
  const int high = decimal_exponent(largest);
  const int wanted =
      std::max({LARGE_DIGITS - 1 - high, SMALL_DIGITS - 1 - decimal_exponent(smallest), 0});
  const int most = std::min(wanted, WIDEST_FIXED - 1 - std::max(high, 0));
  NumberForm form{most, std::pow(10.0, SMALL_DIGITS - 1 - most)};
  int needed = 0;
  for (const double value : values)
    if (std::isfinite(value)) needed = std::max(needed, needed_decimals(number_text(value, form)));
  form.decimals = needed;
  return form;
}

// ---- Aligned text -------------------------------------------------------------------------------

// Columns on the screen that a text takes: bytes that continue a UTF-8 character take none.
static std::size_t width_of(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

static std::string padded(const std::string& text, std::size_t width, bool right) {
  const std::size_t taken = width_of(text);
  const std::string blanks(width > taken ? width - taken : 0, ' ');
  return right ? blanks + text : text + blanks;
}

static void end_line(std::string& text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  text += '\n';
}

// A text as a part of one line.
static std::string one_line(std::string text) {
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ') c = ' ';
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// A column that holds a remark for the rows below rather than a value of each row.
static bool is_remark(const std::string& column) { return column.starts_with("TitleText"); }

// Parts of a written restriction; their names would only be in the way.
static bool is_punctuation(const std::string& column) {
  return column == "Colon" || column == "Sign" || column == "Asterisk" || column == "Relation";
}

// A cell of a row; a row that is too short ends in empty cells.
static const Cell& cell_at(const std::vector<Cell>& row, std::size_t k) {
  static const Cell empty;
  return k < row.size() ? row[k] : empty;
}

struct TextColumn {
  std::string header;
  std::vector<std::string> cells;
  std::size_t width = 0;
  bool right = false;
};

// The cells of a column as texts, all in one form.
static TextColumn text_column(const Table& table, std::size_t k) {
  TextColumn column;
  std::vector<double> numbers;
  for (const auto& row : table.rows) {
    const Cell& value = cell_at(row, k);
    if (const double* number = std::get_if<double>(&value)) numbers.push_back(*number);
    column.right = column.right || std::holds_alternative<double>(value) ||
                   std::holds_alternative<long>(value);
  }
  const NumberForm form = form_for(numbers);
  if (!is_punctuation(table.columns[k])) column.header = one_line(table.columns[k]);
  column.width = width_of(column.header);
  for (const auto& row : table.rows) {
    const Cell& value = cell_at(row, k);
    std::string cell;
    if (const double* number = std::get_if<double>(&value)) cell = number_text(*number, form);
    if (const long* count = std::get_if<long>(&value)) cell = std::to_string(*count);
    if (const auto* text = std::get_if<std::string>(&value)) cell = one_line(*text);
    column.width = std::max(column.width, width_of(cell));
    column.cells.push_back(std::move(cell));
  }
  return column;
}

// Columns with a header. A remark that changes is written above its rows, and the header again.
static void write_rows(std::string& text, const Table& table) {
  std::vector<TextColumn> columns;
  std::vector<std::size_t> remarks;
  for (std::size_t k = 0; k < table.columns.size(); ++k) {
    if (is_remark(table.columns[k]))
      remarks.push_back(k);
    else
      columns.push_back(text_column(table, k));
  }
  std::string header, rule;
  for (const TextColumn& column : columns) {
    header += "  " + padded(column.header, column.width, column.right);
    rule += "  " + std::string(column.width, column.header.empty() ? ' ' : '-');
  }
  std::string remark;
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    std::string here;
    for (const std::size_t k : remarks)
      if (const auto* words = std::get_if<std::string>(&cell_at(table.rows[i], k)))
        here += (here.empty() ? "" : " ") + one_line(*words);
    const bool new_remark = here != remark && !here.empty();
    if (new_remark) text += (i > 0 ? "\n  " : "  ") + here + "\n";
    remark = here;
    if (i == 0 || new_remark) {
      text += header;
      end_line(text);
      text += rule;
      end_line(text);
    }
    for (const TextColumn& column : columns)
      text += "  " + padded(column.cells[i], column.width, column.right);
    end_line(text);
  }
}

static bool is_pairs_table(const Table& table) {
  return table.columns.size() == 2 && table.columns[0] == "Label" && table.columns[1] == "Value";
}

// A cell that stands by itself, in a form of its own.
static std::string single_text(const Cell& cell) {
  if (const double* number = std::get_if<double>(&cell)) return embed::readable(*number);
  if (const long* count = std::get_if<long>(&cell)) return std::to_string(*count);
  if (const auto* text = std::get_if<std::string>(&cell)) return one_line(*text);
  return ".";
}

// Labels and values, two pairs a line as long as lines stay short.
static void write_pairs(std::string& text, const Table& table) {
  constexpr std::size_t LONGEST_LINE = 100;
  std::size_t label_width[2] = {0, 0}, value_width[2] = {0, 0};
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    label_width[i % 2] =
        std::max(label_width[i % 2], width_of(single_text(cell_at(table.rows[i], 0))));
    value_width[i % 2] =
        std::max(value_width[i % 2], width_of(single_text(cell_at(table.rows[i], 1))));
  }
  const std::size_t line = label_width[0] + value_width[0] + label_width[1] + value_width[1] + 10;
  const std::size_t across = line <= LONGEST_LINE && table.rows.size() > 1 ? 2 : 1;
  if (across == 1) {
    label_width[0] = std::max(label_width[0], label_width[1]);
    value_width[0] = std::max(value_width[0], value_width[1]);
  }
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    const std::size_t side = i % across;
    text += (side == 0 ? "  " : "    ") +
            padded(single_text(cell_at(table.rows[i], 0)), label_width[side], false);
    text += "  " + padded(single_text(cell_at(table.rows[i], 1)), value_width[side], true);
    if (side + 1 == across || i + 1 == table.rows.size()) end_line(text);
  }
}

std::string text_table(const Table& table) {
  std::string text = one_line(table.title.empty() ? table.name : table.title) + "\n\n";
  if (is_pairs_table(table))
    write_pairs(text, table);
  else
    write_rows(text, table);
  return text;
}

static const char* severity_mark(Severity severity) {
  switch (severity) {
    case Severity::error:
      return "ERROR: ";
    case Severity::warning:
      return "WARNING: ";
    default:
      return "NOTE: ";
  }
}

// Does the log hold this numbered message too? Then the report tells it once.
static bool is_in_log(const embed::Task& task, const LogRecord& printed) {
  return printed.group != 0 &&
         std::any_of(task.log.begin(), task.log.end(), [&printed](const LogRecord& line) {
           return line.group == printed.group && line.number == printed.number &&
                  line.text == printed.text;
         });
}

std::string text_report(const Session& session) {
  const embed::Task& task = session.task();
  std::string text;
  // Literal lines are written as they are.
  for (const LogRecord& line : task.log) {
    const bool literal = line.group == 0 && line.severity == Severity::note;
    text += (literal ? "" : severity_mark(line.severity)) + line.text;
    end_line(text);
  }
  std::size_t next = 0;
  for (std::size_t k = 0; k <= task.tables.size(); ++k) {
    for (; next < task.printed.size() && task.printed_after[next] == k; ++next) {
      if (is_in_log(task, task.printed[next])) continue;
      text += task.printed[next].text;
      end_line(text);
    }
    if (k == task.tables.size()) break;
    if (task.tables[k].rows.empty()) continue;  // opened, and closed before its first row
    if (!text.empty()) text += "\n";
    text += text_table(task.tables[k]);
  }
  return text;
}

// ---- JSON ---------------------------------------------------------------------------------------

// Length of the UTF-8 character at the head of text, 0 when there is none. Overlong forms,
// surrogates and values beyond U+10FFFF are none.
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

// Numbers in the shortest form that reads back to the same bits.
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
         ",\n    \"rows\": " + json_list(table.rows, ",\n      ", row) + "}";
}

static std::string json_record(const LogRecord& line) {
  constexpr const char* NAMES[] = {"note", "warning", "error"};
  return "{\"group\": " + std::to_string(line.group) +
         ", \"number\": " + std::to_string(line.number) + ", \"severity\": \"" +
         NAMES[static_cast<int>(line.severity)] + "\", \"text\": " + json_text(line.text) + "}";
}

std::string json_report(const Session& session) {
  const embed::Task& task = session.task();
  return "{\n  \"log\": " + json_list(task.log, ",\n    ", json_record) +
         ",\n  \"printed\": " + json_list(task.printed, ",\n    ", json_record) +
         ",\n  \"tables\": " + json_list(task.tables, ",\n    ", json_table) + "\n}\n";
}

}  // namespace tqnlp
