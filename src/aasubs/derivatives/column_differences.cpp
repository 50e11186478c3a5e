// Differences of one column with an estimate of their error.
//
// Method     Two differences of second order over the same points, D(h) and D(2h). The truncation
//            error of D(h) is a third of their distance, for central differences; the distance
//            itself is taken as its estimate, as the next terms need not be small.
// Reference  Gill, Murray and Wright (1981), sections 4.6.1 and 8.1.4
#include "aasubs/derivatives/column_differences.h"

#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/record/constants.h"
#include "kernels/vector.h"

namespace tqnlp {

namespace {

// Points at x + node h, and their weights in h D(h) and h D(2h).
struct Stencil {
  double node[4];
  double single_step[4];
  double double_step[4];
};

}  // namespace

static constexpr Stencil CENTRAL = {
    {-2.0, -1.0, 1.0, 2.0}, {0.0, -0.5, 0.5, 0.0}, {-0.25, 0.0, 0.0, 0.25}};
static constexpr Stencil ONE_SIDED = {
    {0.0, 1.0, 2.0, 4.0}, {-1.5, 2.0, -0.5, 0.0}, {-0.75, 0.0, 1.0, -0.25}};
static constexpr double ROUNDING_UNITS = 20.0;  // in a value that is right to all digits
static constexpr double RELATIVE_ERROR = 1e-6;  // that a derivative may have

static double noise(double digits) {
  return digits > 0.0 ? std::pow(10.0, -digits) : ROUNDING_UNITS * EPS;
}

// The stencil that fits between the bounds at xj, and its step, below 0 to the left; 0: no room.
static const Stencil* choose_stencil(const ColumnDifferences* f, long j, double* step) {
  const double xj = f->x[j];
  const double h = central_interval(f->digits) * std::max(1.0, std::fabs(xj));
  const double below = f->lower == nullptr ? HUGE_VALUE : xj - f->lower[j];
  const double above = f->upper == nullptr ? HUGE_VALUE : f->upper[j] - xj;
  if (std::min(below, above) >= 2.0 * h) {
    *step = step_made(xj, h);
    return &CENTRAL;
  }
  const double room = std::max(below, above) / 4.0;
  *step = room > 0.0 ? std::copysign(step_made(xj, std::min(h, room)), above - below) : 0.0;
  return &ONE_SIDED;
}

// The parameter at a node; rounding does not carry it past a bound.
static double node_value(const ColumnDifferences* f, long j, double xj, double offset) {
  double value = xj + offset;
  if (f->lower != nullptr) value = std::max(value, f->lower[j]);
  if (f->upper != nullptr) value = std::min(value, f->upper[j]);
  return value;
}

int difference_column(ColumnDifferences* f, long j) {
  double h = 0.0;
  const Stencil* stencil = choose_stencil(f, j, &h);
  if (h == 0.0) return COLUMN_FIXED;
  const double xj = f->x[j];
  double* values = f->work;
  double* largest = f->work + f->count;
  for (double* sums : {f->difference, f->error, largest}) vzfdl(0.0, sums, f->count);
  bool good = true;
  for (int k = 0; k < 4 && good; ++k) {
    f->x[j] = node_value(f, j, xj, stencil->node[k] * h);
    good = f->evaluate(f->user, f->x, values);
    for (long i = 0; i < f->count && good; ++i) {
      f->difference[i] += stencil->single_step[k] * values[i];
      f->error[i] += stencil->double_step[k] * values[i];
      largest[i] = std::max(largest[i], std::fabs(values[i]));
    }
  }
  f->x[j] = xj;
  if (!good) return COLUMN_NO_VALUE;
  for (long i = 0; i < f->count; ++i) {
    const double truncation = std::fabs(f->error[i] - f->difference[i]);
    f->error[i] = (truncation + noise(f->digits) * largest[i]) / std::fabs(h);
    f->difference[i] /= h;
  }
  return COLUMN_TAKEN;
}

bool is_wrong_derivative(double given, double difference, double error) {
  const double size = std::max(std::fabs(given), std::fabs(difference));
  return !(std::fabs(given - difference) <= error + RELATIVE_ERROR * size);
}

}  // namespace tqnlp
