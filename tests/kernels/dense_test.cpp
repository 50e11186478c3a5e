// Factorizations of symmetric matrices: what they promise, on random, graded, singular, indefinite
// and extremely scaled matrices of order 0 and up.
#include "kernels/dense.h"

#include <gtest/gtest.h>

#include <limits>

#include "kernels/matrices.h"

namespace tqnlp::test {

static constexpr double ROUNDING = std::numeric_limits<double>::epsilon();

struct Factored {
  MINSTR str{};
  int job;
  long n;
  Longs ipiv;
  Vec c;
  double logdet = 7.0;
  long failed = 0;

  Factored(int form, long order, double sing, Vec matrix)
      : job(form), n(order), ipiv(n), c(std::move(matrix)) {
    str.ipiv = ipiv.data();
    failed = run(znlpcde, &str, job, n, sing, &logdet, c, c, nullptr);
  }
  // A solve or product with the factor.
  template <class Kernel>
  auto on(Kernel kernel, Vec& b) {
    return kernel(&str, job, n, c.data(), b.data());
  }
};

// Every form of factor against the matrix itself: its product, determinant, solves, half solves,
// products and inverse.
TEST(Factorization, EveryFormAgreesWithTheMatrix) {
  for (const long n : {0, 1, 2, 3, 7, 20, 31, 33, 50, 64, 67, 100, 131}) {
    const double grade = n == 7 ? 0.5 : n == 33 ? 0.9 : n == 67 ? 0.95 : 1.0;
    const double factor = n == 3 ? 1e-200 : n == 20 ? 1e150 : n == 67 ? 1e-150 : 1.0;
    const Dense a = multiplied(gram(n, n + 3, 12, grade), factor);
    const Vec x = random_vector(n, 5), ax = a * x;
    Vec root(n);
    double ax_scale = 0.0, first_logdet = 0.0;
    for (long i = 0; i < n; ++i) ax_scale += (root[i] = std::sqrt(a(i, i))) * std::fabs(x[i]);
    const double tolerance = 40.0 * static_cast<double>(n + 1) * ROUNDING;
    for (const int job : {2, 4, 1}) {
      SCOPED_TRACE(testing::Message() << "order " << n << ", job " << job);
      Factored f(job, n, 0.0, pack(a));
      ASSERT_EQ(f.failed, 0);
      Dense l = unpack(n, f.c, true);
      double logdet = 0.0;
      for (long j = 0; j < n; ++j) {
        const double pivot = job == 1 ? std::sqrt(l(j, j)) : l(j, j);
        logdet += 2.0 * std::log(pivot);
        if (job == 1) l(j, j) = 1.0;
        for (long i = j; job == 1 && i < n; ++i) l(i, j) *= pivot;
      }
      EXPECT_NEAR(f.logdet, logdet, 1e-10 * (1.0 + std::fabs(logdet)));
      if (job == 2) first_logdet = f.logdet;
      EXPECT_NEAR(f.logdet, first_logdet, 1e-6 * (1.0 + std::fabs(logdet)));
      const Dense product = l * transpose(l);
      for (long i = 0; i < n; ++i)
        for (long j = 0; j < n; ++j) {
          const long r = job == 4 ? f.ipiv[i] : i, c = job == 4 ? f.ipiv[j] : j;
          EXPECT_NEAR(product(i, j), a(r, c), tolerance / 2 * root[r] * root[c]);
          EXPECT_TRUE(job != 4 || j < i || l(i, i) * (1.0 + 1e-10) >= l(j, j));
        }
      // Products and solves undo each other, half by half and whole.
      Vec whole = x, upper = x;
      f.on(znlpmmu, whole);
      f.on(znlpumu, upper);
      Vec halves = upper;
      f.on(znlplmu, halves);
      for (long i = 0; i < n; ++i) {
        EXPECT_NEAR(whole[i], ax[i], tolerance * root[i] * ax_scale);
        EXPECT_NEAR(halves[i], ax[i], tolerance * root[i] * ax_scale);
      }
      EXPECT_EQ(f.on(znlpium, upper) + f.on(znlpcso, whole) + f.on(znlpilm, halves), 0);
      EXPECT_EQ(f.on(znlpium, halves), 0);
      for (long i = 0; i < n; ++i) {
        // Relative to the scale of the unknowns, which grade and conditioning spread.
        const double wide = 1e5 * tolerance * std::pow(grade, -i);
        for (const Vec* solution : {&upper, &whole, &halves})
          EXPECT_NEAR((*solution)[i], x[i], wide);
      }
      if (job == 4) continue;
      Vec inverse = pack(a);
      ASSERT_EQ(run(znlpcin, &f.str, job, n, 0.0, inverse, inverse, nullptr), 0);
      const Dense unit = a * unpack(n, inverse);
      for (long i = 0; i < n; ++i)
        for (long j = 0; j < n; ++j)
          EXPECT_NEAR(unit(i, j), i == j, 1e-9 * root[i] * std::sqrt(inverse[zisub(j, j)]));
    }
  }
}

TEST(Factorization, ReportsTheFirstPivotWithinRounding) {
  for (const long n : {3L, 40L, 70L}) {
    const Dense a = gram(n, n - 1, 21);  // rank n-1: only the last pivot fails
    for (const int job : {1, 2, 4}) {
      SCOPED_TRACE(job);
      Factored singular(job, n, job == 4 ? 1e-8 : 0.0, pack(a));
      EXPECT_EQ(singular.failed, n);
      EXPECT_EQ(singular.logdet, LOG_TINY);
      EXPECT_LT(singular.c[packed_size(n) - 1], 0.0);
      // A limit from the caller, and a NaN, which must fail where it stands and leave a negative
      // pivot.
      Dense diagonal = identity(n);
      diagonal(n - 2, n - 2) = 0.5;
      EXPECT_EQ(Factored(job, n, 0.49, pack(diagonal)).failed, 0);
      Factored small(job, n, 0.5, pack(diagonal));
      EXPECT_EQ(small.failed, job == 4 ? n : n - 1);
      EXPECT_EQ(small.c[packed_size(small.failed) - 1], -1.0);
      diagonal(n - 2, n - 2) = std::nan("");
      Factored nan(job, n, 0.1, pack(diagonal));
      EXPECT_GT(nan.failed, 0);
      EXPECT_LT(nan.c[packed_size(nan.failed) - 1], 0.0);
    }
  }
  // The relative limit of 1000 rounding units: second pivot 1 + t - 1 = t against 1.11e-13 (1 + t).
  for (const int job : {1, 2}) {
    EXPECT_EQ(Factored(job, 2, 0.0, {1.0, 1.0, 1.0 + 1.12e-13}).failed, 0);
    EXPECT_EQ(Factored(job, 2, 0.0, {1.0, 1.0, 1.0 + 1.10e-13}).failed, 2);
  }
  EXPECT_EQ(Factored(4, 2, 0.0, {1.0, 1.0, 1.0 + 1e-15}).failed, 0);  // no relative test
}

TEST(Factorization, PivotingTakesTheFirstOfEqualDiagonalsInAnyOrder) {
  Dense d = multiplied(identity(5), 3.0);
  d(0, 0) = 1.0;
  EXPECT_EQ(Factored(4, 5, 0.0, pack(d)).ipiv, (Longs{1, 2, 3, 4, 0}));
  // Beyond the buffered orders. An arrow: the matrix is known by its last row and its diagonal, and
  // the residual is cheap.
  const long n = 1100;
  Vec a(packed_size(n)), last = random_vector(n, 13), diagonal(n), x(n, 1.0);
  for (long i = 0; i < n; ++i) {
    diagonal[i] = i == n - 1 ? 500.0 : 5.0 + static_cast<double>((i * 37) % 101);
    a[zisub(n - 1, i)] = last[i];
    a[zisub(i, i)] = diagonal[i];
  }
  Factored f(4, n, 0.0, a);
  ASSERT_EQ(f.failed, 0);
  EXPECT_EQ(f.ipiv[0], n - 1);
  f.on(znlpcso, x);
  last[n - 1] = diagonal[n - 1];
  EXPECT_NEAR(dot(last, x), 1.0, 1e-12);
  for (long i = 0; i + 1 < n; ++i) EXPECT_NEAR(diagonal[i] * x[i] + last[i] * x[n - 1], 1.0, 1e-12);
}

TEST(Factorization, DiagonalForms) {
  const Factored plain(3, 4, 0.0, {4.0, 9.0, 0.0, 1.0});
  EXPECT_TRUE(plain.failed == 3 && plain.c[2] == -2.0 * DIAGONAL_PIVOT_FLOOR);
  EXPECT_EQ(plain.logdet, 7.0);
  EXPECT_EQ(Factored(3, 1, 0.25, {0.25}).failed, 0);  // the limit itself passes
  Factored sorted(5, 4, 0.0, {4.0, 9.0, 16.0, 9.0});
  EXPECT_EQ(sorted.failed, 0);
  EXPECT_EQ(sorted.c, (Vec{4.0, 3.0, 3.0, 2.0}));
  EXPECT_EQ(sorted.ipiv, (Longs{2, 1, 3, 0}));
  Vec b{4.0, 9.0, 16.0, 18.0};
  EXPECT_EQ(sorted.on(znlpcso, b), 0);
  EXPECT_EQ(b, (Vec{1.0, 1.0, 1.0, 2.0}));
  sorted.on(znlpumu, b);
  EXPECT_EQ(b, (Vec{2.0, 3.0, 4.0, 6.0}));
  sorted.on(znlpilm, b);
  sorted.on(znlpmmu, b);
  EXPECT_EQ(b, (Vec{4.0, 9.0, 16.0, 18.0}));
  Vec zero{0.0, 1.0};
  EXPECT_EQ(run(znlpcso, &sorted.str, 3, 2, zero, b), 1);
}

TEST(Factorization, JobZeroChoosesByFormAndConstraints) {
  MINSTR str{};
  double logdet = 0.0;
  for (const int hfrm : {0, 2})
    for (const int constrained : {0, 1, 2}) {
      Longs ipiv(3, -9);
      Vec c{1.0, 0.5, 4.0};
      str.ipiv = ipiv.data();
      str.hfrm = hfrm;
      str.bounds = constrained == 1;
      str.lincon = constrained == 2;
      EXPECT_EQ(run(znlpcde, &str, 0, hfrm == 2 ? 3 : 2, 0.0, &logdet, c, c, nullptr), 0);
      EXPECT_EQ(ipiv[0], constrained == 0 ? -9 : (hfrm == 2 ? 2 : 1));
    }
  double c = 1.0;
  EXPECT_ANY_THROW(znlpcde(&str, 9, 1, 0.0, nullptr, &c, &c, nullptr));
  EXPECT_ANY_THROW(znlpcin(&str, 4, 1, 0.0, &c, &c, nullptr));
}

// ---- Modified Cholesky -------------------------------------------------------------------------

TEST(ModifiedCholesky, AddsANonNegativeDiagonalOnlyWhereNeeded) {
  enum Kind { DEFINITE, SINGULAR, INDEFINITE, ZERO, ZERO_DIAGONAL };
  for (const long n : {1, 2, 3, 5, 10, 41})
    for (const Kind kind : {DEFINITE, SINGULAR, INDEFINITE, ZERO, ZERO_DIAGONAL}) {
      SCOPED_TRACE(testing::Message() << "order " << n << ", kind " << kind);
      Dense a = kind == DEFINITE   ? gram(n, n + 2, 31)
                : kind == SINGULAR ? gram(n, (n + 1) / 2, 32)
                : kind == ZERO     ? Dense(n, n)
                                   : symmetric(n, 33);
      for (long i = 0; kind == ZERO_DIAGONAL && i < n; ++i) a(i, i) = 0.0;
      Vec l = pack(a), e(n), g(n);
      Longs ipiv(n);
      const double delta = run(zmchol, n, ipiv, 0.0, 0.0, l, e, g);
      const Dense factor = unpack(n, l, true), product = factor * transpose(factor);
      EXPECT_TRUE(kind != DEFINITE || delta == 0.0);
      EXPECT_TRUE(kind == ZERO || delta == size(e));
      for (long i = 0; i < n; ++i) {
        EXPECT_GE(e[i], 0.0);
        EXPECT_GT(factor(i, i), 0.0);
        for (long j = 0; j < n && size(a) > 0.0; ++j)
          EXPECT_NEAR(product(i, j), a(ipiv[i], ipiv[j]) + (i == j ? e[i] : 0.0),
                      1e-13 * static_cast<double>(n) * (size(a) + delta));
      }
      // The shift stays within a small multiple of what the most negative eigenvalue demands.
      EXPECT_LE(delta, 3.0 * static_cast<double>(n) * size(a) + 1e-5);
    }
}

TEST(ModifiedCholesky, SmallCasesByHand) {
  long ipiv[2];
  double g[2], e[2], one[] = {-2.0}, two[] = {1.0, 2.0, 1.0}, nan[] = {0.0, std::nan(""), 0.0};
  EXPECT_DOUBLE_EQ(zmchol(1, ipiv, 0.0, 0.25, one, e, g), 2.5);
  EXPECT_DOUBLE_EQ(one[0], std::sqrt(0.5));
  // Eigenvalues -1 and 3: delta = max(4/(1-tau), 1) tau + 1.
  EXPECT_DOUBLE_EQ(zmchol(2, ipiv, 0.0, 0.5, two, nullptr, g), 5.0);
  EXPECT_EQ(zmchol(0, ipiv, 0.0, 0.0, two, e, g), 0.0);
  zmchol(2, ipiv, 0.0, 0.0, nan, e, g);  // not a zero matrix
  EXPECT_TRUE(std::isnan(nan[0]));
}

// ---- Tridiagonal forms -------------------------------------------------------------------------

TEST(TridiagonalForm, ReductionIsAnOrthogonalSimilarity) {
  for (const long n : {0, 1, 2, 3, 4, 5, 6, 17, 40, 90}) {
    const double grade = n == 4 ? 0.1 : n == 40 ? 0.8 : 1.0;
    const double factor = n == 5 ? 1e-300 : n == 6 ? 1e300 : 1.0;
    Dense a = symmetric(n, 41);
    for (long i = 0; i < n; ++i)
      for (long j = 0; j < n; ++j) a(i, j) *= factor * std::pow(grade, i + j);
    for (long i = 0; n == 17 && i < n; ++i) a(12, i) = a(i, 12) = 0.0;  // no reflection there
    Vec reduced = pack(a), wrk(2 * n + 1);
    run(ztred3, n, reduced, wrk);
    // P' by its rows, then P'P = I and P T = A P.
    Dense pt = identity(n), t(n, n);
    for (long j = 0; j < n; ++j) {
      run(ztrapp3, 1, n, reduced, &pt(j, 0));
      Vec back(&pt(j, 0), &pt(j, 0) + n);
      run(ztrapp3, 0, n, reduced, back);
      for (long i = 0; i < n; ++i) EXPECT_NEAR(back[i], i == j, 1e-14 * n);
      t(j, j) = wrk[j];
      if (j > 0) t(j, j - 1) = t(j - 1, j) = wrk[n + j];
    }
    EXPECT_EQ(wrk[n], 0.0);
    EXPECT_LE(distance(transpose(pt) * t, a * transpose(pt)), 1e-14 * n * size(a));
  }
}

TEST(TridiagonalForm, NanIsKept) {
  Vec a = pack(symmetric(4, 3)), wrk(8);
  a[zisub(3, 0)] = std::nan("");
  run(ztred3, 4, a, wrk);
  EXPECT_EQ(size(wrk), HUGE_VAL);
}

TEST(TridiagonalForm, CholeskyAndSolve) {
  for (const long n : {0L, 1L, 2L, 5L, 100L}) {
    Vec d(n, 2.5), e(n, -1.0), dl(n), el(n), x(n), ax(n);
    const Vec b = random_vector(n, 9);
    ASSERT_EQ(run(znlpcd3, n, 1e-8, d, e, dl, el), 0);
    ASSERT_EQ(run(znlpcs3, n, dl, el, b, x), 0);
    for (long j = 0; j < n; ++j) {
      EXPECT_NEAR(j > 0 ? el[j] * dl[j - 1] : -1.0, -1.0, 1e-15);
      EXPECT_NEAR(dl[j] * dl[j] + (j > 0 ? el[j] * el[j] : 0.0), d[j], 1e-15);
      ax[j] += d[j] * x[j];
      if (j > 0) ax[j] += e[j] * x[j - 1], ax[j - 1] += e[j] * x[j];
    }
    EXPECT_LT(distance(ax, b), 1e-14);
  }
  // Pivots and their limit, in place: relative to the largest element, that limited to 1.
  const auto failed = [](Vec d, double coupling, double sing) {
    Vec e(d.size(), coupling);
    const long code = run(znlpcd3, static_cast<long>(d.size()), sing, d, e, d, e);
    EXPECT_TRUE(code != 0 || d[1] == std::sqrt(1e-9));
    return code;
  };
  EXPECT_EQ(failed({2.5, 2.5, 0.1, 2.5}, -1.0, 1e-8), 3);
  EXPECT_EQ(failed({1e-8, 2.5, 2.5, 2.5}, -1.0, 1e-8), 1);
  EXPECT_EQ(failed({1e-6, 1e-9}, 0.0, 1e-4), 0);
  EXPECT_EQ(failed({1e-6, 1e-9}, 0.0, 1e-2), 2);
  double dl[] = {1.0, 0.0}, el[] = {0.0, 1.0}, x[2] = {};
  EXPECT_EQ(znlpcs3(2, dl, el, x, x), 1);
}

}  // namespace tqnlp::test
