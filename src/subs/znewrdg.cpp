// znewrdg: the RiDGe of the older Newton code.
#include <algorithm>

#include "aasubs/record/constants.h"
#include "aasubs/record/packed.h"
#include "subs/znewsrv.h"

namespace tqnlp {

// The limit is at least the smallest normal number, so that a matrix without a positive diagonal
// has no pivot.
double zridgit(NRPTRS* p, SIZE_S* s, double ridgval) {
  double largest = 0.0;
  for (long i = 0; i < free_dimension(s); ++i) {
    double& diagonal = p->half[zisub(i, i)];
    if (ridgval != 0.0) diagonal += ridgval;
    largest = std::max(largest, diagonal);
  }
  return std::max(s->tol * largest, TINY);
}

int bigger(SIZE_S* s, NRPTRS*, double* ridgptr) {
  *ridgptr = *ridgptr > 0.0 ? *ridgptr * s->rfact : s->rmin;
  return *ridgptr > s->rmax ? 1 : 0;
}

}  // namespace tqnlp
