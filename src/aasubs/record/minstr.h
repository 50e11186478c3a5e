// The problem record. MINSTR (MINimization STRucture) describes one run: an entry of the calling
// surface fills it, the driver and the technique read and change it, and every service takes it as
// its first argument. There is no other shared state.
//
// The record is zero-filled by `MINSTR str{};`, is used for one run, and owns nothing: the entry
// owns every array, a technique may own private work for the length of its run. Indices are
// zero-based. Limits and counters that a user may set to values like 1e9 or the missing value are
// doubles on purpose.
//
// Storage forms
//   packed      lower triangle by rows, element (i,j) at i(i+1)/2 + j (see packed.h)
//   hfrm 0      hess packed, nnva doubles
//   hfrm 1      row-indexed sparse: hess[0..n-1] the diagonal; row i has its off-diagonal elements
//               at positions shes.jasp[i] .. shes.jasp[i+1]-1, column shes.jasp[p] < i, value
//               hess[p]
//   hfrm 2      the diagonal alone, n doubles
//   Jacobian    m rows of n doubles
//   alcn        aspa 1: the nonzeros row after row; row i ends at position naco[i], columns in jalc
#pragma once

#include <cstdint>

#include "aasubs/record/constants.h"
#include "aasubs/record/missing.h"
#include "aasubs/record/packed.h"
#include "aasubs/record/techniques.h"

namespace tqnlp {

static_assert(sizeof(long) == 8 && sizeof(int) == 4 && sizeof(short) == 2);

struct MINSTR;
struct ARGMTS;      // the decoded call, src/front
struct COVSTR;      // options and outputs of post-analysis, aasubs/record/covstr.h
struct WorkFile;    // utility file, a type of the host
struct RvxObject;   // report object, a type of the host
struct JumpBuffer;  // point to resume at after a trapped math error, a type of the host

// Sparse pattern of a symmetric matrix and of its Cholesky factor.
struct SPAR {
  long mxja;   // length of jasp and of the value array
  long mxju;   // length of jusp, and of jusl
  long* jasp;  // matrix: row pointers and columns (row-indexed form, see above)
  long* jusp;  // factor: row pointers and ascending columns
  long* perm;  // place of variable i in the factor
  long* iprm;  // variable at place i of the factor
  long* jasl;  // second pattern of the matrix, for the free parameters alone
  long* jusl;  // second pattern of the factor
};

// What an evaluation is for (field indf). Values below 7 stand for the current iteration and are
// the ones that count in nfct and nfnc.
inline constexpr double AT_START = 2;
inline constexpr double IN_TEST = 3;
inline constexpr double IN_RUN = 4;
inline constexpr double IN_STOP_ANALYSIS = 6;
inline constexpr double GRADIENT_STEP = 7;
inline constexpr double HESSIAN_STEP_FROM_FUNCTION = 8;
inline constexpr double HESSIAN_STEP_FROM_GRADIENT = 9;
inline constexpr double CONSTRAINT_INTERVAL = 10;
inline constexpr double CONSTRAINT_STEP = 11;
inline constexpr double AT_SOLUTION = -1;

// Highest order last evaluated at the current point (field ifdr).
inline constexpr int ORDER_FUNCTION = 1;
inline constexpr int ORDER_GRADIENT = 2;
inline constexpr int ORDER_HESSIAN = 3;

using Callback = int (*)(MINSTR* str);  // 0 success; nonzero failure, negative codes are passed on

struct MINSTR {
  // ---- Group 1. Dimensions and kind of objective (input) ---------------------------------------
  long nvar;         // n, number of parameters
  long nnva;         // n(n+1)/2, length of a packed symmetric matrix of order n
  long mequ;         // m, functions whose squares are summed; 1 for a scalar objective
  long mfun;         // elements of func; equals mequ unless post-analysis changes both
  double dbug;       // print level 0..9; 0 prints nothing
  int imax;          // 1: maximize; the bridge negates, so that every technique minimizes
  int fqad;          // 0 general objective; quadratic by matrix alone 1, matrix and vector 2
  int lsqu;          // 1: objective is half the sum of squares of func
  int l1nm;          // 1: objective is an L1 norm (gradients use sign(f_i)); no entry sets it
  int qlin;          // 1: the quadratic has a linear term in qvec
  double qcon;       // constant term of the quadratic
  WorkFile* utquad;  // file with the quadratic's matrix when it is not in memory; or null

