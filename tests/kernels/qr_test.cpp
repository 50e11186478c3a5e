// QR, triangular systems, rotations, Gram-Schmidt and the reflections of the older Newton code.
#include <gtest/gtest.h>

#include "kernels/dense.h"
#include "kernels/matrices.h"
#include "kernels/vector.h"

namespace tqnlp::test {

struct Qr {
  long m, n, nullity;
  Dense u, b;
  Longs ipiv;
  Vec alfa, sum;

  // b starts as the identity, so that it becomes Q'.
  Qr(const Dense& a, bool pivoting, double sing, Longs marks = {})
      : m(a.rows), n(a.cols), u(a), b(identity(m)), ipiv(std::move(marks)), alfa(n), sum(n) {
    ipiv.resize(n);
    nullity = run(zqrdec, m, n, m, n, m, pivoting ? ipiv.data() : nullptr, sing, u.a, b.a, alfa,
                  pivoting ? sum.data() : nullptr);
    if (!pivoting) ipiv = random_order(n, 0);
  }
  // Q'A P - R, by its largest element.
  double residual(const Dense& a) const {
    const Dense r(m, n, [this](long i, long j) {
      return j > i ? u(i, j) : j == i ? alfa[j] : 0.0;
    });
    return distance(b * Dense(m, n, [&](long i, long j) { return a(i, ipiv[j]); }), r);
  }
};

TEST(Qr, FactorsMatricesOfEveryShape) {
  const struct {
    long m, n;
    double grade;
  } shapes[] = {{0, 0, 1},   {1, 1, 1},     {5, 1, 1},     {1, 4, 1},
                {6, 6, 1},   {9, 5, 0.1},   {20, 20, 0.5}, {40, 33, 1},
                {12, 30, 1}, {60, 70, 0.9}, {90, 80, 1e3}, {6, 1030, 1}};
  for (const auto& shape : shapes)
    for (const bool pivoting : {false, true}) {
      const long m = shape.m, n = shape.n;
      Dense a = random_dense(m, n, 51);
      for (long i = 0; i < m; ++i)
        for (long j = 0; j < n; ++j) a(i, j) *= std::pow(shape.grade, (j * 7) % n);
      const Qr f(a, pivoting, 0.0);
      EXPECT_EQ(f.nullity, 0);
      const double tolerance = 1e-14 * static_cast<double>(m + 1);
      EXPECT_LE(distance(f.b * transpose(f.b), identity(m)), tolerance);
      EXPECT_LE(f.residual(a), tolerance * size(a));
      // The reflections alone: Q'I is what b became, Q takes that back, and what the columns leave
      // of the identity is orthogonal to them.
      Dense forward = identity(m), fit(m, m), rest(m, m);
      Vec h(m + 1);
      const auto form = [&](int job, Dense& to, double* residual, double* fitted) {
        run(zqrform, job, m, std::min(m, n), m, n, m, f.u.a, forward.a, to.a, residual, fitted, h);
      };
      form(3, forward, rest.a.data(), fit.a.data());
      EXPECT_LE(distance(forward, f.b), tolerance);
      form(4, forward, nullptr, nullptr);
      EXPECT_LE(distance(forward, identity(m)), tolerance);
      EXPECT_LE(size(transpose(rest) * a), tolerance * size(a) * static_cast<double>(m + n));
      for (std::size_t k = 0; k < fit.a.size(); ++k) fit.a[k] += rest.a[k];
      EXPECT_LE(distance(fit, identity(m)), tolerance);
      for (long l = 0; l + 1 < std::min(m, n) && pivoting; ++l)
        EXPECT_GE(std::fabs(f.alfa[l]) * (1 + 1e-7), std::fabs(f.alfa[l + 1]));
    }
}

TEST(Qr, NullColumnsGoBehindTheFreeOnesOrStay) {
  for (const long n : {6L, 30L, 75L}) {
    // Rank n-3; without pivoting the dependent columns stay where they are.
    Dense a = random_dense(n + 5, n - 3, 61) * random_dense(n - 3, n, 62);
    const Qr pivoted(a, true, 1e-9);
    EXPECT_EQ(pivoted.nullity, 3);
    for (long l = 0; l < n; ++l) EXPECT_EQ(pivoted.alfa[l] != 0.0, l < n - 3);
    EXPECT_LE(pivoted.residual(a), 1e-8);
    for (long i = 0; i < a.rows; ++i) a(i, 2) = 0.0;
    const Qr plain(a, false, 1e-9);
    EXPECT_EQ(plain.nullity, 3);
    EXPECT_EQ(plain.alfa[2], 0.0);
    EXPECT_EQ(plain.u(2, 2), 0.0);
  }
  EXPECT_EQ(Qr(Dense(4, 3), true, 0.0).nullity, 3);
}

TEST(Qr, PivotsByNormAndHoldsMarkedColumns) {
  Dense a = multiplied(identity(4), 2.0);
  a(1, 1) = 5.0;
  EXPECT_EQ(Qr(a, true, 0.0).ipiv, (Longs{1, 3, 0, 2})) << "the last of equal norms";
  const Qr held(a, true, 0.0, {-4, 0, 1, 0});  // column 2 first, column 0 at the end
  EXPECT_EQ(held.nullity, 0);
  EXPECT_EQ(held.ipiv, (Longs{2, 1, 3, 0}));
  EXPECT_EQ(Qr(a, true, 0.0, {0, 0, 2, 0}).nullity, -1) << "no column for place 1";
  EXPECT_EQ(Qr(a, true, 0.0, {1, -2, 0, 0}).nullity, -4) << "none for the last place";
  a(2, 2) = 0.0;  // a held column that is null still moves behind the free ones
  const Qr null(a, true, 0.0, {-4, 0, 1, 0});
  EXPECT_EQ(null.nullity, 1);
  EXPECT_EQ(null.ipiv, (Longs{1, 3, 2, 0}));
  EXPECT_EQ(null.alfa[3], -2.0);
  // Columns equal but for a tiny part: the carried norm cancels and must be computed anew.
  const double alike[3][3] = {{1, 1, 1}, {0, 1e-9, 0}, {0, 0, 3e-9}};
  const Qr f(Dense(3, 3, [&](long i, long j) { return alike[i][j]; }), true, 1e-12);
  EXPECT_EQ(f.nullity, 0);
  EXPECT_NEAR(std::fabs(f.alfa[0] * f.alfa[1] * f.alfa[2]), 3e-18, 1e-24);
}

// All sixteen jobs against a dense triangle, with and without an order and a separate diagonal.
TEST(TriangularSystems, SolveAndProductUndoEachOtherInEveryJob) {
  for (const long n : {1L, 2L, 7L, 19L, 40L}) {
    const long p = 3, incu = n + 2;
    Dense l = random_dense(n, n, 71);
    Vec packed(packed_size(n)), dense(n * incu), diagonal(n);
    for (long i = 0; i < n; ++i)
      for (long j = 0; j < n; ++j) {
        l(i, j) = j < i ? l(i, j) / static_cast<double>(n) : j == i ? l(i, i) + 4.0 : 0.0;
        if (j <= i) packed[zisub(i, j)] = dense[j * incu + i] = l(i, j);
        if (j == i) diagonal[i] = l(i, i);
      }
    const Longs order = random_order(n, 3);
    for (int variant = 0; variant < 32; ++variant) {
      const int job = 1 + variant / 4;
      const bool ordered = variant % 4 >= 2, separate = variant % 2 == 1;
      SCOPED_TRACE(testing::Message() << "order " << n << ", job " << job);
      const bool by_row = job % 4 == 1 || job % 4 == 2;
      const long incb = by_row ? p + 1 : n + 1, incx = n + 3;
      Vec u = job >= 5 ? packed : dense;
      for (long i = 0; i < n && separate; ++i)  // the diagonal must then not be read
        u[job >= 5 ? zisub(i, i) : i * incu + i] = 1e300;
      const double* alfa = separate ? diagonal.data() : nullptr;
      const long* ipiv = ordered ? order.data() : nullptr;
      Vec x = random_vector(p * incx, 8), product(p * incx), h(n);
      const Vec b = random_vector((n + 1) * (n + p + 1), 7);
      ASSERT_EQ(run(zqrsol, job, n, p, incu, incb, incx, ipiv, u, b, x, alfa, h), 0);
      // The product of the solution, in the layout of job 3 or 4 (7 or 8) for its right side.
      const int again = (job >= 5 ? 7 : 3) + (job % 2 == 0) + 10;
      run(zqrsol, again, n, p, incu, incx, incx, ipiv, u, x, product, alfa, h);
      for (long k = 0; k < p; ++k)
        for (long i = 0; i < n; ++i) {
          const auto right = [&](long row) {
            return by_row ? b[row * incb + k] : b[k * incb + row];
          };
          EXPECT_NEAR(product[k * incx + i], right(i), 1e-13);
          // The matrix itself: R P'x = b for odd jobs, P R'x = b for even ones.
          double sum = 0.0;
          for (long j = 0; j < n; ++j)
            sum += job % 2 == 1 ? l(j, i) * x[k * incx + (ordered ? order[j] : j)]
                                : l(i, j) * x[k * incx + j];
          EXPECT_NEAR(sum, right(job % 2 == 0 && ordered ? order[i] : i), 1e-13);
        }
    }
  }
}

TEST(TriangularSystems, ZeroDiagonalsGiveZeroAndAreCounted) {
  const Vec packed{2.0, 1.0, 0.0, 1.0, 1.0, 4.0}, b{2.0, 5.0, 9.0, 2.0, 5.0, 9.0};
  Vec x(6);
  const auto solve = [&](int job) {
    return run(zqrsol, job, 3, 2, 0, 3, 3, nullptr, packed, b, x, nullptr, nullptr);
  };
  EXPECT_EQ(solve(8), 1);
  EXPECT_EQ(x, (Vec{1.0, 0.0, 2.0, 1.0, 0.0, 2.0}));
  EXPECT_ANY_THROW(solve(9));
}

TEST(NullSpaceTriangle, RowsBeginWithTheirPivot) {
  const long n = 6;
  Vec c = random_vector(packed_size(n), 81), x(n), b = random_vector(n, 82);
  for (long q = 0; q < n; ++q) c[packed_size(q)] += 3.0;
  ASSERT_EQ(run(znlpqts, 2, n, 0.0, c, b, x), 0);
  for (long q = 0; q < n; ++q) {
    double sum = 0.0;
    for (long j = q; j < n; ++j) sum += c[zisub(j, j - q)] * x[j];
    EXPECT_NEAR(sum, b[n - 1 - q], 1e-14);
  }
  c[packed_size(3)] = 0.5;
  EXPECT_EQ(run(znlpqts, 2, n, 0.5, c, b, x), 4);
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
      const bool first = std::fabs(a) > std::fabs(b);
      const double scale = first ? std::fabs(a) : std::fabs(b);
      EXPECT_EQ(pb, 0.0);
      EXPECT_NEAR(c * c + s * s, 1.0, 1e-15);
      EXPECT_NEAR(c * b - s * a, 0.0, 1e-15 * scale);
      EXPECT_NEAR(c * a + s * b, pa, 1e-15 * scale);
      EXPECT_EQ(pa < 0.0, (first ? a : b) < 0.0);
      if (a == 0.0 || b == 0.0) {
        EXPECT_EQ(pa, a + b);
      }
      EXPECT_EQ(number, b == 0.0                                ? 0.0
                        : first                                 ? s
                        : std::fabs(c) > 2.225073858507202e-305 ? 1.0 / c
                                                                : 1.0);
    }
}

