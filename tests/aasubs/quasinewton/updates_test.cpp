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

// Well-conditioned stored matrix: for jobs 2 and 3 the factor is random, for job 1 M'M + I.
Stored random_stored(long n, int job, unsigned seed) {
  const Dense m = random_dense(n, n, seed);
  const Dense square = transpose(m) * m;
  Stored s{job, Vec(static_cast<std::size_t>(packed_size(n)) + 1)};
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double off = job == 1 ? square(i, j) : m(i, j) / static_cast<double>(n);
      s.c[static_cast<std::size_t>(zisub(i, j))] = off + (i == j ? (job == 1 ? 1.0 : 2.0) : 0.0);
    }
  }
  return s;
}

Dense column(long n, const Vec& v) {
  Dense d(n, 1);
  std::copy_n(v.begin(), n, d.a.begin());
  return d;
}

double inner(const Dense& a, const Dense& b) { return (transpose(a) * b)(0, 0); }

Dense combine(double a, const Dense& x, double b, const Dense& y) {
  Dense z(x.rows, x.cols);
  for (std::size_t k = 0; k < z.a.size() - 1; ++k) z.a[k] = a * x.a[k] + b * y.a[k];
  return z;
}

// BFGS update of B by (s, y), which is also the DFP update of H = B^-1 by (y, s).
Dense bfgs(const Dense& b, const Dense& s, const Dense& y) {
  const Dense bs = b * s;
  const Dense less = combine(1.0, b, -1.0 / inner(s, bs), bs * transpose(bs));
  return combine(1.0, less, 1.0 / inner(s, y), y * transpose(y));
}

// DFP update of B, which is also the BFGS update of H with s and y exchanged.
Dense dfp(const Dense& b, const Dense& s, const Dense& y) {
  Dense left(b.rows, b.rows);
  for (long i = 0; i < b.rows; ++i) left(i, i) = 1.0;
  left = combine(1.0, left, -1.0 / inner(s, y), y * transpose(s));
  return combine(1.0, left * b * transpose(left), 1.0 / inner(s, y), y * transpose(y));
}

struct Pair {
  Dense s, y;
};

// s and y = A s with a positive definite A.
Pair random_pair(long n, unsigned seed, double curvature = 1.0) {
  const Dense a = read_back(n, random_stored(n, 3, seed));
  const Dense s = column(n, random_vector(n, seed + 1));
  return {s, combine(curvature, a * s, 0.0, s)};
}

int update(TestRecord& record, bool is_dfp, int iscl, Stored& m, const Pair& pair) {
  Vec s = pair.s.a, y = pair.y.a;
  Vec u(s.size()), v(s.size()), w(s.size());
  return (is_dfp ? znlpdfp : znlpbfg)(&record, m.job, iscl, s.data(), y.data(), m.c.data(),
                                      u.data(), v.data(), w.data());
}

// Factor by which scaling multiplies the stored form, for B and the pair before the update.
double scale_of_stored(const Dense& matrix, const Pair& pair, bool is_dfp, int job, double alfa) {
  const double dxg = inner(pair.s, pair.y);
  if (job == 1) {
    return std::clamp(is_dfp ? alfa : dxg / inner(pair.y, matrix * pair.y), 1e-3, 1e3);
  }
  const double ratio = is_dfp ? 1.0 / alfa : dxg / inner(pair.s, matrix * pair.s);
  if (job == 2) return std::clamp(ratio, 1e-3, 1e3);
  const double root = std::sqrt(ratio);
  const double clipped = is_dfp ? std::clamp(root, 1e-2, 1e2) : std::clamp(root, 1e-3, 1e3);
  return clipped * clipped;
}

