// znlpred: REDuction of a Hessian to a subspace and its relatives: znlpre2 takes rows and columns,
// znlpre3 reduces the diagonal alone, znlpexp expands; znlpmul and znlpsmv are products of a
// Hessian and a vector, znlpquf and znlpqf3 quadratic forms.
//
// A matrix Q stands by rows, row r at q + r*incq, and belongs to the parameter ipiv[r] (r itself
// when ipiv is null). Eight columns of the product H Q are formed at a time, so that H is read once
// for eight columns, and multiplied by the rows of Q: elements of H are met one by one, wherever
// the list sends them, and each works on whole lanes. Every sum runs in the order of the rows,
// whatever is taken together.
//
//   H listed by ipiv        h = H Q(:, j..j+7)      res(j.., j..j+7)
//   | x       |             | 8 lanes |             | x               |
//   | x x     |   times Q   | 8 lanes |   Q' times  | x x             |
//   | x x x   |             | 8 lanes |             | x x x           |   to its diagonal
//
// Half of H is stored, so that element (a,b) serves two rows of the product: row a as H(a,b) q_b,
// and row b as H(b,a) q_a. Column by column, which is left for more rows than
// there is room for, H is read p times.
#include <utility>

#include "aasubs/record/packed.h"
#include "kernels/dense.h"
#include "kernels/factor.h"
#include "kernels/lanes.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

// hfrm
static constexpr int DIAGONAL_FORM = 2;
static constexpr int SPARSE_FORM = 1;

TQNLP_BODY long parameter(const long* ipiv, long r) { return ipiv != nullptr ? ipiv[r] : r; }

static bool left_out(const long* ind, long i) { return ind != nullptr && ind[i] != 0; }

// ---- Products ----------------------------------------------------------------------------------

// x := H b without the marked rows and columns. The result is cleared of them first, as an element
// below the diagonal adds to a row that may come before its own.
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
  // Row i completes x[i] as far as it is stored, and gives to the rows before it, which are there.
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

// H(a,b), row: row a of the packed form. The list may name parameters in any order, so that either
// of the two may be the larger.
TQNLP_BODY double element_at(const double* sym, const double* row, long a, long b) {
  return b <= a ? row[b] : sym[packed_size(b) + a];
}

// h := H w for the rows and columns listed in ipiv, H packed: h and w by place in the list.
static void listed_product(long m, const long* ipiv, const double* sym, const double* w,
                           double* h) {
  for (long i = 0; i < m; ++i) {
    const long a = parameter(ipiv, i);
    const double* row = sym + packed_size(a);
    const double weight = w[i];
    double sum = row[a] * weight;
    for (long k = 0; k < i; ++k) {
      const long b = parameter(ipiv, k);
      const double element = element_at(sym, row, a, b);
      sum += element * w[k];
      h[k] += element * weight;
    }
    h[i] = sum;
  }
}

// Column j of the packed result: res(i,j) := sum over r of q(r,i) h[r], i from j on. w gathers,
// so that the rows of Q are walked along and the strided column of res is written once.
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

// Rows of H, and of the result, that are worked on together: as many sums as there are registers
// for.
template <int W>
constexpr int TOGETHER = W / 2;

// Rows i..i+R-1 of the product H Q for eight columns, and what these rows of H give to the rows of
// the product before them. Row r of the product stands at h + r*LANES.
template <int W, int R>
TQNLP_BODY void panel_rows(long i, long incq, const long* ipiv, const double* sym, const double* q,
                           double* h) {
  Lanes<W> sums[R], own[R], earlier, target, element;
  long a[R];
  const double* row[R];
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
    a[r] = parameter(ipiv, i + r);
    row[r] = sym + packed_size(a[r]);
    own[r].load(q + (i + r) * incq);
    sums[r].clear();
  }
  for (long k = 0; k < i; ++k) {
    const long b = parameter(ipiv, k);
    earlier.load(q + k * incq);
    target.load(h + k * LANES);
#pragma GCC unroll 4
    for (int r = 0; r < R; ++r) {
      element.fill(element_at(sym, row[r], a[r], b));
      sums[r].add_product(element, earlier);
      target.add_product(element, own[r]);
    }
    target.store(h + k * LANES);
  }
  // Among the R rows themselves, and their diagonal.
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) {
#pragma GCC unroll 4
    for (int s = 0; s < r; ++s) {
      element.fill(element_at(sym, row[r], a[r], a[s]));
      sums[r].add_product(element, own[s]);
      sums[s].add_product(element, own[r]);
    }
    element.fill(row[r][a[r]]);
    sums[r].add_product(element, own[r]);
  }
