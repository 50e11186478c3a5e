// The dense indefinite factorization and its companions: A = P'UDU'P, inertia, determinant, solves,
// generalized inverses, permuted factors.
#include "kernels/indefinite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "aasubs/record/packed.h"

namespace tqnlp {
namespace {

using Vector = std::vector<double>;
using Longs = std::vector<long>;

double largest(const Vector& x) {
  double m = 0.0;
  for (double v : x) {
    if (std::isnan(v)) return HUGE_VAL;
    m = std::max(m, std::fabs(v));
  }
  return m;
}

double distance(Vector x, const Vector& y) {
  for (size_t i = 0; i < x.size(); ++i) x[i] -= y[i];
  return largest(x);
}

Vector random_packed(long n, unsigned seed, double scale = 1.0) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-scale, scale);
  Vector a(packed_size(n));
  for (double& v : a) v = uniform(random);
  return a;
}

// B A B' for a dense n by m matrix B, A packed of order m.
Vector congruence(long n, long m, const Vector& b, const Vector& a) {
  Vector c(packed_size(n)), ba(n * m);
  for (long i = 0; i < n; ++i)
    for (long l = 0; l < m; ++l)
      for (long k = 0; k < m; ++k) ba[i * m + l] += b[i * m + k] * a[zisub(k, l)];
  for (long i = 0; i < n; ++i)
    for (long j = 0; j <= i; ++j)
      for (long l = 0; l < m; ++l) c[zisub(i, j)] += ba[i * m + l] * b[j * m + l];
  return c;
}

Vector multiply(long n, const Vector& a, const Vector& x) {
  Vector y(n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) y[i] += a[zisub(i, j)] * x[j];
  return y;
}

// Packed product X Y X of symmetric matrices.
Vector sandwich(long n, const Vector& x, const Vector& y) {
  Vector full(n * n);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) full[i * n + j] = x[zisub(i, j)];
  return congruence(n, n, full, y);
}

struct Factor {
  long n, nullity;
  Vector a, det = Vector(5);
  Longs h;
  Factor(long order, Vector matrix, double sing) : n(order), a(std::move(matrix)), h(order) {
    nullity = zududec(n, sing, det.data(), a.data(), h.data());
  }
  // P'U D U'P, put together from the pieces as they are laid down.
  Vector product() const {
    Vector b(n * n), d(packed_size(n));
    for (long k = n - 1; k >= 0; --k) {
      const long block = h[k] < 0 ? 2 : 1;
      const auto variable = [this](long p) { return h[p] < 0 ? -1 - h[p] : h[p]; };
      for (long p = k; p > k - block; --p) {
        b[variable(p) * n + p] = 1.0;
        d[zisub(p, p)] = a[zisub(p, p)];
        for (long i = 0; i <= k - block; ++i) b[variable(i) * n + p] = a[zisub(p, i)];
      }
      if (block == 2) d[zisub(k, k - 1)] = a[zisub(k, k - 1)], --k;
    }
    return congruence(n, n, b, d);
  }
};

TEST(Indefinite, FactorMultipliesToTheMatrixAtEveryScale) {
  for (double scale : {1.0, 1e-290, 1e290})
    for (long n : {0, 1, 2, 3, 4, 5, 8, 9, 17, 40})
      for (unsigned seed = 1; seed <= 6; ++seed) {
        Vector a = random_packed(n, seed, scale);
        if (seed == 2)  // no diagonal: blocks of order 2 throughout
          for (long i = 0; i < n; ++i) a[zisub(i, i)] = 0.0;
        if (seed == 3)  // definite: no interchange is needed
          for (long i = 0; i < n; ++i) a[zisub(i, i)] = 2.0 * scale * static_cast<double>(n);
        if (seed == 4)  // a zero row in the middle
          for (long i = 0; i < n; ++i) a[zisub(n / 2, i)] = 0.0;
        const Factor f(n, a, 0.0);
        ASSERT_LT(distance(f.product(), a), 1e-13 * scale * static_cast<double>(n + 1));
        EXPECT_EQ(f.nullity, (seed == 4 && n > 0) || (seed == 2 && n == 1)) << n << " " << seed;
        EXPECT_EQ(f.det[2] + f.det[3] + f.det[4], static_cast<double>(n));
        if (seed == 3) {
          EXPECT_EQ(f.det[2], static_cast<double>(n));
        }
      }
}