TEST(Rotations, ApplyInEveryStride) {
  const long n = 21;
  for (const long incx : {1L, 2L, -1L})
    for (const long incy : {1L, -3L})
      for (const auto& [c, s] : {std::pair{0.6, 0.8}, {0.0, 1.0}, {1.0, 0.0}}) {
        const Vec x0 = random_vector(60, 1), y0 = random_vector(70, 2);
        Vec x = x0, y = y0;
        run(zgivapl, n, incx, incy, c, s, x, y);
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
  long m;
  Dense q;  // columns as rows: column j contiguous
  WorkFile* file = nullptr;
  Vec r, u, w;
  double rho = 5.0;

  Basis(long length, Dense columns)
      : m(length), q(std::move(columns)), r(3 * q.rows + 1, 9.0), u(m), w(m) {}
  Basis(long length, long n, unsigned seed) : Basis(length, random_dense(n, length, seed)) {
    for (long j = 0; j < n; ++j)
      run(znlpgso, 0, m, j, m, 1, 1, GsoBasis{q.a.data(), nullptr}, &q(j, 0), r, &rho, u, nullptr);
    const WorkFileOptions options;
    xcopen(&file, &options);
    xcwrite(file, q.a.data(), m * n * static_cast<long>(sizeof(double)));
  }
  ~Basis() {
    if (file != nullptr) xcclose(file, 1);
  }
  int orthogonalize(Vec& v, int job = 0, long stride = 1, long incr = 1) {
    return run(znlpgso, job, m, q.rows, m, stride, incr, GsoBasis{q.a.data(), file}, v, r, &rho, u,
               w);
  }
};

TEST(GramSchmidt, OrthogonalAndComplete) {
  const long m = 30, n = 12;
  Basis basis(m, n, 91);
  const Vec random = random_vector(2 * m, 77);
  for (const double share : {1.0, 1e-12, 0.0})  // part outside the span
    for (const int job : {0, 1}) {
      Vec v = random;
      for (long i = 0; i < m; ++i)
        v[2 * i] = v[2 * i] * share + (share < 1.0 ? basis.q(3, i) + 2 * basis.q(5, i) : 0.0);
      const Vec v0 = v;
      EXPECT_EQ(basis.orthogonalize(v, job, 2, 3), 0);
      for (long j = 0; j < n; ++j) EXPECT_NEAR(run(zvdotj1, m, 2, v, &basis.q(j, 0)), 0.0, 1e-14);
      EXPECT_TRUE(share != 0.0 || std::fabs(basis.r[3 * 5] - 2.0) < 1e-14);
      if (share != 1.0) continue;
      EXPECT_NEAR(run(zvenorm, m, 2, v), 1.0, 1e-14);
      for (long i = 0; i < m; ++i) {
        double sum = basis.rho * v[2 * i];
        for (long j = 0; j < n; ++j) sum += basis.r[3 * j] * basis.q(j, i);
        EXPECT_NEAR(sum, v0[2 * i], 1e-14);
      }
    }
}

TEST(GramSchmidt, CodesAndEdges) {
  Vec v{1.0, 2.0, 3.0, 4.0}, zero(4);
  Basis basis(4, 3, 17), whole(4, 4, 18), more(2, 3, 17);
  EXPECT_EQ(more.orthogonalize(v), -1);
  EXPECT_EQ(more.rho, 0.0);
  EXPECT_EQ(basis.orthogonalize(zero), -2);
  EXPECT_EQ(whole.orthogonalize(v), 0);
  EXPECT_EQ(whole.rho, 0.0);
  EXPECT_EQ(v, zero);
  // A vector exactly in the span: the weakest row, the last of equals, takes over and rho is 0.
  Basis axes(4, Dense(2, 4, [](long j, long i) { return i == j ? 1.0 : 0.0; }));
  v = {3.0, 4.0, 0.0, 0.0};
  EXPECT_EQ(axes.orthogonalize(v), 0);
  EXPECT_EQ(axes.rho, 0.0);
  EXPECT_EQ(v, (Vec{0.0, 0.0, 0.0, 1.0}));
  EXPECT_EQ(axes.r[1], 4.0);
  v[0] = std::nan("");
  axes.orthogonalize(v);  // comes to an end
}

// ---- Older Newton code -------------------------------------------------------------------------

TEST(IncrementalKernels, GrowingFactorSolves) {
  const long n = 9;
  const Dense a = gram(n, n + 2, 95);
  const Vec x = random_vector(n, 96);
  Vec l = pack(a), b = a * x;
  for (long k = 0; k < n; ++k) EXPECT_GT(run(zchol, k, l, 1e-12), 0.0);
  run(zchol2, n, l, b);
  run(zbaksub, n, l, b);
  EXPECT_LT(distance(b, x), 1e-10);
  double flat[] = {4.0, 2.0, 1.0};
  EXPECT_EQ(zchol(0, flat, 5.0), 4.0);
  EXPECT_EQ(flat[0], 0.0);
  EXPECT_EQ(zchol(1, flat, 0.5), 1.0);  // the division by zero gives zero
  EXPECT_EQ(flat[1], 0.0);
}

TEST(IncrementalKernels, ReflectionsKeepProducts) {
  const long nvar = 7, k = 2, inc = 3, rest = nvar - k;
  for (const double sign : {1.0, -1.0, 0.0}) {
    Vec row = random_vector(nvar * inc, 97), other = random_vector(nvar * inc, 98), u(nvar);
    row[k * inc] *= sign;
    const Vec row0 = row, other0 = other;
    double *from = &row[k * inc], *from_other = &other[k * inc], pk = 0.0;
    const double before = zvdotjj(rest, inc, from, inc, from_other);
    EXPECT_EQ(run(zhh1, row, u, &pk, k, inc, nvar), 0);
    EXPECT_EQ(run(zhh2, other, u, k, pk, inc, nvar), 0);
    const double length = zvenorm(rest, inc, &row0[k * inc]);
    EXPECT_NEAR(*from, row0[k * inc] > 0.0 ? -length : length, 1e-14);
    EXPECT_EQ(zvamxj(rest - 1, inc, from + inc), 0.0);
    EXPECT_EQ(row[inc], row0[inc]);
    EXPECT_NEAR(zvdotjj(rest, inc, from, inc, from_other), before, 1e-14);
    EXPECT_NEAR(zvenorm(rest, inc, from_other), zvenorm(rest, inc, &other0[k * inc]), 1e-14);
  }
  double zeros[] = {1.0, 0.0, 0.0}, u[3], pk = 1.0;
  EXPECT_EQ(zhh1(zeros, u, &pk, 1, 1, 3), 1);
  EXPECT_EQ(zhh2(zeros, u, 1, pk, 1, 3), 1);
}

}  // namespace tqnlp::test
