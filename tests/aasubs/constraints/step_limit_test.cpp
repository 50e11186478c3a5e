// Step limit against a plain ratio test, the removal of dependent rows against known ranks, and the
// loading of a quadratic's matrix and factor from a utility file.
#include <gtest/gtest.h>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba0.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "embed/task.h"
#include "host/files.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"

namespace tqnlp::test {
namespace {

// ---- znlpstl ------------------------------------------------------------------------------------

TEST(StepLimit, RulesAtAConstraint) {
  // Square [0,1]^2 cut by x0 + x1 <= 1.5, at a point on two lower bounds.
  TestRecord r(2);
  r.with_bounds({0, 0}, {1, 1}).with_rows({{{-1, -1}, 1, -1.5}}).at({0, 0});
  long icon;
  long list[8];
  const auto expect = [&](Vec s, int ibo, long count, int code, long blocker, double limit) {
    EXPECT_EQ(code, znlpstl(&r, 0, ibo, count, r.x, s.data(), &icon, nullptr)) << s[0];
    EXPECT_EQ(blocker, icon) << s[0];
    EXPECT_NEAR(limit, r.stub, 1e-15) << s[0];
  };
  expect({0, 0}, 0, 0, 0, -1, 1.0);       // no direction
  expect({-1, -1}, 0, 0, -1, 0, 0.0);     // the scan ends at the first blocking bound
  expect({4, 4}, 0, 0, 0, 4, 1.5 / 8.0);  // row at 3/16 comes before the bounds at 1/4
  expect({4, 4}, 0, 2, 0, 2, 0.25);       // bounds only: of equal steps the first stays
  expect({1, 4}, 0, 1, 0, 2, 1.0);        // the first parameter only
  const double both[] = {-1, -2};
  EXPECT_EQ(-1, znlpstl(&r, 0, 0, 0, r.x, both, &icon, list));  // with a list all are named
  EXPECT_EQ((Longs{2, 0, 1}), (Longs{icon, list[0], list[1]}));

  r.at({-0.5, 2});  // two bounds are violated, the directions count
  expect({-1, 1}, 0, 0, 2, -1, 0.0);
  expect({1, -1}, 0, 0, 0, -1, 1.0);
  r.ipre = 8;  // the tolerance never exceeds 0.001
  expect({-1, 1}, 0, 0, 2, -1, 0.0);
  r.ipre = 0;

  r.at({1, 0.5});  // on the row, which no longer counts once it is active
  r.iact[0] = 0;
  expect({0, 1}, 1, 0, -1, 4, 0.0);
  r.nalc = 1;
  expect({0, 1}, 1, 0, 0, 3, 0.5);
  r.nalc = 0;
  r.nldc = 1;  // deferred: only an exact zero of its residual blocks, and it is not named
  expect({0, 1}, 1, 0, -1, 3, 0.0);
  r.x[0] -= 1e-9;
  expect({0, 1}, 1, 0, 0, 4, 1e-9);

  r.at({0, 0});
  r.nldc = 0;
  r.ntco = 0;  // a list for two bounds, and a third constraint that blocks
  r.blcn[0] = 0;
  r.alcn[0] = r.alcn[1] = 1;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { znlpstl(&r, 0, 0, 0, r.x, both, &icon, list); }));
}

// ---- znlpldc ------------------------------------------------------------------------------------

Vec kept_sides(const TestRecord& r) { return {r.blcn, r.blcn + r.ncon}; }

