// Feasible start: every way a call can end, random polyhedra with a known interior point, the
// certificate of least distance, and phase one on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "aasubs/constraints/draw.h"
#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "embed/task.h"

namespace tqnlp::test {
namespace {

// The working set of fixed parameters and equalities from which the methods start.
void begin(MINSTR* str) {
  znlpfch(str, 1, 0, 0);
  keep_fixed_bounds(str);
  str->nalc = str->neqc;
}

TEST(RandomPolyhedra, AreReachedByEveryRoad) {
  for (unsigned seed = 0; seed < 600; ++seed) {
    SCOPED_TRACE(seed);
    const Polyhedron p = make_polyhedron(seed);
    const auto r = p.record(seed % 3 == 0 ? 10 : 4), phase_one = p.record();
    for (TestRecord* each : {r.get(), phase_one.get()}) {
      if (seed % 2 == 0) znlpldc(each, 1, 1, each->jalc, each->naco, each->alcn);
    }
    if (seed % 5 == 0) r->opro = 0;
    for (long j = 0; j < p.n; ++j) r->iabc[j] = r->iabc[j] == 2 ? 2 : 1;  // of an earlier point
    const int jobs[] = {2, -1, 0, 1};
    const int rc = znlpfea(r.get(), jobs[seed % 4]);
    EXPECT_TRUE(rc >= 0 && rc <= 2) << rc;
    EXPECT_EQ(0, r->ipre);
    EXPECT_EQ(seed % 5 == 0 ? 0 : 1, r->opro);
    EXPECT_EQ(0, znlpfch(r.get(), 0, 0, 0));
    for (long j = 0; p.bounded && j < p.n; ++j) {
      const double bound = r->iabc[j] < 0 ? r->ub[j] : r->lb[j];
      EXPECT_TRUE(r->iabc[j] == 0 || std::fabs(r->x[j] - bound) <= (std::fabs(bound) + 1) * 1e-8);
    }
    for (long i = 0; i < r->nalc; ++i) {
      const double b = r->blcn[r->iact[i]];
      EXPECT_NEAR(b, dot(row_of(*r, r->iact[i]), r->x), (std::fabs(b) + 1) * 1.001e-8);
    }
    begin(phase_one.get());
    EXPECT_EQ(0, znlpfe1(phase_one.get(), seed % 4 < 2 ? 0 : 1, -1));
    for (TestRecord* each : {r.get(), phase_one.get()})
      EXPECT_LE(p.violation(each->point()), 1.001e-8);
    const auto range = p.record();
    Vec room;
    give_range_space(*range, room);
    const int range_rc = znlpfer(range.get());
    EXPECT_TRUE(range_rc >= 0 && range_rc <= 2) << range_rc;
    EXPECT_LE(p.violation(range->point()), 1.001e-8);
    if (seed % 2 == 0) continue;
    // The least-distance point is the solution of the quadratic problem (y - start)'(y - start).
    const auto least = p.record(), quadratic = p.record();
    begin(least.get());
    ASSERT_EQ(0, znlpfe2(least.get(), seed % 4 == 1 ? 0 : 2, -1));
    Vec c = p.start;
    double size = 1.0;
    for (double& e : c) size = std::max(size, std::fabs(e *= -2.0));
    ASSERT_EQ(0, znlplcq(quadratic.get(), 1, 0, 2.0, c.data(), nullptr, nullptr));
    for (long j = 0; j < p.n; ++j) {
      EXPECT_NEAR(quadratic->x[j], least->x[j], 1e-6 * size);
      // without bounds to clip to first, the same point again
      EXPECT_TRUE(p.bounded || std::fabs(range->x[j] - least->x[j]) < 1e-6 * size);
    }
  }
}

TEST(RandomPolyhedra, ContradictionsAreFoundAndTheStartComesBack) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    Polyhedron p = make_polyhedron(seed);
    // A combination of inequalities turned round, and a little more asked of it than there is.
    LinearRow against{Vec(p.lower.size(), 0.0), 1, 0.0};
    double weight = 0.0;
    for (std::size_t i = p.rows.size(); i-- > 0 && weight < 3.0 && p.rows[i].op != 0;) {
      weight += 1.0;
      for (std::size_t j = 0; j < against.a.size(); ++j) against.a[j] -= weight * p.rows[i].a[j];
      against.b -= weight * p.rows[i].b;
    }
    against.b += 0.01 * (1 + std::fabs(against.b) + std::sqrt(dot(against.a, against.a)));
    p.rows.push_back(against);
    const auto r = p.record();
    EXPECT_EQ(-2, znlpfea(r.get(), 2)) << "seed " << seed;
    EXPECT_EQ(p.start, r->point());
    Vec room;
    give_range_space(*r, room);
    r->ipre = 0;
    EXPECT_EQ(-2, znlpfer(r.get())) << "seed " << seed;
    EXPECT_EQ(p.start, r->point());
  }
}

// Two parameters; the rows decide. One line for each way a call can end.
struct Ending {
  const char* what;
  Vec lower, upper;
  std::vector<LinearRow> rows;
  Vec start;
  int job, code, ipre;
  Vec end;
};

