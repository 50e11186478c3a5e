// The sparse Cholesky against CHOLMOD's simplicial LL' (its own AMD ordering), and the dense
// indefinite factorization against LAPACK's packed dsptrf and dsptrs. One thread each; set
// OPENBLAS_NUM_THREADS=1.
//
// Sparse cases are 2-D Laplacians on a square of m by m points: order n = m^2. Ordering and
// symbolic factorization are timed apart from the numeric work, as a run does them once for many
// factorizations.
//
// The ordering walks lists from vertex to vertex in no order of memory. Its indices are the 64-bit
// ones of the patterns that it is given, those of the peer have 32 bits: from about n = 2e5 on our
// graph fills the caches twice over, and the peer is ahead (0.6 to 0.8 of its speed), while both
// are alike at n = 2500. To keep the quantities of a vertex side by side gained nothing that could
// be measured at 2.5e5 and lost a twentieth at 2500. Only a copy of the pattern in short indices
// would help, for which the caller's work arrays have no room.
#include <benchmark/benchmark.h>
#include <suitesparse/cholmod.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "aasubs/record/packed.h"
#include "kernels/indefinite.h"
#include "kernels/sparse.h"

extern "C" {
void dsptrf_(const char* uplo, const int* n, double* ap, int* ipiv, int* info);
void dsptrs_(const char* uplo, const int* n, const int* nrhs, const double* ap, const int* ipiv,
             double* b, const int* ldb, int* info);
}

namespace {

using namespace tqnlp;

struct Triples {
  std::vector<long> row, column;
  std::vector<double> value;
  void add(long i, long j, double v) {
    row.push_back(i);
    column.push_back(j);
    value.push_back(v);
  }
};

Triples laplacian(long m) {
  Triples t;
  for (long v = 0; v < m * m; ++v) {
    t.add(v, v, 4.01);
    if (v % m != 0) t.add(v, v - 1, -1.0);
    if (v >= m) t.add(v, v - m, -1.0);
  }
  return t;
}

long side(const benchmark::State& state) {
  return std::lround(std::sqrt(static_cast<double>(state.range(0))));
}

// ---- Ours --------------------------------------------------------------------------------------

struct OurSystem {
  long n;
  std::vector<long> ja, iprm, perm, cnt, graph, node, next, ju;
  std::vector<double> a, u, b;

  explicit OurSystem(long m)
      : n(m * m), iprm(n), perm(n), cnt(3 * n + 3), node(3 * n + 3), next(3 * n + 3), b(n, 1.0) {
    const Triples t = laplacian(m);
    const long nz = static_cast<long>(t.row.size());
    ja.resize(n + 1 + nz);
    a.resize(ja.size());
    zslltco(1, n, nz, t.row.data(), t.column.data(), t.value.data(), ja.data(), a.data());
    graph.resize(2 * (ja[n] - n - 1) + n + 1);
    analyse();
  }
  void analyse() {
    order();
    long room = n + 1;
    ju.resize(room);
    if (symbolic(room) != 0) {
      room = ju[n];
      ju.resize(room);
      symbolic(room);
    }
    u.resize(room);
  }
  void order() {
    zslumdg(n, static_cast<long>(graph.size()), ja.data(), iprm.data(), perm.data(), cnt.data(),
            graph.data(), node.data(), next.data(), 1);
  }
  int symbolic(long room) {
    return zslltsf(n, room, iprm.data(), perm.data(), cnt.data(), graph.data(), node.data(),
                   next.data(), ju.data());
  }
  int factor() {
    return zslltnf(1, 0, n, 1e-12, ja.data(), ju.data(), perm.data(), a.data(), u.data());
  }
  void solve() { zslltso(n, perm.data(), ju.data(), u.data(), b.data()); }
};

void ours_analyse(benchmark::State& state) {
  OurSystem s(side(state));
  for (auto _ : state) {
    s.order();
    s.symbolic(static_cast<long>(s.ju.size()));
  }
  state.counters["entries"] = static_cast<double>(s.ju[s.n] - 1);
}

void ours_factor(benchmark::State& state) {
  OurSystem s(side(state));
  for (auto _ : state)
    if (s.factor() != 0) state.SkipWithError("not positive definite");
}

void ours_solve(benchmark::State& state) {
  OurSystem s(side(state));
  s.factor();
  for (auto _ : state) {
    std::fill(s.b.begin(), s.b.end(), 1.0);
    s.solve();
    benchmark::ClobberMemory();
  }
}

void ours_factor_and_solve(benchmark::State& state) {
  OurSystem s(side(state));
  for (auto _ : state) {
    std::fill(s.b.begin(), s.b.end(), 1.0);
    s.factor();
    s.solve();
    benchmark::ClobberMemory();
  }
}

// ---- CHOLMOD -----------------------------------------------------------------------------------

struct PeerSystem {
  cholmod_common common{};
  cholmod_sparse* a = nullptr;
  cholmod_factor* factor = nullptr;
  cholmod_dense* b = nullptr;

