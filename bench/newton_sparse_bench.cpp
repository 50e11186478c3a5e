// The linear algebra of one iteration of NEWRAP with a sparse Hessian, in the calls that it makes:
// reduction to the free parameters, scale, factorization, step. Beside it the simplicial LL' of
// CHOLMOD on the same matrix, factorization and solve; the analysis of both is done before, as it
// is once for a run. One thread each.
//
// The matrix is that of a grid of m x m points with a nonlinear term on the diagonal. Counters:
// entries of the factor, and megabytes that either side holds for matrix, factor and patterns.
#include <benchmark/benchmark.h>
#include <suitesparse/cholmod.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/post/znlpspm.h"
#include "embed/task.h"
#include "host/memory.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "tqnlp/tqnlp.hpp"

namespace {

using namespace tqnlp;

// Rows (i, j, value), lower triangle.
std::vector<double> grid_triples(long m) {
  std::vector<double> t;
  const auto add = [&t](long i, long j, double v) {
    t.insert(t.end(), {static_cast<double>(i + 1), static_cast<double>(j + 1), v});
  };
  for (long v = 0; v < m * m; ++v) {
    add(v, v, 4.0 + 0.1 * std::exp(std::sin(static_cast<double>(v))));
    if (v % m != 0) add(v, v - 1, -1.0);
    if (v >= m) add(v, v - m, -1.0);
  }
  return t;
}

constexpr double MEGA = 1e-6;

// ---- Ours ---------------------------------------------------------------------------------------

// A record with the arrays of a sparse run; one parameter in bounded is at its bound (0: no
// bounds).
struct Run {
  Session session;
  embed::Activation activation{session.task()};
  MINSTR str{};
  std::vector<double> triples, vectors, factor, room, values;
  std::vector<long> order, iwk;
  std::vector<int> status;

  Run(long m, long bounded) : triples(grid_triples(m)) {
    const long n = str.nvar = m * m;
    str.nnva = packed_size(n);
    str.tech = NEWRAP;
    str.sing = 1e-8;
    str.ratio = 0.5;
    str.ddif = 1e-6;
    str.crit = 1.0;
    str.bounds = bounded != 0 ? 1 : 0;
    vectors.assign(6 * n, 1.0);
    str.grad = vectors.data();
    str.gold = str.grad + n;
    str.sdir = str.gold + n;
    str.work = str.sdir + n;
    str.dsca = str.work + n;
    order.resize(n);
    iwk.resize(n + 1);
    status.resize(n);
    str.ifxr = order.data();
    str.iwk = iwk.data();
    str.iabc = status.data();
    long free = 0;
    for (long v = 0; v < n; ++v)
      if (bounded != 0 && v % bounded == 0) {
        status[v] = 1;
        order[n - ++str.nabc] = v;
      } else {
        order[free++] = v;
      }
    str.hess = triples.data();
    if (znlpspm(&str, 0, 1, SPM_TRIPLES, static_cast<long>(triples.size() / 3)) != 0) std::abort();
    values.assign(str.hess, str.hess + str.shes.mxja);
    vmfree_handler(str.hess);
    room.resize(bounded != 0 ? str.shes.mxja : 0);
    str.hess = values.data();
    str.hpro = room.data();
    factor.resize(str.shes.mxju);
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() { release_pattern(&str.shes); }

  // hess is overwritten by its reduction, and loaded afresh in every iteration.
  bool iterate(const std::vector<double>& loaded) {
    std::copy(loaded.begin(), loaded.end(), values.begin());
    const int icho = str.bounds != 0 ? 7 : 6;
    znlphgp(&str, 1, 1, str.gold, str.hess, str.hess);
    znlphs2(&str, 1, str.gold);
    const long free = free_count(&str);
    double logdet = 0.0;
    if (znlpcde(&str, icho, free, str.sing, &logdet, str.hess, factor.data(), nullptr) != 0)
      return false;
    if (znlpsdi(&str, 1, 0, icho, free, str.sdir, str.gold, factor.data()) != 0) return false;
    benchmark::ClobberMemory();
    return true;
  }
  double megabytes() const {
    const SPAR& s = str.shes;
    const long longs = s.mxja + s.mxju + 2 * str.nvar + (str.bounds != 0 ? s.mxja + s.mxju : 0);
    return 8.0 * MEGA *
           static_cast<double>(longs +
                               static_cast<long>(values.size() + factor.size() + room.size()));
  }
};

void ours(benchmark::State& state, long bounded) {
  Run run(std::lround(std::sqrt(static_cast<double>(state.range(0)))), bounded);
  const std::vector<double> loaded = run.values;
  for (auto _ : state)
    if (!run.iterate(loaded)) state.SkipWithError("not positive definite");
  state.counters["entries"] = static_cast<double>(run.str.shes.jusp[run.str.nvar] - 1);
  state.counters["megabytes"] = run.megabytes();
}

void ours_analysis(benchmark::State& state) {
  Run run(std::lround(std::sqrt(static_cast<double>(state.range(0)))), 0);
  for (auto _ : state) {
    run.str.hess = run.triples.data();
    znlpspm(&run.str, 0, 0, SPM_PLACES, static_cast<long>(run.triples.size() / 3));
  }
}

// ---- CHOLMOD ------------------------------------------------------------------------------------

struct Peer {
  cholmod_common common{};
  cholmod_sparse* a = nullptr;
  cholmod_factor* factor = nullptr;
  cholmod_dense *b = nullptr, *x = nullptr, *y = nullptr, *e = nullptr;

