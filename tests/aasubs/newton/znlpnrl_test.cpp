// NRLINS: what the tests of the Newton techniques together do not reach.
#include "aasubs/newton/znlpnrl.h"

#include <gtest/gtest.h>

#include "aasubs/driver/znlpdrv.h"
#include "aasubs/record/covstr.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "host/files.h"
#include "host/process.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// Nearest point to (3, 1, 2), a record with bounds that all but coincide and a row.
const Problem& nearest() {
  static const Problem problem = scalar_problem("nearest", {3.0, 1.0, 2.0}, {0}, [](auto x) {
    return (x[0] - 3.0) * (x[0] - 3.0) + (x[1] - 1.0) * (x[1] - 1.0) + (x[2] - 2.0) * (x[2] - 2.0);
  });
  return problem;
}

TEST(Nrlins, PutsConstraintsBackFromTheUtilityFile) {
  const embed::Fault kinds[] = {embed::Fault::file_operation, embed::Fault::allocation};
  embed::Task& task = embed::current_task();
  for (const embed::Fault kind : kinds) {
    for (long k = 0; k < 50; ++k) {
      TestRecord record(3, NRLINS);
      install(record, nearest());
      record.with_bounds({0, 0, 1}, {2, 9, 1 + 1e-9});
      record.with_rows({{{1, 1, 0}, 1, 2}, {{-1, -1, -1}, 1, -3.5}});
      COVSTR post{};
      record.covstr = &post;
      ASSERT_EQ(xcopen(&post.utpmat, nullptr), 0);
      ASSERT_EQ(znlpdrv(&record, 1, 0, 0, 0), 0);
      record.ub[2] = 1 + 1e-9;  // which the feasible start has merged
      record.uster = [](MINSTR* str, int job) {
        str->ub[2] = 7.0;
        return job < 0 ? job : str->gmax <= 1e-9 ? 3 : 0;
      };
      embed::plan_fault(task, kind, k);
      int code = 0;
      const int exit = exit_code_of([&] { code = znlpnrl(&record); });
      const bool through = embed::fault_pending(task, kind);
      embed::clear_faults(task);
      xcclose(post.utpmat, 1);
      EXPECT_EQ(code + exit, through ? 3 : kind == embed::Fault::allocation ? -1 : EXIT_WORK_FILE);
      if (!through) continue;
      EXPECT_GT(k, 0);
      EXPECT_EQ(record.ub[2], 1 + 1e-9);
      EXPECT_NEAR(record.x[0], 2.0, 1e-9);
      EXPECT_NEAR(record.x[1], 0.5, 1e-9);
      break;
    }
  }
}

// Rows that contradict each other by less than the feasibility tolerance: the solver, which works
// at rounding level, does not start.
TEST(Nrlins, RefusesAStartBetweenContradictingRows) {
  TestRecord record(3, NRLINS);
  install(record, nearest());
  record.with_rows({{{1, 1, 0}, 1, 4}, {{-1, -1, 0}, 1, -4 + 1e-8}});
  record.at({2, 2, 0});
  EXPECT_EQ(run_technique(record), -7);
}

}  // namespace
}  // namespace tqnlp::test
