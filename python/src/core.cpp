// The extension module tqnlp._core: what the Python part of the package calls.
#include <pybind11/stl.h>

#include "compiled.h"
#include "convert.h"

namespace tqnlp::python {

// What was found until an exception, on the exception, if that takes attributes.
static void attach(const py::object& raised, const py::dict& partial) {
  if (PyObject_SetAttrString(raised.ptr(), "partial", partial.ptr()) != 0) PyErr_Clear();
}

// Runs with the lock released. An exception of a function carries what was found until then.
static py::dict run(const py::dict& problem_said, std::vector<double> start,
                    const py::dict& options_said, const StopFlag& stop) {
  const auto calls = make_held<Calls>();
  calls->watch.stop_at(stop);
  const Problem problem = make_problem(problem_said, calls);
  Options options = make_options(options_said, calls);
  Result partial;
  options.partial = &partial;
  try {
    Result found;
    {
      const py::gil_scoped_release others_run;
      found = solve(problem, std::move(start), options);
    }
    return as_dict(found, calls);
  } catch (py::error_already_set& raised) {
    attach(raised.value(), as_dict(partial, calls));
    throw;
  } catch (const py::builtin_exception& refused) {  // of what a function returned
    refused.set_error();
    py::error_already_set raised;
    if (!partial.x.empty()) attach(raised.value(), as_dict(partial, calls));
    throw raised;
  }
}

static py::tuple check(const py::dict& problem_said, std::vector<double> x,
                       const py::dict& options_said) {
  const auto calls = make_held<Calls>();
  const Problem problem = make_problem(problem_said, calls);
  const Options options = make_options(options_said, calls);
  const DerivativeCheck found = [&] {
    const py::gil_scoped_release others_run;
    return check_derivatives(problem, std::move(x), options);
  }();
  py::list wrong;
  for (std::size_t k = 0; k < found.wrong.size(); ++k) {
    const DerivativeElement& one = found.wrong[k];
    wrong.append(py::make_tuple(found.summary.rows[k][0], one.row, one.parameter, one.given,
                                one.difference, one.error));
  }
  return py::make_tuple(wrong, found.compared, found.left_out);
}

// Errors of the library with their code and log on them.
template <class Error>
static void raise(const py::object& type, const Error& error) {
  py::object raised = type(error.what());
  raised.attr("code") = error.code();
  raised.attr("log") = as_list(error.log());
  PyErr_SetObject(type.ptr(), raised.ptr());
}

static py::object& error_types(int which) {
  static auto* const types = new py::object[2];  // CallError, FatalError
  return types[which];
}

static void bind_errors(py::module_& module) {
  const auto make = [&](const char* name, PyObject* base, const char* says) {
    const std::string full = std::string("tqnlp.") + name;
    auto type = py::reinterpret_steal<py::object>(
        PyErr_NewExceptionWithDoc(full.c_str(), says, base, nullptr));
    module.attr(name) = type;
    return type;
  };
  evaluation_failed() =
      make("EvaluationFailed", PyExc_ArithmeticError,
           "Raised by a user's function that has no value at a point: the run backs up.");
  error_types(0) = make("CallError", PyExc_ValueError,
                        "A subroutine refused its call. Attributes: code (int), log (list).");
  error_types(1) = make("FatalError", PyExc_RuntimeError,
                        "A run could not go on. Attributes: code (int), log (list).");
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      std::rethrow_exception(thrown);
    } catch (const CallError& error) {
      raise(error_types(0), error);
    } catch (const FatalError& error) {
      raise(error_types(1), error);
    }
  });
}

static std::vector<std::string> technique_names() {
  return {
#define TQNLP_NAME(name) #name,
      TQNLP_FACE_TECHNIQUES(TQNLP_NAME)
#undef TQNLP_NAME
  };
}

static void bind_stop_flag(py::module_& module) {
  py::class_<StopFlag>(module, "StopFlag")
      .def(py::init<>())
      .def("set", &StopFlag::set)
      .def("is_set", &StopFlag::is_set)
      // In another process it is one of its own.
      .def(py::pickle([](const StopFlag&) { return py::tuple(); },
                      [](const py::tuple&) { return StopFlag(); }));
}

PYBIND11_MODULE(_core, module) {
  stay_if_abandoned();  // remembers the thread
  bind_errors(module);
  bind_session(module);
  bind_compiled(module);
  bind_stop_flag(module);
  bind_statistics(module);
  using namespace py::literals;
  module.def("solve", &run, "problem"_a, "start"_a, "options"_a, "stop"_a = StopFlag());
  module.def("check_derivatives", &check);
  module.def("merged_starts", &merged_starts);
  module.attr("TECHNIQUES") = technique_names();
  module.attr("OPTIONS") = option_names();
}

}  // namespace tqnlp::python
