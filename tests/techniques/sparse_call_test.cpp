// Sparse Hessians from a call (element 9 of opt): runs beside those with the dense matrix, and what
// a module that gives rows (i, j, value) may do wrong.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {
namespace {

const Matrix NONE;
const double M = missing, NO_NUMBER = std::nan(""), INF = std::numeric_limits<double>::infinity();

// The subroutines that take a sparse Hessian.
const char* const SUBROUTINES[] = {"NLPNRR", "NLPNRA", "NLPTR"};

enum class Rows { dense, lower, upper, both, shuffled };  // shuffled anew in every call

// A chain of points, each with a force of its own; without links the Hessian is diagonal.
struct Chain {
  static constexpr long N = 48;
  bool linked = true;
  Rows form = Rows::lower;
  std::function<void(Matrix& rows, long call)> spoil = nullptr;
  long calls = 0;
  std::string log = {};

  Matrix value(const Matrix& x, bool gradient) const {
    double f = 0.0;
    Matrix g(1, N);
    for (long i = 0; i < N; ++i) {
      const double force = 3.0 * std::sin(static_cast<double>(i * i));
      f += x[i] * x[i] * (0.25 * x[i] * x[i] + 0.3) - force * x[i];
      g[i] += x[i] * (x[i] * x[i] + 0.6) - force;
      const double d = linked && i > 0 ? x[i] - x[i - 1] : 0.0;
      f += 0.5 * d * d;
      g[i] += d;
      if (i > 0) g[i - 1] -= d;
    }
    return gradient ? g : Matrix::scalar(f);
  }
  Matrix hessian(const Matrix& x) {
    std::vector<std::array<double, 3>> list;
    for (long i = 0; i < N; ++i) {
      const double links = linked ? (i > 0) + (i < N - 1) : 0, at = static_cast<double>(i + 1);
      list.push_back({at, at, 3 * x[i] * x[i] + 0.6 + links});
      if (linked && i > 0 && form != Rows::upper) list.push_back({at, at - 1, -1});
      if (linked && i > 0 && form != Rows::lower) list.push_back({at - 1, at, -1});
    }
    list.push_back({M, 0, M});  // a row that is left out
    if (form == Rows::shuffled) std::shuffle(list.begin(), list.end(), std::mt19937(calls));
    Matrix rows(static_cast<long>(list.size()), 3), dense(N, N);
    for (long k = 0; k < rows.rows(); ++k) {
      for (long c = 0; c < 3; ++c) rows(k, c) = list[k][c];
      if (!is_missing(rows(k, 2)))
        dense(std::lround(list[k][0]) - 1, std::lround(list[k][1]) - 1) = list[k][2];
    }
    if (spoil) spoil(rows, calls);
    ++calls;
    return form == Rows::dense ? dense : rows;
  }
  std::vector<Matrix> solve(const char* subroutine, double scaling = 0.0,
                            const Matrix& blc = NONE) {
    Session session;
    session.module("F", [this](const Matrix& x) { return value(x, false); });
    session.module("G", [this](const Matrix& x) { return value(x, true); });
    session.module("H", [this](const Matrix& x) { return hessian(x); });
    Matrix start(1, N);
    for (long i = 0; i < N; ++i) start[i] = i % 2 == 0 ? 0.5 : -0.25;
    const double count = static_cast<double>(hessian(start).rows());
    calls = 0;
    const Matrix opt =
        Matrix::row({0, 1, scaling, M, M, M, M, M, form == Rows::dense ? 0.0 : count});
    auto results = session.call(subroutine, {"F", start, opt, blc, NONE, NONE, NONE, "G", "H"});
    log.clear();
    for (const LogRecord& line : session.log()) log += line.text + "\n";
    return results;
  }
};

// Bounds -0.4, 0.7; with row also x1 + x2 = 1.
Matrix box(bool row) {
  Matrix blc(row ? 3 : 2, Chain::N + 2);
  for (long i = 0; i < Chain::N + 2; ++i) {
    blc(0, i) = i < Chain::N ? -0.4 : M;
    blc(1, i) = i < Chain::N ? 0.7 : M;
  }
  if (row) blc(2, 0) = blc(2, 1) = blc(2, Chain::N + 1) = 1;
  return blc;
}

TEST(SparseCall, EqualsTheDenseRun) {
  for (const char* subroutine : SUBROUTINES)
    for (const bool linked : {true, false})
      for (const double scaling : {0.0, 1.0})
        for (const Matrix& blc : {NONE, box(false), box(true)}) {
          const auto wanted = Chain{linked, Rows::dense}.solve(subroutine, scaling, blc);
          ASSERT_GT(wanted[0][0], 0.0);
          for (const Rows form : {Rows::lower, Rows::upper, Rows::both, Rows::shuffled}) {
            SCOPED_TRACE(testing::Message() << subroutine << linked << scaling << blc.rows() << " "
                                            << static_cast<int>(form));
            Chain chain{linked, form};
            const auto got = chain.solve(subroutine, scaling, blc);
            EXPECT_EQ(got[0][0], wanted[0][0]);
            for (long i = 0; i < Chain::N; ++i) ASSERT_NEAR(got[1][i], wanted[1][i], 1e-10) << i;
            EXPECT_EQ(chain.log.find("sparse"), std::string::npos) << chain.log;
          }
        }
}

// What is wrong at the start ends the run with -2 and the row in the log; what goes wrong later is
// a failed evaluation, and the run ends in order. A packed matrix has a place for every element.
TEST(SparseCall, BadRowsAreNamed) {
  const struct {
    long from;  // first call that is wrong
    long row;
    double i, j, value;
    bool linked;
    const char* says;  // null: the run converges
  } rows[] = {
      {0, 3, 0, 4, 1, true,
       "row 4 of the sparse Hessian that module H gave names the element (0, 4)"},
      {0, 3, 49, 4, 1, true, "the element (49, 4), which is outside"},
      {0, 3, 4, INF, 1, true, "the element (4, infinity)"},
      {0, 3, M, M, 1, true, "the element (., .)"},
      {0, 3, 3, 2, NO_NUMBER, true, "row 4 of the sparse Hessian that module H gave holds NaN"},
      {0, 3, 3, 2, -INF, true, "holds -infinity for the element (3, 2)"},
      {0, 95, 1, 2, -2, true, "holds -2 for the element (1, 2), but a row before it gave -1"},
      {0, 95, 1, 2, -1, true, nullptr},
      {0, 40, M, M, M, true, nullptr},  // a link left out: another matrix, still a good one
      {0, 3, 4, 4, M, false, nullptr},  // no curvature there but what the ridge brings
      {3, 4, 3, 2, NO_NUMBER, true, "row 5 of the sparse Hessian"},
      {3, 4, 48, 1, 0.1, false, "names the element (48, 1)"},
  };
  for (const char* subroutine : SUBROUTINES)
    for (const auto& bad : rows) {
      SCOPED_TRACE(testing::Message() << subroutine << " row " << &bad - rows);
      Chain chain{bad.linked, Rows::lower, [&bad](Matrix& triples, long call) {
                    const double row[] = {bad.i, bad.j, bad.value};
                    for (long c = 0; c < 3 && call >= bad.from; ++c) triples(bad.row, c) = row[c];
                  }};
      const double code = chain.solve(subroutine)[0][0];
      if (bad.says == nullptr) {
        EXPECT_GT(code, 0.0) << chain.log;
        continue;
      }
      EXPECT_TRUE(bad.from == 0 ? code == -2.0 : code < 0.0) << code;
      EXPECT_NE(chain.log.find(bad.says), std::string::npos) << chain.log;
      EXPECT_EQ(chain.log.find(bad.says), chain.log.rfind(bad.says)) << chain.log;
    }
}

}  // namespace
}  // namespace tqnlp::test
