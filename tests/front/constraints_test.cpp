// blc: bounds and linear constraints, counted by getncon and stored by setcons.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "front_call.h"

namespace tqnlp {
namespace {

using test::Decoded;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double M = MISSING;

// blc for n parameters, decoded as an entry does it, in a task of its own.
struct DecodedMatrix : Decoded {
  Session session;
  embed::Activation activation{session.task()};
  std::vector<double> blc;
  long nonzeros = 0;
  int rc = 0;

  DecodedMatrix(long n, int columns, std::vector<double> rows, int job = CONS_LINEAR)
      : Decoded(4, n), blc(std::move(rows)) {
    argm.cons = blc.data();
    argm.ccol = columns;
    argm.ncon = static_cast<int>(blc.size()) / columns;
    argm.iargc = 4;
    rc = getncon(&str, job, &nonzeros);
    if (rc != 0) return;
    str.opro = str.lincon;
    EXPECT_EQ(allocate_arrays(&str, nonzeros), 0);
    if (str.bounds != 0 || str.lincon != 0) setcons(&str, job);
  }
  ~DecodedMatrix() { release_arrays(&str); }
  std::vector<double> row(long i) {
    std::vector<double> a(static_cast<std::size_t>(str.nvar), -7.0);
    nlpaget(&str, i, a.data());
    return a;
  }
  int last_message() { return session.log().empty() ? 0 : session.log().back().number; }
};

using Vector = std::vector<double>;

TEST(Bounds, KindsAndCounts) {
  // free, lower, upper, both, fixed; a plain NaN and an infinite bound are none
  DecodedMatrix d(5, 5, {M, 1, -INF, -1, 3, std::nan(""), INF, 5, 2, 3});
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(Vector(d.str.lb, d.str.lb + 5), (Vector{-HUGE_VALUE, 1, -HUGE_VALUE, -1, 3}));
  EXPECT_EQ(Vector(d.str.ub, d.str.ub + 5), (Vector{HUGE_VALUE, HUGE_VALUE, 5, 2, 3}));
  EXPECT_EQ(std::vector<int>(d.str.iabc, d.str.iabc + 5), (std::vector<int>{0, 0, 0, 0, 2}));
  EXPECT_EQ(d.str.nbec, 1);
  EXPECT_EQ(d.str.nbic, 4);
  EXPECT_EQ(d.str.ntco, 5);
  EXPECT_EQ(d.str.ntec, 1);
  EXPECT_EQ(d.str.bounds, 1);
  EXPECT_EQ(d.str.lincon, 0);
}

TEST(Bounds, AbsentOnesLeaveNoTrace) {
  DecodedMatrix d(2, 2, {M, -INF, M, INF});
  EXPECT_EQ(d.str.bounds, 0);
  EXPECT_EQ(d.str.ntco, 0);
  EXPECT_EQ(d.str.lb, nullptr);
}

TEST(Bounds, CrossingOnesAreMadeEqual) {
  // 100 and 100.0000001 lie within the factor: the caller's matrix changes.
  DecodedMatrix close(1, 1, {100, 100.0000001});
  EXPECT_EQ(close.blc[1], 100.0);
  EXPECT_EQ(close.str.nbec, 1);
  EXPECT_EQ(close.str.iabc[0], 2);
  // For negative numbers the factor points the other way: found in the second pass, with a warning,
  // and fixed at the upper bound.
  DecodedMatrix crossed(1, 1, {-1.0, -1.0000000001});
  EXPECT_EQ(crossed.blc[1], -1.0000000001);
  EXPECT_EQ(crossed.last_message(), 156);
  EXPECT_EQ(crossed.str.lb[0], -1.0000000001);
  EXPECT_EQ(crossed.str.iabc[0], 2);
  EXPECT_EQ(crossed.str.nbec, 1);
}

TEST(LinearRows, SingleCoefficientsBecomeBounds) {
  DecodedMatrix d(3, 5, {M, M,  M, M, M,    //
                         M, M,  9, M, M,    //
                         2, 0,  0, 1, 4,    // x1 >= 2
                         0, -1, 0, 1, 3,    // the sign is not looked at: x2 >= -3
                         0, 0,  4, 0, 8,    // x3 = 2
                         0, 0,  0, 7, 1});  // no coefficient: ignored whatever the operator
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(d.str.lincon, 0);
  EXPECT_EQ(Vector(d.str.lb, d.str.lb + 3), (Vector{2, -3, 2}));
  EXPECT_EQ(Vector(d.str.ub, d.str.ub + 3), (Vector{HUGE_VALUE, HUGE_VALUE, 2}));
  EXPECT_EQ(d.str.nbec, 1);
  EXPECT_EQ(d.str.nbic, 2);
}

TEST(LinearRows, StoredAsAtLeastWithEqualitiesFirst) {
  DecodedMatrix d(3, 5, {M, 0,  M, M,  M,    //
                         M, 1,  M, M,  M,    //
                         1, M,  2, -1, 10,   // x1 + 2 x3 <= 10
                         1, 1,  1, 0,  M,    // x1 + x2 + x3 = 0
                         3, -1, 0, 1,  2});  // 3 x1 - x2 >= 2
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(d.str.ncon, 3);
  EXPECT_EQ(d.str.neqc, 1);
  EXPECT_EQ(d.nonzeros, 7);
  EXPECT_EQ(d.row(0), (Vector{1, 1, 1}));
  EXPECT_EQ(d.row(1), (Vector{-1, 0, -2}));
  EXPECT_EQ(d.row(2), (Vector{3, -1, 0}));
  EXPECT_EQ(Vector(d.str.blcn, d.str.blcn + 3), (Vector{0, -10, 2}));
  EXPECT_EQ(std::vector<long>(d.str.naco, d.str.naco + 3), (std::vector<long>{3, 5, 7}));
  EXPECT_EQ(d.str.ntco, 5);
  EXPECT_EQ(d.str.ntec, 1);
}

TEST(LinearRows, RedundantOnesLeave) {
  DecodedMatrix d(2, 4, {M, M,  M, M, M, M, M, M,  //
                         1, 1,  0, 2,              //
                         1, 1,  0, 2,              // the same again
                         1, -1, 1, 0});
  ASSERT_EQ(d.rc, 0);
  EXPECT_EQ(d.str.ncon, 2);
  EXPECT_EQ(d.str.neqc, 1);
  EXPECT_EQ(d.str.ntco, 2);
  EXPECT_EQ(d.str.ntec, 1);
  EXPECT_EQ(d.row(1), (Vector{1, -1}));
}

TEST(LinearRows, SimplexFormCountsEqualitiesTwice) {
  const Vector rows = {M, 3, M, M, M, 3, M, M, 1, 1, 0, 2, 1, -1, 1, 0};
  DecodedMatrix linear(2, 4, rows);
  DecodedMatrix simplex(2, 4, rows, CONS_SIMPLEX);
  EXPECT_EQ(linear.str.ntco, 3);
  EXPECT_EQ(simplex.str.ntco, 5);
  EXPECT_EQ(linear.str.nlicon, 0);
  EXPECT_EQ(simplex.str.nlicon, 1);  // linear rows go through the constrained branch
}

TEST(LinearRows, NumbersThatCannotBeMeantAreRefused) {
  const struct {
    const char* what;
    Vector third;
    int message;
  } cases[] = {
      {"operator 2", {1, 1, 2, 0}, 173},
      {"operator missing", {1, 1, M, 0}, 173},
      {"operator missing in a bound", {1, 0, M, 0}, 173},
      {"infinite coefficient", {1, INF, 0, 0}, 196},
      {"infinite right-hand side", {1, 1, 1, -INF}, 196},
      {"bound that overflows", {1e-300, 0, 1, 1e300}, 196},
  };
  for (const auto& c : cases) {
    Vector rows = {M, M, M, M, M, M, M, M};
    rows.insert(rows.end(), c.third.begin(), c.third.end());
    DecodedMatrix d(2, 4, rows);
    EXPECT_EQ(d.rc, -1) << c.what;
    EXPECT_EQ(d.last_message(), c.message) << c.what;
  }
  DecodedMatrix above(1, 1, {INF, M});
  EXPECT_EQ(above.rc, -1);
  DecodedMatrix below(1, 1, {M, -INF});
  EXPECT_EQ(below.rc, -1);
}

}  // namespace
}  // namespace tqnlp
