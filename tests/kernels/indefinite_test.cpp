// The dense indefinite factorization and its companions: A = P'UDU'P, inertia, determinant, solves,
// generalized inverses, permuted factors.
#include "kernels/indefinite.h"

#include <gtest/gtest.h>

#include "kernels/matrices.h"

namespace tqnlp::test {

static Dense random_symmetric(long n, unsigned seed, double scale = 1.0) {
  return unpack(n, random_vector(packed_size(n), seed, scale));
}

struct Factor {
  long n, nullity;
  Vec a, det = Vec(5);
  Longs h;
  Factor(const Dense& matrix, double sing) : n(matrix.rows), a(pack(matrix)), h(n) {
    nullity = run(zududec, n, sing, det, a, h);
  }
  // P'U D U'P, put together from the pieces as they are laid down.
  Dense product() const {
    Dense u(n, n), d(n, n);
    for (long k = n - 1; k >= 0; --k) {
      const long block = h[k] < 0 ? 2 : 1;
      const auto variable = [this](long p) { return h[p] < 0 ? -1 - h[p] : h[p]; };
      for (long p = k; p > k - block; --p) {
        u(variable(p), p) = 1.0;
        d(p, p) = a[zisub(p, p)];
        for (long i = 0; i <= k - block; ++i) u(variable(i), p) = a[zisub(p, i)];
      }
      if (block == 2) d(k, k - 1) = d(k - 1, k) = a[zisub(k, k - 1)], --k;
    }
    return u * d * transpose(u);
  }
};

// Orders on both sides of the limit where updates are kept waiting, with every kind of pivot.
TEST(Indefinite, FactorMultipliesToTheMatrixSolvesAndTellsTheInertia) {
  // No diagonal: blocks of order 2 alone. Quasi-definite: the inertia is that of the diagonal.
  enum Kind { RANDOM, NO_DIAGONAL, DEFINITE, ZERO_ROW, QUASI_DEFINITE, UNEVEN };
  for (const double scale : {1.0, 1e-290, 1e290})
    for (const long n : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 17, 40, 50, 95, 96, 97, 130, 300})
      for (const Kind kind : {RANDOM, NO_DIAGONAL, DEFINITE, ZERO_ROW, QUASI_DEFINITE, UNEVEN}) {
        if (n > 40 && scale != 1.0) continue;
        SCOPED_TRACE(testing::Message() << scale << ", order " << n << ", kind " << kind);
        Dense a = random_symmetric(n, kind + 1u, scale);
        const long negative = kind >= QUASI_DEFINITE ? n / 3 : 0, p = 3, stride = n + 2;
        const double heavy = 2.0 * scale * static_cast<double>(n);
        for (long i = 0; i < n; ++i) {
          if (kind == NO_DIAGONAL) a(i, i) = 0.0;
          if (kind == DEFINITE) a(i, i) = heavy;
          if (kind == ZERO_ROW) a(n / 2, i) = a(i, n / 2) = 0.0;
          if (kind >= QUASI_DEFINITE) a(i, i) = (i < negative ? -0.6 : 0.6) * heavy;
          if (kind == UNEVEN && i % 2 == 0) a(i, i) *= 0.98;
        }
        const Factor f(a, 0.0);
        EXPECT_LT(distance(f.product(), a), 1e-13 * scale * static_cast<double>(n + 1));
        EXPECT_EQ(f.nullity, (kind == ZERO_ROW && n > 0) || (kind == NO_DIAGONAL && n == 1));
        EXPECT_EQ(f.det[2] + f.det[3] + f.det[4], static_cast<double>(n));
        EXPECT_TRUE(kind == RANDOM || kind == NO_DIAGONAL || kind == ZERO_ROW ||
                    f.det[3] == static_cast<double>(negative));
        if (f.nullity != 0 || scale != 1.0) continue;
        const Vec b = random_vector(p * stride, kind + 100u);
        Vec x = b;
        EXPECT_EQ(run(zudusol, n, p, stride, f.a, x, f.h), 0);
        for (long at = 0; at < p * stride; at += stride) {
          const Vec one(&x[at], &x[at + n]), right(&b[at], &b[at + n]);
          const double growth = static_cast<double>(n + 1) * (size(a) * size(one) + 1.0);
          EXPECT_LT(distance(a * one, right), 1e-14 * growth);
          EXPECT_EQ(x[at + n], b[at + n]) << "behind the right side";
        }
      }
}

TEST(Indefinite, SingularMatricesGiveRankAndGeneralizedInverse) {
  for (long n : {1, 2, 3, 5, 12, 30, 120})
    for (long rank : {0L, 1L, n / 2, n - 1, n}) {
      const Dense b = random_dense(n, rank, 12);
      const Dense a = b * random_symmetric(rank, 11) * transpose(b);
      Factor f(a, 1e-9);
      ASSERT_EQ(f.nullity, n - rank);
      EXPECT_EQ(f.det[4], static_cast<double>(n - rank));
      EXPECT_EQ(f.det[0] == 0.0, rank < n);
      // A consistent system is solved even so; zeros are counted once.
      const Vec right = a * Vec(n, 1.0);
      Vec x = right, w(n);
      EXPECT_EQ(run(zudusol, n, 1, n, f.a, x, f.h), n - rank);
      EXPECT_LT(distance(a * x, right), 1e-8 * (1.0 + size(a)));
      run(zuduinv, n, f.a, f.h, w);
      const Dense g = unpack(n, f.a);
      const double scale = 1.0 + size(g);
      EXPECT_LT(distance(a * g * a, a), 1e-9 * (1.0 + size(a)) * scale);
      EXPECT_TRUE(n > 100 || distance(g * a * g, g) < 1e-8 * scale * scale);
    }
}

