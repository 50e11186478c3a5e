// A problem of a fuzzed call: functions with their derivatives, computed apart from the modules,
// and what may go wrong in a module.
#pragma once

#include <string>
#include <vector>

#include "bytes.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::fuzz {

// f(x) = sum phi(x_j) + c (a'x)^2; residuals and constraints are made of phi and a too. phi is one
// of a family: convex and not, bounded and not, undefined in places, flat, huge, with corners.
struct Problem {
  static constexpr int FAMILIES = 14;

  long n = 1;     // parameters
  long m = 1;     // residuals, when squares are summed
  long nnlc = 0;  // nonlinear constraints
  int family = 0;
  double coupling = 0.0;
  std::vector<double> a;

  double objective(const Matrix& x) const;
  Matrix gradient(const Matrix& x) const;
  Matrix hessian(const Matrix& x) const;
  Matrix residuals(const Matrix& x) const;
  Matrix jacobian(const Matrix& x) const;
  Matrix constraints(const Matrix& x) const;
  Matrix constraint_jacobian(const Matrix& x) const;
};

Problem read_problem(Bytes& bytes);

// What a module does instead of answering, at its k-th run or from then on.
struct Misbehaviour {
  enum Kind {
    none,
    gives_missing,
    gives_infinity,
    gives_huge,
    gives_nonsense,
    wrong_shape,
    gives_name,
    gives_nothing,
    cannot_evaluate,
    throws_foreign,
    calls_again,
    calls_another,
    kinds
  };
  Kind kind = none;
  int first = 0;
  bool onwards = false;
};

Misbehaviour read_misbehaviour(Bytes& bytes);

// What a module of the fuzzer throws, unknown to the library.
struct Foreign {
  int run;
};

}  // namespace tqnlp::fuzz
