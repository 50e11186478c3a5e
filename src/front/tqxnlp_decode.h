// Decoding of a call (source tqxnlp): arguments, the vectors of settings, bounds and linear
// constraints. All work on the record and on the decoded call that hangs from its secstr.
//
// In every argument a NaN of any bit pattern counts as a missing element.
#pragma once

#include "aasubs/record/minstr.h"
#include "aasubs/setup/constraint_rows.h"
#include "front/argmts.h"

namespace tqnlp {

// ---- Arguments ----------------------------------------------------------------------------------

// Orders of derivatives (ider of getargm).
inline constexpr int READ_NO_DERIVATIVES = 0;
inline constexpr int READ_GRADIENT = 1;
inline constexpr int READ_JACOBIAN = 3;
inline constexpr int READ_HESSIAN = 4;

// Layouts of an argument list (job of getargm): they differ in positions 1 and 8 to 10.
inline constexpr int ARGS_QUADRATIC = 0;      // matrix, x0, opt, blc, tc, par, "ptit", vector
inline constexpr int ARGS_SIMPLEX = 1;        // "fun" ... "ptit", "nlc"
inline constexpr int ARGS_GRADIENT = 2;       // "fun" ... "ptit", "grd"
inline constexpr int ARGS_SECOND_ORDER = 3;   // "fun" ... "ptit", "grd", "hes"
inline constexpr int ARGS_LEAST_SQUARES = 4;  // "fun" ... "ptit", "jac"
inline constexpr int ARGS_NONLINEAR = 5;      // "fun" ... "ptit", "grd", "nlc", "jnc"

// Reads the narg arguments of an optimizer into argm (zero-filled, calnam set): sizes, references
// to the data, names and handles of modules. ider: order of derivatives, of which only
// READ_JACOBIAN matters: it makes opt a required argument. Returns 0, 3 (no such module) or 6 (bad
// argument), the latter two with a message of group 178.
int getargm(ARGMTS* argm, TQLARG** arg, long narg, int ider, int job);

// The pieces of getargm that the two calls without an optimizer share. All return as getargm does.
int read_start(ARGMTS* argm, TQLARG** arg, long narg, int position);
int read_constraint_matrix(ARGMTS* argm, TQLARG** arg, long narg, int position);
int read_module(ARGMTS* argm, TQLARG** arg, long narg, int position, int code);
int refuse_too_few(const ARGMTS* argm, long narg, long fewest);

// An argument as the host shows it.
struct Argument {
  int kind;  // ARGUMENT_ABSENT also for a numeric matrix without elements
  long rows;
  long cols;
  long length;  // of a name
  void* data;
};
Argument look_at_argument(TQLARG** arg, long narg, int position);
bool is_vector(const Argument& argument);

// ---- Vectors of settings ------------------------------------------------------------------------

// Each reads one vector of the decoded call into the record, over defaults that depend on job and
// technique. They report nothing: values out of range are limited or ignored (tqxnlp_remarks.h).
//
// setoptn(opt)  job 0 NLPNMS, 1 general, 2 least squares. Reads tech, igmod. Writes hesc, imax,
//               dbug, load, vers, tupd, tlin, mequ (job 2), nnlc, nlec, cfdh, hrow of the call, and
//               the difference code's units digit into fidi. Elements beyond +-2147483647 are
//               clamped in the caller's vector.
// setparm(par)  job 0 NLPNMS, 1 NLPCG, 2 and above all others. Reads tech, tupd, nlicon.
// setterm(tc)   job 0 NLPNMS, 1 NLPCG, 2 all others. Reads fdig (so it follows setparm), imax and
//               nlicon.
void setoptn(MINSTR* str, int job);
void setparm(MINSTR* str, int job);
void setterm(MINSTR* str, int job);

// Number as an integer: truncated, limited to +-2147483647; 0 for a NaN.
int to_int(double value);

// ---- Bounds and linear constraints --------------------------------------------------------------

// Jobs of getncon and setcons.
inline constexpr int CONS_LINEAR = 0;     // no nonlinear constraints
inline constexpr int CONS_SIMPLEX = 1;    // NLPNMS: an equality counts as two inequalities
inline constexpr int CONS_NONLINEAR = 2;  // nonlinear constraints

// First pass over blc: counts what it holds into nlicon, lincon, bounds, ncon, neqc, ntec, ntco, so
// that arrays can be sized. *mzac receives the number of coefficients that alcn will hold. Where
// 1.00000001 times the lower bound of a pair exceeds the upper one, the upper is set to the lower
// in the caller's matrix: bounds that cross, and positive ones that all but meet. Negative bounds
// that cross by less than that pass here; setcons fixes the parameter at the upper one. Returns 0,
// or -1 with a message when a row cannot be taken.
int getncon(MINSTR* str, int job, long* mzac);

// Second pass: fills lb, ub, iabc, alcn, blcn, naco, jalc and the final counts (also nbec, nbic),
// and takes dependent rows out. Only called when blc has rows. Ends the call with xexit(9999) when
// the two passes disagree.
void setcons(MINSTR* str, int job);

}  // namespace tqnlp
