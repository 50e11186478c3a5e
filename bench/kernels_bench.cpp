// Dense kernels against OpenBLAS and its LAPACK, one size a row. Rows are named
// operation/ours/n and operation/peer/n; bench/report makes ratios of them. Factorizations work on
// a fresh copy of the matrix in every iteration, on both sides.
//
// The crossproduct names the fused operation, on processors that have it and on others. Where the
// peer is not beaten: it fuses each product with its sum into one operation and one
// rounding, which ours do not, since processors without that operation would be slow at it. So
// dot and axpy beside it (n >= 500), the pivoted QR (n >= 500) and the pivoted Cholesky (n = 1000),
// whose large updates are nothing but products and sums, issue twice its instructions and stay
// between 0.9 and 1.0 by what they save elsewhere. The tridiagonal Cholesky is a chain of one
// division, one product and one difference an element on both sides; the roots that our form asks
// for, and the peer's L D L' does not, share the divider (0.94 to 1.0).
#include <benchmark/benchmark.h>
#include <cblas.h>
#include <lapacke.h>

#include <random>
#include <vector>

#include "aasubs/record/packed.h"
#include "kernels/crossproduct.h"
#include "kernels/dense.h"
#include "kernels/vector.h"

extern "C" void openblas_set_num_threads(int count);

namespace {

using namespace tqnlp;
using Vec = std::vector<double>;

Vec random_vector(long n, unsigned seed = 1) {
  std::mt19937 engine(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Vec x(static_cast<std::size_t>(n));
  for (double& value : x) value = uniform(engine);
  return x;
}

// Packed lower by rows, which is LAPACK's packed upper by columns; diagonally dominant in a random
// order of sizes, so that pivoting has work to do.
Vec packed_matrix(long n) {
  Vec a = random_vector(packed_size(n));
  const Vec d = random_vector(n, 2);
  for (long i = 0; i < n; ++i) {
    a[static_cast<std::size_t>(packed_size(i) + i)] =
        static_cast<double>(n) * (2.0 + d[static_cast<std::size_t>(i)]);
  }
  return a;
}

// The same matrix by full columns.
Vec full_matrix(long n) {
  const Vec packed = packed_matrix(n);
  Vec a(static_cast<std::size_t>(n * n));
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j < n; ++j) {
      a[static_cast<std::size_t>(i * n + j)] = packed[static_cast<std::size_t>(zisub(i, j))];
    }
  }
  return a;
}

struct Problem {
  long n;
  int size, one = 1, info = 0;
  MINSTR str{};
  std::vector<long> ipiv;
  std::vector<int> jpvt;
  Vec packed, full, work, x, y, z;

  explicit Problem(const benchmark::State& state)
      : n(state.range(0)),
        size(static_cast<int>(n)),
        ipiv(n),
        jpvt(n),
        x(random_vector(n)),
        y(random_vector(n, 3)),
        z(n) {
    str.ipiv = ipiv.data();
  }
};

// ---- Vectors -----------------------------------------------------------------------------------

void dot_ours(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) benchmark::DoNotOptimize(zvdot11(p.n, p.x.data(), p.y.data()));
}
void dot_peer(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(cblas_ddot(p.size, p.x.data(), 1, p.y.data(), 1));
  }
}
void norm_ours(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) benchmark::DoNotOptimize(zvenorm(p.n, 1, p.x.data()));
}
void norm_peer(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) benchmark::DoNotOptimize(cblas_dnrm2(p.size, p.x.data(), 1));
}
void axpy_ours(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) {
    zvxay11(p.n, p.y.data(), 1e-9, p.x.data());
    benchmark::ClobberMemory();
  }
}
void axpy_peer(benchmark::State& state) {
  Problem p(state);
  for (auto _ : state) {
    cblas_daxpy(p.size, 1e-9, p.x.data(), 1, p.y.data(), 1);
    benchmark::ClobberMemory();
  }
}

// ---- Cholesky ----------------------------------------------------------------------------------

