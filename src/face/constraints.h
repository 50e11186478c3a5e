// The constraints of a problem in the form of the record: bounds, rows a'x = b and a'x >= b, values
// c(x) = 0 and c(x) >= 0, equalities first; and the way back to what the user said.
#pragma once

#include "face/problem.h"

namespace tqnlp::face {

// One side of a row or a nonlinear constraint: sign (value - side) is 0, or at least 0.
struct OneSide {
  long source = 0;  // which row, which constraint
  double sign = 1.0;
  double side = 0.0;
};

struct Constraints {
  bool bounds = false;
  std::vector<double> lower;  // n, with what rows of one coefficient tighten; -+HUGE_VALUE: none
  std::vector<double> upper;
  std::vector<long> lower_row;  // n; the row that set the bound, -1: the bound itself
  std::vector<long> upper_row;
  std::vector<OneSide> rows;
  long row_equalities = 0;
  long nonzeros = 0;  // of rows
  std::vector<OneSide> nonlinear;
  long nonlinear_equalities = 0;
  bool as_given = false;  // nonlinear values are the user's own, in order and sign
};

// Throws std::invalid_argument with both numbers and the names where constraints contradict one
// another.
Constraints normalize(const ProblemData& problem);

}  // namespace tqnlp::face