// Orders on both sides of the limit where updates are kept waiting, with every kind of pivot.
TEST(Indefinite, SolvesAreExactToRoundingAndTellTheInertia) {
  for (long n : {1, 2, 3, 6, 7, 50, 95, 96, 97, 130, 300})
    for (unsigned seed = 1; seed <= 4; ++seed) {
      std::mt19937 random(seed + 100);
      // A quasi-definite core with a known inertia, in random order; or any random matrix.
      Vector a = random_packed(n, seed);
      long negative = -1;
      if (seed > 2) {
        negative = n / 3;
        for (long i = 0; i < n; ++i)
          a[zisub(i, i)] = (i < negative ? -1.2 : 1.2) * static_cast<double>(n);
        if (seed == 4)
          for (long i = 0; i < n; i += 2) a[zisub(i, i)] *= 0.98;
      }
      const Vector matrix = a;
      const Factor f(n, a, 0.0);
      ASSERT_EQ(f.nullity, 0);
      if (negative >= 0) {
        EXPECT_EQ(f.det[3], static_cast<double>(negative));
      }
      const long p = 3, stride = n + 2;
      Vector b(p * stride, 9.0), x;
      std::uniform_real_distribution<double> uniform(-1.0, 1.0);
      for (double& v : b) v = uniform(random);
      x = b;
      EXPECT_EQ(zudusol(n, p, stride, f.a.data(), x.data(), f.h.data()), 0);
      for (long k = 0; k < p; ++k) {
        const Vector one(x.begin() + k * stride, x.begin() + k * stride + n);
        const Vector right(b.begin() + k * stride, b.begin() + k * stride + n);
        const double growth = static_cast<double>(n + 1) * (largest(matrix) * largest(one) + 1.0);
        EXPECT_LT(distance(multiply(n, matrix, one), right), 1e-14 * growth) << n << " " << seed;
        EXPECT_EQ(x[k * stride + n], b[k * stride + n]) << "behind the right side";
      }
    }
}

TEST(Indefinite, SingularMatricesGiveRankAndGeneralizedInverse) {
  for (long n : {1, 2, 3, 5, 12, 30, 120})
    for (long rank : {0L, 1L, n / 2, n - 1, n}) {
      const Vector core = random_packed(rank, 11), spread = random_packed(n + rank + 2, 12);
      const Vector b(spread.begin(), spread.begin() + n * rank);
      const Vector a = congruence(n, rank, b, core);
      Factor f(n, a, 1e-9);
      ASSERT_EQ(f.nullity, n - rank) << n;
      EXPECT_EQ(f.det[4], static_cast<double>(n - rank));
      EXPECT_EQ(f.det[0] == 0.0, rank < n);
      // A consistent system is solved even so; zeros are counted once.
      const Vector right = multiply(n, a, Vector(n, 1.0));
      Vector x = right;
      EXPECT_EQ(zudusol(n, 1, n, f.a.data(), x.data(), f.h.data()), n - rank);
      EXPECT_LT(distance(multiply(n, a, x), right), 1e-8 * (1.0 + largest(a)));
      Vector w(n);
      zuduinv(n, f.a.data(), f.h.data(), w.data());
      const double size = 1.0 + largest(f.a);
      EXPECT_LT(distance(sandwich(n, a, f.a), a), 1e-9 * (1.0 + largest(a)) * size);
      if (n < 100) {
        EXPECT_LT(distance(sandwich(n, f.a, a), f.a), 1e-8 * size * size);
      }
    }
}

