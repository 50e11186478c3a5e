// QR, triangular systems, rotations, Gram-Schmidt and the reflections of the older Newton code.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "kernels/dense.h"
#include "kernels/matrices.h"
#include "kernels/vector.h"

namespace tqnlp::test {

struct Qr {
  long m, n, nullity;
  Dense u, b;
  std::vector<long> ipiv;
  Vec alfa, sum;

  // b starts as the identity, so that it becomes Q'.
  Qr(const Dense& a, bool pivoting, double sing, std::vector<long> marks = {})
      : m(a.rows), n(a.cols), u(a), b(m, m), ipiv(std::move(marks)), alfa(n + 1), sum(n + 1) {
    for (long i = 0; i < m; ++i) b(i, i) = 1.0;
    ipiv.resize(static_cast<std::size_t>(n) + 1, 0);
    nullity = zqrdec(m, n, m, n, m, pivoting ? ipiv.data() : nullptr, sing, u.a.data(), b.a.data(),
                     alfa.data(), pivoting ? sum.data() : nullptr);
    if (!pivoting) std::iota(ipiv.begin(), ipiv.end(), 0);
  }
  Dense r() const {
    Dense upper(m, n);
    for (long i = 0; i < std::min(m, n); ++i)
      for (long j = i; j < n; ++j) upper(i, j) = j == i ? alfa[j] : u(i, j);
    return upper;
  }
  Dense permuted(const Dense& a) const {
    Dense p(m, n);
    for (long i = 0; i < m; ++i)
      for (long j = 0; j < n; ++j) p(i, j) = a(i, ipiv[j]);
    return p;
  }
};

struct Shape {
  long m, n;
  double grade;
};
class QrShapes : public testing::TestWithParam<Shape> {};

TEST_P(QrShapes, FactorsTheMatrix) {
  const auto [m, n, grade] = GetParam();
  Dense a = random_dense(m, n, 51);
  for (long i = 0; i < m; ++i)
    for (long j = 0; j < n; ++j) a(i, j) *= std::pow(grade, static_cast<double>((j * 7) % n));
  for (const bool pivoting : {false, true}) {
    const Qr f(a, pivoting, 0.0);
    EXPECT_EQ(f.nullity, 0);
    const Dense qqt = f.b * transpose(f.b);
    Dense identity(m, m);
    for (long i = 0; i < m; ++i) identity(i, i) = 1.0;
    EXPECT_LE(distance(qqt, identity), 1e-14 * static_cast<double>(m + 1));
    const double tolerance = 1e-14 * static_cast<double>(m + 1) * size(a);
    EXPECT_LE(distance(f.b * f.permuted(a), f.r()), tolerance);
    for (long l = 0; l + 1 < std::min(m, n); ++l) {
      EXPECT_TRUE(!pivoting || std::fabs(f.alfa[l]) * (1 + 1e-7) >= std::fabs(f.alfa[l + 1]));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, QrShapes,
                         testing::Values(Shape{0, 0, 1}, Shape{1, 1, 1}, Shape{5, 1, 1},
                                         Shape{1, 4, 1}, Shape{6, 6, 1}, Shape{9, 5, 0.1},
                                         Shape{20, 20, 0.5}, Shape{40, 33, 1}, Shape{12, 30, 1},
                                         Shape{60, 70, 0.9}, Shape{90, 80, 1e3},
                                         Shape{6, 1030, 1}));

TEST(QrRank, NullColumnsGoBehindTheFreeOnes) {
  for (const long n : {6L, 30L, 75L}) {
    // Rank n-3; without pivoting the dependent columns stay where they are.
    Dense a = random_dense(n + 5, n - 3, 61) * random_dense(n - 3, n, 62);
    const Qr pivoted(a, true, 1e-9);
    EXPECT_EQ(pivoted.nullity, 3);
    for (long l = 0; l < n; ++l) EXPECT_EQ(pivoted.alfa[l] != 0.0, l < n - 3);
    EXPECT_LE(distance(pivoted.b * pivoted.permuted(a), pivoted.r()), 1e-8);
    for (long i = 0; i < a.rows; ++i) a(i, 2) = 0.0;
    const Qr plain(a, false, 1e-9);
    EXPECT_EQ(plain.nullity, 3);
    EXPECT_EQ(plain.alfa[2], 0.0);
    EXPECT_EQ(plain.u(2, 2), 0.0);
  }
  EXPECT_EQ(Qr(Dense(4, 3), true, 0.0).nullity, 3);
}

TEST(QrPivoting, LastOfEqualNormsAndNoChoiceAmongHeldColumns) {
  Dense a(4, 4);
  for (long j = 0; j < 4; ++j) a(j, j) = j == 1 ? 5.0 : 2.0;
  EXPECT_EQ((std::vector<long>{Qr(a, true, 0.0).ipiv}), (std::vector<long>{1, 3, 0, 2, 0}));
  // Column 2 held first, column 0 held at the end.
  const Qr held(a, true, 0.0, {-4, 0, 1, 0});
  EXPECT_EQ(held.nullity, 0);
  EXPECT_EQ(held.ipiv, (std::vector<long>{2, 1, 3, 0, 0}));
  EXPECT_EQ(Qr(a, true, 0.0, {0, 0, 2, 0}).nullity, -1);   // no column for place 1
  EXPECT_EQ(Qr(a, true, 0.0, {1, -2, 0, 0}).nullity, -4);  // none for the last place
  // A held column that is null still moves behind the free ones.
  for (long i = 0; i < 4; ++i) a(i, 2) = 0.0;
  const Qr null(a, true, 0.0, {-4, 0, 1, 0});
  EXPECT_EQ(null.nullity, 1);
  EXPECT_EQ(null.ipiv, (std::vector<long>{1, 3, 2, 0, 0}));
  EXPECT_EQ(null.alfa[3], -2.0);
}

TEST(QrNorms, CancelledNormsAreComputedAnew) {
  // Columns equal but for a tiny part: the carried norm cancels completely.
  Dense a(3, 3);
  for (long j = 0; j < 3; ++j) a(0, j) = 1.0;
  a(1, 1) = 1e-9;
  a(2, 2) = 3e-9;
  const Qr f(a, true, 1e-12);
  EXPECT_EQ(f.nullity, 0);
  // Exact values of what is left: |alfa| as in exact arithmetic to rounding of the input.
  EXPECT_NEAR(std::fabs(f.alfa[0] * f.alfa[1] * f.alfa[2]), 3e-18, 1e-24);
}

// All sixteen jobs against a dense triangle, with and without an order and a separate diagonal.
TEST(TriangularSystems, SolveAndProductUndoEachOtherInEveryJob) {
  for (const long n : {1L, 2L, 7L, 19L, 40L}) {
    const long p = 3, incu = n + 2;
    Dense l = random_dense(n, n, 71);
    Vec packed(packed_size(n) + 1), dense(n * incu + 1), diagonal(n);
    for (long i = 0; i < n; ++i) {
      l(i, i) += 4.0;
      for (long j = 0; j <= i; ++j) {
        if (j < i) l(i, j) /= static_cast<double>(n);
        packed[zisub(i, j)] = dense[j * incu + i] = l(i, j);
      }
      for (long j = i + 1; j < n; ++j) l(i, j) = 0.0;
      diagonal[i] = l(i, i);
    }
    std::vector<long> order(n);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    for (int job = 1; job <= 8; ++job)
      for (const bool ordered : {false, true})
        for (const bool separate : {false, true}) {
          SCOPED_TRACE(job);
          const bool by_row = job % 4 == 1 || job % 4 == 2;
          const long incb = by_row ? p + 1 : n + 1, incx = n + 3;
          Vec u = job >= 5 ? packed : dense;
          if (separate) {  // the diagonal in the matrix must then not be read
            for (long i = 0; i < n; ++i) u[job >= 5 ? zisub(i, i) : i * incu + i] = 1e300;
          }
          const double* alfa = separate ? diagonal.data() : nullptr;
          const long* ipiv = ordered ? order.data() : nullptr;
          Vec x = random_vector(p * incx, 8), product(p * incx, 0.0), h(n);
          const Vec b = random_vector((n + 1) * (n + p + 1), 7);
          ASSERT_EQ(zqrsol(job, n, p, incu, incb, incx, ipiv, u.data(), b.data(), x.data(), alfa,
                           h.data()),
                    0);
          // The product of the solution, in the layout of job 3 or 4 (7 or 8) for its right side.
          const int again = (job >= 5 ? 7 : 3) + (job % 2 == 0) + 10;
          zqrsol(again, n, p, incu, incx, incx, ipiv, u.data(), x.data(), product.data(), alfa,
                 h.data());
          for (long k = 0; k < p; ++k)
            for (long i = 0; i < n; ++i) {
              const double right = by_row ? b[i * incb + k] : b[k * incb + i];
              EXPECT_NEAR(product[k * incx + i], right, 1e-13);
              // The matrix itself: R P'x = b for odd jobs, P R'x = b for even ones.
              double sum = 0.0;
              const long row = job % 2 == 0 && ordered ? order[i] : i;
              for (long j = 0; j < n; ++j) {
                const long column = job % 2 == 1 && ordered ? order[j] : j;
                sum += (job % 2 == 1 ? l(j, i) : l(i, j)) * x[k * incx + column];
              }
              EXPECT_NEAR(sum, by_row ? b[row * incb + k] : b[k * incb + row], 1e-13);
            }
        }
  }
}

TEST(TriangularSystems, ZeroDiagonalsGiveZeroAndAreCounted) {
  const double packed[] = {2.0, 1.0, 0.0, 1.0, 1.0, 4.0};
  double b[] = {2.0, 5.0, 9.0, 2.0, 5.0, 9.0}, x[6];
  EXPECT_EQ(zqrsol(8, 3, 2, 0, 3, 3, nullptr, packed, b, x, nullptr, nullptr), 1);
  EXPECT_EQ((Vec{x, x + 3}), (Vec{1.0, 0.0, 2.0}));
  EXPECT_ANY_THROW(zqrsol(9, 3, 1, 0, 3, 3, nullptr, packed, b, x, nullptr, nullptr));
}

TEST(NullSpaceTriangle, RowsBeginWithTheirPivot) {
  const long n = 6;
  Vec c = random_vector(packed_size(n), 81), x(n), b = random_vector(n, 82);
  for (long q = 0; q < n; ++q) c[packed_size(q)] += 3.0;
  ASSERT_EQ(znlpqts(2, n, 0.0, c.data(), b.data(), x.data()), 0);
  for (long q = 0; q < n; ++q) {
    double sum = 0.0;
    for (long j = q; j < n; ++j) sum += c[zisub(j, j - q)] * x[j];
    EXPECT_NEAR(sum, b[n - 1 - q], 1e-14);
  }
  c[packed_size(3)] = 0.5;
  EXPECT_EQ(znlpqts(2, n, 0.5, c.data(), b.data(), x.data()), 4);
  double lower[] = {2.0, 1.0, 4.0}, right[] = {2.0, 9.0};
  EXPECT_EQ(znlpqts(1, 2, 0.0, lower, right, right), 0);
  EXPECT_EQ(right[1], 2.0);
  EXPECT_EQ(znlpqts(1, 2, 2.0, lower, right, right), 1);
}

TEST(Rotations, ConstructionAndItsOneNumber) {
  const double values[] = {0.0, 1.0, -3.0, 3.0, 1e-300, -1e300};
  for (const double a : values)
    for (const double b : values) {
      double pa = a, pb = b, c, s;
      const double number = zgivcon(&pa, &pb, &c, &s);
      EXPECT_EQ(pb, b == 0.0 ? b : 0.0);
      EXPECT_NEAR(c * c + s * s, 1.0, 1e-15);
      const double scale = std::max(std::fabs(a), std::fabs(b));
      EXPECT_NEAR(c * b - s * a, 0.0, 1e-15 * scale);
      EXPECT_NEAR(c * a + s * b, pa, 1e-15 * scale);
      if (b == 0.0) {
        EXPECT_EQ(pa, a);
        EXPECT_EQ(number, 0.0);
      } else if (a == 0.0) {
        EXPECT_EQ(number, 1.0);
        EXPECT_EQ(pa, b);
      } else {
        EXPECT_EQ(pa < 0.0, (std::fabs(a) > std::fabs(b) ? a : b) < 0.0);
        EXPECT_EQ(number, std::fabs(a) > std::fabs(b)             ? s
                          : std::fabs(c) > 2.225073858507202e-305 ? 1.0 / c
                                                                  : 1.0);
      }
    }
}

TEST(Rotations, ApplyInEveryStride) {
  for (const long incx : {1L, 2L, -1L})
    for (const long incy : {1L, -3L})
      for (const double c : {0.6, 0.0, 1.0}) {
        const long n = 21;
        const double s = c == 0.6 ? 0.8 : 1.0 - c;
        Vec x = random_vector(60, 1), y = random_vector(70, 2);
        const Vec x0 = x, y0 = y;
        zgivapl(n, incx, incy, c, s, x.data(), y.data());
        for (long i = 0; i < n; ++i) {
          const long kx = incx > 0 ? i * incx : (i - n + 1) * incx;
          const long ky = incy > 0 ? i * incy : (i - n + 1) * incy;
          EXPECT_DOUBLE_EQ(x[kx], c * x0[kx] + s * y0[ky]);
          EXPECT_DOUBLE_EQ(y[ky], c * y0[ky] - s * x0[kx]);
        }
      }
}

// ---- Gram-Schmidt ------------------------------------------------------------------------------

struct Basis {
  Dense q;  // columns as rows: column j contiguous
  WorkFile* file = nullptr;
  Basis(long m, long n, unsigned seed) : q(n, m) {
    Vec r(n + 1), u(m + 1);
    double rho = 0.0;
    for (long j = 0; j < n; ++j) {
      const Vec v = random_vector(m, seed + static_cast<unsigned>(j));
      std::copy_n(v.begin(), m, q.a.begin() + j * m);
      znlpgso(0, m, j, m, 1, 1, {q.a.data(), nullptr}, &q(j, 0), r.data(), &rho, u.data(), nullptr);
    }
    const WorkFileOptions options;
    xcopen(&file, &options);
    xcwrite(file, q.a.data(), m * n * static_cast<long>(sizeof(double)));
  }
  ~Basis() { xcclose(file, 1); }
};

TEST(GramSchmidt, OrthogonalAndComplete) {
  const long m = 30, n = 12;
  Basis basis(m, n, 91);
  for (const double share : {1.0, 1e-12, 0.0}) {  // part outside the span
    for (const int job : {0, 1}) {
      Vec v = random_vector(2 * m, 77), r(3 * n, 9.0), u(m), w(m);
      for (long i = 0; i < m; ++i) v[2 * i] *= share;
      for (long i = 0; i < m; ++i)
        v[2 * i] += share < 1.0 ? basis.q(3, i) + 2 * basis.q(5, i) : 0.0;
      const Vec v0 = v;
      double rho = -1.0;
      EXPECT_EQ(znlpgso(job, m, n, m, 2, 3, {basis.q.a.data(), basis.file}, v.data(), r.data(),
                        &rho, u.data(), w.data()),
                0);
      for (long j = 0; j < n; ++j) {
        EXPECT_NEAR(zvdotj1(m, 2, v.data(), &basis.q(j, 0)), 0.0, 1e-15 * 10);
      }
      EXPECT_TRUE(share < 1e-6 || std::fabs(zvenorm(m, 2, v.data()) - 1.0) < 1e-15 * 10);
      for (long i = 0; i < m && share > 1e-6; ++i) {
        double sum = rho * v[2 * i];
        for (long j = 0; j < n; ++j) sum += r[3 * j] * basis.q(j, i);
        EXPECT_NEAR(sum, v0[2 * i], 1e-14);
      }
      EXPECT_NEAR(share == 0.0 ? r[3 * 5] : 2.0, 2.0, 1e-14);
    }
  }
}

TEST(GramSchmidt, CodesAndEdges) {
  Basis basis(4, 3, 17);
  Vec v{1.0, 2.0, 3.0, 4.0}, r(4), u(4);
  double rho = 5.0;
  const GsoBasis q{basis.q.a.data(), nullptr};
  EXPECT_EQ(znlpgso(0, 2, 3, 4, 1, 1, q, v.data(), r.data(), &rho, u.data(), nullptr), -1);
  EXPECT_EQ(rho, 0.0);
  Vec zero(4, 0.0);
  EXPECT_EQ(znlpgso(0, 4, 3, 4, 1, 1, q, zero.data(), r.data(), &rho, u.data(), nullptr), -2);
  Basis whole(4, 4, 18);
  EXPECT_EQ(znlpgso(0, 4, 4, 4, 1, 1, {whole.q.a.data(), nullptr}, v.data(), r.data(), &rho,
                    u.data(), nullptr),
            0);
  EXPECT_EQ(rho, 0.0);
  EXPECT_EQ(v, (Vec{0.0, 0.0, 0.0, 0.0}));
  // A vector exactly in the span: the weakest row, the last of equals, takes over and rho is 0.
  const double axes[] = {1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0};
  v = {3.0, 4.0, 0.0, 0.0};
  EXPECT_EQ(znlpgso(0, 4, 2, 4, 1, 1, {axes, nullptr}, v.data(), r.data(), &rho, u.data(), nullptr),
            0);
  EXPECT_EQ(rho, 0.0);
  EXPECT_EQ(v, (Vec{0.0, 0.0, 0.0, 1.0}));
  EXPECT_EQ(r[1], 4.0);
  v[0] = std::nan("");
  znlpgso(0, 4, 2, 4, 1, 1, {axes, nullptr}, v.data(), r.data(), &rho, u.data(), nullptr);
}

// ---- Older Newton code -------------------------------------------------------------------------

TEST(IncrementalKernels, GrowingFactorAndReflections) {
  const long n = 9;
  const Dense a = gram(n, n + 2, 95);
  Vec l = pack(a), x = random_vector(n, 96), b(n, 0.0);
  for (long k = 0; k < n; ++k) EXPECT_GT(zchol(k, l.data(), 1e-12), 0.0);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < n; ++j) b[i] += a(i, j) * x[j];
  zchol2(n, l.data(), b.data());
  zbaksub(n, l.data(), b.data());
  for (long i = 0; i < n; ++i) EXPECT_NEAR(b[i], x[i], 1e-10);
  double flat[] = {4.0, 2.0, 1.0};
  EXPECT_EQ(zchol(0, flat, 5.0), 4.0);
  EXPECT_EQ(flat[0], 0.0);
  EXPECT_EQ(zchol(1, flat, 0.5), 1.0);  // the division by zero gives zero
  EXPECT_EQ(flat[1], 0.0);

  for (const double sign : {1.0, -1.0, 0.0}) {
    const long nvar = 7, k = 2, inc = 3;
    Vec row = random_vector(nvar * inc, 97), other = random_vector(nvar * inc, 98), u(nvar);
    row[k * inc] *= sign;
    const Vec row0 = row, other0 = other;
    const double before = zvdotjj(nvar - k, inc, &row[k * inc], inc, &other[k * inc]);
    double pk = 0.0;
    EXPECT_EQ(zhh1(row.data(), u.data(), &pk, k, inc, nvar), 0);
    EXPECT_EQ(zhh2(other.data(), u.data(), k, pk, inc, nvar), 0);
    const double length = zvenorm(nvar - k, inc, &row0[k * inc]);
    EXPECT_NEAR(row[k * inc], row0[k * inc] > 0.0 ? -length : length, 1e-15 * 10);
    EXPECT_EQ(zvamxj(nvar - k - 1, inc, &row[(k + 1) * inc]), 0.0);
    EXPECT_EQ(row[inc], row0[inc]);
    EXPECT_NEAR(zvdotjj(nvar - k, inc, &row[k * inc], inc, &other[k * inc]), before, 1e-14);
    EXPECT_NEAR(zvenorm(nvar - k, inc, &other[k * inc]), zvenorm(nvar - k, inc, &other0[k * inc]),
                1e-14);
  }
  double zeros[] = {1.0, 0.0, 0.0}, u[3], pk = 1.0;
  EXPECT_EQ(zhh1(zeros, u, &pk, 1, 1, 3), 1);
  EXPECT_EQ(zhh2(zeros, u, 1, pk, 1, 3), 1);
}

}  // namespace tqnlp::test
