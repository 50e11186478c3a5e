// Dense factorizations, triangular solves and products, rotations, projections.
//
// Packed means lower triangle by rows: (i,j), j <= i, at i(i+1)/2 + j. A packed factor L stands in
// the same layout. Dense means element (i,j) at u[i*incu + j]. No kernel allocates or writes a
// message; a job number that no branch knows ends the run through xexit(9999).
#pragma once

#include "aasubs/record/minstr.h"
#include "host/files.h"

namespace tqnlp {

// ---- Factorization family
// ------------------------------------------------------------------------ job: 0 choose by hfrm,
// bounds and lincon; 1 LDL'; 2 LL'; 3 diagonal; 4 LL' with diagonal pivoting, in place in c, order
// in str->ipiv; 5 diagonal with pivoting; 6 and 7 sparse. In jobs 1 to 3 cc may be c. c and b
// below: c the factor, b the right side, overwritten.
long znlpcde(MINSTR* str, int job, long n, double sing, double* logdet, double* c, double* cc,
             double* w);
int znlpcso(MINSTR* str, int job, long n, double* c, double* b);
int znlpium(MINSTR* str, int job, long n, double* c, double* b);
int znlpilm(MINSTR* str, int job, long n, double* c, double* b);
void znlpmmu(MINSTR* str, int job, long n, double* c, double* b);
void znlpumu(MINSTR* str, int job, long n, double* c, double* b);
void znlplmu(MINSTR* str, int job, long n, double* c, double* b);
int znlpcin(MINSTR* str, int job, long n, double sing, double* c, double* cc, double* w);

// ---- QR and triangular systems
// --------------------------------------------------------------------
long zqrdec(long m, long n, long p, long incu, long incb, long* ipiv, double sing, double* u,
            double* b, double* alfa, double* sum);
long zqrsol(int job, long n, long p, long incu, long incb, long incx, const long* ipiv,
            const double* u, const double* b, double* x, const double* alfa, double* h);
int znlpqts(int job, long n, double sing, const double* c, const double* b, double* x);

// ---- Rotations
// -------------------------------------------------------------------------------------
double zgivcon(double* pa, double* pb, double* pc, double* ps);
void zgivapl(long n, long incx, long incy, double c, double s, double* x, double* y);

// ---- Incremental kernels of the older Newton code
// ------------------------------------------------
double zchol(long k, double* base, double tol);
void zchol2(long k, const double* base, double* vec);
void zbaksub(long k, const double* m, double* v);
int zhh1(double* abase, double* ubase, double* pk, long k, long inc, long nvar);
int zhh2(double* abase, const double* ubase, long k, double pk, long inc, long nvar);

// ---- Modified Cholesky, tridiagonal forms, permutations
// -------------------------------------------
double zmchol(long n, long* ipiv, double tau1, double tau2, double* amat, double* emat,
              double* gvec);
long znlpcd3(long n, double sing, const double* d, const double* e, double* dl, double* el);
int znlpcs3(long n, const double* dl, const double* el, const double* b, double* x);
void ztred3(long n, double* a, double* wrk);  // wrk[0..n-1] diagonal, [n..2n-1] sub-diagonal
void ztrapp3(int job, long n, const double* a, double* b);
void znlpprm(int job, long n, long* piv, double* x);
void znlpsbs(MINSTR* str, int job, long nt, long nr, const long* ipiv, const double* c, double* x);

// ---- Projection and subspaces
// ------------------------------------------------------------------------ The columns that znlpgso
// works against: in memory (job 0), column j contiguous at q + j*incq, or in a utility file (any
// other job), one column of m doubles after the other.
struct GsoBasis {
  const double* q = nullptr;
  WorkFile* file = nullptr;
};
int znlpgso(int job, long m, long n, long incq, long incv, long incr, const GsoBasis& utq,
            double* v, double* r, double* rho, double* u, double* w);
void znlpmul(MINSTR* str, int hfrm, long n, const long* ind, const double* c, const double* b,
             double* x);
void znlpsmv(long n, const long* ind, const double* sym, const double* b, double* x);
void znlpsym(int job, long n, long k, const long* ind, const double* d, double* c);
// res := Q' H Q of order p; Q has m rows (the free parameters ipiv[0..m-1]) of stride incq.
void znlpred(int hfrm, long n, long m, long p, long incq, const long* ipiv, const double* sym,
             const double* q, double* res, double* w, double* w2);
// res := rows and columns ipiv[0..p-1] of H; res may be sym.
void znlpre2(int hfrm, long n, long p, const long* ipiv, double* sym, double* res, double* w,
             double* w2);
void znlpre3(long n, long p, long incq, const long* ipiv, double* sym, const double* q, double* w);
void znlpexp(long n, long p, long incq, const long* ipiv, const double* sym, const double* q,
             double* res, double* w);
void znlpquf(int mod, long n, long p, long incx, const double* sym, const double* x, double* res,
             double* e);
void znlpqf3(int mod, long n, const double* syma, const double* symb, double* res);

}  // namespace tqnlp