  // ---- Group 2. Technique (input; a technique may adjust nres and dhes) ------------------------
  int tech;     // technique number, see techniques.h
  int vers;     // version switch of a technique, default 2; technique 16 runs its barrier form at 1
  int tupd;     // update method of quasi-Newton and conjugate-gradient techniques, 1..4
  int hesc;     // rule that scales the Hessian or the trust region: 0 none, 1..3
  int load;     // nonzero: an initial Hessian is wanted
  double dhes;  // multiple of the identity used as initial Hessian; missing: technique's default
  double nres;  // [iterations] after which a technique restarts; NEVER

  // ---- Group 3. Constraints (input) -------------------------------------------------------------
  int bounds;     // nonzero: lb, ub and iabc exist
  int lincon;     // nonzero: linear constraints exist
  int nlicon;     // nonzero: nonlinear constraints exist
  long nbec;      // parameters with equal bounds
  long nbic;      // other bound constraints
  long ncon;      // linear constraints, rows of alcn
  long neqc;      // of these equalities; they come first
  long nnlc;      // nonlinear constraints
  long nlec;      // of these equalities; they come first
  long ntec;      // all equality constraints
  long ntco;      // all constraints: capacity of the working set
  double ceps;    // [relative] feasibility tolerance, default 1e-8
  double ldct;    // [relative] linear-dependence tolerance, default 1e-8, 0..0.1
  double deat;    // multiplier below -deat makes a constraint leave; missing: service's default
  WorkFile* utq;  // file with the null-space factor when it is not in memory; or null

  // ---- Group 4. Line search and step control (input) --------------------------------------------
  int tlin;     // line-search method 1..8, 12 the quadratic search of least squares
  double salf;  // initial step length, default 1
  double smax;  // upper bound of the step while the iteration is at most smit; 0 none
  double damp;  // first step of a search is damp times the last alfa; missing: none
  double sigm;  // line-search accuracy (slope reduction)
  long smit;    // [iterations] for which smax holds
  double sing;  // [relative] singularity tolerance of factorizations, default 1e-8
  double rtop;  // relative noise of the objective; missing switches the noise analysis off
  double ssin;  // step length at which the objective counts as unbounded, 1e20

  // ---- Group 5. Derivatives (input; fidi may change in the run) ---------------------------------
  int gchk;          // 0 no derivative test, 1 gradient, 2 Hessian too
  int ider;          // order of the technique: 0 none, 1 gradient, 2 Jacobian, 3 J'J, 4 Hessian
  int fidi;          // digits: difference form of each derivative, see fidi_digit below
  int nfuv;          // 0: differences of the objective; nonzero: of the vector func
  double swfd;       // factor of the switch from forward to central differences; 0 never
  int cfdh;          // difference intervals to estimate: 0 none, 1 objective, 2 constraints, 3 both
  int icpj;          // nonzero: second-order term in the crossproduct Jacobian
  double fdig;       // [decimal digits] accuracy of the objective
  double cdig;       // [decimal digits] accuracy of the nonlinear constraints
  int hfrm;          // form of hess: 0 packed, 1 sparse, 2 diagonal
  double ratio;      // the sparse form is kept up to this share of the room of the packed one
  double tzer;       // zero tolerance of the sparse quadratic
  double ddif;       // tolerance of the symmetry check of a quadratic matrix
  int clod;          // nonzero: the quadratic's factor is loaded from the utility file
  WorkFile* utjacm;  // file with the Jacobian by columns; or null
  long jacend;       // [bytes] of the Jacobian in utjacm; 0 there is none
  int jacrd;         // nonzero: a Jacobian of this run has been read
  int fsav;          // nonzero: call the function again after a derivative call (see ifdr)
  int ifdr;          // highest order last evaluated at x: 1 function, 2 gradient, 3 Hessian

