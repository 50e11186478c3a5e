// blc: bounds and linear constraints, counted by getncon and stored by setcons.
#include <gtest/gtest.h>

#include "front_call.h"

namespace tqnlp::test {
namespace {

constexpr double M = MISSING;

// Bounds that are equalities and others, all equalities, all constraints, linear rows and those of
// them that are equalities.
using Counts = std::vector<long>;

// blc for n parameters, decoded as an entry does it, in a task of its own.
struct DecodedMatrix : Decoded {
  Session session;
  embed::Activation activation{session.task()};
  Vector blc;
  long nonzeros = 0;
  int rc = 0;

  DecodedMatrix(long n, int columns, Vector rows, int job = CONS_LINEAR)
      : Decoded(4, n), blc(std::move(rows)) {
    argm.cons = blc.data();
    argm.ccol = columns;
    argm.ncon = static_cast<int>(blc.size()) / columns;
    argm.iargc = 4;
    rc = getncon(&str, job, &nonzeros);
    if (rc != 0) return;
    str.opro = str.lincon;
    EXPECT_EQ(take_arrays(&str, nonzeros), 0);
    if (str.bounds != 0 || str.lincon != 0) setcons(&str, job);
  }
  ~DecodedMatrix() { release_arrays(&str); }
  Vector row(long i) {
    Vector a(static_cast<std::size_t>(str.nvar), -7.0);
    nlpaget(&str, i, a.data());
    return a;
  }
  Counts counts() const {
    return {str.nbec, str.nbic, str.ntec, str.ntco, str.lincon != 0 ? str.ncon : 0, str.neqc};
  }
  int last_message() { return session.log().empty() ? 0 : session.log().back().number; }
};

TEST(Bounds, KindsAndCounts) {
  // free, lower, upper, both, fixed; a plain NaN and an infinite bound are none
  DecodedMatrix d(5, 5, {M, 1, -INF, -1, 3, std::nan(""), INF, 5, 2, 3});
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(Vector(d.str.lb, d.str.lb + 5), (Vector{-HUGE_VALUE, 1, -HUGE_VALUE, -1, 3}));
  EXPECT_EQ(Vector(d.str.ub, d.str.ub + 5), (Vector{HUGE_VALUE, HUGE_VALUE, 5, 2, 3}));
  EXPECT_EQ(Numbers(d.str.iabc, d.str.iabc + 5), (Numbers{0, 0, 0, 0, 2}));
  EXPECT_EQ(d.counts(), (Counts{1, 4, 1, 5, 0, 0}));
  EXPECT_EQ(d.str.bounds, 1);
  DecodedMatrix absent(2, 2, {M, -INF, M, INF});
  EXPECT_EQ(absent.str.bounds, 0);
  EXPECT_EQ(absent.str.ntco, 0);
  EXPECT_EQ(absent.str.lb, nullptr);
}

// Within a factor the upper bound gives way in the caller's matrix. For negative numbers the factor
// points the other way: found in the second pass, with a warning, and fixed at the upper bound.
TEST(Bounds, CrossingOnesAreMadeEqual) {
  const struct {
    double lower, upper, fixed;
    int message;
  } cases[] = {
      {100, 100.0000001, 100, 0}, {5, 3, 5, 180}, {-1.0, -1.0000000001, -1.0000000001, 156}};
  for (const auto& c : cases) {
    DecodedMatrix d(1, 1, {c.lower, c.upper});
    EXPECT_TRUE(d.blc[1] == c.fixed && d.str.lb[0] == c.fixed);
    EXPECT_TRUE(d.str.iabc[0] == 2 && d.str.nbec == 1);
    EXPECT_EQ(d.last_message(), c.message);
  }
}

TEST(LinearRows, SingleCoefficientsBecomeBounds) {
  DecodedMatrix d(3, 5, {M, M,  M, M, M,    //
                         M, M,  9, M, M,    //
                         2, 0,  0, 1, 4,    // x1 >= 2
                         0, -1, 0, 1, 3,    // the sign is not looked at: x2 >= -3
                         0, 0,  4, 0, 8,    // x3 = 2
                         0, 0,  0, 7, 1});  // no coefficient: ignored whatever the operator
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(Vector(d.str.lb, d.str.lb + 3), (Vector{2, -3, 2}));
  EXPECT_EQ(Vector(d.str.ub, d.str.ub + 3), (Vector{HUGE_VALUE, HUGE_VALUE, 2}));
  EXPECT_EQ(d.counts(), (Counts{1, 2, 1, 3, 0, 0}));
}

TEST(LinearRows, StoredAsAtLeastWithEqualitiesFirst) {
  DecodedMatrix d(3, 5, {M, 0,  M, M,  M,    //
                         M, 1,  M, M,  M,    //
                         1, M,  2, -1, 10,   // x1 + 2 x3 <= 10
                         1, 1,  1, 0,  M,    // x1 + x2 + x3 = 0
                         3, -1, 0, 1,  2});  // 3 x1 - x2 >= 2
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(d.counts(), (Counts{0, 2, 1, 5, 3, 1}));
  EXPECT_EQ(d.row(0), (Vector{1, 1, 1}));
  EXPECT_EQ(d.row(1), (Vector{-1, 0, -2}));
  EXPECT_EQ(d.row(2), (Vector{3, -1, 0}));
  EXPECT_EQ(Vector(d.str.blcn, d.str.blcn + 3), (Vector{0, -10, 2}));
}

TEST(LinearRows, RedundantOnesLeave) {
  DecodedMatrix d(2, 4, {M, M, M, M, M, M, M, M, 1, 1, 0, 2, 1, 1, 0, 2, 1, -1, 1, 0});
  EXPECT_EQ(d.counts(), (Counts{0, 0, 1, 2, 2, 1}));
}

TEST(LinearRows, SimplexFormCountsEqualitiesTwice) {
  const Vector rows = {M, 3, M, M, M, 3, M, M, 1, 1, 0, 2, 1, -1, 1, 0};
  DecodedMatrix linear(2, 4, rows), simplex(2, 4, rows, CONS_SIMPLEX);
  EXPECT_TRUE(linear.str.ntco == 3 && simplex.str.ntco == 5);
  // Linear rows go through the constrained branch.
  EXPECT_TRUE(linear.str.nlicon == 0 && simplex.str.nlicon == 1);
}

TEST(LinearRows, NumbersThatCannotBeMeantAreRefused) {
  const struct {
    const char* what;
    Vector row;
    int message;
  } cases[] = {{"operator 2", {1, 1, 2, 0}, 173},
               {"operator missing", {1, 1, M, 0}, 173},
               {"operator missing in a bound", {1, 0, M, 0}, 173},
               {"infinite coefficient", {1, INF, 0, 0}, 196},
               {"infinite right-hand side", {1, 1, 1, -INF}, 196},
               {"bound that overflows", {1e-300, 0, 1, 1e300}, 196}};
  for (const auto& c : cases) {
    Vector rows(8, M);
    rows.insert(rows.end(), c.row.begin(), c.row.end());
    DecodedMatrix d(2, 4, rows);
    EXPECT_EQ(d.rc, -1) << c.what;
    EXPECT_EQ(d.last_message(), c.message) << c.what;
  }
  EXPECT_EQ(DecodedMatrix(1, 1, {INF, M}).rc, -1);
  EXPECT_EQ(DecodedMatrix(1, 1, {M, -INF}).rc, -1);
}

}  // namespace
}  // namespace tqnlp::test
