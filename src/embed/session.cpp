// session: the public Session. It finds a subroutine in the module's table, looks at the arguments,
// runs the entry within a frame of its own, and turns the ways in which a call can end into results
// and exceptions.
//
// Order matters at the end of a call. The results and the lines of the log are taken out of the
// frame first; then the frame goes, with all that the call left behind; only then is an exception
// thrown, so that a program that catches it finds the session free for the next call.
//
//   end of a call, the first that holds         what the caller gets
//   a module or the sink threw                  the same exception
//   the module asked for xexit                  FatalError
//   refused here, before the entry              CallError, code of a bad argument
//   the entry returned another code than 0      CallError with that code
//   otherwise                                   the results
//
// An exception of a module outranks all other ends: it is their cause.
#include <cstring>

#include "aasubs/driver/znlpdrv.h"
#include "embed/task.h"
#include "front/tqxnlp.h"
#include "host/memory.h"

namespace tqnlp {

using embed::Frame;
using embed::Task;

static constexpr std::size_t LONGEST_NAME = 32;  // of a module, as the language allows it

// ---- The module's table -------------------------------------------------------------------------

static constexpr int REQUEST_TABLE = 1;
static constexpr int REQUEST_ENTRIES = 2;
static constexpr int ARGUMENT_BITS = 3;  // of a kind in fargi
static constexpr long NAME_CODE = 2;

// An answer of qorinlp, given back at the end of its scope.
template <class Answer>
class Requested {
 public:
  explicit Requested(int request) : answer_(static_cast<Answer*>(qorinlp(request))) {}
  ~Requested() { vmfree_handler(answer_); }
  Requested(const Requested&) = delete;
  Requested& operator=(const Requested&) = delete;
  const Answer& operator*() const { return *answer_; }
  const Answer* operator->() const { return answer_; }