  // ---- Group 6. Termination (input; read by the termination test) -------------------------------
  double upti;  // [s] limit on elapsed time
  long mini;    // [iterations] before a convergence test may stop the run
  double maxi;  // [iterations] limit; <= 0 ends the run before its first iteration
  double max2;  // [iterations] limit of the inner quadratic subproblem
  double maxf;  // [calls] limit of function calls
  double atol;  // ABSCONV: objective level that stops the run
  double aftl;  // ABSFCONV
  double ftol;  // FCONV
  double fto2;  // FCONV2
  double axtl;  // ABSXCONV
  double xtol;  // XCONV
  double agtl;  // ABSGCONV
  double gtol;  // GCONV
  double gto2;  // GCONV2
  double fsiz;  // lower bound on the objective's magnitude in relative tests
  double xsiz;  // lower bound on a parameter's magnitude in relative tests
  long* toln;   // 30 counts: 1..8 consecutive iterations a criterion must hold (0 and 1: at once),
                // 11..18 those counted so far, 20..29 saved while an inner technique runs

  // ---- Group 7. Index and name arrays (input) ---------------------------------------------------
  long* ipiv;               // n; pivots and permutations of factorizations
  long* iwk;                // general integer work
  const char* const* pnam;  // n parameter names; null: X1, X2, ...
  const char* const* fnam;  // mequ function names; null: numbered
  int maxpnam;              // longest name in pnam; set by the driver
  int maxfnam;              // longest name in fnam; set by the driver
  int maxcnam;              // length of each name in cnam

  // ---- Group 8. Real work and value arrays (allocated by the entry) -----------------------------
  double* det;   // 5; determinant of a factorization; head of the block that holds the next five
  double* x;     // n; current point; result
  double* work;  // n; scratch
  double* grad;  // n; gradient at x; result
  double* xold;  // n; previous point
  double* gold;  // n; previous gradient
  double* sdir;  // n; search direction
  double* func;  // mfun; function values at x; result
  double* wrk2;  // second work vector, length by technique
  double* fold;  // mfun; previous function values
  double* hess;  // by hfrm; Hessian, quasi-Newton matrix or factor
  double* half;  // 3 nnva (hfrm 1: mxju, hfrm 2: 3n); Hessian of the Lagrangian, or factor
  double* jacm;  // m x n; Jacobian when it is held in memory (the host's); null: in utjacm
  double* dsca;  // n; diagonal scale: by parameter without linear constraints, else by component
  double* qvec;  // n; linear term of the quadratic
  short* ofco;   // n; code of a parameter's difference interval
  double* wfid;  // difference work, at least max(2, n+1)
  double* hfwd;  // n; forward-difference intervals
  double* hcnt;  // n; central-difference intervals
  double* ster;  // n; standard errors of post-analysis

  // ---- Group 9. Constraint arrays (input and run state of the working set) ----------------------
  int* iabc;     // n; 0 free, 1 at lower bound, -1 at upper bound, 2 fixed
  double* lb;    // n; lower bounds, -HUGE_VALUE absent
  double* ub;    // n; upper bounds, HUGE_VALUE absent
  long* ifxr;    // n; free parameters first, then the nabc on active bounds
  long* iact;    // working set: nalc active constraints, then nldc deferred ones; linear i as i,
                 // nonlinear k as ncon + k
  long* liwk;    // as long as iact; candidate lists
  long* ldco;    // linear-dependence work with nonlinear constraints, and of the barrier form
  double* alcn;  // coefficients of linear constraints, stored as a'x >= b
  double* blcn;  // ncon; their right sides
  double* hpro;  // packed, or without linear constraints as hess; projected Hessian
  double* gpro;  // n; projected gradient; head of the block that holds the next five
  double* lagm;  // n; multipliers: nabc of bounds (tail of ifxr), then nalc (iact)
  double* dcds;  // 2n; cosines, sines of one update
  double* awrk;  // n; one constraint row
  double* qlcn;  // n x n, stride n; orthogonal factor Q of the active constraints
  double* llcn;  // packed; triangular factor T, pivot first in each row
  double* lag2;  // multipliers of the second form
  double* ywrk;  // 4n; one row in work of the range-space frame
  double* uvwg;  // solved gradients and triangle of the range-space frame
  const char* cnam;  // names of general constraints, linear first, maxcnam characters each, padded
                     // with blanks; null, or blank: by kind and number
  double* fcon;      // nnlc; nonlinear constraint values; COBYLA: ntco, of all constraints
  double* jcon;      // nnlc x n; their Jacobian; COBYLA: values at the vertices
  double* grlf;      // n; gradient of the Lagrangian
  short hesalo;      // 1: hess was allocated
  short hpralo;      // 1: hpro was allocated
  short hlfalo;      // 1: half was allocated