TEST(Dependence, DuplicatesGoWhateverTheStorage) {
  const std::vector<LinearRow> rows = {
      {{1, 2, 0}, 0, 5},     {{1, 2 * (1 + 4e-16), 0}, 0, 5},  // equal up to rounding
      {{1, 2, 1e-12}, 1, 5}, {{1, 2, 1e-12}, 1, 5.0001},      {{0, 0, 0}, 1, 0}, {{0, 0, 0}, 1, 0},
      {{1, 2, 1e-12}, 1, 5}};
  const Vec expected = {5, 5, 5.0001, 0};
  for (const int aspa : {1, 0}) {
    TestRecord r(3);
    r.with_rows(rows);
    const long ntco = r.ntco;
    Vec dense;
    if (aspa == 0) {
      for (const LinearRow& row : rows) dense.insert(dense.end(), row.a.begin(), row.a.end());
      r.alcn = dense.data();
      r.acget = [](MINSTR* str, long i, double* w) {
        std::copy_n(str->alcn + i * str->nvar, str->nvar, w);
        return 0;
      };
    }
    const std::size_t lines = embed::current_task().log.size();
    EXPECT_EQ(0, znlpldc(&r, 1, aspa, r.jalc, r.naco, r.alcn));
    EXPECT_EQ(expected, kept_sides(r));
    EXPECT_EQ(1, r.neqc);
    EXPECT_EQ(1, r.ntec);
    EXPECT_EQ(ntco - 3, r.ntco);
    Vec row(3);
    r.acget(&r, 2, row.data());
    EXPECT_EQ((Vec{1, 2, 1e-12}), row);
    ASSERT_EQ(lines + 1, embed::current_task().log.size());
    EXPECT_EQ(50, embed::current_task().log.back().number);
  }
}

TEST(Dependence, EqualitiesAreJudgedOnTheFreeParameters) {
  // Parameter 2 is fixed (its upper bound is raised, parameter 0 is fixed within tolerance).
  const auto keep = [](TestRecord& r, double side) {
    r.with_bounds({1, -INF, 3, -INF}, {1 + 1e-9, INF, 2, INF});
    r.with_rows({{{1, 1, 0, 1}, 0, 1},
                 {{5, 2, 7, 2}, 0, side},
                 {{1, 0, 1, 0}, 0, 4},
                 {{0, 1, 0, 2}, 0, 2}});
    EXPECT_EQ(0, znlpldc(&r, 1, 1, r.jalc, r.naco, r.alcn));
    return kept_sides(r);
  };
  // A dependent row that contradicts the others stays: it makes the system infeasible.
  TestRecord contradiction(4);
  EXPECT_EQ((Vec{1, 9, 2}), keep(contradiction, 9));
  TestRecord r(4);
  EXPECT_EQ((Vec{1, 2}), keep(r, 26));
  EXPECT_EQ(3.0, r.ub[2]);
  EXPECT_EQ(1.0, r.ub[0]);
  EXPECT_EQ((std::vector<int>{2, 0, 2, 0}), std::vector<int>(r.iabc, r.iabc + 4));
  EXPECT_EQ((Longs{1, 3}), Longs(r.ifxr, r.ifxr + 2));
  EXPECT_EQ(51, embed::current_task().log.back().number);
  // Also where rows that are all but dependent lead the solution far away.
  for (const int opro : {1, 0}) {
    TestRecord far(2);
    far.with_rows({{{1, 1}, 0, 1}, {{1, 1 + 1e-6}, 0, 2}, {{2, 2}, 0, 3}, {{3, 3}, 0, 3}});
    znlpldc(&far, opro, 1, far.jalc, far.naco, far.alcn);
    EXPECT_EQ((Vec{1, 2, 3}), kept_sides(far));
    TestRecord independent(2);  // all but dependent, and consistent
    independent.with_rows({{{1, 1}, 0, 1}, {{1, 1 + 1e-6}, 0, 1}});
    znlpldc(&independent, opro, 1, independent.jalc, independent.naco, independent.alcn);
    EXPECT_EQ(2, independent.ncon);
  }
}

// Runs body with the k-th file operation refused, k = 0, 1, ..., until it comes through.
void walk_file_faults(const std::function<void()>& body) {
  embed::Task& task = embed::current_task();
  for (long k = 0;; ++k) {
    embed::plan_fault(task, embed::Fault::file_operation, k);
    const int code = exit_code_of(body);
    if (embed::fault_pending(task, embed::Fault::file_operation)) break;
    EXPECT_EQ(EXIT_WORK_FILE, code);
    ASSERT_LT(k, 100);
  }
  embed::clear_faults(task);
}

