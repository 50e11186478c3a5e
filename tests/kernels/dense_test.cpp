// Factorizations of symmetric matrices: what they promise, on random, graded, singular, indefinite
// and extremely scaled matrices of order 0 and up.
#include "kernels/dense.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>

#include "kernels/matrices.h"

namespace tqnlp::test {

static constexpr double ROUNDING = std::numeric_limits<double>::epsilon();

struct Factored {
  MINSTR str{};
  std::vector<long> ipiv;
  Vec c;
  double logdet = 7.0;
  long failed = 0;

  Factored(int job, long n, double sing, Vec matrix) : ipiv(static_cast<std::size_t>(n) + 1) {
    str.ipiv = ipiv.data();
    c = std::move(matrix);
    failed = znlpcde(&str, job, n, sing, &logdet, c.data(), c.data(), nullptr);
  }
};

struct Case {
  long n;
  double grade, factor;
};

class PositiveDefinite : public testing::TestWithParam<Case> {};

// Every solve and product must agree with the matrix itself, in each form of factor.
TEST_P(PositiveDefinite, SolvesAndProductsAgreeWithTheMatrix) {
  const auto [n, grade, factor] = GetParam();
  const Dense a = multiplied(gram(n, n + 3, 11, grade), factor);
  const Vec x = random_vector(n, 5);
  Vec ax(x.size(), 0.0);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) ax[i] += a(i, j) * x[j];
  const double tolerance = 40.0 * static_cast<double>(n + 1) * ROUNDING;
  for (const int job : {1, 2, 4}) {
    SCOPED_TRACE(job);
    Factored f(job, n, 0.0, pack(a));
    ASSERT_EQ(f.failed, 0);
    Vec b = x;
    znlpmmu(&f.str, job, n, f.c.data(), b.data());
    for (long i = 0; i < n; ++i) {
      double scale = 0.0;
      for (long j = 0; j < n; ++j)
        scale += std::sqrt(a(i, i)) * std::sqrt(a(j, j)) * std::fabs(x[j]);
      EXPECT_NEAR(b[i], ax[i], tolerance * scale);
    }
    // Products and solves undo each other, half by half and whole.
    Vec halves = x;
    znlpumu(&f.str, job, n, f.c.data(), halves.data());
    Vec upper = halves;
    znlplmu(&f.str, job, n, f.c.data(), halves.data());
    EXPECT_EQ(znlpium(&f.str, job, n, f.c.data(), upper.data()), 0);
    EXPECT_EQ(znlpcso(&f.str, job, n, f.c.data(), b.data()), 0);
    EXPECT_EQ(znlpilm(&f.str, job, n, f.c.data(), halves.data()), 0);
    EXPECT_EQ(znlpium(&f.str, job, n, f.c.data(), halves.data()), 0);
    for (long i = 0; i < n; ++i) {
      // Relative to the scale of the unknowns, which grade and conditioning spread.
      const double wide = 1e5 * tolerance * std::pow(grade, static_cast<double>(-i));
      EXPECT_NEAR(upper[i], x[i], wide);
      EXPECT_NEAR(halves[i], x[i], wide);
      EXPECT_NEAR(b[i], x[i], wide);
    }
  }
}

