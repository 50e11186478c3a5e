#include "watch.h"

#include <algorithm>

#include "functions.h"

namespace tqnlp::python {

void check_signals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

static bool on_main_thread() {
  const py::object main = py::module_::import("threading").attr("main_thread")();
  return main.attr("ident").cast<unsigned long>() == PyThread_get_thread_ident();
}

Watch::Watch() : main_thread_(on_main_thread()) {}

void Watch::stop() {
  const Interpreter lock;
  PyErr_SetString(PyExc_KeyboardInterrupt, "the run was stopped");
  throw py::error_already_set();
}

// Quick functions are not slowed by readings of the clock; of slow ones each call is followed by
// one.
void Watch::look_at_clock() {
  using namespace std::chrono_literals;
  static constexpr int MOST_CALLS = 64;
  static constexpr auto QUICK = 1ms, PERIOD = 50ms;
  const auto now = Clock::now();
  stride_ = now - last_look_ < QUICK ? std::min(2 * stride_, MOST_CALLS) : 1;
  calls_left_ = stride_;
  last_look_ = now;
  if (now - last_check_ < PERIOD) return;
  last_check_ = now;
  const Interpreter lock;
  check_signals();
}

}  // namespace tqnlp::python
