// The Jacobian in its utility file: what is written by columns or rows comes back, in every form.
#include <gtest/gtest.h>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfid.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "host/process.h"

namespace tqnlp::test {
namespace {

// 3 x 2, by rows; 1e-17 is rounding beside 2 and is dropped by the sparse form alone.
const Vec J = {2, 0, 1e-17, -3, 0.5, 1e-14};

// Writes J in a layout.
void write(DifferenceRecord& r, int job) {
  Vec source = J;
  const long count = job == 2 ? r.mequ : r.nvar;
  for (long k = 0; k < count; ++k) {
    EXPECT_EQ(znlpjwt(&r, job, k, job == 2 ? 1 : r.nvar, source.data() + (job == 2 ? 2 * k : k)),
              0);
  }
}

TEST(JacobianFile, ComesBackInEveryForm) {
  DifferenceRecord r(2, 3);
  for (const int job : {0, 1, 2, 0}) {
    write(r, job);
    Vec back(6, 9), product(3, 9);
    znlpjrd(&r, back.data());
    const Vec vec = {4, 1};
    znlpjve(&r, vec.data(), product.data());
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_EQ(back[i], job == 0 && i == 2 ? 0.0 : J[i]) << job << " " << i;
    }
    EXPECT_DOUBLE_EQ(product[0], 8);
    EXPECT_DOUBLE_EQ(product[1], -3);
    EXPECT_NEAR(product[2], 2, 1e-13);
    if (job == 2) {
      try {
        znlpjdt(&r, 0, J.data(), J.data(), product.data());
        ADD_FAILURE() << "rows cannot give crossproducts";
      } catch (const embed::ExitRequest& exit) {
        EXPECT_EQ(exit.code, EXIT_INCONSISTENT);
      }
      continue;
    }
    const Vec column = {0, -3, 1e-14}, f(3, 1.0);
    Vec row(2, 9);
    EXPECT_EQ(znlpjdt(&r, 1, f.data(), column.data(), row.data()), 0);
    EXPECT_NEAR(row[0], 0, 1e-14);
    EXPECT_DOUBLE_EQ(row[1], 9);
  }
}

TEST(JacobianFile, MissingValuesCountAsZero) {
  DifferenceRecord r(1, 3);
  Vec column = {MISSING, 5, MISSING}, back(3);
  znlpjwt(&r, 0, 0, 1, column.data());
  EXPECT_EQ(column, (Vec{0, 5, 0}));
  znlpjrd(&r, back.data());
  EXPECT_EQ(back, column);
}

// Without functions every column is empty, and still ends.
TEST(JacobianFile, NoFunctions) {
  DifferenceRecord r(2, 0);
  r.functions = [](const double*, double*) {};
  r.start({1, 2});
  EXPECT_EQ(znlpfic(&r), 0);
  EXPECT_EQ(r.hess[2], 0);
  EXPECT_EQ(znlpjrd(&r, nullptr), 0);
}

TEST(JacobianFile, EveryFailureEndsTheCall) {
  embed::Task& task = embed::current_task();
  long k = 0;
  for (;; ++k) {
    DifferenceRecord r(2, 3);
    r.functions = [](const double* x, double* f) {
      for (long i = 0; i < 3; ++i) f[i] = static_cast<double>(i) * x[0] + x[1];
    };
    r.start({1, 2});
    embed::plan_fault(task, embed::Fault::file_operation, k);
    int exit_code = 0;
    try {
      znlpfic(&r);
      Vec back(6);
      znlpjrd(&r, back.data());
    } catch (const embed::ExitRequest& exit) {
      exit_code = exit.code;
    }
    const bool pending = embed::fault_pending(task, embed::Fault::file_operation);
    embed::clear_faults(task);
    if (pending) {
      EXPECT_EQ(exit_code, 0);
      break;
    }
    EXPECT_EQ(exit_code, EXIT_WORK_FILE) << k;
    ASSERT_LT(k, 1000);
  }
  EXPECT_GT(k, 10);
}

}  // namespace
}  // namespace tqnlp::test
