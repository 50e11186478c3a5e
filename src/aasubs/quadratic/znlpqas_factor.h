// The reduced Hessian of QUADAS and the directions that it gives (source znlpqas_factor).
//
// A reduced Hessian of any inertia is split by its factorization into a strong part, which is
// positive definite and has a Cholesky factor, and weak places, where the pivot failed. Eliminating
// the strong part leaves their Schur complement S, whose diagonal is not positive. Three cases:
//
//   no weak place      definite: the Newton step minimizes the model on the working set
//   S not zero         a pair of weak places gives a direction of negative curvature
//   S zero             singular, semidefinite: directions of zero curvature, along which the model
//                      falls without end where the reduced gradient is not in the range
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

struct ReducedHessian {
  enum class Form { packed, sparse, diagonal };
  enum class Inertia { semidefinite, indefinite, unknown };
  Form form = Form::packed;
  double* scale = nullptr;  // of each parameter: |H(i,j)| <= about scale[i] scale[j]
  double* unit = nullptr;   // of each reduced variable, the same for the matrix that was factored
  bool current = false;     // does the factor belong to the present working set?
  bool updatable = false;   // plain packed factor, which follows single changes of the working set
  long order = 0;           // dimension of the reduced space
  long nosi = 0;            // strong places: ipiv[0..nosi-1]; the weak ones follow in ipiv
  Inertia inertia = Inertia::unknown;
  long first = -1;   // indefinite: the direction of negative curvature has the component 1
  long second = -1;  // at the weak place first and other at second (-1: none)
  double other = 0.0;
};

// Vectors of n in wrk2: spro, five of work for the directions, scale, unit, sizes of the gradient,
// the reduced gradient.
inline constexpr long QUADAS_WORK = 10;

enum class Course { none, newton, straight, negative };

// Factors Z'HZ for the present working set into half. Never fails: what cannot be factored is weak.
void newchol(MINSTR* str, ReducedHessian& reduced);

// Is pivot i of a packed factor more than this share of what it was before elimination?
bool pivot_is_clear(const double* factor, long i, double share);

// The form and the scale of the Hessian; reduced.scale has room for n.
void measure_hessian(MINSTR* str, ReducedHessian& reduced);

// Euclidean length of the vector scale[i] d[i]. No overflow.
double scaled_length(long n, const double* scale, const double* d);

// product := H d over all parameters.
void multiply_hessian(MINSTR* str, const double* d, double* product);

// Reduced direction in spro, and expanded in sdir, for the reduced gradient rg: the Newton step
// where the model has a minimizer on the working set, else a descent direction of zero (straight)
// or negative curvature. sizes: for each parameter the size of what its gradient element was summed
// from, against which a slope along zero curvature must stand out.
Course find_course(MINSTR* str, ReducedHessian& reduced, const double* rg, const double* sizes);

}  // namespace tqnlp
