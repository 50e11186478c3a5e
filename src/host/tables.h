// Host services: report tables. The delivery object of a call (rvx) takes tables; a table has a
// name, a template, a title, columns that are bound to variables of the module, and rows. Adding a
// row reads the variables as they are then. A table in pairs layout holds labels and values.
#pragma once

#include <span>
#include <variant>

#include "host/log.h"

namespace tqnlp {

struct RvxObject;  // a delivery object or a table; a type of the host

// Text of a cell, filled by rvxmsg and its like.
struct RvxText {
  char text[200];
};

// What a method takes: a literal text, a count, a number, a reference to a variable that a row
// reads (a missing or null value leaves the cell empty), or the place for a new table.
using RvxArg = std::variant<const char*, long, double, const double*, const long*, const int*,
                            const RvxText*, RvxObject**>;

enum class RvxMethod {
  manager,  // delivery object: (class, kind, message group as long)
  open,     // delivery object: (place for the table, name, template)
  title,    // table: (text)
  column,   // table: (name, reference, or a text kept by the caller until the table is closed)
  pair,     // table: (label, value)
  row,      // table: ()
  close,    // table: () hands the table on and releases it; delivery object: () ends delivery
};

// Makes the delivery object of a call. Returns 0, or a nonzero code and *object null.
int xobinit(RvxObject** object, int flags);

// Runs a method of a delivery object or table. Returns 0, or a negative code.
int wobmth(RvxObject* object, int flags, RvxMethod method, std::span<const RvxArg> args);

// Fills a cell's text: from a numbered message, a literal, or a format as of printf. Returns 0, or
// a negative code when there is no such message.
int rvxmsg(RvxText* cell, int group, int number);
int rvxmsgs(RvxText* cell, int group, int number, MsgArgs args);
int rvxtxt(RvxText* cell, const char* text, long length);
[[gnu::format(printf, 3, 4)]] int rvxtxts(RvxText* cell, long length, const char* format, ...);

}  // namespace tqnlp
