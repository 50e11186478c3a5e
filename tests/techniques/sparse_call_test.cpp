// Sparse Hessians from a call (element 9 of opt): runs beside those with the dense matrix, and what
// a module that gives rows (i, j, value) may do wrong.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {
namespace {

const Matrix NONE;
const double M = missing;

// The subroutines that take a sparse Hessian.
const char* const SUBROUTINES[] = {"NLPNRR"};

// How the rows are given.
enum class Rows { lower, upper, both, scattered, padded };

// A grid of side x side points that hold together, each with a force of its own: f = sum over
// neighbours (x_i - x_j)^2 / 2 + sum over points of x^4 / 4 + c x^2 - b x. coupled false leaves the
// neighbours out.
struct Grid {
  long side, n = side * side;
  bool coupled = true;
  Rows rows = Rows::lower;
  std::vector<double> force = std::vector<double>(n);
  std::function<void(Matrix& triples, long call)> spoil;
  long calls = 0;

  explicit Grid(long m) : side(m) {
    std::mt19937 engine(2);
    for (double& b : force) b = std::uniform_real_distribution<double>(-3.0, 3.0)(engine);
  }
  template <class Visit>
  void neighbours(Visit visit) const {
    for (long v = 0; coupled && v < n; ++v) {
      if (v % side != 0) visit(v, v - 1);
      if (v >= side) visit(v, v - side);
    }
  }
  Matrix objective(const Matrix& x) const {
    double f = 0.0;
    for (long v = 0; v < n; ++v) f += x[v] * x[v] * (0.25 * x[v] * x[v] + 0.3) - force[v] * x[v];
    neighbours([&](long v, long w) { f += 0.5 * (x[v] - x[w]) * (x[v] - x[w]); });
    return Matrix::scalar(f);
  }
  Matrix gradient(const Matrix& x) const {
    Matrix g(1, n);
    for (long v = 0; v < n; ++v) g(0, v) = x[v] * (x[v] * x[v] + 0.6) - force[v];
    neighbours([&](long v, long w) {
      g(0, v) += x[v] - x[w];
      g(0, w) += x[w] - x[v];
    });
    return g;
  }
  Matrix dense(const Matrix& x) const {
    Matrix h(n, n);
    for (long v = 0; v < n; ++v) h(v, v) = 3 * x[v] * x[v] + 0.6;
    neighbours([&](long v, long w) {
      h(v, v) += 1;
      h(w, w) += 1;
      h(v, w) = h(w, v) = -1;
    });
    return h;
  }
  Matrix triples(const Matrix& x) {
    const Matrix h = dense(x);
    std::vector<std::vector<double>> list;
    const auto add = [&list](long i, long j, double value) {
      list.push_back({static_cast<double>(i + 1), static_cast<double>(j + 1), value});
    };
    for (long v = 0; v < n; ++v) add(v, v, h(v, v));
    neighbours([&](long v, long w) {
      if (rows != Rows::upper) add(v, w, -1);
      if (rows == Rows::upper || rows == Rows::both) add(w, v, -1);
    });
    if (rows == Rows::padded) list.push_back({M, 0, M});
    if (rows == Rows::scattered)  // another order in every call
      std::shuffle(list.begin(), list.end(), std::mt19937(static_cast<unsigned>(calls)));
    Matrix result(static_cast<long>(list.size()), 3);
    for (std::size_t k = 0; k < list.size(); ++k)
      for (long c = 0; c < 3; ++c) result(static_cast<long>(k), c) = list[k][c];
    if (spoil) spoil(result, calls);
    ++calls;
    return result;
  }

