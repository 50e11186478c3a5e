// Contracts in certificate.h.
#include "problems/certificate.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tqnlp::problems {

using Vector = std::vector<double>;

static double dot(const Vector& a, const Vector& b) {
  return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
}

static void add_scaled(Vector& to, double factor, const Vector& a) {
  for (std::size_t j = 0; j < to.size(); ++j) to[j] += factor * a[j];
}

// ---- Nonnegative least squares ------------------------------------------------------------------

// Least squares in the columns of a set, by orthogonalization (twice, for full accuracy); a column
// that depends on those before it gets 0.
static Vector solve_in(const std::vector<Vector>& columns, const std::vector<std::size_t>& set,
                       const Vector& b) {
  static constexpr double DEPENDENT = 1e-11;
  std::vector<Vector> q, r;  // columns_(kept k) = sum over l <= k of r_k[l] q_l
  std::vector<std::size_t> kept;
  for (const std::size_t i : set) {
    Vector rest = columns[i], shares(q.size() + 1, 0.0);
    for (int pass = 0; pass < 2; ++pass) {
      for (std::size_t l = 0; l < q.size(); ++l) {
        const double share = dot(q[l], rest);
        shares[l] += share;
        add_scaled(rest, -share, q[l]);
      }
    }
    const double length = std::sqrt(dot(rest, rest));
    if (!(length > DEPENDENT)) continue;
    for (double& value : rest) value /= length;
    shares.back() = length;
    q.push_back(std::move(rest));
    r.push_back(std::move(shares));
    kept.push_back(i);
  }
  Vector u(columns.size(), 0.0);
  Vector rest = b;
  Vector z(q.size());
  for (std::size_t k = 0; k < q.size(); ++k) {
    z[k] = dot(q[k], rest);
    add_scaled(rest, -z[k], q[k]);
  }
  for (std::size_t k = q.size(); k-- > 0;) {
    z[k] /= r[k][k];
    for (std::size_t l = 0; l < k; ++l) z[l] -= r[k][l] * z[k];
    u[kept[k]] = z[k];
  }
  return u;
}

static Vector residual(const std::vector<Vector>& columns, const Vector& u, const Vector& b) {
  Vector rest = b;
  for (std::size_t i = 0; i < columns.size(); ++i) add_scaled(rest, -u[i], columns[i]);
  return rest;
}

// Moves from u towards the least squares solution in the set and drops what becomes 0 on the way,
// until that solution has the right signs.
static Vector settle(const std::vector<Vector>& columns, std::vector<std::size_t>& set,
                     std::size_t free, Vector u, const Vector& b) {
  for (;;) {
    Vector z = solve_in(columns, set, b);
    double step = 1.0;
    for (const std::size_t i : set) {
      if (i >= free && z[i] <= 0.0) step = std::min(step, u[i] / (u[i] - z[i]));
    }
    if (step == 1.0) return z;
    for (const std::size_t i : set) u[i] += step * (z[i] - u[i]);
    // The one that set the step is 0 but for rounding: the set shrinks each time.
    std::erase_if(set, [&](std::size_t i) {
      const bool out = i >= free && z[i] <= 0.0 && u[i] <= 1e-15 * std::fabs(z[i]);
      if (out) u[i] = 0.0;
      return out;
    });
  }
}

Vector nonnegative_least_squares(const std::vector<Vector>& columns, std::size_t free,
                                 const Vector& b) {
  const double small = 1e-14 * std::sqrt(dot(b, b));
  std::vector<std::size_t> set(free);
  std::iota(set.begin(), set.end(), std::size_t{0});
  Vector u = solve_in(columns, set, b);
  std::vector<bool> barred(columns.size(), false);
  for (std::size_t pass = 0; pass < 10 * columns.size(); ++pass) {
    const Vector rest = residual(columns, u, b);
    std::size_t best = columns.size();
    double steepest = small;
    for (std::size_t i = free; i < columns.size(); ++i) {
      const bool inside = std::find(set.begin(), set.end(), i) != set.end();
      const double slope = inside || barred[i] ? 0.0 : dot(columns[i], rest);
      if (slope > steepest) {
        steepest = slope;
        best = i;
      }
    }
    if (best == columns.size()) break;
    // By rounding, or by dependence, a column may promise a descent that it cannot give.
    set.push_back(best);
    barred[best] = !(solve_in(columns, set, b)[best] > 0.0);
    if (barred[best]) {
      set.pop_back();
      continue;
    }
    u = settle(columns, set, free, std::move(u), b);
    std::fill(barred.begin(), barred.end(), false);
  }
  return u;
}