TEST_P(PositiveDefinite, FactorReproducesMatrixAndDeterminant) {
  const auto [n, grade, factor] = GetParam();
  const Dense a = multiplied(gram(n, n + 3, 12, grade), factor);
  double logdet = 0.0;
  for (const int job : {2, 4, 1}) {
    SCOPED_TRACE(job);
    Factored f(job, n, 0.0, pack(a));
    ASSERT_EQ(f.failed, 0);
    Dense l = unpack(n, f.c, true);
    double sum = 0.0;
    for (long j = 0; j < n; ++j) {
      const double root = job == 1 ? std::sqrt(l(j, j)) : l(j, j);
      sum += 2.0 * std::log(root);
      if (job == 1) l(j, j) = 1.0;
      for (long i = j; job == 1 && i < n; ++i) l(i, j) *= root;
    }
    EXPECT_NEAR(f.logdet, sum, 1e-10 * (1.0 + std::fabs(sum)));
    if (job == 2) logdet = f.logdet;
    EXPECT_NEAR(f.logdet, logdet, 1e-6 * (1.0 + std::fabs(logdet)));
    const Dense product = l * transpose(l);
    for (long i = 0; i < n; ++i)
      for (long j = 0; j < n; ++j) {
        const long r = job == 4 ? f.ipiv[i] : i, c = job == 4 ? f.ipiv[j] : j;
        EXPECT_NEAR(
            product(i, j), a(r, c),
            20.0 * static_cast<double>(n) * ROUNDING * std::sqrt(a(r, r)) * std::sqrt(a(c, c)));
        EXPECT_TRUE(job != 4 || j < i || l(i, i) * (1.0 + 1e-10) >= l(j, j));
      }
  }
  // The inverse against the solve.
  MINSTR str{};
  Vec inverse(pack(a));
  ASSERT_EQ(znlpcin(&str, 2, n, 0.0, pack(a).data(), inverse.data(), nullptr), 0);
  Factored f(2, n, 0.0, pack(a));
  for (long j = 0; j < n; j += 7) {
    Vec unit(static_cast<std::size_t>(n) + 1, 0.0);
    unit[j] = 1.0;
    znlpcso(&f.str, 2, n, f.c.data(), unit.data());
    for (long i = 0; i < n; ++i) {
      const double scale = std::sqrt(inverse[zisub(i, i)]) * std::sqrt(inverse[zisub(j, j)]);
      EXPECT_NEAR(inverse[zisub(i, j)], unit[i], 1e-9 * scale);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Orders, PositiveDefinite,
                         testing::Values(Case{0, 1, 1}, Case{1, 1, 1}, Case{2, 1, 1},
                                         Case{3, 1, 1e-200}, Case{7, 0.5, 1}, Case{20, 1, 1e150},
                                         Case{31, 1, 1}, Case{33, 0.9, 1}, Case{50, 1, 1},
                                         Case{64, 1, 1}, Case{67, 0.95, 1e-150}, Case{100, 1, 1},
                                         Case{131, 1, 1}));

TEST(Factorization, ReportsTheFirstPivotWithinRounding) {
  for (const long n : {3L, 40L, 70L}) {
    const Dense a = gram(n, n - 1, 21);  // rank n-1: only the last pivot fails
    for (const int job : {1, 2}) {
      Factored f(job, n, 0.0, pack(a));
      EXPECT_EQ(f.failed, n);
      EXPECT_EQ(f.logdet, LOG_TINY);
      EXPECT_LT(f.c[packed_size(n) - 1], 0.0);
    }
    Factored pivoted(4, n, 1e-8, pack(a));
    EXPECT_EQ(pivoted.failed, n);
    // A limit from the caller, and a NaN, which must fail where it stands and leave a negative
    // pivot.
    for (const int job : {1, 2, 4}) {
      Dense identity(n, n);
      for (long i = 0; i < n; ++i) identity(i, i) = i == n - 2 ? 0.5 : 1.0;
      EXPECT_EQ(Factored(job, n, 0.49, pack(identity)).failed, 0);
      Factored small(job, n, 0.5, pack(identity));
      EXPECT_EQ(small.failed, job == 4 ? n : n - 1);
      EXPECT_EQ(small.c[packed_size(small.failed) - 1], -1.0);
      identity(n - 2, n - 2) = std::nan("");
      Factored nan(job, n, 0.1, pack(identity));
      EXPECT_GT(nan.failed, 0);
      EXPECT_LT(nan.c[packed_size(nan.failed) - 1], 0.0);
    }
  }
}

TEST(Factorization, RelativeLimitIsAThousandRoundingUnits) {
  for (const int job : {1, 2}) {
    // Second pivot 1 + t - 1 = t against the limit 1.11e-13 (1 + t).
    EXPECT_EQ(Factored(job, 2, 0.0, {1.0, 1.0, 1.0 + 1.12e-13}).failed, 0);
    EXPECT_EQ(Factored(job, 2, 0.0, {1.0, 1.0, 1.0 + 1.10e-13}).failed, 2);
  }
  EXPECT_EQ(Factored(4, 2, 0.0, {1.0, 1.0, 1.0 + 1e-15}).failed, 0);  // no relative test
}

TEST(Factorization, PivotingTakesTheFirstOfEqualDiagonals) {
  Factored f(4, 5, 0.0, pack([] {
               Dense d(5, 5);
               for (long i = 0; i < 5; ++i) d(i, i) = i == 0 ? 1.0 : 3.0;
               return d;
             }()));
  EXPECT_EQ(std::vector<long>(f.ipiv.begin(), f.ipiv.begin() + 5),
            (std::vector<long>{1, 2, 3, 4, 0}));
}

TEST(Factorization, PivotingBeyondTheBufferedOrders) {
  // An arrow: the matrix is known by its last row and its diagonal, and the residual is cheap.
  const long n = 1100;
  Vec a(packed_size(n) + 1, 0.0);
  const Vec last = random_vector(n, 13);
  for (long i = 0; i < n; ++i) {
    a[zisub(i, i)] = 5.0 + static_cast<double>((i * 37) % 101);
    a[zisub(n - 1, i)] += last[i];
  }
  const double corner = a[zisub(n - 1, n - 1)] += 500.0;
  const Vec diagonal = [&] {
    Vec d(n);
    for (long i = 0; i < n; ++i) d[i] = a[zisub(i, i)];
    return d;
  }();
  Factored f(4, n, 0.0, a);
  ASSERT_EQ(f.failed, 0);
  EXPECT_EQ(f.ipiv[0], n - 1);
  Vec x(n, 1.0);
  znlpcso(&f.str, 4, n, f.c.data(), x.data());
  double corner_sum = corner * x[n - 1];
  for (long i = 0; i + 1 < n; ++i) {
    EXPECT_NEAR(diagonal[i] * x[i] + last[i] * x[n - 1], 1.0, 1e-12);
    corner_sum += last[i] * x[i];
  }
  EXPECT_NEAR(corner_sum, 1.0, 1e-12);
}

TEST(Factorization, DiagonalForms) {
  Factored plain(3, 4, 0.0, {4.0, 9.0, 0.0, 1.0});
  EXPECT_EQ(plain.failed, 3);
  EXPECT_EQ(plain.c[2], -2.0 * DIAGONAL_PIVOT_FLOOR);
  EXPECT_EQ(plain.logdet, 7.0);
  EXPECT_EQ(Factored(3, 1, 0.25, {0.25}).failed, 0);  // the limit itself passes
  Factored sorted(5, 4, 0.0, {4.0, 9.0, 16.0, 9.0});
  EXPECT_EQ(sorted.failed, 0);
  EXPECT_EQ((Vec{sorted.c.begin(), sorted.c.begin() + 4}), (Vec{4.0, 3.0, 3.0, 2.0}));
  EXPECT_EQ(sorted.ipiv[0], 2);
  EXPECT_EQ(sorted.ipiv[1], 1);
  Vec b{4.0, 9.0, 16.0, 18.0};
  EXPECT_EQ(znlpcso(&sorted.str, 5, 4, sorted.c.data(), b.data()), 0);
  EXPECT_EQ(b, (Vec{1.0, 1.0, 1.0, 2.0}));
  znlpumu(&sorted.str, 5, 4, sorted.c.data(), b.data());
  EXPECT_EQ(b, (Vec{2.0, 3.0, 4.0, 6.0}));
  znlpilm(&sorted.str, 5, 4, sorted.c.data(), b.data());
  znlpmmu(&sorted.str, 5, 4, sorted.c.data(), b.data());
  EXPECT_EQ(b, (Vec{4.0, 9.0, 16.0, 18.0}));
  Vec zero{0.0, 1.0};
  EXPECT_EQ(znlpcso(&sorted.str, 3, 2, zero.data(), b.data()), 1);
}

TEST(Factorization, JobZeroChoosesByFormAndConstraints) {
  for (const int hfrm : {0, 2})
    for (const int constrained : {0, 1, 2}) {
      MINSTR str{};
      std::vector<long> ipiv(3, -9);
      str.ipiv = ipiv.data();
      str.hfrm = hfrm;
      str.bounds = constrained == 1;
      str.lincon = constrained == 2;
      Vec c{1.0, 0.5, 4.0};
      double logdet = 0.0;
      EXPECT_EQ(znlpcde(&str, 0, hfrm == 2 ? 3 : 2, 0.0, &logdet, c.data(), c.data(), nullptr), 0);
      EXPECT_EQ(ipiv[0], constrained == 0 ? -9 : (hfrm == 2 ? 2 : 1));
    }
  MINSTR str{};
  Vec c{1.0};
  EXPECT_ANY_THROW(znlpcde(&str, 9, 1, 0.0, nullptr, c.data(), c.data(), nullptr));
  EXPECT_ANY_THROW(znlpcin(&str, 4, 1, 0.0, c.data(), c.data(), nullptr));
}

// ---- Modified Cholesky -------------------------------------------------------------------------

class Modified : public testing::TestWithParam<long> {};

TEST_P(Modified, AddsANonNegativeDiagonalOnlyWhereNeeded) {
  const long n = GetParam();
  for (int kind = 0; kind < 5; ++kind) {
    SCOPED_TRACE(kind);
    Dense a = kind == 0   ? gram(n, n + 2, 31)
              : kind == 1 ? gram(n, (n + 1) / 2, 32)
                          : symmetric(n, 33);
    if (kind == 3) a = Dense(n, n);                         // zero matrix
    for (long i = 0; kind == 4 && i < n; ++i) a(i, i) = 0;  // zero diagonal, indefinite
    Vec l = pack(a), e(static_cast<std::size_t>(n) + 1), g(e);
    std::vector<long> ipiv(e.size());
    const double delta = zmchol(n, ipiv.data(), 0.0, 0.0, l.data(), e.data(), g.data());
    const Dense factor = unpack(n, l, true);
    const Dense product = factor * transpose(factor);
    EXPECT_TRUE(kind != 0 || delta == 0.0);
    EXPECT_EQ(delta, kind == 3 ? delta : *std::max_element(e.begin(), e.begin() + n + (n == 0)));
    for (long i = 0; i < n; ++i) {
      EXPECT_GE(e[i], 0.0);
      EXPECT_GT(factor(i, i), 0.0);
      for (long j = 0; j < n && size(a) > 0.0; ++j) {
        const double wanted = a(ipiv[i], ipiv[j]) + (i == j ? e[i] : 0.0);
        EXPECT_NEAR(product(i, j), wanted, 1e-13 * static_cast<double>(n) * (size(a) + delta));
      }
    }
    // The shift stays within a small multiple of what the most negative eigenvalue demands.
    EXPECT_LE(delta, 3.0 * static_cast<double>(n) * size(a) + 1e-5);
  }
}

INSTANTIATE_TEST_SUITE_P(Orders, Modified, testing::Values(1, 2, 3, 5, 10, 41));

TEST(ModifiedCholesky, SmallCasesByHand) {
  long ipiv[2];
  double g[2], e[2];
  double one[] = {-2.0};
  EXPECT_DOUBLE_EQ(zmchol(1, ipiv, 0.0, 0.25, one, e, g), 2.5);
  EXPECT_DOUBLE_EQ(one[0], std::sqrt(0.5));
  // Eigenvalues -1 and 3: delta = max(4/(1-tau), 1) tau + 1.
  double two[] = {1.0, 2.0, 1.0};
  EXPECT_DOUBLE_EQ(zmchol(2, ipiv, 0.0, 0.5, two, nullptr, g), 5.0);
  EXPECT_DOUBLE_EQ(two[0], std::sqrt(6.0));
  EXPECT_EQ(zmchol(0, ipiv, 0.0, 0.0, two, e, g), 0.0);
  double nan[] = {0.0, std::nan(""), 0.0};  // not a zero matrix
  zmchol(2, ipiv, 0.0, 0.0, nan, e, g);
  EXPECT_TRUE(std::isnan(nan[0]));
}

// ---- Tridiagonal forms -------------------------------------------------------------------------

class Tridiagonal : public testing::TestWithParam<Case> {};

TEST_P(Tridiagonal, ReductionIsAnOrthogonalSimilarity) {
  const auto [n, grade, factor] = GetParam();
  Dense a = symmetric(n, 41);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) a(i, j) *= factor * std::pow(grade, static_cast<double>(i + j));
  Vec reduced = pack(a), wrk(static_cast<std::size_t>(2 * n) + 1);
  ztred3(n, reduced.data(), wrk.data());
  // Columns of P, then P'P = I and P T = A P.
  Dense p(n, n), t(n, n);
  for (long j = 0; j < n; ++j) {
    Vec unit(static_cast<std::size_t>(n), 0.0);
    unit[j] = 1.0;
    ztrapp3(1, n, reduced.data(), unit.data());
    for (long i = 0; i < n; ++i) p(i, j) = unit[i];
    ztrapp3(0, n, reduced.data(), unit.data());
    for (long i = 0; i < n; ++i) EXPECT_NEAR(unit[i], i == j ? 1.0 : 0.0, 1e-14 * n);
    t(j, j) = wrk[j];
    if (j > 0) t(j, j - 1) = t(j - 1, j) = wrk[n + j];
  }
  EXPECT_TRUE(n == 0 || wrk[n] == 0.0);
  EXPECT_LE(distance(p * t, a * p), 1e-14 * static_cast<double>(n) * size(a));
}

INSTANTIATE_TEST_SUITE_P(Orders, Tridiagonal,
                         testing::Values(Case{0, 1, 1}, Case{1, 1, 1}, Case{2, 1, 1}, Case{3, 1, 1},
                                         Case{4, 0.1, 1}, Case{5, 1, 1e-300}, Case{6, 1, 1e300},
                                         Case{17, 1, 1}, Case{40, 0.8, 1}, Case{90, 1, 1}));

TEST(TridiagonalForm, ZeroRowsNeedNoReflectionAndNanIsKept) {
  Vec a = pack(Dense(4, 4)), wrk(8);
  a[zisub(3, 2)] = 2.0;
  ztred3(4, a.data(), wrk.data());
  EXPECT_EQ(wrk[7], 2.0);
  EXPECT_EQ(a[zisub(3, 3)], 0.0);
  a = pack(symmetric(4, 3));
  a[zisub(3, 0)] = std::nan("");
  ztred3(4, a.data(), wrk.data());
  EXPECT_TRUE(std::isnan(std::accumulate(wrk.begin(), wrk.end(), 0.0)));
}

TEST(TridiagonalForm, CholeskyAndSolve) {
  for (const long n : {0L, 1L, 2L, 5L, 100L}) {
    Vec d(n + 1, 2.5), e(n + 1, -1.0), dl(n + 1), el(n + 1), x(n + 1);
    const Vec b = random_vector(n, 9);
    ASSERT_EQ(znlpcd3(n, 1e-8, d.data(), e.data(), dl.data(), el.data()), 0);
    ASSERT_EQ(znlpcs3(n, dl.data(), el.data(), b.data(), x.data()), 0);
    for (long j = 0; j < n; ++j) {
      EXPECT_NEAR(j > 0 ? el[j] * dl[j - 1] : -1.0, -1.0, 1e-15);
      EXPECT_NEAR(dl[j] * dl[j] + (j > 0 ? el[j] * el[j] : 0.0), d[j], 1e-15);
      const double ax =
          d[j] * x[j] + (j > 0 ? e[j] * x[j - 1] : 0.0) + (j + 1 < n ? e[j + 1] * x[j + 1] : 0.0);
      EXPECT_NEAR(ax, b[j], 1e-14);
    }
    if (n < 3) continue;
    d[2] = 0.1;
    EXPECT_EQ(znlpcd3(n, 1e-8, d.data(), e.data(), dl.data(), el.data()), 3);
    d[0] = 1e-8;  // not above the tolerance
    EXPECT_EQ(znlpcd3(n, 1e-8, d.data(), e.data(), dl.data(), el.data()), 1);
    dl[1] = 0.0;
    EXPECT_EQ(znlpcs3(n, dl.data(), el.data(), b.data(), x.data()), 1);
  }
  // Scale below one lowers the tolerance with it.
  double d[] = {1e-6, 1e-9}, e[] = {0.0, 0.0}, dl[2], el[2];
  EXPECT_EQ(znlpcd3(2, 1e-4, d, e, dl, el), 0);
  EXPECT_EQ(znlpcd3(2, 1e-2, d, e, dl, el), 2);
  double d3[] = {1e-6, 1e-9}, e3[] = {0.0, 0.0};  // and alike in place
  EXPECT_EQ(znlpcd3(2, 1e-4, d3, e3, d3, e3), 0);
  EXPECT_EQ(d3[1], std::sqrt(1e-9));
}

}  // namespace tqnlp::test