TEST(Updates, EveryFormFollowsTheFormula) {
  for (long n : {1L, 2L, 5L, 23L}) {
    for (int job : {1, 2, 3}) {
      for (bool is_dfp : {false, true}) {
        // 0: no scaling; negative: a pair of negative curvature, for the form that damps it.
        for (double alfa : {0.0, 1.0, 0.3, 1e-6, 1e6, -2.0}) {
          if (alfa < 0.0 && (job != 3 || is_dfp)) continue;
          SCOPED_TRACE(testing::Message()
                       << n << " job " << job << (is_dfp ? " DFP " : " BFGS ") << alfa);
          TestRecord record(n);
          record.alfa = alfa;
          Stored m = random_stored(n, job, 7);
          // For BFGS the size of y plays the part of alfa: its ratio to B s is what scales.
          const Pair pair = random_pair(n, 3, is_dfp || alfa == 0.0 ? 1.0 : alfa);
          const Dense before = read_back(n, m);
          const double scale = alfa <= 0.0 ? 1.0 : scale_of_stored(before, pair, is_dfp, job, alfa);
          Dense scaled = combine(scale, before, 0.0, before);
          const bool plain_bfgs = is_dfp == (job == 1);
          const Pair turned = job == 1 ? Pair{pair.y, pair.s} : pair;
          Pair damped = turned;
          const double dbd = inner(turned.s, scaled * turned.s);
          const double dxg = inner(turned.s, turned.y);
          if (job == 3 && !is_dfp && dxg < 0.1 * dbd) {
            const double theta = 0.9 * dbd / (dbd - dxg);
            damped.y = combine(theta, turned.y, 1.0 - theta, scaled * turned.s);
          }
          const Dense wanted =
              plain_bfgs ? bfgs(scaled, damped.s, damped.y) : dfp(scaled, damped.s, damped.y);
          EXPECT_EQ(update(record, is_dfp, alfa == 0.0 && !is_dfp ? 0 : 1, m, pair), 0);
          EXPECT_LE(distance(read_back(n, m), wanted), 1e-9 * (1.0 + size(wanted)));
          EXPECT_EQ(record.nhup, job == 3 ? 0 : 1);
        }
      }
    }
  }
}

// A long run of updates with pairs of different curvature: the secant condition holds after each,
// the matrix stays positive definite, and the three forms tell the same matrix.
TEST(Updates, FormsAgreeAndStayPositiveDefinite) {
  const long n = 12;
  TestRecord record(n);
  for (bool is_dfp : {false, true}) {
    Stored forms[] = {{1, {}}, {2, {}}, {3, {}}};
    for (Stored& m : forms) {
      m.c.assign(static_cast<std::size_t>(packed_size(n)) + 1, 0.0);
      for (long i = 0; i < n; ++i) m.c[static_cast<std::size_t>(zisub(i, i))] = 1.0;
    }
    for (unsigned k = 0; k < 60; ++k) {
      const Pair pair = random_pair(n, 100 + k, k % 7 == 0 ? 3.0 : 1.0);
      for (Stored& m : forms) {
        ASSERT_EQ(update(record, is_dfp, 0, m, pair), 0);
        const Dense matrix = read_back(n, m);
        const Dense secant = m.job == 1 ? matrix * pair.y : matrix * pair.s;
        const Dense& target = m.job == 1 ? pair.s : pair.y;
        EXPECT_LE(distance(secant, target), 1e-10 * (size(matrix) + size(target)));
      }
      for (long i = 0; i < n; ++i) ASSERT_GT(forms[1].c[static_cast<std::size_t>(zisub(i, i))], 0);
    }
    const Dense b = read_back(n, forms[1]);
    EXPECT_LE(distance(b, read_back(n, forms[2])), 1e-8 * size(b));
    Dense identity(n, n);
    for (long i = 0; i < n; ++i) identity(i, i) = 1.0;
    EXPECT_LE(distance(read_back(n, forms[0]) * b, identity), 1e-6);
  }
}

TEST(Updates, RefusalsLeaveTheMatrixButForItsScale) {
  const long n = 3;
  const auto vec = [](Vec v) { return column(3, v); };
  struct Row {
    const char* what;
    Pair pair;
    int code;
  };
  const Row rows[] = {
      {"s'y is 0", {vec({1, 0, 0}), vec({0, 1, 0})}, 3},
      {"s'y is negative", {vec({1, 2, 0}), vec({-1, 0, 0})}, 3},
      {"s is 0", {vec({0, 0, 0}), vec({1, 0, 0})}, 3},
      {"a gradient that is no number", {vec({1, 0, 0}), vec({NAN, 0, 0})}, 3},
      {"right angle to rounding", {vec({1, 0, 0}), vec({1e-16, 1, 0})}, 1},
  };
  for (const Row& row : rows) {
    for (int job : {1, 2, 3}) {
      for (bool is_dfp : {false, true}) {
        if (job == 3 && !is_dfp) continue;
        TestRecord record(n);
        Stored m = random_stored(n, job, 5);
        const Vec before = m.c;
        EXPECT_EQ(update(record, is_dfp, 0, m, row.pair), row.code) << row.what << job << is_dfp;
        EXPECT_EQ(m.c, before);
        EXPECT_EQ(record.nhup, 0);
        record.alfa = 4.0;
        EXPECT_EQ(update(record, is_dfp, 1, m, row.pair), row.code);
        EXPECT_EQ(m.c != before, is_dfp) << "scaling stays in force";
      }
    }
  }
  // Curvature that is nothing against s'y.
  TestRecord record(n);
  Stored inverse = random_stored(n, 1, 5), factor = random_stored(n, 2, 5);
  EXPECT_EQ(update(record, false, 0, factor, {vec({1e-150, 0, 0}), vec({1e156, 0, 0})}), 2);
  EXPECT_EQ(update(record, true, 0, inverse, {vec({1e156, 0, 0}), vec({1e-150, 0, 0})}), 2);
  // BFGS in product form refuses only a step of no length, or what is no number.
  Stored product = random_stored(n, 3, 5);
  EXPECT_EQ(update(record, false, 0, product, rows[2].pair), 3);
  EXPECT_EQ(update(record, false, 0, product, rows[3].pair), 3);
}

