// The constraints of a problem as one list of terms (see vmcstr.h), the penalty on their violation,
// and the Lagrangian.
//
//   merit        psi(x) = f(x) + sum of vmu_i viol_i(x), viol |c| of an equality, max(-c, 0) else
//   Lagrangian   f(x) - sum of vlam_i c_i(x)
#pragma once

#include "aasubs/sqp/vmcstr.h"

namespace tqnlp {

// ---- Terms --------------------------------------------------------------------------------------

// Gradient of constraint i < rows, n doubles; may stand in awrk until the next call.
const double* getjcon(MINSTR* str, const VMCSTR& v, long i);

// Index of constraint i < rows in the working set of the problem record: linear k as k, nonlinear k
// as ncon + k.
long general_index(const MINSTR* str, const VMCSTR& v, long i);

// The term of constraint g of the working set, the other way round.
long term_index(const MINSTR* str, const VMCSTR& v, long g);

// Is term i an equality?
inline bool is_equality(const VMCSTR& v, long i) { return i < v.equalities; }

// Violation of term i at the value c.
double violation(const VMCSTR& v, long i, double c);

// Largest violation among the values of all terms.
double largest_violation(const VMCSTR& v, const double* values);

// vcon := values of all terms at x, the nonlinear constraints by their module. False: it failed.
bool setvcon(MINSTR* str, VMCSTR& v);

// Objective and terms at x. False: one of them could not be had.
bool evaluate_values(MINSTR* str, VMCSTR& v);

// Gradient of the objective and Jacobian of the nonlinear constraints at x. False: one failed.
bool evaluate_derivatives(MINSTR* str, VMCSTR& v);

// ---- Merit function and Lagrangian --------------------------------------------------------------

// Sum of vmu_i viol_i over the given values.
double penalty(const VMCSTR& v, const double* values);

// Merit of the linear model at xold + alfa sdir, from the objective there and the values in cbeg.
double model_merit(const VMCSTR& v, double objective, double slope, double alfa);

// Lagrangian at x; its gradient, into grlf, and the largest element of that, into gmlf and gmax.
double lagrangian(const MINSTR* str, const VMCSTR& v);
void lagrangian_gradient(MINSTR* str, VMCSTR& v);

// Largest of min(multiplier, value) over the inequalities: a multiplier counts where its constraint
// does not hold with equality.
double complementarity(const VMCSTR& v);

// vlam := multipliers of the members of a record's working set that fit its gradient; zero those of
// all others, and of inequalities whose multiplier has the wrong sign. term_of gives the term of a
// row of that record.
void take_multipliers(MINSTR* record, VMCSTR& v,
                      long (*term_of)(const MINSTR*, const VMCSTR&, long));

// slop and prdc of the step sdir at x.
void set_slopes(MINSTR* str, VMCSTR& v);

// The least change of the weights that makes the step lead down by the linear model, after Powell:
// where the quadratic model rises along the step (slope g'd and curvature d'Bd), the penalty has to
// fall by twice the slope. False: the weights stand as they are.
bool raise_weights(VMCSTR& v, double slope);

// Powell's other rule: vmu := max(|vlam|, (vmu + |vlam|) / 2), which lets weights fall again.
void average_weights(VMCSTR& v);

}  // namespace tqnlp
