// report_tables: what all reports share; see the header for the rule of a table's state.
//
// Every operation has the same shape: nothing on a closed table; else one call of the host, and
// keep_if, which closes the table when that failed. A text that a cell shows is made first, by the
// host too (it knows the messages), and counts as part of the operation. Cells are records of fixed
// size that live on the stack of who writes them: the host reads them while the row is added.
#include "aasubs/reports/report_tables.h"

#include <cstdio>
#include <cstring>
#include <span>
#include <string>

#include "host/log.h"

namespace tqnlp {

static constexpr const char* TEMPLATE_PREFIX = "Base.NLP.";

// Logs a negative answer of a service. True when the service did its work.
static bool served(int rc) {
  if (rc < 0) xprrlog(0, rc);
  return rc >= 0;
}

// One method of a host's object; true when it was served.
static bool call(RvxObject* object, RvxMethod method, std::initializer_list<RvxArg> args) {
  return served(wobmth(object, 0, method, std::span<const RvxArg>(args.begin(), args.size())));
}

void close_table(RvxObject** table) {
  if (*table == nullptr) return;
  call(*table, RvxMethod::close, {});
  *table = nullptr;
}

// Closes the table when an operation on it failed.
static void keep_if(RvxObject** table, bool good) {
  if (!good) close_table(table);
}

void open_table(RvxObject* rvx, RvxObject** table, const char* name, int title) {
  if (rvx == nullptr) return;
  // Room for every table of this library; a longer name of a caller is cut.
  char template_name[64];
  std::snprintf(template_name, sizeof template_name, "%s%s", TEMPLATE_PREFIX, name);
  if (!call(rvx, RvxMethod::open, {table, name, static_cast<const char*>(template_name)})) {
    *table = nullptr;
    return;
  }
  if (title == 0) return;
  RvxText text{};
  // A table whose title is not known is not written: its reader could not tell what it shows.
  const bool known = served(rvxmsg(&text, OPTIMIZATION, title));
  keep_if(table, known && call(*table, RvxMethod::title, {&text}));
}

void add_column(RvxObject** table, const char* name, const RvxArg& source) {
  if (*table == nullptr) return;
  keep_if(table, call(*table, RvxMethod::column, {name, source}));
}

void add_pair(RvxObject** table, int label, const RvxArg& value) {
  if (*table == nullptr) return;
  RvxText text{};
  const bool known = served(rvxmsg(&text, OPTIMIZATION, label));
  keep_if(table, known && call(*table, RvxMethod::pair, {&text, value}));
}

void add_word_pair(RvxObject** table, int label, int word) {
  if (*table == nullptr) return;
  RvxText text{};
  // A value that cannot be put into words ends the table as any failing service does.
  if (served(rvxmsg(&text, OPTIMIZATION, word))) {
    add_pair(table, label, &text);
  } else {
    close_table(table);
  }
}

void add_row(RvxObject** table) {
  if (*table == nullptr) return;
  keep_if(table, call(*table, RvxMethod::row, {}));
}

void add_row_or_lose_it(RvxObject* table) {
  if (table != nullptr) call(table, RvxMethod::row, {});
}

RvxText report_text(int number, MsgArgs args) {
  RvxText text{};
  const int rc = args.size() == 0 ? rvxmsg(&text, OPTIMIZATION, number)
                                  : rvxmsgs(&text, OPTIMIZATION, number, args);
  if (!served(rc)) text.text[0] = '\0';
  return text;
}

RvxText literal_text(const char* text) {
  RvxText cell{};
  if (!served(rvxtxt(&cell, text, static_cast<long>(std::strlen(text))))) cell.text[0] = '\0';
  return cell;
}

RvxText unpadded(const char* name) {
  RvxText cell{};
  std::snprintf(cell.text, sizeof cell.text, "%s", name);
  for (std::size_t end = std::strlen(cell.text); end > 0 && cell.text[end - 1] == ' '; --end) {
    cell.text[end - 1] = '\0';
  }
  return cell;
}

// 0 - v instead of -v: it turns 0 into 0, not -0.
double negated(double value) { return wzmis(value) ? value : 0.0 - value; }

double users_value(const MINSTR* str, double value) {
  return str->imax != 0 ? negated(value) : value;
}

RvxText numbered_name(const char* prefix, long number) {
  RvxText cell{};
  znamfix(cell.text, sizeof cell.text, prefix, number);
  return cell;
}

RvxText parameter_name(const MINSTR* str, long j) {
  return str->pnam != nullptr ? unpadded(str->pnam[j]) : numbered_name("X", j + 1);
}

// ---- Constraints in words -----------------------------------------------------------------------

static bool is_linear(const MINSTR* str, long c) { return c < str->ncon; }

// Equalities come first, among the linear and among the nonlinear constraints; c counts on from the
// linear ones to the nonlinear ones.
static bool is_equality(const MINSTR* str, long c) {
  return is_linear(str, c) ? c < str->neqc : c - str->ncon < str->nlec;
}

// The name that the user gave, or none.
static RvxText given_name(const MINSTR* str, long c) {
  if (str->cnam == nullptr) return {};
  const std::string padded(str->cnam + c * str->maxcnam, static_cast<std::size_t>(str->maxcnam));
  return unpadded(padded.c_str());
}

RvxText constraint_name(const MINSTR* str, long c) {
  const RvxText given = given_name(str, c);
  if (given.text[0] != '\0') return given;
  if (is_linear(str, c)) return numbered_name(is_equality(str, c) ? "C1_" : "C2_", c + 1);
  return numbered_name(is_equality(str, c) ? "C3_" : "C4_", c - str->ncon + 1);
}

// Kinds have one width and begin with a blank: they stand beside a number in the printed table.
const char* constraint_kind(const MINSTR* str, long c) {
  if (is_linear(str, c)) return is_equality(str, c) ? " Linear EC" : " Linear IC";
  return is_equality(str, c) ? " Nonlin EC" : " Nonlin IC";
}

const char* bound_kind(int status) {
  switch (status) {
    case 0:
      return "";
    case 1:
      return " Lower BC ";
    case -1:
      return " Upper BC ";
    case 2:
      return " Equal BC ";
    default:
      return " Active BC";
  }
}

}  // namespace tqnlp
