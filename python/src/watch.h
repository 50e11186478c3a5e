// What ends a run from outside: a signal such as Ctrl-C, and a flag that another thread sets.
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <memory>

namespace tqnlp::python {

namespace py = pybind11;

// Ends the runs that hold it when it is set.
class StopFlag {
 public:
  void set() { set_->store(true, std::memory_order_relaxed); }
  bool is_set() const { return set_->load(std::memory_order_relaxed); }

 private:
  std::shared_ptr<std::atomic<bool>> set_ = std::make_shared<std::atomic<bool>>(false);
};

// Throws what a signal handler has raised. Needs the interpreter lock.
void check_signals();

// Looks for both in a run that holds no lock. Signals are handled on the main thread alone, and
// there about every millisecond a clock is read, every 50 ms the lock is taken.
class Watch {
 public:
  // Made on the thread of the run, with the lock held.
  Watch();
  void stop_at(StopFlag flag) { flag_ = std::move(flag); }

  // Throws py::error_already_set: KeyboardInterrupt, or what a handler raised.
  void look() {
    if (flag_.is_set()) stop();
    if (main_thread_ && --calls_left_ <= 0) look_at_clock();
  }

 private:
  using Clock = std::chrono::steady_clock;
  [[noreturn]] static void stop();
  void look_at_clock();

  StopFlag flag_;
  bool main_thread_;
  int calls_left_ = 1;
  int stride_ = 1;  // calls between two looks at the clock
  Clock::time_point last_look_ = Clock::now();
  Clock::time_point last_check_ = Clock::now();
};

}  // namespace tqnlp::python