  // ---- Group 10. Callbacks (input); null: absent ------------------------------------------------
  Callback usfct;                                // objective at x: sets crit, and func; never null
  Callback usgrd;                                // gradient at x into grad
  Callback usjac;                                // Jacobian at x
  Callback ushes;                                // Hessian at x into hess
  Callback usnlc;                                // nonlinear constraints at x into fcon
  Callback usjnc;                                // their Jacobian at x into jcon
  Callback usclo;                                // factors or closes the quadratic's matrix
  Callback usfout;                               // called first in every termination test
  int (*uster)(MINSTR* str, int job);            // termination test
  int (*acget)(MINSTR* str, long i, double* w);  // row i of the constraints, n doubles
  int (*updat)(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* half,
               double* uvec, double* vvec, double* wvec);  // quasi-Newton update
  Callback linse;                                          // line search

  // ---- Group 11. Recovery -----------------------------------------------------------------------
  SPAR shes;         // sparsity pattern of hess when hfrm is 1
  JumpBuffer* mpin;  // where a trapped math error resumes; null: nowhere

  // ---- Group 12. Status of a run ----------------------------------------------------------------
  double tbig;  // nonzero: the last evaluation failed or was too large; test after callbacks
  double nitr;  // iteration number
  double indf;  // what the present evaluation is for, see above
  short* icon;  // constraint flags for a report
  int isqp;     // 1: a quadratic subproblem runs
  int rcod;     // last return code
  int ipre;     // feasibility tolerance is ceps * 10^ipre
  int aspa;     // 1: alcn is sparse by rows
  int zmsg;     // detail of the reports for limits, 1..3
  int job;      // private switch of the running technique
  int opro;     // frame of general constraints: 0 none, 1 null space, 2 range space
  int ulm2;     // 1: multipliers come from the second form
  int tcod;     // last code that a termination module of the user answered; 0: go on, or no module
  int unbd;     // 1: the warning of an unbounded objective has been given

  // ---- Group 13. Counters (result) --------------------------------------------------------------
  long nfct;   // function calls with indf below 7
  long ngrd;   // gradient calls
  long nhes;   // Hessian or Jacobian calls
  long nfnc;   // nonlinear-constraint calls with indf below 7
  long njnc;   // constraint-Jacobian calls
  long nret;   // Hessians and constraint Jacobians whose differences were left partly done
  long nhup;   // quasi-Newton updates
  long nlis;   // line searches
  long itre;   // iterations since the restart
  long ires;   // restarts
  long null;   // inertia or singular count of the last factorization
  long nanc;   // active nonlinear constraints
  long nalc;   // active general constraints
  long nabc;   // active bounds
  long nldc;   // active general constraints deferred as linearly dependent
  long nlbc;   // active bounds deferred as linearly dependent
  long chac;   // change of the working set in this iteration; negative after a drop
  long idac;   // constraint dropped: 0 none, +k one, -K a block, BLOCK_DROPPED
  long nter;   // calls of the termination test; 0: the technique has not measured a point yet
  long npev;   // positive eigenvalues of a quadratic matrix
  long nzev;   // zero eigenvalues
  long nnev;   // negative eigenvalues
  long* jalc;  // column of each stored coefficient of alcn
  long* naco;  // ncon; coefficients stored up to the end of each row

