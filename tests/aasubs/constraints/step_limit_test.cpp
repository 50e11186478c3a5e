// Step limit against a plain ratio test, the removal of dependent rows against known ranks, and the
// loading of a quadratic's matrix and factor from a utility file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "embed/task.h"
#include "host/files.h"
#include "kernels/sparse.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;
using Longs = std::vector<long>;
constexpr double INF = HUGE_VALUE;

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  double uniform() { return 2.0 * (static_cast<double>(engine_()) / 4294967296.0) - 1.0; }
  long below(long n) { return static_cast<long>(engine_() % static_cast<unsigned long>(n)); }
  Vec vector(long n) {
    Vec v(static_cast<std::size_t>(n));
    for (double& e : v) e = uniform();
    return v;
  }

 private:
  std::mt19937 engine_;
};

int exit_code_of(const std::function<void()>& body) {
  try {
    body();
  } catch (const embed::ExitRequest& request) {
    return request.code;
  }
  return 0;
}

// ---- znlpstl ------------------------------------------------------------------------------------

TEST(StepLimit, IsTheSmallestRatioOverAllConstraintsThatAreApproached) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    Random random(seed);
    const long n = 1 + random.below(8);
    Vec lower(static_cast<std::size_t>(n), -INF);
    Vec upper(static_cast<std::size_t>(n), INF);
    for (long j = 0; j < n; ++j) {
      if (random.below(2) == 0) lower[static_cast<std::size_t>(j)] = -0.1 - random.below(3);
      if (random.below(2) == 0) upper[static_cast<std::size_t>(j)] = 0.1 + random.below(3);
    }
    std::vector<LinearRow> rows;
    for (long i = 0; i < 6; ++i) rows.push_back({random.vector(n), 1, -0.05 - random.below(2)});
    TestRecord r(n);
    r.with_bounds(lower, upper).with_rows(rows);
    const Vec s = random.vector(n);

    double limit = INF;  // from the origin, where all right sides are negative
    long blocker = -1;
    const auto meet = [&](long code, double distance, double speed) {
      if (speed > 0.0 && distance / speed < limit) {
        limit = distance / speed;
        blocker = code;
      }
    };
    for (std::size_t j = 0; j < s.size(); ++j) {
      const long code = static_cast<long>(j);
      if (lower[j] > -INF) meet(code, -lower[j], -s[j]);
      if (upper[j] < INF) meet(n + code, upper[j], s[j]);
    }
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const double slope = std::inner_product(s.begin(), s.end(), rows[i].a.begin(), 0.0);
      meet(2 * n + static_cast<long>(i), -rows[i].b, -slope);
    }

    long icon = -9;
    EXPECT_EQ(0, znlpstl(&r, 0, 1, 0, r.x, s.data(), &icon, nullptr));
    EXPECT_EQ(blocker, icon);
    EXPECT_NEAR(limit, r.stub, 1e-14 * limit);
    EXPECT_EQ(0, znlpstl(&r, 0, 0, 0, r.x, s.data(), &icon, nullptr));
    EXPECT_NEAR(std::min(limit, 1.0), r.stub, 1e-14);
    EXPECT_EQ(limit > 1.0 ? -1 : blocker, icon);
  }
}

