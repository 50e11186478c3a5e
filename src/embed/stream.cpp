// stream: the report of a running call, given to the session's sink line by line.
//
// A sink is the user's code, called from within the module's calls for log and tables. As with the
// user's modules, what it throws is kept in the frame of the call: no module is run from then on,
// the run ends by itself, and Session::call throws the same object. The sink gets nothing more of a
// call that it has ended.
//
// Rows of the history come one at a time. When something else was written since the last row,
// another table or the report of a nested call, the headings are written again, so that a row is
// always found below its own.
#include <cxxabi.h>

#include <string_view>

#include "embed/reports.h"

namespace tqnlp::embed {

// Marks that the sink runs, and charges its time to it.
class SinkScope {
 public:
  explicit SinkScope(Task& task) : task_(task), charge_(task.clock, &task.ticks_in_sink) {
    task_.in_sink = true;
  }
  ~SinkScope() { task_.in_sink = false; }
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;

 private:
  Task& task_;
  Charge charge_;
};

// A call that the sink has ended gives it nothing more, and neither does a call around it that ends
// by the same exception.
static bool is_ending_by_sink(Task& task) {
  const Frame& frame = task.frame();
  return frame.sink_threw || (frame.thrown != nullptr && frame.thrown == task.sink_exception);
}

static bool takes_lines(Task& task) {
  return task.sink != nullptr && !task.in_sink && !is_ending_by_sink(task);
}

// The exception of a module came first and is the cause of what followed.
static void keep_exception(Task& task, Frame& frame) {
  frame.sink_threw = true;
  if (frame.thrown != nullptr) return;
  frame.thrown = task.sink_exception = std::current_exception();
  frame.thrown_by = "The sink";
}

// One line. The sink may be exchanged while it runs, hence the copy of the pointer.
static void give_line(Task& task, std::string_view line) {
  if (!takes_lines(task)) return;
  const std::shared_ptr<const Session::Sink> sink = task.sink;
  Frame& frame = task.frame();
  const SinkScope scope(task);
  try {
    (*sink)(line);
  } catch (const abi::__forced_unwind&) {  // the thread is being cancelled: not ours to stop
    throw;
  } catch (...) {
    keep_exception(task, frame);
  }
}

static void give_text(Task& task, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    give_line(task, text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

// Tables stand apart from what is before them, messages from a table before them. Messages among
// the rows of a history do not break it.
static void set_off(Task& task, bool when) {
  if (when) give_line(task, "");
}

static void give_message(Task& task, const std::string& line) {
  set_off(task, task.sink_last == SinkLast::table);
  give_text(task, line);
  if (task.sink_last != SinkLast::history) task.sink_last = SinkLast::message;
}

void give_log_line(Task& task, const LogRecord& line) {
  if (takes_lines(task)) give_message(task, log_line(line));
}

void give_printed_line(Task& task, const LogRecord& line) {
  if (takes_lines(task) && !is_in_log(task, line)) give_message(task, line.text + "\n");
}

void give_table(Task& task, const RvxObject& object) {
  if (!takes_lines(task) || object.table.rows.empty() || is_history(object.table)) return;
  set_off(task, task.sink_last != SinkLast::nothing);
  give_text(task, text_table(object.table));
  task.sink_last = SinkLast::table;
}

void give_history_row(Task& task, const RvxObject& object) {
  if (!takes_lines(task)) return;
  const Table& table = object.table;
  if (task.sink_last != SinkLast::history || task.sink_history != &object) {
    set_off(task, task.sink_last != SinkLast::nothing);
    Table head{table.name, table.template_name, table.title, table.columns, {}};
    head.continued = table.continued || table.rows.size() > 1;
    give_text(task, history_head(head));
  }
  give_text(task, history_row(table, table.rows.size() - 1));
  task.sink_last = SinkLast::history;
  task.sink_history = &object;
}

}  // namespace tqnlp::embed
