// Rows of a packed factor under rank-one corrections, and rotations along them: eight rows side by
// side against a plain loop along each, to the last bit; the symmetric update against its formula.
#include "kernels/rank_one.h"

#include <gtest/gtest.h>

#include "kernels/matrices.h"
#include "kernels/rotation_sweeps.h"

namespace tqnlp::test {

// Which columns take the second form: none, all, one in seven, every other run of eight.
static bool second_form(int kind, long k) {
  return kind == 1 || (kind == 2 && k % 7 == 3) || (kind == 3 && k / 8 % 2 == 0);
}

static void set_changes(ColumnChanges& changes, int kind, long count, unsigned seed) {
  const Vec v = random_vector(3 * count, seed, 0.1);
  for (long k = 0; k < count; ++k)
    changes.set(k, v[k], v[count + k], v[2 * count + k], second_form(kind, k));
}

TEST(RankOne, RowsSideBySideFollowThePlainLoop) {
  const long n = 75;
  RowCorrections corrections;
  for (int kind = 0; kind < 16; ++kind)
    for (const long first : {0L, 5L})
      for (const long count : {0L, 1L, 7L, 8L, 18L, 60L})
        for (const long rows : {1L, 8L, 15L}) {
          SCOPED_TRACE(testing::Message() << kind << ' ' << first << ' ' << count << ' ' << rows);
          const long from = first + count, to = std::min(from + rows, n);
          Vec c = random_vector(packed_size(n), 2), plain = c;
          Vec y[] = {random_vector(n, 3), random_vector(n, 4)}, y_plain[] = {y[0], y[1]};
          corrections.count = 1 + kind / 4 % 2;
          for (int m = 0; m < 2; ++m) {
            set_changes(corrections.changes[m], m == 0 ? kind % 4 : (kind + 1) % 4, count, 9 + m);
            corrections.y[m] = y[m].data();
          }
          for (long i = from; i < to; ++i)
            for (long k = 0; k < count; ++k)
              for (int m = 0; m < corrections.count; ++m) {
                const ColumnChanges& change = corrections.changes[m];
                double& l = plain[zisub(i, first + k)];
                const double before = y_plain[m][i];
                y_plain[m][i] -= l * change.v[k];
                l = change.by_ratio[k] ? before * change.w[k] + l * change.u[k]
                                       : l + change.w[k] * y_plain[m][i];
              }
          change_rows(corrections, count, from, to, first, c.data());
          EXPECT_EQ(c, plain);
          EXPECT_EQ(y[0], y_plain[0]);
          EXPECT_EQ(y[1], y_plain[1]);
        }
}

TEST(RankOne, RotationsOfRowsSideBySideFollowThePlainLoop) {
  for (long run = 0; run <= 99; ++run) {
    const long i = run / 3, count = 8 * (run % 3 + 1);
    Vec up_c = random_vector(i + count, 1), up_s = random_vector(i + count, 2),
        v = random_vector(i + count, 3);
    Vec down_c = random_vector(i + count, 4), down_s = random_vector(i + count, 5);
    Vec c = random_vector(packed_size(i + count), 6), plain = c;
    const RotationSweeps sweeps{
        {up_c.data(), up_s.data()}, 0.7, v.data(), {down_c.data(), down_s.data()}};
    for (long j = i; j < i + count; ++j) {
      double* row = &plain[packed_size(j)];
      const auto rotate = [row](const RotationSweeps::Rotations& by, long k) {
        const double upper = row[k];
        row[k] = by.c[k] * upper + by.s[k] * row[k + 1];
        row[k + 1] = by.c[k] * row[k + 1] - by.s[k] * upper;
      };
      for (long k = i - 1; k >= 0; --k) rotate(sweeps.up, k);
      row[0] += 0.7 * v[j];
      for (long k = 0; k < i; ++k) rotate(sweeps.down, k);
    }
    sweep_rows(sweeps, i, count, c.data());
    EXPECT_EQ(c, plain) << i;
  }
}

TEST(RankOne, SymmetricUpdateAddsTwoProducts) {
  for (long n = 0; n <= 37; ++n) {
    const Vec a = random_vector(n, 1), s = random_vector(n, 2), b = random_vector(n, 3);
    const Vec p = random_vector(n, 4);
    Vec h = random_vector(packed_size(n), 5), plain = h;
    for (long i = 0; i < n; ++i)
      for (long j = 0; j <= i; ++j) plain[zisub(i, j)] += a[i] * s[j] - b[i] * p[j];
    run(add_products, n, a, s, b, p, h);
    EXPECT_EQ(h, plain) << n;
  }
}

}  // namespace tqnlp::test
