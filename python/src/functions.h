// Python functions as the functions of a run: points as NumPy arrays, answers as doubles.
//
// A run holds no interpreter lock; a call takes it and gives it back. The point is handed over in
// one read-only array that serves every call. Who keeps it, or a view of it, keeps what he saw: the
// next call then gets a fresh one.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <memory>
#include <string>
#include <vector>

#include "tqnlp/optimize.hpp"
#include "watch.h"

namespace tqnlp::python {

namespace py = pybind11;

// Where the interpreter ends while this thread still runs (a daemon thread), it has taken the lock
// from it and unwinds it: such a thread waits for the end of the process, as nothing of Python may
// be touched any more.
void stay_if_abandoned();

// The interpreter lock, taken by any thread, also by one that has it.
class Interpreter {
 public:
  Interpreter() : state_(PyGILState_Ensure()) {}
  ~Interpreter() {
    stay_if_abandoned();
    PyGILState_Release(state_);
  }
  Interpreter(const Interpreter&) = delete;
  Interpreter& operator=(const Interpreter&) = delete;

 private:
  PyGILState_STATE state_;
};

// What holds Python objects and may be released where the lock is not held.
template <class T, class... Arguments>
std::shared_ptr<T> make_held(Arguments&&... arguments) {
  return {new T(std::forward<Arguments>(arguments)...), [](T* object) {
            const Interpreter lock;
            delete object;
          }};
}

class PointArray {
 public:
  PyObject* at(Point x);

 private:
  py::array_t<double> array_;
};

// A Python function under the name that errors call it by. All of it needs the lock.
class Function {
 public:
  Function(std::string name, py::object body, const py::tuple& further_arguments);

  // Throws EvaluationFailed, py::error_already_set; the latter also for a signal such as Ctrl-C.
  py::object operator()(PointArray& points, Point x);
  const std::string& name() const { return name_; }
  const py::object& body() const { return body_; }

  // Shows the collector of cycles what this holds.
  int traverse(visitproc visit, void* arg) const;

  // The first call gets this answer if it is at this point, at which the function was called
  // before.
  void know(const py::array_t<double>& at, py::object answer);

 private:
  py::object take_known(Point x);

  std::string name_;
  py::object body_;
  py::tuple further_;
  std::vector<PyObject*> arguments_;  // a free place, the point, the further ones
  std::vector<double> known_at_;
  py::object known_;
};

// What the calls of all functions of a run share, and the functions themselves.
struct Calls {
  PointArray points;
  Watch watch;
  std::vector<std::weak_ptr<Function>> functions{};
};

// The exception EvaluationFailed of the package.
py::object& evaluation_failed();

// Throws what Python has raised; EvaluationFailed as the one of the library.
[[noreturn]] void throw_raised();

// A returned number: a float, or what has one element. A returned array of rows x cols numbers
// (cols 0: a vector). Both refuse what has another type or shape by TypeError and ValueError.
double returned_number(py::handle value, const std::string& name);
void returned_array(const py::object& value, const std::string& name, long rows, long cols,
                    Values out);

// The functions of a problem.
Problem::Objective objective(std::shared_ptr<Calls> calls, std::shared_ptr<Function> body);
Problem::Function filling(std::shared_ptr<Calls> calls, std::shared_ptr<Function> body, long rows,
                          long cols);

// One function that answers value and gradient: each point is evaluated once.
struct ObjectiveWithGradient {
  Problem::Objective objective;
  Problem::Function gradient;
};
ObjectiveWithGradient objective_with_gradient(std::shared_ptr<Calls> calls,
                                              std::shared_ptr<Function> body, long n);

}  // namespace tqnlp::python