TEST(Indefinite, LimitsBelongToVariables) {
  const Vec limits{1e-2, 1e-4, 1e-2};
  Vec factor = pack(multiplied(identity(3), 1e-3)), det(5), b(3, 1.0);
  Longs h(3);
  EXPECT_EQ(run(zudude2, 3, limits, det, factor, h), 2);
  EXPECT_EQ(run(zudusol, 3, 1, 3, factor, b, h), 2);
  EXPECT_EQ(b[0], 0.0);
  EXPECT_NEAR(b[1], 1000.0, 1e-9);
  EXPECT_EQ(run(zududec, 3, std::nan(""), nullptr, factor, h), 2) << "no limit but TINY";
  b = {1.0, 1.0, 1.0};
  EXPECT_EQ(run(zuduso2, 3, 1, 3, 1.0, factor, b, h), 3);
  EXPECT_EQ(size(b), 0.0);
  // Variable 2 has its pivot, 0.001, at place 0 after an interchange.
  Vec moved{10.0, 0.0, 1.0, 1.0, 0.0, 0.101};
  const Vec moved_limits{1e-5, 1e-5, 1e-2};
  EXPECT_EQ(run(zudude2, 3, moved_limits, nullptr, moved, h), 1);
  EXPECT_EQ(h, (Longs{2, 1, 0}));
  const Dense bad(120, 120, [](long, long) { return std::nan(""); });
  EXPECT_TRUE(std::isnan(Factor(bad, 0.0).det[0]));
}

TEST(Indefinite, DeterminantIsMantissaAndExponentOfTen) {
  // A mantissa of 0 has no exponent to speak of.
  const auto expect = [](long n, const Vec& a, double mantissa, double exponent) {
    const Factor f(unpack(n, a), 0.0);
    EXPECT_NEAR(f.det[0], mantissa, 1e-13 * std::fabs(mantissa));
    EXPECT_TRUE(mantissa == 0.0 || f.det[1] == exponent);
  };
  expect(0, {}, 1.0, 0.0);
  expect(1, {-250.0}, -2.5, 2.0);
  expect(2, {2.0, 0.0, 0.01}, 2.0, -2.0);
  expect(2, {0.0, 3e200, 0.0}, -9.0, 400.0);
  expect(2, {0.0, 3e-200, 0.0}, -9.0, -400.0);
  expect(2, {5.0, 0.0, 0.0}, 0.0, 0.0);
  expect(3, {1e300, 0.0, 1e300, 0.0, 0.0, 2e-300}, 2.0, 300.0);
}

TEST(TriangularPermutation, MovesAColumnAndKeepsTheProduct) {
  const long n = 7, nz = 2, incz = 9;
  // (R z)'(R z), which an orthogonal change of R and z keeps.
  const auto square = [](const Vec& r, const Vec& z) {
    const Dense both(n, n + nz, [&](long i, long j) {
      return j >= n ? z[(j - n) * incz + i] : i <= j ? r[packed_size(j) + i] : 0.0;
    });
    return transpose(both) * both;
  };
  const Vec r0 = random_vector(packed_size(n), 5), z0 = random_vector(nz * incz, 6);
  const Dense before = square(r0, z0);
  for (int job : {1, 2})
    for (long k1 = 0; k1 < n; ++k1)
      for (long k2 = k1 + 1; k2 < n; ++k2) {
        Vec r = r0, z = z0, rotations(2 * (k2 - k1));
        run(ztriprm, job, n, nz, incz, k1, k2, r, z, rotations);
        Longs order = random_order(n + nz, 0);  // order[j]: the old place of column j
        const long from = job == 1 ? k1 : k2, to = job == 1 ? k2 : k1;
        order.erase(order.begin() + from);
        order.insert(order.begin() + to, from);
        const Dense wanted(n + nz, n + nz,
                           [&](long i, long j) { return before(order[i], order[j]); });
        EXPECT_LT(distance(square(r, z), wanted), 1e-14);
        for (long i = 0; i < k2 - k1; ++i)
          EXPECT_NEAR(std::hypot(rotations[2 * i], rotations[2 * i + 1]), 1.0, 1e-15);
        // And back again, up to the signs of rows.
        run(ztriprm, 3 - job, n, nz, incz, k1, k2, r, z, rotations);
        for (std::size_t i = 0; i < r.size(); ++i)
          EXPECT_NEAR(std::fabs(r[i]), std::fabs(r0[i]), 1e-13);
      }
  double none[4] = {};
  EXPECT_ANY_THROW(ztriprm(1, 2, 0, 2, 1, 1, none, none, none));
}

}  // namespace tqnlp::test
