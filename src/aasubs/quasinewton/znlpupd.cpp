// znlpupd: UPDates of quasi-Newton matrices, DFP (znlpdfp) and BFGS (znlpbfg), in three forms each.
//
// With s the step, y the change of the gradient, B the Hessian approximation and H its inverse:
//
//   BFGS   B := B - Bs s'B / s'Bs + y y' / s'y
//   DFP    B := B - Bs s'B / s'Bs + y y' / s'y + (s'Bs) w w',   w = y / s'y - Bs / s'Bs
//
// Both map s onto y and keep B positive definite as long as s'y > 0. On H each is the other with s
// and y exchanged.
//
// Method     job 1: formula on the packed inverse; job 2: rank-one corrections of an L D L' factor;
//            job 3: product form (R + u v')'(R + u v'), brought back to triangular form by
//            rotations, with Powell's damping for BFGS
// Reference  Broyden (1970), Fletcher (1970), Goldfarb (1970), Shanno (1970); Davidon (1959),
//            Fletcher and Powell (1963); Fletcher and Powell (1974) for L D L'; Goldfarb (1976) for
//            R; Powell (1978) for the damping; Shanno and Phua (1978) for the scaling
// Reads      nvar, nabc, nalc, alfa
// Writes     half, nhup (jobs 1 and 2; job 3 leaves it alone, deliberately)
#include "aasubs/quasinewton/znlpupd.h"

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "kernels/dense.h"
#include "kernels/rank_one.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr double SCALE_LOW = 0.001;  // clip of a scaling factor
static constexpr double SCALE_HIGH = 1000.0;
static constexpr double ROOT_EPS = 1.053671212772351e-08;    // s'y against the curvature
static constexpr double WIDE_ANGLE = 1.110223024625157e-15;  // s'y against |s||y|
static constexpr double DAMPING = 0.1;                       // least s'y against s'Bs
static constexpr double ROOT_DAMPING = 0.31622776601683794;

static long order_of(const MINSTR* str) { return str->nvar - str->nabc - str->nalc; }

// Result 3, 2, 1 or 0: may the pair with s'y = dxg and curvature term c (s'Bs or y'Hy) be used? The
// order counts: a pair without curvature is no matter of angles. A scaling that went before stays.
static int refuse_pair(long n, double dxg, double c, const double* s, const double* y) {
  if (!(dxg > SMALLEST_TOLERANCE) || !(c > SMALLEST_TOLERANCE)) return 3;
  if (c <= dxg * SMALLEST_TOLERANCE) return 2;
  if (dxg <= WIDE_ANGLE * zvenorm(n, 1, s) * zvenorm(n, 1, y)) return 1;
  return 0;
}

static double clip_scale(double factor) { return std::clamp(factor, SCALE_LOW, SCALE_HIGH); }

static void scale_diagonal(long n, double* c, double factor) {
  for (long i = 0; i < n; ++i) c[zisub(i, i)] *= factor;
}

// ---- Job 1: packed inverse --------------------------------------------------------------------

// H := H + s s' / s'y - Hy y'H / y'Hy. The scaling follows the last step length: a long step says
// that H was too small.
static int dfpupd(MINSTR* str, int iscl, const double* s, const double* y, double* h, double* ph,
                  double* a, double* b) {
  const long n = order_of(str);
  if (iscl == 1 && str->alfa > HUNDRED_EPS) zvscl11(packed_size(n), h, clip_scale(str->alfa));
  znlpsmv(n, nullptr, h, y, ph);
  const double ghg = zvdot11(n, y, ph);
  const double dxg = dotprd(n, s, y);
  if (const int refused = refuse_pair(n, dxg, ghg, s, y); refused != 0) return refused;
  ++str->nhup;
  for (long i = 0; i < n; ++i) {
    a[i] = s[i] / dxg;
    b[i] = ph[i] / ghg;
  }
  add_products(n, a, s, b, ph, h);
  return 0;
}

