// The tests of supplied derivatives: right ones pass, wrong ones are told once, the user's state
// comes back.
#include <gtest/gtest.h>

#include "aasubs/control/znlpdrv.h"
#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpchd.h"
#include "aasubs/derivatives/znlpfid.h"
#include "embed/task.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {
namespace {

// Messages of group 549 that body writes.
template <typename F>
std::vector<int> messages(F body) {
  Session session;
  embed::Task& task = session.task();
  const embed::Activation activation(task);
  body();
  std::vector<int> numbers;
  for (const LogRecord& line : task.log) {
    if (line.group == 549) numbers.push_back(line.number);
  }
  return numbers;
}

using Numbers = std::vector<int>;

// f = exp(x) y^2 + x - y z, with the gradient times a factor.
void smooth(DifferenceRecord& r, double factor) {
  r.functions = [](const double* x, double* f) {
    f[0] = std::exp(x[0]) * x[1] * x[1] + x[0] - x[1] * x[2];
  };
  r.gradient = [factor](const double* x, double* g) {
    g[0] = factor * (std::exp(x[0]) * x[1] * x[1] + 1);
    g[1] = 2 * std::exp(x[0]) * x[1] - x[2];
    g[2] = -x[1];
  };
}

TEST(GradientTest, RightAndWrong) {
  for (const double factor : {1.0, 2.0, -1.0, 0.0, 1.3}) {
    DifferenceRecord r(3, 1);
    smooth(r, factor);
    r.start({0.5, -0.7, 2});
    r.usgrd(&r);
    const Vec grad(r.grad, r.grad + 3);
    const double crit = r.crit;
    int code = 9;
    const Numbers logged = messages([&] { code = znlpchd(&r, 0, nullptr); });
    EXPECT_EQ(code, factor == 1.0 ? DERIVATIVES_AGREE : DERIVATIVES_DISAGREE) << factor;
    EXPECT_EQ(logged, factor == 1.0 ? Numbers{} : Numbers{47}) << factor;
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
    EXPECT_EQ(Vec(r.grad, r.grad + 3), grad);
    EXPECT_EQ(r.crit, crit);
    EXPECT_EQ(r.visited.size(), 3U);
  }
}

TEST(GradientTest, PointsThatSayNothing) {
  DifferenceRecord r(3, 1);
  smooth(r, 1);
  const auto code = [&r] {
    int result = 9;
    const Numbers logged = messages([&] { result = znlpchd(&r, 0, nullptr); });
    EXPECT_EQ(logged, Numbers{});
    return result;
  };
  r.start({0, 1, 1});
  EXPECT_EQ(code(), 0);  // moved to 1
  EXPECT_EQ(r.visited[1], (Vec{1, 1, 1}));
  r.lincon = 1;
  EXPECT_EQ(code(), TEST_POINT_UNUSABLE);
  r.lincon = 0;
  r.with_bounds({0, -9, -9}, {0.5, 9, 9});
  EXPECT_EQ(code(), TEST_POINT_UNUSABLE);
  r.with_bounds({-1, -9, -9}, {0.5, 9, 9});
  r.visited.clear();
  EXPECT_EQ(code(), 0);
  EXPECT_EQ(r.visited[1][0], -0.5);
  r.with_bounds({-9, 1 - 1e-9, -9}, {9, 1, 9});
  EXPECT_EQ(code(), TEST_NO_ROOM);
  r.with_bounds({-9, 0.5, -9}, {9, 1, 9});
  r.visited.clear();
  EXPECT_EQ(code(), 0);
  for (const Vec& point : r.visited) EXPECT_LE(point[1], 1);
  EXPECT_EQ(r.point(), (Vec{0, 1, 1}));

  // f is 0 at the point: nothing relative can be said.
  DifferenceRecord zero(1, 1);
  zero.functions = [](const double* x, double* f) { f[0] = x[0] - 1; };
  zero.gradient = [](const double*, double* g) { g[0] = 55; };
  zero.start({1});
  EXPECT_EQ(znlpchd(&zero, 0, nullptr), 0);
}

TEST(GradientTest, FailuresAndState) {
  DifferenceRecord r(3, 1);
  smooth(r, 1);
  r.start({0.5, -0.7, 2});
  const int codes[] = {TEST_POINT_FAILED, TEST_DERIVATIVE_FAILED, TEST_DERIVATIVE_FAILED,
                       TEST_RETURN_FAILED, 0};
  for (long k = 1; k <= 5; ++k) {
    r.fail(k, k);
    EXPECT_EQ(znlpchd(&r, 0, nullptr), codes[k - 1]) << k;
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
  }
  long count = 0;
  r.functions = [&count](const double*, double* f) {
    f[0] = 5 + 1e-9 * static_cast<double>(++count);
  };
  r.gradient = [](const double*, double* g) { g[0] = g[1] = g[2] = 0; };
  r.start({1, 1, 1});
  const Numbers logged = messages([&] { znlpchd(&r, 0, nullptr); });
  EXPECT_EQ(logged.back(), 49);
}

// Residuals: one wrong element of a Jacobian in the file is enough, and is told once.
TEST(JacobianTest, OneWrongRow) {
  for (const double factor : {1.0, 2.0}) {
    DifferenceRecord r(2, 3);
    r.lsqu = 1;
    r.functions = [](const double* x, double* f) {
      f[0] = x[0] * x[1];
      f[1] = std::sin(x[0]);
      f[2] = x[1] * x[1] - 7;
    };
    r.gradient = [&r, factor](const double* x, double* g) {
      double columns[] = {factor * x[1], std::cos(x[0]), 0, x[0], 0, factor * 2 * x[1]};
      znlpjwt(&r, 0, 0, 1, columns);
      znlpjwt(&r, 0, 1, 1, columns + 3);
      std::fill_n(g, 2, 0.0);
    };
    r.start({1.1, 0.4});
    Vec second(3);
    int code = 9;
    const Numbers logged = messages([&] { code = znlpchd(&r, 1, second.data()); });
    EXPECT_EQ(code, factor == 1.0 ? 0 : 3);
    EXPECT_EQ(logged, factor == 1.0 ? Numbers{} : Numbers{47});
  }
}

TEST(ConstraintTest, RightWrongAndMoved) {
  for (const double factor : {1.0, 2.0, -1.0}) {
    DifferenceRecord r(2, 1, 2);
    smooth(r, 1);
    r.functions = [](const double* x, double* f) { f[0] = x[0]; };
    r.constraints = [](const double* x, double* c) {
      c[0] = std::exp(x[0]) + x[1];
      c[1] = x[0] * x[1] + 2;
    };
    r.constraint_jacobian = [factor](const double* x, double* j) {
      const double rows[] = {std::exp(x[0]), 1, factor * x[1], factor * x[0]};
      std::copy_n(rows, 4, j);
    };
    for (const Vec& at : {Vec{0.3, 1.2}, Vec{0, 1.2}}) {
      r.start(at);
      r.usjnc(&r);
      const Vec jacobian(r.jcon, r.jcon + 4), values(r.fcon, r.fcon + 2);
      Vec work(4);
      int code = 9;
      const Numbers logged = messages([&] { code = znlpchc(&r, work.data(), work.data() + 2); });
      EXPECT_EQ(code, factor == 1.0 ? 0 : 3);
      EXPECT_EQ(logged, factor == 1.0 ? Numbers{} : Numbers{47});
      EXPECT_EQ(Vec(r.jcon, r.jcon + 4), jacobian);
      EXPECT_EQ(Vec(r.fcon, r.fcon + 2), values);
    }
  }
}

// ---- The full test -----------------------------------------------------------------------------

TEST(FullTest, ComparisonMatrixVanishesForAGradient) {
  DifferenceRecord r(3, 1);
  const auto largest = [&r] {
    r.start({0.5, -0.7, 2});
    Vec hess(6), compare(6);
    EXPECT_EQ(grdchk(&r, 1, r.iwk, hess.data(), compare.data(), r.work), 0);
    const double h[] = {
        std::exp(0.5) * 0.49, 2 * std::exp(0.5) * -0.7, 2 * std::exp(0.5), 0, -1, 0};
    double worst = 0.0;
    for (std::size_t k = 0; k < 6; ++k) {
      if (r.gold[0] < 1) {
        EXPECT_NEAR(hess[k], h[k], 1e-4);
      }
      worst = std::max(worst, std::fabs(compare[k]));
    }
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
    return worst;
  };
  smooth(r, 1);
  EXPECT_LT(largest(), 1e-3);
  smooth(r, 2);
  EXPECT_GT(largest(), 1e4);
  // A field without a potential: wrong off the diagonal only.
  r.functions = [](const double*, double* f) { f[0] = 0; };
  r.gradient = [](const double* x, double* g) {
    g[0] = 1e-9 * x[1];
    g[1] = -1e-9 * x[0];
    g[2] = 1;
  };
  r.start({0, 0, 0});
  Vec hess(6), compare(6);
  grdchk(&r, 1, r.iwk, hess.data(), compare.data(), r.work);
  EXPECT_NEAR(compare[1], -2e-9, 1e-12);
  EXPECT_NEAR(hess[1], 0, 1e-12);
  EXPECT_EQ(maceps(1), 0x1p-51);
  EXPECT_EQ(maceps(0), 2);
}

TEST(FullTest, NamesParametersWithoutInfluence) {
  DifferenceRecord r(3, 1);
  r.functions = [](const double* x, double* f) { f[0] = x[0] * x[0] + 3; };
  r.gradient = [](const double* x, double* g) {
    g[0] = 2 * x[0];
    g[1] = g[2] = 0;
  };
  r.gchk = 2;
  r.start({1, 1, 1});
  const char* const names[] = {"A", "B", "C"};
  r.pnam = names;
  int code = 9;
  EXPECT_EQ(messages([&] { code = znlpchg(&r, 1, nullptr); }), (Numbers{262, 262}));
  EXPECT_EQ(code, 0);
  EXPECT_EQ(messages([&] { code = znlpchg(&r, 0, nullptr); }), (Numbers{262, 262}));
  EXPECT_EQ(r.point(), (Vec{1, 1, 1}));
  r.fail(3, 3);
  EXPECT_EQ(messages([&] { code = znlpchg(&r, 1, nullptr); }), Numbers{261});
  EXPECT_EQ(code, 0);
  // Without memory the diagonal alone is tested.
  EXPECT_EQ(messages([&] {
              embed::plan_fault(embed::current_task(), embed::Fault::allocation, 0);
              code = znlpchg(&r, 1, nullptr);
            }),
            (Numbers{260, 262, 262}));
}

// Through the driver, with the tables of print level 2.
TEST(FullTest, DriverReportsAndGoesOn) {
  for (const double factor : {1.0, 2.0}) {
    Session session;
    embed::Task& task = session.task();
    const embed::Activation activation(task);
    DifferenceRecord r(3, 1);
    smooth(r, factor);
    r.at({0.5, -0.7, 2});
    r.gchk = 2;
    r.dbug = 2;
    xobinit(&r.rvx, 0);
    EXPECT_EQ(znlpdrv(&r, 1, 0, 1, 0), 0);
    std::vector<int> numbers;
    for (const LogRecord& line : task.log) numbers.push_back(line.number);
    EXPECT_EQ(numbers, factor == 1.0 ? Numbers{} : (Numbers{47, 181}));
    const auto table = [&task](const std::string& name) {
      for (const Table& t : task.tables) {
        if (t.name == name) return t;
      }
      ADD_FAILURE() << "no table " << name;
      return Table{};
    };
    EXPECT_EQ(table("GradTest").rows.size(), 3U);
    EXPECT_EQ(table("SymDif").rows.size(), 3U);
    EXPECT_GE(table("ResDistr").rows.size(), 1U);
    const Table largest = table("SymDifRO");
    EXPECT_GE(largest.rows.size(), 1U);
    EXPECT_EQ(largest.columns.size(), 5U);
    wobmth(r.rvx, 0, RvxMethod::close, {});
    r.fail(2, 2);
    EXPECT_EQ(znlpdrv(&r, 1, 0, 1, 0), -2);
  }
}

// A failing estimate of intervals is a failed derivative set-up.
TEST(Driver, IntervalsFail) {
  DifferenceRecord r(1, 1);
  r.functions = [](const double* x, double* f) { f[0] = x[0] == 1 ? 3.0 : NAN; };
  r.gradient = [](const double*, double* g) { g[0] = 0; };
  r.cfdh = 1;
  r.at({1});
  EXPECT_EQ(znlpdrv(&r, 1, 0, 0, 0), -2);
  EXPECT_TRUE(wzmis(r.grad[0]));
}

}  // namespace
}  // namespace tqnlp::test
