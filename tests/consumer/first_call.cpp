// A first call as the header shows it, with a Newton technique and the derivatives it asks for.
#include <cmath>
#include <iostream>
#include <tqnlp/tqnlp.hpp>

using tqnlp::Matrix;

int first_call();

int first_call() {
  tqnlp::Session tql;
  tql.module("ROSEN", [](const Matrix& x) {
    const double a = x(0, 0), b = x(0, 1);
    return Matrix::scalar(100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a));
  });
  tql.module("GRAD", [](const Matrix& x) {
    const double a = x(0, 0), b = x(0, 1);
    return Matrix::row({-400 * a * (b - a * a) - 2 * (1 - a), 200 * (b - a * a)});
  });
  tql.module("HESS", [](const Matrix& x) {
    const double a = x(0, 0), b = x(0, 1);
    return Matrix::of({{1200 * a * a - 400 * b + 2, -400 * a}, {-400 * a, 200}});
  });
  const auto results = tql.call("NLPNRR", {"ROSEN", Matrix::row({-1.2, 1.0}), Matrix::row({0, 2}),
                                           Matrix(), Matrix(), Matrix(), Matrix(), "GRAD", "HESS"});
  std::cout << tqnlp::text_report(tql) << "\nx = " << results[1];
  const bool solved = results[0](0, 0) > 0 && std::fabs(results[1](0, 0) - 1) < 1e-4;
  return solved ? 0 : 1;
}
