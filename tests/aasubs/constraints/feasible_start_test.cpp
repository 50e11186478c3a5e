// Feasible start: every way a call can end, random polyhedra with a known interior point, the
// certificate of least distance, and phase one on its own.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/constraints/znlpbas.h"
#include "aasubs/constraints/znlpfea.h"
#include "embed/task.h"
#include "host/process.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Vec = std::vector<double>;
constexpr double INF = HUGE_VALUE;

std::size_t at(long i) { return static_cast<std::size_t>(i); }

double dot(const Vec& a, const Vec& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

// ---- Random polyhedra ---------------------------------------------------------------------------

struct Polyhedron {
  long n;
  bool bounded;
  Vec lower, upper, inside, start;
  std::vector<LinearRow> rows;

  std::unique_ptr<TestRecord> record(int technique = 4) const {
    auto r = std::make_unique<TestRecord>(n, technique);
    if (bounded) r->with_bounds(lower, upper);
    r->with_rows(rows).at(start);
    return r;
  }

  // Largest violation in units of 1 + |side|.
  double violation(const Vec& x) const {
    double worst = 0.0;
    for (std::size_t j = 0; j < x.size(); ++j) {
      if (lower[j] > -INF) worst = std::max(worst, (lower[j] - x[j]) / (1 + std::fabs(lower[j])));
      if (upper[j] < INF) worst = std::max(worst, (x[j] - upper[j]) / (1 + std::fabs(upper[j])));
    }
    for (const LinearRow& row : rows) {
      const double r = dot(row.a, x) - row.b;
      const double size = row.op == 0 ? std::fabs(r) : -r;
      worst = std::max(worst, size / (1 + std::fabs(row.b)));
    }
    return worst;
  }
};

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  double within(double a, double b) {
    return a + (b - a) * (static_cast<double>(engine_()) / 4294967296.0);
  }
  long below(long n) { return static_cast<long>(engine_() % static_cast<unsigned long>(n)); }
  bool one_in(long n) { return below(n) == 0; }

 private:
  std::mt19937 engine_;
};

Vec random_row(Random& random, long n, bool integer) {
  Vec a(at(n));
  const double scale = random.one_in(5) ? std::pow(10.0, random.below(7) - 3) : 1.0;
  for (double& v : a) {
    if (random.one_in(3)) continue;
    v = integer ? static_cast<double>(random.below(7) - 3) : scale * random.within(-1, 1);
  }
  if (std::all_of(a.begin(), a.end(), [](double v) { return v == 0.0; })) a[0] = 1.0;
  return a;
}

void add_bounds(Random& random, double spread, Polyhedron& p) {
  p.bounded = !random.one_in(4);
  for (std::size_t j = 0; p.bounded && j < at(p.n); ++j) {
    const long kind = random.below(10);
    if (kind == 0) p.lower[j] = p.upper[j] = p.inside[j];
    if (kind >= 1 && kind < 6) p.lower[j] = p.inside[j] - random.within(0.01, 1) * spread;
    if (kind > 3) p.upper[j] = p.inside[j] + random.within(0.01, 1) * spread;
  }
}

// Up to 30 parameters, equalities (some dependent, some repeated) and up to 60 inequalities, some
// repeated, scaled, implied by others, or two sides of a slab; integer coefficients make many of
// them meet in one point. inside satisfies all.
Polyhedron make_polyhedron(unsigned seed) {
  Random random(seed);
  Polyhedron p;
  const long n = p.n = 1 + random.below(30);
  const double spread = std::pow(10.0, random.below(4));
  p.lower.assign(at(n), -INF);
  p.upper.assign(at(n), INF);
  for (long j = 0; j < n; ++j) {
    p.inside.push_back(random.within(-spread, spread));
    p.start.push_back(random.within(-10 * spread, 10 * spread));
  }
  add_bounds(random, spread, p);
  const bool integer = random.one_in(3);

  const long equalities = random.below(std::min(n, 12L));
  for (long i = 0; i < equalities; ++i) {
    Vec a = random_row(random, n, integer);
    if (i > 0 && random.one_in(6)) {
      for (long j = 0; j < n; ++j) a[at(j)] = p.rows[0].a[at(j)] - 2 * p.rows[at(i - 1)].a[at(j)];
    }
    p.rows.push_back({a, 0, dot(a, p.inside)});
    if (random.one_in(10)) p.rows.push_back(p.rows.back());
  }
  const long inequalities = 1 + random.below(60);
  for (long i = 0; i < inequalities; ++i) {
    Vec a = random_row(random, n, integer);
    const double slack =
        std::sqrt(dot(a, a)) * spread * (random.one_in(6) ? 0.001 : random.within(0.01, 1));
    p.rows.push_back({a, 1, dot(a, p.inside) - slack});
    const long kind = random.below(10);
    LinearRow more = p.rows.back();
    if (kind == 0) p.rows.push_back(more);
    if (kind == 1 || kind == 2) {
      const double factor = kind == 1 ? 3.0 : -1.0;
      for (double& v : more.a) v *= factor;
      more.b = kind == 1 ? 3.0 * more.b : -dot(a, p.inside) - slack;
      p.rows.push_back(more);
    }
  }
  return p;
}