TEST(StepLimit, RulesAtAConstraint) {
  // Square [0,1]^2 cut by x0 + x1 <= 1.5, at a point on two lower bounds.
  TestRecord r(2);
  r.with_bounds({0, 0}, {1, 1}).with_rows({{{-1, -1}, 1, -1.5}}).at({0, 0});
  long icon;
  long list[8];
  const auto answer = [&](Vec s, int ibo, long count, long* iwk) {
    return znlpstl(&r, 0, ibo, count, r.x, s.data(), &icon, iwk);
  };

  EXPECT_EQ(0, answer({0, 0}, 0, 0, nullptr));  // no direction
  EXPECT_EQ(-1, icon);
  EXPECT_EQ(1.0, r.stub);

  EXPECT_EQ(-1, answer({-1, -1}, 0, 0, nullptr));  // the scan ends at the first blocking bound
  EXPECT_EQ(0, icon);
  EXPECT_EQ(0.0, r.stub);
  EXPECT_EQ(-1, answer({-1, -2}, 0, 0, list));  // with a list all are named
  EXPECT_EQ(2, icon);
  EXPECT_EQ(0, list[0]);
  EXPECT_EQ(1, list[1]);

  EXPECT_EQ(0, answer({4, 4}, 0, 0, nullptr));  // row at 3/16 comes before the bounds at 1/4
  EXPECT_EQ(4, icon);
  EXPECT_DOUBLE_EQ(1.5 / 8.0, r.stub);
  EXPECT_EQ(0, answer({4, 4}, 0, 2, nullptr));  // bounds only: of equal steps the first stays
  EXPECT_EQ(2, icon);
  EXPECT_DOUBLE_EQ(0.25, r.stub);
  EXPECT_EQ(0, answer({1, 4}, 0, 1, nullptr));  // the first parameter only
  EXPECT_EQ(1.0, r.stub);

  r.at({-0.5, 2});  // two bounds are violated, the directions count
  EXPECT_EQ(2, answer({-1, 1}, 0, 0, nullptr));
  EXPECT_EQ(0.0, r.stub);
  EXPECT_EQ(0, answer({1, -1}, 0, 0, nullptr));
  r.ipre = 8;  // the tolerance never exceeds 0.001
  EXPECT_EQ(2, answer({-1, 1}, 0, 0, nullptr));
  r.ipre = 0;

  r.at({1, 0.5});  // on the row, which is active: it no longer counts
  r.iact[0] = 0;
  EXPECT_EQ(-1, answer({0, 1}, 1, 0, nullptr));
  r.nalc = 1;
  EXPECT_EQ(0, answer({0, 1}, 1, 0, nullptr));
  EXPECT_EQ(3, icon);
  EXPECT_DOUBLE_EQ(0.5, r.stub);
  r.nalc = 0;
  r.nldc = 1;  // deferred: only an exact zero of its residual blocks, and it is not named
  EXPECT_EQ(-1, answer({0, 1}, 1, 0, nullptr));
  r.x[0] -= 1e-9;
  EXPECT_EQ(0, answer({0, 1}, 1, 0, nullptr));
  EXPECT_NEAR(1e-9, r.stub, 1e-15);

  r.at({0, 0});
  r.nldc = 0;
  r.ntco = 0;  // a list for two bounds, and a third constraint that blocks
  r.blcn[0] = 0;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] {
              r.alcn[0] = r.alcn[1] = 1;
              answer({-1, -1}, 0, 0, list);
            }));
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
}

TEST(Dependence, RankIsFound) {
  for (unsigned seed = 0; seed < 60; ++seed) {
    Random random(seed);
    const long n = 2 + random.below(12);
    const long rank = 1 + random.below(n);
    const Vec solution = random.vector(n);
    std::vector<LinearRow> rows;
    Vec expected;
    long independent = 0;
    for (long i = 0; i < 2 * n; ++i) {
      LinearRow row{Vec(static_cast<std::size_t>(n), 0.0), 0, 0.0};
      const bool fresh = independent < rank && (independent == 0 || random.below(2) == 0);
      if (fresh) {
        row.a = random.vector(n);
        ++independent;
      } else {
        for (std::size_t k = 0; k < rows.size(); ++k) {
          const double w = random.uniform();
          for (std::size_t j = 0; j < row.a.size(); ++j) row.a[j] += w * rows[k].a[j];
        }
      }
      row.b = std::inner_product(row.a.begin(), row.a.end(), solution.begin(), 0.0);
      if (fresh) expected.push_back(row.b);
      rows.push_back(row);
    }
    TestRecord r(n);
    r.with_rows(rows);
    EXPECT_EQ(0, znlpldc(&r, 1, 1, r.jalc, r.naco, r.alcn));
    EXPECT_EQ(expected, kept_sides(r)) << "n " << n << " rank " << rank;
  }
}