// ---- The constraints at a point -----------------------------------------------------------------

namespace {
// One constraint at x as c = 0 or c >= 0.
struct Constraint {
  bool equality;
  double value;
  double unit;      // what a violation is relative to
  Vector gradient;  // empty where only values are asked for
  double* multiplier;
  double sign;  // of that multiplier, against the one of c >= 0
};
}  // namespace

static Vector along(std::size_t j, double value, std::size_t n) {
  Vector e(n, 0.0);
  e[j] = value;
  return e;
}

static void add_bounds(const Problem& p, const double* x, Certificate& result,
                       std::vector<Constraint>& all) {
  const std::size_t n = static_cast<std::size_t>(p.n);
  for (std::size_t j = 0; j < p.lower.size(); ++j) {
    const double lower = p.lower[j], upper = p.upper[j];
    if (lower > -NONE) {
      all.push_back({false, x[j] - lower, std::max(1.0, std::fabs(lower)), along(j, 1.0, n),
                     &result.bounds[j], 1.0});
    }
    if (upper < NONE) {
      all.push_back({false, upper - x[j], std::max(1.0, std::fabs(upper)), along(j, -1.0, n),
                     &result.bounds[j], -1.0});
    }
  }
}

static void add_rows(const Problem& p, const double* x, Certificate& result,
                     std::vector<Constraint>& all) {
  for (std::size_t i = 0; i < p.rows.size(); ++i) {
    const LinearRow& row = p.rows[i];
    const double sign = row.op == -1 ? -1.0 : 1.0;
    Vector a = row.a;
    for (double& value : a) value *= sign;
    const double value = std::inner_product(a.begin(), a.end(), x, -sign * row.b);
    all.push_back(
        {row.op == 0, value, std::max(1.0, std::fabs(row.b)), std::move(a), &result.rows[i], sign});
  }
}

static void add_nonlinear(const Problem& p, const double* x, bool gradients, Certificate& result,
                          std::vector<Constraint>& all) {
  if (p.constraints == 0) return;
  const std::size_t n = static_cast<std::size_t>(p.n), m = static_cast<std::size_t>(p.constraints);
  Vector values(m), jacobian(gradients ? m * n : 0);
  p.constraint_values(x, values.data());
  if (gradients) p.constraint_jacobian(x, jacobian.data());
  for (std::size_t i = 0; i < m; ++i) {
    const double* row = jacobian.data() + i * n;
    all.push_back({i < static_cast<std::size_t>(p.equalities), values[i], 1.0,
                   gradients ? Vector(row, row + n) : Vector(), &result.nonlinear[i], 1.0});
  }
}

// All constraints at x. The multipliers stand in the result.
static std::vector<Constraint> constraints_at(const Problem& p, const double* x, bool gradients,
                                              Certificate& result) {
  result.bounds.assign(p.lower.size(), 0.0);
  result.rows.assign(p.rows.size(), 0.0);
  result.nonlinear.assign(static_cast<std::size_t>(p.constraints), 0.0);
  std::vector<Constraint> all;
  add_nonlinear(p, x, gradients, result, all);
  add_rows(p, x, result, all);
  add_bounds(p, x, result, all);
  return all;
}

