// Rosenbrock's function as modules F, G and H of a session.
#pragma once

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {

inline double rosenbrock(double a, double b) {
  return 100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a);
}

struct NamedModule {
  const char* name;
  Matrix (*body)(const Matrix& x);
};

inline const NamedModule ROSENBROCK[] = {
    {"F", [](const Matrix& x) { return Matrix::scalar(rosenbrock(x[0], x[1])); }},
    {"G",
     [](const Matrix& x) {
       const double rise = x[1] - x[0] * x[0];
       return Matrix::row({-400 * x[0] * rise - 2 * (1 - x[0]), 200 * rise});
     }},
    {"H", [](const Matrix& x) {
       const double a = 1200 * x[0] * x[0] - 400 * x[1] + 2;
       return Matrix(2, 2, {a, -400 * x[0], -400 * x[0], 200});
     }}};

inline void define_rosenbrock(Session& session) {
  for (const NamedModule& module : ROSENBROCK) session.module(module.name, module.body);
}

}  // namespace tqnlp::test
