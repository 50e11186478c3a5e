// The termination test: one row for each way in which it can end a run, and what keeps it going.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#include "aasubs/termination/znlptrm.h"
#include "embed/task.h"
#include "host/log.h"
#include "kernels/vector.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();

// A run after its first iteration that meets no criterion at tolerance 0: every measure has a
// value of its own, so that a mixed-up measure shows.
struct Iterated : TestRecord {
  Iterated(int technique, int squares = 0, int nonlinear = 0) : TestRecord(2, technique) {
    lsqu = squares, nlicon = nonlinear;
    nitr = 1.0, nfct = 1;
    cold = 2.0, crit = 1.0;
    gmax = 1.0, gmlf = 2.0, pred = -1.0, gihg = 3.0, rhor = 4.0, gcri = 5.0, alfa = 7.0;
    x[0] = xold[0] = 1.0, x[1] = 2.0, xold[1] = 5.0;
    aftl = ftol = fto2 = axtl = xtol = agtl = gtol = gto2 = 0.0;
    // The analysis that follows a failed evaluation finds no point that can be evaluated.
    f = [](const double*) { return MISSING; };
    with_callbacks();
  }
};

struct Host {
  embed::Task task;
  embed::Activation active{task};
};

// Every criterion is met at its tolerance exactly, and by nothing less.
TEST(Termination, EveryCriterionAlone) {
  const struct {
    int tech, lsqu, nlicon, job;
    double MINSTR::*tolerance;
    double measured;  // the least tolerance that meets the criterion
    int code;
  } rows[] = {{4, 0, 0, 1, &MINSTR::atol, 1.0, 1},  {4, 0, 0, 10, &MINSTR::atol, 1.0, 1},
              {11, 0, 1, 1, &MINSTR::atol, 1.0, 1}, {4, 0, 0, 1, &MINSTR::aftl, 1.0, 2},
              {14, 0, 0, 2, &MINSTR::aftl, 1.0, 2}, {4, 0, 0, 1, &MINSTR::agtl, 1.0, 3},
              {4, 0, 0, 10, &MINSTR::agtl, 1.0, 3}, {11, 0, 1, 1, &MINSTR::agtl, 2.0, 3},
              {4, 0, 0, 1, &MINSTR::axtl, 3.0, 4},  {15, 0, 0, 1, &MINSTR::axtl, 1.0, 4},
              {14, 0, 1, 1, &MINSTR::axtl, 4.0, 4}, {4, 0, 0, 1, &MINSTR::ftol, 0.5, 5},
              {14, 0, 0, 1, &MINSTR::ftol, 0.5, 5}, {4, 0, 0, 1, &MINSTR::gtol, 0.5, 6},
              {8, 1, 0, 1, &MINSTR::gtol, 1.5, 6},  {13, 0, 0, 1, &MINSTR::gtol, 2.5, 6},
              {11, 0, 1, 1, &MINSTR::gtol, 1.0, 6}, {4, 0, 0, 1, &MINSTR::xtol, 0.6, 7},
              {14, 0, 0, 1, &MINSTR::xtol, 0.6, 7}, {4, 1, 0, 1, &MINSTR::fto2, 0.5, 8},
              {8, 1, 0, 1, &MINSTR::fto2, 1.5, 8},  {14, 0, 0, 1, &MINSTR::fto2, 1.0, 8},
              {11, 0, 1, 1, &MINSTR::fto2, 1.0, 8}, {4, 1, 0, 1, &MINSTR::gto2, 5.0, 9}};
  Host host;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << "code " << row.code << " technique " << row.tech);
    Iterated run(row.tech, row.lsqu, row.nlicon);
    run.*row.tolerance = row.measured;
    EXPECT_EQ(znlptrm(&run, row.job), row.code);
    EXPECT_EQ(run.rcod, row.code);
    Iterated near(row.tech, row.lsqu, row.nlicon);
    near.*row.tolerance = std::nextafter(row.measured, -1.0);
    near.idac = 3;
    EXPECT_EQ(znlptrm(&near, row.job), 0);
    EXPECT_EQ(near.idac, 0);
  }
}

// Criteria that are not judged at the start. (The summaries of reports show which ones belong to a
// technique, and that the test agrees.)
void loosen(MINSTR& s) { s.aftl = s.axtl = s.xtol = s.ftol = s.gtol = s.fto2 = s.gto2 = 1e6; }

