// Calls of Python functions, and what may come back from them.
#include "functions.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include "cycles.h"

namespace tqnlp::python {

// ---- The point ----------------------------------------------------------------------------------

PyObject* PointArray::at(Point x) {
  const bool kept = array_.ptr() == nullptr || Py_REFCNT(array_.ptr()) > 1;
  if (kept || array_.size() != static_cast<py::ssize_t>(x.size())) {
    array_ = py::array_t<double>(static_cast<py::ssize_t>(x.size()));
    py::detail::array_proxy(array_.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
  }
  std::memcpy(const_cast<double*>(array_.data()), x.data(), x.size_bytes());
  return array_.ptr();
}

// ---- The interpreter ----------------------------------------------------------------------------

static bool is_finalizing() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing() != 0;
#else
  return _Py_IsFinalizing() != 0;
#endif
}

void stay_if_abandoned() {
  static const auto main_thread = std::this_thread::get_id();  // of the import
  while (is_finalizing() && std::this_thread::get_id() != main_thread)
    std::this_thread::sleep_for(std::chrono::hours(1));
}

// ---- Calls --------------------------------------------------------------------------------------

py::object& evaluation_failed() {
  static auto* const exception = new py::object;  // outlives the interpreter
  return *exception;
}

void throw_raised() {
  if (PyErr_ExceptionMatches(evaluation_failed().ptr()) != 0) {
    PyErr_Clear();
    throw EvaluationFailed();
  }
  throw py::error_already_set();
}

Function::Function(std::string name, py::object body, const py::tuple& further_arguments)
    : name_(std::move(name)), body_(std::move(body)), further_(further_arguments) {
  if (PyCallable_Check(body_.ptr()) == 0)
    throw py::type_error(name_ + " must be a function, not " +
                         std::string(py::str(py::type::of(body_).attr("__name__"))));
  arguments_.assign(2, nullptr);
  for (const py::handle argument : further_) arguments_.push_back(argument.ptr());
}

void Function::know(const py::array_t<double>& at, py::object answer) {
  known_at_.assign(at.data(), at.data() + at.size());
  known_ = std::move(answer);
}

py::object Function::take_known(Point x) {
  py::object answer = std::move(known_);
  return std::equal(x.begin(), x.end(), known_at_.begin(), known_at_.end()) ? answer : py::object();
}

int Function::traverse(visitproc visit, void* arg) const {
  Py_VISIT(body_.ptr());
  Py_VISIT(further_.ptr());
  return 0;
}

int traverse(const std::vector<std::weak_ptr<Function>>& functions, visitproc visit, void* arg) {
  for (const auto& held : functions) {
    const auto function = held.lock();
    const int code = function != nullptr ? function->traverse(visit, arg) : 0;
    if (code != 0) return code;
  }
  return 0;
}

// The arguments are copied, as the function may run again within itself.
py::object Function::operator()(PointArray& points, Point x) {
  if (known_)
    if (auto answer = take_known(x)) return answer;
  PyObject* point = points.at(x);
  const std::size_t count = (arguments_.size() - 1) | PY_VECTORCALL_ARGUMENTS_OFFSET;
  PyObject* answer = nullptr;
  if (arguments_.size() == 2) {
    PyObject* one[] = {nullptr, point};
    answer = PyObject_Vectorcall(body_.ptr(), one + 1, count, nullptr);
  } else {
    std::vector<PyObject*> all = arguments_;
    all[1] = point;
    answer = PyObject_Vectorcall(body_.ptr(), all.data() + 1, count, nullptr);
  }
  if (answer == nullptr) throw_raised();
  auto owned = py::reinterpret_steal<py::object>(answer);
  check_signals();
  return owned;
}

// ---- Answers ------------------------------------------------------------------------------------

static std::string type_of(py::handle value) {
  return std::string(py::str(py::type::of(value).attr("__name__")));
}

static std::string shape_of(const py::array& array) {
  return std::string(py::str(array.attr("shape")));
}

// NumPy would take None for a NaN.
static bool all_numbers(const py::array& objects) {
  for (const py::handle element : objects.attr("ravel")())
    if (PyNumber_Check(element.ptr()) == 0) return false;
  return true;
}

// An array of doubles, by rows. What is no number, or a complex one, is refused.
static py::array_t<double> as_doubles(const py::object& value, const std::string& name) {
  py::object dense = value;
  if (!py::isinstance<py::array>(value) && py::hasattr(value, "toarray"))
    dense = value.attr("toarray")();  // a sparse matrix
  const auto plain = py::array::ensure(dense);
  const char kind = plain ? plain.dtype().kind() : '?';
  if (std::strchr("biufO", kind) == nullptr) {
    PyErr_Clear();
    throw py::type_error(
        name + " must return numbers, not " +
        (plain ? "an array of type " + std::string(py::str(plain.dtype())) : type_of(value)));
  }
  if (kind != 'O' || all_numbers(plain)) {
    auto doubles = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(plain);
    if (doubles) return doubles;
    PyErr_Clear();
  }
  throw py::type_error(name + " must return numbers, not an array of objects");
}

double returned_number(py::handle value, const std::string& name) {
  if (PyFloat_Check(value.ptr())) return PyFloat_AS_DOUBLE(value.ptr());
  if (PyLong_Check(value.ptr())) {
    const double number = PyLong_AsDouble(value.ptr());
    if (number == -1.0 && PyErr_Occurred() != nullptr) throw py::error_already_set();
    return number;
  }
  if (value.is_none()) throw py::type_error(name + " must return a number, not None");
  const auto array = as_doubles(py::reinterpret_borrow<py::object>(value), name);
  if (array.size() != 1)
    throw py::value_error(name + " must return one number, not an array of shape " +
                          shape_of(array));
  return *array.data();
}

static std::string wanted_shape(long rows, long cols) {
  if (cols == 0) return "(" + std::to_string(rows) + ",)";
  return "(" + std::to_string(rows) + ", " + std::to_string(cols) + ")";
}

// The shape, or one that differs in sides of length 1 alone.
static bool has_shape(const py::array& array, long rows, long cols) {
  std::vector<long> has, wants;
  for (py::ssize_t k = 0; k < array.ndim(); ++k)
    if (array.shape(k) != 1) has.push_back(array.shape(k));
  for (const long side : {rows, cols == 0 ? 1 : cols})
    if (side != 1) wants.push_back(side);
  return has == wants;
}

// Doubles in the very shape, as nearly all answers are.
static bool is_ready(const py::object& value, long rows, long cols) {
  if (!py::array_t<double, py::array::c_style>::check_(value)) return false;
  const auto array = py::reinterpret_borrow<py::array>(value);
  if (cols == 0) return array.ndim() == 1 && array.shape(0) == rows;
  return array.ndim() == 2 && array.shape(0) == rows && array.shape(1) == cols;
}

void returned_array(const py::object& value, const std::string& name, long rows, long cols,
                    Values out) {
  if (is_ready(value, rows, cols)) {
    std::memcpy(out.data(), py::reinterpret_borrow<py::array>(value).data(), out.size_bytes());
    return;
  }
  if (value.is_none())
    throw py::type_error(name + " must return an array of shape " + wanted_shape(rows, cols) +
                         ", not None");
  const auto array = as_doubles(value, name);
  if (!has_shape(array, rows, cols))
    throw py::value_error(name + " must return an array of shape " + wanted_shape(rows, cols) +
                          ", not " + shape_of(array));
  std::memcpy(out.data(), array.data(), out.size_bytes());
}

// ---- Functions of a problem ---------------------------------------------------------------------

Problem::Objective objective(std::shared_ptr<Calls> calls, std::shared_ptr<Function> body) {
  return [calls = std::move(calls), body = std::move(body)](Point x) {
    calls->watch.look();
    const Interpreter lock;
    return returned_number((*body)(calls->points, x), body->name());
  };
}

Problem::Function filling(std::shared_ptr<Calls> calls, std::shared_ptr<Function> body, long rows,
                          long cols) {
  return [calls = std::move(calls), body = std::move(body), rows, cols](Point x, Values values) {
    calls->watch.look();
    const Interpreter lock;
    returned_array((*body)(calls->points, x), body->name(), rows, cols, values);
  };
}

namespace {

// The last point that was evaluated.
struct Pair {
  std::vector<double> x;
  std::vector<double> gradient;
  double value = 0.0;
};

}  // namespace

static void evaluate(PointArray& points, Function& body, Point x, Pair* last) {
  if (std::equal(x.begin(), x.end(), last->x.begin(), last->x.end())) return;
  const Interpreter lock;
  last->x.clear();
  const py::object answer = body(points, x);
  if (!PyTuple_Check(answer.ptr()) || PyTuple_GET_SIZE(answer.ptr()) != 2)
    throw py::type_error(body.name() + " must return (value, gradient) where jac is True, not " +
                         type_of(answer));
  const auto pair = py::reinterpret_borrow<py::tuple>(answer);
  last->value = returned_number(pair[0], body.name());
  returned_array(pair[1], "the gradient of " + body.name(), static_cast<long>(x.size()), 0,
                 last->gradient);
  last->x.assign(x.begin(), x.end());
}

ObjectiveWithGradient objective_with_gradient(std::shared_ptr<Calls> calls,
                                              std::shared_ptr<Function> body, long n) {
  const auto last = std::make_shared<Pair>();
  last->gradient.resize(static_cast<std::size_t>(n));
  return {[=](Point x) {
            evaluate(calls->points, *body, x, last.get());
            return last->value;
          },
          [=](Point x, Values values) {
            evaluate(calls->points, *body, x, last.get());
            std::copy(last->gradient.begin(), last->gradient.end(), values.begin());
          }};
}

}  // namespace tqnlp::python