void cholesky_ours(benchmark::State& state) {
  Problem p(state);
  const Vec a = packed_matrix(p.n);
  double logdet = 0.0;
  for (auto _ : state) {
    p.packed = a;
    if (znlpcde(&p.str, 2, p.n, 0.0, &logdet, p.packed.data(), p.packed.data(), nullptr) != 0) {
      state.SkipWithError("not positive definite");
    }
  }
}
void cholesky_peer(benchmark::State& state) {
  Problem p(state);
  const Vec a = packed_matrix(p.n);
  for (auto _ : state) {
    p.packed = a;
    LAPACK_dpptrf("U", &p.size, p.packed.data(), &p.info);
    if (p.info != 0) state.SkipWithError("not positive definite");
  }
}
void pivoted_ours(benchmark::State& state) {
  Problem p(state);
  const Vec a = packed_matrix(p.n);
  double logdet = 0.0;
  for (auto _ : state) {
    p.packed = a;
    if (znlpcde(&p.str, 4, p.n, 0.0, &logdet, p.packed.data(), nullptr, nullptr) != 0) {
      state.SkipWithError("not positive definite");
    }
  }
}
void pivoted_peer(benchmark::State& state) {
  Problem p(state);
  const Vec a = full_matrix(p.n);
  p.work.resize(static_cast<std::size_t>(2 * p.n));
  int rank = 0;
  const double tolerance = 1e-300;
  for (auto _ : state) {
    p.full = a;
    LAPACK_dpstrf("U", &p.size, p.full.data(), &p.size, p.jpvt.data(), &rank, &tolerance,
                  p.work.data(), &p.info);
    if (p.info != 0) state.SkipWithError("not positive definite");
  }
}
void cholesky_solve_ours(benchmark::State& state) {
  Problem p(state);
  p.packed = packed_matrix(p.n);
  double logdet = 0.0;
  znlpcde(&p.str, 2, p.n, 0.0, &logdet, p.packed.data(), p.packed.data(), nullptr);
  for (auto _ : state) {
    p.z = p.x;
    benchmark::DoNotOptimize(znlpcso(&p.str, 2, p.n, p.packed.data(), p.z.data()));
  }
}
void cholesky_solve_peer(benchmark::State& state) {
  Problem p(state);
  p.packed = packed_matrix(p.n);
  LAPACK_dpptrf("U", &p.size, p.packed.data(), &p.info);
  for (auto _ : state) {
    p.z = p.x;
    LAPACK_dpptrs("U", &p.size, &p.one, p.packed.data(), p.z.data(), &p.size, &p.info);
  }
}

// ---- QR ----------------------------------------------------------------------------------------

void qr_ours(benchmark::State& state) {
  Problem p(state);
  const Vec a = random_vector(p.n * p.n);
  Vec alfa(p.n), sum(p.n);
  for (auto _ : state) {
    p.full = a;
    std::fill(p.ipiv.begin(), p.ipiv.end(), 0);
    zqrdec(p.n, p.n, 0, p.n, 1, p.ipiv.data(), 0.0, p.full.data(), nullptr, alfa.data(),
           sum.data());
  }
}
void qr_peer(benchmark::State& state) {
  Problem p(state);
  const Vec a = random_vector(p.n * p.n);
  Vec tau(p.n);
  int length = -1;
  double best = 0.0;
  LAPACK_dgeqp3(&p.size, &p.size, nullptr, &p.size, nullptr, nullptr, &best, &length, &p.info);
  length = static_cast<int>(best);
  p.work.resize(static_cast<std::size_t>(length));
  for (auto _ : state) {
    p.full = a;
    std::fill(p.jpvt.begin(), p.jpvt.end(), 0);
    LAPACK_dgeqp3(&p.size, &p.size, p.full.data(), &p.size, p.jpvt.data(), tau.data(),
                  p.work.data(), &length, &p.info);
  }
}
// ---- Tall matrices: rows and columns -----------------------------------------------------------

struct Tall {
  int m, n, info = 0;
  Vec a, work, result, diagonal, sum;

  explicit Tall(const benchmark::State& state)
      : m(static_cast<int>(state.range(0))),
        n(static_cast<int>(state.range(1))),
        a(random_vector(long{m} * n)),
        work(64 * a.size() / static_cast<std::size_t>(m) + 1000),
        result(static_cast<std::size_t>(n) * static_cast<std::size_t>(n)),
        diagonal(n),
        sum(n) {}
};

