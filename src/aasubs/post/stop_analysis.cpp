// Services that look at a point where a technique stops: noise of the objective (znlpnoi),
// curvature along directions of the free space (znlpdnc), repair of nonlinear feasibility
// (znlpfnc). This version looks no further than the technique did: each service answers that it
// found nothing, so a stop always stands. The termination test and the driver reach them through
// stop_analysis.h only.
#include "aasubs/post/stop_analysis.h"

namespace tqnlp {

int znlpnoi(MINSTR* /*str*/, int /*job*/) {
  return 0;  // no better point nearby
}

int znlpdnc(MINSTR* /*str*/, int /*job*/) {
  return 1;  // no direction of negative curvature was found
}

int znlpfnc(MINSTR* /*str*/, int /*job*/) {
  return -3;  // no gain: x is unchanged
}

}  // namespace tqnlp