// ---- The whole road -----------------------------------------------------------------------------

TEST(FeasibleStart, RandomPolyhedraAreReached) {
  for (unsigned seed = 0; seed < 600; ++seed) {
    const Polyhedron p = make_polyhedron(seed);
    const auto r = p.record(seed % 3 == 0 ? 10 : 4);
    if (seed % 2 == 0) znlpldc(r.get(), 1, 1, r->jalc, r->naco, r->alcn);
    if (seed % 5 == 0) r->opro = 0;
    const int jobs[] = {2, -1, 0, 1};
    const int rc = znlpfea(r.get(), jobs[seed % 4]);
    EXPECT_TRUE(rc >= 0 && rc <= 2) << "seed " << seed << " code " << rc;
    EXPECT_EQ(0, r->ipre) << "seed " << seed;
    EXPECT_LE(p.violation(r->point()), 1.001e-8) << "seed " << seed;
    EXPECT_EQ(seed % 5 == 0 ? 0 : 1, r->opro);
    EXPECT_EQ(0, znlpfch(r.get(), 0, 0, 0));
  }
}

TEST(FeasibleStart, ContradictionsAreFoundAndTheStartComesBack) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    Polyhedron p = make_polyhedron(seed);
    // A combination of inequalities turned round, and a little more asked of it than there is.
    LinearRow against{Vec(at(p.n), 0.0), 1, 0.0};
    long taken = 0;
    for (std::size_t i = p.rows.size(); i-- > 0 && taken < 3;) {
      if (p.rows[i].op == 0) break;
      const double weight = 1.0 + static_cast<double>(taken++);
      for (std::size_t j = 0; j < at(p.n); ++j) against.a[j] -= weight * p.rows[i].a[j];
      against.b -= weight * p.rows[i].b;
    }
    against.b += 0.01 * (1 + std::fabs(against.b) + std::sqrt(dot(against.a, against.a)));
    p.rows.push_back(against);
    const auto r = p.record();
    EXPECT_EQ(-2, znlpfea(r.get(), 2)) << "seed " << seed;
    EXPECT_EQ(p.start, r->point());
  }
}

// Two parameters; the rows decide. One line for each way a call can end.
struct Ending {
  const char* what;
  Vec lower, upper;
  std::vector<LinearRow> rows;
  Vec start;
  int job;
  int code;
  int ipre;
  Vec end;
};