  explicit Peer(long m) {
    cholmod_start(&common);
    common.supernodal = CHOLMOD_SIMPLICIAL;
    common.final_ll = 1;
    common.nmethods = 1;
    common.method[0].ordering = CHOLMOD_AMD;
    const std::vector<double> t = grid_triples(m);
    const std::size_t n = static_cast<std::size_t>(m * m), nz = t.size() / 3;
    cholmod_triplet* triplet = cholmod_allocate_triplet(n, n, nz, -1, CHOLMOD_REAL, &common);
    for (std::size_t k = 0; k < nz; ++k) {
      static_cast<int*>(triplet->i)[k] = static_cast<int>(t[3 * k]) - 1;
      static_cast<int*>(triplet->j)[k] = static_cast<int>(t[3 * k + 1]) - 1;
      static_cast<double*>(triplet->x)[k] = t[3 * k + 2];
    }
    triplet->nnz = nz;
    a = cholmod_triplet_to_sparse(triplet, 0, &common);
    cholmod_free_triplet(&triplet, &common);
    analyse();
    b = cholmod_ones(n, 1, CHOLMOD_REAL, &common);
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer() {
    for (cholmod_dense** d : {&b, &x, &y, &e}) cholmod_free_dense(d, &common);
    cholmod_free_factor(&factor, &common);
    cholmod_free_sparse(&a, &common);
    cholmod_finish(&common);
  }
  void analyse() {
    cholmod_free_factor(&factor, &common);
    factor = cholmod_analyze(a, &common);
  }
  void iterate() {
    cholmod_factorize(a, factor, &common);
    cholmod_solve2(CHOLMOD_A, factor, b, nullptr, &x, nullptr, &y, &e, &common);
  }
};

void peer(benchmark::State& state) {
  Peer s(std::lround(std::sqrt(static_cast<double>(state.range(0)))));
  for (auto _ : state) s.iterate();
  state.counters["entries"] = s.common.lnz;
  state.counters["megabytes"] = MEGA * static_cast<double>(s.common.memory_inuse);
}

void peer_analysis(benchmark::State& state) {
  Peer s(std::lround(std::sqrt(static_cast<double>(state.range(0)))));
  for (auto _ : state) s.analyse();
}

void add(const std::string& operation, void (*our_run)(benchmark::State&), long bounded,
         void (*peer_run)(benchmark::State&)) {
  for (long m : {50, 100, 200, 300}) {
    const auto set = [m](benchmark::internal::Benchmark* b) {
      b->Arg(m * m)->Unit(benchmark::kMillisecond);
    };
    set(our_run != nullptr
            ? benchmark::RegisterBenchmark((operation + "/ours").c_str(), our_run)
            : benchmark::RegisterBenchmark((operation + "/ours").c_str(), ours, bounded));
    set(benchmark::RegisterBenchmark((operation + "/peer").c_str(), peer_run));
  }
}

}  // namespace

int main(int argc, char** argv) {
  add("newton_analysis", ours_analysis, 0, peer_analysis);
  add("newton_iteration", nullptr, 0, peer);
  add("newton_iteration_few_at_bounds", nullptr, 20, peer);
  add("newton_iteration_half_at_bounds", nullptr, 2, peer);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