// H := H + (1 + y'Hy / s'y) s s' / s'y - (s y'H + Hy s') / s'y. The scaling makes the curvature of
// H along y that of the pair.
static int bfgsupd(MINSTR* str, int iscl, const double* s, const double* y, double* h, double* ph,
                   double* a, double* b) {
  const long n = order_of(str);
  znlpsmv(n, nullptr, h, y, ph);
  double ghg = dotprd(n, y, ph);
  const double dxg = dotprd(n, s, y);
  if (iscl == 1 && dxg > ROOT_EPS * ghg && ghg > HUNDRED_EPS) {
    zvscl11(packed_size(n), h, clip_scale(dxg / ghg));
    znlpsmv(n, nullptr, h, y, ph);
    ghg = zvdot11(n, y, ph);
  }
  if (const int refused = refuse_pair(n, dxg, ghg, s, y); refused != 0) return refused;
  ++str->nhup;
  const double growth = 1.0 + ghg / dxg;
  for (long i = 0; i < n; ++i) {
    a[i] = s[i] * growth / dxg - ph[i] / dxg;
    b[i] = s[i] / dxg;
  }
  add_products(n, a, s, b, ph, h);
  return 0;
}

// ---- Job 2: L D L' ----------------------------------------------------------------------------

// bs := B s = L D L's and p := D L's. The latter is the solution of L p = Bs that the subtraction
// of Bs s'B / s'Bs asks for, at hand between the two halves of the product: ldlupd would come to it
// by a substitution, one more walk over the factor, and with its rounding.
static void multiply_factor(MINSTR* str, long n, double* c, const double* s, double* bs,
                            double* p) {
  std::copy_n(s, n, bs);
  znlpumu(str, 1, n, c, bs);
  for (long i = 0; i < n; ++i) {
    const double d = c[zisub(i, i)];
    p[i] = d > 0.0 ? std::sqrt(d) * bs[i] : 0.0;
  }
  znlplmu(str, 1, n, c, bs);
}

// Three corrections. The first takes the curvature along s away, which leaves a singular matrix of
// rank n-1; the second restores the rank with the curvature of the pair.
static int dudfpup(MINSTR* str, int iscl, double* s, double* y, double* c, double* bs,
                   double* work) {
  const long n = order_of(str);
  if (iscl == 1 && str->alfa > HUNDRED_EPS) {
    scale_diagonal(n, c, clip_scale(1.0 / str->alfa));
  }
  std::copy_n(s, n, bs);
  znlpmmu(str, 1, n, c, bs);
  const double dbd = dotprd(n, s, bs);
  const double dxg = dotprd(n, s, y);
  if (const int refused = refuse_pair(n, dxg, dbd, s, y); refused != 0) return refused;
  ++str->nhup;
  for (long i = 0; i < n; ++i) s[i] = y[i] / dxg - bs[i] / dbd;
  long rank = ldlupd(n, 0, -n, 0.0, -1.0 / dbd, c, bs, work);
  rank = ldlupd(n, 0, -rank, 0.0, 1.0 / dxg, c, y, work);
  rank = ldlupd(n, 0, -rank, 0.0, dbd, c, s, work);
  return rank < n ? -1 : 0;
}

// The first two corrections alone.
static int dubfgsup(MINSTR* str, int iscl, double* s, double* y, double* c, double* bs,
                    double* work) {
  const long n = order_of(str);
  multiply_factor(str, n, c, s, bs, work);
  const double dxg = dotprd(n, s, y);
  double dbd = dotprd(n, s, bs);
  if (iscl == 1 && dxg > ROOT_EPS * dbd && dbd > HUNDRED_EPS) {
    scale_diagonal(n, c, clip_scale(dxg / dbd));
    multiply_factor(str, n, c, s, bs, work);
    dbd = dotprd(n, s, bs);
  }
  if (const int refused = refuse_pair(n, dxg, dbd, s, y); refused != 0) return refused;
  ++str->nhup;
  const long rank = ldlup2(n, -1.0 / dbd, 1.0 / dxg, c, bs, y, work);
  return rank < n ? -1 : 0;
}

// ---- Job 3: R'R -------------------------------------------------------------------------------

// to := R from (job 17), R' from (job 18), or the solution of R' to = from (job 8).
static void apply_factor(int job, long n, const double* r, const double* from, double* to) {
  zqrsol(job, n, 1, 1, n, n, nullptr, r, from, to, nullptr, nullptr);
}

