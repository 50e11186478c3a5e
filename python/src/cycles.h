// Types of the extension that take part in the collection of cycles. An object that keeps its
// result, or its session, whose functions are methods of the object, is a cycle through the
// library: the collector is shown the functions, each of which one object of the type holds.
#pragma once

#include "functions.h"

namespace tqnlp::python {

// The C++ part of an object; null while it is not made yet.
template <class T>
T* made(PyObject* self) {
  try {
    return py::cast<T*>(py::handle(self));
  } catch (const std::exception&) {
    return nullptr;
  }
}

int traverse(const std::vector<std::weak_ptr<Function>>& functions, visitproc visit, void* arg);

inline py::custom_type_setup collected(traverseproc traverse, inquiry clear) {
  return py::custom_type_setup([=](PyHeapTypeObject* heap_type) {
    PyTypeObject& type = heap_type->ht_type;
    type.tp_flags |= Py_TPFLAGS_HAVE_GC;
    type.tp_traverse = traverse;
    type.tp_clear = clear;
  });
}

}  // namespace tqnlp::python