  explicit PeerSystem(long m) {
    cholmod_start(&common);
    common.supernodal = CHOLMOD_SIMPLICIAL;
    common.final_ll = 1;
    common.nmethods = 1;
    common.method[0].ordering = CHOLMOD_AMD;
    const Triples t = laplacian(m);
    const size_t n = static_cast<size_t>(m * m);
    cholmod_triplet* triplet =
        cholmod_allocate_triplet(n, n, t.row.size(), -1, CHOLMOD_REAL, &common);
    for (size_t k = 0; k < t.row.size(); ++k) {
      static_cast<int*>(triplet->i)[k] = static_cast<int>(t.row[k]);
      static_cast<int*>(triplet->j)[k] = static_cast<int>(t.column[k]);
      static_cast<double*>(triplet->x)[k] = t.value[k];
    }
    triplet->nnz = t.row.size();
    a = cholmod_triplet_to_sparse(triplet, 0, &common);
    cholmod_free_triplet(&triplet, &common);
    factor = cholmod_analyze(a, &common);
    b = cholmod_ones(n, 1, CHOLMOD_REAL, &common);
  }
  PeerSystem(const PeerSystem&) = delete;
  PeerSystem& operator=(const PeerSystem&) = delete;
  ~PeerSystem() {
    cholmod_free_dense(&b, &common);
    cholmod_free_factor(&factor, &common);
    cholmod_free_sparse(&a, &common);
    cholmod_finish(&common);
  }
  // With room for the solution kept between calls.
  void solve(cholmod_dense** x, cholmod_dense** y, cholmod_dense** e) {
    cholmod_solve2(CHOLMOD_A, factor, b, nullptr, x, nullptr, y, e, &common);
  }
};

void peer_analyse(benchmark::State& state) {
  PeerSystem s(side(state));
  for (auto _ : state) {
    cholmod_factor* f = cholmod_analyze(s.a, &s.common);
    cholmod_free_factor(&f, &s.common);
  }
  state.counters["entries"] = s.common.lnz;
}

void peer_factor(benchmark::State& state) {
  PeerSystem s(side(state));
  for (auto _ : state) cholmod_factorize(s.a, s.factor, &s.common);
}

void peer_solve(benchmark::State& state) {
  PeerSystem s(side(state));
  cholmod_factorize(s.a, s.factor, &s.common);
  cholmod_dense *x = nullptr, *y = nullptr, *e = nullptr;
  for (auto _ : state) s.solve(&x, &y, &e);
  for (cholmod_dense** d : {&x, &y, &e}) cholmod_free_dense(d, &s.common);
}

void peer_factor_and_solve(benchmark::State& state) {
  PeerSystem s(side(state));
  cholmod_dense *x = nullptr, *y = nullptr, *e = nullptr;
  for (auto _ : state) {
    cholmod_factorize(s.a, s.factor, &s.common);
    s.solve(&x, &y, &e);
  }
  for (cholmod_dense** d : {&x, &y, &e}) cholmod_free_dense(d, &s.common);
}

// ---- Dense indefinite --------------------------------------------------------------------------

// Random matrices are indefinite and need blocks of order 2 throughout; kind 1 has a heavy diagonal
// of both signs, as Hessians near a saddle have.
std::vector<double> indefinite(long n, int kind) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  std::vector<double> a(packed_size(n));
  for (double& v : a) v = uniform(random);
  if (kind == 1)
    for (long i = 0; i < n; ++i) a[zisub(i, i)] += (i % 3 ? 1.0 : -1.0) * static_cast<double>(n);
  return a;
}

