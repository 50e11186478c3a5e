// Problems, options and results between Python's dictionaries and the named face.
#pragma once

#include "functions.h"

namespace tqnlp::python {

// What the package's Python part has made of the arguments of a call: "kind", "n" and what belongs
// to it, as _problem.py lists them. Shapes have been checked there.
Problem make_problem(const py::dict& said, const std::shared_ptr<Calls>& calls);

// Options by the names of the face; others are refused. "progress" is a function of (x, fun,
// iteration, calls, gradient) whose True ends the run, "sink" one of a line.
Options make_options(const py::dict& said, const std::shared_ptr<Calls>& calls);
std::vector<std::string> option_names();

py::dict as_dict(const Result& result, const std::shared_ptr<Calls>& calls);
// The statistics of a result, for its field "fit" (statistics.cpp).
py::object make_fit(const Result& result, const std::shared_ptr<Calls>& calls);
void bind_statistics(py::module_& module);
py::list as_list(const std::vector<LogRecord>& log);
py::list as_list(const std::vector<Table>& tables);
py::array_t<double> as_array(const std::vector<double>& values);

// The starts of each solution, the best first, of one result of the package a start.
std::vector<std::vector<long>> merged_starts(const py::list& ends);

// The lines of a report, to a Python function.
Session::Sink make_sink(const py::object& write);

// The language face (session.cpp).
void bind_session(py::module_& module);

}  // namespace tqnlp::python
