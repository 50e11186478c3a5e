// The quasi-Newton updates against the textbook formulas on dense matrices, in every stored form.
#include <gtest/gtest.h>

#include <algorithm>

#include "aasubs/quasinewton/znlpupd.h"
#include "kernels/matrices.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// A form of the matrix: what is stored for B, and B (job 1: its inverse) read back.
struct Stored {
  int job;
  Vec c;
  double& at(long i, long j) { return c[static_cast<std::size_t>(zisub(i, j))]; }
};

Dense read_back(long n, const Stored& m) {
  if (m.job == 1) return unpack(n, m.c);
  Dense l = unpack(n, m.c, true);
  Dense right = transpose(l);
  for (long i = 0; m.job == 2 && i < n; ++i) {
    const double d = l(i, i);
    l(i, i) = right(i, i) = 1.0;
    for (long j = 0; j < n; ++j) right(i, j) *= d;
  }
  return l * right;
}

// Well-conditioned: for jobs 2 and 3 the factor is random, for job 1 the matrix M'M + I.
Stored stored_matrix(long n, int job, unsigned seed) {
  const Dense random = job == 1 ? gram(n, n, seed) : random_dense(n, n, seed);
  Stored s{job, pack(multiplied(random, job == 1 ? 1.0 : 1.0 / static_cast<double>(n)))};
  for (long i = 0; i < n; ++i) s.at(i, i) += job == 1 ? 1.0 : 2.0;
  return s;
}

Dense column(const Vec& v, long n) {
  return {n, 1, [&v](long i, long) { return v[i]; }};
}

double inner(const Dense& a, const Dense& b) { return (transpose(a) * b)(0, 0); }

Dense combine(double a, const Dense& x, double b, const Dense& y) {
  Dense z(x.rows, x.cols);
  for (std::size_t k = 0; k < z.a.size() - 1; ++k) z.a[k] = a * x.a[k] + b * y.a[k];
  return z;
}

struct Pair {
  Dense s, y;
};

// BFGS update of B by (s, y), which is also the DFP update of H = B^-1 by (y, s).
Dense bfgs(const Dense& b, const Pair& p) {
  const Dense bs = b * p.s;
  const Dense less = combine(1.0, b, -1.0 / inner(p.s, bs), bs * transpose(bs));
  return combine(1.0, less, 1.0 / inner(p.s, p.y), p.y * transpose(p.y));
}

// DFP update of B, which is also the BFGS update of H with s and y exchanged.
Dense dfp(const Dense& b, const Pair& p) {
  const double sy = inner(p.s, p.y);
  const Dense left = combine(1.0, identity(b.rows), -1.0 / sy, p.y * transpose(p.s));
  return combine(1.0, left * b * transpose(left), 1.0 / sy, p.y * transpose(p.y));
}

// s and y = curvature A s with a positive definite A.
Pair random_pair(long n, unsigned seed, double curvature = 1.0) {
  const Dense a = read_back(n, stored_matrix(n, 3, seed));
  const Dense s = column(random_vector(n, seed + 1), n);
  return {s, multiplied(a * s, curvature)};
}

int update(TestRecord& record, bool is_dfp, int iscl, Stored& m, const Pair& pair) {
  Vec s = pair.s.a, y = pair.y.a, u(s.size()), v(s.size()), w(s.size());
  return (is_dfp ? znlpdfp : znlpbfg)(&record, m.job, iscl, s.data(), y.data(), m.c.data(),
                                      u.data(), v.data(), w.data());
}

// Factor by which scaling multiplies B (job 1: its inverse).
double scale_of(const Dense& matrix, const Pair& pair, bool is_dfp, int job, double alfa) {
  const Dense& with = job == 1 ? pair.y : pair.s;
  const double ratio = inner(pair.s, pair.y) / inner(with, matrix * with);
  const double limit = job == 3 ? (is_dfp ? 1e4 : 1e6) : 1e3;
  return std::clamp(is_dfp ? (job == 1 ? alfa : 1.0 / alfa) : ratio, 1.0 / limit, limit);
}

// Scaling by alfa for DFP; for BFGS the size of y plays its part, whose ratio to B s is what
// scales. 0: no scaling; negative: a pair of negative curvature, for the form that damps it.
void check_update(long n, int job, bool is_dfp, double alfa) {
  SCOPED_TRACE(testing::Message() << n << " " << job << " " << is_dfp << " " << alfa);
  TestRecord record(n);
  record.alfa = alfa;
  Stored m = stored_matrix(n, job, 7);
  const Pair pair = random_pair(n, 3, is_dfp || alfa == 0.0 ? 1.0 : alfa);
  const Dense before = read_back(n, m);
  const Dense scaled =
      multiplied(before, alfa <= 0.0 ? 1.0 : scale_of(before, pair, is_dfp, job, alfa));
  Pair used = job == 1 ? Pair{pair.y, pair.s} : pair;
  const double dbd = inner(used.s, scaled * used.s), dxg = inner(used.s, used.y);
  if (job == 3 && !is_dfp && dxg < 0.1 * dbd) {
    const double theta = 0.9 * dbd / (dbd - dxg);
    used.y = combine(theta, used.y, 1.0 - theta, scaled * used.s);
  }
  const Dense wanted = is_dfp == (job == 1) ? bfgs(scaled, used) : dfp(scaled, used);
  EXPECT_EQ(update(record, is_dfp, alfa == 0.0 && !is_dfp ? 0 : 1, m, pair), 0);
  EXPECT_LE(distance(read_back(n, m), wanted), 1e-9 * (1.0 + size(wanted)));
  EXPECT_EQ(record.nhup, job == 3 ? 0 : 1);
}