const struct {
  const char* name;
  int tech;
  int job;
  std::function<void(MINSTR&)> change;
  int code;
} STOP_ROWS[] = {
    {"objective rose", 4, 1, [](MINSTR& s) { s.crit = 3.0, s.agtl = 9.0; }, -5},
    {"rose within aftl", 4, 1, [](MINSTR& s) { s.crit = 3.0, s.aftl = 1.0; }, 5},
    {"rose, below the level", 4, 1, [](MINSTR& s) { s.crit = 3.0, s.atol = 3.0; }, 1},
    {"level before mini", 4, 1, [](MINSTR& s) { s.atol = 1.0, s.mini = 9; }, 1},
    {"criterion before mini", 4, 1, [](MINSTR& s) { s.agtl = 1.0, s.mini = 2; }, 0},
    {"criterion at mini", 4, 1, [](MINSTR& s) { s.agtl = 1.0, s.mini = 1; }, 3},
    {"a later criterion wins", 4, 1, [](MINSTR& s) { s.agtl = 1.0, s.xtol = 1.0; }, 7},
    {"vertex", 4, 1, [](MINSTR& s) { s.nabc = s.nalc = 1; }, 10},
    {"vertex, limits alone", 4, 0, [](MINSTR& s) { s.nabc = 2; }, 10},
    {"step criteria at the start", 4, 10, loosen, 0},
    {"of a simplex at the start", 14, 10, loosen, 0},
    {"vertex at the start", 4, 10, [](MINSTR& s) { s.nabc = 2; }, 0},
    {"vertex, evaluation failed", 4, 1, [](MINSTR& s) { s.nabc = 2, s.tbig = 1.0; }, 10},
    {"failed evaluation", 4, 1, [](MINSTR& s) { s.tbig = 1.0, s.agtl = 1.0; }, -3},
    {"module failed", 4, -11, [](MINSTR& s) { s.tbig = 1.0, s.toln[1] = s.toln[11] = 1; }, -11},
    {"no progress near ABSXCONV", 4, -5, [](MINSTR& s) { s.toln[3] = 4, s.toln[13] = 2; }, 104},
    {"no progress, not counted", 4, -5, [](MINSTR& s) { s.toln[3] = 4, s.toln[14] = 2; }, -5},
    {"limit near the last", 4, -8, [](MINSTR& s) { s.toln[8] = 4, s.toln[18] = 1; }, 109},
    {"failure near a criterion", 4, -3, [](MINSTR& s) { s.toln[1] = s.toln[11] = 1; }, -3},
    {"limits alone", 4, 0, [](MINSTR& s) { s.agtl = 1.0; }, 0},
    {"iterations", 4, 1, [](MINSTR& s) { s.maxi = 1.0; }, -8},
    {"limit at the start", 4, 10, [](MINSTR& s) { s.maxf = 1.0; }, -8},
    {"criterion at a limit", 4, 1, [](MINSTR& s) { s.maxi = 1.0, s.agtl = 1.0; }, 3},
    {"time", 4, 1, [](MINSTR& s) { s.mtim = zdattim() - 1.0, s.upti = 0.5; }, -9},
    {"criterion after time", 4, 1, [](MINSTR& s) { s.upti = -1.0, s.agtl = 1.0; }, 3},
    {"missing limits", 4, 1, [](MINSTR& s) { s.maxi = s.maxf = MISSING; }, 0},
    {"a constraint left", 4, 1, [](MINSTR& s) { s.chac = -1, s.agtl = 1.0; }, 0},
    {"left without progress", 4, 1, [](MINSTR& s) { s.chac = -1, s.crit = 2.0, s.agtl = 1.0; }, 5},
    {"a constraint came", 4, 1, [](MINSTR& s) { s.chac = 1, s.agtl = 1.0; }, 3},
    {"quadratic, any change", 16, 1, [](MINSTR& s) { s.chac = 1, s.agtl = 1.0; }, 0},
    {"infeasible", 11, 1, [](MINSTR& s) { s.nlicon = 1, s.agtl = 2.0, s.cmax = 2e-8; }, 0},
    {"within ipre", 11, 1, [](MINSTR& s) { s.nlicon = s.ipre = 1, s.agtl = 2, s.cmax = 1e-7; }, 3},
    // The user's objective rises from -2 to -1 when its sign is turned.
    {"maximum, no level", 4, 1, [](MINSTR& s) { s.imax = 1, s.atol = ROOT_HUGE; }, 0},
    {"maximum, level", 4, 1, [](MINSTR& s) { s.imax = 1, s.atol = -1.0; }, 1},
    {"maximum fell", 4, 1, [](MINSTR& s) { s.imax = 1, s.atol = 9.0, s.crit = 3.0; }, -5},
};

