// The sparse factorizations against dense arithmetic on seeded random matrices and grids.
#include "kernels/sparse.h"

#include <gtest/gtest.h>

#include "kernels/dense.h"
#include "kernels/matrices.h"

namespace tqnlp::test {

// Triples of a symmetric matrix.
struct Triples {
  Longs ir, ic;
  Vec s;
  void add(long i, long j, double value) { ir.push_back(i), ic.push_back(j), s.push_back(value); }
};

// A symmetric matrix in row-indexed form with its ordering and factor pattern.
struct Sparse {
  long n;
  Longs ja, iprm, perm, cnt, graph, node, next, ju, negp;
  Vec a, u;
  Sparse(long order, const Triples& t) : n(order), ja(n + 1 + t.ir.size()), a(ja.size()) {
    EXPECT_EQ(run(zslltco, 1, n, t.ir.size(), t.ir, t.ic, t.s, ja, a), 0);
    for (Longs* field : {&iprm, &perm, &negp}) field->resize(n);
    for (Longs* field : {&cnt, &node, &next}) field->resize(3 * n + 3);
    graph.resize(2 * (ja[n] - n - 1) + n + 1);
    ju.resize(n > 2000 ? 40 * n : n * (n + 1) / 2 + n + 1);
    EXPECT_EQ(analyse(graph.size()), 0);
    EXPECT_EQ(symbolic(ju.size()), 0);
    u.assign(ju[n], -7.0);
  }
  int analyse(long room) {
    return run(zslumdg, n, room, ja, iprm, perm, cnt, graph, node, next, 1);
  }
  int symbolic(long room) { return run(zslltsf, n, room, iprm, perm, cnt, graph, node, next, ju); }
  int factor(double sing = 0.0, int job = 1, long in = 0) {
    return run(zslltnf, job, in, n, sing, ja, ju, perm, a, u);
  }
  // b after a solve or product with the factor: by all of it, by a half, by one with signs.
  template <class Kernel, class... Signs>
  Vec whole(Kernel kernel, Vec b, const Signs*... signs) const {
    kernel(n, perm.data(), ju.data(), u.data(), signs..., b.data());
    return b;
  }
  template <class Kernel, class... Signs>
  Vec half(Kernel kernel, int job, Vec b, const Signs*... signs) const {
    kernel(job, n, perm.data(), ju.data(), u.data(), signs..., b.data());
    return b;
  }
  double residual(const Vec& x, const Vec& b) const {
    Vec r(n);
    const double largest = run(zslltre, n, ja, a, x, b, r);
    EXPECT_EQ(largest, size(r));
    return largest;
  }
  Dense dense() const {
    Dense d(n, n);
    for (long i = 0; i < n; ++i) {
      d(i, i) = a[i];
      for (long k = ja[i]; k < ja[i + 1]; ++k) d(i, ja[k]) = d(ja[k], i) = a[k];
    }
    return d;
  }
  // The matrix in the order of the places, which the factor below multiplies to.
  Dense ordered() const {
    const Dense d = dense();
    return {n, n, [&](long i, long j) { return d(iprm[i], iprm[j]); }};
  }
  Dense product(bool with_signs = false) const {
    Dense f(n, n), sf(n, n);
    for (long r = 0; r < n; ++r) {
      f(r, r) = u[r] != 0.0 ? 1.0 / u[r] : 0.0;
      for (long k = ju[r]; k < ju[r + 1]; ++k) f(r, ju[k]) = u[k];
      for (long j = 0; j < n; ++j) sf(r, j) = (with_signs && negp[r] ? -1.0 : 1.0) * f(r, j);
    }
    return transpose(f) * sf;
  }
};

// Elements with the given density; diagonal dominance makes it positive definite.
static Sparse random_matrix(long n, double density, unsigned seed, bool definite = true) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  Triples t;
  Vec sum(n, 0.1);
  for (long i = 0; i < n; ++i)
    for (long j = 0; j < i; ++j)
      if (std::fabs(uniform(random)) < density) {
        const double v = uniform(random);
        t.add(v > 0.0 ? j : i, v > 0.0 ? i : j, v);
        sum[i] += std::fabs(v), sum[j] += std::fabs(v);
      }
  for (long i = 0; i < n; ++i) t.add(i, i, definite || i % 3 != 0 ? sum[i] : -sum[i]);
  return {n, t};
}

