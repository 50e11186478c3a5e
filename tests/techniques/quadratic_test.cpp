// NLPQUA: random quadratic programs with a solution built in, of any inertia and in every form of
// the matrix, judged by certificates; and what it says of those that have none.
#include "problems/quadratic.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <random>

#include "embed/task.h"
#include "problems/certificate.h"
#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

using Point = std::vector<double>;
enum class Form { dense, rows, both_triangles };

Matrix in_form(const Matrix& h, Form form) {
  if (form == Form::dense || h.rows() < 4) return h;
  std::vector<double> rows;
  for (long i = 0; i < h.rows(); ++i) {
    for (long j = 0; j < (form == Form::rows ? i + 1 : h.rows()); ++j) {
      if (h(i, j) != 0.0 || i == j) rows.insert(rows.end(), {i + 1.0, j + 1.0, h(i, j)});
    }
  }
  const long count = static_cast<long>(rows.size()) / 3;
  return Matrix(count, 3, std::move(rows));
}

constexpr double EITHER = 2, BARRIER = 1;  // element 6 of opt

Outcome solve(const QuadraticProgram& q, Form form, bool maximize, double version = EITHER,
              bool in_files = false) {
  Matrix h = in_form(Matrix(q.p.n, q.p.n, q.h), form), linear = Matrix::col(q.linear);
  for (long k = 0; maximize && k < linear.size(); ++k) linear[k] = -linear[k];
  for (long k = 0; maximize && k < h.size(); ++k) {
    if (form == Form::dense || q.p.n < 4 || k % 3 == 2) h[k] = -h[k];
  }
  Session tql;
  if (in_files) tql.task().debug_options["-nlpworkfiles"] = 1;
  const Matrix opt = Matrix::row({maximize ? 1.0 : 0.0, 0, 0, 0, 0, version});
  const auto results = tql.call("NLPQUA", {h, Matrix::row(q.p.start), opt, constraint_matrix(q.p),
                                           Matrix(), Matrix(), Matrix(), linear});
  Outcome outcome;
  outcome.code = results[0][0];
  outcome.x.assign(results[1].data(), results[1].data() + q.p.n);
  outcome.f = q.p.value(outcome.x.data());
  judge(q.p, 1e-10, outcome);
  return outcome;
}

TEST(Quadratic, ConvexProgramsEndInTheirSolution) {
  for (unsigned seed = 0; seed < 600; ++seed) {
    const long n = seed % 20 == 19 ? 60 : 1 + seed % 9;
    const Curvature kind = seed % 2 == 0 ? Curvature::definite : Curvature::semidefinite;
    const QuadraticProgram q = random_program(seed, n, kind);
    const auto expect_solved = [&](double version, bool in_files) {
      const Form form = static_cast<Form>(seed % 3);
      const Outcome outcome = solve(q, form, seed % 5 == 0, version, in_files);
      EXPECT_TRUE(outcome.solved && outcome.code > 0)
          << "seed " << seed << ", n " << n << ": code " << outcome.code << ", f " << outcome.f
          << " for " << q.p.minima[0] << ", violation " << outcome.infeasible;
      return outcome.x;
    };
    expect_solved(EITHER, false);
    if (kind != Curvature::definite) continue;
    // Where matrix and frame live makes no difference to the bits.
    EXPECT_EQ(expect_solved(BARRIER, false), expect_solved(BARRIER, true)) << seed;
  }
}

// The least value over every set of at most n constraints that may be active: each set is solved as
// equations by elimination, and stands when its point is feasible and its multipliers push the
// right way. Without any the constraints contradict each other: a convex program whose parameters
// are all bounded, or a definite one, has a solution.
double least_by_enumeration(const QuadraticProgram& q) {
  using Row = std::vector<long double>;
  const auto n = std::size_t(q.p.n);
  std::vector<LinearRow> all = q.p.rows;
  for (std::size_t j = 0; j < q.p.lower.size(); ++j) {
    LinearRow bound{Point(n), 1, q.p.lower[j]};
    bound.a[j] = 1.0;
    if (q.p.lower[j] > -NONE) all.push_back(bound);
    if (q.p.upper[j] < NONE) all.push_back({bound.a, -1, q.p.upper[j]});
  }
  double least = HUGE_VAL;
  for (unsigned set = 0; set < 1u << all.size(); ++set) {
    if (std::popcount(set) > int(n)) continue;
    std::vector<const LinearRow*> active;
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (set >> i & 1) active.push_back(&all[i]);
    }
    // H x - A'u = -g and A x = b, by Gauss and Jordan.
    const std::size_t order = n + active.size();
    std::vector<Row> system(order, Row(order + 1));
    for (std::size_t j = 0; j < n; ++j) {
      for (std::size_t k = 0; k < n; ++k) system[j][k] = q.h[j * n + k];
      for (std::size_t i = 0; i < active.size(); ++i) {
        system[j][n + i] = -active[i]->a[j];
        system[n + i][j] = active[i]->a[j];
        system[n + i][order] = active[i]->b;
      }
      system[j][order] = -q.linear[j];
    }
    long double smallest = HUGE_VAL;
    for (std::size_t k = 0; k < order && smallest > 1e-9; ++k) {
      const auto larger = [k](const Row& a, const Row& b) {
        return std::fabs(a[k]) < std::fabs(b[k]);
      };
      std::swap(system[k], *std::max_element(system.begin() + long(k), system.end(), larger));
      smallest = std::min(smallest, std::fabs(system[k][k]));
      for (std::size_t i = 0; i < order; ++i) {
        const long double factor = i == k ? 0.0 : system[i][k] / system[k][k];
        for (std::size_t j = k; j <= order; ++j) system[i][j] -= factor * system[k][j];
      }
    }
    if (smallest <= 1e-9) continue;  // a smaller set has the same point
    Point x(order);
    for (std::size_t k = 0; k < order; ++k) x[k] = double(system[k][order] / system[k][k]);
    bool stands = largest_violation(q.p, x.data()) <= 1e-9;
    for (std::size_t i = 0; i < active.size(); ++i) stands &= active[i]->op * x[n + i] >= -1e-9;
    if (stands) least = std::min(least, q.p.value(x.data()));
  }
  return least;
}

