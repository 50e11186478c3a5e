// The decoded call (ARGuMenTS): what an entry has read from its argument list, the prepared calls
// of the user's modules and the matrices that are handed to them. The entry owns it on its own
// frame; the problem record refers to it as secstr.
//
// References to argument data (xinp, cons, tcri, optn, parm, qvec, qmat) point into the host's
// matrices, which outlive the call. Argument positions count from 1, as the language does.
#pragma once

#include "host/language.h"

namespace tqnlp {

struct ModuleKind;  // tqxnlp_modules.h

inline constexpr long NAME_FIELD = 32;      // bytes of a module name, padded with blanks
inline constexpr long CALL_NAME_FIELD = 8;  // bytes of a subroutine's name, padded with blanks

// Name of a variable of the language, as tqlrtre takes it.
struct ITERVAR {
  char name[NAME_FIELD];  // padded with blanks
  long length;            // bytes of the name proper
};

// Values of the error flags. Which failure it was decides whether a message is repeated.
inline constexpr int FLAG_GOOD = 0;
inline constexpr int FLAG_FAILED = 1;       // could not be evaluated, or gave a missing value
inline constexpr int FLAG_WRONG_SHAPE = 2;  // gave a result of the wrong kind or shape
inline constexpr int FLAG_UNUSABLE = 3;     // gave a Hessian with holes, or outside its pattern

struct ARGMTS {
  TQLARG** arg;  // the raw argument list

  // Matrices of the modules' calls: result and argument of "fun", "grd", "hes"; result and two
  // arguments (x, crit) of "ptit"; result and argument of "nlc", "jnc". The data of an argument
  // belongs to the call, the data of a result to the host.
  TQLSYM arg0, arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10, arg11, arg12;

  // Prepared calls; null: none. The entry gives them back.
  TQLSS* ssfun;  // objective
  TQLSS* ssgrd;  // gradient, or Jacobian of least squares
  TQLSS* sshes;  // Hessian
  TQLSS* sstrm;  // termination
  TQLSS* ssnlc;  // nonlinear constraints
  TQLSS* ssjnc;  // their Jacobian

  // Names of the modules, upper case, padded with blanks; and of the subroutine, for messages.
  char funnam[NAME_FIELD];
  char trmnam[NAME_FIELD];
  char grdnam[NAME_FIELD];
  char hesnam[NAME_FIELD];
  char nlcnam[NAME_FIELD];
  char jncnam[NAME_FIELD];
  char calnam[CALL_NAME_FIELD];

  // Error flags, one for each kind of module call: state of the last one (values above). They
  // outlive a call: after the start point the entry runs no technique while one is set.
  int funer;  // objective
  int grder;  // gradient
  int heser;  // Hessian
  int grjer;  // gradient by way of the Jacobian
  int cpjer;  // crossproduct of the Jacobian
  int jacer;  // Jacobian
  int nlcer;  // nonlinear constraints
  int jncer;  // their Jacobian
  int trmer;  // termination
  long ntrm;  // times in succession that the termination module was asked about the same point

  // Module that could not be evaluated last; null: none so far.
  const ModuleKind* failed;

  // Host's handles of the modules; null: not given.
  TQLMOD* funptr;
  TQLMOD* grdptr;
  TQLMOD* hesptr;
  TQLMOD* nlcptr;
  TQLMOD* jncptr;
  TQLMOD* trmptr;

  short dncf;   // 1: a differentiation is under way, function calls are not counted
  short dncg;   // 1: the same for gradient calls
  short iptit;  // 1: a termination module is given
  short ifmod;  // 1: an objective module is given
  short igmod;  // 1: a gradient or Jacobian module is given
  short ihmod;  // 1: a Hessian module is given
  short icmod;  // 1: a module of nonlinear constraints is given
  short jcmod;  // 1: a module of their Jacobian is given
  short qlin;   // 1: NLPQUA has a linear term
  short qcon;   // 1: NLPQUA has a constant

  int n;      // parameters, length of x0
  int ncon;   // rows of blc
  int nitc;   // elements of tc
  int nopt;   // elements of opt
  int npar;   // elements of par
  int ccol;   // columns of blc
  long hrow;  // rows of a sparse Hessian in three-column form (row, column, value); 0 dense
  int iargx;  // position of x0
  int iargc;  // position of blc
  int iargq;  // position of the quadratic's vector

  double* xinp;  // n; x0
  double* cons;  // ncon x ccol; blc, changed in place where its bounds cross
  double* tcri;  // nitc; tc
  double* optn;  // nopt; opt, clamped in place
  double* parm;  // npar; par
  double* qvec;  // n or n+1; vector of the quadratic
  double* qmat;  // n x n, or hrow x 3; matrix of the quadratic

  // The variable "_ITER_", from which a module can read the iteration.
  TQLSYM* _itersymptr_;  // symbol of the language, as last looked up
  double _iter_;         // value last written
  ITERVAR* _iterptr_;    // the name once it is set up; null before
  ITERVAR _iterstr_;     // room for the name
};

}  // namespace tqnlp