void crossproduct_ours(benchmark::State& state) {
  Tall t(state);
  for (auto _ : state) {
    crossproduct(t.m, t.n, t.a.data(), nullptr, nullptr, t.result.data());
    benchmark::ClobberMemory();
  }
}
void crossproduct_peer(benchmark::State& state) {
  Tall t(state);
  for (auto _ : state) {
    cblas_dsyrk(CblasRowMajor, CblasLower, CblasTrans, t.n, t.m, 1.0, t.a.data(), t.n, 0.0,
                t.result.data(), t.n);
    benchmark::ClobberMemory();
  }
}
// Each in its own order of the elements; the numbers are random in both.
void tall_qr_ours(benchmark::State& state) {
  Tall t(state);
  Vec u;
  for (auto _ : state) {
    u = t.a;
    zqrdec(t.m, t.n, 0, t.n, 1, nullptr, 0.0, u.data(), nullptr, t.diagonal.data(), t.sum.data());
  }
}
void tall_qr_peer(benchmark::State& state) {
  Tall t(state);
  int length = static_cast<int>(t.work.size());
  Vec u;
  for (auto _ : state) {
    u = t.a;
    LAPACK_dgeqrf(&t.m, &t.n, u.data(), &t.m, t.diagonal.data(), t.work.data(), &length, &t.info);
  }
}
void tall_pivoted_ours(benchmark::State& state) {
  Tall t(state);
  Vec u;
  std::vector<long> ipiv(static_cast<std::size_t>(t.n));
  for (auto _ : state) {
    u = t.a;
    std::fill(ipiv.begin(), ipiv.end(), 0);
    zqrdec(t.m, t.n, 0, t.n, 1, ipiv.data(), 0.0, u.data(), nullptr, t.diagonal.data(),
           t.sum.data());
  }
}
void tall_pivoted_peer(benchmark::State& state) {
  Tall t(state);
  int length = static_cast<int>(t.work.size());
  Vec u;
  std::vector<int> jpvt(static_cast<std::size_t>(t.n));
  for (auto _ : state) {
    u = t.a;
    std::fill(jpvt.begin(), jpvt.end(), 0);
    LAPACK_dgeqp3(&t.m, &t.n, u.data(), &t.m, jpvt.data(), t.diagonal.data(), t.work.data(),
                  &length, &t.info);
  }
}

// R by rows is L = R' by columns for the peer: the same memory is walked by both.
void triangular_solve_ours(benchmark::State& state) {
  Problem p(state);
  p.full = full_matrix(p.n);
  for (auto _ : state) {
    zqrsol(3, p.n, 1, p.n, p.n, p.n, nullptr, p.full.data(), p.x.data(), p.z.data(), nullptr,
           nullptr);
    benchmark::ClobberMemory();
  }
}
void triangular_solve_peer(benchmark::State& state) {
  Problem p(state);
  p.full = full_matrix(p.n);
  for (auto _ : state) {
    p.z = p.x;
    LAPACK_dtrtrs("L", "T", "N", &p.size, &p.one, p.full.data(), &p.size, p.z.data(), &p.size,
                  &p.info);
    benchmark::ClobberMemory();
  }
}

// ---- Tridiagonal forms -------------------------------------------------------------------------

