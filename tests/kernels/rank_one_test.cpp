// Rows of a packed factor under a rank-one correction: groups of columns against a plain loop.
#include "kernels/rank_one.h"

#include <gtest/gtest.h>

#include "kernels/matrices.h"

namespace tqnlp::test {

static constexpr long MOST = ColumnChanges::MOST;

// Which columns take the second form: none, all, one in seven, every other run of eight.
static bool second_form(int kind, long k) {
  return kind == 1 || (kind == 2 && k % 7 == 3) || (kind == 3 && k / 8 % 2 == 0);
}

static void set_changes(ColumnChanges& changes, int kind, long count, unsigned seed) {
  const Vec v = random_vector(3 * MOST, seed);
  for (long k = 0; k < count; ++k)
    changes.set(k, v[k], v[MOST + k], v[2 * MOST + k], second_form(kind, k));
}

TEST(RankOne, RowsOfEveryLengthFollowThePlainLoopInPanels) {
  ColumnChanges changes;
  for (int kind = 0; kind < 4; ++kind)
    for (long length = 0; length <= 70; ++length) {
      SCOPED_TRACE(testing::Message() << "kind " << kind << ", length " << length);
      Vec row = random_vector(length + 4, 1), wanted = row;
      double y = 0.7, plain = y;
      for (long first = 0; first < length; first += MOST) {
        const long count = std::min(MOST, length - first);
        set_changes(changes, kind, count, static_cast<unsigned>(length + first));
        for (long k = 0; k < count; ++k) {
          const double l = wanted[first + k], before = plain;
          plain -= l * changes.v[k];
          wanted[first + k] = second_form(kind, k) ? changes.w[k] * before + changes.u[k] * l
                                                   : l + changes.w[k] * plain;
        }
        change_row(changes, count, row.data() + first, &y);
      }
      EXPECT_NEAR(y, plain, 1e-13);
      EXPECT_LT(distance(row, wanted), 1e-13);
      EXPECT_TRUE(std::equal(row.begin() + length, row.end(), wanted.begin() + length));
    }
}

TEST(RankOne, AllRowsBelowAPanelChangeToTheSameBitsAsEachAlone) {
  const long n = 75;
  ColumnChanges changes;
  for (int kind = 0; kind < 4; ++kind)
    for (const long first : {0L, 5L})
      for (const long count : {0L, 1L, 3L, 4L, 18L, MOST}) {
        SCOPED_TRACE(testing::Message() << kind << ' ' << first << ' ' << count);
        set_changes(changes, kind, count, 9);
        const long from = first + count + 1;
        Vec c = random_vector(packed_size(n), 2), alone = c, y = random_vector(n, 3), y_alone = y;
        for (long i = from; i < n; ++i)
          change_row(changes, count, &alone[zisub(i, first)], &y_alone[i]);
        run(change_rows, changes, count, from, n, first, c, y);
        EXPECT_EQ(c, alone);
        EXPECT_EQ(y, y_alone);
      }
}

}  // namespace tqnlp::test