TEST(Dependence, GramSchmidtRowsInMemoryAndInAFile) {
  const std::vector<LinearRow> rows = {{{1, 1, 0}, 0, 1},
                                       {{0, 0, 2}, 0, 2},
                                       {{3, 3, 4}, 0, 7},
                                       {{1, -1, 0}, 0, 4},
                                       {{1, 0, 0}, 0, 2.5}};
  const auto run = [&](bool in_file, int opro) {
    TestRecord r(3);
    r.with_rows(rows);
    if (in_file) r.qlcn = nullptr;
    EXPECT_EQ(0, znlpldc(&r, opro, 1, r.jalc, r.naco, r.alcn));
    EXPECT_EQ((Vec{1, 2, 4}), kept_sides(r));
    EXPECT_EQ(in_file && opro == 2, r.utq != nullptr);
    xcclose(r.utq, 1);
  };
  run(false, 0);
  run(true, 0);
  run(true, 2);
  embed::Task& task = embed::current_task();
  for (long k = 0;; ++k) {
    embed::plan_fault(task, embed::Fault::file_operation, k);
    const int code = exit_code_of([&] { run(true, 0); });
    if (embed::fault_pending(task, embed::Fault::file_operation)) break;
    EXPECT_EQ(EXIT_WORK_FILE, code);
    ASSERT_LT(k, 100);
  }
  embed::clear_faults(task);
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
    Longs row, column;
    Vec value;
    for (long i = 0; i < N; ++i) {
      for (long j = 0; j <= i; ++j) {
        if (packed[static_cast<std::size_t>(zisub(i, j))] == 0.0) continue;
        row.push_back(i);
        column.push_back(j);
        value.push_back(packed[static_cast<std::size_t>(zisub(i, j))]);
      }
    }
    const long length = N + 1 + static_cast<long>(value.size());
    const long room = 4 * length;
    const auto size = [](long count) { return static_cast<std::size_t>(count); };
    jasp.assign(size(length), 0);
    values.assign(size(length), 0.0);
    jusp.assign(size(room), 0);
    jusl = jusp;
    jasl = jasp;
    perm.assign(N, 0);
    iprm = perm;
    Longs count(size(3 * N + 3)), graph(size(room)), node(count), next(count);
    EXPECT_EQ(0, zslltco(1, N, static_cast<long>(value.size()), row.data(), column.data(),
                         value.data(), jasp.data(), values.data()));
    EXPECT_EQ(0, zslumdg(N, room, jasp.data(), iprm.data(), perm.data(), count.data(), graph.data(),
                         node.data(), next.data(), 1));
    EXPECT_EQ(0, zslltsf(N, room, iprm.data(), perm.data(), count.data(), graph.data(), node.data(),
                         next.data(), jusp.data()));
    put(values);
    put(jasp);
    put(jusp);
    put(perm);
    put(iprm);
    // What is read must come from the file.
    for (Longs* v : {&jasp, &jusp, &perm, &iprm}) std::fill(v->begin(), v->end(), -1);
    r.shes = {length,      room,        jasp.data(), jusp.data(),
              perm.data(), iprm.data(), jasl.data(), jusl.data()};
    values.resize(size(room));
    r.hess = values.data();
  }

  // Largest |A v - b| over the rows and columns of the list.
  double residual(const Longs& list, const Vec& v, const Vec& b) const {
    double worst = 0.0;
    for (std::size_t i = 0; i < list.size(); ++i) {
      double sum = -b[i];
      for (std::size_t j = 0; j < list.size(); ++j) {
        sum += packed[static_cast<std::size_t>(zisub(list[i], list[j]))] * v[j];
      }
      worst = std::max(worst, std::fabs(sum));
    }
    return worst;
  }
};

