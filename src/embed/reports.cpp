// reports: the last call's log and tables as aligned text.
//
// The module says what stands in a table and in which order; how it looks is decided here, by what
// is in the columns: numbers to the right with their points below one another, texts to the left,
// labels and values two pairs a line, remarks above the rows that they belong to. All numbers are
// written by to_chars, which no locale changes and which is exact on every machine.
//
// The iteration history is written in another way, since it is also shown while it grows (see
// stream.cpp): its columns have fixed forms that do not depend on the rows to come.
#include "embed/reports.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "embed/messages.h"

namespace tqnlp {

// ---- Numbers ------------------------------------------------------------------------------------

static std::string formatted(double value, std::chars_format format, int precision) {
  char buffer[400];  // room for the largest number with all its digits
  return std::string(
      buffer, std::to_chars(buffer, buffer + sizeof buffer, value + 0.0, format, precision).ptr);
}  // adding zero turns -0 into 0

static std::string scientific(double value, int decimals) {
  return formatted(value, std::chars_format::scientific, decimals);
}

namespace embed {

std::string fixed_text(double value, int decimals) {
  if (!std::isfinite(value)) return readable(value);
  return formatted(value, std::chars_format::fixed, decimals);
}

}  // namespace embed

// Exponent of the leading digit, and 10 to a power, by the digits: library functions may be off by
// a rounding where these must be exact.
static int decimal_exponent(double value) {
  const std::string text = scientific(value, 16);
  return std::atoi(text.c_str() + text.find('e') + 1);
}

static double power_of_ten(int exponent) {
  const std::string text = "1e" + std::to_string(exponent);
  double value = 0.0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// ---- Numbers of a column ------------------------------------------------------------------------
//
// All numbers of a column are written with the same number of decimals, so that their points stand
// below one another. Numbers for which these decimals are too few, or that are very large, are
// written with an exponent. A small number beside large ones is shown with few digits: beside them
// it is mostly rounding.

struct NumberForm {
  int decimals = 0;
  double smallest_fixed = 0.0;  // nonzero numbers below are written with an exponent
  int small_decimals = 0;       // and so many decimals
};

static constexpr double MODERATE_LOW = 1e-4;     // numbers from here
static constexpr double MODERATE_HIGH = 1e7;     // to below this decide on the decimals
static constexpr int LARGE_DIGITS = 7;           // significant digits of the largest number
static constexpr int SMALL_DIGITS = 5;           // at least, of the smallest number
static constexpr int WIDEST_FIXED = 12;          // digits before and after the point
static constexpr int SMALL_DECIMALS = 5;         // with an exponent, in a column of small numbers
static constexpr int SMALL_DECIMALS_BESIDE = 3;  // beside larger ones
static constexpr int LARGE_DECIMALS = 6;         // of large ones

// One number of a column. Numbers that are not finite are written as words.
static std::string number_text(double value, const NumberForm& form) {
  const double magnitude = std::fabs(value);
  if (std::isfinite(value) && magnitude >= MODERATE_HIGH) return scientific(value, LARGE_DECIMALS);
  if (magnitude > 0.0 && magnitude < form.smallest_fixed) {
    return scientific(value, form.small_decimals);
  }
  return embed::fixed_text(value, form.decimals);
}

// Decimals that are left when zeros at the end are dropped.
static int needed_decimals(const std::string& text) {
  const std::size_t point = text.find('.');
  if (point == std::string::npos || text.find('e') != std::string::npos) return 0;
  return static_cast<int>(text.find_last_not_of('0') - point);
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
  if (largest == 0.0) return {0, MODERATE_LOW, SMALL_DECIMALS};
  const int high = decimal_exponent(largest);
  const int wanted =
      std::max({LARGE_DIGITS - 1 - high, SMALL_DIGITS - 1 - decimal_exponent(smallest), 0});
  const int most = std::min(wanted, WIDEST_FIXED - 1 - std::max(high, 0));
  NumberForm form{most, power_of_ten(SMALL_DIGITS - 1 - most), SMALL_DECIMALS_BESIDE};
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

// Fixed form of a column of the history.
struct HistoryForm {
  std::size_t width;
  int decimals;           // of numbers from fixed_from to below fixed_to; zero is written as "0"
  int exponent_decimals;  // of all others
  double fixed_from, fixed_to;
};

// Counts as wide as limits grow in practice; the objective with more digits than the rest, since
// its last ones are what an iteration gains.
static HistoryForm history_form(std::string_view column) {
  if (column == "Rest" || column == "Act") return {4, 0, 0, 0.0, 0.0};
  if (column == "Iter") return {5, 0, 0, 0.0, 0.0};
  if (column == "NFun") return {6, 0, 0, 0.0, 0.0};
  if (column == "OptCrit") return {13, 6, 6, 1e-2, 1e5};
  return {11, 5, 4, 1e-2, 1e4};
}

static std::string history_number(double value, const HistoryForm& form) {
  const double magnitude = std::fabs(value);
  if (magnitude == 0.0) return "0";
  const bool fixed = magnitude >= form.fixed_from && magnitude < form.fixed_to;
  return fixed || !std::isfinite(value) ? embed::fixed_text(value, form.decimals)
                                        : scientific(value, form.exponent_decimals);
}

// A cell as text; numbers by the writer of the column.
template <class Writer>
static std::string cell_text(const Cell& cell, Writer number_writer) {
  if (const double* number = std::get_if<double>(&cell)) return number_writer(*number);
  if (const long* count = std::get_if<long>(&cell)) return std::to_string(*count);
  if (const auto* text = std::get_if<std::string>(&cell)) return one_line(*text);
  return {};
}

static TextColumn history_column(const Table& table, std::size_t k) {
  TextColumn column;
  const std::string& name = table.columns[k];
  const bool mark = name == "Ac1" || name == "Ac2";
  const HistoryForm form = history_form(name);
  column.header = one_line(name);
  column.width = mark ? width_of(name) : std::max(width_of(name), form.width);
  column.right = !mark;
  for (const auto& row : table.rows) {
    const Cell& value = cell_at(row, k);
    std::string cell = cell_text(value, [&form](double x) { return history_number(x, form); });
    column.cells.push_back(std::move(cell));
  }
  return column;
}

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
    std::string cell = cell_text(value, [&form](double x) { return number_text(x, form); });
    column.width = std::max(column.width, width_of(cell));
    column.cells.push_back(std::move(cell));
  }
  return column;
}

static std::string header_lines(const std::vector<TextColumn>& columns) {
  std::string header, rule;
  for (const TextColumn& column : columns) {
    header += "  " + padded(column.header, column.width, column.right);
    rule += "  " + std::string(column.width, column.header.empty() ? ' ' : '-');
  }
  end_line(header);
  end_line(rule);
  return header + rule;
}

static std::string row_line(const std::vector<TextColumn>& columns, std::size_t i) {
  std::string line;
  for (const TextColumn& column : columns)
    line += "  " + padded(column.cells[i], column.width, column.right);
  end_line(line);
  return line;
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
  const std::string header = header_lines(columns);
  std::string remark;
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    std::string here;
    for (const std::size_t k : remarks)
      if (const auto* words = std::get_if<std::string>(&cell_at(table.rows[i], k)))
        here += (here.empty() ? "" : " ") + one_line(*words);
    const bool new_remark = here != remark && !here.empty();
    if (new_remark) text += (i > 0 ? "\n  " : "  ") + here + "\n";
    remark = here;
    if (i == 0 || new_remark) text += header;
    text += row_line(columns, i);
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

struct Pair {
  std::string label, value;
  bool is_words;
  std::size_t side;
};

// Widths of pairs that are written two a line, or one.
struct PairWidths {
  std::size_t words = 0;  // labels of texts
  std::size_t label[2] = {0, 0}, value[2] = {0, 0};

  std::size_t line() const { return label[0] + value[0] + label[1] + value[1] + 10; }
};

static PairWidths place_pairs(std::vector<Pair>& pairs, std::size_t across) {
  PairWidths widths;
  std::size_t side = 0;
  for (Pair& pair : pairs) {
    pair.side = pair.is_words ? 0 : side;
    side = pair.is_words ? 0 : (side + 1) % across;
    std::size_t& label = pair.is_words ? widths.words : widths.label[pair.side];
    label = std::max(label, width_of(pair.label));
    if (pair.is_words) continue;
    widths.value[pair.side] = std::max(widths.value[pair.side], width_of(pair.value));
  }
  return widths;
}

// Labels and values. Values that are texts stand on lines of their own, to the left; numbers two
// pairs a line, to the right, as long as lines stay short. All values begin in one place if the
// labels let them.
static void write_pairs(std::string& text, const Table& table) {
  constexpr std::size_t LONGEST_LINE = 100;
  std::vector<Pair> pairs;
  for (const auto& row : table.rows)
    pairs.push_back({single_text(cell_at(row, 0)), single_text(cell_at(row, 1)),
                     std::holds_alternative<std::string>(cell_at(row, 1)), 0});
  PairWidths widths = place_pairs(pairs, 2);
  if (widths.line() > LONGEST_LINE) widths = place_pairs(pairs, 1);
  PairWidths shared = widths;
  shared.words = shared.label[0] = std::max(widths.words, widths.label[0]);
  if (shared.line() <= LONGEST_LINE) widths = shared;
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const Pair& pair = pairs[i];
    const std::size_t label = pair.is_words ? widths.words : widths.label[pair.side];
    text += (pair.side == 0 ? "  " : "    ") + padded(pair.label, label, false) + "  ";
    text += pair.is_words ? pair.value : padded(pair.value, widths.value[pair.side], true);
    if (i + 1 == pairs.size() || pairs[i + 1].side == 0) end_line(text);
  }
}

static std::string title_lines(const Table& table) {
  return one_line(table.title.empty() ? table.name : table.title) + "\n\n";
}

// ---- The history --------------------------------------------------------------------------------

static std::vector<TextColumn> history_columns(const Table& table) {
  std::vector<TextColumn> columns;
  for (std::size_t k = 0; k < table.columns.size(); ++k)
    columns.push_back(history_column(table, k));
  return columns;
}

namespace embed {

bool is_history(const Table& table) { return table.name == "IterHist" && !is_pairs_table(table); }

// The headings name the columns of a history that goes on well enough.
std::string history_head(const Table& table) {
  const Table empty{table.name, table.template_name, table.title, table.columns, {}};
  return (table.continued ? "" : title_lines(table)) + header_lines(history_columns(empty));
}

std::string history_row(const Table& table, std::size_t k) {
  Table one{table.name, table.template_name, table.title, table.columns, {table.rows[k]}};
  return row_line(history_columns(one), 0);
}

}  // namespace embed

// ---- Whole tables and reports -------------------------------------------------------------------

std::string text_table(const Table& table) {
  if (embed::is_history(table)) {
    std::string text = embed::history_head(table);
    const std::vector<TextColumn> columns = history_columns(table);
    for (std::size_t i = 0; i < table.rows.size(); ++i) text += row_line(columns, i);
    return text;
  }
  std::string text = title_lines(table);
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

namespace embed {

std::string log_line(const LogRecord& line) {
  const bool literal = line.group == 0 && line.severity == Severity::note;
  std::string text = (literal ? "" : severity_mark(line.severity)) + line.text;
  end_line(text);
  return text;
}

}  // namespace embed

// Calls and seconds, in fixed forms: the times differ from run to run, the places of the numbers do
// not.
std::string text_work(const Work& work) {
  constexpr int DECIMALS = 6;
  constexpr std::size_t COUNT_WIDTH = 8, SECONDS_WIDTH = 10;
  TextColumn name{"Module", {}, 0, false}, calls{"Calls", {}, COUNT_WIDTH, true},
      failed{"Failed", {}, COUNT_WIDTH, true}, seconds{"Seconds", {}, SECONDS_WIDTH, true};
  const auto add = [&](const std::string& who, const std::string& count, const std::string& bad,
                       double time) {
    name.cells.push_back(one_line(who));
    calls.cells.push_back(count);
    failed.cells.push_back(bad);
    seconds.cells.push_back(embed::fixed_text(time, DECIMALS));
  };
  for (const ModuleWork& module : work.modules)
    add(module.name, std::to_string(module.calls), std::to_string(module.failed), module.seconds);
  if (work.seconds_in_sink > 0.0) add("(sink)", "", "", work.seconds_in_sink);
  add("(library)", "", "", work.seconds_in_library);
  for (const std::string& cell : name.cells) name.width = std::max(name.width, width_of(cell));
  const std::vector<TextColumn> columns{name, calls, failed, seconds};
  std::string text = "Work\n\n" + header_lines(columns);
  for (std::size_t i = 0; i < name.cells.size(); ++i) text += row_line(columns, i);
  return text;
}

std::string text_report(const Session& session) {
  const embed::Task& task = session.task();
  std::string text;
  for (const LogRecord& line : task.log) text += embed::log_line(line);
  std::size_t next = 0;
  bool behind_table = false;
  for (std::size_t k = 0; k <= task.tables.size(); ++k) {
    for (; next < task.printed.size() && task.printed_after[next] == k; ++next) {
      // A message that the log holds too is told once.
      if (embed::is_in_log(task, task.printed[next])) continue;
      if (behind_table) text += "\n";
      behind_table = false;
      text += task.printed[next].text;
      end_line(text);
    }
    if (k == task.tables.size()) break;
    if (task.tables[k].rows.empty()) continue;  // opened, and closed before its first row
    if (!text.empty()) text += "\n";
    text += text_table(task.tables[k]);
    behind_table = true;
  }
  // A run that was to print nothing gets no account of its work either.
  if (!task.tables.empty() && !task.work.empty()) text += "\n" + text_work(session.work());
  return text;
}

}  // namespace tqnlp
