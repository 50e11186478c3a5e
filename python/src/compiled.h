// Functions of C, called without the interpreter: what Numba, Cython, ctypes and
// scipy.LowLevelCallable hold.
#pragma once

#include "functions.h"

namespace tqnlp::python {

// Forms of the functions that are taken. _compiled.py reads them off a signature.
struct CompiledForm {
  bool number;     // double (n, x), or else void (n, x, values)
  bool wide;       // n is 64 bits wide, or else an int
  bool with_data;  // a void pointer comes last
};

class Compiled {
 public:
  Compiled(std::size_t address, std::size_t data, CompiledForm form, py::object source)
      : address_(address), data_(data), form_(form), source_(std::move(source)) {}

  // Either form; a number fills one value. x must not be changed by the function.
  void operator()(Point x, Values values) const;

 private:
  std::size_t address_;
  std::size_t data_;
  CompiledForm form_;
  py::object source_;  // keeps the code
};

void bind_compiled(py::module_& module);

}  // namespace tqnlp::python