static Sparse grid(long m, double diagonal = 4.0) {
  Triples t;
  for (long v = 0; v < m * m; ++v) {
    t.add(v, v, diagonal);
    if (v % m != 0) t.add(v, v - 1, -1.0);
    if (v >= m) t.add(v, v - m, -1.0);
  }
  return {m * m, t};
}

// ju is what elimination in the order of perm makes, with ascending columns, and nothing more.
static void expect_fill(const Sparse& m) {
  Dense filled(m.n, m.n);
  for (long i = 0; i < m.n; ++i) {
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
  Triples t;
  const long n = 400, hub = 7;
  for (long v = 0; v < n; ++v)
    if (v != hub) t.add(v, hub, 1.0);
  for (long v = 2; v < n; v += 2) t.add(v, v - 1, 1.0);
  const Sparse star(n, t);
  EXPECT_EQ(star.perm[hub], n - 1);
  expect_fill(star);
  EXPECT_EQ(star.ju[n], star.ja[n]) << "no fill";
  // 31 n log2(n) / 4 entries is what nested dissection reaches; a band would have m^3.
  for (long m : {20, 60, 90}) {
    const double order = static_cast<double>(m * m);
    EXPECT_LT(grid(m).ju[m * m] - order, 31.0 / 4.0 * order * std::log2(order) * 0.5) << m;
  }
}

TEST(SparsePattern, TooLittleRoomIsToldAndMayBeMended) {
  Sparse m = grid(9);
  const long need = m.ju[m.n];
  EXPECT_EQ(m.symbolic(need - 1), 1);
  EXPECT_EQ(m.ju[m.n], need);
  EXPECT_EQ(m.symbolic(need), 0);
  expect_fill(m);
  EXPECT_EQ(m.analyse(m.graph.size() - 1), 1);
  Longs other(need);
  EXPECT_EQ(run(zslusfp, m.n, need, m.ja, m.iprm, m.perm, m.cnt, m.graph, m.node, m.next, other),
            0);
  EXPECT_TRUE(std::equal(other.begin(), other.end(), m.ju.begin()));
}

TEST(SparsePattern, CoordinatesAreSortedFoldedAndChecked) {
  const Longs ir{3, 0, 1, 3, 2, 0}, ic{1, 3, 3, 3, 2, 3};
  const Vec s{1.0, 2.0, 4.0, 8.0, 16.0, 32.0};
  Longs ja(11);
  Vec a(11);
  EXPECT_EQ(run(zslltco, 1, 4, 6, ir, ic, s, ja, a), 0);
  EXPECT_EQ(Longs(ja.begin(), ja.begin() + 7), (Longs{5, 5, 5, 5, 7, 0, 1}));
  EXPECT_EQ(Vec(a.begin(), a.begin() + 7), (Vec{0.0, 0.0, 16.0, 8.0, a[4], 34.0, 5.0}));
  EXPECT_EQ(run(zslltco, 0, 3, 6, ir, ic, nullptr, ja, nullptr), 1);
  for (long n : {0, 1, 2, 16, 17, 300}) {
    Longs key(n);
    for (long i = 0; i < n; ++i) key[i] = i * 7919 % (n + 1);
    Vec value(key.begin(), key.end());
    run(lsort2, n, key, value);
    EXPECT_TRUE(std::is_sorted(key.begin(), key.end()));
    EXPECT_EQ(value, Vec(key.begin(), key.end()));
  }
}

TEST(SparseCholesky, FactorMultipliesToTheMatrixAndSolves) {
  for (unsigned seed = 1; seed <= 6; ++seed)
    for (double density : {0.0, 0.03, 0.15, 1.1}) {
      Sparse m = random_matrix(seed == 6 ? 150 : 13 * seed, density, seed);
      ASSERT_EQ(m.factor(), 0);
      const Dense a = m.dense(), p = m.ordered();
      const double scale = *std::max_element(m.a.begin(), m.a.begin() + m.n);
      EXPECT_LT(distance(m.product(), p), 1e-14 * scale);

      const Vec b = random_vector(m.n, seed), x = m.whole(zslltso, b);
      EXPECT_LT(m.residual(x, b), 1e-12);
      EXPECT_LT(distance(a * x, b), 1e-12);
      for (int job : {0, 2}) {  // halves and products compose, in the order of variables or places
        const Vec y = m.half(zslltml, job, m.half(zslltmu, job, b));
        EXPECT_LT(distance(y, (job == 0 ? a : p) * b), 1e-13 * scale);
        EXPECT_LT(distance(m.half(zslltui, job, m.half(zslltli, job, y)), b), 1e-12);
      }
      const double form = run(zslltqf, m.n, m.ja, m.a, b);
      EXPECT_NEAR(form, dot(b, a * b), 1e-11 * scale);

      const Vec before = m.u;  // again from row in on, values loaded here or by zsluinu
      for (long in = 0; in <= m.n; in += 1 + m.n / 7)
        for (int job : {1, 0}) {
          std::fill(m.u.begin() + m.ju[in], m.u.end(), std::nan(""));
          if (job == 0) run(zsluinu, in, m.n, m.ja, m.ju, m.perm, m.a, m.u);
          EXPECT_EQ(m.factor(0.0, job, in), 0);
          EXPECT_LT(distance(m.u, before), 1e-14 * scale);
        }
    }
}

TEST(SparseCholesky, SolvesBeyondTheLengthsOfItsBuffers) {
  Triples chain;  // longer than the bit field that marks a permutation
  const long n = 730 * 730;
  for (long v = 0; v < n; ++v) chain.add(v, v, 4.1);
  for (long v = 3; v < n; v += 2) chain.add(v, v - 3, -1.0);
  // Also longer than the copy of a vector, and rows longer than the pieces they are handled in.
  for (Sparse m : {Sparse(n, chain), grid(140, 4.1), random_matrix(700, 0.02, 5)})
    for (long in : {0L, m.n / 2}) {
      ASSERT_EQ(m.factor(0.0, 1, in), 0);
      const Vec b = random_vector(m.n, 3);
      EXPECT_LT(m.residual(m.whole(zslltso, b), b), 1e-11);
    }
}

TEST(SparseCholesky, FailedPivotsAreToldByRow) {
  const auto code = [](const Vec& diagonal, double sing) {
    const Longs ja(5, 5), perm{0, 1, 2, 3};
    Vec u(5);
    const int told = run(zslltnf, 1, 0, 4, sing, ja, ja, perm, diagonal, u);
    for (long r = 0; r < 4; ++r) EXPECT_EQ(u[r] == 0.0, !(diagonal[r] > (sing > 0.0 ? sing : 0.0)));
    return told;
  };
  EXPECT_EQ(code({1, 2, 3, 4}, 0.0), 0);
  EXPECT_EQ(code({1, 0, 3, 4}, 0.0), 2);
  EXPECT_EQ(code({1, 0, 0, 4}, 0.0), 3);
  EXPECT_EQ(code({1, -1, 0, 4}, 0.0), -2);
  EXPECT_EQ(code({0, -1, -2, 4}, 0.0), -2);
  EXPECT_EQ(code({1, 2, 3, 4}, 2.0), 2);
  EXPECT_EQ(code({1, 2, -3, 4}, 3.0), 3);
  EXPECT_EQ(code({1, std::nan(""), 3, 4}, 0.0), 2);
  EXPECT_EQ(code({1, 0, 3, 4}, -1.0), 2);
  EXPECT_EQ(code({1, 2, 3, 4}, std::nan("")), 0);
  // A singular Laplacian: the last pivot cancels, and the solve gives 0 there.
  Sparse m = grid(5);
  const Vec ones(m.n, 1.0), sums = m.dense() * ones;
  for (long i = 0; i < m.n; ++i) m.a[i] -= sums[i];
  EXPECT_EQ(m.factor(1e-12), m.n);
  Vec b = random_vector(m.n, 1);
  const double mean = dot(b, ones) / static_cast<double>(m.n);
  for (double& v : b) v -= mean;
  const Vec x = m.whole(zslltso, b);
  EXPECT_EQ(x[m.iprm[m.n - 1]], 0.0);
  EXPECT_LT(m.residual(x, b), 1e-13);
  EXPECT_LT(size(m.half(zslltmu, 0, ones)), 1e-14) << "U 1 = 0 in the null space";
}

// The free variables of a matrix and the second pattern that belongs to them.
struct Reduced {
  const Sparse& m;
  Longs in, jasl, jusl;
  Vec al;
  Reduced(const Sparse& full, const Longs& free)
      : m(full), in(m.n, -1), jasl(m.ja[m.n]), jusl(m.ju[m.n] + m.n), al(m.ja[m.n]) {
    for (std::size_t i = 0; i < free.size(); ++i) in[free[i]] = static_cast<long>(i);
    EXPECT_EQ(reduce(jusl.size()), static_cast<long>(free.size()));
  }
  long reduce(long room) {
    return run(zslltiu, jasl, jusl, in, m.n, m.ja, m.ju, m.perm, m.iprm, room, m.a, al);
  }
};

TEST(SparseCholesky, SecondPatternFactorsThePrincipalSubmatrix) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    const bool indefinite = seed % 3 == 0;
    const Sparse m = random_matrix(10 + 8 * seed, seed % 2 ? 0.05 : 0.3, seed, !indefinite);
    Longs free = random_order(m.n, seed);
    const long f = seed == 1 ? 0 : seed == 2 ? m.n : free[0];
    free.resize(f);
    Reduced r(m, free);
    const long need = r.jusl[f] + f;
    EXPECT_TRUE(f == 0 || r.reduce(need - 1) == -1);
    ASSERT_EQ(r.reduce(need), f);
    const Dense a = m.dense();
    const Dense part(f, f, [&](long i, long j) { return a(free[i], free[j]); });
    const Vec b = random_vector(f, seed);
    Vec x(f);
    run(zslltma, f, r.jasl, r.al, b, x);
    EXPECT_LT(distance(x, part * b), 1e-12);
    for (int job : {1, 2}) {
      Vec u(r.jusl[f] + 1), y = b;
      Longs negp(f);
      const double* values = job == 1 ? r.al.data() : m.a.data();
      x = b;
      if (indefinite) {
        ASSERT_EQ(run(zslusn2, job, r.jasl, r.jusl, 0, f, 1e-9, m.ja, m.ju, r.in, values, u, negp),
                  0);
        run(zsluso2, f, nullptr, r.jusl, nullptr, u, negp, x);
      } else {
        ASSERT_EQ(run(zslltf2, job, r.jasl, r.jusl, 0, f, 0.0, m.ja, m.ju, r.in, values, u), 0);
        run(zsllts2, f, nullptr, r.jusl, nullptr, u, x);
      }
      EXPECT_LT(distance(part * x, b), 1e-10);
      run(zslumli, 1, f, nullptr, r.jusl, u, y);
      run(zslumui, 1, f, nullptr, r.jusl, u, negp, y);
      EXPECT_LT(distance(x, y), 1e-11);
    }
  }
}

