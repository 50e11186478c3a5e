// The range-space frame: whatever enters and leaves, u, v, w and the rows are those that a new
// frame of the same working set has, in every form of the matrix, in memory and in a file.
#include <gtest/gtest.h>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpftr.h"
#include "aasubs/post/znlpspm.h"
#include "host/files.h"
#include "host/memory.h"
#include "kernels/dense.h"

namespace tqnlp::test {
namespace {

// A random strictly convex quadratic with its frame; x is feasible, a few rows hold there.
struct Framed {
  TestRecord r;
  Vec room;
  double* own_hess;

  Framed(Random& random, long n, int form, bool bounds, bool in_file) : r(n, QUADAS) {
    own_hess = r.hess;
    Vec h = form == 2 ? Vec(packed_size(n)) : random_hessian(random, n, 0.5);
    for (long i = 0; i < n; ++i) {
      for (long j = 0; j < i && form == 1; ++j) h[zisub(i, j)] *= i - j == 1 || i == n - 1;
      h[zisub(i, i)] += 1.0 + static_cast<double>(form == 1 ? n : 0);
    }
    std::ranges::copy(h, r.hess);
    std::vector<LinearRow> rows;
    const Vec x = random.vector(n);
    for (long i = 0; i < n; ++i) {
      const Vec a = random_row(random, n, false);
      rows.push_back({a, i < 2 ? 0 : 1, dot(a, x) - (i % 3 == 0 ? 0.5 : 0.0)});
      if (i < 2) rows.back().b = dot(a, x);
    }
    r.with_rows(rows).at(x);
    if (bounds) {
      Vec lower = x, upper = x;
      for (long j = 0; j < n; ++j) lower[j] -= j % 2, upper[j] += j % 4;
      r.with_bounds(lower, upper);
    }
    if (form != 0) {
      r.ratio = 1e6;
      EXPECT_EQ(0, znlpspm(&r, 0, 1, SPM_PACKED, 0));
      EXPECT_EQ(form, r.hfrm);
    }
    give_range_space(r, room);
    r.usclo = znlpclo;
    r.sing = 0.0;
    r.fqad = 2;
    r.qvec = r.gold;
    std::ranges::copy(random.vector(n), r.grad);
    if (in_file) r.qlcn = nullptr;
  }
  ~Framed() {
    xcclose(r.utq, 1);
    if (r.hess != own_hess) vmfree_handler(r.hess);
    release_pattern(&r.shes);
    r.hess = own_hess;
  }

  // Largest difference of u, v, w from those of a frame made anew.
  double drift() {
    const long n = r.nvar;
    const Vec kept(room.begin(), room.begin() + 4 * n);
    inuvwg(&r, r.half);
    double largest = 0.0;
    for (long k = 0; k < 4 * n; ++k) largest = std::max(largest, std::fabs(kept[k] - room[k]));
    return largest;
  }
};

TEST(RangeFrame, FollowsChangesOfTheWorkingSet) {
  for (unsigned seed = 0; seed < 120; ++seed) {
    Random random(seed);
    const int form = static_cast<int>(seed % 3);
    Framed f(random, 4 + random.below(8), form, seed % 2 == 0, seed % 5 == 0);
    MINSTR* r = &f.r;
    znlpfch(r, 1, 0, 0);
    ASSERT_EQ(0, znlpftr(r, 0, 0, r->half));
    for (int change = 0; change < 30; ++change) {
      // x moves along the direction: the gradient on the free parameters by alfa H d = -alfa L w
      const double alfa = random.one_in(3) ? 0.0 : random.one_in(4) ? 1.0 : random.within(0, 1);
      frame_direction(r, r->half);
      Vec product(r->nvar);
      quadratic_product(r, r->sdir, product.data());
      for (long j = 0; j < r->nvar; ++j) {
        r->grad[j] += alfa * product[j];
        r->x[j] += alfa * r->sdir[j];
      }
      const long k = random.below(r->nabc + r->nalc + 1);
      if (k < r->nabc) {
        const long j = r->ifxr[free_count(r) + k];
        ASSERT_EQ(0, znlpdor(r, r->iabc[j], j, alfa, r->half));
      } else if (k < r->nabc + r->nalc) {
        ASSERT_EQ(0, znlpdor(r, 0, r->iact[k - r->nabc], alfa, r->half));
      } else {
        const long free = r->ifxr[0];
        const long row = random.below(r->ncon);
        const bool member = std::find(r->iact, r->iact + r->nalc, row) != r->iact + r->nalc;
        const bool bound = r->bounds != 0 && (member || random.one_in(3)) && r->iabc[free] == 0;
        if (member && !bound) {
          frame_advance(r, alfa);
        } else {
          const int koc = bound ? 1 : 0;
          const int apart = znlpupr(r, 1, koc, bound ? free : row, alfa, r->half);
          const int status = znlpupr(r, 0, koc, bound ? free : row, alfa, r->half);
          EXPECT_EQ(apart, status);
          if (status == 1) frame_advance(r, alfa);
        }
      }
      EXPECT_LT(f.drift(), 1e-9) << "seed " << seed << ", change " << change;
      // Multipliers leave nothing of the gradient at a minimizer: g - A'lambda = L w.
      frame_direction(r, r->half);
      quadratic_product(r, r->sdir, product.data());
      frame_projection(r);
      for (long l = 0; l < free_count(r); ++l) {
        EXPECT_NEAR(-product[r->ifxr[l]], r->gpro[r->ifxr[l]], 1e-9);
      }
      znlpldr(r, r->half);
      f.drift();
    }
  }
}

// The most negative multiplier leaves, and only if it is below the threshold.
TEST(RangeFrame, DropsWhatWantsToLeave) {
  Random random(3);
  Framed f(random, 8, 0, true, false);
  MINSTR* r = &f.r;
  znlpfch(r, 1, 0, 0);
  ASSERT_EQ(0, znlpftr(r, 0, 1, r->half));
  const long members = r->nabc + r->nalc;
  r->deat = 1e9;
  EXPECT_EQ(0, znlpdar(r, 0.0, r->half));
  r->deat = MISSING;
  for (long left = 1; znlpdar(r, 0.0, r->half) == 1; ++left) {
    EXPECT_EQ(-1, r->idac);
    ASSERT_LE(left, members);
  }
  frame_projection(r);
  for (long k = 0; k < r->nabc + r->nalc; ++k) {
    const bool equality =
        k < r->nabc ? r->iabc[r->ifxr[free_count(r) + k]] == 2 : r->iact[k - r->nabc] < r->neqc;
    EXPECT_TRUE(equality || r->lagm[k] >= -1e-7) << k;
  }
  // What holds at x enters again.
  EXPECT_EQ(1, znlpacr(r, 0.0, r->half));
  EXPECT_EQ(members, r->nabc + r->nalc);
}

}  // namespace
}  // namespace tqnlp::test
