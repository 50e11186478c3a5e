// Fused sums: one group of eight lanes a sum, so that all of them stay in registers.
#include "kernels/fused_sums.h"

#include <cmath>

#include "kernels/lanes.h"
#include "kernels/vector.h"

namespace tqnlp {

// ---- Products along a direction -----------------------------------------------------------------

template <int W>
TQNLP_BODY void direction_body(long n, const double* g, const double* h, const double* d,
                               DirectionProducts* p) {
  Lanes<W> gg, gh, gd, hd, hh, a, b, c;
  gg.clear();
  gh.clear();
  gd.clear();
  hd.clear();
  hh.clear();
  long i = 0;
  for (; i + LANES <= n; i += LANES) {
    a.load(g + i);
    b.load(h + i);
    c.load(d + i);
    gg.add_product(a, a);
    gh.add_product(a, b);
    gd.add_product(a, c);
    hd.add_product(b, c);
    hh.add_product(b, b);
  }
  gg.sum(p->gg);
  gh.sum(p->gh);
  gd.sum(p->gd);
  hd.sum(p->hd);
  hh.sum(p->hh);
  for (; i < n; ++i) {
    p->gg += g[i] * g[i];
    p->gh += g[i] * h[i];
    p->gd += g[i] * d[i];
    p->hd += h[i] * d[i];
    p->hh += h[i] * h[i];
  }
}
TQNLP_DISPATCH(void, direction,
               (long n, const double* g, const double* h, const double* d, DirectionProducts* p),
               (n, g, h, d, p))

DirectionProducts direction_products(long n, const double* g, const double* h, const double* d) {
  DirectionProducts products{};
  direction(n, g, h, d, &products);
  return products;
}

// ---- Norms of a step ----------------------------------------------------------------------------

template <int W>
TQNLP_BODY void add_square_of_difference(Lanes<W>& sum, const Lanes<W>& a, const Lanes<W>& b) {
  Lanes<W> difference = a;
#pragma GCC unroll 4
  for (int k = 0; k < Lanes<W>::PARTS; ++k) difference.part[k] -= b.part[k];
  sum.add_product(difference, difference);
}

template <int W>
TQNLP_BODY void squares_body(long n, const double* x, const double* xold, const double* g,
                             const double* gold, StepNorms* s) {
  Lanes<W> step, change, now, before, a, b;
  step.clear();
  change.clear();
  now.clear();
  before.clear();
  long i = 0;
  for (; i + LANES <= n; i += LANES) {
    a.load(x + i);
    b.load(xold + i);
    add_square_of_difference(step, a, b);
    a.load(g + i);
    b.load(gold + i);
    add_square_of_difference(change, a, b);
    now.add_product(a, a);
    before.add_product(b, b);
  }
  step.sum(s->step);
  change.sum(s->change);
  now.sum(s->g);
  before.sum(s->gold);
  for (; i < n; ++i) {
    s->step += (x[i] - xold[i]) * (x[i] - xold[i]);
    s->change += (g[i] - gold[i]) * (g[i] - gold[i]);
    s->g += g[i] * g[i];
    s->gold += gold[i] * gold[i];
  }
}
TQNLP_DISPATCH(void, squares,
               (long n, const double* x, const double* xold, const double* g, const double* gold,
                StepNorms* s),
               (n, x, xold, g, gold, s))

// A sum of squares in this range is exact to rounding.
static bool safe(double squares) { return squares > 1e-280 && squares < 1e280; }

StepNorms step_norms(long n, const double* x, const double* xold, const double* g,
                     const double* gold) {
  StepNorms s{};
  squares(n, x, xold, g, gold, &s);
  return {safe(s.step) ? std::sqrt(s.step) : xdif(n, x, xold),
          safe(s.change) ? std::sqrt(s.change) : xdif(n, g, gold),
          safe(s.g) ? std::sqrt(s.g) : zvenorm(n, 1, g),
          safe(s.gold) ? std::sqrt(s.gold) : zvenorm(n, 1, gold)};
}

}  // namespace tqnlp