TEST(SparseCholesky, JobsOfTheDenseEntriesWorkThroughTheDescriptor) {
  Sparse m = random_matrix(40, 0.1, 3);
  const long n = m.n;
  MINSTR str{};
  str.hfrm = 1;
  str.shes.jasp = m.ja.data(), str.shes.jusp = m.ju.data();
  str.shes.perm = m.perm.data(), str.shes.iprm = m.iprm.data();
  double logdet = 9.0, sum = 0.0;
  ASSERT_EQ(run(znlpcde, &str, 6, n, 0.0, &logdet, m.a, m.u, nullptr), 0);
  for (long i = 0; i < n; ++i) sum += std::log(m.u[i]);
  EXPECT_NEAR(logdet, sum, 1e-12);
  const Vec b = random_vector(n, 2);
  const auto on = [&](auto entry) {
    Vec x = b;
    entry(&str, 6, n, m.u.data(), x.data());
    return x;
  };
  EXPECT_EQ(on(znlpcso), m.whole(zslltso, b));
  EXPECT_EQ(on(znlpilm), m.half(zslltli, 0, b));
  EXPECT_EQ(on(znlpium), m.half(zslltui, 0, b));
  EXPECT_EQ(on(znlpmmu), m.half(zslltml, 0, m.half(zslltmu, 0, b)));
  // A failed row is told by the code, without a determinant, and by every solve.
  m.a[5] = -1.0;
  EXPECT_LT(run(znlpcde, &str, 6, n, 0.0, &logdet, m.a, m.u, nullptr), 0);
  Vec x = b;
  for (const auto entry : {znlpcso, znlpilm, znlpium})
    EXPECT_EQ(logdet + run(entry, &str, 6, n, m.u, x), 1);
}

