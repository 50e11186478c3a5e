// NLPQUA on obstacle and torsion problems over grids, whole calls, beside one simplicial LL'
// factorization of the full matrix by CHOLMOD with its analysis. One thread each.
//
// Counters of ours: iterations, which bounds the factorizations; parameters at a bound in the end;
// seconds for each hundred of them; the largest element of the projected gradient at the result;
// megabytes that the process grew to in the call, triplets included. Of the peer: entries of its
// factor and megabytes that it holds.
#include <benchmark/benchmark.h>
#include <suitesparse/cholmod.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "problems/quadratic.h"
#include "tqnlp/tqnlp.hpp"

namespace {

using namespace tqnlp;
using problems::GridProgram;

constexpr double MEGA = 1e-6;

double process_megabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return 1e3 * MEGA * static_cast<double>(usage.ru_maxrss);
}

double projected_gradient(const GridProgram& q, const Matrix& x) {
  std::vector<double> g = q.linear;
  for (std::size_t k = 0; k < q.triplets.size(); k += 3) {
    const auto i = static_cast<std::size_t>(q.triplets[k]) - 1;
    const auto j = static_cast<std::size_t>(q.triplets[k + 1]) - 1;
    g[i] += q.triplets[k + 2] * x[static_cast<long>(j)];
    if (i != j) g[j] += q.triplets[k + 2] * x[static_cast<long>(i)];
  }
  double largest = 0.0;
  for (std::size_t k = 0; k < g.size(); ++k) {
    const double at = x[static_cast<long>(k)];
    const double step = std::clamp(at - g[k], q.lower[k], q.upper[k]) - at;
    largest = std::max(largest, std::fabs(step));
  }
  return largest;
}

void ours(benchmark::State& state, GridProgram (*make)(long)) {
  const GridProgram q = make(std::lround(std::sqrt(static_cast<double>(state.range(0)))));
  const Matrix h(static_cast<long>(q.triplets.size()) / 3, 3, q.triplets);
  Matrix bounds(2, q.n);
  for (long j = 0; j < q.n; ++j) {
    const auto k = static_cast<std::size_t>(j);
    bounds(0, j) = std::isfinite(q.lower[k]) ? q.lower[k] : missing;
    bounds(1, j) = std::isfinite(q.upper[k]) ? q.upper[k] : missing;
  }
  const double before = process_megabytes();
  double iterations = 0.0;
  long active = 0;
  Matrix x;
  for (auto _ : state) {
    Session tql;
    const auto results = tql.call("NLPQUA", {h, Matrix::row(q.start), Matrix::row({0, 0}), bounds,
                                             Matrix(), Matrix(), Matrix(), Matrix::row(q.linear)});
    if (results[0][0] <= 0.0) state.SkipWithError("not solved");
    x = results[1];
    iterations = tql.variable("_ITER_")[0];
  }
  for (long j = 0; j < q.n; ++j) active += x[j] == bounds(0, j) || x[j] == bounds(1, j) ? 1 : 0;
  state.counters["iterations"] = iterations;
  state.counters["active"] = static_cast<double>(active);
  state.counters["s_per_hundred"] = benchmark::Counter(
      static_cast<double>(active) / 100.0,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["projected_gradient"] = projected_gradient(q, x);
  state.counters["megabytes"] = process_megabytes() - before;
}

// One factorization, with its analysis, of the whole matrix.
void peer(benchmark::State& state, GridProgram (*make)(long)) {
  const GridProgram q = make(std::lround(std::sqrt(static_cast<double>(state.range(0)))));
  cholmod_common common{};
  cholmod_start(&common);
  common.supernodal = CHOLMOD_SIMPLICIAL;
  common.final_ll = 1;
  common.nmethods = 1;
  common.method[0].ordering = CHOLMOD_AMD;
  const std::size_t n = static_cast<std::size_t>(q.n), nz = q.triplets.size() / 3;
  cholmod_triplet* triplet = cholmod_allocate_triplet(n, n, nz, -1, CHOLMOD_REAL, &common);
  for (std::size_t k = 0; k < nz; ++k) {
    static_cast<int*>(triplet->i)[k] = static_cast<int>(q.triplets[3 * k]) - 1;
    static_cast<int*>(triplet->j)[k] = static_cast<int>(q.triplets[3 * k + 1]) - 1;
    static_cast<double*>(triplet->x)[k] = q.triplets[3 * k + 2];
  }
  triplet->nnz = nz;
  cholmod_sparse* a = cholmod_triplet_to_sparse(triplet, 0, &common);
  cholmod_free_triplet(&triplet, &common);
  cholmod_factor* factor = nullptr;
  for (auto _ : state) {
    cholmod_free_factor(&factor, &common);
    factor = cholmod_analyze(a, &common);
    cholmod_factorize(a, factor, &common);
  }
  state.counters["entries"] = common.lnz;
  state.counters["megabytes"] = MEGA * static_cast<double>(common.memory_inuse);
  cholmod_free_factor(&factor, &common);
  cholmod_free_sparse(&a, &common);
  cholmod_finish(&common);
}

void add(const std::string& operation, GridProgram (*make)(long)) {
  for (long side : {50, 100, 200, 316}) {
    for (const bool own : {true, false}) {
      const std::string name = operation + (own ? "/ours" : "/peer");
      benchmark::RegisterBenchmark(name.c_str(), own ? ours : peer, make)
          ->Arg(side * side)
          ->Unit(benchmark::kMillisecond);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  add("obstacle", problems::obstacle_program);
  add("torsion", problems::torsion_program);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
