// znlpred: REDuction of a Hessian to a subspace and its relatives: znlpre2 takes rows and columns,
// znlpre3 reduces the diagonal alone, znlpexp expands; znlpmul and znlpsmv are products of a
// Hessian and a vector, znlpquf and znlpqf3 quadratic forms.
//
// A matrix Q stands by rows, row r at q + r*incq, and belongs to the parameter ipiv[r] (r itself
// when ipiv is null). A column of the product H Q is formed at a time and multiplied by the rows of
// Q, so that all long walks are along packed rows or rows of Q.
#include <utility>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int DIAGONAL_FORM = 2;
static constexpr int SPARSE_FORM = 1;

static long parameter(const long* ipiv, long r) { return ipiv != nullptr ? ipiv[r] : r; }

static bool left_out(const long* ind, long i) { return ind != nullptr && ind[i] != 0; }

// ---- Products ----------------------------------------------------------------------------------

static void sparse_product(long n, const long* ja, const long* ind, const double* c,
                           const double* b, double* x) {
  for (long i = 0; i < n; ++i) x[i] = left_out(ind, i) ? 0.0 : c[i] * b[i];
  for (long i = 0; i < n; ++i) {
    if (left_out(ind, i)) continue;
    for (long k = ja[i]; k < ja[i + 1]; ++k) {
      const long j = ja[k];
      if (left_out(ind, j)) continue;
      x[i] += c[k] * b[j];
      x[j] += c[k] * b[i];
    }
  }
}

void znlpmul(MINSTR* str, int hfrm, long n, const long* ind, const double* c, const double* b,
             double* x) {
  if (hfrm == SPARSE_FORM && ind == nullptr) {
    zslltma(n, str->shes.jasp, c, b, x);
  } else if (hfrm == SPARSE_FORM) {
    sparse_product(n, str->shes.jasp, ind, c, b, x);
  } else if (hfrm == DIAGONAL_FORM) {
    for (long i = 0; i < n; ++i) x[i] = left_out(ind, i) ? 0.0 : c[i] * b[i];
  } else {
    znlpsmv(n, ind, c, b, x);
  }
}

void znlpsmv(long n, const long* ind, const double* sym, const double* b, double* x) {
  if (ind == nullptr) {
    packed_product(n, sym, b, x);
    return;
  }
  const double* row = sym;
  for (long i = 0; i < n; row += ++i) {
    x[i] = 0.0;
    if (left_out(ind, i)) continue;
    for (long j = 0; j < i; ++j) {
      if (left_out(ind, j)) continue;
      x[i] += row[j] * b[j];
      x[j] += row[j] * b[i];
    }
    x[i] += row[i] * b[i];
  }
}

// ---- Reductions --------------------------------------------------------------------------------

// h := H w for the rows and columns listed in ipiv, H packed.
static void listed_product(long m, const long* ipiv, const double* sym, const double* w,
                           double* h) {
  for (long i = 0; i < m; ++i) {
    const long a = parameter(ipiv, i);
    const double* row = sym + packed_size(a);
    const double weight = w[i];
    double sum = row[a] * weight;
    for (long k = 0; k < i; ++k) {
      const long b = parameter(ipiv, k);
      const double element = b <= a ? row[b] : sym[packed_size(b) + a];
      sum += element * w[k];
      h[k] += element * weight;
    }
    h[i] = sum;
  }
}

// Column j of the packed result: res(i,j) := sum over r of q(r,i) h[r], i from j on. w gathers.
static void reduced_column(long m, long p, long j, long incq, const double* q, const double* h,
                           double* res, double* w) {
  vzfdl(0.0, w, p - j);
  for (long r = 0; r < m; ++r) zvxay11(p - j, w, h[r], q + r * incq + j);
  double* to = res + packed_size(j) + j;
  for (long i = j; i < p; ++i) {
    *to = w[i - j];
    to += i + 1;
  }
}

void znlpred(int hfrm, long /*n*/, long m, long p, long incq, const long* ipiv, const double* sym,
             const double* q, double* res, double* w, double* w2) {
  for (long j = 0; j < p; ++j) {
    for (long r = 0; r < m; ++r) w[r] = q[r * incq + j];
    if (hfrm == DIAGONAL_FORM) {
      for (long r = 0; r < m; ++r) w2[r] = sym[parameter(ipiv, r)] * w[r];
    } else if (ipiv == nullptr) {
      znlpsmv(m, nullptr, sym, w, w2);
    } else {
      listed_product(m, ipiv, sym, w, w2);
    }
    reduced_column(m, p, j, incq, q, w2, res, w);
  }
}