TEST(QuadraticFile, PackedMatrixAndItsFactors) {
  Quadratic q(0);
  EXPECT_EQ(0, znlphlo(&q.r));
  EXPECT_EQ(4.0, q.r.qvec[3]);
  EXPECT_EQ(q.packed, Vec(q.r.hess, q.r.hess + 10));

  EXPECT_EQ(0, znlpclo(&q.r));
  const double* l = q.r.half;
  for (long i = 0; i < q.N; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double a =
          std::inner_product(l + zisub(j, 0), l + zisub(j, j) + 1, l + zisub(i, 0), 0.0);
      EXPECT_NEAR(q.packed[static_cast<std::size_t>(zisub(i, j))], a, 1e-14);
    }
  }

  // Parameter 1 on a bound: LDL' of rows 0, 2, 3 in the order that znlpinc leaves.
  q.r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1});
  q.r.iabc[1] = -1;
  q.r.nabc = 1;
  EXPECT_EQ(0, znlpinc(&q.r, 0));
  EXPECT_EQ((Longs{0, 2, 3, 1}), Longs(q.r.ifxr, q.r.ifxr + 4));
  EXPECT_EQ(0, znlpclo(&q.r));
  EXPECT_NEAR(4.0, l[0], 1e-14);
  EXPECT_NEAR(0.0, l[1], 1e-14);
  EXPECT_NEAR(6.0, l[2], 1e-14);
  EXPECT_NEAR(0.25, l[3], 1e-14);
  EXPECT_NEAR(0.5, l[4], 1e-14);
  EXPECT_NEAR(7.0 - 0.25 - 1.5, l[5], 1e-14);

  q.r.bounds = 0;
  q.r.sing = 5.0;  // every pivot falls to the limit somewhere
  EXPECT_EQ(-1, znlpclo(&q.r));
  q.r.clod = 1;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { znlpclo(&q.r); }));
}

TEST(QuadraticFile, SparseAndDiagonal) {
  Quadratic q(1);
  EXPECT_EQ(0, znlphlo(&q.r));
  Vec v = {1, -2, 3, 4};
  const Vec b = v;
  EXPECT_EQ(0, znlpclo(&q.r));
  zslltso(q.N, q.r.shes.perm, q.r.shes.jusp, q.r.half, v.data());
  EXPECT_LT(q.residual({0, 1, 2, 3}, v, b), 1e-14);

  q.r.with_bounds({0, 0, 0, 0}, {1, 1, 1, 1});
  q.r.iabc[0] = 1;
  q.r.nabc = 1;
  EXPECT_EQ(0, znlpinc(&q.r, 0));
  EXPECT_EQ((Longs{3, 1, 2, 0}), Longs(q.r.ifxr, q.r.ifxr + 4));  // by one exchange
  EXPECT_EQ(0, znlpclo(&q.r));
  v = {1, -2, 3};
  zsllts2(3, q.r.shes.perm, q.r.shes.jusl, q.r.shes.jusp, q.r.half, v.data());
  EXPECT_LT(q.residual({3, 1, 2}, v, {1, -2, 3}), 1e-14);

  Quadratic diagonal(2);
  EXPECT_EQ(0, znlphlo(&diagonal.r));
  EXPECT_EQ(25.0, diagonal.r.hess[3]);
  EXPECT_EQ(0, znlpclo(&diagonal.r));
  EXPECT_EQ((Vec{2, 3, 4, 5}), Vec(diagonal.r.half, diagonal.r.half + 4));
  diagonal.r.sing = 4.0;
  EXPECT_EQ(-1, znlpclo(&diagonal.r));
  diagonal.r.hfrm = 3;
  EXPECT_EQ(EXIT_INCONSISTENT, exit_code_of([&] { znlphlo(&diagonal.r); }));
}

TEST(QuadraticFile, AFailedOperationEndsTheRun) {
  embed::Task& task = embed::current_task();
  for (const int hfrm : {0, 1, 2}) {
    Quadratic q(hfrm);
    for (long k = 0;; ++k) {
      embed::plan_fault(task, embed::Fault::file_operation, k);
      const int code = exit_code_of([&] { znlphlo(&q.r); });
      if (embed::fault_pending(task, embed::Fault::file_operation)) break;
      EXPECT_EQ(EXIT_WORK_FILE, code);
      ASSERT_LT(k, 100);
    }
    embed::clear_faults(task);
  }
}

}  // namespace
}  // namespace tqnlp::test
