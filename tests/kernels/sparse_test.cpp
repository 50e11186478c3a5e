// The sparse factorizations against dense arithmetic on seeded random matrices and grids.
#include "kernels/sparse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "kernels/dense.h"

namespace tqnlp {
namespace {

using Vector = std::vector<double>;
using Longs = std::vector<long>;

struct Dense {
  long n;
  Vector value;
  explicit Dense(long order) : n(order), value(order * order) {}
  double& operator()(long i, long j) { return value[i * n + j]; }
  double operator()(long i, long j) const { return value[i * n + j]; }
};

Vector multiply(const Dense& a, const Vector& b) {
  Vector x(a.n);
  for (long i = 0; i < a.n; ++i)
    for (long j = 0; j < a.n; ++j) x[i] += a(i, j) * b[j];
  return x;
}

double distance(const Vector& x, const Vector& y) {
  double largest = 0.0;
  for (size_t i = 0; i < x.size(); ++i) {
    if (std::isnan(x[i] - y[i])) return HUGE_VAL;
    largest = std::max(largest, std::fabs(x[i] - y[i]));
  }
  return largest;
}

// A symmetric matrix in row-indexed form with its ordering and factor pattern.
struct Sparse {
  long n;
  Longs ja, iprm, perm, cnt, graph, node, next, ju;
  Vector a, u;
  Sparse(long order, const Longs& ir, const Longs& ic, const Vector& s)
      : n(order), ja(n + 1 + ir.size()), a(ja.size()) {
    EXPECT_EQ(zslltco(1, n, ir.size(), ir.data(), ic.data(), s.data(), ja.data(), a.data()), 0);
    analyse();
  }
  void analyse() {
    iprm.resize(n), perm.resize(n);
    const long field = 3 * n + 3;
    cnt.resize(field), node.resize(field), next.resize(field);
    graph.resize(2 * (ja[n] - n - 1) + n + 1);
    ju.resize(n > 2000 ? 40 * n : n * (n + 1) / 2 + n + 1);
    EXPECT_EQ(zslumdg(n, graph.size(), ja.data(), iprm.data(), perm.data(), cnt.data(),
                      graph.data(), node.data(), next.data(), 1),
              0);
    EXPECT_EQ(symbolic(ju.size()), 0);
    u.assign(ju[n], -7.0);
  }
  int symbolic(long room) {
    return zslltsf(n, room, iprm.data(), perm.data(), cnt.data(), graph.data(), node.data(),
                   next.data(), ju.data());
  }
  int factor(double sing = 0.0, int job = 1, long in = 0) {
    return zslltnf(job, in, n, sing, ja.data(), ju.data(), perm.data(), a.data(), u.data());
  }
  Dense dense() const {
    Dense d(n);
    for (long i = 0; i < n; ++i) {
      d(i, i) = a[i];
      for (long k = ja[i]; k < ja[i + 1]; ++k) d(i, ja[k]) = d(ja[k], i) = a[k];
    }
    return d;
  }
};

// Elements with the given density; diagonal dominance makes it positive definite.
Sparse random_matrix(long n, double density, unsigned seed, bool definite = true) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Longs ir, ic;
  Vector s, sum(n, 0.1);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < i; ++j)
      if (std::fabs(uniform(random)) < density) {
        const double v = uniform(random);
        const bool above = v > 0.0;
        ir.push_back(above ? j : i), ic.push_back(above ? i : j), s.push_back(v);
        sum[i] += std::fabs(v), sum[j] += std::fabs(v);
      }
  for (long i = 0; i < n; ++i) {
    ir.push_back(i), ic.push_back(i);
    s.push_back(definite || i % 3 != 0 ? sum[i] : -sum[i]);
  }
  return {n, ir, ic, s};
}

Sparse grid(long m, double diagonal = 4.0) {
  Longs ir, ic;
  Vector s;
  for (long v = 0; v < m * m; ++v) {
    ir.push_back(v), ic.push_back(v), s.push_back(diagonal);
    if (v % m != 0) ir.push_back(v), ic.push_back(v - 1), s.push_back(-1.0);
    if (v >= m) ir.push_back(v), ic.push_back(v - m), s.push_back(-1.0);
  }
  return {m * m, ir, ic, s};
}