TEST(Dependence, GramSchmidtRowsInMemoryAndInAFile) {
  const auto run = [&](bool in_file, int opro) {
    TestRecord r(3);
    r.with_rows({{{1, 1, 0}, 0, 1},
                 {{0, 0, 2}, 0, 2},
                 {{3, 3, 4}, 0, 7},
                 {{1, -1, 0}, 0, 4},
                 {{1, 0, 0}, 0, 2.5}});
    if (in_file) r.qlcn = nullptr;
    EXPECT_EQ(0, znlpldc(&r, opro, 1, r.jalc, r.naco, r.alcn));
    EXPECT_EQ((Vec{1, 2, 4}), kept_sides(r));
    EXPECT_EQ(in_file && opro == 2, r.utq != nullptr);
    xcclose(r.utq, 1);
  };
  run(false, 0);
  run(true, 0);
  run(true, 2);
  walk_file_faults([&] { run(true, 0); });
}

// ---- The quadratic's file -----------------------------------------------------------------------

// A positive definite matrix of order 4 with two zeros, its file in the form hfrm, and the arrays.
struct Quadratic {
  static constexpr long N = 4;
  TestRecord r{N};
  Vec packed = {4, 1, 5, 0, 2, 6, 1, 0, 3, 7};
  Vec values;
  Longs jasp, jusp, perm, iprm, jasl, jusl;

  explicit Quadratic(int hfrm) {
    r.hfrm = hfrm;
    r.fqad = 2;
    r.qvec = r.gold;
    EXPECT_EQ(0, xcopen(&r.utquad, nullptr));
    put(Vec{1, 2, 3, 4});
    if (hfrm == 0) put(packed);
    if (hfrm == 2) put(Vec{4, 9, 16, 25});
    if (hfrm == 1) put_sparse();
  }
  ~Quadratic() { xcclose(r.utquad, 1); }

  template <class T>
  void put(const std::vector<T>& v) {
    EXPECT_EQ(0, xcwrite(r.utquad, v.data(), static_cast<long>(v.size() * sizeof(T))));
  }

  void put_sparse() {
    const Longs row = {0, 1, 1, 2, 2, 3, 3, 3}, column = {0, 0, 1, 1, 2, 0, 2, 3};
    const Vec value = {4, 1, 5, 2, 6, 1, 3, 7};
    const long stored = static_cast<long>(value.size());
    const long length = N + 1 + stored, room = 4 * length;
    values.assign(room, 0.0);
    jasp = jasl = Longs(length);
    jusp = jusl = Longs(room);
    perm = iprm = Longs(N);
    Longs count(3 * N + 3), graph(room), node(count), next(count);
    EXPECT_EQ(0, zslltco(1, N, stored, row.data(), column.data(), value.data(), jasp.data(),
                         values.data()));
    EXPECT_EQ(0, zslumdg(N, room, jasp.data(), iprm.data(), perm.data(), count.data(), graph.data(),
                         node.data(), next.data(), 1));
    EXPECT_EQ(0, zslltsf(N, room, iprm.data(), perm.data(), count.data(), graph.data(), node.data(),
                         next.data(), jusp.data()));
    put(Vec(values.begin(), values.begin() + length));
    for (Longs* v : {&jasp, &jusp, &perm, &iprm}) {
      put(*v);
      std::ranges::fill(*v, -1);  // what is read must come from the file
    }
    r.shes = {length,      room,        jasp.data(), jusp.data(),
              perm.data(), iprm.data(), jasl.data(), jusl.data()};
    r.hess = values.data();
  }

  // Is A v = b on the rows and columns of the list?
  void expect_solved(const Longs& list, const Vec& v, const Vec& b) const {
    for (std::size_t i = 0; i < list.size(); ++i) {
      double sum = 0.0;
      for (std::size_t j = 0; j < list.size(); ++j) sum += packed[zisub(list[i], list[j])] * v[j];
      EXPECT_NEAR(b[i], sum, 1e-14);
    }
  }
};