TEST(SparseCholesky, UpdatesEqualFactorizationsAfresh) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Sparse m = random_matrix(40, seed < 4 ? 0.08 : 0.4, seed);
    ASSERT_EQ(m.factor(), 0);
    const Vec before = m.u;
    const Dense p = m.ordered();
    const long r = random_order(m.n, seed)[0], k = random_order(m.n, seed)[1];
    // Along row r nothing fills.
    Vec w(m.n), v;
    w[r] = 0.3;
    for (long q = m.ju[r]; q < m.ju[r + 1]; ++q) w[m.ju[q]] = 0.1 * (q % 5) - 0.2;
    const auto update = [&](double sigma) {
      m.u = before;
      v = w;
      return run(zslltf5, m.n, sigma, 0.0, m.ju, m.u, v);
    };
    for (double sigma : {2.0, -0.01}) {
      ASSERT_EQ(update(sigma), 0);
      const Dense changed(m.n, m.n, [&](long i, long j) { return p(i, j) + sigma * w[i] * w[j]; });
      EXPECT_LT(distance(m.product(), changed), 1e-13);
    }
    EXPECT_NE(update(-1e6), 0);
    // Out and in again.
    m.u = before;
    run(zslltrd, m.n, k, m.ju, m.u, v);
    const Dense without(m.n, m.n, [&](long i, long j) { return i == k || j == k ? 0.0 : p(i, j); });
    EXPECT_LT(distance(m.product(), without), 1e-13);
    EXPECT_EQ(m.u[k], 0.0);
    const Vec removed = m.u;
    const auto add = [&](double diagonal) {
      for (long i = 0; i < m.n; ++i) v[i] = i == k ? diagonal : p(i, k);
      return run(zslltra, m.n, k, 0.0, m.ju, m.u, v);
    };
    EXPECT_EQ(add(-1.0), k + 1);
    EXPECT_EQ(m.u, removed);
    EXPECT_EQ(add(p(k, k)), 0);
    EXPECT_LT(distance(m.u, before), 1e-11);
  }
}