// U'SU of a factor, to compare with the ordered matrix.
Dense product(long n, const Longs& ju, const Vector& u, const long* negp = nullptr) {
  Dense f(n), p(n);
  for (long r = 0; r < n; ++r) {
    f(r, r) = u[r] != 0.0 ? 1.0 / u[r] : 0.0;
    for (long k = ju[r]; k < ju[r + 1]; ++k) f(r, ju[k]) = u[k];
  }
  for (long r = 0; r < n; ++r)
    for (long i = r; i < n; ++i)
      for (long j = r; j < n; ++j) p(i, j) += (negp && negp[r] ? -1.0 : 1.0) * f(r, i) * f(r, j);
  return p;
}

Dense ordered(const Dense& a, const Longs& place) {
  Dense b(a.n);
  for (long i = 0; i < a.n; ++i)
    for (long j = 0; j < a.n; ++j) b(place[i], place[j]) = a(i, j);
  return b;
}

Vector random_vector(long n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Vector b(n);
  for (double& v : b) v = uniform(random);
  return b;
}

// ju is what elimination in the order of perm makes, with ascending columns, and nothing more.
void expect_fill(const Sparse& m) {
  Dense filled(m.n);
  Longs sorted = m.perm;
  std::sort(sorted.begin(), sorted.end());
  for (long i = 0; i < m.n; ++i) {
    EXPECT_EQ(sorted[i], i);
    EXPECT_EQ(m.iprm[m.perm[i]], i);
    for (long k = m.ja[i]; k < m.ja[i + 1]; ++k)
      filled(m.perm[i], m.perm[m.ja[k]]) = filled(m.perm[m.ja[k]], m.perm[i]) = 1.0;
  }
  for (long r = 0; r < m.n; ++r) {
    Longs columns;
    for (long c = r + 1; c < m.n; ++c)
      if (filled(r, c) != 0.0) columns.push_back(c);
    for (long i : columns)
      for (long j : columns) filled(i, j) = 1.0;
    ASSERT_EQ(columns, Longs(m.ju.begin() + m.ju[r], m.ju.begin() + m.ju[r + 1])) << "row " << r;
  }
}

TEST(SparsePattern, FactorPatternIsTheFillOfTheOrdering) {
  for (unsigned seed = 1; seed <= 8; ++seed)
    for (double density : {0.0, 0.02, 0.1, 0.6, 1.1})
      expect_fill(random_matrix(1 + 9 * seed, density, seed));
  expect_fill(grid(12));
  // A nearly full row is set aside; alone it would fill everything.
  Longs ir, ic;
  const long n = 400, hub = 7;
  for (long v = 0; v < n; ++v)
    if (v != hub) ir.push_back(v), ic.push_back(hub);
  for (long v = 2; v < n; v += 2) ir.push_back(v), ic.push_back(v - 1);
  Sparse star(n, ir, ic, Vector(ir.size(), 1.0));
  EXPECT_EQ(star.perm[hub], n - 1);
  expect_fill(star);
  EXPECT_EQ(star.ju[n], star.ja[n]) << "no fill";
}

TEST(SparsePattern, MinimumDegreeKeepsTheFillOfGridsLow) {
  // 31 n log2(n) / 4 entries is what nested dissection reaches; a band would have m^3.
  for (long m : {20, 60, 90}) {
    const double n = static_cast<double>(m * m);
    EXPECT_LT(grid(m).ju[m * m] - n, 31.0 / 4.0 * n * std::log2(n) * 0.5) << m;
  }
}

