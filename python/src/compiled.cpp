#include "compiled.h"

#include <bit>

namespace tqnlp::python {

template <class Count, class... Data>
static void call(std::size_t address, bool number, Point x, Values values, Data... data) {
  auto* const point = const_cast<double*>(x.data());
  const auto n = static_cast<Count>(x.size());
  if (number)
    values[0] = std::bit_cast<double (*)(Count, double*, Data...)>(address)(n, point, data...);
  else
    std::bit_cast<void (*)(Count, double*, double*, Data...)>(address)(n, point, values.data(),
                                                                       data...);
}

void Compiled::operator()(Point x, Values values) const {
  auto* const data = std::bit_cast<void*>(data_);
  if (form_.wide && form_.with_data)
    call<long>(address_, form_.number, x, values, data);
  else if (form_.wide)
    call<long>(address_, form_.number, x, values);
  else if (form_.with_data)
    call<int>(address_, form_.number, x, values, data);
  else
    call<int>(address_, form_.number, x, values);
}

// ---- For Python ---------------------------------------------------------------------------------

static py::array_t<double> values_at(const Compiled& compiled, const py::array_t<double>& x,
                                     py::ssize_t count) {
  py::array_t<double> values(count);
  compiled({x.data(), static_cast<std::size_t>(x.size())},
           {values.mutable_data(), static_cast<std::size_t>(count)});
  return values;
}

// Signature, address and user data of a capsule.
static py::tuple read_capsule(const py::object& capsule) {
  const char* name = PyCapsule_GetName(capsule.ptr());
  if (name == nullptr && PyErr_Occurred() != nullptr) throw py::error_already_set();
  void* address = PyCapsule_GetPointer(capsule.ptr(), name);
  if (address == nullptr) throw py::error_already_set();
  void* data = PyCapsule_GetContext(capsule.ptr());
  return py::make_tuple(name == nullptr ? "" : name, std::bit_cast<std::size_t>(address),
                        std::bit_cast<std::size_t>(data));
}

void bind_compiled(py::module_& module) {
  py::class_<Compiled>(module, "Compiled")
      .def(py::init([](std::size_t address, std::size_t data, bool number, bool wide,
                       bool with_data, py::object source) {
        return Compiled(address, data, {number, wide, with_data}, std::move(source));
      }))
      .def("values", &values_at);
  module.def("read_capsule", &read_capsule);
}

}  // namespace tqnlp::python
