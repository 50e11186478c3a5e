// The sheet that every report is written with: tables, columns, pairs and rows over the host's
// delivery object.
//
// A table lives in a field of the record while it is written, and that field tells its state: null
// when no table is open. A service of the host that answers with a negative code is logged; the
// table is then closed as it stands, its field becomes null, and every later operation on it does
// nothing. So a report is written as a plain sequence of calls, and a failure ends that report
// without touching the run. Without a delivery object nothing is written either.
#pragma once

#include <initializer_list>

#include "aasubs/record/minstr.h"
#include "aasubs/reports/report_messages.h"
#include "host/tables.h"

namespace tqnlp {

inline constexpr int INFEASIBLE_START = -10;  // job of znlppre at a start that failed

// Opens the table name with the template "Base.NLP.<name>" and a message as its title (0: none).
void open_table(RvxObject* rvx, RvxObject** table, const char* name, int title);

// Adds a column. source refers to a variable that lives until the table is closed; a row reads it.
void add_column(RvxObject** table, const char* name, const RvxArg& source);

// Adds a label, by its message, and a value: a number, a count, or the text of a second message.
void add_pair(RvxObject** table, int label, const RvxArg& value);
void add_word_pair(RvxObject** table, int label, int word);

// Writes a row. On failure the table is closed.
void add_row(RvxObject** table);

// Writes a row that may be lost: a failure is logged and the table stays open.
void add_row_or_lose_it(RvxObject* table);

// Closes a table and hands it on.
void close_table(RvxObject** table);

// Text of a message. A message that the host does not know is logged and leaves the text empty.
RvxText report_text(int number, MsgArgs args = {});

// A literal text as a cell, and a fixed-length name without the blanks at its end.
RvxText literal_text(const char* text);
RvxText unpadded(const char* name);

// A value in the user's sense: negated when maximizing; a missing value stays missing.
double users_value(const MINSTR* str, double value);

// Negated value without a negative zero; a missing value stays missing.
double negated(double value);

// Name of parameter j: as the user gave it, else "X" and its number.
RvxText parameter_name(const MINSTR* str, long j);

// A name made of a prefix and a number.
RvxText numbered_name(const char* prefix, long number);

// Label of a general constraint, c as in iact: its name in cnam, else "C1_" linear equality, "C2_"
// linear inequality, "C3_" nonlinear equality, "C4_" nonlinear inequality, and the number of the
// constraint among the linear or the nonlinear ones.
RvxText constraint_name(const MINSTR* str, long c);

// Kind of a general constraint (c as in iact) and of a parameter's bound (status as in iabc).
const char* constraint_kind(const MINSTR* str, long c);
const char* bound_kind(int status);

// A text that heads a table's first row and is blank in the others.
struct HeadText {
  RvxText cell{};
  void set(int message) { cell = report_text(message); }
  void clear() { cell.text[0] = '\0'; }
};

}  // namespace tqnlp