TEST(SparsePattern, TooLittleRoomIsToldAndMayBeMended) {
  Sparse m = grid(9);
  const long need = m.ju[m.n];
  EXPECT_EQ(m.symbolic(need - 1), 1);
  EXPECT_EQ(m.ju[m.n], need);
  EXPECT_EQ(m.symbolic(need), 0);
  expect_fill(m);
  EXPECT_EQ(zslumdg(m.n, m.graph.size() - 1, m.ja.data(), m.iprm.data(), m.perm.data(),
                    m.cnt.data(), m.graph.data(), m.node.data(), m.next.data(), 1),
            1);
  Longs other(need);
  EXPECT_EQ(zslusfp(m.n, need, m.ja.data(), m.iprm.data(), m.perm.data(), m.cnt.data(),
                    m.graph.data(), m.node.data(), m.next.data(), other.data()),
            0);
  EXPECT_TRUE(std::equal(other.begin(), other.end(), m.ju.begin()));
}

TEST(SparsePattern, CoordinatesAreSortedFoldedAndChecked) {
  const Longs ir{3, 0, 1, 3, 2, 0}, ic{1, 3, 3, 3, 2, 3};
  const Vector s{1.0, 2.0, 4.0, 8.0, 16.0, 32.0};
  Longs ja(11);
  Vector a(11);
  EXPECT_EQ(zslltco(1, 4, 6, ir.data(), ic.data(), s.data(), ja.data(), a.data()), 0);
  EXPECT_EQ(Longs(ja.begin(), ja.begin() + 7), (Longs{5, 5, 5, 5, 7, 0, 1}));
  EXPECT_EQ(Vector(a.begin(), a.begin() + 4), (Vector{0.0, 0.0, 16.0, 8.0}));
  EXPECT_EQ(Vector(a.begin() + 5, a.begin() + 7), (Vector{34.0, 5.0}));
  EXPECT_EQ(zslltco(0, 3, 6, ir.data(), ic.data(), nullptr, ja.data(), nullptr), 1);
  for (long n : {0, 1, 2, 16, 17, 300}) {
    Longs key(n);
    Vector value(n);
    for (long i = 0; i < n; ++i) value[i] = static_cast<double>(key[i] = i * 7919 % (n + 1));
    lsort2(n, key.data(), value.data());
    EXPECT_TRUE(std::is_sorted(key.begin(), key.end()));
    for (long i = 0; i < n; ++i) EXPECT_EQ(value[i], static_cast<double>(key[i]));
  }
}