TEST(FeasibleStart, EveryEnding) {
  const std::vector<LinearRow> half = {{{1, 1}, 1, 2}};
  const Ending endings[] = {
      {"as given", {0, 0}, {9, 9}, half, {1, 1.5}, 2, 0, 0, {1, 1.5}},
      {"given within tolerance", {0, 0}, {9, 9}, half, {-0.5e-8, 3}, 2, 0, 0, {-0.5e-8, 3}},
      {"clipped", {0, 0}, {9, 9}, half, {3, 11}, -1, 1, 0, {3, 9}},
      {"pushed inside", {0, 0}, {9, 9}, half, {3, 11}, 2, 1, 0, {3, 8.1}},
      {"pushed inside a narrow box", {0, 0}, {2, 9}, half, {3, 3}, 1, 1, 0, {1, 3}},
      {"bounds alone", {0, 0}, {9, 9}, {}, {-1, 5}, -1, 1, 0, {0, 5}},
      {"solved: nearest point of the half plane", {}, {}, half, {0, -1}, 2, 2, 0, {1.5, 0.5}},
      {"solved: clipped, then nearest", {0, 0}, {9, 1}, half, {-3, 0.5}, -1, 2, 0, {1, 1}},
      {"solved: equality", {}, {}, {{{1, -1}, 0, 4}}, {0, 0}, 0, 2, 0, {2, -2}},
      {"wider tolerance",
       {},
       {},
       {{{1, 0.5}, 1, 1 + 2e-7}, {{-1, -0.5}, 1, -1}},
       {0, 0},
       2,
       3,
       1,
       {}},
      {"still wider", {}, {}, {{{1, 0.5}, 1, 1 + 2e-6}, {{-1, -0.5}, 1, -1}}, {0, 0}, 2, 3, 2, {}},
      {"inconsistent", {}, {}, {{{1, 1}, 1, 3}, {{-1, -1}, 1, -2}}, {7, 8}, 2, -2, 0, {7, 8}},
      {"inconsistent equalities",
       {},
       {},
       {{{1, 1}, 0, 3}, {{1, 1}, 0, 2}},
       {7, 8},
       2,
       -2,
       0,
       {7, 8}},
      {"inconsistent with bounds", {0, 0}, {1, 1}, {{{1, 1}, 1, 3}}, {7, 8}, 2, -2, 0, {7, 8}},
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
    for (std::size_t j = 0; j < e.end.size(); ++j) {
      EXPECT_NEAR(e.end[j], r.x[j], e.code <= 0 ? 0.0 : 1e-14);
    }
    EXPECT_EQ(e.code >= 0 ? 0 : -1, znlpfch(&r, 0, 0, r.ipre));
    if (e.code == 3) {
      EXPECT_EQ(-1, znlpfch(&r, 0, 0, r.ipre - 1));
    }
  }
  TestRecord unconstrained(2);
  EXPECT_EQ(0, znlpfea(&unconstrained, 2));
  TestRecord range_space(2);
  range_space.with_rows(half);
  range_space.opro = 2;
  EXPECT_THROW(znlpfea(&range_space, 2), embed::ExitRequest);
}

TEST(FeasibleStart, NotesWhatIsActiveAtTheEnd) {
  TestRecord r(3);
  r.with_bounds({0, 0, 2}, {5, 5, 2}).with_rows({{{1, 1, 1}, 0, 4}, {{1, -1, 0}, 1, 2}});
  r.at({-1, -1, 7});
  r.iabc[1] = -1;  // a status of an earlier point
  EXPECT_EQ(2, znlpfea(&r, -1));
  EXPECT_NEAR(2.0, r.x[0], 1e-14);
  EXPECT_NEAR(0.0, r.x[1], 1e-14);
  EXPECT_EQ((std::vector<int>{0, 1, 2}), std::vector<int>(r.iabc, r.iabc + 3));
  EXPECT_EQ(2, r.nabc);
  EXPECT_EQ(2, r.nalc);
  EXPECT_EQ(1, r.iact[1]);
}

TEST(FeasibleStart, RefusedMemoryLeavesTheRecordAsItWas) {
  embed::Task& task = embed::current_task();
  const Vec start = {0, -1, 3};
  for (long k = 0;; ++k) {
    TestRecord r(3);
    r.with_bounds({0, 0, 0}, {9, 9, 2}).with_rows({{{1, 1, 1}, 1, 20}, {{1, 0, 0}, 1, 8.5}});
    r.at(start);
    r.opro = 0;
    r.lagm = r.gpro = r.dcds = r.qlcn = r.llcn = nullptr;
    r.nlicon = 1;
    const embed::Counters before = embed::counters(task);
    embed::plan_fault(task, embed::Fault::allocation, k);
    const int code = znlpfea(&r, 2);
    const bool came_through = embed::fault_pending(task, embed::Fault::allocation);
    embed::clear_faults(task);
    const embed::Counters after = embed::counters(task);
    EXPECT_EQ(after.blocks_taken - before.blocks_taken, after.blocks_given - before.blocks_given);
    EXPECT_EQ(0, r.opro);
    EXPECT_EQ(1, r.nlicon);
    EXPECT_EQ(nullptr, r.qlcn);
    EXPECT_EQ(nullptr, r.lagm);
    EXPECT_EQ(0, r.ipre);
    if (came_through) {
      EXPECT_EQ(2, code);
      break;
    }
    EXPECT_EQ(-1, code);
    EXPECT_EQ(start, r.point());
    ASSERT_LT(k, 20);
  }
}

// ---- The methods --------------------------------------------------------------------------------