TEST(SparseSigned, IndefiniteMatricesKeepTheirSigns) {
  for (unsigned seed = 1; seed <= 6; ++seed) {
    Sparse m = random_matrix(60, 0.1, seed, false);
    ASSERT_EQ(run(zslusnf, 1, 0, m.n, 1e-9, m.ja, m.ju, m.perm, m.a, m.u, m.negp), 0);
    EXPECT_LT(distance(m.product(true), m.ordered()), 1e-12);
    // Diagonally dominant: the inertia is that of the diagonal.
    EXPECT_EQ(std::accumulate(m.negp.begin(), m.negp.end(), 0L), (m.n + 2) / 3);
    const Vec b = random_vector(m.n, seed), x = m.whole(zslusos, b, m.negp.data());
    EXPECT_LT(m.residual(x, b), 1e-11);
    EXPECT_LT(distance(m.half(zslumui, 0, m.half(zslumli, 0, b), m.negp.data()), x), 1e-12);
    EXPECT_GT(dot(m.whole(zsluso3, b), b), 0.0);
  }
  // A zero pivot fails plainly and is moved by the other form.
  const Longs ja{3, 3, 4, 0}, ju{3, 4, 4, 1}, perm{0, 1};
  const Vec a{0.0, 5.0, 0.0, 1.0};
  Vec u(4);
  Longs negp(2);
  const auto factor = [&](auto kernel) {
    return kernel(1, 0, 2, 1e-8, ja.data(), ju.data(), perm.data(), a.data(), u.data(),
                  negp.data());
  };
  EXPECT_EQ(factor(zslusnf), 1);
  EXPECT_EQ(u[0], 0.0);
  EXPECT_EQ(factor(zslusn3), 1);
  EXPECT_EQ(negp, (Longs{0, 1}));
  EXPECT_NEAR(1.0 / (u[0] * u[0]), 1e-8, 1e-22);
}

}  // namespace tqnlp::test
