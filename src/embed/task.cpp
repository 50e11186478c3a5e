// task: the active task of a thread, the frames of its calls, planned failures and counters.
//
// The only state that is shared by several functions without being passed on is the pointer to the
// active task, one a thread, and that to what watches new tasks in tests. Each is set for the
// length of a call and put back by the scope that set it, so that calls on several sessions can
// stand inside one another.
#include "embed/task.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace tqnlp::embed {

static thread_local Task* active_task = nullptr;

// The thread's own task is made when it is needed first, and goes with the thread.
Task& current_task() {
  if (active_task != nullptr) return *active_task;
  static thread_local Task own;
  return own;
}

static thread_local Watch* watch = nullptr;

Watch::Watch() : outer_(std::exchange(watch, this)) {}
Watch::~Watch() { watch = outer_; }

Task::Task() {
  frames.emplace_back();
  if (watch != nullptr) std::ranges::copy(watch->faults, faults);
}

// Memory that was taken without a call, and the values of the variables.
Task::~Task() {
  long bytes = 0;
  for (Frame& frame : frames) release_blocks(frame, &bytes);
  if (watch == nullptr) return;
  std::ranges::copy(faults, watch->faults);
  watch->counters = counters;
}

Activation::Activation(Task& task) : outer_(active_task) { active_task = &task; }
Activation::~Activation() { active_task = outer_; }

void TimeAccount::begin() {
  began_ = std::chrono::steady_clock::now();
  first_tick_ = ticks();
}

double TimeAccount::measured() const {
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - began_;
  const long counted = ticks() - first_tick_;
  return counted > 0 ? passed.count() / static_cast<double>(counted) : 0.0;
}

double TimeAccount::seconds(long account) const {
  return static_cast<double>(account) * (open_ != nullptr ? measured() : seconds_per_tick_);
}

// An outermost call starts the count of what is left behind; calls within it add to the count.
FrameScope::FrameScope(Task& task) : task_(task) {
  if (task.frames.size() == 1) {
    task.counters.blocks_left = task.counters.bytes_left = task.counters.files_left = 0;
    task.clock.begin();
  }
  Frame& frame = task.frames.emplace_back();
  frame.first_log = task.log.size();
  frame.first_printed = task.printed.size();
  frame.first_table = task.tables.size();
}

FrameScope::~FrameScope() {
  Frame& frame = task_.frame();
  task_.counters.blocks_left += release_blocks(frame, &task_.counters.bytes_left);
  task_.counters.files_left += static_cast<long>(frame.files.size());
  task_.frames.pop_back();
  if (task_.frames.size() > 1) return;
  task_.sink_exception = nullptr;
  task_.clock.end();
}

static std::size_t hash_of(const LogRecord& line) {
  constexpr std::size_t NUMBERS = 1000;  // of a group, at least
  return std::hash<std::string>()(line.text) + static_cast<std::size_t>(line.group) * NUMBERS +
         static_cast<std::size_t>(line.number);
}

// The place may be gone or taken by another line, where the reports of nested calls were left out.
static bool stands_at(const Task& task, std::size_t place, const LogRecord& line) {
  if (place >= task.log.size()) return false;
  const LogRecord& there = task.log[place];
  return there.group == line.group && there.number == line.number && there.text == line.text;
}

bool is_in_log(const Task& task, const LogRecord& line) {
  if (line.group == 0) return false;
  const auto found = task.logged_at.find(hash_of(line));
  return found != task.logged_at.end() && stands_at(task, found->second, line);
}

void add_log(Task& task, LogRecord line) {
  if (line.group != 0 && !is_in_log(task, line)) task.logged_at[hash_of(line)] = task.log.size();
  task.log.push_back(std::move(line));
  if (task.sink != nullptr) give_log_line(task, LogRecord(task.log.back()));
}

void add_log(Task& task, int group, int number, Severity severity, std::string text) {
  add_log(task, {group, number, severity, std::move(text)});
}

// Letters of ASCII alone: a locale would change bytes within a character of several bytes.
std::string language_name(std::string name) {
  while (!name.empty() && name.back() == ' ') name.pop_back();
  std::transform(name.begin(), name.end(), name.begin(), [](char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return name;
}

void plan_fault(Task& task, Fault kind, long k, bool onwards) {
  Countdown& countdown = task.faults[static_cast<int>(kind)];
  countdown.left = k;
  countdown.onwards = onwards;
}

void clear_faults(Task& task) {
  for (Countdown& countdown : task.faults) countdown.left = -1;
}

bool fault_pending(const Task& task, Fault kind) {
  return task.faults[static_cast<int>(kind)].left >= 0;
}

long operations(const Task& task, Fault kind) { return task.faults[static_cast<int>(kind)].done; }

Counters counters(const Task& task) { return task.counters; }

void advance_clock(Task& task, double seconds) { task.clock_ahead += seconds; }

}  // namespace tqnlp::embed