TEST(QuadraticFile, PackedMatrixAndItsFactors) {
  Quadratic q(0);
  EXPECT_EQ(0, znlphlo(&q.r));
  EXPECT_EQ(4.0, q.r.qvec[3]);
  EXPECT_EQ(q.packed, Vec(q.r.hess, q.r.hess + 10));
  const Vec b = {1, -2, 3, 4};
  Vec v = b;
  EXPECT_EQ(0, znlpclo(&q.r));
  znlpcso(&q.r, 2, 4, q.r.half, v.data());
  q.expect_solved({0, 1, 2, 3}, v, b);

  // Parameter 1 on a bound: LDL' of rows 0, 2, 3 in the order that znlpinc leaves.
  q.r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1});
  q.r.iabc[1] = -1;
  q.r.nabc = 1;
  EXPECT_EQ(0, znlpinc(&q.r, 0));
  EXPECT_EQ((Longs{0, 2, 3, 1}), Longs(q.r.ifxr, q.r.ifxr + 4));
  EXPECT_EQ(0, znlpclo(&q.r));
  const Vec wanted = {4.0, 0.0, 6.0, 0.25, 0.5, 7.0 - 0.25 - 1.5};
  for (std::size_t k = 0; k < wanted.size(); ++k) EXPECT_NEAR(wanted[k], q.r.half[k], 1e-14);

  q.r.bounds = 0;
  q.r.sing = 5.0;  // every pivot falls to the limit somewhere
  EXPECT_EQ(-1, znlpclo(&q.r));
  q.r.clod = 1;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { znlpclo(&q.r); }));
}

TEST(QuadraticFile, SparseAndDiagonal) {
  Quadratic q(1);
  const Vec b = {1, -2, 3, 4};
  Vec v = b;
  EXPECT_EQ(0, znlphlo(&q.r));
  EXPECT_EQ(0, znlpclo(&q.r));
  zslltso(q.N, q.r.shes.perm, q.r.shes.jusp, q.r.half, v.data());
  q.expect_solved({0, 1, 2, 3}, v, b);

  q.r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1});
  q.r.iabc[0] = 1;
  q.r.nabc = 1;
  EXPECT_EQ(0, znlpinc(&q.r, 0));
  EXPECT_EQ((Longs{3, 1, 2, 0}), Longs(q.r.ifxr, q.r.ifxr + 4));  // by one exchange
  EXPECT_EQ(0, znlpclo(&q.r));
  v = b;
  zsllts2(3, q.r.shes.perm, q.r.shes.jusl, q.r.shes.jusp, q.r.half, v.data());
  q.expect_solved({3, 1, 2}, v, b);

  // Reduced, and as a row that a freed bound appends to a factor, it is the packed matrix.
  TestRecord dense(q.N);
  std::ranges::copy(q.packed, dense.hess);
  Vec sparse_gradient(q.N), dense_gradient(q.N), reduced(q.values.size()), result(10);
  Vec factors[] = {{2, 3, 4}, {2, 3, 4}};
  q.r.iabc[0] = 0;
  for (TestRecord* each : {&q.r, &dense}) {
    each->with_bounds({0, 0, 0, 0}, {1, 1, 1, 1}).at({0, 0.5, 0, 0.5});
    std::ranges::copy(Vec{1, -2, -3, 4}, each->grad);
    each->crit = 2.0;
    znlpfch(each, 1, 0, 0);
    znlpfta(each, 0, 0, 0, nullptr, nullptr, nullptr);
    long order = 2;
    Vec& factor = factors[each == &dense ? 1 : 0];
    factor.resize(10);
    EXPECT_EQ(3, znlpdac(each, 1, 0, &order, factor.data(), each->hess));
  }
  EXPECT_EQ(factors[1], factors[0]);
  EXPECT_EQ(1.0, factors[0][3]);
  znlphgp(&q.r, 1, 1, sparse_gradient.data(), q.r.hess, reduced.data());
  znlphgp(&dense, 1, 0, dense_gradient.data(), dense.hess, result.data());
  EXPECT_EQ(dense.gcri, q.r.gcri);
  EXPECT_EQ(dense_gradient, sparse_gradient);

  Quadratic diagonal(2);
  EXPECT_EQ(0, znlphlo(&diagonal.r));
  EXPECT_EQ(25.0, diagonal.r.hess[3]);
  EXPECT_EQ(0, znlpclo(&diagonal.r));
  EXPECT_EQ((Vec{2, 3, 4, 5}), Vec(diagonal.r.half, diagonal.r.half + 4));
  diagonal.r.sing = 4.0;
  EXPECT_EQ(-1, znlpclo(&diagonal.r));
  for (Quadratic* each : {&q, &diagonal}) walk_file_faults([&] { znlphlo(&each->r); });
  diagonal.r.hfrm = 3;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { znlphlo(&diagonal.r); }));
}

}  // namespace
}  // namespace tqnlp::test