TEST(Indefinite, LimitsBelongToVariables) {
  const Vector a{1e-3, 0.0, 1e-3, 0.0, 0.0, 1e-3};
  const Vector limits{1e-2, 1e-4, 1e-2};
  Vector factor = a, det(5);
  Longs h(3);
  EXPECT_EQ(zudude2(3, limits.data(), det.data(), factor.data(), h.data()), 2);
  Vector b{1.0, 1.0, 1.0};
  EXPECT_EQ(zudusol(3, 1, 3, factor.data(), b.data(), h.data()), 2);
  EXPECT_EQ(b[0], 0.0);
  EXPECT_NEAR(b[1], 1000.0, 1e-9);
  EXPECT_EQ(zududec(3, std::nan(""), nullptr, factor.data(), h.data()), 2) << "no limit but TINY";
  b = {1.0, 1.0, 1.0};
  EXPECT_EQ(zuduso2(3, 1, 3, 1.0, factor.data(), b.data(), h.data()), 3);
  EXPECT_EQ(largest(b), 0.0);
  // Variable 2 has its pivot, 0.001, at place 0 after an interchange.
  Vector moved{10.0, 0.0, 1.0, 1.0, 0.0, 0.101};
  const Vector moved_limits{1e-5, 1e-5, 1e-2};
  EXPECT_EQ(zudude2(3, moved_limits.data(), nullptr, moved.data(), h.data()), 1);
  EXPECT_EQ(h, (Longs{2, 1, 0}));
  Vector bad(packed_size(120), std::nan(""));
  Longs hbad(120);
  zududec(120, 0.0, det.data(), bad.data(), hbad.data());
  EXPECT_TRUE(std::isnan(det[0]));
}

TEST(Indefinite, DeterminantIsMantissaAndExponentOfTen) {
  struct Case {
    Vector a;
    long n;
    double mantissa, exponent;
  };
  for (const Case& c :
       {Case{{}, 0, 1.0, 0.0}, Case{{-250.0}, 1, -2.5, 2.0}, Case{{2.0, 0.0, 0.01}, 2, 2.0, -2.0},
        Case{{0.0, 3e200, 0.0}, 2, -9.0, 400.0}, Case{{0.0, 3e-200, 0.0}, 2, -9.0, -400.0},
        Case{{5.0, 0.0, 0.0}, 2, 0.0, 0.0},
        Case{{1e300, 0.0, 1e300, 0.0, 0.0, 2e-300}, 3, 2.0, 300.0}}) {
    const Factor f(c.n, c.a, 0.0);
    EXPECT_NEAR(f.det[0], c.mantissa, 1e-13 * std::fabs(c.mantissa));
    if (c.mantissa != 0.0) {
      EXPECT_EQ(f.det[1], c.exponent);
    }
  }
}

TEST(TriangularPermutation, MovesAColumnAndKeepsTheProduct) {
  const long n = 7, nz = 2, incz = 9;
  for (int job : {1, 2})
    for (long k1 = 0; k1 < n; ++k1)
      for (long k2 = k1 + 1; k2 < n; ++k2) {
        Vector r = random_packed(n, 5), z = random_packed(5, 6);
        z.resize(nz * incz, 0.5);
        const Vector r0 = r, z0 = z;
        Vector rotations(2 * (k2 - k1));
        ztriprm(job, n, nz, incz, k1, k2, r.data(), z.data(), rotations.data());
        Longs order(n);  // order[j]: the old place of column j
        std::iota(order.begin(), order.end(), 0L);
        const long from = job == 1 ? k1 : k2, to = job == 1 ? k2 : k1;
        order.erase(order.begin() + from);
        order.insert(order.begin() + to, from);
        // R'R and R'z are what an orthogonal change of R and z keeps.
        const auto column = [](const Vector& f, long i, long j) {
          return i <= j ? f[packed_size(j) + i] : 0.0;
        };
        for (long i = 0; i < n; ++i) {
          for (long j = 0; j < n; ++j) {
            double now = 0.0, then = 0.0;
            for (long l = 0; l < n; ++l) {
              now += column(r, l, i) * column(r, l, j);
              then += column(r0, l, order[i]) * column(r0, l, order[j]);
            }
            EXPECT_NEAR(now, then, 1e-14);
          }
          for (long k = 0; k < nz; ++k) {
            double now = 0.0, then = 0.0;
            for (long l = 0; l < n; ++l) {
              now += column(r, l, i) * z[k * incz + l];
              then += column(r0, l, order[i]) * z0[k * incz + l];
            }
            EXPECT_NEAR(now, then, 1e-14);
          }
        }
        for (long i = 0; i < k2 - k1; ++i)
          EXPECT_NEAR(std::hypot(rotations[2 * i], rotations[2 * i + 1]), 1.0, 1e-15);
        // And back again, up to the signs of rows.
        ztriprm(3 - job, n, nz, incz, k1, k2, r.data(), z.data(), rotations.data());
        for (double& v : r) v = std::fabs(v);
        Vector wanted = r0;
        for (double& v : wanted) v = std::fabs(v);
        EXPECT_LT(distance(r, wanted), 1e-13);
      }
}

}  // namespace
}  // namespace tqnlp
