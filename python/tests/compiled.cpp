// Functions of C for the tests of the Python package.
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

extern "C" {

double rosen(int, double* x) {
  return 100 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1 - x[0], 2);
}

void rosen_gradient(int, double* x, double* g) {
  const double a = x[1] - x[0] * x[0];
  g[0] = -400 * x[0] * a - 2 * (1 - x[0]);
  g[1] = 200 * a;
}

void rosen_hessian(long, double* x, double* h) {
  h[0] = 1200 * x[0] * x[0] - 400 * x[1] + 2;
  h[1] = h[2] = -400 * x[0];
  h[3] = 200;
}

void rosen_residuals(int, double* x, double* r, void* scale) {
  const double s = *static_cast<double*>(scale);
  r[0] = s * 10 * (x[1] - x[0] * x[0]);
  r[1] = s * (1 - x[0]);
}

double disk(int, const double* x) { return 1 - x[0] * x[0] - x[1] * x[1]; }

// Waits for a call from a second thread; without one there is no value.
double meet(int, double* x, void* callers) {
  auto& count = *static_cast<std::atomic<int>*>(callers);
  ++count;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (count < 2 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return count < 2 ? NAN : x[0] * x[0];
}

double slow(int n, double* x) {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  double sum = 0;
  for (int j = 0; j < n; ++j) sum += (j + 1) * x[j] * x[j];
  return sum;
}
}