// Small programs whose right-hand sides are moved at random, so that some contradict each other.
TEST(Quadratic, SmallConvexProgramsAgreeWithEnumeration) {
  int without = 0;
  for (unsigned seed = 0; seed < 800; ++seed) {
    const auto kind = seed % 2 == 0 ? Curvature::definite : Curvature::semidefinite;
    QuadraticProgram q = random_program(seed, 2 + seed % 3, kind);
    std::mt19937 random(seed);
    q.p.rows.resize(std::min<std::size_t>(q.p.rows.size(), 6));
    for (LinearRow& row : q.p.rows) row.b += double(random() % 5) / 4.0 - 0.5;
    if (kind == Curvature::semidefinite) q.p.lower.assign(q.p.start.size(), -2.0);
    if (kind == Curvature::semidefinite) q.p.upper.assign(q.p.start.size(), 1.5);
    q.p.minima = {least_by_enumeration(q)};
    const bool feasible = q.p.minima[0] < HUGE_VAL;
    without += !feasible;
    for (const double version : {EITHER, BARRIER}) {
      if (version == BARRIER && kind != Curvature::definite) continue;
      const Outcome o = solve(q, static_cast<Form>(seed % 3), seed % 5 == 0, version);
      EXPECT_TRUE(feasible ? o.solved && o.code > 0 : o.code == -10)
          << "seed " << seed << ": code " << o.code << ", f " << o.f << " for " << q.p.minima[0];
    }
  }
  EXPECT_TRUE(without > 50 && without < 400) << without;
}

// Large ones: every bound that is met pushes the right way, and many change in one iteration.
TEST(Quadratic, GridsAreSolvedInFewIterations) {
  for (const GridProgram& q : {obstacle_program(60), torsion_program(60)}) {
    Matrix bounds(2, q.n);
    for (long j = 0; j < q.n; ++j) {
      const double upper = q.upper[std::size_t(j)];
      bounds(0, j) = q.lower[std::size_t(j)];
      bounds(1, j) = std::isfinite(upper) ? upper : missing;
    }
    Session tql;
    const Matrix h(static_cast<long>(q.triplets.size()) / 3, 3, q.triplets);
    const auto results = tql.call("NLPQUA", {h, Matrix::row(q.start), Matrix::row({0}), bounds,
                                             Matrix(), Matrix(), Matrix(), Matrix::row(q.linear)});
    EXPECT_GT(results[0][0], 0.0) << q.name;
    EXPECT_LE(tql.variable("_ITER_")[0], 12.0) << q.name;
    const Matrix& x = results[1];
    Point g = q.linear;
    for (std::size_t k = 0; k < q.triplets.size(); k += 3) {
      const auto i = long(q.triplets[k]) - 1, j = long(q.triplets[k + 1]) - 1;
      g[std::size_t(i)] += q.triplets[k + 2] * x[j];
      if (i != j) g[std::size_t(j)] += q.triplets[k + 2] * x[i];
    }
    for (long j = 0; j < q.n; ++j) {
      const auto k = std::size_t(j);
      EXPECT_NEAR(x[j], std::clamp(x[j] - g[k], q.lower[k], q.upper[k]), 1e-12) << q.name;
    }
  }
}

