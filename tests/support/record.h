// A filled problem record for tests that drive the module's functions directly, without the calling
// surface: every array that a second-order run with bounds and linear constraints needs, and
// callbacks that go to std::function members.
#pragma once

#include <functional>
#include <vector>

#include "aasubs/record/minstr.h"
#include "problems/problem.h"

namespace tqnlp::test {

using namespace problems;

struct TestRecord : MINSTR {
  // All bounds absent, no constraints; technique 4, tolerances and limits at their defaults.
  explicit TestRecord(long n, int technique = 4);
  ~TestRecord();
  TestRecord(const TestRecord&) = delete;
  TestRecord& operator=(const TestRecord&) = delete;

  // Sets both bounds (and the flag bounds); counts nbec, nbic.
  TestRecord& with_bounds(std::vector<double> lower, std::vector<double> upper);
  // Sets the linear constraints (equality or at least) as the calling surface stores them, sparse
  // by rows, opro 1.
  TestRecord& with_rows(const std::vector<LinearRow>& rows);
  // Makes the record one of least squares: m residuals, crit half the sum of their squares; usjac
  // writes the Jacobian to the store, and both derivative callbacks leave the gradient in grad.
  using Body = std::function<void(const double* point, double* values)>;
  TestRecord& with_residuals(long m, Body residuals, Body jacobian);
  TestRecord& at(const std::vector<double>& point);

  // Objective pieces; an absent one leaves the callback null. A value that is missing or NaN counts
  // as a failed evaluation.
  std::function<double(const double* point)> f;
  std::function<void(const double* point, double* gradient)> g;
  std::function<void(const double* point, double* hessian_packed)> h;
  Body res;  // residuals
  Body jac;  // m rows of n
  // Installs callbacks for the pieces that are set.
  TestRecord& with_callbacks();

  std::vector<double> point() const { return {x, x + nvar}; }

 private:
  double* doubles(long count);
  long* longs(long count);
  void count_constraints();

  std::vector<std::vector<double>> double_arrays_;
  std::vector<std::vector<long>> long_arrays_;
  std::vector<int> status_;
};

// Gives a record the objective, gradient and Hessian of a problem, which must outlive it, and its
// standard start.
void install(TestRecord& record, const Problem& problem);
void install(TestRecord& record, Problem&& problem) = delete;
// The same for the residuals of a problem and their Jacobian.
void install_residuals(TestRecord& record, const Problem& problem);

// Prepares a run and lets the technique run: the first code that is not 0.
int run_technique(MINSTR& record);

// Code with which body ends the run; 0 when it returns.
int exit_code_of(const std::function<void()>& body);

}  // namespace tqnlp::test