#pragma GCC unroll 4
  for (int r = 0; r < R; ++r) sums[r].store(h + (i + r) * LANES);
}

// Rows i..i+R-1 of the packed result in the eight columns from j on, as far as they reach there.
// All eight columns are summed up: what lies beyond the diagonal is thrown away.
template <int W, int R>
TQNLP_BODY void panel_result(long m, long i, long j, long incq, const double* q, const double* h,
                             double* res) {
  Lanes<W> sums[R], product, factor;
#pragma GCC unroll 4
  for (int t = 0; t < R; ++t) sums[t].clear();
  for (long r = 0; r < m; ++r) {
    product.load(h + r * LANES);
#pragma GCC unroll 4
    for (int t = 0; t < R; ++t) {
      factor.fill(q[r * incq + i + t]);
      sums[t].add_product(factor, product);
    }
  }
#pragma GCC unroll 4
  for (int t = 0; t < R; ++t) {
    double lane[LANES];
    sums[t].store(lane);
    double* to = res + packed_size(i + t) + j;
    for (long c = 0; c < LANES && j + c <= i + t; ++c) to[c] = lane[c];
  }
}

// Columns j..j+7 of the result, its rows to p-1. Q has eight columns from j on in every row.
template <int W>
TQNLP_BODY void reduce_panel_body(long m, long p, long j, long incq, const long* ipiv,
                                  const double* sym, const double* q, double* h, double* res) {
  constexpr int R = TOGETHER<W>;
  long i = 0;
  for (; i + R <= m; i += R) panel_rows<W, R>(i, incq, ipiv, sym, q + j, h);
  for (; i < m; ++i) panel_rows<W, 1>(i, incq, ipiv, sym, q + j, h);
  for (i = j; i + R <= p; i += R) panel_result<W, R>(m, i, j, incq, q, h, res);
  for (; i < p; ++i) panel_result<W, 1>(m, i, j, incq, q, h, res);
}
TQNLP_DISPATCH(void, reduce_panel,
               (long m, long p, long j, long incq, const long* ipiv, const double* sym,
                const double* q, double* h, double* res),
               (m, p, j, incq, ipiv, sym, q, h, res))

// Rows of Q up to which the panels have room, 64 KB each on the stack, as kernels take no memory.
static constexpr long PANEL_ROWS = 1024;

// All columns by panels. The last panel starts so that it is full; what it repeats comes out the
// same.
static void reduce_by_panels(long m, long p, long incq, const long* ipiv, const double* sym,
                             const double* q, double* res) {
  alignas(64) double h[PANEL_ROWS * LANES];
  for (long j = 0; j < p; j += LANES) {
    reduce_panel(m, p, j + LANES <= p ? j : p - LANES, incq, ipiv, sym, q, h, res);
  }
}

// Fewer columns than a panel has: Q is filled up with zeros, whose columns of the result are
// dropped.
static void reduce_narrow(long m, long p, long incq, const long* ipiv, const double* sym,
                          const double* q, double* res) {
  alignas(64) double h[PANEL_ROWS * LANES];
  alignas(64) double wide[PANEL_ROWS * LANES];
  for (long r = 0; r < m; ++r) {
    for (long c = 0; c < LANES; ++c) wide[r * LANES + c] = c < p ? q[r * incq + c] : 0.0;
  }
  reduce_panel(m, p, 0, LANES, ipiv, sym, wide, h, res);
}

// By panels where that pays and there is room, else column by column with the caller's work arrays.
// A diagonal H is read at no cost and goes by columns too.
void znlpred(int hfrm, long /*n*/, long m, long p, long incq, const long* ipiv, const double* sym,
             const double* q, double* res, double* w, double* w2) {
  if (hfrm != DIAGONAL_FORM && m <= PANEL_ROWS) {
    if (p < LANES) {
      reduce_narrow(m, p, incq, ipiv, sym, q, res);
    } else {
      reduce_by_panels(m, p, incq, ipiv, sym, q, res);
    }
    return;
  }
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

// The diagonal is taken out first, since the result overwrites H; then res = sum over the rows r of
// H(r,r) q_r q_r', a rank-one term a row.
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

// p = 1 is spared the product with a matrix of one element.
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

// Elements beside the diagonal stand once and count twice; they are summed apart.
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
