// What the tests of constraints share: random draws, small vectors.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "aasubs/constraints/znlpftr.h"
#include "kernels/matrices.h"
#include "support/record.h"

namespace tqnlp::test {

inline constexpr double INF = HUGE_VALUE;

struct Random {
  std::mt19937 engine;

  explicit Random(unsigned seed) : engine(seed) {}
  double within(double a, double b) {
    return a + (b - a) * (static_cast<double>(engine()) / 4294967296.0);
  }
  double uniform() { return within(-1.0, 1.0); }
  long below(long n) { return static_cast<long>(engine() % static_cast<unsigned long>(n)); }
  bool one_in(long n) { return below(n) == 0; }
  Vec vector(long n, double size = 1.0) {
    Vec v(static_cast<std::size_t>(n));
    for (double& e : v) e = size * uniform();
    return v;
  }
};

inline double dot(const Vec& a, const double* b) {
  return std::inner_product(a.begin(), a.end(), b, 0.0);
}

// Row i of the constraints of a record.
inline Vec row_of(MINSTR& r, long i) {
  Vec a(static_cast<std::size_t>(r.nvar));
  r.acget(&r, i, a.data());
  return a;
}

// A positive definite packed matrix: a product of random factors and a multiple of the identity.
inline Vec random_hessian(Random& random, long n, double ridge) {
  Dense g(n, n);
  std::ranges::copy(random.vector(n * n), g.a.begin());
  Vec h = pack(g * transpose(g));
  h.resize(packed_size(n));
  for (long i = 0; i < n; ++i) h[zisub(i, i)] += ridge;
  return h;
}

// Bounds and rows that the point inside satisfies, and some start.
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

inline Vec random_row(Random& random, long n, bool integer) {
  Vec a = random.vector(n, random.one_in(5) ? std::pow(10.0, random.below(7) - 3) : 1.0);
  for (double& v : a) {
    if (integer) v = static_cast<double>(random.below(7) - 3);
    if (random.one_in(3)) v = 0.0;
  }
  if (std::ranges::all_of(a, [](double v) { return v == 0.0; })) a[0] = 1.0;
  return a;
}

inline void add_bounds(Random& random, double spread, Polyhedron& p) {
  p.bounded = !random.one_in(4);
  for (std::size_t j = 0; p.bounded && j < p.lower.size(); ++j) {
    const long kind = random.below(10);
    if (kind == 0) p.lower[j] = p.upper[j] = p.inside[j];
    if (kind >= 1 && kind < 6) p.lower[j] = p.inside[j] - random.within(0.01, 1) * spread;
    if (kind > 3) p.upper[j] = p.inside[j] + random.within(0.01, 1) * spread;
  }
}

// Up to 30 parameters, equalities (some dependent, some repeated) and up to 60 inequalities, some
// repeated, scaled, implied by others, or two sides of a slab; integer coefficients make many of
// them meet in one point. inside satisfies all.
inline Polyhedron make_polyhedron(unsigned seed) {
  Random random(seed);
  Polyhedron p;
  const long n = p.n = 1 + random.below(30);
  const double spread = std::pow(10.0, random.below(4));
  p.lower.assign(n, -INF);
  p.upper.assign(n, INF);
  p.inside = random.vector(n, spread);
  p.start = random.vector(n, 10 * spread);
  add_bounds(random, spread, p);
  const bool integer = random.one_in(3);

  const long equalities = random.below(std::min(n, 12L));
  for (long i = 0; i < equalities; ++i) {
    Vec a = random_row(random, n, integer);
    for (long j = 0; i > 0 && seed % 6 == 0 && j < n; ++j)
      a[j] = p.rows[0].a[j] - 2 * p.rows[i - 1].a[j];
    p.rows.push_back({a, 0, dot(a, p.inside)});
    if (random.one_in(10)) p.rows.push_back(p.rows.back());
  }
  for (long i = random.below(60); i >= 0; --i) {
    LinearRow row{random_row(random, n, integer), 1, 0.0};
    const double slack = random.one_in(6) ? 0.001 : random.within(0.01, 1);
    row.b = dot(row.a, p.inside) - std::sqrt(dot(row.a, row.a)) * spread * slack;
    p.rows.push_back(row);
    const long kind = random.below(10);
    if (kind > 2) continue;
    const double factor = kind == 0 ? 1.0 : (kind == 1 ? 3.0 : -1.0);
    const double slab = kind == 2 ? 2.0 * (row.b - dot(row.a, p.inside)) : 0.0;
    for (double& v : row.a) v *= factor;
    row.b = factor * row.b + slab;
    p.rows.push_back(row);
  }
  return p;
}

// Arrays of the range-space frame, and the technique that has it.
inline void give_range_space(TestRecord& r, Vec& room) {
  const long n = r.nvar;
  room.assign(frame_vectors(n, r.ncon) + FRAME_ROW_WORK * n, 0.0);
  r.uvwg = room.data();
  r.ywrk = r.uvwg + frame_vectors(n, r.ncon);
  r.tech = QUADAS;
  r.vers = BARRIER_FORM;
  r.opro = 0;
}

}  // namespace tqnlp::test
