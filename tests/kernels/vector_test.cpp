// Vector kernels in every length that the lanes treat differently, and the edits and reductions of
// packed matrices.
#include "kernels/vector.h"

#include <gtest/gtest.h>

#include <array>

#include "kernels/crossproduct.h"
#include "kernels/dense.h"
#include "kernels/matrices.h"

namespace tqnlp::test {

TEST(VectorKernels, AgreeWithPlainLoopsInEveryLength) {
  for (long n = -1; n < 100; ++n) {
    SCOPED_TRACE(n);
    const long end = std::max(n, 0L);
    const Vec x = random_vector(3 * end + 1, 1), y = random_vector(2 * end + 1, 2);
    Longs list(end + 1);
    for (long i = 0; i < n; ++i) list[i] = (7 * i) % (2 * n);
    long double plain = 0, strided = 0, both = 0, listed = 0, norm = 0;
    double largest = 0.0;
    for (long i = 0; i < n; ++i) {
      const long double third = x[3 * i];
      plain += static_cast<long double>(x[i]) * y[i];
      strided += third * y[i];
      both += third * y[2 * i];
      listed += static_cast<long double>(x[list[i]]) * y[i];
      norm += third * third;
      largest = std::max(largest, std::fabs(x[i]));
    }
    const double one = run(zvdot11, n, x, y);
    const std::pair<double, long double> sums[] = {{one, plain},
                                                   {run(zvdotj1, n, 3, x, y), strided},
                                                   {run(zvdotjj, n, 3, x, 2, y), both},
                                                   {run(zvdots1, n, list, x, y), listed},
                                                   {run(zvenorm, n, 3, x), std::sqrt(norm)}};
    for (const auto& [sum, wanted] : sums)
      EXPECT_NEAR(sum, static_cast<double>(wanted), 1e-15 * static_cast<double>(n + 2));
    EXPECT_EQ(run(zinner, n, x, y), one);
    EXPECT_EQ(run(zvamx, n, x), largest);

    Vec z(end + 1, 9.0), a = x, b = x, c = x, scaled = x;
    run(zvaxpy, z, x, y, n, 0.5);
    run(zvxay11, n, a, 0.5, y);
    run(zvxay1j, n, b, 0.5, 2, y);
    run(zvxayj1, n, 3, c, 0.5, y);
    run(zvscl11, n, scaled, -2.0);
    for (long i = 0; i < n; ++i) {
      EXPECT_EQ(z[i], y[i] + 0.5 * x[i]);
      EXPECT_EQ(a[i], x[i] + 0.5 * y[i]);
      EXPECT_EQ(b[i], x[i] + 0.5 * y[2 * i]);
      EXPECT_EQ(c[3 * i], x[3 * i] + 0.5 * y[i]);
      EXPECT_EQ(scaled[i], -2.0 * x[i]);
    }
    EXPECT_EQ(z[end], 9.0);  // nothing beyond the end
    EXPECT_EQ(a[end], x[end]);
  }
}

TEST(VectorKernels, NormIsFreeOfOverflowAndUnderflow) {
  for (const double scale : {1.0, 1e-320, 1e-200, 1e200, 1e307})
    for (const long n : {2L, 12L}) {
      Vec x(n);
      x[0] = 3.0 * scale;
      x[n - 1] = -4.0 * scale;
      EXPECT_DOUBLE_EQ(run(zvenorm, n, 1, x), 5.0 * scale);
      x[1] += 1e-200 * scale;
      EXPECT_NEAR(run(zvenorm, n, 1, x) / scale, 5.0, 1e-3);
    }
  const double nan[] = {-7.0, std::nan(""), 0.0}, infinite[] = {1.0, HUGE_VAL, 1.0};
  EXPECT_EQ(zvamx(3, nan), 7.0);
  EXPECT_TRUE(std::isnan(zvenorm(3, 1, nan)));
  EXPECT_FALSE(std::isfinite(zvenorm(3, 1, infinite)));
  EXPECT_EQ(zvenorm(1, 1, nan + 2), 0.0);
}

TEST(VectorKernels, RangesSeeEveryElement) {
  const double nan = std::nan(""), huge = HUGE_VAL;
  for (long n = 0; n < 40; ++n) {
    Vec x(n, 1.0), lower(n, 1.0), upper(n, 2.0);
    EXPECT_TRUE(run(all_finite, n, x) && run(all_between, n, x, lower, upper)) << n;
    for (long j = 0; j < n; ++j) {
      for (const double bad : {nan, -nan, huge, -huge, 0.999, 2.001}) {
        x[j] = bad;
        EXPECT_EQ(run(all_finite, n, x), std::isfinite(bad)) << n << ' ' << j;
        EXPECT_FALSE(run(all_between, n, x, lower, upper)) << n << ' ' << j << ' ' << bad;
      }
      x[j] = 2.0;
    }
  }
}

// ---- Packed matrices ---------------------------------------------------------------------------

TEST(Crossproduct, AgreesWithPlainSumsInEveryShape) {
  for (const long n : {1L, 5L, 8L, 17L, 40L, 300L}) {
    for (const long m : {1L, 3L, 127L, 300L}) {
      SCOPED_TRACE(std::to_string(m) + " by " + std::to_string(n));
      const Vec j = random_vector(m * n, 3), f = random_vector(m, 4);
      Vec gradient(n), packed(packed_size(n) + 1, 7.0);
      crossproduct(m, n, j.data(), f.data(), gradient.data(), packed.data());
      EXPECT_EQ(packed.back(), 7.0);
      double error = 0.0;
      for (long r = 0; r <= n; ++r) {
        for (long c = 0; c < (r < n ? r + 1 : n); ++c) {
          double sum = r < n ? -packed[packed_size(r) + c] : -gradient[c];
          for (long i = 0; i < m; ++i) sum += (r < n ? j[i * n + r] : f[i]) * j[i * n + c];
          error = std::max(error, std::fabs(sum));
        }
      }
      EXPECT_LE(error, 1e-15 * m);
    }
  }
}

TEST(PackedEdits, SixJobs) {
  const long n = 6;
  const Dense a = symmetric(n, 3);
  const Longs ind{0, 1, 0, 0, 5, 0};
  const Vec values{1, 2, 3, 4, 5, 6, 7};
  const struct {
    int job;
    long k;
    bool marked;
    Longs rows;  // which rows of a remain, in order; -1 stands for the inserted row
  } cases[] = {{1, 0, false, {1, 2, 3, 4, 5}},
               {1, 2, false, {0, 1, 3, 4, 5}},
               {1, 5, false, {0, 1, 2, 3, 4}},
               {2, 3, true, {0, 2, 5}},
               {3, 0, true, {0, 2, 3, 5}},
               {4, 1, true, {0, -1, 2, 3, 5}},
               {4, 6, false, {0, 1, 2, 3, 4, 5, -1}},
               {5, 4, true, {0, 2, 3, 5, -1}},
               {6, 0, false, {-1, 0, 1, 2, 3, 4, 5}},
               {6, 3, false, {0, 1, 2, -1, 3, 4, 5}}};
  for (const auto& [job, k, marked, rows] : cases) {
    SCOPED_TRACE(testing::Message() << "job " << job << " at " << k);
    Vec c = pack(a);
    run(znlpsym, job, n, k, marked ? ind.data() : nullptr, values, c);
    for (long i = 0; i < static_cast<long>(rows.size()); ++i)
      for (long j = 0; j <= i; ++j) {
        double wanted = rows[i] >= 0 && rows[j] >= 0 ? a(rows[i], rows[j]) : 0.0;
        if (job == 4 && i == k && j == k) wanted = values[0];
        if (job == 6 && (i == k || j == k)) wanted = values[i == k ? j : i];
        EXPECT_EQ(c[zisub(i, j)], wanted) << i << ' ' << j;
      }
  }
}

TEST(Permutation, BothWaysWithTheOrderRestored) {
  for (const long n : {0L, 1L, 2L, 9L, 30L})
    for (unsigned seed = 0; seed < 6; ++seed) {
      const Longs before = random_order(n, seed);
      const Vec x = random_vector(n, seed);
      Longs piv = before;
      Vec y = x;
      run(znlpprm, 0, n, piv, y);
      for (long i = 0; i < n; ++i) EXPECT_EQ(y[i], x[piv[i]]);
      run(znlpprm, 1, n, piv, y);
      EXPECT_EQ(y, x);
      EXPECT_EQ(piv, before);
    }
}

TEST(Reductions, AgreeWithDenseProducts) {
  for (const auto& [n, m, p] :
       {std::array<long, 3>{1, 1, 1}, {7, 5, 3}, {30, 30, 11}, {41, 23, 23}}) {
    SCOPED_TRACE(n);
    const long incq = p + 2;
    const double near = 1e-14 * static_cast<double>(n * n);
    const Dense h = symmetric(n, 5), wide = random_dense(m, incq, 6), s = symmetric(p, 8);
    Longs ipiv = random_order(n, 4);
    const Dense q(m, p, [&wide](long i, long j) { return wide(i, j); });
    const Dense free(m, m, [&](long i, long j) { return h(ipiv[i], ipiv[j]); });
    const Dense diagonal(m, m, [&free](long i, long j) { return i == j ? free(i, i) : 0.0; });
    const Dense reduced = transpose(q) * free * q, by_diagonal = transpose(q) * diagonal * q;
    Vec res(packed_size(n)), w(n), w2(n), d(n), sym = pack(h);
    for (long i = 0; i < n; ++i) d[i] = h(i, i);
    const Vec packed = sym, packed_free = pack(free);
    run(znlpred, 0, n, m, p, incq, ipiv, packed, wide.a, res, w, w2);
    EXPECT_LE(distance(unpack(p, res), reduced), near);
    run(znlpred, 2, n, m, p, incq, ipiv, d, wide.a, res, w, w2);
    EXPECT_LE(distance(unpack(p, res), by_diagonal), near);
    run(znlpre3, m, p, incq, ipiv, sym, wide.a, w);
    EXPECT_LE(distance(unpack(p, sym), by_diagonal), near);

    // Rows and columns in any order, apart and in place.
    for (const bool in_place : {false, true}) {
      sym = packed;
      double* to = in_place ? sym.data() : res.data();
      run(znlpre2, 0, n, m, ipiv, sym, to, w, w2);
      EXPECT_EQ(distance(unpack(m, in_place ? sym : res), free), 0.0);
    }
    run(znlpre2, 2, n, m, ipiv, d, d, w, w2);
    for (long i = 0; i < m; ++i) EXPECT_EQ(d[i], free(i, i));
    Longs ascending = ipiv;
    std::sort(ascending.begin(), ascending.begin() + m);
    sym = packed;
    run(znlpre2, 0, n, m, ascending, sym, sym, w, w2);
    for (long i = 0; i < m; ++i) EXPECT_EQ(sym[zisub(i, 0)], h(ascending[i], ascending[0]));

    // Expansion, quadratic forms, products.
    const Dense expanded = q * s * transpose(q);
    run(znlpexp, m, p, incq, ipiv, pack(s).data(), wide.a, sym, w);
    EXPECT_LE(
        distance({m, m, [&](long i, long j) { return sym[zisub(ipiv[i], ipiv[j])]; }}, expanded),
        near);
    for (const int mod : {0, 1}) run(znlpquf, mod, m, p, incq, packed_free, wide.a, res, w);
    EXPECT_LE(distance(unpack(p, res), multiplied(reduced, 2.0)), 3 * near);
    double trace = 1.0;
    run(znlpqf3, 1, m, packed_free, packed_free, &trace);
    EXPECT_NEAR(trace, 1.0 + dot(free.a, free.a), near * 10);

    for (const bool marked : {false, true}) {
      Longs out(n);
      for (long i = 0; i < n; ++i) out[i] = marked && i % 3 == 1;
      const Dense part(n, n, [&](long i, long j) { return out[i] + out[j] == 0 ? h(i, j) : 0.0; });
      const Vec b = random_vector(n, 9);
      Vec x(n);
      run(znlpmul, nullptr, 0, n, marked ? out.data() : nullptr, packed, b, x);
      EXPECT_LE(distance(x, part * b), near);
    }
  }
}

TEST(Reductions, MoreRowsThanAPanelHoldsAgreeWithQuadraticForms) {
  const long n = 1030, p = 2;
  const Vec h = random_vector(packed_size(n), 1), q = random_vector(p * n, 2);
  Vec x(p * n), w(n), w2(n), res(3), wanted(3);
  Longs ipiv(n);
  for (long r = 0; r < n; ++r) {
    ipiv[r] = (r * 7) % n;
    for (long j = 0; j < p; ++j) x[ipiv[r] * p + j] = q[r * p + j];
  }
  run(znlpred, 0, n, n, p, p, ipiv, h, q, res, w, w2);
  run(znlpquf, 0, n, p, p, h, x, wanted, w);
  EXPECT_LT(distance(res, wanted), 1e-10);
}

TEST(FailedFactorization, VectorInVariableOrder) {
  // c = rows (2), (3 4), (5 6 7): x2 = 1, x1 = 6/4, x0 = (3*1.5 + 5)/2.
  const double c[] = {2.0, 3.0, 4.0, 5.0, 6.0, 7.0};
  Longs ipiv{2, 0, 1, 3};
  Vec x(4);
  run(znlpsbs, nullptr, 0, 4, 3, ipiv, c, x);
  EXPECT_EQ(x, (Vec{1.5, 1.0, 4.75, 0.0}));
  EXPECT_EQ(ipiv, (Longs{2, 0, 1, 3}));
  run(znlpsbs, nullptr, 1, 4, 3, nullptr, c, x);
  EXPECT_EQ(x, (Vec{0.0, 0.0, 1.0, 0.0}));
}

}  // namespace tqnlp::test