  // ---- Group 14. Iteration values (result) ------------------------------------------------------
  double crit;   // objective at x, negated when maximizing
  double cold;   // objective at xold
  double gmax;   // largest absolute element of the projected gradient
  double pred;   // predicted reduction of this iteration
  double ridg;   // ridge of the Hessian
  double delt;   // trust-region radius
  double lamb;   // Levenberg-Marquardt parameter
  double rhor;   // actual over predicted reduction
  double gcri;   // first gradient criterion, g'H^-1 g or its scaled form
  double gihg;   // its Levenberg-Marquardt form
  double mtim;   // [s] clock at the start, elapsed time at the end
  double dfes;   // expected decrease of the first step; or missing
  double alfa;   // step length
  double stub;   // largest step allowed by the constraints
  double speed;  // convergence speed of Gauss-Newton
  double crlf;   // merit function
  double cpsi;   // penalty value of the nonlinearly constrained techniques
  double gmlf;   // largest element of the projected gradient of the Lagrangian
  double cmax;   // largest constraint violation
  double* spro;  // projected step, points to work
  double* vnlc;  // values for the nonlinear-constraint report

  // ---- Group 15. Sub-records --------------------------------------------------------------------
  ARGMTS* secstr;  // decoded arguments; null when no calling surface drives the run
  void* thdstr;    // working record of the running technique
  COVSTR* covstr;  // post-analysis; null in every call of the thirteen subroutines
  MINSTR* savstr;  // outer record while an inner technique runs

  // ---- Group 16. Report objects (run state of the reports); null when not in use
  // -------------------
  RvxObject* rvx;     // delivery object of the call; made by the entry
  RvxObject* out;     // current table
  RvxObject* ithis;   // open iteration history
  RvxObject* parest;  // the remaining handles each hold one kind of table while it is written
  RvxObject* lagmul;
  RvxObject* projgra;
  RvxObject* presid;
  RvxObject* fdest;
  RvxObject* nlcest;
  RvxObject* gtst;
  RvxObject* pdisres;
  RvxObject* licot1;
  RvxObject* licot2;
  RvxObject* licot3;
  RvxObject* licot4;
  RvxObject* licot5;
  RvxObject* hestab;
  RvxObject* jactab;
  RvxObject* nljact;
  RvxObject* fact;
  RvxObject* plit;
  RvxObject* evta;
  RvxObject* lide;
  char T_ac1[8];  // history: mark of the Hessian
  char T_ac2[8];  // history: mark of the active set
  long pnact;     // history: active constraints
  long piter;     // history: iteration
  double pcrit;   // history: objective as the user knows it
  double pcdif;   // history: decrease of the objective
  double pgmax;   // history: largest projected gradient element
  double ppred;   // history: predicted reduction or slope
  // What the last test of a step measured, by the code of the criterion; missing without a step.
  double tval[10];
};

// Digit k of fidi (k = 0 gradient, 1 Jacobian, 2 crossproduct, 3 Hessian, 4 constraint Jacobian):
// 0 supplied, 1 forward, 2 central; for the Hessian 1 and 2 from function values, 3 and 4 from
// gradients.
constexpr int fidi_digit(int fidi, int k) {
  int power = 1;
  for (int i = 0; i < k; ++i) power *= 10;
  return fidi % (10 * power) / power;
}

// Does QUADAS run in its barrier form?
inline bool is_barrier(const MINSTR* str) {
  return str->tech == QUADAS && str->vers == BARRIER_FORM;
}

// Does the run keep its general constraints in the range-space frame? The barrier form has that
// frame of its own, and opro stays 0.
inline bool in_range_space(const MINSTR* str) {
  return str->opro == 2 || (str->opro == 0 && is_barrier(str) && str->lincon != 0);
}

// Feasibility tolerance ceps * 10^jeps, formed by repeated multiplication as in every test.
inline double feasibility_tolerance(const MINSTR* str, int jeps) {
  double eps = str->ceps;
  for (int i = 0; i < jeps; ++i) eps *= 10.0;
  return eps;
}

// A bound that exists: strictly inside the range of finite doubles.
constexpr bool lower_exists(double lb) { return lb > -HUGE_VALUE; }
constexpr bool upper_exists(double ub) { return ub < HUGE_VALUE; }

}  // namespace tqnlp