void reduction_ours(benchmark::State& state) {
  Problem p(state);
  const Vec a = packed_matrix(p.n);
  p.work.resize(static_cast<std::size_t>(2 * p.n));
  for (auto _ : state) {
    p.packed = a;
    ztred3(p.n, p.packed.data(), p.work.data());
  }
}
void reduction_peer(benchmark::State& state) {
  Problem p(state);
  const Vec a = packed_matrix(p.n);
  Vec tau(p.n);
  for (auto _ : state) {
    p.packed = a;
    LAPACK_dsptrd("U", &p.size, p.packed.data(), p.x.data(), p.y.data(), tau.data(), &p.info);
  }
}
void transform_ours(benchmark::State& state) {
  Problem p(state);
  p.packed = packed_matrix(p.n);
  p.work.resize(static_cast<std::size_t>(2 * p.n));
  ztred3(p.n, p.packed.data(), p.work.data());
  for (auto _ : state) {
    ztrapp3(1, p.n, p.packed.data(), p.x.data());
    benchmark::ClobberMemory();
  }
}
void transform_peer(benchmark::State& state) {
  Problem p(state);
  p.packed = packed_matrix(p.n);
  Vec tau(p.n), d(p.n), e(p.n);
  p.work.resize(static_cast<std::size_t>(p.n));
  LAPACK_dsptrd("U", &p.size, p.packed.data(), d.data(), e.data(), tau.data(), &p.info);
  for (auto _ : state) {
    LAPACK_dopmtr("L", "U", "N", &p.size, &p.one, p.packed.data(), tau.data(), p.x.data(), &p.size,
                  p.work.data(), &p.info);
    benchmark::ClobberMemory();
  }
}
void tridiagonal_ours(benchmark::State& state) {
  Problem p(state);
  const Vec d(p.n, 2.5);
  for (auto _ : state) {
    benchmark::DoNotOptimize(znlpcd3(p.n, 0.0, d.data(), p.x.data(), p.y.data(), p.z.data()));
    benchmark::ClobberMemory();
  }
}
void tridiagonal_peer(benchmark::State& state) {
  Problem p(state);
  const Vec d(p.n, 2.5);
  for (auto _ : state) {
    p.y = d;
    p.z = p.x;
    LAPACK_dpttrf(&p.size, p.y.data(), p.z.data(), &p.info);
    benchmark::ClobberMemory();
  }
}
void tridiagonal_solve_ours(benchmark::State& state) {
  Problem p(state);
  const Vec d(p.n, 2.5);
  Vec dl(p.n), el(p.n);
  znlpcd3(p.n, 0.0, d.data(), p.x.data(), dl.data(), el.data());
  for (auto _ : state) {
    benchmark::DoNotOptimize(znlpcs3(p.n, dl.data(), el.data(), p.y.data(), p.z.data()));
    benchmark::ClobberMemory();
  }
}
void tridiagonal_solve_peer(benchmark::State& state) {
  Problem p(state);
  Vec d(p.n, 2.5);
  LAPACK_dpttrf(&p.size, d.data(), p.x.data(), &p.info);
  for (auto _ : state) {
    p.z = p.y;
    LAPACK_dpttrs(&p.size, &p.one, d.data(), p.x.data(), p.z.data(), &p.size, &p.info);
    benchmark::ClobberMemory();
  }
}

using Body = void (*)(benchmark::State&);

void compare(const std::string& name, Body ours, Body peer) {
  for (const long n : {2, 5, 10, 20, 50, 100, 200, 500, 1000}) {
    benchmark::RegisterBenchmark((name + "/ours").c_str(), ours)->Arg(n);
    benchmark::RegisterBenchmark((name + "/peer").c_str(), peer)->Arg(n);
  }
}

// The report pairs rows by one size: the shape stands in the name.
void compare_tall(const std::string& name, Body ours, Body peer) {
  constexpr std::pair<long, long> SHAPES[] = {{20, 5},      {200, 10},    {10000, 10},
                                              {100000, 10}, {100000, 50}, {500, 200}};
  for (const auto& [m, n] : SHAPES) {
    const std::string shaped = name + ", " + std::to_string(m) + " rows";
    const std::string size = "/" + std::to_string(n);
    benchmark::RegisterBenchmark((shaped + "/ours" + size).c_str(), ours)->Args({m, n});
    benchmark::RegisterBenchmark((shaped + "/peer" + size).c_str(), peer)->Args({m, n});
  }
}

}  // namespace

int main(int argc, char** argv) {
  openblas_set_num_threads(1);
  compare("zvdot11 : ddot", dot_ours, dot_peer);
  compare("zvenorm : dnrm2", norm_ours, norm_peer);
  compare("zvxay11 : daxpy", axpy_ours, axpy_peer);
  compare("znlpcde 2 : dpptrf", cholesky_ours, cholesky_peer);
  compare("znlpcso 2 : dpptrs", cholesky_solve_ours, cholesky_solve_peer);
  compare("znlpcde 4 : dpstrf", pivoted_ours, pivoted_peer);
  compare("zqrdec : dgeqp3", qr_ours, qr_peer);
  compare_tall("crossproduct : dsyrk", crossproduct_ours, crossproduct_peer);
  compare_tall("zqrdec : dgeqrf", tall_qr_ours, tall_qr_peer);
  compare_tall("zqrdec : dgeqp3", tall_pivoted_ours, tall_pivoted_peer);
  compare("zqrsol : dtrtrs", triangular_solve_ours, triangular_solve_peer);
  compare("ztred3 : dsptrd", reduction_ours, reduction_peer);
  compare("ztrapp3 : dopmtr", transform_ours, transform_peer);
  compare("znlpcd3 : dpttrf", tridiagonal_ours, tridiagonal_peer);
  compare("znlpcs3 : dpttrs", tridiagonal_solve_ours, tridiagonal_solve_peer);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
