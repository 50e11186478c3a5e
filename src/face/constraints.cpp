// Constraints made ready: rows of one coefficient become bounds, two sides become two rows,
// equalities stand first.
#include "face/constraints.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "aasubs/record/constants.h"

namespace tqnlp::face {

// Bounds that cross by no more than rounding are meant to be equal.
static bool crosses(double lower, double upper) {
  static constexpr double ROUNDING = 1e-12;
  return lower - upper > ROUNDING * (1.0 + std::max(std::fabs(lower), std::fabs(upper)));
}

static std::string who_set(const ProblemData& problem, long row, const std::string& otherwise) {
  return row < 0 ? otherwise : problem.row_name(row);
}

static void take_bound_arrays(const ProblemData& problem, Constraints& c) {
  const auto n = static_cast<std::size_t>(problem.n);
  c.lower.assign(n, -HUGE_VALUE);
  c.upper.assign(n, HUGE_VALUE);
  c.lower_row.assign(n, -1);
  c.upper_row.assign(n, -1);
  for (std::size_t j = 0; j < n; ++j) {
    if (side_there(problem.lower[j])) c.lower[j] = problem.lower[j];
    if (side_there(problem.upper[j])) c.upper[j] = problem.upper[j];
    if (crosses(c.lower[j], c.upper[j]))
      refuse("bounds of " + problem.parameter_name(static_cast<long>(j)),
             "lower " + shown(c.lower[j]) + " above upper " + shown(c.upper[j]),
             "lower at most upper");
  }
}

// A row without coefficients says something about 0 alone.
static void check_empty_row(const ProblemData& problem, long i) {
  const LinearRow& row = problem.rows[static_cast<std::size_t>(i)];
  if (row.lower <= 0.0 && row.upper >= 0.0) return;
  refuse(problem.row_name(i),
         "no coefficient, and sides " + shown(row.lower) + " and " + shown(row.upper),
         "sides that 0 satisfies");
}

// lower <= a x_j <= upper; a negative coefficient swaps the sides.
static void tighten(const ProblemData& problem, long i, Constraints& c) {
  const LinearRow& row = problem.rows[static_cast<std::size_t>(i)];
  const auto j = static_cast<std::size_t>(row.columns.front());
  const double a = row.values.front();
  double lower = side_there(row.lower) ? row.lower / a : std::copysign(inf, row.lower / a);
  double upper = side_there(row.upper) ? row.upper / a : std::copysign(inf, row.upper / a);
  if (a < 0.0) std::swap(lower, upper);
  if (side_there(lower) && lower > c.lower[j]) {
    c.lower[j] = lower;
    c.lower_row[j] = i;
  }
  if (side_there(upper) && upper < c.upper[j]) {
    c.upper[j] = upper;
    c.upper_row[j] = i;
  }
  if (!crosses(c.lower[j], c.upper[j])) return;
  const std::string name = problem.parameter_name(row.columns.front());
  refuse("constraints on " + name,
         "lower bound " + shown(c.lower[j]) + " by " +
             who_set(problem, c.lower_row[j], "its bounds") + ", upper bound " + shown(c.upper[j]) +
             " by " + who_set(problem, c.upper_row[j], "its bounds"),
         "constraints that some value satisfies");
}

// The sides of a constraint: one equality, or what there is of two inequalities.
static void take_sides(long source, double lower, double upper, std::vector<OneSide>& equalities,
                       std::vector<OneSide>& inequalities) {
  if (lower == upper) {
    equalities.push_back({source, 1.0, lower});
    return;
  }
  if (side_there(lower)) inequalities.push_back({source, 1.0, lower});
  if (side_there(upper)) inequalities.push_back({source, -1.0, upper});
}

static long join(std::vector<OneSide>&& first, const std::vector<OneSide>& then,
                 std::vector<OneSide>& all) {
  const long count = static_cast<long>(first.size());
  all = std::move(first);
  all.insert(all.end(), then.begin(), then.end());
  return count;
}

static void take_rows(const ProblemData& problem, Constraints& c) {
  std::vector<OneSide> equalities, inequalities;
  for (long i = 0; i < static_cast<long>(problem.rows.size()); ++i) {
    const LinearRow& row = problem.rows[static_cast<std::size_t>(i)];
    if (row.lower > row.upper)
      refuse(problem.row_name(i), "lower " + shown(row.lower) + " above upper " + shown(row.upper),
             "lower at most upper");
    if (row.columns.empty()) {
      check_empty_row(problem, i);
    } else if (row.columns.size() == 1) {
      tighten(problem, i, c);
    } else {
      take_sides(i, row.lower, row.upper, equalities, inequalities);
    }
  }
  c.row_equalities = join(std::move(equalities), inequalities, c.rows);
  for (const OneSide& row : c.rows)
    c.nonzeros +=
        static_cast<long>(problem.rows[static_cast<std::size_t>(row.source)].columns.size());
}

// ---- Contradictions of rows ---------------------------------------------------------------------

// The values that a row can have between the bounds, and the size of its terms.
struct Range {
  double lowest = 0.0, highest = 0.0, size = 0.0;
};

static Range range_of(const LinearRow& row, const Constraints& c) {
  Range range;
  for (std::size_t k = 0; k < row.columns.size(); ++k) {
    const auto j = static_cast<std::size_t>(row.columns[k]);
    double least = c.lower[j] > -HUGE_VALUE ? row.values[k] * c.lower[j] : -inf;
    double most = c.upper[j] < HUGE_VALUE ? row.values[k] * c.upper[j] : inf;
    if (row.values[k] < 0.0) {
      least = c.upper[j] < HUGE_VALUE ? row.values[k] * c.upper[j] : -inf;
      most = c.lower[j] > -HUGE_VALUE ? row.values[k] * c.lower[j] : inf;
    }
    range.lowest += least;
    range.highest += most;
    for (const double end : {least, most})
      if (std::isfinite(end)) range.size += std::fabs(end);
  }
  return range;
}

static constexpr double ROUNDING_OF_ROWS = 1e-12;  // relative to the size of the terms

static void check_row_against_bounds(const ProblemData& problem, long i, const Constraints& c) {
  const LinearRow& row = problem.rows[static_cast<std::size_t>(i)];
  const Range range = range_of(row, c);
  const double slack = ROUNDING_OF_ROWS * (1.0 + range.size);
  if (side_there(row.lower) && range.highest < row.lower - slack)
    refuse(problem.row_name(i),
           "lower " + shown(row.lower) + ", and bounds that allow at most " + shown(range.highest),
           "a row that some point within the bounds satisfies");
  if (side_there(row.upper) && range.lowest > row.upper + slack)
    refuse(problem.row_name(i),
           "upper " + shown(row.upper) + ", and bounds that allow at least " + shown(range.lowest),
           "a row that some point within the bounds satisfies");
}

// The factor f with b = f a; 0: the rows are not parallel.
static double parallel_factor(const LinearRow& a, const LinearRow& b) {
  if (a.columns != b.columns) return 0.0;
  const double factor = b.values.front() / a.values.front();
  for (std::size_t k = 0; k < a.values.size(); ++k) {
    const double difference = b.values[k] - factor * a.values[k];
    if (std::fabs(difference) > ROUNDING_OF_ROWS * std::fabs(b.values[k])) return 0.0;
  }
  return factor;
}

// Row k against row i, which comes before it: sides in the units of row i.
static void check_parallel_rows(const ProblemData& problem, long i, long k) {
  const LinearRow& a = problem.rows[static_cast<std::size_t>(i)];
  const LinearRow& b = problem.rows[static_cast<std::size_t>(k)];
  const double factor = parallel_factor(a, b);
  if (factor == 0.0) return;
  double lower = b.lower / factor, upper = b.upper / factor;
  if (factor < 0.0) std::swap(lower, upper);
  const bool above = side_there(lower) && side_there(a.upper) && crosses(lower, a.upper);
  const bool below = side_there(upper) && side_there(a.lower) && crosses(a.lower, upper);
  if (!above && !below) return;
  refuse(problem.row_name(k) + " beside the parallel " + problem.row_name(i),
         above ? "at least " + shown(lower) + " and at most " + shown(a.upper)
               : "at most " + shown(upper) + " and at least " + shown(a.lower),
         "sides that some point satisfies");
}

static void check_rows(const ProblemData& problem, const Constraints& c) {
  std::map<std::vector<long>, std::vector<long>> alike;  // rows of the same parameters
  for (long i = 0; i < static_cast<long>(problem.rows.size()); ++i) {
    const LinearRow& row = problem.rows[static_cast<std::size_t>(i)];
    if (row.columns.size() < 2) continue;
    check_row_against_bounds(problem, i, c);
    std::vector<long>& before = alike[row.columns];
    for (const long other : before) check_parallel_rows(problem, other, i);
    before.push_back(i);
  }
}

static void take_nonlinear(const ProblemData& problem, Constraints& c) {
  std::vector<OneSide> equalities, inequalities;
  for (std::size_t k = 0; k < problem.c_lower.size(); ++k)
    take_sides(static_cast<long>(k), problem.c_lower[k], problem.c_upper[k], equalities,
               inequalities);
  c.nonlinear_equalities = join(std::move(equalities), inequalities, c.nonlinear);
  c.as_given = c.nonlinear.size() == problem.c_lower.size();
  for (std::size_t k = 0; k < c.nonlinear.size() && c.as_given; ++k) {
    const OneSide& one = c.nonlinear[k];
    c.as_given = one.source == static_cast<long>(k) && one.sign == 1.0 && one.side == 0.0;
  }
}

Constraints normalize(const ProblemData& problem) {
  Constraints c;
  take_bound_arrays(problem, c);
  take_rows(problem, c);
  check_rows(problem, c);
  take_nonlinear(problem, c);
  for (std::size_t j = 0; j < c.lower.size(); ++j) {
    if (c.lower[j] > c.upper[j]) c.lower[j] = c.upper[j];  // by rounding
    c.bounds = c.bounds || c.lower[j] > -HUGE_VALUE || c.upper[j] < HUGE_VALUE;
  }
  return c;
}

}  // namespace tqnlp::face