// u = Rs, v = y / sqrt(s'y s'Bs) - Bs / s'Bs. Where s'y is below a tenth of s'Bs (or negative), y
// is replaced by the mixture theta y + (1 - theta) Bs with exactly that tenth: no negative
// curvature is refused. cy and cs are the factors of y and Bs in v.
static int uvbfgs(MINSTR* str, int iscl, const double* s, const double* y, double* r, double* uvec,
                  double* vvec) {
  const long n = order_of(str);
  apply_factor(17, n, r, s, uvec);
  double dbd = zvdot11(n, uvec, uvec);
  const double dxg = zvdot11(n, y, s);
  if (iscl == 1 && dxg > EPS * dbd && dbd > HUNDRED_EPS) {
    zvscl11(packed_size(n), r, clip_scale(std::sqrt(dxg / dbd)));
    apply_factor(17, n, r, s, uvec);
    dbd = zvdot11(n, uvec, uvec);
  }
  // Any curvature will do but one that is no number.
  if (!(dbd > SMALLEST_TOLERANCE) || !std::isfinite(dxg)) return 3;
  apply_factor(18, n, r, uvec, vvec);
  double cy = 0.0;
  double cs = 1.0 / dbd;
  if (dxg < DAMPING * dbd) {
    const double theta = 0.9 * dbd / (dbd - dxg);
    cy = theta / (ROOT_DAMPING * dbd);
    cs = ((theta - 1.0) / ROOT_DAMPING + 1.0) / dbd;
  } else {
    cy = 1.0 / (std::sqrt(dxg) * std::sqrt(dbd));
  }
  for (long i = 0; i < n; ++i) vvec[i] = cy * y[i] - cs * vvec[i];
  return 0;
}

// u = (R'^-1 y / sqrt(y'Hy) - Rs / sqrt(s'y)) / sqrt(s'y), v = y.
static int uvdfp(MINSTR* str, int iscl, const double* s, const double* y, double* r, double* uvec,
                 double* vvec) {
  const long n = order_of(str);
  if (iscl == 1 && str->alfa > HUNDRED_EPS) {
    double factor = 1.0 / std::sqrt(str->alfa);
    if (str->alfa > 10000.0) factor = 0.01;
    if (str->alfa < 0.0001) factor = 100.0;
    zvscl11(packed_size(n), r, factor);
  }
  apply_factor(8, n, r, y, uvec);
  const double yhy = zvdot11(n, uvec, uvec);
  const double dxg = zvdot11(n, y, s);
  if (const int refused = refuse_pair(n, dxg, yhy, s, y); refused != 0) return refused;
  apply_factor(17, n, r, s, vvec);
  const double t1 = std::sqrt(yhy);
  const double t2 = std::sqrt(dxg);
  for (long i = 0; i < n; ++i) {
    uvec[i] = (uvec[i] / t1 - vvec[i] / t2) / t2;
    vvec[i] = y[i];
  }
  return 0;
}

// ---- Entries ----------------------------------------------------------------------------------

int znlpdfp(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* half, double* uvec,
            double* vvec, double* wvec) {
  const long n = order_of(str);
  if (n == 0) return 0;
  if (job == 1) return dfpupd(str, iscl, xdif, gdif, half, uvec, vvec, wvec);
  if (job == 2) return dudfpup(str, iscl, xdif, gdif, half, uvec, wvec);
  const int code = uvdfp(str, iscl, xdif, gdif, half, uvec, vvec);
  if (code == 0) llupdat(n, gdif, half, uvec, vvec, wvec);
  return code;
}

int znlpbfg(MINSTR* str, int job, int iscl, double* xdif, double* gdif, double* half, double* uvec,
            double* vvec, double* wvec) {
  const long n = order_of(str);
  if (n == 0) return 0;
  if (job == 1) return bfgsupd(str, iscl, xdif, gdif, half, uvec, vvec, wvec);
  if (job == 2) return dubfgsup(str, iscl, xdif, gdif, half, uvec, wvec);
  const int code = uvbfgs(str, iscl, xdif, gdif, half, uvec, vvec);
  if (code == 0) llupdat(n, gdif, half, uvec, vvec, wvec);
  return code;
}

}  // namespace tqnlp
