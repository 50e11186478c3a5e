// Quadratic programs: c + g'x + x'Hx / 2 under bounds and linear rows.
#pragma once

#include "problems/problem.h"

namespace tqnlp::problems {

// Small and dense: p holds the program as any other problem, h is n x n by rows, linear is g with c
// behind it.
struct QuadraticProgram {
  Problem p;
  std::vector<double> h, linear;
};

enum class Curvature { definite, semidefinite, indefinite };

// A random program over bounds, rows, or both. A convex one has a solution built in, whose value is
// in p.minima: many rows meet there, some with a multiplier of zero, some repeated or summed. An
// indefinite one has finite bounds.
QuadraticProgram random_program(unsigned seed, long n, Curvature curvature);

// Large and sparse, under bounds: rows (i, j, value) of the lower triangle of H, from 1.
struct GridProgram {
  std::string name;
  long n = 0;
  std::vector<double> triplets, linear, lower, upper, start;
};

// Models on a grid of side x side points in the unit square, zero at its edge: a membrane over an
// obstacle (Dembo and Tulowitzki 1983) and the elastic-plastic torsion of a bar under a twist of 5
// for each unit of length (Glowinski 1984, Numerical Methods for Nonlinear Variational Problems).
GridProgram obstacle_program(long side);
GridProgram torsion_program(long side);

}  // namespace tqnlp::problems