  std::vector<Matrix> solve(Session& session, const char* subroutine, bool sparse, double scaling,
                            const Matrix& blc) {
    calls = 0;
    Matrix start(1, n);
    for (long v = 0; v < n; ++v) start(0, v) = v % 2 == 0 ? 0.5 : -0.25;
    const long count = triples(start).rows();
    calls = 0;
    session.module("F", [this](const Matrix& x) { return objective(x); });
    session.module("G", [this](const Matrix& x) { return gradient(x); });
    session.module("H", [&](const Matrix& x) { return sparse ? triples(x) : dense(x); });
    const Matrix opt =
        Matrix::row({0, 1, scaling, M, M, M, M, M, sparse ? static_cast<double>(count) : 0.0});
    return session.call(subroutine, {"F", start, opt, blc, NONE, NONE, NONE, "G", "H"});
  }
};

std::string logged(const Session& session) {
  std::string text;
  for (const LogRecord& line : session.log()) text += line.text + "\n";
  return text;
}

Matrix box(long n, double lower, double upper, long columns) {
  Matrix blc(2, columns);
  for (long k = 0; k < columns; ++k) {
    blc(0, k) = k < n ? lower : M;
    blc(1, k) = k < n ? upper : M;
  }
  return blc;
}

// The sum of the first two parameters is one.
Matrix box_and_row(long n) {
  Matrix bounds = box(n, -0.4, 0.7, n + 2), blc(3, n + 2);
  for (long k = 0; k < 2 * (n + 2); ++k) blc.data()[k] = bounds.data()[k];
  blc(2, 0) = blc(2, 1) = blc(2, n + 1) = 1;
  return blc;
}

TEST(SparseCall, EqualsTheDenseRun) {
  for (const char* subroutine : SUBROUTINES)
    for (const bool coupled : {true, false})
      for (const double scaling : {0.0, 1.0})
        for (int constraints : {0, 1, 2}) {
          Grid grid(12);
          grid.coupled = coupled;
          const long n = grid.n;
          const Matrix blc =
              constraints == 0 ? NONE : (constraints == 1 ? box(n, -0.4, 0.7, n) : box_and_row(n));
          Session session;
          const auto wanted = grid.solve(session, subroutine, false, scaling, blc);
          ASSERT_GT(wanted[0][0], 0.0);
          for (const Rows rows :
               {Rows::lower, Rows::upper, Rows::both, Rows::scattered, Rows::padded}) {
            SCOPED_TRACE(testing::Message() << subroutine << (coupled ? " coupled" : " diagonal")
                                            << " scaling " << scaling << " constraints "
                                            << constraints << " rows " << static_cast<int>(rows));
            grid.rows = rows;
            Session other;
            const auto got = grid.solve(other, subroutine, true, scaling, blc);
            EXPECT_EQ(got[0][0], wanted[0][0]);
            for (long v = 0; v < n; ++v) ASSERT_NEAR(got[1][v], wanted[1][v], 1e-10) << v;
            EXPECT_EQ(logged(other).find("sparse"), std::string::npos) << logged(other);
          }
        }
}

// What is wrong at the start ends the run with -2 and the row in the log. What goes wrong later is
// a Hessian that cannot be used at a point: the run ends in order, and the log says why. A packed
// matrix has a place for every element.
TEST(SparseCall, BadRowsAreNamed) {
  const auto set = [](long row, double i, double j, double value) {
    return [=](Matrix& triples, long) {
      triples(row, 0) = i;
      triples(row, 1) = j;
      triples(row, 2) = value;
    };
  };
  const auto later = [](auto change) {
    return [change](Matrix& triples, long call) {
      if (call > 2) change(triples, call);
    };
  };
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    std::function<void(Matrix& triples, long call)> spoil;
    const char* says;  // null: the run converges
    bool at_start = true;
    bool coupled = true;
  } rows[] = {
      {set(3, 0, 4, 1), "row 4 of the sparse Hessian that module H gave names the element (0, 4)"},
      {set(3, 145, 4, 1), "the element (145, 4), which is outside"},
      {set(3, 4, inf, 1), "the element (4, infinity)"},
      {set(3, M, M, 1), "the element (., .)"},
      {set(3, 4, 4, std::nan("")), "row 4 of the sparse Hessian that module H gave holds NaN"},
      {set(3, 4, 4, -inf), "holds -infinity for the element (4, 4)"},
      {set(150, 1, 2, -2), "but a row before it gave -1", true},
      {set(150, 3, 3, 1), "but a row before it gave"},
      {set(150, M, M, M), nullptr},   // an edge left out: another matrix, still a good one
      {set(150, 1, 2, -1), nullptr},  // given twice, the same
      {later(set(3, 4, 4, std::nan(""))), "row 4 of the sparse Hessian", false},
      {later(set(3, 144, 1, 0.1)), "names the element (144, 1)", false, false},
      {set(3, 4, 4, M), nullptr, true, false},  // no curvature there but what the ridge brings
  };
  for (const char* subroutine : SUBROUTINES)
    for (const auto& row : rows) {
      SCOPED_TRACE(testing::Message() << subroutine << " row " << &row - rows);
      Grid grid(12);
      grid.coupled = row.coupled;
      grid.spoil = row.spoil;
      Session session;
      const auto results = grid.solve(session, subroutine, true, 0.0, NONE);
      const std::string log = logged(session);
      if (row.says == nullptr) {
        EXPECT_GT(results[0][0], 0.0) << log;
        continue;
      }
      EXPECT_LT(results[0][0], 0.0);
      EXPECT_TRUE(!row.at_start || results[0][0] == -2.0) << results[0][0];
      EXPECT_NE(log.find(row.says), std::string::npos) << log;
      EXPECT_EQ(log.find(row.says), log.rfind(row.says)) << log;
    }
}

}  // namespace
}  // namespace tqnlp::test
