// Working set: after any sequence of changes Q is orthogonal, A Q = (0 T) with T in its reversed
// form, the projected gradient and the projected matrix equal those formed afresh; the choice of
// what to drop leads to feasible descent directions.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpbas.h"
#include "kernels/vector.h"

namespace tqnlp::test {
namespace {

constexpr int LINE_TECHNIQUE = 4;    // consults Q only while a general constraint is active
constexpr int FRAME_TECHNIQUE = 11;  // full frame from the start

bool q_counts(const TestRecord& r) {
  return (r.lincon != 0 || r.nlicon != 0) && (uses_full_frame(r.tech) || r.nalc > 0);
}

// Column k of Q over all parameters; the null-space basis comes first.
Vec column(const TestRecord& r, long k) {
  Vec z(static_cast<std::size_t>(r.nvar), 0.0);
  for (long l = 0; l < free_count(&r); ++l)
    z[r.ifxr[l]] = q_counts(r) ? r.qlcn[l * r.nvar + k] : (l == k ? 1.0 : 0.0);
  return z;
}

Vec fresh_projection(const TestRecord& r) {
  const Dense z(r.nvar, reduced_dimension(&r), [&](long i, long k) { return column(r, k)[i]; });
  return pack(transpose(z) * unpack(r.nvar, Vec(r.hess, r.hess + r.nnva)) * z);
}

void expect_frame(TestRecord& r) {
  const long n = r.nvar;
  const long nfre = free_count(&r);
  Longs seen(r.ifxr, r.ifxr + n);
  std::ranges::sort(seen);
  for (long k = 0; k < n; ++k) ASSERT_EQ(seen[k], k);
  for (long k = nfre; k < n; ++k) EXPECT_NE(r.iabc[r.ifxr[k]], 0);
  EXPECT_EQ(std::count_if(r.ifxr, r.ifxr + nfre, [&](long j) { return r.iabc[j] != 0; }), r.nlbc);
  if (!q_counts(r)) return;
  for (long a = 0; a < nfre; ++a) {
    for (long b = 0; b <= a; ++b)
      ASSERT_NEAR(dot(column(r, a), column(r, b)), a == b ? 1.0 : 0.0, 1e-12);
  }
  for (long i = 0; i < r.nalc; ++i) {
    const Vec row = row_of(r, r.iact[i]);
    for (long k = 0; k < nfre; ++k) {
      const long element = k - (nfre - 1 - i);
      const double wanted = element < 0 ? 0.0 : r.llcn[packed_size(i) + element];
      ASSERT_NEAR(dot(row, column(r, k)), wanted, 1e-11);
    }
  }
}

void expect_gradient(const TestRecord& r, const double* gpro) {
  for (long k = 0; k < reduced_dimension(&r); ++k)
    ASSERT_NEAR(gpro[k], dot(column(r, k), r.grad), 1e-11) << "component " << k;
}

// ches in the form job against the matrix m, both of the given order.
void expect_matrix(const TestRecord& r, int job, const Vec& ches, const Vec& m, long order) {
  for (long p = 0; p < order; ++p) {
    for (long q = 0; q <= p; ++q) {
      const double* row = ches.data() + packed_size(q);
      const double value =
          job == 0 ? ches[zisub(p, q)]
                   : std::inner_product(row, row + q + 1, ches.data() + packed_size(p), 0.0);
      ASSERT_NEAR(value, job == 2 ? m[zisub(r.ipiv[p], r.ipiv[q])] : m[zisub(p, q)], 1e-9);
    }
  }
}

// m in the form job, written by an independent textbook factorization.
void load_matrix(const TestRecord& r, int job, Vec& ches, const Vec& m, long order) {
  for (long p = 0; p < order; ++p) {
    for (long q = 0; q <= p; ++q) {
      double value = job == 2 ? m[zisub(r.ipiv[p], r.ipiv[q])] : m[zisub(p, q)];
      if (job != 0) {
        for (long k = 0; k < q; ++k) value -= ches[zisub(p, k)] * ches[zisub(q, k)];
        value = p == q ? std::sqrt(value) : value / ches[zisub(q, q)];
      }
      ches[zisub(p, q)] = value;
    }
  }
}

// A random Hessian in the record, and as ches in the form job.
Vec load_hessian(Random& random, TestRecord& r, int job, long stride) {
  const Vec full = random_hessian(random, r.nvar, 1.0);
  std::ranges::copy(full, r.hess);
  for (long k = 0; k < r.nvar; ++k) r.ipiv[k] = (1 + stride * k) % r.nvar;
  Vec ches(full.size());
  load_matrix(r, job, ches, full, r.nvar);
  return ches;
}

// ---- Random sequences --------------------------------------------------------------------------

void run_sequences(int technique, int job, bool pass_order) {
  for (unsigned seed = 1; seed <= 12; ++seed) {
    Random random(seed);
    const long n = 9;
    std::vector<LinearRow> rows;
    for (int i = 0; i < 8; ++i) rows.push_back({random.vector(n), i < 2 ? 0 : 1, 0.0});
    for (long j = 0; j < n; ++j) rows[7].a[j] = rows[3].a[j] - 2.0 * rows[5].a[j];
    TestRecord r(n, technique);
    r.with_bounds(Vec(n, 0.0), Vec(n, 1.0)).with_rows(rows);
    Vec ches = load_hessian(random, r, job, 4);
    Vec gpro = random.vector(n);
    std::ranges::copy(gpro, r.grad);
    // The rebuilding carries the matrix along as well.
    r.iabc[4] = 2;
    r.iact[0] = 0;
    r.nalc = 1;
    r.nlbc = r.nldc = r.nanc = 3;  // of an earlier frame
    ASSERT_EQ(znlpfta(&r, 0, 0, job, gpro.data(), ches.data(), r.hess), 0);
    ASSERT_EQ((Longs{r.nabc, r.nalc, r.nlbc, r.nldc, r.nanc}), (Longs{1, 1, 0, 0, 0}));
    long order = reduced_dimension(&r);
    long* nhlf = pass_order ? &order : nullptr;
    expect_matrix(r, job, ches, fresh_projection(r), order);

    for (int change = 0; change < 60; ++change) {
      const long which = random.below(n + 8);
      const bool is_bound = which < n;
      const long ic = is_bound ? which : which - n;
      const long* end = r.iact + r.nalc;
      const bool active = is_bound ? r.iabc[ic] != 0 : std::find(r.iact, r.iact + r.nalc, ic) < end;
      const int koc = !is_bound ? 0 : (active ? r.iabc[ic] : 1 - 2 * (change % 2));
      const long before = reduced_dimension(&r);
      if (active) {
        const int status = znlpdod(&r, job, koc, ic, nhlf, gpro.data(), ches.data(), r.hess);
        ASSERT_EQ(status, job == 0 ? 1 : 0);
      } else if (before > 1) {
        if (znlpupd(&r, 1, job, 0, koc, ic, nhlf, gpro.data(), ches.data()) != 0) continue;
        ASSERT_EQ(znlpupd(&r, 0, job, 0, koc, ic, nhlf, gpro.data(), ches.data()), 0);
      }
      const long nz = reduced_dimension(&r);
      ASSERT_EQ(nz, active ? before + 1 : std::min(before, std::max(before - 1, 1L)));
      ASSERT_EQ(pass_order ? order : nz, nz);
      expect_frame(r);
      expect_gradient(r, gpro.data());
      const Vec fresh = fresh_projection(r);
      if (job == 0 && active) {
        // A symmetric matrix gains a unit row: nothing says what kind of matrix it is. When Q has
        // been given up the matrix stands in another basis.
        if (q_counts(r)) {
          EXPECT_EQ(ches[zisub(nz - 1, nz - 1)], 1.0);
          expect_matrix(r, job, ches, fresh, nz - 1);
        }
        load_matrix(r, job, ches, fresh, nz);
      }
      expect_matrix(r, job, ches, fresh, nz);
      if (testing::Test::HasFatalFailure()) FAIL() << "seed " << seed << " change " << change;
    }
  }
}

TEST(Sequences, KeepFrameGradientAndMatrix) {
  for (const int technique : {LINE_TECHNIQUE, FRAME_TECHNIQUE})
    for (const int job : {0, 1, 2})
      for (const bool pass_order : {false, true}) run_sequences(technique, job, pass_order);
}

// A pivoted factor that covers three of five variables: it stays exact on what it still covers.
TEST(ProjectedFactor, OfLowerRankShrinksAndGrows) {
  Random random(5);
  const long n = 5;
  TestRecord r(n, FRAME_TECHNIQUE);
  r.with_bounds(Vec(n, 0.0), Vec(n, 1.0)).with_rows({{random.vector(n), 1, 0.0}});
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  Vec ches = load_hessian(random, r, 2, 3);
  long order = 3;
  ASSERT_EQ(znlpupd(&r, 0, 2, 0, 0, 0, &order, nullptr, ches.data()), 0);
  EXPECT_EQ(order, 2);
  expect_matrix(r, 2, ches, fresh_projection(r), order);
  ASSERT_EQ(znlpdod(&r, 2, 0, 0, &order, nullptr, ches.data(), r.hess), 0);
  EXPECT_EQ(order, 3);
  expect_matrix(r, 2, ches, fresh_projection(r), order);
  Longs places(r.ipiv, r.ipiv + n);
  std::ranges::sort(places);
  EXPECT_EQ(places, (Longs{0, 1, 2, 3, 4}));
}

// What cannot extend the factor gives diagonal 1, and the status says so.
TEST(ProjectedFactor, ReportsWhatItCannotExtend) {
  TestRecord r(2, FRAME_TECHNIQUE), diagonal(3);
  r.with_bounds({0, 0}, {1, 1}).with_rows({{{1, 1}, 1, 0.0}});
  std::ranges::copy(Vec{4.0, 0.0, -1.0}, r.hess);
  r.iabc[1] = 1;
  Vec ches{2.0, 0.0, 5.0};
  ASSERT_EQ(znlpfta(&r, 0, 0, 1, nullptr, ches.data(), nullptr), 0);
  long order = 1;
  EXPECT_EQ(znlpdod(&r, 1, 1, 1, &order, nullptr, ches.data(), r.hess), 2);
  EXPECT_EQ(10.0 * order + ches[2], 21.0);
  EXPECT_EQ(znlpdod(&r, 1, 0, 0, &order, nullptr, ches.data(), r.hess), 1) << "not active";

  diagonal.with_bounds({0, 0, 0}, {1, 1, 1});
  diagonal.hfrm = 2;
  std::ranges::copy(Vec{0.0, -1.0, -2.0}, diagonal.grad);
  Vec roots{3.0, 0, 2.0, 0, 0, 1.0}, hess{9.0, 4.0, -1.0};
  diagonal.iabc[1] = diagonal.iabc[2] = 1;
  ASSERT_EQ(znlpfta(&diagonal, 0, 0, 1, nullptr, roots.data(), nullptr), 0);
  order = 1;
  EXPECT_EQ(znlpdac(&diagonal, 1, 0, &order, roots.data(), hess.data()), -1);
  EXPECT_EQ(diagonal.idac, 3);
  EXPECT_EQ(znlpdac(&diagonal, 1, 0, &order, roots.data(), hess.data()), 2);
  EXPECT_EQ(roots, (Vec{3.0, 0, 1.0, 0, 0, 2.0}));
}

// ---- Deferred constraints ----------------------------------------------------------------------

TEST(Deferred, RowsAndBoundsWaitAndEnterAfterADrop) {
  for (int technique : {LINE_TECHNIQUE, FRAME_TECHNIQUE}) {
    TestRecord r(3, technique);
    r.with_bounds({0, 0, 0}, {9, 9, 9})
        .with_rows({{{1, 0, 0}, 1, 0}, {{1, 1, 0}, 1, 0}, {{3, 1, 0}, 1, 0}, {{0, 1, 1}, 1, 0}});
    const auto add = [&](int test_only, int koc, long ic) {
      return znlpupd(&r, test_only, 0, 0, koc, ic, nullptr, nullptr, nullptr);
    };
    const auto retry = [&] { return znlpcld(&r, 0, nullptr, nullptr, nullptr); };
    ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(add(0, 0, 0), 0);
    EXPECT_EQ(add(0, 1, 0), 1) << "bound like row 0";
    EXPECT_TRUE(r.nlbc == 1 && r.iabc[0] == 1);
    ASSERT_EQ(add(0, 0, 1), 0);
    EXPECT_EQ(add(1, 0, 2), 1);
    EXPECT_EQ(r.nldc, 0) << "a test changes nothing";
    EXPECT_EQ(add(0, 0, 2), 1);
    ASSERT_EQ(add(0, 0, 3), 0);
    EXPECT_EQ(Longs(r.iact, r.iact + 4), (Longs{0, 1, 3, 2}));
    EXPECT_EQ(add(0, -1, 2), 1) << "nothing fits";
    EXPECT_EQ(retry(), 0);
    EXPECT_EQ(r.nldc + 10 * r.nlbc, 21);
    expect_frame(r);

    ASSERT_EQ(znlpdod(&r, 0, 0, 1, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(retry(), 1);
    EXPECT_EQ(r.nabc, 1) << "the bound of parameter 2 took the place";
    EXPECT_EQ(r.nldc + 10 * r.nlbc, 11);
    expect_frame(r);
    ASSERT_EQ(znlpdod(&r, 0, 0, 0, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(retry(), 1);
    EXPECT_EQ(r.nabc, 2);
    EXPECT_EQ(reduced_dimension(&r), 0);
    expect_frame(r);
    r.liwk[0] = 0;
    r.liwk[1] = 3 + 3;
    EXPECT_EQ(znlpcsr(&r, 0, 2, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(r.nabc + 10 * r.nalc, 1);
    expect_frame(r);
  }
  // A row scaled down does not become dependent: the row test is relative, the bound test absolute.
  TestRecord r(3);
  r.with_bounds({0, 0, 0}, {9, 9, 9}).with_rows({{{1e-9, 0, 0}, 1, 0}, {{1e-9, 1e-9, 0}, 1, 0}});
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 0, 1, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(znlpupd(&r, 0, 0, 0, 1, 2, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(znlpupd(&r, 0, 0, 1, 1, 2, nullptr, nullptr, nullptr), 0) << "no test when re-adding";
}

// ---- Feasibility and detection -----------------------------------------------------------------

TEST(Feasibility, FillsStatusInOrder) {
  TestRecord r(5);
  EXPECT_EQ(znlpfch(&r, 1, 1, 0), 0) << "nothing to test";
  r.with_bounds({0, 0, 2, 0, -INF}, {1, 1e-9, 2, 1e-8, 3})
      .with_rows({{{1, 0, 0, 0, 1}, 0, 3.0}, {{0, 0, 0, 0, 1}, 1, 3.0}, {{0, 0, 1, 0, 0}, 1, 0.0}});
  Vec fcon{0.0, 1.0, -1e-9};
  r.nlicon = 1;
  r.nnlc = 3;
  r.nlec = 1;
  r.fcon = fcon.data();
  Longs wide(20);
  r.iact = wide.data();
  r.iabc[2] = 0;
  r.at({0.0, 0.0, 2.0, 0.0, 3.0 - 1e-9});
  EXPECT_EQ(znlpfch(&r, 1, 1, 0), 0);
  EXPECT_EQ(std::vector<int>(r.iabc, r.iabc + 5), (std::vector<int>{1, 2, 2, 2, -1}));
  EXPECT_EQ((Longs{r.nabc, r.nalc, r.nanc}), (Longs{5, 4, 2}));
  EXPECT_EQ(Longs(r.iact, r.iact + 4), (Longs{0, 3, 1, 5}));
  EXPECT_NEAR(r.cmax, 1e-9, 1e-15);
  fcon[2] = -1e-7;
  EXPECT_EQ(znlpfch(&r, 0, 1, 0), -1);
  EXPECT_EQ(znlpfch(&r, 0, 1, 1), 0) << "ten times the tolerance";
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), 0) << "nonlinear constraints only on demand";
  r.x[4] = 3.0 - 1e-7;
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), -1) << "rows are tested";
  r.x[4] = MISSING;
  EXPECT_EQ(znlpfch(&r, 0, 0, 0), -1) << "a value that is no number is not feasible";

  TestRecord narrow(2);
  narrow.with_bounds({0, 0}, {3e-8, 1}).at({1.5e-8, -5.0});
  EXPECT_EQ(znlpfch(&narrow, 1, 0, 1), -1);
  EXPECT_EQ(narrow.iabc[0], -1) << "the upper bound wins";
  EXPECT_EQ(narrow.iabc[1], 1) << "a violated bound counts as active";
  EXPECT_EQ(narrow.cmax, 5.0);
}

TEST(Detection, AddsWhatIsActiveAndCountsViolations) {
  TestRecord r(4);
  r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1})
      .with_rows({{{1, 1, 1, 1}, 1, 1.5}, {{1, 0, 0, 1}, 1, 5.0}, {{2, 2, 2, 2}, 1, 3.0}});
  ASSERT_EQ(znlpfta(&r, 0, 0, 0, nullptr, nullptr, nullptr), 0);
  r.at({0.0, 1.0, 0.7, -0.2});
  EXPECT_EQ(znlpact(&r, 0, 1, nullptr, nullptr, nullptr), -2);
  EXPECT_EQ(std::vector<int>(r.iabc, r.iabc + 4), (std::vector<int>{1, -1, 0, 0}));
  EXPECT_EQ((Longs{r.nabc, r.nalc, r.nldc, r.chac}), (Longs{2, 1, 1, 3})) << "row 2 depends on 0";
  expect_frame(r);
  EXPECT_EQ(znlpact(&r, 0, 0, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(r.chac, 0);
}

TEST(BoundsAlone, PermutationMatrixAndDrop) {
  const long n = 6;
  for (int job : {1, 2}) {
    Random random(3);
    TestRecord r(n);
    r.with_bounds(Vec(n, 0.0), {1, 1, 1, 1, 1, 0}).at({0, 0.5, 1, 0.5, 0, 0});
    std::ranges::copy(Vec{-1.0, 7.0, 1.0, -8.0, -0.5, -9.0}, r.grad);
    Vec ches = load_hessian(random, r, job, 5), gpro(n);
    ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
    ASSERT_EQ(znlpfta(&r, 0, 0, job, nullptr, ches.data(), nullptr), 0);
    EXPECT_EQ(Longs(r.ifxr, r.ifxr + n), (Longs{1, 3, 5, 4, 2, 0}));
    // The slopes of the bounds of 0 and 2 are equal: the first wins. Parameter 5 is fixed.
    long order = 2;
    EXPECT_EQ(znlpdac(&r, job, 0, &order, ches.data(), r.hess), 1);
    EXPECT_EQ((Longs{r.idac, r.chac, order, r.ifxr[2]}), (Longs{1, -1, 3, 0}));
    expect_matrix(r, job, ches, fresh_projection(r), 3);
    EXPECT_EQ(znlpdod(&r, job, -1, 2, &order, gpro.data(), ches.data(), r.hess), 0);
    EXPECT_EQ(gpro[3], r.grad[2]);
    expect_matrix(r, job, ches, fresh_projection(r), 4);
  }
}

// ---- Choice of what to drop --------------------------------------------------------------------

// Is the projected descent direction feasible for everything active at x, and downhill?
void expect_feasible_descent(TestRecord& r) {
  Vec d(static_cast<std::size_t>(r.nvar), 0.0);
  for (long k = 0; k < reduced_dimension(&r); ++k) {
    const Vec z = column(r, k);
    for (long j = 0; j < r.nvar; ++j) d[j] -= r.gpro[k] * z[j];
  }
  EXPECT_LT(dot(d, r.grad), -1e-8);
  for (long i = 0; i < r.ncon; ++i) {
    const Vec a = row_of(r, i);
    const bool active = std::fabs(dot(a, r.x) - r.blcn[i]) < 1e-9;
    EXPECT_TRUE(!active || dot(a, d) > -1e-7) << "row " << i;
  }
  for (long j = 0; j < r.nvar; ++j) {
    EXPECT_TRUE(r.x[j] != r.lb[j] || d[j] > -1e-7) << "lower bound " << j;
    EXPECT_TRUE(r.x[j] != r.ub[j] || d[j] < 1e-7) << "upper bound " << j;
  }
}

void build_frame_at_x(TestRecord& r) {
  ASSERT_EQ(znlpfch(&r, 1, 1, 0), 0);
  ASSERT_EQ(znlpfta(&r, 0, 1, 0, nullptr, nullptr, nullptr), 0);
}

TEST(Choice, ThresholdFollowsTheDocumentedRule) {
  // One bound of a problem with a row that is never active; its multiplier is -5e-4.
  using Row = std::array<double, 4>;
  for (const auto& [deat, agtl, other_gradient, result] :
       {Row{MISSING, 1e-5, 0.1, 1}, Row{MISSING, 1e-5, 0.6, 0},  // a thousandth of gmax
        Row{MISSING, 6e-3, 0.1, 0}, Row{4e-4, 1.0, 9.0, 1},      // a tenth of ABSGCONV; as given
        Row{5e-4, 1e-5, 0.1, 0}, Row{0.0, 1e-5, 0.1, 1}}) {      // strict; zero is not given
    TestRecord r(2);
    r.with_bounds({0, -1}, {1, 1}).with_rows({{{1, 1}, 1, -9.0}});
    std::ranges::copy(Vec{-5e-4, other_gradient}, r.grad);
    r.deat = deat;
    r.agtl = agtl;
    build_frame_at_x(r);
    EXPECT_EQ(znlpdac(&r, 0, 0, nullptr, nullptr, nullptr), result) << deat << " " << agtl;
  }
}

// The first form would drop the row; the gradient at the Newton point of the working set would not.
TEST(Choice, SecondFormLooksAtTheNewtonPoint) {
  for (int second_form : {0, 1}) {
    TestRecord r(2);
    r.with_rows({{{1, 0}, 1, 0.0}});
    std::ranges::copy(Vec{1.0, 0.5, 1.0}, r.hess);
    std::ranges::copy(Vec{-0.1, -1.0}, r.grad);
    build_frame_at_x(r);
    EXPECT_EQ(znlpdac(&r, 0, second_form, nullptr, nullptr, nullptr), 1 - second_form);
  }
}

// Nonlinear rows count like linear ones, also where there are no others: the bound goes, and what
// is left of the gradient lies in the tangent space of the equality.
TEST(Choice, KeepsToTheTangentSpaceOfNonlinearConstraints) {
  TestRecord r(3);
  r.with_bounds({0, -1, -1}, {1, 1, 1});
  Vec value{0.0}, gradient{1.0, 2.0, 3.0}, lagrange(3);
  r.nlicon = r.opro = 1;
  r.nnlc = r.nlec = 1;
  r.fcon = value.data(), r.jcon = gradient.data(), r.grlf = lagrange.data();
  r.acget = [](MINSTR* str, long, double* w) {
    std::copy_n(str->jcon, 3, w);
    return 0;
  };
  std::ranges::copy(Vec{1.0, 0.5, 1.0, 0.0, 0.0, 1.0}, r.hess);
  std::ranges::copy(Vec{-5.0, 1.0, 0.5}, r.grad);
  build_frame_at_x(r);
  EXPECT_EQ(znlplm2(&r), 0);
  // The Newton point keeps to both members: H s = lag2 combination - g with s = t (0, 3, -2).
  const double t = -2.0 / 13.0;
  EXPECT_NEAR(1.0 + 9.0 * t / 3.0, 2.0 * r.lag2[1], 1e-12);
  EXPECT_NEAR(-5.0 + 1.5 * t - r.lag2[1], r.lag2[0], 1e-12);
  EXPECT_EQ(znlpdac(&r, 0, 0, nullptr, nullptr, nullptr), 1);
  EXPECT_EQ((Longs{r.idac, r.nalc, r.nabc}), (Longs{1, 1, 0}));
  expect_frame(r);
  expect_gradient(r, r.gpro);
}

// Is x stationary on the working set, with multipliers of the right sign? Then no direction that is
// feasible for the active constraints leads downhill.
void expect_stationary(TestRecord& r) {
  for (long k = 0; k < reduced_dimension(&r); ++k) EXPECT_NEAR(r.gpro[k], 0.0, 1e-7);
  if (r.nabc + r.nalc > 0) znlpglm(&r, 0, r.grad, r.lagm);
  for (long k = 0; k < r.nabc + r.nalc; ++k) EXPECT_GE(r.lagm[k], -1e-3);
  EXPECT_GE(r.chac, 0) << "nothing was dropped";
}

// The gradient that is stationary on the working set, with one multiplier of the wrong sign.
void make_stationary(Random& random, TestRecord& r) {
  std::fill_n(r.grad, r.nvar, 0.0);
  const long wrong = random.below(r.nabc + r.nalc);
  for (long k = 0; k < r.nabc + r.nalc; ++k) {
    const double multiplier = k == wrong ? -0.5 : random.within(0.1, 1.0);
    const long j = k < r.nabc ? r.ifxr[free_count(&r) + k] : -1;
    if (j >= 0) r.grad[j] += multiplier * r.iabc[j];
    if (j < 0) zvxay11(r.nvar, r.grad, multiplier, row_of(r, r.iact[k - r.nabc]).data());
  }
}

// Degenerate points: many rows and bounds through one point, gradient at random. The choice leads
// to a feasible descent direction, or shows that there is none.
TEST(Choice, LeavesDegeneratePointsByFeasibleDirections) {
  long single = 0, block = 0, optimal = 0;
  for (unsigned seed = 1; seed <= 400; ++seed) {
    Random random(seed);
    const long n = 3 + random.below(3);
    const bool keeps_free = seed % 4 == 1;  // the last parameter has no part in what is active
    const bool optimum = seed % 5 == 0;
    std::vector<LinearRow> rows;
    const Vec inside = random.vector(n);
    for (long i = 0; i < 2 * n; ++i) {
      Vec a = random.vector(n);
      if (dot(a, inside) < 0.0) {
        for (double& e : a) e = -e;
      }
      if (keeps_free) a[n - 1] = 0.0;
      rows.push_back({a, 1, 0.0});
    }
    if (seed % 3 == 0) rows[1].a = rows[0].a;
    TestRecord r(n, seed % 2 == 0 ? LINE_TECHNIQUE : FRAME_TECHNIQUE);
    Vec lower(n, -1.0);
    if (inside[0] > 0.0) lower[0] = 0.0;
    r.with_bounds(lower, Vec(n, 1.0)).with_rows(rows);
    std::ranges::copy(random.vector(n), r.grad);
    if (optimum) {  // by construction: g in the cone of the normals
      std::fill_n(r.grad, n, 0.0);
      for (const LinearRow& row : rows) zvxay11(n, r.grad, 1.0, row.a.data());
    }
    // A projected factor goes through all trials, with and without pivots.
    const int job = 1 + static_cast<int>(seed / 2 % 2);
    Vec ches = load_hessian(random, r, job, n - 1);
    ASSERT_EQ(znlpfch(&r, 1, 0, 0), 0);
    znlpfta(&r, 0, 0, job, nullptr, ches.data(), nullptr);
    if (keeps_free && !optimum) make_stationary(random, r);
    long order = reduced_dimension(&r);
    const int code = znlpdac(&r, job, 0, &order, ches.data(), r.hess);
    expect_frame(r);
    ASSERT_EQ(order, reduced_dimension(&r));
    expect_matrix(r, job, ches, fresh_projection(r), order);
    if (HasFatalFailure()) FAIL() << seed;
    ASSERT_GE(code, 0);
    if (r.idac > 0) {
      (r.idac == BLOCK_DROPPED ? block : single) += 1;
      expect_gradient(r, r.gpro);
      expect_feasible_descent(r);
      EXPECT_FALSE(optimum) << "no descent from there";
    } else {
      // A block may have been exchanged on the way to an optimal working set.
      expect_stationary(r);
      ++optimal;
    }
    if (HasFailure()) FAIL() << seed;
  }
  EXPECT_GT(single, 50);
  EXPECT_GT(block, 5);
  EXPECT_GT(optimal, 5);
}

}  // namespace
}  // namespace tqnlp::test
