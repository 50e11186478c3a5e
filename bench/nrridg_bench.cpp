// Work per iteration of NRRIDG: one O(n^3) reduction, and O(n^2) for every further ridge trial.
//
// Each run makes one iteration on a convex function whose evaluation fails the first `extra` times,
// so that it solves with 1 + extra ridges, and reduces two Hessians: at the start and at the new
// point. The time of an extra trial is the difference between runs with and without them.
#include <benchmark/benchmark.h>

#include <cmath>

#include "aasubs/newton/znlpnrr.h"
#include "support/record.h"

namespace tqnlp {

static int go_on(MINSTR* str, int /*job*/) { return str->nitr >= 1.0 ? 1 : 0; }

static void run_iterations(benchmark::State& state) {
  const long n = state.range(0);
  const long extra = state.range(1);
  test::TestRecord record(n);
  long failures = 0;
  std::vector<double> hessian(static_cast<std::size_t>(packed_size(n)), 0.1);
  for (long i = 0; i < n; ++i) hessian[static_cast<std::size_t>(zisub(i, i))] = double(n + i);
  record.f = [&](const double* x) {
    if (record.ifdr == ORDER_FUNCTION && record.nhes > 0 && failures < extra) {
      ++failures;
      return MISSING;
    }
    double sum = 0.0;
    for (long i = 0; i < n; ++i) sum += x[i] * x[i];
    return std::log1p(sum);
  };
  record.g = [n](const double* x, double* g) {
    for (long i = 0; i < n; ++i) g[i] = x[i];
  };
  record.h = [&](const double*, double* h) {
    failures = 0;
    std::copy(hessian.begin(), hessian.end(), h);
  };
  record.with_callbacks();
  record.uster = go_on;
  for (auto _ : state) {
    record.at(std::vector<double>(static_cast<std::size_t>(n), 1.0));
    record.nhes = 0;
    benchmark::DoNotOptimize(znlpnrr(&record));
  }
  state.counters["s_per_run"] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(run_iterations)
    ->ArgNames({"n", "extra"})
    ->ArgsProduct({{50, 100, 200, 400, 800}, {0, 16}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace tqnlp

BENCHMARK_MAIN();
