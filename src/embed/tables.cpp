// tables: report tables, recorded in memory.
//
// A table is built up as an object of its call, and joins the tables of the task when it is closed.
// Columns keep references; adding a row reads them. What a template of a printed report would say
// of widths and formats is left to the writers, which see the numbers.
//
//   xobinit                       a delivery object, in the frame of the call
//     open (place, name, template)  a table object, its address in place
//       title (text)
//       column (name, reference)    either columns and rows: a row reads all references
//       row ()
//       pair (label, value)         or pairs: labels and values, each a row
//       close ()                    the table is handed on, the object is gone
//     close ()
//
// What is not closed is freed with the frame of its call.
//
// The contract with the module is strict on purpose: a method that an object does not take, or an
// argument of the wrong kind, is a negative answer and never a guess.
#include "host/tables.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "embed/messages.h"
#include "embed/reports.h"

namespace tqnlp {

using embed::Fault;
using embed::Task;

// Answers of the methods.
static constexpr int DONE = 0;
static constexpr int FAILED = 1;       // xobinit: no object
static constexpr int NO_MESSAGE = -1;  // there is no such text
static constexpr int BAD_CALL = -2;    // a method or an argument that the object does not take
static constexpr int NOT_SERVED = -3;  // a planned failure

// Every operation on reports counts as one of the kind that tests can make fail.
static bool planned_failure(Task& task) {
  return task.faults[static_cast<int>(Fault::report)].strikes();
}

int xobinit(RvxObject** object, int) {
  Task& task = embed::current_task();
  *object = nullptr;
  if (planned_failure(task)) return FAILED;
  task.frame().reports.push_back(std::make_unique<RvxObject>());
  *object = task.frame().reports.back().get();
  return DONE;
}

// ---- Cells --------------------------------------------------------------------------------------

// A missing number leaves its cell empty; an ordinary NaN is shown as what it is.
static Cell number_cell(const double* value) {
  return value == nullptr || is_missing(*value) ? Cell() : Cell(*value);
}

template <class Count>
static Cell count_cell(const Count* value) {
  return value == nullptr ? Cell() : Cell(static_cast<long>(*value));
}

static Cell text_cell(const char* text) {
  return text == nullptr ? Cell() : Cell(std::string(text));
}

// The cell of each kind of argument, as it is now; one overload a kind, for std::visit.
static Cell cell_of(const char* text) { return text_cell(text); }
static Cell cell_of(const double* value) { return number_cell(value); }
static Cell cell_of(const long* value) { return count_cell(value); }
static Cell cell_of(const int* value) { return count_cell(value); }
static Cell cell_of(const RvxText* value) { return text_cell(value ? value->text : nullptr); }
static Cell cell_of(long value) { return count_cell(&value); }
static Cell cell_of(double value) { return number_cell(&value); }
static Cell cell_of(RvxObject**) { return Cell(); }

// The text that an argument holds, or null when it is none.
static const char* text_of(const RvxArg& argument) {
  if (auto text = std::get_if<const char*>(&argument)) return *text;
  if (auto cell = std::get_if<const RvxText*>(&argument)) return *cell ? (*cell)->text : nullptr;
  return nullptr;
}

// ---- Methods ------------------------------------------------------------------------------------

static int open_table(Task& task, std::span<const RvxArg> args) {
  if (args.size() < 3) return BAD_CALL;
  auto place = std::get_if<RvxObject**>(&args[0]);
  const char* name = text_of(args[1]);
  const char* template_name = text_of(args[2]);
  if (place == nullptr || *place == nullptr || name == nullptr || template_name == nullptr)
    return BAD_CALL;
  auto object = std::make_unique<RvxObject>();
  object->kind = RvxObject::Kind::table;
  object->table.name = name;
  object->table.template_name = template_name;
  // A call may open its history again; what comes then goes on with the rows that were given.
  object->table.continued = task.frame().history_begun && embed::is_history(object->table);
  **place = object.get();
  task.frame().reports.push_back(std::move(object));
  return DONE;
}

static int set_title(RvxObject& object, std::span<const RvxArg> args) {
  const char* text = args.empty() ? nullptr : text_of(args[0]);
  if (text == nullptr) return BAD_CALL;
  object.table.title = text;
  return DONE;
}

// A table holds either columns or pairs, as its first use says.
static bool is_pairs(const RvxObject& object) {
  return object.sources.empty() && !object.table.columns.empty();
}

// A column keeps what kind of reference it was given. A value is none, since it could not change
// from row to row. Rows that stand already get an empty cell, so that the table stays rectangular.
static int add_column(RvxObject& object, std::span<const RvxArg> args) {
  const char* name = args.size() < 2 ? nullptr : text_of(args[0]);
  if (name == nullptr || is_pairs(object)) return BAD_CALL;
  const bool is_reference = std::visit(
      [&object]<class Value>(const Value& value) {
        if constexpr (std::is_constructible_v<RvxObject::Source, std::in_place_type_t<Value>,
                                              Value>) {
          object.sources.emplace_back(std::in_place_type<Value>, value);
          return true;
        } else {
          return false;
        }
      },
      args[1]);
  if (!is_reference) return BAD_CALL;
  object.table.columns.emplace_back(name);
  for (auto& row : object.table.rows) row.emplace_back();
  return DONE;
}

static int add_pair(RvxObject& object, std::span<const RvxArg> args) {
  const char* label = args.size() < 2 ? nullptr : text_of(args[0]);
  if (label == nullptr || !object.sources.empty()) return BAD_CALL;
  if (object.table.columns.empty()) object.table.columns = {"Label", "Value"};
  Cell value = std::visit([](const auto& held) { return cell_of(held); }, args[1]);
  object.table.rows.push_back({Cell(std::string(label)), std::move(value)});
  return DONE;
}

static int add_row(Task& task, RvxObject& object) {
  if (object.sources.empty()) return BAD_CALL;
  std::vector<Cell> row;
  row.reserve(object.sources.size());
  for (const RvxObject::Source& source : object.sources)
    row.push_back(std::visit([](const auto& held) { return cell_of(held); }, source));
  object.table.rows.push_back(std::move(row));
  if (embed::is_history(object.table)) {
    task.frame().history_begun = true;
    embed::give_history_row(task, object);
  }
  return DONE;
}

// Hands a table on. A history that was opened once more after its last row has nothing to add.
static void hand_on(Task& task, RvxObject& object) {
  if (object.table.continued && object.table.rows.empty()) return;
  embed::give_table(task, object);
  task.table_rows += object.table.rows.size();
  task.tables.push_back(std::move(object.table));
}

// Closing a table hands it on; the object is gone then. It is looked for in all frames, the newest
// first: a pointer that no frame holds was never an object, or is one that was closed before.
static int close_object(Task& task, RvxObject* object) {
  for (auto frame = task.frames.rbegin(); frame != task.frames.rend(); ++frame) {
    auto& reports = frame->reports;
    const auto place = std::find_if(reports.begin(), reports.end(),
                                    [object](const auto& held) { return held.get() == object; });
    if (place == reports.end()) continue;
    const std::unique_ptr<RvxObject> closed = std::move(*place);
    reports.erase(place);
    if (closed->kind == RvxObject::Kind::table) hand_on(task, *closed);
    return DONE;
  }
  return BAD_CALL;
}

int wobmth(RvxObject* object, int, RvxMethod method, std::span<const RvxArg> args) {
  Task& task = embed::current_task();
  // A close that fails leaves the object to the end of the call.
  if (planned_failure(task)) return NOT_SERVED;
  if (object == nullptr) return BAD_CALL;
  if (method == RvxMethod::close) return close_object(task, object);
  if (object->kind == RvxObject::Kind::delivery) {
    if (method == RvxMethod::manager) return DONE;
    return method == RvxMethod::open ? open_table(task, args) : BAD_CALL;
  }
  switch (method) {
    case RvxMethod::title:
      return set_title(*object, args);
    case RvxMethod::column:
      return add_column(*object, args);
    case RvxMethod::pair:
      return add_pair(*object, args);
    case RvxMethod::row:
      return add_row(task, *object);
    default:
      return BAD_CALL;
  }
}

// ---- Texts of cells -----------------------------------------------------------------------------

// A cell of a module's text has a fixed size: what is too long is cut, and ends with a zero byte.
static void put_cell(RvxText* cell, const char* text, std::size_t length) {
  length = std::min(length, sizeof cell->text - 1);
  std::memcpy(cell->text, text, length);
  cell->text[length] = '\0';
}

int rvxmsgs(RvxText* cell, int group, int number, MsgArgs args) {
  const std::string text = embed::message_text(group, number, args);
  put_cell(cell, text.data(), text.size());
  return embed::find_message(group, number) == nullptr ? NO_MESSAGE : DONE;
}

int rvxmsg(RvxText* cell, int group, int number) { return rvxmsgs(cell, group, number, {}); }

int rvxtxt(RvxText* cell, const char* text, long length) {
  put_cell(cell, text, length < 0 ? 0 : static_cast<std::size_t>(length));
  return DONE;
}

int rvxtxts(RvxText* cell, long length, const char* format, ...) {
  const long room = std::clamp(length + 1, 1L, static_cast<long>(sizeof cell->text));
  va_list list;
  va_start(list, format);
  const int written = std::vsnprintf(cell->text, static_cast<std::size_t>(room), format, list);
  va_end(list);
  return written < 0 ? BAD_CALL : DONE;
}

namespace embed {

// A call that breaks off in the middle still shows the history of its iterations.
void hand_on_open_tables(Task& task) {
  for (auto& object : task.frame().reports)
    if (object->kind == RvxObject::Kind::table && !object->table.rows.empty())
      hand_on(task, *object);
}

}  // namespace embed
}  // namespace tqnlp
