// Several sums of products over the same vectors in one pass. Vectors that outgrow the cache are
// read once instead of once a sum. The order of each sum depends on n alone, at every vector width.
#pragma once

namespace tqnlp {

// Products among a gradient g, the gradient before it h and a direction d, all of n doubles.
struct DirectionProducts {
  double gg, gh, gd, hd, hh;
};
DirectionProducts direction_products(long n, const double* g, const double* h, const double* d);

// Euclidean norms of x - xold, g - gold, g and gold, free of overflow and underflow.
struct StepNorms {
  double step, change, g, gold;
};
StepNorms step_norms(long n, const double* x, const double* xold, const double* g,
                     const double* gold);

}  // namespace tqnlp
