// The tests of supplied derivatives: right ones pass, wrong ones are told once with the parameter
// to blame, the user's state comes back.
#include <gtest/gtest.h>

#include <array>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpchd.h"
#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/driver/znlpdrv.h"
#include "embed/task.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {
namespace {

// What body logs: the numbers of group 549, and their texts one after the other.
struct Logged {
  std::vector<int> numbers;
  std::string text;
};

template <typename F>
Logged logged(F body) {
  Session session;
  const embed::Activation activation(session.task());
  body();
  Logged result;
  for (const LogRecord& line : session.task().log) {
    if (line.group != 549) continue;
    result.numbers.push_back(line.number);
    result.text += line.text + "\n";
  }
  return result;
}

using Numbers = std::vector<int>;
const char* const NAMES[] = {"A", "B", "C"};

// f = exp(x) y^2 + x - y z, each element of the gradient with a factor.
void smooth(DifferenceRecord& r, const Vec& factors = {1, 1, 1}) {
  r.functions = [](const double* x) -> Vec {
    return {std::exp(x[0]) * x[1] * x[1] + x[0] - x[1] * x[2]};
  };
  r.gradient = [factors](const double* x) -> Vec {
    return {factors[0] * (std::exp(x[0]) * x[1] * x[1] + 1),
            factors[1] * (2 * std::exp(x[0]) * x[1] - x[2]), factors[2] * -x[1]};
  };
  r.pnam = NAMES;
}

TEST(GradientTest, RightAndWrong) {
  using Case = std::pair<Vec, const char*>;
  for (const auto& [factors, blamed] :
       {Case{{1, 1, 1}, nullptr}, Case{{2, 1, 1}, "parameter A "}, Case{{1, -1, 1}, "parameter B "},
        Case{{1, 1, 1.2}, "parameter C "}, Case{{-1, -1, -1}, "parameter B "}}) {
    DifferenceRecord r(3, 1);
    smooth(r, factors);
    r.start({0.5, -0.7, 2});
    r.usgrd(&r);
    const Vec grad(r.grad, r.grad + 3);
    const double crit = r.crit;
    int code = 9;
    const Logged log = logged([&] { code = znlpchd(&r, 0, nullptr); });
    const bool right = blamed == nullptr;
    EXPECT_EQ(code, right ? DERIVATIVES_AGREE : DERIVATIVES_DISAGREE);
    EXPECT_EQ(log.numbers, right ? Numbers{} : Numbers{47});
    EXPECT_TRUE(right || log.text.find(blamed) != std::string::npos) << log.text;
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
    EXPECT_EQ(Vec(r.grad, r.grad + 3), grad);
    EXPECT_EQ(r.crit, crit);
    EXPECT_EQ(r.visited.size(), right ? 3U : 6U);
    EXPECT_EQ(r.nfct, 1 + 3);  // the search for the parameter is no function call
  }
}

TEST(GradientTest, PointsThatSayNothing) {
  DifferenceRecord r(3, 1);
  smooth(r);
  // At the start (0, 1, 1): bounds of the first two parameters, code, and test point for code 0.
  const double free = HUGE_VALUE;
  for (const auto& [low_x, high_x, low_y, high_y, code, x, y] :
       {std::array{-free, free, -free, free, 0.0, 1.0, 1.0},
        {0, 0.5, -9, 9, 1, 0, 0},
        {-1, 0.5, -9, 9, 0, -0.5, 1},
        {-9, 9, 1 - 1e-9, 1, TEST_NO_ROOM, 0, 0},
        {-9, 9, 0.5, 1, 0, 0.5, 1}}) {
    r.with_bounds({low_x, low_y, -9}, {high_x, high_y, 9}).bounds = low_x > -free ? 1 : 0;
    r.start({0, 1, 1});
    EXPECT_EQ(znlpchd(&r, 0, nullptr), code);
    EXPECT_EQ(r.point(), (Vec{0, 1, 1}));
    if (code != 0) continue;
    EXPECT_EQ(r.visited[1][0], x);
    EXPECT_NEAR(r.visited[1][1], y, 2e-7);
    EXPECT_LE(r.visited[0][1], high_y);
  }
  r.lincon = 1;
  EXPECT_EQ(znlpchd(&r, 0, nullptr), TEST_POINT_UNUSABLE);
  // f is 0 at the point: nothing relative can be said.
  DifferenceRecord zero(1, 1);
  zero.functions = [](const double* at) -> Vec { return {at[0] - 1}; };
  zero.gradient = [](const double*) -> Vec { return {55}; };
  zero.start({1});
  EXPECT_EQ(znlpchd(&zero, 0, nullptr), 0);
}

TEST(GradientTest, FailuresAndState) {
  DifferenceRecord r(3, 1);
  smooth(r);
  r.start({0.5, -0.7, 2});
  const int codes[] = {TEST_POINT_FAILED, TEST_DERIVATIVE_FAILED, TEST_DERIVATIVE_FAILED,
                       TEST_RETURN_FAILED, 0};
  for (long k = 1; k <= 5; ++k) {
    r.fail(k, k);
    EXPECT_EQ(znlpchd(&r, 0, nullptr), codes[k - 1]) << k;
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
  }
  smooth(r, {-1, -1, -1});
  r.fail(5, 5);  // B cannot be compared: the next one is named
  EXPECT_NE(logged([&] { znlpchd(&r, 0, nullptr); }).text.find("parameter C "), std::string::npos);
  r.functions = [&r](const double*) -> Vec { return {5 + 1e-9 * static_cast<double>(r.calls)}; };
  r.gradient = [](const double*) -> Vec { return {0, 0, 0}; };
  r.start({1, 1, 1});
  EXPECT_EQ(logged([&] { znlpchd(&r, 0, nullptr); }).numbers.back(), 49);
}

// One wrong element of a Jacobian is enough, and is told once: of residuals, in the file, and of
// nonlinear constraints, whose Jacobian at a moved point (0 goes to 1) does not stay.
TEST(JacobianTest, OneWrongElement) {
  for (const double factor : {1.0, 2.0, -1.0}) {
    const Numbers expected = factor == 1.0 ? Numbers{} : Numbers{47};
    DifferenceRecord r(2, 3, 2);
    r.pnam = NAMES;
    r.lsqu = 1;
    r.functions = [](const double* x) -> Vec {
      return {x[0] * x[1], std::sin(x[0]), x[1] * x[1] - 7};
    };
    r.gradient = [&r, factor](const double* x) -> Vec {
      double columns[] = {x[1], std::cos(x[0]), 0, x[0], 0, factor * 2 * x[1]};
      znlpjwt(&r, 0, 0, 1, columns);
      znlpjwt(&r, 0, 1, 1, columns + 3);
      return {0, 0};
    };
    r.constraints = [](const double* x) -> Vec { return {std::exp(x[0]) + x[1], x[0] * x[1] + 2}; };
    r.constraint_jacobian = [factor](const double* x) -> Vec {
      return {std::exp(x[0]), 1, x[1], factor * x[0]};
    };
    const auto blames = [&](const Logged& log, const char* element) {
      EXPECT_EQ(log.numbers, expected);
      EXPECT_TRUE(expected.empty() || log.text.find(element) != std::string::npos) << log.text;
    };
    for (const Vec& at : {Vec{0.3, 1.2}, Vec{0, 1.2}}) {
      r.start(at);
      r.usjnc(&r);
      const Vec jacobian(r.jcon, r.jcon + 4), values(r.fcon, r.fcon + 2);
      Vec work(4);
      int code = 9;
      blames(logged([&] { code = znlpchd(&r, 1, work.data()); }),
             "function 3 with respect to parameter B");
      EXPECT_EQ(code, factor == 1.0 ? 0 : 3);
      blames(logged([&] { code = znlpchc(&r, work.data(), work.data() + 2); }),
             "function 2 with respect to parameter B");
      EXPECT_EQ(code, factor == 1.0 ? 0 : 3);
      EXPECT_EQ(Vec(r.jcon, r.jcon + 4), jacobian);
      EXPECT_EQ(Vec(r.fcon, r.fcon + 2), values);
    }
  }
}

// ---- The full test -----------------------------------------------------------------------------

TEST(FullTest, ComparisonMatrixVanishesForAGradient) {
  DifferenceRecord r(3, 1);
  Vec hess(6), compare(6);
  const auto largest = [&] {
    r.start({0.5, -0.7, 2});
    EXPECT_EQ(grdchk(&r, 1, r.iwk, hess.data(), compare.data(), r.work), 0);
    EXPECT_EQ(r.point(), (Vec{0.5, -0.7, 2}));
    double worst = 0.0;
    for (const double c : compare) worst = std::max(worst, std::fabs(c));
    return worst;
  };
  smooth(r);
  EXPECT_LT(largest(), 1e-3);
  const double e = std::exp(0.5);
  const double exact[] = {e * 0.49, 2 * e * -0.7, 2 * e, 0, -1, 0};
  for (std::size_t k = 0; k < 6; ++k) EXPECT_NEAR(hess[k], exact[k], 1e-4);
  smooth(r, {2, 1, 1});
  EXPECT_GT(largest(), 1e4);
  // A field without a potential: wrong off the diagonal only.
  r.functions = [](const double*) -> Vec { return {0}; };
  r.gradient = [](const double* x) -> Vec { return {1e-9 * x[1], -1e-9 * x[0], 1}; };
  r.start({0, 0, 0});
  grdchk(&r, 1, r.iwk, hess.data(), compare.data(), r.work);
  EXPECT_NEAR(compare[1], -2e-9, 1e-12);
  EXPECT_NEAR(hess[1], 0, 1e-12);
}

TEST(FullTest, NamesParametersWithoutInfluence) {
  DifferenceRecord r(3, 1);
  r.functions = [](const double* x) -> Vec { return {x[0] * x[0] + 3}; };
  r.gradient = [](const double* x) -> Vec { return {2 * x[0], 0, 0}; };
  r.gchk = 2;
  r.pnam = NAMES;
  r.start({1, 1, 1});
  const auto numbers = [&r](int job) {
    return logged([&] { EXPECT_EQ(znlpchg(&r, job, nullptr), 0); }).numbers;
  };
  EXPECT_EQ(numbers(1), (Numbers{262, 262}));
  EXPECT_EQ(numbers(0), (Numbers{262, 262}));
  EXPECT_EQ(r.point(), (Vec{1, 1, 1}));
  r.fail(3, 3);
  EXPECT_EQ(numbers(1), Numbers{261});
  // Without memory the diagonal alone is tested.
  const Logged log = logged([&r] {
    embed::plan_fault(embed::current_task(), embed::Fault::allocation, 0);
    znlpchg(&r, 1, nullptr);
  });
  EXPECT_EQ(log.numbers, (Numbers{260, 262, 262}));
}

// Through the driver, with the tables of print level 2.
TEST(FullTest, DriverReportsAndGoesOn) {
  Session session;
  embed::Task& task = session.task();
  const embed::Activation activation(task);
  DifferenceRecord r(3, 1);
  smooth(r, {2, 1, 1});
  r.at({0.5, -0.7, 2});
  r.gchk = r.dbug = 2;
  xobinit(&r.rvx, 0);
  EXPECT_EQ(znlpdrv(&r, 1, 0, 1, 0), 0);
  ASSERT_EQ(task.log.size(), 2U);
  EXPECT_TRUE(task.log[0].number == 47 && task.log[1].number == 181);
  std::string tables;
  for (const Table& t : task.tables) tables += t.name + " ";
  for (const char* name : {"GradTest ", "SymDif ", "SymDifRO ", "ResDistr "})
    EXPECT_NE(tables.find(name), std::string::npos) << tables;
  wobmth(r.rvx, 0, RvxMethod::close, {});
  r.fail(2, 2);
  EXPECT_EQ(znlpdrv(&r, 1, 0, 1, 0), -2);
}

}  // namespace
}  // namespace tqnlp::test