TEST(FeasibleStart, EveryEnding) {
  const std::vector<LinearRow> half = {{{1, 1}, 1, 2}}, apart = {{{1, 1}, 1, 3}, {{-1, -1}, 1, -2}},
                               torn = {{{1, 1}, 0, 3}, {{1, 1}, 0, 2}},
                               slit = {{{1, 0.5}, 1, 1 + 2e-7}, {{-1, -0.5}, 1, -1}},
                               gap = {{{1, 0.5}, 1, 1 + 2e-6}, {{-1, -0.5}, 1, -1}};
  const Ending endings[] = {
      {"as given", {0, 0}, {9, 9}, half, {1, 1.5}, 2, 0, 0, {1, 1.5}},
      {"given within tolerance", {0, 0}, {9, 9}, half, {-0.5e-8, 3}, 2, 0, 0, {-0.5e-8, 3}},
      {"clipped", {0, 0}, {9, 9}, half, {3, 11}, -1, 1, 0, {3, 9}},
      {"pushed inside", {0, 0}, {9, 9}, half, {3, 11}, 2, 1, 0, {3, 8.1}},
      {"pushed inside a narrow box", {0, 0}, {2, 9}, half, {3, 3}, 1, 1, 0, {1, 3}},
      {"bounds alone", {0, 0}, {9, 9}, {}, {-1, 5}, -1, 1, 0, {0, 5}},
      {"nearest point of the half plane", {}, {}, half, {0, -1}, 2, 2, 0, {1.5, 0.5}},
      {"clipped, then nearest", {0, 0}, {9, 1}, half, {-3, 0.5}, -1, 2, 0, {1, 1}},
      {"equality", {}, {}, {{{1, -1}, 0, 4}}, {0, 0}, 0, 2, 0, {2, -2}},
      {"wider tolerance", {}, {}, slit, {0, 0}, 2, 3, 1, {}},
      {"still wider", {}, {}, gap, {0, 0}, 2, 3, 2, {}},
      {"inconsistent", {}, {}, apart, {7, 8}, 2, -2, 0, {7, 8}},
      {"inconsistent equalities", {}, {}, torn, {7, 8}, 2, -2, 0, {7, 8}},
      {"inconsistent with bounds", {0, 0}, {1, 1}, apart, {7, 8}, 2, -2, 0, {7, 8}},
  };
  for (const Ending& e : endings) {
    SCOPED_TRACE(e.what);
    TestRecord r(2);
    if (!e.lower.empty()) r.with_bounds(e.lower, e.upper);
    if (!e.rows.empty()) r.with_rows(e.rows);
    r.at(e.start);
    r.ipre = 5;  // a value of an earlier call does not count
    EXPECT_EQ(e.code, znlpfea(&r, e.job));
    EXPECT_EQ(e.ipre, r.ipre);
    for (std::size_t j = 0; j < e.end.size(); ++j)
      EXPECT_NEAR(e.end[j], r.x[j], e.code <= 0 ? 0.0 : 1e-14);
    EXPECT_EQ(e.code >= 0 ? 0 : -1, znlpfch(&r, 0, 0, r.ipre));
    EXPECT_EQ(e.code == 3 || e.code < 0 ? -1 : 0, znlpfch(&r, 0, 0, r.ipre - 1));
    if (e.code != -2 || !e.lower.empty()) continue;
    begin(&r);  // phase one alone tells inconsistent equalities apart
    EXPECT_EQ(e.rows[0].op == 0 ? -3 : -2, znlpfe1(&r, 0, -1));
  }
  TestRecord unconstrained(2), refused(2);
  EXPECT_EQ(0, znlpfea(&unconstrained, 2));
  refused.with_bounds({0, 0}, {9, 9}).with_rows(half).at({-3, -1});
  refused.opro = 0;
  refused.lagm = refused.gpro = refused.dcds = refused.qlcn = refused.llcn = nullptr;
  embed::plan_fault(embed::current_task(), embed::Fault::allocation, 0);
  EXPECT_EQ(-1, znlpfea(&refused, 2));
  EXPECT_EQ((Vec{-3, -1}), refused.point());
}

// ---- The methods --------------------------------------------------------------------------------

TEST(LeastDistance, LooksOnlyAtTheConstraintsAskedFor) {
  for (const bool phase_one : {false, true}) {
    TestRecord r(2);
    r.with_bounds({0, 0}, {9, 9}).with_rows({{{1, 1}, 1, 2}, {{1, 2}, 1, 30}}).at({-1, -1});
    begin(&r);
    EXPECT_EQ(0, phase_one ? znlpfe1(&r, 0, 3) : znlpfe2(&r, 0, 3));
    EXPECT_GE(r.x[0] + r.x[1], 2 - 1e-7);
    EXPECT_LT(r.x[0] + 2 * r.x[1], 29);
  }
}

TEST(Equalities, AreCountedWithTheirTolerances) {
  TestRecord r(3);
  r.with_bounds({5, 0, -1}, {5, 2, INF}).with_rows({{{0, 1, 1}, 0, 1}, {{0, 1, 0}, 1, 50}});
  r.at({5, 1, 0});
  EXPECT_EQ(0, tsteqc(&r, 0));
  r.at({5 + 6e-8, 1, 3e-8});  // beyond 5e-8 and 2e-8; the inequality does not count
  EXPECT_EQ(2, tsteqc(&r, 0));
  EXPECT_EQ(0, tsteqc(&r, 1));
  r.iabc[1] = -1;
  r.at({5, 3, -2});
  EXPECT_EQ(1, tsteqc(&r, 0));
  r.iabc[2] = 1;
  EXPECT_EQ(2, tsteqc(&r, 0));
}

}  // namespace
}  // namespace tqnlp::test
