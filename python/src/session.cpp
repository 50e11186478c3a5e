// The language face: sessions with Python functions as modules.
#include <pybind11/stl.h>

#include <cmath>

#include "convert.h"
#include "cycles.h"

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

namespace {

// A session, and what its modules are made of, for the collector of cycles.
struct Held {
  Session session;
  std::vector<std::weak_ptr<Function>> functions;
};

}  // namespace

static std::shared_ptr<Function> hold(Held& held, const std::string& name, const py::object& body) {
  auto function = make_held<Function>(name, body, py::tuple());
  std::erase_if(held.functions, [](const auto& one) { return one.expired(); });
  held.functions.push_back(function);
  return function;
}

static Session::Function module_body(Held& held, const std::string& name, const py::object& body) {
  const auto points = make_held<PointArray>();
  const auto function = hold(held, "module " + name, body);
  return [points, function](const Matrix& x) {
    const Interpreter lock;
    const auto size = static_cast<std::size_t>(x.size());
    const py::object answer = (*function)(*points, {x.data(), size});
    if (PyFloat_Check(answer.ptr())) return Matrix::scalar(PyFloat_AS_DOUBLE(answer.ptr()));
    return as_matrix(answer, "what " + function->name() + " returns");
  };
}

static Session::Termination termination_body(Held& held, const std::string& name,
                                             const py::object& body) {
  const auto function = hold(held, "termination module " + name, body);
  return [function](const Matrix& x, double objective) {
    const Interpreter lock;
    const auto point = as_array(x).attr("ravel")();
    PyObject* answer = PyObject_CallFunction(function->body().ptr(), "Od", point.ptr(), objective);
    if (answer == nullptr) throw_raised();
    const auto owned = py::reinterpret_steal<py::object>(answer);
    check_signals();
    return returned_number(owned, "the termination module");
  };
}

// ---- Calls --------------------------------------------------------------------------------------

static py::list call(Held& held, const std::string& subroutine, const py::args& arguments) {
  std::vector<Matrix> matrices;
  for (std::size_t k = 0; k < arguments.size(); ++k)
    matrices.push_back(as_matrix(arguments[k], subroutine + ", argument " + std::to_string(k + 1)));
  std::vector<Matrix> results;
  {
    const py::gil_scoped_release others_run;
    results = held.session.call(subroutine, std::move(matrices));
  }
  py::list list;
  for (const Matrix& result : results) list.append(as_array(result));
  return list;
}

static int traverse_session(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  const Held* held = made<Held>(self);
  return held == nullptr ? 0 : traverse(held->functions, visit, arg);
}

static int clear_session(PyObject* self) {
  if (Held* held = made<Held>(self)) held->session = Session();
  return 0;
}

void bind_session(py::module_& module) {
  const auto of = [](auto member) {
    return [member](const Held& held) { return member(held.session); };
  };
  py::class_<Held>(module, "Session", collected(traverse_session, clear_session))
      .def(py::init<>())
      .def("module",
           [](Held& held, const std::string& name, const py::object& body) {
             held.session.module(name, module_body(held, name, body));
           })
      .def("termination_module",
           [](Held& held, const std::string& name, const py::object& body) {
             held.session.termination_module(name, termination_body(held, name, body));
           })
      .def("remove_module",
           [](Held& held, const std::string& name) { return held.session.remove_module(name); })
      .def("has_module",
           [](const Held& held, const std::string& name) { return held.session.has_module(name); })
      .def("call", &call)
      .def("sink", [](Held& held, const py::object& w) { held.session.sink(make_sink(w)); })
      .def("variable",
           [](const Held& held, const std::string& name) {
             return as_array(held.session.variable(name));
           })
      .def("log", of([](const Session& session) { return as_list(session.log()); }))
      .def("tables", of([](const Session& session) { return as_list(session.tables()); }))
      .def("report", of([](const Session& session) { return text_report(session); }))
      .def("json", of([](const Session& session) { return json_report(session); }));
}

}  // namespace tqnlp::python
