// The task of a session: everything that the embedded host keeps between and during calls.
//
// The active task of a thread is a thread_local pointer that Session::call sets. Without one, the
// host's functions work on a task that belongs to the thread, so that parts of the module can be
// driven directly.
//
// Calls nest (a module may call a subroutine), and each has a frame. A frame owns what its call
// takes: memory blocks, work files, report objects, prepared module calls, results. What the call
// does not give back is freed with the frame. The frame at the bottom holds what outlives the
// calls: the variables, and what is taken without a call.
#pragma once

#include <cfenv>
#include <chrono>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "embed/faults.h"
#include "host/files.h"
#include "host/language.h"
#include "host/process.h"
#include "host/tables.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {

namespace embed {
struct Task;
}

// An argument of a call.
struct TQLARG {
  Matrix value;
};

// A module of the user. A prepared call shares it, so that a module may be replaced while it runs.
struct TQLMOD : std::enable_shared_from_this<TQLMOD> {
  std::string name;
  int kind = MODULE_FUNCTION;
  Session::Function function;        // MODULE_FUNCTION
  Session::Termination termination;  // MODULE_TERMINATION
};

// Runs of a module in a call, and the time in it.
struct ModuleAccount {
  std::string name;
  long calls = 0;
  long failed = 0;
  long ticks = 0;
};

// The host's part of a prepared call. It keeps the matrix that the module is given, so that an
// evaluation takes no memory, and the result of the last run, which the bridge reads.
struct TQLCALL {
  std::shared_ptr<TQLMOD> module;
  std::shared_ptr<ModuleAccount> work;  // where its runs are counted
  Matrix argument;
  Matrix result;
};

// An unnamed work file, in memory or on the disk.
struct WorkFile {
  explicit WorkFile(embed::Task& task) : owner(task) {}
  ~WorkFile();
  WorkFile(const WorkFile&) = delete;
  WorkFile& operator=(const WorkFile&) = delete;

  embed::Task& owner;
  std::vector<char> bytes;  // in memory: the contents
  int disk = -1;            // on the disk: descriptor
  std::size_t size = 0;
  std::size_t position = 0;
};

// A delivery object or, when table is set, an open table.
struct RvxObject {
  enum class Kind { delivery, table };
  // Where the cell of a column is read from when a row is added.
  using Source = std::variant<const char*, const double*, const long*, const int*, const RvxText*>;

  Kind kind = Kind::delivery;
  Table table;
  std::vector<Source> sources;
};

namespace embed {

// Head of a block of the task's memory; the block's bytes follow. Blocks stand in a ring with the
// head that their frame holds.
struct alignas(std::max_align_t) Block {
  Block* previous = this;
  Block* next = this;
  std::size_t bytes = 0;
  Task* owner = nullptr;
};

struct Frame {
  Block blocks;  // ring of the blocks taken by this call
  std::list<std::unique_ptr<WorkFile>> files;
  std::list<std::unique_ptr<RvxObject>> reports;
  std::list<std::unique_ptr<TQLCALL>> prepared;
  std::vector<Matrix> results;  // their numbers stay where they are when it grows
  double no_numbers = 0.0;      // where the numbers of a result without any would stand
  std::exception_ptr thrown;    // what a module or the sink threw: the call ends, and rethrows it
  std::string thrown_by;        // who that was, as the subject of a sentence
  bool sink_threw = false;      // it gets nothing more of this call
  bool history_begun = false;   // a history of this call has rows: a further one goes on with it
  int exit_state = 0;           // of the last run module
  TQLSS* current = nullptr;     // the current prepared call
  TQLTASK record{};             // what the module sees through tqlq
  const TQLCALL* failed = nullptr;  // the last run of a module, if it gave no value
  std::size_t first_log = 0;        // where the log of this call begins,
  std::size_t first_printed = 0;    // its printed lines
  std::size_t first_table = 0;      // and its tables
};

// The k-th operation of a kind fails; the countdown is negative when no fault is planned.
struct Countdown {
  long left = -1;
  bool onwards = false;
  long done = 0;  // operations of this kind so far

  // Counts one operation; must it fail?
  bool strikes() {
    ++done;
    if (left < 0) return false;
    if (left > 0) {
      --left;
      return false;
    }
    if (!onwards) left = -1;
    return true;
  }
};

// Charges time to whom it belongs: at each switch, what has passed since the last goes to the
// account that was open. Two switches stand around every run of a module, so that time is counted
// in ticks of the processor, which are cheap to read, and turned into seconds by the clock readings
// at the ends of the outermost call.
class TimeAccount {
 public:
  // Opens an account, null for none; returns the one that was open.
  long* open(long* account) {
    const long now = ticks();
    if (open_ != nullptr) *open_ += now - since_;
    since_ = now;
    return std::exchange(open_, account);
  }

  // Between begin and end lies an outermost call.
  void begin();
  void end() { seconds_per_tick_ = measured(); }

  // Seconds of an account, also while a call runs.
  double seconds(long account) const;

