// The Jacobian in its utility file: what is written by columns or rows comes back, in every form.
#include <gtest/gtest.h>

#include "aasubs/derivatives/difference_record.h"
#include "aasubs/derivatives/znlpfid.h"
#include "embed/task.h"

namespace tqnlp::test {
namespace {

// m x n by rows, of every length that matters to pieces of a file: full columns, empty ones, and
// an entry that is rounding beside the others, which the sparse form alone drops.
Vec sample(long m, long n) {
  Vec matrix;
  for (long i = 0; i < m; ++i) {
    for (long j = 0; j < n; ++j) {
      matrix.push_back(j == 1 ? 0.0
                              : (i == 2 && j == 0 ? 1e-17 : double((i * 7 + j * 3) % 11 + 1)));
    }
  }
  return matrix;
}

TEST(JacobianFile, ComesBackInEveryForm) {
  for (const auto& [m, n] : {std::pair{3L, 2L}, std::pair{31L, 3L}, std::pair{200L, 70L}}) {
    DifferenceRecord r(n, m);
    const Vec matrix = sample(m, n);
    constexpr int HELD = 3;  // in memory, with the entries of job 0
    for (const int job : {0, 1, 2, HELD, 0}) {
      const bool rows = job == 2;
      Vec source = matrix;
      if (job == HELD) hold_jacobian(&r, source.data());
      for (long k = 0; job != HELD && k < (rows ? m : n); ++k) {
        znlpjwt(&r, job, k, rows ? 1 : n, source.data() + (rows ? n * k : k));
      }
      Vec expected = matrix;
      if (job == 0 || job == HELD) expected[static_cast<std::size_t>(2 * n)] = 0.0;
      Vec back(matrix.size(), 9), product(static_cast<std::size_t>(m), 9), sums(product.size());
      znlpjrd(&r, back.data());
      EXPECT_EQ(back, expected);
      const Vec vec(static_cast<std::size_t>(n), 0.5);
      znlpjve(&r, vec.data(), product.data());
      for (std::size_t k = 0; k < expected.size(); ++k) sums[k / vec.size()] += 0.5 * expected[k];
      EXPECT_EQ(product, sums);
      Vec row(vec.size(), 9), column(product.size());
      const auto crossproduct = [&, last = n - 1] {
        znlpjdt(&r, last, sums.data(), column.data(), row.data());
      };
      if (job == HELD) {  // readers find it after its owner took it away
        let_go_jacobian(&r);
        source.assign(source.size(), 9);
        Vec again(matrix.size(), 9);
        znlpjrd(&r, again.data());
        EXPECT_EQ(again, expected);
      }
      for (std::size_t i = 0; i < column.size(); ++i)
        column[i] = expected[(i + 1) * vec.size() - 1];
      if (rows) {
        EXPECT_THROW(crossproduct(), embed::ExitRequest);
        continue;
      }
      crossproduct();
      for (std::size_t c = 0; c < row.size(); ++c) {
        double dot = 0.0;
        for (std::size_t i = 0; i < column.size(); ++i)
          dot += column[i] * expected[i * vec.size() + c];
        EXPECT_EQ(row[c], dot);
      }
    }
  }
}

// Missing values count as zero, also in the caller's column; without functions every column is
// empty, and still ends.
TEST(JacobianFile, MissingValuesAndNoFunctions) {
  DifferenceRecord r(1, 3);
  Vec column = {MISSING, 5, MISSING}, back(3);
  znlpjwt(&r, 0, 0, 1, column.data());
  EXPECT_EQ(column, (Vec{0, 5, 0}));
  znlpjrd(&r, back.data());
  EXPECT_EQ(back, column);
  DifferenceRecord none(2, 0);
  none.functions = [](const double*) { return Vec(); };
  none.start({1, 2});
  EXPECT_EQ(znlpfic(&none), 0);
  EXPECT_EQ(none.hess[2], 0);
  EXPECT_EQ(znlpjrd(&none, nullptr), 0);
}

}  // namespace
}  // namespace tqnlp::test
