// The assessment of trust-region steps, state by state; and runs of TRUREG that show its worth.
#include "aasubs/loop/trust_region.h"

#include <gtest/gtest.h>

#include <cmath>

#include "support/record.h"

namespace tqnlp::test {
namespace {

struct Given {
  double crit;  // cold is 10
  double pred = 1.0, gtst = -2.0, lamb = 1.0, dst0 = 5.0, nred = 3.0, dstn = 0.5;
  int irc = ACCEPT;
  long rinc = 0;
  double clgd = 10.0;  // the saved step has dsts 0.25
  double rldx = 0.1;
  bool dogleg = false, too_big = false;
};

const double ALMOST = 10 - 2e-14;

// A longer trial after one that reached 9; and one that gains next to nothing.
Given longer(double crit, bool too_big = false) {
  return {crit, 1, -2, 1, 5, 3, 0.5, RETRY, 1, 9, 0.1, false, too_big};
}
Given idle(double lamb, double dst0, double nred, double dstn = 0.5, double rldx = 0.1) {
  return {ALMOST, 2e-14, -4e-14, lamb, dst0, nred, dstn, ACCEPT, 0, 10, rldx};
}

TEST(Assessment, OfEveryState) {
  const int KEEP = LEAVE_SAVED, BACK = BACK_TO_XOLD, SAVE = SAVE_STEP, TAKE = TAKE_SAVED;
  const struct {
    const char* what;
    Given given;
    int result, rest;
    double radf, crit;  // left by the verdict
  } rows[] = {
      {"good, not Newton: longer", {8}, RETRY, SAVE, 4, 8},
      {"the same by a parabola", {8.4}, RETRY, SAVE, 2.5, 8.4},
      {"steep enough, no more", {8.6}, ACCEPT_TEST, KEEP, 1, 8.6},
      {"Newton step", {8, 1, -2, 0}, ACCEPT, KEEP, 4, 8},
      {"nearly Newton", {8, 1, -2, 1, 0.9}, ACCEPT, KEEP, 4, 8},
      {"little left", {8, 1, -2, 1, 5, 2.3}, ACCEPT, KEEP, 4, 8},
      {"little left, indefinite", {8, 1, -2, 1, -5, 2.3}, RETRY, SAVE, 4, 8},
      {"dogleg", {8, 1, -2, 1, -5, 2.3, 0.5, ACCEPT, 0, 10, 0.1, true}, ACCEPT, KEEP, 4, 8},
      {"fair", {9.95}, ACCEPT, SAVE, 0.5, 9.95},
      {"trivial decrease: shorter", {9.99995}, RETRY, SAVE, 2 / 3.9999, 9.99995},
      {"uphill: shorter", {12}, RETRY, BACK, 0.25, 10},
      {"far uphill: a tenth", {1e4}, RETRY, BACK, 0.1, 10},
      {"shorter after uphill, good", {8, 1, -2, 1, 5, 3, 0.5, RETRY, -1}, ACCEPT_TEST, KEEP, 1, 8},
      {"longer and better", longer(8), RETRY, SAVE, 4, 8},
      {"longer and worse: the saved one", longer(9.5), ACCEPT_TEST, TAKE, 1, 9},
      {"too big", {0, 1, -2, 1, 5, 3, 0.5, ACCEPT, 0, 10, 0.1, false, true}, RETRY, BACK, 0.5, 0},
      {"longer and too big", longer(0, true), ACCEPT_TEST, TAKE, 1, 9},
      {"rounding", {12, 1, -2, 1, 5, 3, 0.5, 4, 0, 10, 1e-15}, FALSE_CONVERGED, BACK, 0.25, 10},
      {"unbounded", {-1e21, 1e21, -2e21}, ACCEPT, KEEP, 1, -1e21},
      {"Newton, tiny", {9, 1, -2, 0, 0.5, 3, 0.5, 4, 0, 10, 1e-12}, STEP_CONVERGED, KEEP, 1, 9},
      {"nothing to gain", idle(0, 0.5, 2e-14), FUNCTION_CONVERGED, KEEP, 1, ALMOST},
      {"both", idle(0, 0.5, 2e-14, 0.5, 1e-13), BOTH_CONVERGED, KEEP, 1, ALMOST},
      {"a long step gains nothing", idle(1, -1, 3, 2), SINGULAR_CONVERGED, KEEP, 1, ALMOST},
      {"what of a longer one?", idle(1, -1, 3), SINGULAR_STEP, SAVE, 1, ALMOST},
      {"none", {9, 1e-15, -2, 1, -1, 0, 1, SINGULAR_STEP}, SINGULAR_CONVERGED, TAKE, 0, 9},
      {"it would gain", {9, 1, -2, 1, -1, 0, 1, SINGULAR_STEP}, RETRY, TAKE, 0, 9},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const Given& g = row.given;
    MINSTR str{};
    str.cold = 10.0, str.crit = g.crit, str.pred = g.pred, str.lamb = g.lamb;
    str.ssin = 1e20, str.tbig = g.too_big ? 1.0 : 0.0;
    DGWSTR d{};
    d.minstr = &str, d.dogleg = g.dogleg;
    open_assessment(&d);
    d.irc = g.irc, d.xirc = RETRY, d.rinc = g.rinc;
    d.clgd = g.clgd, d.plgd = 1.0, d.gtst = d.gtsl = g.gtst;
    d.dst0 = g.dst0, d.nred = g.nred, d.dstn = g.dstn, d.dsts = 0.25, d.rldx = g.rldx, d.radf = 0.0;
    EXPECT_EQ(assess(&d), row.result);
    EXPECT_EQ(d.irc, row.result);
    EXPECT_EQ(d.rest, row.rest);
    EXPECT_NEAR(d.radf, row.radf, 1e-3);
    EXPECT_EQ(str.crit, row.crit);
    EXPECT_TRUE(row.rest != TAKE_SAVED || d.dstn == 0.25);
  }
}

// ---- Runs ---------------------------------------------------------------------------------------

enum Constraints { NONE, BOX, ROW };  // -1 <= x, y <= 2; and x + y <= 3

// What the curvature hides from a method of descent: saddles that the gradient does not point away
// from, concave functions, no curvature at all, and regions without a value.
TEST(Trureg, FindsMinimaThatCurvatureHides) {
  const auto saddle = [](auto x) {
    return 0.25 * x[0] * x[0] * x[0] * x[0] - 0.5 * x[0] * x[0] + x[1] * x[1];
  };
  const auto concave = [](auto x) { return -1.0 * x[0] * x[0] - x[1] * x[1]; };
  const auto plane = [](auto x) { return x[0] - 2.0 * x[1]; };
  const auto ditch = [](auto x) { return (x[0] + x[1] - 1.0) * (x[0] + x[1] - 1.0); };
  const auto pole = [](auto x) { return x[0] + 1.0 / x[0] + x[1] * x[1]; };
  const struct {
    Problem problem;
    Constraints constraints;
    double minimum;
    int code;                 // 0: any criterion
    bool half_plane = false;  // no value where x <= 0
  } runs[] = {
      {scalar_problem("hard case", {0, 1}, {}, saddle), NONE, -0.25, 0},
      {scalar_problem("hard case", {0, 1}, {}, saddle), BOX, -0.25, 0},
      {scalar_problem("hard case", {0, 1}, {}, saddle), ROW, -0.25, 0},
      {scalar_problem("concave", {0.1, 0.2}, {}, concave), BOX, -8, 10},
      {scalar_problem("concave", {0.2, 0.1}, {}, concave), ROW, -5, 10},
      {scalar_problem("plane", {0.3, 0.4}, {}, plane), BOX, -5, 10},
      {scalar_problem("plane", {0.3, 0.4}, {}, plane), ROW, -5, 10},
      {scalar_problem("plane, near the row", {1.4999999, 1.5}, {}, plane), ROW, -5, 10},
      {scalar_problem("plane, vertex", {-1, 2}, {}, plane), BOX, -5, 0},
      {scalar_problem("singular", {5, -3}, {}, ditch), NONE, 0, 0},
      {scalar_problem("half plane", {0.5, 9}, {}, pole), NONE, 2, 0, true},
  };
  for (const auto& run : runs) {
    for (const int hesc : {0, 1, 2, 3}) {
      SCOPED_TRACE(testing::Message() << run.problem.name << run.constraints << ", hesc " << hesc);
      TestRecord record(2, TRUREG);
      install(record, run.problem);
      record.hesc = hesc;
      record.f = [&](const double* x) {
        return run.half_plane && x[0] <= 0 ? MISSING : run.problem.value(x);
      };
      if (run.constraints != NONE) record.with_bounds({-1, -1}, {2, 2});
      if (run.constraints == ROW) record.with_rows({{{-1, -1}, 1, -3}});
      const int code = run_technique(record);
      EXPECT_TRUE(run.code == 0 ? code > 0 && code < 10 : code == run.code) << code;
      EXPECT_NEAR(record.crit, run.minimum, 1e-8);
      EXPECT_LE(record.nitr, 20.0);
    }
  }
}

}  // namespace
}  // namespace tqnlp::test