void ours_udu_factor(benchmark::State& state, int kind) {
  const long n = state.range(0);
  const std::vector<double> start = indefinite(n, kind);
  std::vector<double> a = start;
  std::vector<long> h(n);
  for (auto _ : state) {
    std::copy(start.begin(), start.end(), a.begin());
    zududec(n, 0.0, nullptr, a.data(), h.data());
    benchmark::ClobberMemory();
  }
}

void peer_udu_factor(benchmark::State& state, int kind) {
  const int n = static_cast<int>(state.range(0));
  const std::vector<double> start = indefinite(n, kind);
  std::vector<double> a = start;
  std::vector<int> h(n);
  int info = 0;
  for (auto _ : state) {
    std::copy(start.begin(), start.end(), a.begin());
    dsptrf_("U", &n, a.data(), h.data(), &info);
    benchmark::ClobberMemory();
  }
}

void ours_udu_solve(benchmark::State& state, int kind) {
  const long n = state.range(0);
  std::vector<double> a = indefinite(n, kind), b(n);
  std::vector<long> h(n);
  zududec(n, 0.0, nullptr, a.data(), h.data());
  for (auto _ : state) {
    std::fill(b.begin(), b.end(), 1.0);
    zudusol(n, 1, n, a.data(), b.data(), h.data());
    benchmark::ClobberMemory();
  }
}

void peer_udu_solve(benchmark::State& state, int kind) {
  const int n = static_cast<int>(state.range(0)), one = 1;
  std::vector<double> a = indefinite(n, kind), b(n);
  std::vector<int> h(n);
  int info = 0;
  dsptrf_("U", &n, a.data(), h.data(), &info);
  for (auto _ : state) {
    std::fill(b.begin(), b.end(), 1.0);
    dsptrs_("U", &n, &one, a.data(), h.data(), b.data(), &n, &info);
    benchmark::ClobberMemory();
  }
}

// Rows are named operation/ours/n and operation/peer/n.
using Run = void (*)(benchmark::State&);
using RunKind = void (*)(benchmark::State&, int kind);

void add_grids(const std::string& operation, Run ours, Run peer) {
  for (const auto& [name, run] : {std::pair{"/ours", ours}, std::pair{"/peer", peer}}) {
    auto* b = benchmark::RegisterBenchmark((operation + name).c_str(), run);
    for (long m : {10, 20, 50, 100, 200, 300, 500}) b->Arg(m * m);
    b->Unit(benchmark::kMicrosecond);
  }
}

void add_orders(const std::string& operation, int kind, RunKind ours, RunKind peer) {
  for (const auto& [name, run] : {std::pair{"/ours", ours}, std::pair{"/peer", peer}}) {
    auto* b = benchmark::RegisterBenchmark((operation + name).c_str(), run, kind);
    for (long n : {2, 5, 10, 20, 50, 100, 200, 500, 1000}) b->Arg(n);
  }
}

}  // namespace

int main(int argc, char** argv) {
  add_grids("grid_analyse", ours_analyse, peer_analyse);
  add_grids("grid_factor", ours_factor, peer_factor);
  add_grids("grid_solve", ours_solve, peer_solve);
  add_grids("grid_factor_and_solve", ours_factor_and_solve, peer_factor_and_solve);
  add_orders("zududec_random", 0, ours_udu_factor, peer_udu_factor);
  add_orders("zududec_heavy_diagonal", 1, ours_udu_factor, peer_udu_factor);
  add_orders("zudusol_random", 0, ours_udu_solve, peer_udu_solve);
  add_orders("zudusol_heavy_diagonal", 1, ours_udu_solve, peer_udu_solve);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
