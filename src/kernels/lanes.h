// Eight doubles side by side, in as many machine vectors as the width W of a build variant needs.
//
//   W = 2 | 0 1 | 2 3 | 4 5 | 6 7 |      part[0] .. part[3]
//   W = 4 | 0 1 2 3 | 4 5 6 7 |          part[0], part[1]
//   W = 8 | 0 1 2 3 4 5 6 7 |            part[0]
//
// Lane k belongs to element k modulo 8 at every width, and lanes meet in sum() alone. So a kernel
// that is written with these operations rounds alike at every width, and a run does not depend on
// the model of the CPU. Products and sums are two roundings: a fused one would differ between
// variants (the build forbids the contraction), unless it is asked for by name (add_fused).
//
// Everything is passed by reference and inlined into the variant's own function: no vector ever
// crosses a call, where its form would depend on the caller's instruction set. Loads and stores
// need no alignment, since packed rows begin anywhere. Loops over the parts are unrolled by
// request, so that the parts become registers and no array is left in memory.
#pragma once

#include "kernels/variants.h"

namespace tqnlp {

inline constexpr long LANES = 8;

template <int W>
struct Lanes {
  typedef double Vector __attribute__((vector_size(W * 8)));
  typedef long Bits __attribute__((vector_size(W * 8)));
  // A vector as it stands in an array of doubles, at the address of any of them.
  typedef double Unaligned __attribute__((vector_size(W * 8), aligned(8), may_alias));
  static constexpr int PARTS = 8 / W;
  Vector part[PARTS];

  [[gnu::always_inline]] inline void clear() {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] = Vector{};
  }
  // The number is spread as bits: a sum with 0.0 would be an addition with a broadcast behind it,
  // since it turns -0 into 0, while one with an integer 0 is a broadcast alone.
  [[gnu::always_inline]] inline void fill(double value) {
    const long bits = __builtin_bit_cast(long, value);
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] = (Vector)(Bits{} + bits);
  }
  [[gnu::always_inline]] inline void load(const double* from) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] = *reinterpret_cast<const Unaligned*>(from + k * W);
  }
  [[gnu::always_inline]] inline void store(double* to) const {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) *reinterpret_cast<Unaligned*>(to + k * W) = part[k];
  }
  [[gnu::always_inline]] inline void add(const Lanes& a) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] += a.part[k];
  }
  [[gnu::always_inline]] inline void add_product(const Lanes& a, const Lanes& b) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] += a.part[k] * b.part[k];
  }
  // The same with one rounding, the operation fma of IEEE 754, whose result is the same everywhere.
  // A machine without it computes it from others, many times as slowly. The instruction is named
  // because the compiler makes it of a product and a sum alone where it may contract any of them.
  [[gnu::always_inline]] inline void add_fused(const Lanes& a, const Lanes& b) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) {
#ifndef __clang__  // which makes the instruction of the elements, and takes no vector in an asm
                   // here
      if constexpr (W > 2) {
        const Vector factor = a.part[k], other = b.part[k];
        Vector sum = part[k];  // an element of an array would be kept in memory
        asm("vfmadd231pd %1, %2, %0" : "+v"(sum) : "v"(factor), "v"(other));
        part[k] = sum;
        continue;
      }
#endif
      for (int e = 0; e < W; ++e) {
        part[k][e] = __builtin_fma(a.part[k][e], b.part[k][e], part[k][e]);
      }
    }
  }
  [[gnu::always_inline]] inline void subtract_product(const Lanes& a, const Lanes& b) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] -= a.part[k] * b.part[k];
  }
  [[gnu::always_inline]] inline void multiply(const Lanes& a) {
#pragma GCC unroll 4
    for (int k = 0; k < PARTS; ++k) part[k] *= a.part[k];
  }
  // Sum of the lanes as ((0+4)+(2+6)) + ((1+5)+(3+7)), by halves, at every width.
  [[gnu::always_inline]] inline void sum(double& total) const {
    double lane[8];
    store(lane);
    total =
        ((lane[0] + lane[4]) + (lane[2] + lane[6])) + ((lane[1] + lane[5]) + (lane[3] + lane[7]));
  }
};

// ---- Walks along a row --------------------------------------------------------------------------

// Sum of the products of r < 8 elements, always in the same order: groups of four, two and one from
// the front, a group folded by halves as in sum(). Elements behind x[r-1] are not read.
TQNLP_BODY double dot_tail(long r, const double* x, const double* y) {
  double total = 0.0;
  if (r & 4) {
    total = (x[0] * y[0] + x[2] * y[2]) + (x[1] * y[1] + x[3] * y[3]);
    x += 4;
    y += 4;
  }
  if (r & 2) {
    total += x[0] * y[0] + x[1] * y[1];
    x += 2;
    y += 2;
  }
  if (r & 1) total += x[0] * y[0];
  return total;
}

// y'x over n elements, 0 for n <= 0. Four groups of eight partial sums, since a lone group would
// wait for its own additions; shorter rows take one group. The order of the sum depends on n
// alone.
template <int W>
TQNLP_BODY double dot_lanes(long n, const double* x, const double* y) {
  if (n < LANES) return n > 0 ? dot_tail(n, x, y) : 0.0;
  Lanes<W> sum0, sum1, sum2, sum3, a, b;
  sum0.clear();
  long i = 0;
  if (n >= 4 * LANES) {
    sum1.clear();
    sum2.clear();
    sum3.clear();
    for (; i + 4 * LANES <= n; i += 4 * LANES) {
      a.load(x + i);
      b.load(y + i);
      sum0.add_product(a, b);
      a.load(x + i + LANES);
      b.load(y + i + LANES);
      sum1.add_product(a, b);
      a.load(x + i + 2 * LANES);
      b.load(y + i + 2 * LANES);
      sum2.add_product(a, b);
      a.load(x + i + 3 * LANES);
      b.load(y + i + 3 * LANES);
      sum3.add_product(a, b);
    }
    sum0.add(sum2);
    sum1.add(sum3);
    sum0.add(sum1);
  }
  for (; i + LANES <= n; i += LANES) {
    a.load(x + i);
    b.load(y + i);
    sum0.add_product(a, b);
  }
  double total;
  sum0.sum(total);
  return total + dot_tail(n - i, x + i, y + i);
}

// z := y + alpha x; z may be x or y, but must not overlap them otherwise: an element is written
// after those of its group were read. Each element is one product and one sum wherever it stands,
// so that a row may be cut at any place without a change of the result.
template <int W>
TQNLP_BODY void axpy_lanes(long n, double* z, const double* y, double alpha, const double* x) {
  Lanes<W> factor, a, b;
  factor.fill(alpha);
  long i = 0;
  for (; i + 2 * LANES <= n; i += 2 * LANES) {
    a.load(y + i);
    b.load(x + i);
    a.add_product(factor, b);
    a.store(z + i);
    a.load(y + i + LANES);
    b.load(x + i + LANES);
    a.add_product(factor, b);
    a.store(z + i + LANES);
  }
  if (i + LANES <= n) {
    a.load(y + i);
    b.load(x + i);
    a.add_product(factor, b);
    a.store(z + i);
    i += LANES;
  }
  // At most seven elements: unrolling them would cost more code than time.
#pragma GCC unroll 1
  for (; i < n; ++i) z[i] = y[i] + alpha * x[i];
}

}  // namespace tqnlp