// Is the list ascending? Then an element never moves to a later place and a plain copy may run in
// place.
static bool ascending(long p, const long* ipiv) {
  for (long i = 1; i < p; ++i) {
    if (ipiv[i] <= ipiv[i - 1]) return false;
  }
  return true;
}

// Brings the listed rows and columns to the front by exchanges. w holds which parameter stands at a
// place, w2 at which place a parameter stands.
static void bring_to_front(long n, long p, const long* ipiv, double* sym, double* w, double* w2) {
  for (long i = 0; i < n; ++i) w[i] = w2[i] = static_cast<double>(i);
  for (long i = 0; i < p; ++i) {
    const long place = static_cast<long>(w2[ipiv[i]]);
    if (place == i) continue;
    swap_packed(n, i, place, sym);
    const double displaced = w[i];
    std::swap(w[i], w[place]);
    w2[ipiv[i]] = static_cast<double>(i);
    w2[static_cast<long>(displaced)] = static_cast<double>(place);
  }
}

void znlpre2(int hfrm, long n, long p, const long* ipiv, double* sym, double* res, double* w,
             double* w2) {
  if (hfrm == DIAGONAL_FORM) {
    double* to = res == sym ? w : res;
    for (long i = 0; i < p; ++i) to[i] = sym[ipiv[i]];
    if (res == sym) {
      for (long i = 0; i < p; ++i) res[i] = w[i];
    }
    return;
  }
  if (res == sym && !ascending(p, ipiv)) {
    bring_to_front(n, p, ipiv, sym, w, w2);
    return;
  }
  double* to = res;
  for (long i = 0; i < p; ++i) {
    const long a = ipiv[i];
    for (long j = 0; j <= i; ++j) *to++ = sym[zisub(a, ipiv[j])];
  }
}

void znlpre3(long n, long p, long incq, const long* ipiv, double* sym, const double* q, double* w) {
  for (long r = 0; r < n; ++r) {
    const long i = parameter(ipiv, r);
    w[r] = sym[packed_size(i) + i];
  }
  vzfdl(0.0, sym, packed_size(p));
  for (long r = 0; r < n; ++r) {
    const double* row = q + r * incq;
    double* to = sym;
    for (long i = 0; i < p; to += ++i) zvxay11(i + 1, to, w[r] * row[i], row);
  }
}

void znlpexp(long n, long p, long incq, const long* ipiv, const double* sym, const double* q,
             double* res, double* w) {
  for (long i = 0; i < n; ++i) {
    const long a = parameter(ipiv, i);
    if (p == 1) {
      const double factor = sym[0] * q[i * incq];
      for (long j = 0; j <= i; ++j) res[zisub(a, parameter(ipiv, j))] = factor * q[j * incq];
      continue;
    }
    znlpsmv(p, nullptr, sym, q + i * incq, w);
    for (long j = 0; j <= i; ++j) {
      res[zisub(a, parameter(ipiv, j))] = zvdot11(p, w, q + j * incq);
    }
  }
}

// ---- Quadratic forms ---------------------------------------------------------------------------

void znlpquf(int mod, long n, long p, long incx, const double* sym, const double* x, double* res,
             double* e) {
  for (long j = 0; j < p; ++j) {
    // e := A x_j, along the packed rows.
    const double* row = sym;
    for (long i = 0; i < n; row += ++i) {
      const double weight = x[i * incx + j];
      e[i] = row[i] * weight + zvdotjj(i, 1, row, incx, x + j);
      zvxay11(i, e, weight, row);
    }
    for (long i = j; i < p; ++i) {
      const double value = zvdotj1(n, incx, x + i, e);
      double& to = res[packed_size(i) + j];
      to = mod == 0 ? value : to + value;
    }
  }
}

void znlpqf3(int mod, long n, const double* syma, const double* symb, double* res) {
  double twice = 0.0;
  double once = 0.0;
  const double* a = syma;
  const double* b = symb;
  for (long i = 0; i < n; ++i) {
    twice += zvdot11(i, a, b);
    once += a[i] * b[i];
    a += i + 1;
    b += i + 1;
  }
  const double value = once + 2.0 * twice;
  *res = mod == 0 ? value : *res + value;
}

}  // namespace tqnlp