 private:
  static long ticks() {
#if defined(__x86_64__)
    return static_cast<long>(__builtin_ia32_rdtsc());
#else
    return static_cast<long>(std::chrono::steady_clock::now().time_since_epoch().count());
#endif
  }
  double measured() const;

  long* open_ = nullptr;
  long since_ = 0;
  long first_tick_ = 0;
  std::chrono::steady_clock::time_point began_;
  double seconds_per_tick_ = 0.0;
};

// Opens an account for a scope.
class Charge {
 public:
  Charge(TimeAccount& clock, long* account) : clock_(clock), outer_(clock.open(account)) {}
  ~Charge() { clock_.open(outer_); }
  Charge(const Charge&) = delete;
  Charge& operator=(const Charge&) = delete;

 private:
  TimeAccount& clock_;
  long* outer_;
};

// What the sink of a session got last in the present outermost call.
enum class SinkLast { nothing, message, table, history };

struct Task {
  Task();
  ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  Frame& frame() { return frames.back(); }

  std::size_t work_file_memory = std::size_t{1} << 30;  // [bytes] of work files that stay in memory
  std::size_t work_file_bytes = 0;  // [bytes] that they take; declared before the frames, whose
                                    // files count down at their end
  std::deque<Frame> frames;         // the bottom frame and one a running call; addresses stay
  std::map<std::string, std::shared_ptr<TQLMOD>> modules;
  std::map<std::string, TQLSYM> variables;
  std::map<std::string, int> debug_options;
  std::vector<LogRecord> log;
  std::vector<Table> tables;
  std::vector<LogRecord> printed;
  std::vector<std::size_t> printed_after;  // number of tables before each printed line
  std::unordered_map<std::size_t, std::size_t> logged_at;  // numbered lines: hash, place in the log
  std::size_t table_rows = 0;                              // of all tables
  long calls_left_out = 0;                           // nested calls that left no report behind
  std::vector<std::shared_ptr<ModuleAccount>> work;  // of the last call
  long ticks_in_library = 0;
  long ticks_in_sink = 0;
  TimeAccount clock;
  std::shared_ptr<const Session::Sink> sink;  // null: none
  std::exception_ptr sink_exception;          // that it threw last in this call
  bool in_sink = false;                       // it runs: what it causes is not given to it
  SinkLast sink_last = SinkLast::nothing;
  const RvxObject* sink_history = nullptr;       // the history whose row the sink got last
  int (*math_error)(const WTMTHERR*) = nullptr;  // handler of math errors; null: not trapped
  Countdown faults[fault_kinds];
  Counters counters;
  double clock_ahead = 0.0;     // seconds that tests add to the clock
  std::recursive_mutex in_use;  // held by the thread that runs calls
};

// The active task of this thread, or the thread's own when no session is active.
Task& current_task();

// What the tasks that this thread makes for a scope begin with, and what becomes of it: a run of
// the named face has a task of its own, which is gone when a test could look.
class Watch {
 public:
  Watch();
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  Countdown faults[fault_kinds];
  Counters counters{};

 private:
  Watch* outer_;
};

// Makes a task the active one of this thread for a scope.
class Activation {
 public:
  explicit Activation(Task& task);
  ~Activation();
  Activation(const Activation&) = delete;
  Activation& operator=(const Activation&) = delete;

 private:
  Task* outer_;
};

// A frame for the call of a scope. At its end, what the call left behind is freed and counted.
class FrameScope {
 public:
  explicit FrameScope(Task& task);
  ~FrameScope();
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Task& task_;
};

// A call leaves the floating-point flags of its caller as they were: its own arithmetic must not
// look like an error of a module that makes the call.
class FlagKeeper {
 public:
  FlagKeeper() { std::fegetexceptflag(&flags_, FE_ALL_EXCEPT); }
  ~FlagKeeper() { std::fesetexceptflag(&flags_, FE_ALL_EXCEPT); }
  FlagKeeper(const FlagKeeper&) = delete;
  FlagKeeper& operator=(const FlagKeeper&) = delete;

 private:
  std::fexcept_t flags_;
};

// Moves a block from the frame of its call to the bottom frame: it outlives the call.
void keep_block(Task& task, void* data);

// Frees the blocks of a frame. Returns how many there were, and adds up their bytes.
long release_blocks(Frame& frame, long* bytes);

// Hands on the tables that the current call left open, as far as they have rows.
void hand_on_open_tables(Task& task);

// Is this line in the log too? Known without a search.
bool is_in_log(const Task& task, const LogRecord& line);

// Appends a line to the log, and gives it to the sink.
void add_log(Task& task, LogRecord line);
void add_log(Task& task, int group, int number, Severity severity, std::string text);

// What the sink gets: a line of the log, a printed line, a table that is complete (or the history,
// whose rows it has), and the last row of a history.
void give_log_line(Task& task, const LogRecord& line);
void give_printed_line(Task& task, const LogRecord& line);
void give_table(Task& task, const RvxObject& table);
void give_history_row(Task& task, const RvxObject& table);

// A name as the language keeps it: upper case, without blanks at the end.
std::string language_name(std::string name);

}  // namespace embed
}  // namespace tqnlp