// Sets the working set of fixed parameters and equalities from which the methods start.
void begin(MINSTR* str) {
  znlpfch(str, 1, 0, 0);
  str->nabc = 0;
  for (long j = 0; str->bounds != 0 && j < str->nvar; ++j) {
    if (str->iabc[j] == 2) {
      ++str->nabc;
    } else {
      str->iabc[j] = 0;
    }
  }
  str->nalc = str->neqc;
}

TEST(LeastDistance, NoFeasiblePointIsNearer) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    const Polyhedron p = make_polyhedron(seed);
    const auto r = p.record();
    begin(r.get());
    ASSERT_EQ(0, znlpfe2(r.get(), seed % 2 == 0 ? 0 : 2, -1)) << "seed " << seed;
    const Vec x = r->point();
    // x is the projection of the start p if (p - x)'(y - x) <= 0 for all feasible y; the points
    // y are the one inside, and those that other starts lead to.
    std::vector<Vec> others = {p.inside};
    Polyhedron q = p;
    for (int k = 0; k < 4; ++k) {
      for (std::size_t j = 0; j < x.size(); ++j) {
        q.start[j] = x[j] + (k + 1) * (j % 2 == 0 ? 1 : -1) * (p.start[j] - x[j]) * 0.7;
      }
      const auto other = q.record();
      begin(other.get());
      ASSERT_EQ(0, znlpfe2(other.get(), 0, -1));
      others.push_back(other->point());
    }
    for (const Vec& y : others) {
      double product = 0.0, left = 0.0, right = 0.0;
      for (std::size_t j = 0; j < x.size(); ++j) {
        product += (p.start[j] - x[j]) * (y[j] - x[j]);
        left += (p.start[j] - x[j]) * (p.start[j] - x[j]);
        right += (y[j] - x[j]) * (y[j] - x[j]);
      }
      EXPECT_LE(product, 1e-7 * (1.0 + std::sqrt(left * right))) << "seed " << seed;
    }
  }
}

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

TEST(LeastDistance, APushKeepsTheWorkingSetSatisfied) {
  // On x0 + x1 = 2 and x2 >= 1, push into x0 - x2 >= 3; then a push that contradicts them.
  TestRecord r(3);
  r.with_bounds({-INF, -INF, 1}, {INF, INF, INF});
  r.with_rows({{{1, 1, 0}, 0, 2}, {{1, 0, -1}, 1, 3}, {{-1, -1, -1}, 1, -2.5}}).at({1, 3, 1});
  begin(&r);
  EXPECT_EQ(0, doequc(&r, 0));
  EXPECT_EQ(0, tsteqc(&r, 0));
  std::copy_n(r.x, 3, r.gold);
  EXPECT_EQ(0, znlpupd(&r, 0, 0, 0, 1, 2, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, znlplip(&r, 2 * 3 + 1, -1));
  EXPECT_EQ(2, r.nalc);
  EXPECT_NEAR(2.0, r.x[0] + r.x[1], 1e-14);
  EXPECT_GE(r.x[2], 1 - 1e-14);
  EXPECT_NEAR(3.0, r.x[0] - r.x[2], 1e-14);
  EXPECT_EQ(-2, znlplip(&r, 2 * 3 + 2, -1));
  EXPECT_EQ(0, znlplip(&r, 2 * 3 + 2, 3 + 2));  // beyond kcon: left alone
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

TEST(PhaseOne, ReachesRandomPolyhedraAndEndsWithoutAPoint) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    const Polyhedron p = make_polyhedron(seed);
    const auto r = p.record();
    znlpldc(r.get(), 1, 1, r->jalc, r->naco, r->alcn);
    begin(r.get());
    EXPECT_EQ(0, znlpfe1(r.get(), seed % 2 == 0 ? 0 : 1, -1)) << "seed " << seed;
    EXPECT_LE(p.violation(r->point()), 1.001e-8) << "seed " << seed;
  }
  TestRecord apart(2);
  apart.with_rows({{{1, 1}, 1, 3}, {{-1, -1}, 1, -2}, {{1, 0}, 1, 50}}).at({7, 8});
  begin(&apart);
  EXPECT_EQ(-2, znlpfe1(&apart, 0, -1));
  TestRecord torn(2);
  torn.with_rows({{{1, 1}, 0, 3}, {{1, 1}, 0, 2}}).at({7, 8});
  begin(&torn);
  EXPECT_EQ(-3, znlpfe1(&torn, 0, -1));
}

}  // namespace
}  // namespace tqnlp::test
