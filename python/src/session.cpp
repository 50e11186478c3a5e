// The language face: sessions with Python functions as modules.
#include <pybind11/stl.h>

#include <cmath>

#include "convert.h"

namespace tqnlp::python {

// ---- Matrices -----------------------------------------------------------------------------------

// A number that is none becomes the missing value.
static Matrix as_matrix(const py::object& value, const std::string& name) {
  if (value.is_none()) return {};
  if (py::isinstance<py::str>(value)) return Matrix(value.cast<std::string>());
  const auto plain = py::array::ensure(value);
  const bool numbers = plain && std::string("biuf").find(plain.dtype().kind()) != std::string::npos;
  if (!numbers) {
    PyErr_Clear();
    throw py::type_error(name + " must be an array of numbers, a name or None, not " +
                         std::string(py::repr(py::type::of(value))));
  }
  const auto array = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(plain);
  if (array.ndim() > 2)
    throw py::value_error(name + " must have one or two dimensions, not the shape " +
                          std::string(py::str(array.attr("shape"))));
  std::vector<double> by_rows(array.data(), array.data() + array.size());
  for (double& number : by_rows)
    if (std::isnan(number)) number = missing;
  const long rows = array.ndim() == 2 ? array.shape(0) : 1;
  const long cols = array.ndim() == 0 ? 1 : array.shape(array.ndim() - 1);
  if (rows * cols == 0) return {};
  return {rows, cols, std::move(by_rows)};
}

static py::array_t<double> as_array(const Matrix& matrix) {
  py::array_t<double> array({matrix.rows(), matrix.cols()});
  if (!matrix.empty()) std::copy(matrix.begin(), matrix.end(), array.mutable_data());
  return array;
}

// ---- Modules ------------------------------------------------------------------------------------

static Session::Function module_body(const std::string& name, const py::object& body) {
  const auto points = make_held<PointArray>();
  const auto function = make_held<Function>("module " + name, body, py::tuple());
  return [points, function](const Matrix& x) {
    const Interpreter lock;
    const auto size = static_cast<std::size_t>(x.size());
    const py::object answer = (*function)(*points, {x.data(), size});
    if (PyFloat_Check(answer.ptr())) return Matrix::scalar(PyFloat_AS_DOUBLE(answer.ptr()));
    return as_matrix(answer, "what " + function->name() + " returns");
  };
}

static Session::Termination termination_body(const py::object& body) {
  const auto function = make_held<py::object>(body);
  return [function](const Matrix& x, double objective) {
    const Interpreter lock;
    const auto point = as_array(x).attr("ravel")();
    PyObject* answer = PyObject_CallFunction(function->ptr(), "Od", point.ptr(), objective);
    if (answer == nullptr) throw_raised();
    const auto owned = py::reinterpret_steal<py::object>(answer);
    check_signals();
    return returned_number(owned, "the termination module");
  };
}

// ---- Calls --------------------------------------------------------------------------------------

static py::list call(Session& session, const std::string& subroutine, const py::args& arguments) {
  std::vector<Matrix> matrices;
  for (std::size_t k = 0; k < arguments.size(); ++k)
    matrices.push_back(as_matrix(arguments[k], subroutine + ", argument " + std::to_string(k + 1)));
  std::vector<Matrix> results;
  {
    const py::gil_scoped_release others_run;
    results = session.call(subroutine, std::move(matrices));
  }
  py::list list;
  for (const Matrix& result : results) list.append(as_array(result));
  return list;
}

void bind_session(py::module_& module) {
  py::class_<Session>(module, "Session")
      .def(py::init<>())
      .def("module", [](Session& session, const std::string& name,
                        const py::object& body) { session.module(name, module_body(name, body)); })
      .def("termination_module",
           [](Session& session, const std::string& name, const py::object& body) {
             session.termination_module(name, termination_body(body));
           })
      .def("remove_module", &Session::remove_module)
      .def("has_module", &Session::has_module)
      .def("call", &call)
      .def("sink", [](Session& session, const py::object& w) { session.sink(make_sink(w)); })
      .def("variable", [](const Session& session,
                          const std::string& name) { return as_array(session.variable(name)); })
      .def("log", [](const Session& session) { return as_list(session.log()); })
      .def("tables", [](const Session& session) { return as_list(session.tables()); })
      .def("report", [](const Session& session) { return text_report(session); })
      .def("json", [](const Session& session) { return json_report(session); });
}

}  // namespace tqnlp::python
