// Working set: after any sequence of changes Q is orthogonal, A Q = (0 T) with T in its reversed
// form, the projected gradient and the projected matrix equal those formed afresh; the choice of
// what to drop leads to feasible descent directions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <tuple>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "support/record.h"

namespace tqnlp {
namespace {

using test::LinearRow;
using test::TestRecord;
using Vector = std::vector<double>;

constexpr int LINE_TECHNIQUE = 4;    // consults Q only while a general constraint is active
constexpr int FRAME_TECHNIQUE = 11;  // full frame from the start

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  double uniform() { return 2.0 * (engine_() / 4294967296.0) - 1.0; }
  long below(long n) { return static_cast<long>(engine_() % static_cast<unsigned long>(n)); }
  Vector vector(long n) {
    Vector v(static_cast<std::size_t>(n));
    for (double& e : v) e = uniform();
    return v;
  }

 private:
  std::mt19937 engine_;
};

Vector row_of(TestRecord& r, long i) {
  Vector a(static_cast<std::size_t>(r.nvar));
  r.acget(&r, i, a.data());
  return a;
}

long free_dimension(const TestRecord& r) { return r.nvar - r.nabc - r.nalc; }
bool q_counts(const TestRecord& r) {
  return r.lincon != 0 && (uses_full_frame(r.tech) || r.nalc > 0);
}

// Column k of the null-space basis over all parameters.
Vector null_column(const TestRecord& r, long k) {
  Vector z(static_cast<std::size_t>(r.nvar), 0.0);
  for (long l = 0; l < r.nvar - r.nabc; ++l) {
    z[r.ifxr[l]] = q_counts(r) ? r.qlcn[l * r.nvar + k] : (l == k ? 1.0 : 0.0);
  }
  return z;
}

double dot(const Vector& a, const double* b) {
  return std::inner_product(a.begin(), a.end(), b, 0.0);
}

Vector fresh_projection(const TestRecord& r, const double* hess) {
  const long nz = free_dimension(r);
  Vector m(packed_size(nz));
  for (long i = 0; i < nz; ++i) {
    const Vector zi = null_column(r, i);
    Vector hz(zi.size(), 0.0);
    for (long a = 0; a < r.nvar; ++a) {
      for (long b = 0; b < r.nvar; ++b) hz[a] += hess[zisub(a, b)] * zi[b];
    }
    for (long j = 0; j <= i; ++j) m[zisub(i, j)] = dot(hz, null_column(r, j).data());
  }
  return m;
}

void expect_frame(TestRecord& r) {
  const long n = r.nvar;
  const long nfre = n - r.nabc;
  std::vector<int> seen(n, 0);
  for (long k = 0; k < n; ++k) ++seen[r.ifxr[k]];
  ASSERT_EQ(std::count(seen.begin(), seen.end(), 1), n);
  for (long k = nfre; k < n; ++k) EXPECT_NE(r.iabc[r.ifxr[k]], 0);
  long waiting = 0;
  for (long k = 0; k < nfre; ++k) waiting += r.bounds != 0 && r.iabc[r.ifxr[k]] != 0 ? 1 : 0;
  EXPECT_EQ(waiting, r.nlbc);
  if (!q_counts(r)) return;
  for (long a = 0; a < nfre; ++a) {
    for (long b = 0; b <= a; ++b) {
      double product = 0.0;
      for (long l = 0; l < nfre; ++l) product += r.qlcn[l * n + a] * r.qlcn[l * n + b];
      ASSERT_NEAR(product, a == b ? 1.0 : 0.0, 1e-12);
    }
  }
  for (long i = 0; i < r.nalc; ++i) {
    const Vector row = row_of(r, r.iact[i]);
    for (long k = 0; k < nfre; ++k) {
      double product = 0.0;
      for (long l = 0; l < nfre; ++l) product += r.qlcn[l * n + k] * row[r.ifxr[l]];
      const long element = k - (nfre - 1 - i);
      ASSERT_NEAR(product, element < 0 ? 0.0 : r.llcn[packed_size(i) + element], 1e-11);
    }
  }
}

void expect_gradient(const TestRecord& r, const double* gpro) {
  for (long k = 0; k < free_dimension(r); ++k) {
    ASSERT_NEAR(gpro[k], dot(null_column(r, k), r.grad), 1e-11) << "component " << k;
  }
}

// ches in the form job against the matrix m, both of the given order.
void expect_matrix(const TestRecord& r, int job, const double* ches, const Vector& m, long order) {
  for (long p = 0; p < order; ++p) {
    for (long q = 0; q <= p; ++q) {
      double value = ches[zisub(p, q)];
      if (job != 0) {
        value = 0.0;
        for (long k = 0; k <= q; ++k) value += ches[zisub(p, k)] * ches[zisub(q, k)];
      }
      const long i = job == 2 ? r.ipiv[p] : p;
      const long j = job == 2 ? r.ipiv[q] : q;
      ASSERT_NEAR(value, m[zisub(i, j)], 1e-9) << p << " " << q;
    }
  }
}

// m in the form job, written by an independent textbook factorization.
void load_matrix(const TestRecord& r, int job, double* ches, const Vector& m, long order) {
  for (long p = 0; p < order; ++p) {
    for (long q = 0; q <= p; ++q) {
      double value = job == 2 ? m[zisub(r.ipiv[p], r.ipiv[q])] : m[zisub(p, q)];
      if (job != 0) {
        for (long k = 0; k < q; ++k) value -= ches[zisub(p, k)] * ches[zisub(q, k)];
        value = p == q ? std::sqrt(value) : value / ches[zisub(q, q)];
      }
      ches[zisub(p, q)] = value;
    }
  }
}

void load_hessian(Random& random, TestRecord& r) {
  std::vector<Vector> g;
  for (long i = 0; i < r.nvar; ++i) g.push_back(random.vector(r.nvar));
  for (long i = 0; i < r.nvar; ++i) {
    for (long j = 0; j <= i; ++j) {
      r.hess[zisub(i, j)] = dot(g[i], g[j].data()) + (i == j ? 1.0 : 0.0);
    }
  }
}

// ---- Random sequences --------------------------------------------------------------------------

class Sequence : public testing::TestWithParam<std::tuple<int, int, bool>> {};

TEST_P(Sequence, KeepsFrameGradientAndMatrix) {
  const auto [technique, job, pass_order] = GetParam();
  for (unsigned seed = 1; seed <= 12; ++seed) {
    Random random(seed);
    const long n = 9;
    std::vector<LinearRow> rows;
    for (int i = 0; i < 7; ++i) rows.push_back({random.vector(n), i < 2 ? 0 : 1, 0.0});
    rows.push_back({Vector(n, 0.0), 1, 0.0});
    for (long j = 0; j < n; ++j) rows[7].a[j] = rows[3].a[j] - 2.0 * rows[5].a[j];
    TestRecord r(n, technique);
    r.with_bounds(Vector(n, 0.0), Vector(n, 1.0)).with_rows(rows);
    load_hessian(random, r);
    std::copy_n(random.vector(n).data(), n, r.grad);
    for (long k = 0; k < n; ++k) r.ipiv[k] = (3 + 4 * k) % n;
    Vector ches(packed_size(n)), gpro(n);
    const Vector full(r.hess, r.hess + r.nnva);
    load_matrix(r, job, ches.data(), full, n);
    std::copy_n(r.grad, n, gpro.data());
    // The rebuilding carries the matrix along as well.
    r.iabc[4] = 2;
    r.iact[0] = 0;
    r.nalc = 1;
    ASSERT_EQ(znlpfta(&r, 0, 0, job, gpro.data(), ches.data(), r.hess), 0);
    ASSERT_EQ(r.nabc + r.nalc, 2);
    long order = free_dimension(r);
    long* nhlf = pass_order ? &order : nullptr;
    expect_matrix(r, job, ches.data(), fresh_projection(r, r.hess), free_dimension(r));

    for (int change = 0; change < 60; ++change) {
      const long which = random.below(n + 8);
      const bool is_bound = which < n;
      const long ic = is_bound ? which : which - n;
      const long* end = r.iact + r.nalc;
      const bool active =
          is_bound ? r.iabc[ic] != 0 : std::find(r.iact, r.iact + r.nalc, ic) != end;
      const long before = free_dimension(r);
      if (active) {
        const int koc = is_bound ? r.iabc[ic] : 0;
        const int status = znlpdod(&r, job, koc, ic, nhlf, gpro.data(), ches.data(), r.hess);
        ASSERT_EQ(status, job == 0 ? 1 : 0);
        ASSERT_EQ(free_dimension(r), before + 1);
      } else if (free_dimension(r) > 1) {
        const int koc = is_bound ? 1 - 2 * (change % 2) : 0;
        if (znlpupd(&r, 1, job, 0, koc, ic, nhlf, gpro.data(), ches.data()) != 0) continue;
        ASSERT_EQ(znlpupd(&r, 0, job, 0, koc, ic, nhlf, gpro.data(), ches.data()), 0);
        ASSERT_EQ(free_dimension(r), before - 1);
      }
      expect_frame(r);
      expect_gradient(r, gpro.data());
      const long nz = free_dimension(r);
      if (pass_order) {
        ASSERT_EQ(order, nz);
      }
      Vector fresh = fresh_projection(r, r.hess);
      if (job == 0 && active) {
        // A symmetric matrix gains a unit row: nothing says what kind of matrix it is. When Q has
        // been given up the matrix stands in another basis and only its trace can be told.
        double trace = 0.0;
        for (long k = 0; k < nz; ++k) trace += ches[zisub(k, k)];
        if (q_counts(r)) {
          EXPECT_EQ(ches[zisub(nz - 1, nz - 1)], 1.0);
          expect_matrix(r, job, ches.data(), fresh, nz - 1);
        }
        EXPECT_GT(trace, 1.0);
        load_matrix(r, job, ches.data(), fresh, nz);
      } else {
        expect_matrix(r, job, ches.data(), fresh, nz);
      }
      if (HasFatalFailure()) FAIL() << "seed " << seed << " change " << change;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, Sequence,
                         testing::Combine(testing::Values(LINE_TECHNIQUE, FRAME_TECHNIQUE),
                                          testing::Values(0, 1, 2), testing::Bool()));

// A pivoted factor that covers two of five variables: it stays exact on what it still covers.
TEST(ProjectedFactor, OfLowerRankShrinksAndGrows) {
  Random random(5);
  const long n = 5;
  TestRecord r(n, FRAME_TECHNIQUE);
  r.with_bounds(Vector(n, 0.0), Vector(n, 1.0)).with_rows({{random.vector(n), 1, 0.0}});
  load_hessian(random, r);
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  for (long k = 0; k < n; ++k) r.ipiv[k] = (2 + 3 * k) % n;
  Vector ches(packed_size(n));
  long order = 3;
  load_matrix(r, 2, ches.data(), Vector(r.hess, r.hess + r.nnva), order);
  ASSERT_EQ(znlpupd(&r, 0, 2, 0, 0, 0, &order, nullptr, ches.data()), 0);
  EXPECT_EQ(order, 2);
  expect_matrix(r, 2, ches.data(), fresh_projection(r, r.hess), order);
  ASSERT_EQ(znlpdod(&r, 2, 0, 0, &order, nullptr, ches.data(), r.hess), 0);
  EXPECT_EQ(order, 3);
  expect_matrix(r, 2, ches.data(), fresh_projection(r, r.hess), order);
  std::vector<long> places(r.ipiv, r.ipiv + n);
  std::sort(places.begin(), places.end());
  for (long k = 0; k < n; ++k) EXPECT_EQ(places[k], k);
}

// An indefinite Hessian cannot extend the factor: diagonal 1, and the status says so.
TEST(ProjectedFactor, ReportsWhatItCannotExtend) {
  TestRecord r(2, FRAME_TECHNIQUE);
  r.with_bounds({0, 0}, {1, 1}).with_rows({{{1, 1}, 1, 0.0}});
  r.hess[0] = 4.0;
  r.hess[2] = -1.0;
  r.iabc[1] = 1;
  Vector ches{2.0, 0.0, 5.0};
  ASSERT_EQ(znlpfta(&r, 0, 0, 1, nullptr, ches.data(), nullptr), 0);
  long order = 1;
  EXPECT_EQ(znlpdod(&r, 1, 1, 1, &order, nullptr, ches.data(), r.hess), 2);
  EXPECT_EQ(order, 2);
  EXPECT_EQ(ches[2], 1.0);
  EXPECT_EQ(znlpdod(&r, 1, 0, 0, &order, nullptr, ches.data(), r.hess), 1) << "not active";
}

TEST(ProjectedFactor, DiagonalHessianWithBoundsAlone) {
  TestRecord r(3);
  r.with_bounds({0, 0, 0}, {1, 1, 1});
  r.hfrm = 2;
  const Vector diagonal{9.0, 4.0, -1.0}, grad{0.0, -1.0, -2.0};
  std::copy_n(grad.data(), 3, r.grad);
  Vector ches{3.0, 0, 2.0, 0, 0, 1.0}, hess = diagonal;
  r.iabc[1] = r.iabc[2] = 1;
  ASSERT_EQ(znlpfta(&r, 0, 0, 1, nullptr, ches.data(), nullptr), 0);
  long order = 1;
  EXPECT_EQ(znlpdac(&r, 1, 0, &order, ches.data(), hess.data()), -1) << "negative diagonal";
  EXPECT_EQ(r.idac, 3);
  EXPECT_EQ(znlpdac(&r, 1, 0, &order, ches.data(), hess.data()), 2);
  EXPECT_EQ(ches, (Vector{3.0, 0, 1.0, 0, 0, 2.0}));
}

// ---- Deferred constraints ----------------------------------------------------------------------

TEST(Deferred, RowsAndBoundsWaitAndEnterAfterADrop) {
  for (int technique : {LINE_TECHNIQUE, FRAME_TECHNIQUE}) {
    TestRecord r(3, technique);
    r.with_bounds({0, 0, 0}, {9, 9, 9})
        .with_rows({{{1, 0, 0}, 1, 0}, {{1, 1, 0}, 1, 0}, {{3, 1, 0}, 1, 0}, {{0, 1, 1}, 1, 0}});
    ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(znlpupd(&r, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(znlpupd(&r, 0, 0, 0, 1, 0, nullptr, nullptr, nullptr), 1) << "bound like row 0";
    EXPECT_EQ(r.nlbc, 1);
    EXPECT_EQ(r.iabc[0], 1);
    ASSERT_EQ(znlpupd(&r, 0, 0, 0, 0, 1, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(znlpupd(&r, 1, 0, 0, 0, 2, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(r.nldc, 0) << "a test changes nothing";
    EXPECT_EQ(znlpupd(&r, 0, 0, 0, 0, 2, nullptr, nullptr, nullptr), 1);
    ASSERT_EQ(znlpupd(&r, 0, 0, 0, 0, 3, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(std::vector<long>(r.iact, r.iact + 4), (std::vector<long>{0, 1, 3, 2}));
    EXPECT_EQ(znlpupd(&r, 0, 0, 0, -1, 2, nullptr, nullptr, nullptr), 1) << "nothing fits";
    EXPECT_EQ(r.nlbc, 2);
    EXPECT_EQ(znlpcld(&r, 0, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(r.nldc + 10 * r.nlbc, 21);
    expect_frame(r);

    ASSERT_EQ(znlpdod(&r, 0, 0, 1, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(znlpcld(&r, 0, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(r.nabc, 1) << "the bound of parameter 2 took the place";
    EXPECT_EQ(r.nlbc, 1);
    EXPECT_EQ(r.nldc, 1);
    expect_frame(r);
    ASSERT_EQ(znlpdod(&r, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(znlpcld(&r, 0, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(r.nabc, 2);
    EXPECT_EQ(free_dimension(r), 0);
    expect_frame(r);
    r.liwk[0] = 0;
    r.liwk[1] = 3 + 3;
    EXPECT_EQ(znlpcsr(&r, 0, 2, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(r.nabc, 1);
    EXPECT_EQ(r.nalc, 0);
    expect_frame(r);
  }
}

// A row scaled down does not become dependent: the row test is relative, the bound test absolute.
TEST(Deferred, ThresholdIsRelativeForRows) {
  TestRecord r(3);
  r.with_bounds({0, 0, 0}, {9, 9, 9}).with_rows({{{1e-9, 0, 0}, 1, 0}, {{1e-9, 1e-9, 0}, 1, 0}});
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 0, 1, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 1, 2, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(znlpupd(&r, 0, 0, 1, 1, 2, nullptr, nullptr, nullptr), 0) << "no test when re-adding";
}

// ---- Feasibility and detection -----------------------------------------------------------------

TEST(Feasibility, FillsStatusInOrder) {
  TestRecord r(5);
  r.with_bounds({0, 0, 2, 0, -HUGE_VALUE}, {1, 1e-9, 2, 1e-8, 3})
      .with_rows({{{1, 0, 0, 0, 1}, 0, 3.0}, {{0, 0, 0, 0, 1}, 1, 3.0}, {{0, 0, 1, 0, 0}, 1, 0.0}});
  Vector fcon{0.0, 1.0, -1e-9};
  r.nlicon = 1;
  r.nnlc = 3;
  r.nlec = 1;
  r.fcon = fcon.data();
  std::vector<long> wide(20);
  r.iact = wide.data();
  r.iabc[2] = 0;
  r.at({0.0, 0.0, 2.0, 0.0, 3.0 - 1e-9});
  EXPECT_EQ(znlpfch(&r, 1, 1, 0), 0);
  EXPECT_EQ(std::vector<int>(r.iabc, r.iabc + 5), (std::vector<int>{1, 2, 2, 2, -1}));
  EXPECT_EQ(r.nabc, 5);
  EXPECT_EQ(r.nalc, 4);
  EXPECT_EQ(r.nanc, 2);
  EXPECT_EQ(std::vector<long>(r.iact, r.iact + 4), (std::vector<long>{0, 3, 1, 5}));
  EXPECT_NEAR(r.cmax, 1e-9, 1e-15);
  fcon[2] = -1e-7;
  EXPECT_EQ(znlpfch(&r, 0, 1, 0), -1);
  EXPECT_EQ(znlpfch(&r, 0, 1, 1), 0) << "ten times the tolerance";
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), 0) << "nonlinear constraints only on demand";
  r.x[4] = 3.0 - 1e-7;
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), -1) << "rows are tested";
  r.x[4] = std::nan("");
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), -1) << "a value that is no number is not feasible";
}

TEST(Feasibility, UpperBoundWinsAndNothingToTestIsFeasible) {
  TestRecord r(2);
  EXPECT_EQ(znlpfch(&r, 1, 1, 0), 0);
  r.with_bounds({0, 0}, {3e-8, 1}).at({1.5e-8, -5.0});
  EXPECT_EQ(znlpfch(&r, 1, 0, 1), -1);
  EXPECT_EQ(r.iabc[0], -1);
  EXPECT_EQ(r.iabc[1], 1) << "a violated bound counts as active";
  EXPECT_EQ(r.cmax, 5.0);
}

TEST(Detection, AddsWhatIsActiveAndCountsViolations) {
  TestRecord r(4);
  r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1})
      .with_rows({{{1, 1, 1, 1}, 1, 1.5}, {{1, 0, 0, 1}, 1, 5.0}, {{2, 2, 2, 2}, 1, 3.0}});
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  r.at({0.0, 1.0, 0.5, -0.2});
  r.x[2] = 0.7;
  EXPECT_EQ(znlpact(&r, 0, 1, nullptr, nullptr, nullptr), -2);
  EXPECT_EQ(r.iabc[0], 1);
  EXPECT_EQ(r.iabc[1], -1);
  EXPECT_EQ(r.nabc, 2);
  EXPECT_EQ(r.nalc, 1);
  EXPECT_EQ(r.nldc, 1) << "row 2 is twice row 0";
  EXPECT_EQ(r.chac, 3);
  expect_frame(r);
  EXPECT_EQ(znlpact(&r, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(r.chac, 0);
}

// ---- Bounds alone ------------------------------------------------------------------------------

TEST(BoundsAlone, PermutationMatrixAndDrop) {
  Random random(3);
  const long n = 6;
  for (int job : {1, 2}) {
    TestRecord r(n);
    r.with_bounds({0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 0});
    r.at({0, 0.5, 1, 0.5, 0, 0});
    load_hessian(random, r);
    const Vector grad{-1.0, 7.0, 1.0, -8.0, -0.5, -9.0};
    std::copy_n(grad.data(), n, r.grad);
    for (long k = 0; k < n; ++k) r.ipiv[k] = (1 + 5 * k) % n;
    Vector ches(packed_size(n));
    load_matrix(r, job, ches.data(), Vector(r.hess, r.hess + r.nnva), n);
    ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
    ASSERT_EQ(znlpfta(&r, 0, 0, job, nullptr, ches.data(), nullptr), 0);
    EXPECT_EQ(std::vector<long>(r.ifxr, r.ifxr + n), (std::vector<long>{1, 3, 5, 4, 2, 0}));
    EXPECT_EQ(r.gmax, 8.0);
    expect_matrix(r, job, ches.data(), fresh_projection(r, r.hess), 2);

    // The slopes of the bounds of 0 and 2 are equal: the first wins. Parameter 5 is fixed.
    long order = 2;
    EXPECT_EQ(znlpdac(&r, job, 0, &order, ches.data(), r.hess), 1);
    EXPECT_EQ(r.idac, 1);
    EXPECT_EQ(r.chac, -1);
    EXPECT_EQ(order, 3);
    EXPECT_EQ(std::vector<long>(r.ifxr, r.ifxr + 3), (std::vector<long>{1, 3, 0}));
    expect_matrix(r, job, ches.data(), fresh_projection(r, r.hess), 3);
    EXPECT_EQ(znlpdac(&r, job, 0, &order, ches.data(), r.hess), 3);
    r.deat = 0.5;
    EXPECT_EQ(znlpdac(&r, job, 0, &order, ches.data(), r.hess), 0) << "the threshold is strict";
    r.deat = MISSING;
    EXPECT_EQ(znlpdac(&r, job, 0, &order, ches.data(), nullptr), 5) << "a unit row is no failure";
    EXPECT_EQ(ches[zisub(4, 4)], 1.0);
    EXPECT_EQ(znlpact(&r, job, 0, &order, nullptr, ches.data()), 0);
    EXPECT_EQ(r.nabc, 4) << "all that x stands on come back";
    EXPECT_EQ(r.chac, 3);
    expect_matrix(r, job, ches.data(), fresh_projection(r, r.hess), 2);
  }
}

// ---- Choice of what to drop --------------------------------------------------------------------

// Is the projected descent direction feasible for everything active at x, and downhill?
void expect_feasible_descent(TestRecord& r) {
  Vector d(static_cast<std::size_t>(r.nvar), 0.0);
  for (long k = 0; k < free_dimension(r); ++k) {
    const Vector z = null_column(r, k);
    for (long j = 0; j < r.nvar; ++j) d[j] -= r.gpro[k] * z[j];
  }
  EXPECT_LT(dot(d, r.grad), -1e-8);
  for (long i = 0; i < r.ncon; ++i) {
    const Vector a = row_of(r, i);
    const bool active = std::fabs(dot(a, r.x) - r.blcn[i]) < 1e-9;
    EXPECT_TRUE(!active || dot(a, d.data()) > -1e-7) << "row " << i;
  }
  for (long j = 0; j < r.nvar; ++j) {
    EXPECT_TRUE(r.x[j] != r.lb[j] || d[j] > -1e-7) << "lower bound " << j;
    EXPECT_TRUE(r.x[j] != r.ub[j] || d[j] < 1e-7) << "upper bound " << j;
  }
}

void build_frame_at_x(TestRecord& r) {
  ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
  ASSERT_EQ(znlpfta(&r, 0, 1, 0, nullptr, nullptr, nullptr), 0);
}

TEST(Choice, TakesTheMostNegativeMultiplierAtARegularPoint) {
  for (int technique : {LINE_TECHNIQUE, FRAME_TECHNIQUE}) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
      Random random(seed);
      const long n = 6;
      std::vector<LinearRow> rows;
      for (int i = 0; i < 3; ++i) rows.push_back({random.vector(n), i == 0 ? 0 : 1, 0.0});
      TestRecord r(n, technique);
      r.with_bounds({0, -5, -5, -5, -5, -5}, {5, 0, 5, 5, 5, 5}).with_rows(rows);
      // g = sum of multipliers times normals: equality -9, rows 1 and 2, bounds of x0 and x1.
      Vector multiplier{-9.0, random.uniform(), random.uniform(), random.uniform(), 0.3};
      for (long j = 0; j < n; ++j) {
        for (int i = 0; i < 3; ++i) r.grad[j] += multiplier[i] * rows[i].a[j];
      }
      r.grad[0] += multiplier[3];
      r.grad[1] -= multiplier[4];
      build_frame_at_x(r);
      ASSERT_EQ(r.nabc + r.nalc, 5);
      Vector expected{multiplier[4], multiplier[3], -9.0, multiplier[1], multiplier[2]};
      for (int k = 0; k < 5; ++k) EXPECT_NEAR(r.lagm[k], expected[k], 1e-9);
      const double least = std::min({multiplier[1], multiplier[2], multiplier[3]});
      const bool can_drop = least < -1e-6;
      EXPECT_EQ(r.idac, can_drop ? -1 : 0) << "told, not done";
      EXPECT_EQ(r.nabc + r.nalc, 5);
      const int result = znlpdac(&r, 0, 0, nullptr, nullptr, nullptr);
      EXPECT_EQ(result, can_drop ? 1 : 0);
      if (!can_drop) continue;
      const long code = least == multiplier[3] ? 0 : n + (least == multiplier[1] ? 1 : 2);
      EXPECT_EQ(r.idac, code + 1);
      EXPECT_EQ(r.chac, -1);
      EXPECT_EQ(r.iact[0], 0) << "the equality stays first";
      expect_frame(r);
      expect_gradient(r, r.gpro);
      expect_feasible_descent(r);
    }
  }
}

TEST(Choice, ThresholdFollowsTheDocumentedRule) {
  // One bound of a problem with a row that is never active; its multiplier is -5e-4.
  auto result = [](double deat, double agtl, double other_gradient) {
    TestRecord r(2);
    r.with_bounds({0, -1}, {1, 1}).with_rows({{{1, 1}, 1, -9.0}});
    r.grad[0] = -5e-4;
    r.grad[1] = other_gradient;
    r.deat = deat;
    r.agtl = agtl;
    build_frame_at_x(r);
    return znlpdac(&r, 0, 0, nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(result(MISSING, 1e-5, 0.1), 1);
  EXPECT_EQ(result(MISSING, 1e-5, 0.6), 0) << "a thousandth of the projected gradient";
  EXPECT_EQ(result(MISSING, 6e-3, 0.1), 0) << "a tenth of ABSGCONV";
  EXPECT_EQ(result(4e-4, 1.0, 9.0), 1);
  EXPECT_EQ(result(5e-4, 1e-5, 0.1), 0) << "strict";
  EXPECT_EQ(result(0.0, 1e-5, 0.1), 1) << "zero counts as not given";
}

// The first form would drop the row; the gradient at the Newton point of the working set would not.
TEST(Choice, SecondFormLooksAtTheNewtonPoint) {
  for (int second_form : {0, 1}) {
    TestRecord r(2);
    r.with_rows({{{1, 0}, 1, 0.0}});
    r.hess[0] = r.hess[2] = 1.0;
    r.hess[1] = 0.5;
    r.grad[0] = -0.1;
    r.grad[1] = -1.0;
    build_frame_at_x(r);
    EXPECT_EQ(znlpdac(&r, 0, second_form, nullptr, nullptr, nullptr), 1 - second_form);
  }
}

// Is x stationary on the working set, with multipliers of the right sign? Then no direction that is
// feasible for the active constraints leads downhill.
void expect_stationary(TestRecord& r) {
  for (long k = 0; k < free_dimension(r); ++k) EXPECT_NEAR(r.gpro[k], 0.0, 1e-7);
  if (r.nabc + r.nalc == 0) return;
  znlpglm(&r, 0, r.grad, r.lagm);
  for (long k = 0; k < r.nabc + r.nalc; ++k) EXPECT_GE(r.lagm[k], -1e-3);
}

// Degenerate points: many rows and bounds through one point, gradient at random. The choice leads
// to a feasible descent direction, or shows that there is none.
TEST(Choice, LeavesDegeneratePointsByFeasibleDirections) {
  long single = 0, block = 0, optimal = 0;
  for (unsigned seed = 1; seed <= 300; ++seed) {
    Random random(seed);
    const long n = 3 + random.below(3);
    std::vector<LinearRow> rows;
    const Vector inside = random.vector(n);
    for (long i = 0; i < 2 * n; ++i) {
      Vector a = random.vector(n);
      if (dot(a, inside.data()) < 0.0) {
        for (double& e : a) e = -e;
      }
      rows.push_back({a, 1, 0.0});
    }
    if (seed % 3 == 0) rows[1].a = rows[0].a;
    TestRecord r(n, seed % 2 == 0 ? LINE_TECHNIQUE : FRAME_TECHNIQUE);
    Vector lower(n, -1.0);
    if (inside[0] > 0.0) lower[0] = 0.0;
    r.with_bounds(lower, Vector(n, 1.0)).with_rows(rows);
    std::copy_n(random.vector(n).data(), n, r.grad);
    if (seed % 5 == 0) {  // optimal by construction: g in the cone of the normals
      for (long j = 0; j < n; ++j) {
        r.grad[j] = 0.0;
        for (const LinearRow& row : rows) r.grad[j] += row.a[j];
      }
    }
    // A projected factor goes through all trials, with and without pivots.
    const int job = 1 + static_cast<int>(seed / 2 % 2);
    load_hessian(random, r);
    for (long k = 0; k < n; ++k) r.ipiv[k] = n - 1 - k;
    Vector ches(packed_size(n));
    load_matrix(r, job, ches.data(), Vector(r.hess, r.hess + r.nnva), n);
    ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
    znlpfta(&r, 0, 0, job, nullptr, ches.data(), nullptr);
    long order = free_dimension(r);
    const int code = znlpdac(&r, job, 0, &order, ches.data(), r.hess);
    expect_frame(r);
    ASSERT_EQ(order, free_dimension(r));
    expect_matrix(r, job, ches.data(), fresh_projection(r, r.hess), order);
    if (HasFatalFailure()) FAIL() << seed;
    ASSERT_GE(code, 0);
    if (r.idac > 0) {
      (r.idac == BLOCK_DROPPED ? block : single) += 1;
      expect_gradient(r, r.gpro);
      expect_feasible_descent(r);
      EXPECT_NE(seed % 5, 0u) << "no descent from an optimum";
    } else {
      // A block may have been exchanged on the way to an optimal working set.
      expect_stationary(r);
      ++optimal;
    }
  }
  EXPECT_GT(single, 50);
  EXPECT_GT(block, 5);
  EXPECT_GT(optimal, 5);
}

}  // namespace
}  // namespace tqnlp