// Written so that a NaN violates.
static double violation_of(const std::vector<Constraint>& all) {
  double worst = 0.0;
  for (const Constraint& c : all) {
    const double below = (c.equality ? std::fabs(c.value) : -c.value) / c.unit;
    if (!(below <= worst)) worst = std::isnan(below) ? HUGE_VAL : below;
  }
  return worst;
}

double largest_violation(const Problem& problem, const double* x) {
  Certificate unused;
  return violation_of(constraints_at(problem, x, false, unused));
}

// ---- The certificate ----------------------------------------------------------------------------

namespace {
// The active constraints as columns of least squares: gradients in units of s, of length 1.
struct ActiveSet {
  std::size_t equalities = 0;  // they come first
  std::vector<Vector> columns;
  std::vector<double> lengths;
  std::vector<const Constraint*> constraints;
};
}  // namespace

static ActiveSet active_set(const std::vector<Constraint>& all, const Vector& s, double tolerance) {
  ActiveSet active;
  for (const bool equality : {true, false}) {
    for (const Constraint& c : all) {
      if (c.equality != equality) continue;
      Vector column = c.gradient;
      for (std::size_t j = 0; j < s.size(); ++j) column[j] *= s[j];
      const double length = std::sqrt(dot(column, column));
      if (!equality && !(std::fabs(c.value) <= tolerance * std::max(1.0, length))) continue;
      if (!(length > 0.0 && std::isfinite(length))) continue;
      for (double& value : column) value /= length;
      active.columns.push_back(std::move(column));
      active.lengths.push_back(length);
      active.constraints.push_back(&c);
    }
    if (equality) active.equalities = active.columns.size();
  }
  return active;
}

static Vector units(const Problem& problem, const double* x) {
  Vector s(x, x + problem.n);
  for (double& unit : s) unit = std::max(1.0, std::fabs(unit));
  return s;
}

std::vector<Vector> active_normals(const Problem& problem, const double* x, double active) {
  Certificate unused;
  const std::vector<Constraint> all = constraints_at(problem, x, true, unused);
  std::vector<Vector> normals;
  for (const Constraint* c : active_set(all, units(problem, x), active).constraints) {
    const double length = std::sqrt(dot(c->gradient, c->gradient));
    normals.push_back(c->gradient);
    for (double& value : normals.back()) value /= length;
  }
  return normals;
}

static double largest(const Vector& values) {
  double most = 0.0;
  for (const double value : values) most = std::max(most, std::fabs(value));
  return most;
}

Certificate certify(const Problem& problem, const double* x,
                    const CertificateTolerances& tolerances) {
  Certificate result;
  const std::vector<Constraint> all = constraints_at(problem, x, true, result);
  result.violation = violation_of(all);
  const Vector s = units(problem, x);
  Vector g(s.size());
  const double f = problem.evaluate(x, g.data());
  for (std::size_t j = 0; j < g.size(); ++j) g[j] *= s[j];
  const ActiveSet active = active_set(all, s, tolerances.active);
  const Vector u = nonnegative_least_squares(active.columns, active.equalities, g);
  const double size = std::max(1.0, std::fabs(f));
  result.rest = residual(active.columns, u, g);
  result.stationarity = largest(result.rest) / std::max(size, largest(g));
  for (std::size_t j = 0; j < s.size(); ++j) result.rest[j] /= s[j];
  for (std::size_t i = 0; i < u.size(); ++i) {
    const Constraint& c = *active.constraints[i];
    const double multiplier = u[i] / active.lengths[i];
    *c.multiplier += c.sign * multiplier;
    if (c.equality) continue;
    result.complementarity =
        std::max(result.complementarity, multiplier * std::fabs(c.value) / size);
  }
  const bool finite = std::isfinite(f) && std::all_of(g.begin(), g.end(), [](double value) {
                        return std::isfinite(value);
                      });
  if (!finite) result.stationarity = HUGE_VAL;
  result.holds = result.violation <= tolerances.feasible &&
                 result.stationarity <= tolerances.stationary &&
                 result.complementarity <= tolerances.stationary;
  return result;
}

}  // namespace tqnlp::problems