TEST(Updates, EveryFormFollowsTheFormula) {
  for (long n : {1L, 2L, 5L, 23L}) {
    for (double alfa : {0.0, 1.0, 0.3, 1e-6, 1e6}) {
      for (const int job : {1, 2, 3}) {
        check_update(n, job, false, alfa);
        check_update(n, job, true, alfa);
      }
    }
    check_update(n, 3, false, -2.0);
  }
}

TEST(Updates, RefusalsLeaveTheMatrixButForItsScale) {
  const auto pair = [](const Vec& s, const Vec& y) { return Pair{column(s, 3), column(y, 3)}; };
  const Pair zero_step = pair({0, 0, 0}, {1, 0, 0}), no_number = pair({1, 0, 0}, {NAN, 0, 0});
  const std::pair<Pair, int> rows[] = {{pair({1, 0, 0}, {0, 1, 0}), 3},      // s'y is 0
                                       {pair({1, 2, 0}, {-1, 0, 0}), 3},     // and negative
                                       {pair({1, 0, 0}, {1e-16, 1, 0}), 1},  // right to rounding
                                       {zero_step, 3},
                                       {no_number, 3}};
  TestRecord record(3);
  for (const auto& [refused, code] : rows) {
    for (const int kind : {10, 11, 20, 21, 31}) {  // job, DFP
      record.alfa = 4.0;
      Stored m = stored_matrix(3, kind / 10, 5);
      const Vec before = m.c;
      EXPECT_EQ(update(record, kind % 10 != 0, 0, m, refused), code) << kind;
      EXPECT_EQ(m.c, before);
      EXPECT_EQ(update(record, kind % 10 != 0, 1, m, refused), code);
      EXPECT_EQ(m.c != before, kind % 10 != 0) << "scaling stays in force";
    }
  }
  // Curvature that is nothing against s'y.
  const Pair steep = pair({1e-150, 0, 0}, {1e156, 0, 0});
  Stored inverse = stored_matrix(3, 1, 5), factor = stored_matrix(3, 2, 5);
  EXPECT_EQ(update(record, false, 0, factor, steep), 2);
  EXPECT_EQ(update(record, true, 0, inverse, {steep.y, steep.s}), 2);
  // BFGS in product form refuses only a step of no length, or what is no number.
  Stored product = stored_matrix(3, 3, 5);
  EXPECT_EQ(update(record, false, 0, product, zero_step), 3);
  EXPECT_EQ(update(record, false, 0, product, no_number), 3);
  EXPECT_EQ(record.nhup, 0);
}

// ---- Rank-one corrections -----------------------------------------------------------------------

TEST(Ldlupd, CorrectsAndChangesRank) {
  for (long n : {1L, 2L, 6L, 17L, 521L}) {
    Stored m = stored_matrix(n, 2, 21);
    Dense matrix = read_back(n, m);
    Vec p(static_cast<std::size_t>(n) + 1);
    const auto correct = [&](long ir, double sig, const Dense& y) {
      Vec copy = y.a;
      matrix = combine(1.0, matrix, sig, y * transpose(y));
      const long rank = ldlupd(n, 0, ir, 0.0, sig, m.c.data(), copy.data(), p.data());
      EXPECT_LE(distance(read_back(n, m), matrix), 1e-11 * (1.0 + size(matrix))) << n;
      return rank;
    };
    Dense y = column(random_vector(n, 22), n);
    EXPECT_EQ(correct(n, 0.0, y), n);
    EXPECT_EQ(correct(n, 100.0, y), n);  // the pivots grow more than fourfold
    EXPECT_EQ(correct(n, -99.0, y), n);  // and shrink again
    if (n > 1) y(0, 0) = 0.0;            // a first column that is not touched
    EXPECT_EQ(correct(-n, 2.0, y), n);   // a full matrix stays full
    if (n == 1) continue;
    // B - Bs s'B / s'Bs loses rank, and y y' / s'y restores it.
    const Dense s = column(random_vector(n, 23), n);
    const Dense bs = matrix * s;
    EXPECT_EQ(correct(-n, -1.0 / inner(s, bs), bs), n - 1);
    EXPECT_EQ(m.at(n - 1, n - 1), 0.0);
    EXPECT_EQ(correct(-(n - 1), 3.0, s), n);
    EXPECT_GT(m.at(n - 1, n - 1), 0.0);
  }
  // A subtraction that would leave the cone of positive definite matrices, announced as harmless:
  // the rank falls instead, and no pivot is negative.
  Stored m = stored_matrix(4, 2, 31);
  Vec y = random_vector(4, 32), p(5);
  EXPECT_EQ(ldlupd(4, 0, 4, 0.0, -1e6, m.c.data(), y.data(), p.data()), 3);
  for (long i = 0; i < 4; ++i) EXPECT_GE(m.at(i, i), 0.0);
}

TEST(Llupdat, BringsTheProductFormBackToATriangle) {
  for (long n : {1L, 2L, 9L, 26L, 203L}) {
    for (long zeros = 0; zeros <= n; zeros += n < 100 ? 1 : 101) {
      Stored m = stored_matrix(n, 3, 41);
      Dense u = column(random_vector(n, 42), n);
      for (long i = n - zeros; i < n; ++i) u(i, 0) = 0.0;
      Dense v = column(random_vector(n, 43), n);
      const Dense r = combine(1.0, transpose(unpack(n, m.c, true)), 1.0, u * transpose(v));
      Vec w(static_cast<std::size_t>(n) + 1, 1.0), work = w;
      llupdat(n, work.data(), m.c.data(), u.a.data(), v.a.data(), w.data());
      EXPECT_LE(distance(read_back(n, m), transpose(r) * r), 1e-13 * (1.0 + size(r))) << n;
    }
  }
}

}  // namespace
}  // namespace tqnlp::test