TEST(SparseCholesky, FactorMultipliesToTheMatrixAndSolves) {
  for (unsigned seed = 1; seed <= 6; ++seed)
    for (double density : {0.0, 0.03, 0.15, 1.1}) {
      Sparse m = random_matrix(seed == 6 ? 150 : 13 * seed, density, seed);
      ASSERT_EQ(m.factor(), 0);
      const Dense a = m.dense();
      const double scale = *std::max_element(m.a.begin(), m.a.begin() + m.n);
      EXPECT_LT(distance(product(m.n, m.ju, m.u).value, ordered(a, m.perm).value), 1e-14 * scale);

      const Vector b = random_vector(m.n, seed);
      Vector x = b, r(m.n), y(m.n);
      zslltso(m.n, m.perm.data(), m.ju.data(), m.u.data(), x.data());
      EXPECT_LT(zslltre(m.n, m.ja.data(), m.a.data(), x.data(), b.data(), r.data()), 1e-12);
      EXPECT_LT(distance(multiply(a, x), b), 1e-12);
      for (int job : {0, 2}) {  // halves and products compose, in the order of variables or places
        x = y = b;
        zslltmu(job, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
        zslltml(job, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
        const Vector wanted = multiply(job == 0 ? a : ordered(a, m.perm), b);
        EXPECT_LT(distance(y, wanted), 1e-13 * scale);
        zslltli(job, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
        zslltui(job, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
        EXPECT_LT(distance(y, b), 1e-12);
      }
      const double form = zslltqf(m.n, m.ja.data(), m.a.data(), b.data());
      const Vector ab = multiply(a, b);
      EXPECT_NEAR(form, std::inner_product(b.begin(), b.end(), ab.begin(), 0.0), 1e-11 * scale);

      const Vector whole = m.u;  // again from row in on, values loaded here or by zsluinu
      for (long in = 0; in <= m.n; in += 1 + m.n / 7) {
        std::fill(m.u.begin() + m.ju[in], m.u.end(), std::nan(""));
        EXPECT_EQ(m.factor(0.0, 1, in), 0);
        EXPECT_LT(distance(m.u, whole), 1e-14 * scale);
        zsluinu(in, m.n, m.ja.data(), m.ju.data(), m.perm.data(), m.a.data(), m.u.data());
        EXPECT_EQ(m.factor(0.0, 0, in), 0);
        EXPECT_LT(distance(m.u, whole), 1e-14 * scale);
      }
    }
}

TEST(SparseCholesky, LongVectorsArePermutedInPlace) {
  for (long m : {140, 730}) {  // beyond the copy, beyond the bit field
    Sparse g = m == 140 ? grid(m, 4.1) : [m] {
      Longs ir, ic;
      for (long v = 0; v < m * m; ++v) ir.push_back(v), ic.push_back(v);
      for (long v = 3; v < m * m; v += 2) ir.push_back(v), ic.push_back(v - 3);
      Vector s(ir.size(), -1.0);
      std::fill_n(s.begin(), m * m, 4.1);
      return Sparse(m * m, ir, ic, s);
    }();
    ASSERT_EQ(g.factor(), 0);
    const Vector b = random_vector(g.n, 3);
    Vector x = b, r(g.n);
    zslltso(g.n, g.perm.data(), g.ju.data(), g.u.data(), x.data());
    EXPECT_LT(zslltre(g.n, g.ja.data(), g.a.data(), x.data(), b.data(), r.data()), 1e-12);
  }
}

TEST(SparseCholesky, RowsMayBeLongerThanThePiecesTheyAreHandledIn) {
  Sparse m = random_matrix(700, 0.02, 5);
  long longest = 0;
  for (long r = 0; r < m.n; ++r) longest = std::max(longest, m.ju[r + 1] - m.ju[r]);
  ASSERT_GT(longest, 300);
  for (long in : {0L, m.n / 2}) {
    ASSERT_EQ(m.factor(0.0, 1, in), 0);
    const Vector b = random_vector(m.n, 4);
    Vector x = b, r(m.n);
    zslltso(m.n, m.perm.data(), m.ju.data(), m.u.data(), x.data());
    EXPECT_LT(zslltre(m.n, m.ja.data(), m.a.data(), x.data(), b.data(), r.data()), 1e-11);
  }
}

TEST(SparseCholesky, FailedPivotsAreToldByRow) {
  struct Case {
    Vector diagonal;
    double sing;
    int code;
  };
  for (const Case& c :
       {Case{{1, 2, 3, 4}, 0.0, 0}, Case{{1, 0, 3, 4}, 0.0, 2}, Case{{1, 0, 0, 4}, 0.0, 3},
        Case{{1, -1, 0, 4}, 0.0, -2}, Case{{0, -1, -2, 4}, 0.0, -2}, Case{{1, 2, 3, 4}, 2.0, 2},
        Case{{1, 2, -3, 4}, 3.0, 3}, Case{{1, std::nan(""), 3, 4}, 0.0, 2},
        Case{{1, 0, 3, 4}, -1.0, 2}, Case{{1, 2, 3, 4}, std::nan(""), 0}}) {
    const Longs ja{5, 5, 5, 5, 5}, perm{0, 1, 2, 3};
    Vector u(5);
    EXPECT_EQ(
        zslltnf(1, 0, 4, c.sing, ja.data(), ja.data(), perm.data(), c.diagonal.data(), u.data()),
        c.code);
    for (long r = 0; r < 4; ++r)
      EXPECT_EQ(u[r] == 0.0, !(c.diagonal[r] > std::max(c.sing > 0 ? c.sing : 0.0, 0.0)));
  }
  // A singular Laplacian: the last pivot cancels, and the solve gives 0 there.
  Sparse m = grid(5);
  Vector sums = multiply(m.dense(), Vector(m.n, 1.0));
  for (long i = 0; i < m.n; ++i) m.a[i] -= sums[i];
  EXPECT_EQ(m.factor(1e-12), m.n);
  Vector b = random_vector(m.n, 1), r(m.n);
  const double mean = std::accumulate(b.begin(), b.end(), 0.0) / static_cast<double>(m.n);
  for (double& v : b) v -= mean;
  Vector x = b;
  zslltso(m.n, m.perm.data(), m.ju.data(), m.u.data(), x.data());
  EXPECT_EQ(x[m.iprm[m.n - 1]], 0.0);
  EXPECT_LT(zslltre(m.n, m.ja.data(), m.a.data(), x.data(), b.data(), r.data()), 1e-13);
  Vector y(m.n, 1.0), ones = y;
  zslltmu(0, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
  EXPECT_LT(distance(y, Vector(m.n)), 1e-14) << "U 1 = 0 in the null space";
}

TEST(SparseCholesky, SecondPatternFactorsThePrincipalSubmatrix) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    std::mt19937 random(seed);
    const bool indefinite = seed % 3 == 0;
    Sparse m = random_matrix(10 + 8 * seed, seed % 2 ? 0.05 : 0.3, seed, !indefinite);
    Longs free(m.n), in(m.n, -1);
    std::iota(free.begin(), free.end(), 0L);
    std::shuffle(free.begin(), free.end(), random);
    free.resize(seed == 1 ? 0 : seed == 2 ? m.n : random() % m.n);
    const long f = static_cast<long>(free.size());
    for (long i = 0; i < f; ++i) in[free[i]] = i;
    Longs jasl(m.ja[m.n]), jusl(m.ju[m.n] + m.n);
    Vector al(m.ja[m.n]);
    const auto reduce = [&](long room) {
      return zslltiu(jasl.data(), jusl.data(), in.data(), m.n, m.ja.data(), m.ju.data(),
                     m.perm.data(), m.iprm.data(), room, m.a.data(), al.data());
    };
    ASSERT_EQ(reduce(jusl.size()), f);
    ASSERT_EQ(reduce(jusl[f] + f), f);
    if (f > 0) {
      ASSERT_EQ(reduce(jusl[f] + f - 1), -1);
    }
    ASSERT_EQ(reduce(jusl.size()), f);
    const Dense a = m.dense();
    Dense part(f);
    for (long i = 0; i < f; ++i)
      for (long j = 0; j < f; ++j) part(i, j) = a(free[i], free[j]);
    const Vector b = random_vector(f, seed);
    Vector x(f);
    zslltma(f, jasl.data(), al.data(), b.data(), x.data());
    EXPECT_LT(distance(x, multiply(part, b)), 1e-12);
    for (int job : {1, 2}) {
      Vector u(jusl[f] + 1);
      Longs negp(f);
      const double* values = job == 1 ? al.data() : m.a.data();
      x = b;
      if (indefinite) {
        ASSERT_EQ(zslusn2(job, jasl.data(), jusl.data(), 0, f, 1e-9, m.ja.data(), m.ju.data(),
                          in.data(), values, u.data(), negp.data()),
                  0);
        zsluso2(f, nullptr, jusl.data(), nullptr, u.data(), negp.data(), x.data());
      } else {
        ASSERT_EQ(zslltf2(job, jasl.data(), jusl.data(), 0, f, 0.0, m.ja.data(), m.ju.data(),
                          in.data(), values, u.data()),
                  0);
        zsllts2(f, nullptr, jusl.data(), nullptr, u.data(), x.data());
      }
      EXPECT_LT(distance(multiply(part, x), b), 1e-10);
      Vector y = b;
      zslumli(1, f, nullptr, jusl.data(), u.data(), y.data());
      zslumui(1, f, nullptr, jusl.data(), u.data(), negp.data(), y.data());
      EXPECT_LT(distance(x, y), 1e-11);
    }
  }
}

TEST(SparseCholesky, JobsOfTheDenseEntriesWorkThroughTheDescriptor) {
  Sparse m = random_matrix(40, 0.1, 3);
  const long n = m.n, f = 30;
  Longs in(n, -1), jasl(m.ja[n]), jusl(m.ju[n] + n);
  for (long i = 0; i < f; ++i) in[(i * 7) % n] = i;
  Vector al(m.ja[n]), u(m.ju[n]), ul(jusl.size());
  ASSERT_EQ(zslltiu(jasl.data(), jusl.data(), in.data(), n, m.ja.data(), m.ju.data(), m.perm.data(),
                    m.iprm.data(), jusl.size(), m.a.data(), al.data()),
            f);
  MINSTR str{};
  str.hfrm = 1;
  str.shes = {m.ja[n],       m.ju[n],       m.ja.data(), m.ju.data(),
              m.perm.data(), m.iprm.data(), jasl.data(), jusl.data()};
  double logdet = 9.0;
  ASSERT_EQ(znlpcde(&str, 6, n, 0.0, &logdet, m.a.data(), u.data(), nullptr), 0);
  double sum = 0.0;
  for (long i = 0; i < n; ++i) sum += std::log(u[i]);
  EXPECT_NEAR(logdet, sum, 1e-12);
  const Dense a = m.dense();
  const Vector b = random_vector(n, 2);
  Vector x = b, halves = b, back = b;
  EXPECT_EQ(znlpcso(&str, 6, n, u.data(), x.data()), 0);
  EXPECT_LT(distance(multiply(a, x), b), 1e-12);
  EXPECT_EQ(znlpilm(&str, 6, n, u.data(), halves.data()), 0);
  EXPECT_EQ(znlpium(&str, 6, n, u.data(), halves.data()), 0);
  EXPECT_LT(distance(halves, x), 1e-13);
  znlpmmu(&str, 6, n, u.data(), x.data());
  EXPECT_LT(distance(x, b), 1e-12);
  znlpumu(&str, 6, n, u.data(), back.data());
  znlplmu(&str, 6, n, u.data(), back.data());
  EXPECT_LT(distance(back, multiply(a, b)), 1e-11);

  // Job 7 takes its order from the second pattern, also where all parameters are counted.
  for (const long order : {f, n}) {
    ASSERT_EQ(znlpcde(&str, 7, order, 0.0, &logdet, al.data(), ul.data(), nullptr), 0);
    Vector reduced(b.begin(), b.begin() + f);
    EXPECT_EQ(znlpcso(&str, 7, order, ul.data(), reduced.data()), 0);
    Vector ax(f);
    zslltma(f, jasl.data(), al.data(), reduced.data(), ax.data());
    EXPECT_LT(distance(ax, {b.begin(), b.begin() + f}), 1e-12);
    EXPECT_ANY_THROW(znlpium(&str, 7, order, ul.data(), reduced.data()));
    EXPECT_ANY_THROW(znlpmmu(&str, 7, order, ul.data(), reduced.data()));
  }

  // A failed row is told by the code, without a determinant, and by every solve.
  m.a[5] = -1.0;
  EXPECT_LT(znlpcde(&str, 6, n, 0.0, &logdet, m.a.data(), u.data(), nullptr), 0);
  EXPECT_EQ(logdet, 0.0);
  EXPECT_EQ(znlpcso(&str, 6, n, u.data(), x.data()), 1);
  EXPECT_EQ(znlpilm(&str, 6, n, u.data(), x.data()), 1);
}

TEST(SparseCholesky, UpdatesEqualFactorizationsAfresh) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Sparse m = random_matrix(40, seed < 4 ? 0.08 : 0.4, seed);
    ASSERT_EQ(m.factor(), 0);
    const Vector before = m.u;
    const Dense p = ordered(m.dense(), m.perm);
    std::mt19937 random(seed);
    const long r = random() % m.n, k = random() % m.n;
    // Along row r nothing fills.
    Vector w(m.n), v;
    w[r] = 0.3;
    for (long q = m.ju[r]; q < m.ju[r + 1]; ++q) w[m.ju[q]] = 0.1 * (q % 5) - 0.2;
    for (double sigma : {2.0, -0.01}) {
      m.u = before;
      v = w;
      ASSERT_EQ(zslltf5(m.n, sigma, 0.0, m.ju.data(), m.u.data(), v.data()), 0);
      Dense changed = p;
      for (long i = 0; i < m.n; ++i)
        for (long j = 0; j < m.n; ++j) changed(i, j) += sigma * w[i] * w[j];
      EXPECT_LT(distance(product(m.n, m.ju, m.u).value, changed.value), 1e-13);
    }
    m.u = before;
    v = w;
    EXPECT_NE(zslltf5(m.n, -1e6, 0.0, m.ju.data(), m.u.data(), v.data()), 0);
    // Out and in again.
    m.u = before;
    zslltrd(m.n, k, m.ju.data(), m.u.data(), v.data());
    Dense without = p;
    for (long i = 0; i < m.n; ++i) without(i, k) = without(k, i) = 0.0;
    EXPECT_LT(distance(product(m.n, m.ju, m.u).value, without.value), 1e-13);
    EXPECT_EQ(m.u[k], 0.0);
    const Vector removed = m.u;
    for (long i = 0; i < m.n; ++i) v[i] = p(i, k);
    v[k] = -1.0;
    EXPECT_EQ(zslltra(m.n, k, 0.0, m.ju.data(), m.u.data(), v.data()), k + 1);
    EXPECT_EQ(m.u, removed);
    for (long i = 0; i < m.n; ++i) v[i] = p(i, k);
    EXPECT_EQ(zslltra(m.n, k, 0.0, m.ju.data(), m.u.data(), v.data()), 0);
    EXPECT_LT(distance(m.u, before), 1e-11);
  }
}

TEST(SparseSigned, IndefiniteMatricesKeepTheirSigns) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Sparse m = random_matrix(60, 0.1, seed, false);
    Longs negp(m.n);
    ASSERT_EQ(zslusnf(1, 0, m.n, 1e-9, m.ja.data(), m.ju.data(), m.perm.data(), m.a.data(),
                      m.u.data(), negp.data()),
              0);
    EXPECT_LT(
        distance(product(m.n, m.ju, m.u, negp.data()).value, ordered(m.dense(), m.perm).value),
        1e-12);
    // Diagonally dominant: the inertia is that of the diagonal.
    EXPECT_EQ(std::accumulate(negp.begin(), negp.end(), 0L), (m.n + 2) / 3);
    const Vector b = random_vector(m.n, seed);
    Vector x = b, r(m.n), y = b, z = b;
    zslusos(m.n, m.perm.data(), m.ju.data(), m.u.data(), negp.data(), x.data());
    EXPECT_LT(zslltre(m.n, m.ja.data(), m.a.data(), x.data(), b.data(), r.data()), 1e-11);
    zslumli(0, m.n, m.perm.data(), m.ju.data(), m.u.data(), y.data());
    zslumui(0, m.n, m.perm.data(), m.ju.data(), m.u.data(), negp.data(), y.data());
    EXPECT_LT(distance(x, y), 1e-12);
    zsluso3(m.n, m.perm.data(), m.ju.data(), m.u.data(), z.data());
    EXPECT_GT(std::inner_product(z.begin(), z.end(), b.begin(), 0.0), 0.0);
  }
  // A zero pivot fails plainly and is moved by the other form.
  const Longs ja{3, 3, 4, 0}, ju{3, 4, 4, 1}, perm{0, 1};
  const Vector a{0.0, 5.0, 0.0, 1.0};
  Vector u(4);
  Longs negp(2);
  EXPECT_EQ(
      zslusnf(1, 0, 2, 1e-8, ja.data(), ju.data(), perm.data(), a.data(), u.data(), negp.data()),
      1);
  EXPECT_EQ(u[0], 0.0);
  EXPECT_EQ(
      zslusn3(1, 0, 2, 1e-8, ja.data(), ju.data(), perm.data(), a.data(), u.data(), negp.data()),
      1);
  EXPECT_EQ(negp, (Longs{0, 1}));
  EXPECT_NEAR(1.0 / (u[0] * u[0]), 1e-8, 1e-22);
}

}  // namespace
}  // namespace tqnlp
