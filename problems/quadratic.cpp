// Quadratic programs: random ones with a solution built in, and models on grids. Contracts in
// quadratic.h.
#include "problems/quadratic.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace tqnlp::problems {

using Point = std::vector<double>;

QuadraticProgram random_program(unsigned seed, long n, Curvature curvature) {
  std::mt19937 random(seed);
  const auto uniform = [&] { return std::uniform_real_distribution<double>(-1, 1)(random); };
  const auto below = [&](long k) { return static_cast<long>(random() % std::size_t(k)); };
  const bool integer = below(3) == 0, boxed = curvature == Curvature::indefinite;
  const auto draw = [&] { return integer ? std::round(2 * uniform()) : uniform(); };
  QuadraticProgram q;
  q.h.assign(std::size_t(n * n), 0.0);
  const long rank = curvature == Curvature::semidefinite ? below(n + 1) : n;
  for (long k = 0; k < rank; ++k) {
    Point v(static_cast<std::size_t>(n));
    for (double& e : v) e = draw();
    const double sign = boxed ? uniform() : 1.0;
    for (long i = 0; i < n * n; ++i)
      q.h[std::size_t(i)] += sign * v[std::size_t(i / n)] * v[std::size_t(i % n)];
  }
  for (long i = 0; curvature == Curvature::definite && i < n; ++i)
    q.h[std::size_t(i * n + i)] += 0.1;

  Point x(static_cast<std::size_t>(n)), pull = x, start = x;
  for (double& e : x) e = draw();
  for (double& e : start) e = below(4) == 0 ? 0.0 : 3 * uniform();
  Problem& p = q.p;
  p.n = n;
  p.start = below(4) == 0 ? x : start;
  const long mode = below(3);
  if (boxed || mode != 1) {
    p.lower.assign(std::size_t(n), boxed ? -5.0 : -NONE);
    p.upper.assign(std::size_t(n), boxed ? 5.0 : NONE);
    for (std::size_t j = 0; j < x.size(); ++j) {
      const double multiplier = below(4) == 0 ? 0.0 : std::fabs(uniform());
      const long side = below(4);
      if (side == 0) p.lower[j] = x[j], pull[j] += multiplier;
      if (side == 1) p.upper[j] = x[j], pull[j] -= multiplier;
    }
  }
  for (long i = 0; mode != 0 && n > 1 && i < 3 * n; ++i) {
    LinearRow row{Point(static_cast<std::size_t>(n)), i < n / 4 ? 0 : 1, 0.0};
    for (double& a : row.a) a = draw();
    if (!p.rows.empty() && below(6) == 0) row.a = p.rows[std::size_t(below(long(p.rows.size())))].a;
    for (std::size_t j = 0; j < x.size(); ++j) row.b += row.a[j] * x[j];
    if (std::ranges::count(row.a, 0.0) > n - 2) continue;
    const bool active = row.op == 0 || below(2) == 0;
    const double multiplier = !active || below(3) == 0 ? 0.0 : std::fabs(uniform());
    for (std::size_t j = 0; j < x.size(); ++j) pull[j] += multiplier * row.a[j];
    if (!active) row.b -= std::fabs(uniform());
    if (row.op == 1 && below(4) == 0) {
      row = {row.a, -1, -row.b};
      for (double& a : row.a) a = -a;
    }
    p.rows.push_back(row);
  }
  q.linear.assign(std::size_t(n + 1), 0.0);
  for (long i = 0; i < n; ++i) {
    q.linear[std::size_t(i)] = boxed ? uniform() : pull[std::size_t(i)];
    for (long j = 0; j < n && !boxed; ++j)
      q.linear[std::size_t(i)] -= q.h[std::size_t(i * n + j)] * x[std::size_t(j)];
  }
  q.linear[std::size_t(n)] = uniform();
  p.by_hand = [h = q.h, g = q.linear, n](const double* at, double* gradient) {
    double f = g[std::size_t(n)];
    for (long i = 0; i < n; ++i) {
      double product = 0.0;
      for (long j = 0; j < n; ++j) product += h[std::size_t(i * n + j)] * at[j];
      f += at[i] * (0.5 * product + g[std::size_t(i)]);
      if (gradient != nullptr) gradient[i] = product + g[std::size_t(i)];
    }
    return f;
  };
  p.value = [f = p.by_hand](const double* at) { return f(at, nullptr); };
  if (!boxed) p.minima = {p.value(x.data())};
  return q;
}

// Places and distances of the points of a grid; at returns the number of a point from 0.
namespace {

struct Grid {
  long side;
  double spacing() const { return 1.0 / static_cast<double>(side + 1); }
  double place(long i) const { return static_cast<double>(i + 1) * spacing(); }
  std::size_t at(long i, long j) const { return std::size_t(i * side + j); }
};

}  // namespace

// The energy of a film under an even load: neighbours are joined, and load pushes upwards.
static GridProgram film_program(const char* name, Grid grid, double load) {
  GridProgram q;
  q.name = name;
  q.n = grid.side * grid.side;
  const auto add = [&](std::size_t i, std::size_t j, double v) {
    q.triplets.insert(q.triplets.end(), {double(i + 1), double(j + 1), v});
  };
  for (long i = 0; i < grid.side; ++i) {
    for (long j = 0; j < grid.side; ++j) {
      const std::size_t k = grid.at(i, j);
      add(k, k, 4.0);
      if (j > 0) add(k, k - 1, -1.0);
      if (i > 0) add(k, grid.at(i - 1, j), -1.0);
    }
  }
  q.linear.assign(std::size_t(q.n), -load * grid.spacing() * grid.spacing());
  q.lower.assign(std::size_t(q.n), -NONE);
  q.upper.assign(std::size_t(q.n), NONE);
  q.start.assign(std::size_t(q.n), 0.0);
  return q;
}

GridProgram obstacle_program(long side) {
  const Grid grid{side};
  GridProgram q = film_program("obstacle", grid, 1.0);
  for (long i = 0; i < side; ++i) {
    for (long j = 0; j < side; ++j) {
      const std::size_t k = grid.at(i, j);
      q.lower[k] = std::sin(3.2 * grid.place(i)) * std::sin(3.3 * grid.place(j));
      q.start[k] = std::max(q.lower[k], 0.0);
    }
  }
  return q;
}

// The stress, which is the slope, is at most 1: the film stays below its distance from the edge.
GridProgram torsion_program(long side) {
  const Grid grid{side};
  GridProgram q = film_program("torsion", grid, 5.0);
  for (long i = 0; i < side; ++i) {
    for (long j = 0; j < side; ++j) {
      const double x = grid.place(i), y = grid.place(j);
      const double distance = std::min({x, 1.0 - x, y, 1.0 - y});
      q.lower[grid.at(i, j)] = -distance;
      q.upper[grid.at(i, j)] = distance;
    }
  }
  return q;
}

}  // namespace tqnlp::problems