 private:
  Answer* answer_;
};

// Names fill their field without a zero byte at the end when they are as long as it.
static std::string_view name_of(const FNCITEM& item) {
  return {item.fncname, strnlen(item.fncname, sizeof item.fncname)};
}

// A row of the table in the words of the public interface.
static Subroutine description(const FNCITEM& item) {
  Subroutine subroutine;
  subroutine.name = name_of(item);
  subroutine.fewest = item.fncstr.fmin;
  subroutine.most = item.fncstr.fmax;
  const long kind_mask = (1L << ARGUMENT_BITS) - 1;
  for (int k = 0; k < item.fncstr.fmax; ++k) {
    const long kind = (item.fncstr.fargi >> (ARGUMENT_BITS * k)) & kind_mask;
    subroutine.arguments.push_back(kind == NAME_CODE ? Subroutine::Argument::name
                                                     : Subroutine::Argument::matrix);
  }
  return subroutine;
}

static std::vector<Subroutine> descriptions(const FNCUSR& table) {
  std::vector<Subroutine> list;
  for (long i = 0; i < table.nfnc; ++i) list.push_back(description(table.fncitem[i]));
  return list;
}

// The table is memory of a host: a task for the moment lends it.
std::vector<Subroutine> Session::subroutines() {
  Task task;
  const embed::Activation activation(task);
  const Requested<FNCUSR> table(REQUEST_TABLE);
  return descriptions(*table);
}

// ---- Refusals before the entry ------------------------------------------------------------------

static std::string names_of(const std::vector<Subroutine>& table) {
  std::string names;
  for (const Subroutine& row : table) names += (names.empty() ? "" : ", ") + row.name;
  return names;
}

// What the entry cannot find out: it does not look beyond its last argument. Everything else about
// the arguments is refused there, by a numbered message that knows what each is for.
static std::string arguments_fault(const Subroutine& row, std::size_t count) {
  if (count <= static_cast<std::size_t>(row.most)) return "";
  return row.name + ": at most " + std::to_string(row.most) + " arguments may be given, not " +
         std::to_string(count) + ".";
}

// Calls within modules of calls that stand open on this thread, on any session. A module that calls
// itself through a subroutine would otherwise use up the stack, which no code survives.
static thread_local int open_calls = 0;
static constexpr int MOST_OPEN_CALLS = 100;

// Counts a call for as long as it is open, also when it ends by an exception.
class OpenCall {
 public:
  OpenCall() { ++open_calls; }
  ~OpenCall() { --open_calls; }
  OpenCall(const OpenCall&) = delete;
  OpenCall& operator=(const OpenCall&) = delete;
};

// The call that asks is counted already.
static std::string nesting_fault(const std::string& name) {
  if (open_calls <= MOST_OPEN_CALLS) return "";
  return name + ": calls stand " + std::to_string(MOST_OPEN_CALLS) +
         " deep inside one another; does a module call itself through a subroutine?";
}

// ---- A call -------------------------------------------------------------------------------------

static constexpr int BAD_ARGUMENT = 6;  // the entry's code for it

// How a call ended: results, or one of the three other ways.
struct Outcome {
  std::vector<Matrix> results;
  int entry_code = 0;         // what the entry returned
  int exit_code = 0;          // of xexit
  std::string refusal;        // text of a refusal before the entry ran
  std::exception_ptr thrown;  // by a module
  std::vector<LogRecord> log;
};

static const char* meaning_of_entry(int code) {
  switch (code) {
    case 1:
      return "out of memory";
    case 3:
      return "a named module does not exist";
    case BAD_ARGUMENT:
      return "bad argument";
    case 100:
      return "the report object could not be made";
    default:
      return "not told";
  }
}

static const char* meaning_of_exit(int code) {
  switch (code) {
    case EXIT_NO_MEMORY:
      return "no memory for the table of subroutines";
    case EXIT_WORK_FILE:
      return "a work file failed";
    case EXIT_INCONSISTENT:
      return "an internal inconsistency";
    default:
      return "not told";
  }
}

// The text with the warnings and errors of the call, each on a line of its own.
static std::string with_log_lines(std::string text, const std::vector<LogRecord>& log) {
  for (const LogRecord& line : log)
    if (line.severity != Severity::note) text += "\n  " + line.text;
  return text;
}

// Runs the entry of a row. The order of the entries is that of the rows. The entry sees handles of
// arguments that live until it returns; their numbers are lent, not copied.
static int run_entry(long row, std::vector<Matrix> arguments) {
  const Requested<FNCENT> entries(REQUEST_ENTRIES);
  std::vector<TQLARG> held;
  held.reserve(arguments.size());
  for (Matrix& argument : arguments) held.push_back({std::move(argument)});
  std::vector<TQLARG*> handles;
  handles.reserve(held.size());
  for (TQLARG& argument : held) handles.push_back(&argument);
  long count = static_cast<long>(handles.size());
  return entries->entry[row](handles.data(), &count);
}

// Looks the subroutine up, refuses what the entry could not refuse, and runs it. A refusal is also
// a line of the log, where a reader of reports finds it.
static void find_and_run(Task& task, const std::string& name, std::vector<Matrix> arguments,
                         Outcome& outcome) {
  const Requested<FNCUSR> table(REQUEST_TABLE);
  long row = 0;
  while (row < table->nfnc && name_of(table->fncitem[row]) != name) ++row;
  outcome.refusal = nesting_fault(name);
  if (row == table->nfnc)
    outcome.refusal = "There is no subroutine \"" + name + "\"; there are " +
                      names_of(descriptions(*table)) + ".";
  else if (outcome.refusal.empty())
    outcome.refusal = arguments_fault(description(table->fncitem[row]), arguments.size());
  if (outcome.refusal.empty())
    outcome.entry_code = run_entry(row, std::move(arguments));
  else
    embed::add_log(task, 0, 0, Severity::error, outcome.refusal);
}

// What an exception says of itself.
static std::string exception_text(const std::exception_ptr& thrown) {
  try {
    std::rethrow_exception(thrown);
  } catch (const std::exception& error) {
    return std::string(": ") + error.what();
  } catch (...) {
    return ".";
  }
}

// A module that failed last is the likely cause of a state that a technique cannot go on from.
static std::string cause_of_exit(const Frame& frame, int exit_code) {
  if (exit_code != EXIT_INCONSISTENT || frame.failed == nullptr) return meaning_of_exit(exit_code);
  return "module " + frame.failed->module->name +
         " gave no value where the run cannot do without it";
}

// Says in the log why a call broke off.
static void log_early_end(Task& task, const Frame& frame, int exit_code) {
  if (frame.thrown != nullptr)
    embed::add_log(task, 0, 0, Severity::error,
                   frame.thrown_by + " threw an exception, which ended the run" +
                       exception_text(frame.thrown));
  if (exit_code != 0)
    embed::add_log(task, 0, 0, Severity::error,
                   "The call ended with exit code " + std::to_string(exit_code) + ": " +
                       cause_of_exit(frame, exit_code) + ".");
}

// The reports of nested calls are kept until so many lines and rows stand in them.
static constexpr std::size_t MOST_LINES = 10000;

// At the end of a nested call: takes its reports back when there are too many already. A module
// that makes calls without end would otherwise fill the memory.
static void limit_nested_reports(Task& task, const Frame& frame) {
  if (task.log.size() + task.printed.size() + task.table_rows <= MOST_LINES) return;
  ++task.calls_left_out;
  for (std::size_t k = frame.first_table; k < task.tables.size(); ++k)
    task.table_rows -= task.tables[k].rows.size();
  task.log.resize(frame.first_log);
  task.tables.resize(frame.first_table);
  task.printed.resize(frame.first_printed);
  task.printed_after.resize(frame.first_printed);
}

// At the end of the outermost call: says what is missing in its reports.
static void log_calls_left_out(Task& task) {
  if (task.calls_left_out == 0) return;
  embed::add_log(task, 0, 0, Severity::note,
                 "The reports of " + std::to_string(task.calls_left_out) +
                     " calls made by modules are left out.");
}

// Runs a call in a frame of its own. The frame is gone when this returns. What leaves the module by
// xexit or a math error is caught here: both unwind through
// code of the module, which owns nothing that the frame does not free.
static Outcome run_call(Task& task, const std::string& name, std::vector<Matrix> arguments) {
  Outcome outcome;
  const embed::FrameScope scope(task);
  Frame& frame = task.frame();
  try {
    find_and_run(task, name, std::move(arguments), outcome);
  } catch (const embed::ExitRequest& request) {
    outcome.exit_code = request.code;
  } catch (const embed::MathResume&) {  // to a point that is gone
    outcome.exit_code = EXIT_INCONSISTENT;
  }
  log_early_end(task, frame, outcome.exit_code);
  embed::hand_on_open_tables(task);
  const bool nested = task.frames.size() > 2;  // the bottom frame, that of the outer call, this one
  if (!nested) log_calls_left_out(task);
  outcome.thrown = frame.thrown;
  outcome.results.assign(std::make_move_iterator(frame.results.begin()),
                         std::make_move_iterator(frame.results.end()));
  outcome.log.assign(task.log.begin() + static_cast<std::ptrdiff_t>(frame.first_log),
                     task.log.end());
  if (nested) limit_nested_reports(task, frame);
  return outcome;
}

// What a program reads between calls is of the last one: it lasts until the next outermost call.
static void forget_last_call(Task& task) {
  task.log.clear();
  task.tables.clear();
  task.printed.clear();
  task.printed_after.clear();
  task.work.clear();
  task.logged_at.clear();
  task.table_rows = 0;
  task.calls_left_out = 0;
  task.ticks_in_library = task.ticks_in_sink = 0;
  task.sink_last = embed::SinkLast::nothing;
}

std::vector<Matrix> Session::call(std::string subroutine, std::vector<Matrix> arguments) {
  Task& task = live();
  const std::shared_ptr<Task> held = task_;  // a module may destroy the session
  // The lock is recursive, for calls out of a module on the same thread; another thread is refused
  // at once instead of waiting for a run of unknown length.
  const std::unique_lock lock(task.in_use, std::try_to_lock);
  if (!lock.owns_lock())
    throw std::logic_error("Session: another thread is running a call on this session");
  const embed::Activation activation(task);
  const OpenCall open;
  const embed::FlagKeeper flags;
  // Only the outermost call starts new reports: those of calls within modules join them.
  if (task.frames.size() == 1) forget_last_call(task);
  const embed::Charge charge(task.clock, &task.ticks_in_library);
  const std::string name = embed::language_name(std::move(subroutine));
  Outcome outcome = run_call(task, name, std::move(arguments));
  if (outcome.thrown != nullptr) std::rethrow_exception(std::move(outcome.thrown));
  if (outcome.exit_code != 0) {
    const std::string text = with_log_lines(name + " could not go on:", outcome.log);
    throw FatalError(outcome.exit_code, text, std::move(outcome.log));
  }
  if (!outcome.refusal.empty())
    throw CallError(BAD_ARGUMENT, outcome.refusal, std::move(outcome.log));
  if (outcome.entry_code != 0) {
    const std::string text = name + " refused the call: " + meaning_of_entry(outcome.entry_code) +
                             " (code " + std::to_string(outcome.entry_code) + ")";
    const std::string lines = with_log_lines(text, outcome.log);
    throw CallError(outcome.entry_code, lines, std::move(outcome.log));
  }
  return std::move(outcome.results);
}

// ---- The rest of a session ----------------------------------------------------------------------

Session::Session() : task_(std::make_shared<Task>()) {}
Session::Session(Session&&) noexcept = default;

Task& Session::live() const {
  if (task_ == nullptr) throw std::logic_error("Session: this session was moved from");
  return *task_;
}

// Does a call run on the task? Also where another thread runs it.
static bool is_running(Task& task) {
  const std::unique_lock lock(task.in_use, std::try_to_lock);
  return !lock.owns_lock() || task.frames.size() > 1;
}

Session& Session::operator=(Session&& from) {
  if (task_ != nullptr && task_ != from.task_ && is_running(*task_))
    throw std::logic_error("Session: a session is assigned to while a call runs on it");
  task_ = std::move(from.task_);
  return *this;
}

// A destructor cannot refuse. The calls that stand open on this thread keep the task alive, and end
// as if their modules had thrown.
Session::~Session() {
  if (task_ == nullptr) return;
  const std::unique_lock lock(task_->in_use, std::try_to_lock);
  if (!lock.owns_lock()) return;  // the thread that runs the call keeps the task
  for (std::size_t k = 1; k < task_->frames.size(); ++k) {
    Frame& frame = task_->frames[k];
    if (frame.thrown != nullptr) continue;
    frame.thrown_by = "The end of the session";
    frame.thrown = std::make_exception_ptr(
        std::logic_error("Session: a session was destroyed while a call ran on it"));
  }
}

// The name as the language keeps it, or a refusal.
static std::string checked_name(std::string name) {
  std::string kept = embed::language_name(std::move(name));
  if (kept.empty() || kept.size() > LONGEST_NAME)
    throw std::invalid_argument("Session: the name of a module must have 1 to 32 characters, \"" +
                                kept + "\" has " + std::to_string(kept.size()));
  return kept;
}

// Puts a module in its place; returns it for its body to be set. One of the same name is replaced;
// a run of it that is under way keeps the old one alive (TQLMOD is shared).
static TQLMOD& new_module(Task& task, std::string name, int kind, bool has_body) {
  std::string kept = checked_name(std::move(name));
  if (!has_body) throw std::invalid_argument("Session: the body of module " + kept + " is empty");
  auto made = std::make_shared<TQLMOD>();
  made->name = kept;
  made->kind = kind;
  return *(task.modules[kept] = std::move(made));
}

void Session::module(std::string name, Function body) {
  TQLMOD& made = new_module(live(), std::move(name), MODULE_FUNCTION, body != nullptr);
  made.function = std::move(body);
}

void Session::termination_module(std::string name, Termination body) {
  TQLMOD& made = new_module(live(), std::move(name), MODULE_TERMINATION, body != nullptr);
  made.termination = std::move(body);
}

bool Session::remove_module(const std::string& name) {
  return live().modules.erase(embed::language_name(name)) > 0;
}

bool Session::has_module(const std::string& name) const {
  return live().modules.contains(embed::language_name(name));
}

const std::vector<LogRecord>& Session::log() const { return live().log; }
const std::vector<Table>& Session::tables() const { return live().tables; }
const std::vector<LogRecord>& Session::printed() const { return live().printed; }

void Session::sink(Sink write) {
  live().sink = write == nullptr ? nullptr : std::make_shared<const Sink>(std::move(write));
}

Work Session::work() const {
  const Task& task = live();
  const embed::TimeAccount& clock = task.clock;
  Work work{{}, clock.seconds(task.ticks_in_sink), clock.seconds(task.ticks_in_library)};
  for (const auto& module : task.work)
    work.modules.push_back(
        {module->name, module->calls, module->failed, clock.seconds(module->ticks)});
  return work;
}

// A copy: the variable may change at the next iteration.
Matrix Session::variable(std::string name) const {
  const auto& variables = live().variables;
  const auto place = variables.find(embed::language_name(std::move(name)));
  if (place == variables.end()) return Matrix();
  const TQLSYM& symbol = place->second;
  if (symbol.kind != NUMERIC || symbol.data == nullptr) return Matrix();
  return Matrix(symbol.rows, symbol.cols,
                std::vector<double>(symbol.data, symbol.data + symbol.rows * symbol.cols));
}

void Session::debug_option(std::string name, int value) {
  live().debug_options[std::move(name)] = value;
}

void Session::work_file_memory(std::size_t bytes) { live().work_file_memory = bytes; }

void Session::trap_math_errors(bool on) { live().math_error = on ? znlpmer : nullptr; }

}  // namespace tqnlp