TEST(Termination, EveryOtherEnd) {
  Host host;
  for (const auto& row : STOP_ROWS) {
    Iterated run(row.tech);
    row.change(run);
    run.indf = IN_RUN;
    EXPECT_EQ(znlptrm(&run, row.job), row.code) << row.name;
    EXPECT_EQ(run.indf, IN_RUN) << row.name;
  }
}

TEST(Termination, CriteriaMustHoldInARow) {
  Host host;
  Iterated run(4);
  run.agtl = 1.0;
  run.toln[2] = 3;
  for (const double gradient : {1.0, 1.0, 1.5, 1.0, 1.0}) {
    run.gmax = gradient;
    EXPECT_EQ(znlptrm(&run, 1), 0);
  }
  EXPECT_EQ(znlptrm(&run, -5), 103);
  EXPECT_EQ(znlptrm(&run, 1), 3);
}

// Numbers that are none meet no criterion; the limits still end the run.
TEST(Termination, NaNNeverConverges) {
  Host host;
  for (const int technique : {4, 8, 13, 14}) {
    for (const int nonlinear : {0, 1}) {
      Iterated run(technique, technique == 8, nonlinear);
      loosen(run);
      run.agtl = 1.0;
      run.crit = run.gmax = run.gmlf = run.pred = run.gihg = run.gcri = NOT_A_NUMBER;
      run.alfa = run.rhor = run.x[0] = NOT_A_NUMBER;
      EXPECT_EQ(znlptrm(&run, 1), 0) << technique << " " << nonlinear;
    }
  }
}

TEST(Termination, WarnsOfAnUnboundedObjectiveAndGoesOn) {
  for (const int maximize : {0, 1}) {
    Host host;
    Iterated run(10);
    run.imax = maximize;
    run.atol = maximize != 0 ? ROOT_HUGE : -ROOT_HUGE;
    run.alfa = run.ssin;
    EXPECT_EQ(znlptrm(&run, 10) + znlptrm(&run, 1) + znlptrm(&run, 1), 0);
    ASSERT_EQ(host.task.log.size(), 1U);  // said once
    EXPECT_EQ(host.task.log[0].number, 40 + maximize);
  }
}

// Gradient 1 against agtl = 0.1 times the factor.
TEST(Termination, SwitchToCentralDifferences) {
  const struct {
    int technique, fidi, job;
    double factor;
    int expected;
  } rows[] = {{4, 11111, 1, 20.0, 12222},  {4, 3001, 1, 20.0, 4002},   {4, 4222, 1, 20.0, 4222},
              {4, 11111, 1, 0.0, 11111},   {4, 11111, 1, 2.0, 11111},  {4, 11111, 10, 20.0, 11111},
              {14, 11111, 1, 20.0, 11111}, {16, 11111, 1, 20.0, 11111}};
  Host host;
  for (const auto& row : rows) {
    Iterated run(row.technique);
    run.fidi = row.fidi;
    run.agtl = 0.1;
    run.swfd = row.factor;
    znlptrm(&run, row.job);
    EXPECT_EQ(run.fidi, row.expected) << row.technique << " job " << row.job << " " << row.factor;
  }
}

TEST(StepMeasures, AreGuardedAgainstOverflowAndNaN) {
  const double large = 1.7e308, infinite = std::numeric_limits<double>::infinity();
  const struct {
    double x, y, xsiz, relative;
  } rows[] = {{2.0, 5.0, 0.0, 0.6},           {2.0, 5.0, 30.0, 0.1},
              {0.0, 0.0, 0.0, 0.0},           {1e-305, 0.0, 0.0, 0.0},
              {1e-300, 0.0, 0.0, 1.0},        {0.5, -0.75, 0.0, 1.25 / 0.75},
              {large, -large, 0.0, infinite}, {1.0, 1.0, 0.0, 0.0}};
  for (const auto& row : rows)
    EXPECT_DOUBLE_EQ(reldx(1, row.xsiz, &row.x, &row.y), row.relative) << row.x << " " << row.y;
  const double x[] = {3e200, 0.0, 1.0}, y[] = {0.0, 4e200, 1.0}, lost[] = {NOT_A_NUMBER, 0, 1};
  EXPECT_EQ(reldx(3, 0.0, x, y), 1.0);
  EXPECT_DOUBLE_EQ(xdif(3, x, y), 5e200);
  EXPECT_EQ(reldx(0, 0.0, x, y) + xdif(0, x, y), 0.0);
  EXPECT_FALSE(reldx(3, 0.0, lost, y) <= HUGE_VALUE);
  EXPECT_FALSE(xdif(3, lost, y) <= HUGE_VALUE);
}

}  // namespace
}  // namespace tqnlp::test
