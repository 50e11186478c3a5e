#include "problems/problem.h"

namespace tqnlp::test {

double Problem::evaluate(const double* x, double* gradient, double* hessian) const {
  std::vector<Jet> point;
  for (long i = 0; i < n; ++i) point.push_back(Jet::variable(x[i], i, n));
  const Jet result = jet(point.data());
  for (long i = 0; gradient != nullptr && i < n; ++i) gradient[i] = result.gradient(i);
  for (long k = 0; hessian != nullptr && k < packed_size(n); ++k) hessian[k] = result.hessian(k);
  return result.value();
}

}  // namespace tqnlp::test