TEST(Updates, AnEmptySpaceIsLeftAlone) {
  TestRecord record(2);
  record.nabc = 2;
  Vec nothing(3, 7.0);
  for (int job : {1, 2, 3}) {
    for (auto entry : {znlpdfp, znlpbfg}) {
      EXPECT_EQ(entry(&record, job, 1, nothing.data(), nothing.data(), nothing.data(),
                      nothing.data(), nothing.data(), nothing.data()),
                0);
    }
  }
  EXPECT_EQ(record.nhup, 0);
  EXPECT_EQ(nothing, Vec(3, 7.0));
}

// ---- Rank-one corrections -----------------------------------------------------------------------

TEST(Ldlupd, CorrectsAndChangesRank) {
  for (long n : {1L, 2L, 6L, 17L}) {
    Stored m = random_stored(n, 2, 21);
    const Dense before = read_back(n, m);
    Dense matrix = before;
    Vec p(static_cast<std::size_t>(n) + 1);
    const auto correct = [&](long ir, double sig, const Dense& y) {
      Vec copy = y.a;
      matrix = combine(1.0, matrix, sig, y * transpose(y));
      const long rank = ldlupd(n, 0, ir, 0.0, sig, m.c.data(), copy.data(), p.data());
      EXPECT_LE(distance(read_back(n, m), matrix), 1e-11 * (1.0 + size(matrix))) << n;
      return rank;
    };
    Dense y = column(n, random_vector(n, 22));
    EXPECT_EQ(correct(n, 0.0, y), n);
    EXPECT_EQ(correct(n, 100.0, y), n);  // the pivots grow more than fourfold
    EXPECT_EQ(correct(n, -99.0, y), n);  // and shrink again
    EXPECT_EQ(correct(-n, 0.5, y), n);   // a full matrix stays full
    if (n > 1) y(0, 0) = 0.0;            // a first column that is not touched
    EXPECT_EQ(correct(n, 2.0, y), n);
    if (n == 1) continue;
    // B - Bs s'B / s'Bs loses rank, and y y' / s'y restores it.
    const Dense s = column(n, random_vector(n, 23));
    const Dense bs = matrix * s;
    EXPECT_EQ(correct(-n, -1.0 / inner(s, bs), bs), n - 1);
    EXPECT_EQ(m.c[static_cast<std::size_t>(zisub(n - 1, n - 1))], 0.0);
    EXPECT_EQ(correct(-(n - 1), 3.0, s), n);
    EXPECT_GT(m.c[static_cast<std::size_t>(zisub(n - 1, n - 1))], 0.0);
  }
}

// A subtraction that would leave the cone of positive definite matrices, announced as harmless:
// the rank falls instead, and no pivot is negative.
TEST(Ldlupd, ASubtractionThatIsTooLargeLosesRank) {
  const long n = 4;
  Stored m = random_stored(n, 2, 31);
  Vec y = random_vector(n, 32), p(n + 1);
  EXPECT_EQ(ldlupd(n, 0, n, 0.0, -1e6, m.c.data(), y.data(), p.data()), n - 1);
  for (long i = 0; i < n; ++i) EXPECT_GE(m.c[static_cast<std::size_t>(zisub(i, i))], 0.0);
}

TEST(Llupdat, BringsTheProductFormBackToATriangle) {
  for (long n : {1L, 2L, 9L}) {
    for (long zeros = 0; zeros <= n; ++zeros) {
      Stored m = random_stored(n, 3, 41);
      Dense u = column(n, random_vector(n, 42));
      for (long i = n - zeros; i < n; ++i) u(i, 0) = 0.0;
      const Dense v = column(n, random_vector(n, 43));
      const Dense r = combine(1.0, transpose(unpack(n, m.c, true)), 1.0, u * transpose(v));
      Vec w(static_cast<std::size_t>(n) + 1, 1.0);
      llupdat(n, m.c.data(), u.a.data(), v.a.data(), w.data());
      EXPECT_LE(distance(read_back(n, m), transpose(r) * r), 1e-13 * (1.0 + size(r))) << n;
    }
  }
}

}  // namespace
}  // namespace tqnlp::test