// The start or the end of a run may be a saddle point: no direction that keeps the active
// constraints may have negative curvature. Random directions in a small space find one.
TEST(Quadratic, IndefiniteProgramsEndInAPointOfSecondOrder) {
  std::mt19937 random(7);
  std::normal_distribution<double> normal;
  for (unsigned seed = 0; seed < 300; ++seed) {
    const QuadraticProgram q = random_program(seed, 2 + seed % 6, Curvature::indefinite);
    const Outcome outcome = solve(q, static_cast<Form>(seed % 3), seed % 5 == 0);
    EXPECT_TRUE(outcome.code > 0 && outcome.infeasible < 1e-7) << "seed " << seed;
    const std::vector<Point> normals = active_normals(q.p, outcome.x.data(), 1e-7);
    for (int k = 0; k < 100; ++k) {
      Point d(outcome.x.size());
      for (double& e : d) e = normal(random);
      const Point share = nonnegative_least_squares(normals, normals.size(), d);
      for (std::size_t i = 0; i < share.size(); ++i) {
        for (std::size_t j = 0; j < d.size(); ++j) d[j] -= share[i] * normals[i][j];
      }
      double curvature = 0.0;
      for (long i = 0; i < q.p.n * q.p.n; ++i) {
        curvature += q.h[std::size_t(i)] * d[std::size_t(i / q.p.n)] * d[std::size_t(i % q.p.n)];
      }
      ASSERT_GT(curvature, -1e-6) << "seed " << seed;
    }
  }
}

// Programs without a solution, saddle points at the start, and what cannot be meant.
TEST(Quadratic, SaysWhatIsWrong) {
  const Matrix none, x = {1, 1, 1, 1}, zero(1, 4);
  const Matrix flat = {{1, 1, 2}}, saddle = {{1, 1, 2}, {2, 2, 2}, {3, 3, 2}, {4, 1, 1}, {4, 4, 0}};
  const Matrix above = {{0, 0, 0, 0}, {missing, missing, missing, missing}};
  // The graph Laplacian of a ring, singular, whose last pivot rounding may leave above zero.
  const long nodes = 39;
  Matrix ring(2 * nodes, 3), push(1, nodes);
  push[0] = -1;
  for (long i = 0; i < nodes; ++i) {
    const long next = (i + 1) % nodes;
    const double weight = 0.1 * static_cast<double>(1 + i % 9);
    ring(i, 0) = ring(i, 1) = ring(nodes + i, 0) = i + 1;
    ring(nodes + i, 1) = next + 1;
    ring(nodes + i, 2) = -weight;
    ring(i, 2) += weight;
    ring(next, 2) += weight;
  }
  const struct {
    const char* what;
    Matrix h, start, blc, linear;
    double code;  // 0: refused
    const char* message;
    double version = EITHER;
  } rows[] = {
      {"linear in three parameters", flat, x, none, {0, 0, 1, 0}, -5, "unbounded below"},
      {"the same, bounded",
       flat,
       x,
       above,
       {0, 0, 1, 0},
       3,
       "parameter 2 (parameters without a row: 3)"},
      {"bounded by the other side", flat, x, above, {0, 0, -1, 0}, -5, "unbounded below"},
      {"no definite matrix", saddle, x, above, zero, -2, "positive definite matrix", BARRIER},
      {"the same on the free", flat, x, none, zero, -2, "positive definite matrix", BARRIER},
      {"singular", ring, Matrix(1, nodes), none, push, -2, "positive definite matrix", BARRIER},
      {"a bound to leave beside a large element",
       {{1e8, 0}, {0, 2}},
       {1e4, 0},
       {{missing, 0}, {missing, missing}},
       {-1e12, -6},
       6,
       "GCONV",
       BARRIER},
      {"a saddle point at the start", saddle, zero, none, zero, -5, "unbounded below"},
      {"not symmetric", {{1, 2}, {3, 1}}, {1, 1}, none, none, 0, "element (2, 1) is 3"},
      {"no number", {{1, 2}, {missing, HUGE_VAL}}, {1, 1}, none, none, 0, "(2, 2) of argument 1"},
      {"missing on both sides",
       {{1, missing}, {missing, 1}},
       {1, 1},
       none,
       none,
       0,
       "missing both"},
      {"a place outside", {{1, 5, 1}}, x, none, none, 0, "names the element (1, 5)"},
      {"half a place", {{1, 1.5, 1}}, x, none, none, 0, "whole numbers from 1 to 4"},
      {"an infinite row", {{1, 1, HUGE_VAL}}, x, none, none, 0, "a finite number"},
      {"two values", {{2, 1, 3}, {1, 2, 4}}, x, none, none, 0, "row before it gave 3"},
      {"too large", {{1e308, 0}, {0, 1}}, {1e10, 1}, none, none, -1, "too large for a number"},
      {"infinite term", flat, x, none, {0, HUGE_VAL, 0, 0}, 0, "element 2 of argument 8"},
  };
  for (const auto& row : rows) {
    Session tql;
    double code = 0.0;
    try {
      code = tql.call("NLPQUA", {row.h, row.start, Matrix::row({0, 0, 0, 0, 0, row.version}),
                                 row.blc, none, none, none, row.linear})[0][0];
    } catch (const CallError& error) {
      EXPECT_EQ(error.code(), 6) << row.what;
    }
    std::string log;
    for (const LogRecord& line : tql.log()) log += line.text + "\n";
    EXPECT_EQ(code, row.code) << row.what << ": " << log;
    EXPECT_NE(log.find(row.message), std::string::npos) << row.what << ": " << log;
  }
}

}  // namespace
}  // namespace tqnlp::test
