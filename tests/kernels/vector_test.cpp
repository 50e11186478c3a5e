// Vector kernels in every length that the lanes treat differently, and the edits and reductions of
// packed matrices.
#include "kernels/vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "kernels/dense.h"
#include "kernels/matrices.h"

namespace tqnlp::test {

TEST(VectorKernels, AgreeWithPlainLoopsInEveryLength) {
  for (long n = -1; n < 100; ++n) {
    SCOPED_TRACE(n);
    const Vec x = random_vector(3 * n, 1), y = random_vector(2 * n, 2);
    std::vector<long> list(static_cast<std::size_t>(n > 0 ? n : 0) + 1);
    for (long i = 0; i < n; ++i) list[i] = (7 * i) % (2 * n);
    long double dot = 0, strided = 0, both = 0, listed = 0, norm = 0;
    for (long i = 0; i < n; ++i) {
      dot += static_cast<long double>(x[i]) * y[i];
      strided += static_cast<long double>(x[3 * i]) * y[i];
      both += static_cast<long double>(x[3 * i]) * y[2 * i];
      listed += static_cast<long double>(x[list[i]]) * y[i];
      norm += static_cast<long double>(x[3 * i]) * x[3 * i];
    }
    const double near = 1e-15 * static_cast<double>(n + 2);
    EXPECT_NEAR(zvdot11(n, x.data(), y.data()), static_cast<double>(dot), near);
    EXPECT_EQ(zinner(n, x.data(), y.data()), zvdot11(n, x.data(), y.data()));
    EXPECT_NEAR(zvdotj1(n, 3, x.data(), y.data()), static_cast<double>(strided), near);
    EXPECT_NEAR(zvdotjj(n, 3, x.data(), 2, y.data()), static_cast<double>(both), near);
    EXPECT_NEAR(zvdots1(n, list.data(), x.data(), y.data()), static_cast<double>(listed), near);
    EXPECT_NEAR(zvenorm(n, 3, x.data()), std::sqrt(static_cast<double>(norm)), near);

    double largest = 0.0;
    for (long i = 0; i < n; ++i) largest = std::max(largest, std::fabs(x[i]));
    EXPECT_EQ(zvamx(n, x.data()), largest);

    Vec z(y.size() + 1, 9.0), a = x, b = x, c = x, scaled = x;
    zvaxpy(z.data(), x.data(), y.data(), n, 0.5);
    zvxay11(n, a.data(), 0.5, y.data());
    zvxay1j(n, b.data(), 0.5, 2, y.data());
    zvxayj1(n, 3, c.data(), 0.5, y.data());
    zvscl11(n, scaled.data(), -2.0);
    for (long i = 0; i < n; ++i) {
      EXPECT_EQ(z[i], y[i] + 0.5 * x[i]);
      EXPECT_EQ(a[i], x[i] + 0.5 * y[i]);
      EXPECT_EQ(b[i], x[i] + 0.5 * y[2 * i]);
      EXPECT_EQ(c[3 * i], x[3 * i] + 0.5 * y[i]);
      EXPECT_EQ(scaled[i], -2.0 * x[i]);
    }
    EXPECT_EQ(z[n > 0 ? n : 0], 9.0);  // nothing beyond the end
    EXPECT_EQ(a[n > 0 ? n : 0], x[n > 0 ? n : 0]);
  }
}

TEST(VectorKernels, NormIsFreeOfOverflowAndUnderflow) {
  for (const double scale : {1.0, 1e-320, 1e-200, 1e200, 1e307}) {
    for (const long n : {2L, 12L}) {
      Vec x(n, 0.0);
      x[0] = 3.0 * scale;
      x[n - 1] = -4.0 * scale;
      EXPECT_DOUBLE_EQ(zvenorm(n, 1, x.data()), 5.0 * scale);
      x[1] += 1e-200 * scale;
      EXPECT_NEAR(zvenorm(n, 1, x.data()) / scale, n == 2 ? 5.0 : 5.0, 1e-3);
    }
  }
  double x[] = {-7.0, std::nan(""), 0.0};
  EXPECT_EQ(zvamx(3, x), 7.0);
  EXPECT_TRUE(std::isnan(zvenorm(3, 1, x)));
  for (double& v : x) v = v == 0.0 ? HUGE_VAL : 1.0;
  EXPECT_FALSE(std::isfinite(zvenorm(3, 1, x)));
  x[2] = 0.0;
  EXPECT_EQ(zvenorm(1, 1, x + 2), 0.0);
}

// ---- Packed matrices ---------------------------------------------------------------------------

TEST(PackedEdits, SixJobs) {
  const long n = 6;
  const Dense a = symmetric(n, 3);
  const long ind[] = {0, 1, 0, 0, 5, 0};
  // Which rows of a remain, in order; -1 stands for the inserted row.
  const auto check = [&](int job, long k, const long* flags, const Vec& d,
                         const std::vector<long>& rows) {
    SCOPED_TRACE(job);
    Vec c = pack(a);
    c.resize(packed_size(n + 1) + 1, 9.0);
    znlpsym(job, n, k, flags, d.data(), c.data());
    const long order = static_cast<long>(rows.size());
    for (long i = 0; i < order; ++i)
      for (long j = 0; j <= i; ++j) {
        double wanted = rows[i] >= 0 && rows[j] >= 0 ? a(rows[i], rows[j]) : 0.0;
        if (job == 4 && i == k && j == k) wanted = d[0];
        if (job == 6 && (i == k || j == k)) wanted = d[i == k ? j : i];
        EXPECT_EQ(c[zisub(i, j)], wanted) << i << ' ' << j;
      }
  };
  for (const long k : {0L, 2L, 5L}) {
    std::vector<long> rest;
    for (long i = 0; i < n; ++i)
      if (i != k) rest.push_back(i);
    check(1, k, nullptr, {0}, rest);
  }
  check(2, 3, ind, {0}, {0, 2, 5});
  check(3, 0, ind, {0}, {0, 2, 3, 5});
  check(4, 1, ind, {2.5}, {0, -1, 2, 3, 5});
  check(4, 6, nullptr, {2.5}, {0, 1, 2, 3, 4, 5, -1});
  check(5, 4, ind, {0}, {0, 2, 3, 5, -1});
  check(6, 0, nullptr, {1, 2, 3, 4, 5, 6, 7}, {-1, 0, 1, 2, 3, 4, 5});
  check(6, 3, nullptr, {1, 2, 3, 4, 5, 6, 7}, {0, 1, 2, -1, 3, 4, 5});
}

TEST(Permutation, BothWaysWithTheOrderRestored) {
  for (const long n : {0L, 1L, 2L, 9L, 30L}) {
    std::vector<long> piv(n);
    std::iota(piv.begin(), piv.end(), 0);
    for (unsigned seed = 0; seed < 6; ++seed) {
      const std::vector<long> before = piv;
      const Vec x = random_vector(n, seed);
      Vec y = x;
      znlpprm(0, n, piv.data(), y.data());
      for (long i = 0; i < n; ++i) EXPECT_EQ(y[i], x[piv[i]]);
      znlpprm(1, n, piv.data(), y.data());
      EXPECT_EQ(y, x);
      EXPECT_EQ(piv, before);
      std::shuffle(piv.begin(), piv.end(), std::mt19937(seed));
    }
  }
}

TEST(Reductions, AgreeWithDenseProducts) {
  for (const auto& [n, m, p] :
       {std::array<long, 3>{1, 1, 1}, {7, 5, 3}, {30, 30, 11}, {41, 23, 23}}) {
    const long incq = p + 2;
    const Dense h = symmetric(n, 5);
    const Dense wide = random_dense(m, incq, 6);
    Dense q(m, p), free(m, m), diagonal(m, m);
    std::vector<long> ipiv(n);
    std::iota(ipiv.begin(), ipiv.end(), 0);
    std::shuffle(ipiv.begin(), ipiv.end(), std::mt19937(4));
    for (long i = 0; i < m; ++i) {
      for (long j = 0; j < p; ++j) q(i, j) = wide(i, j);
      for (long j = 0; j < m; ++j) free(i, j) = h(ipiv[i], ipiv[j]);
      diagonal(i, i) = free(i, i);
    }
    Vec res(packed_size(n) + 1), w(n + 1), w2(n + 1), d(n);
    for (long i = 0; i < n; ++i) d[i] = h(i, i);
    const double near = 1e-14 * static_cast<double>(n * n);
    znlpred(0, n, m, p, incq, ipiv.data(), pack(h).data(), wide.a.data(), res.data(), w.data(),
            w2.data());
    EXPECT_LE(distance(unpack(p, res), transpose(q) * free * q), near);
    const Dense by_diagonal = transpose(q) * diagonal * q;
    znlpred(2, n, m, p, incq, ipiv.data(), d.data(), wide.a.data(), res.data(), w.data(),
            w2.data());
    EXPECT_LE(distance(unpack(p, res), by_diagonal), near);
    Vec sym = pack(h);
    znlpre3(m, p, incq, ipiv.data(), sym.data(), wide.a.data(), w.data());
    EXPECT_LE(distance(unpack(p, sym), by_diagonal), near);

    // Rows and columns in any order, apart and in place.
    Vec apart(packed_size(n) + 1);
    sym = pack(h);
    znlpre2(0, n, m, ipiv.data(), sym.data(), apart.data(), w.data(), w2.data());
    EXPECT_EQ(distance(unpack(m, apart), free), 0.0);
    znlpre2(0, n, m, ipiv.data(), sym.data(), sym.data(), w.data(), w2.data());
    EXPECT_EQ(distance(unpack(m, sym), free), 0.0);
    znlpre2(2, n, m, ipiv.data(), d.data(), d.data(), w.data(), w2.data());
    for (long i = 0; i < m; ++i) EXPECT_EQ(d[i], free(i, i));
    std::vector<long> ascending = ipiv;
    std::sort(ascending.begin(), ascending.begin() + m);
    sym = pack(h);
    znlpre2(0, n, m, ascending.data(), sym.data(), sym.data(), w.data(), w2.data());
    for (long i = 0; i < m; ++i) EXPECT_EQ(sym[zisub(i, 0)], h(ascending[i], ascending[0]));

    // Expansion, quadratic forms, products.
    const Dense s = symmetric(p, 8);
    Vec expanded(packed_size(n) + 1, 7.0);
    znlpexp(m, p, incq, ipiv.data(), pack(s).data(), wide.a.data(), expanded.data(), w.data());
    const Dense qsq = q * s * transpose(q);
    for (long i = 0; i < m; ++i) {
      for (long j = 0; j < m; ++j) {
        EXPECT_NEAR(expanded[zisub(ipiv[i], ipiv[j])], qsq(i, j), near);
      }
    }
    znlpquf(0, m, p, incq, pack(free).data(), wide.a.data(), res.data(), w.data());
    znlpquf(1, m, p, incq, pack(free).data(), wide.a.data(), res.data(), w.data());
    EXPECT_LE(distance(unpack(p, res), multiplied(transpose(q) * free * q, 2.0)), 3 * near);
    double trace = 1.0, wanted = 1.0;
    znlpqf3(1, m, pack(free).data(), pack(free).data(), &trace);
    for (long i = 0; i < m * m; ++i) wanted += free.a[i] * free.a[i];
    EXPECT_NEAR(trace, wanted, near * 10);

    const Vec b = random_vector(n, 9);
    std::vector<long> out(n);
    for (long i = 0; i < n; ++i) out[i] = i % 3 == 1;
    for (const long* ind :
         {static_cast<const long*>(nullptr), static_cast<const long*>(out.data())}) {
      Vec x(n);
      MINSTR str{};
      znlpmul(&str, 0, n, ind, pack(h).data(), b.data(), x.data());
      for (long i = 0; i < n; ++i) {
        double sum = 0.0;
        for (long j = 0; j < n; ++j) {
          if (ind == nullptr || (ind[i] == 0 && ind[j] == 0)) sum += h(i, j) * b[j];
        }
        EXPECT_NEAR(x[i], sum, near);
      }
    }
  }
}

TEST(Reductions, MoreRowsThanAPanelHoldsAgreeWithQuadraticForms) {
  const long n = 1030, p = 2;
  const Vec h = random_vector(packed_size(n), 1), q = random_vector(p * n, 2);
  Vec x(p * n), w(n), w2(n), res(3), wanted(3);
  std::vector<long> ipiv(n);
  for (long r = 0; r < n; ++r) {
    ipiv[r] = (r * 7) % n;
    for (long j = 0; j < p; ++j) x[ipiv[r] * p + j] = q[r * p + j];
  }
  znlpred(0, n, n, p, p, ipiv.data(), h.data(), q.data(), res.data(), w.data(), w2.data());
  znlpquf(0, n, p, p, h.data(), x.data(), wanted.data(), w.data());
  for (long k = 0; k < 3; ++k) EXPECT_NEAR(res[k], wanted[k], 1e-10);
}

TEST(FailedFactorization, VectorInVariableOrder) {
  // c = rows (2), (3 4), (5 6 7): x2 = 1, x1 = 6/4, x0 = (3*1.5 + 5)/2.
  const double c[] = {2.0, 3.0, 4.0, 5.0, 6.0, 7.0};
  long ipiv[] = {2, 0, 1, 3};
  double x[4];
  znlpsbs(nullptr, 0, 4, 3, ipiv, c, x);
  EXPECT_EQ((Vec{x, x + 4}), (Vec{1.5, 1.0, 4.75, 0.0}));
  znlpsbs(nullptr, 1, 4, 3, nullptr, c, x);
  EXPECT_EQ((Vec{x, x + 4}), (Vec{0.0, 0.0, 1.0, 0.0}));
}

}  // namespace tqnlp::test
