// Derivatives of functions to one parameter by central differences, each with an estimate of its
// error: what a check holds supplied derivatives against.
#pragma once

namespace tqnlp {

// Functions of n parameters and a point.
struct ColumnDifferences {
  // In.
  long count = 0;  // functions
  // Fills values at x; false where one has no value.
  bool (*evaluate)(void* user, const double* x, double* values) = nullptr;
  void* user = nullptr;
  double* x = nullptr;            // the point; as it was afterwards
  const double* lower = nullptr;  // bounds, or null; no function is evaluated beyond them
  const double* upper = nullptr;
  double digits = 0.0;  // decimal digits that are right in the functions; not above 0: all
  // Out, and scratch.
  double* difference = nullptr;  // count
  double* error = nullptr;       // count
  double* work = nullptr;        // 2 * count
};

enum ColumnResult : int {
  COLUMN_TAKEN = 0,
  COLUMN_FIXED = 1,     // there is no room between the bounds of the parameter
  COLUMN_NO_VALUE = -1  // a function has no value beside the point
};

// Differences to parameter j: central ones, and second-order ones to one side next to a bound. The
// error is that between two steps, one twice the other, and that of rounding.
int difference_column(ColumnDifferences* functions, long j);

// Is a derivative further from the difference than its error explains?
bool is_wrong_derivative(double given, double difference, double error);

}  // namespace tqnlp
