// Where the elements of a Hessian stand, in each of its three forms.
#include "aasubs/setup/hessian_form.h"

#include <algorithm>

namespace tqnlp {

static constexpr int SPARSE = 1;  // values of hfrm
static constexpr int DIAGONAL = 2;

long hessian_length(const MINSTR* str) {
  switch (str->hfrm) {
    case SPARSE:
      return str->shes.mxja;
    case DIAGONAL:
      return str->nvar;
    default:
      return str->nnva;
  }
}

long hessian_place(const MINSTR* str, long i, long j) {
  if (str->hfrm == DIAGONAL) return i == j ? i : -1;
  if (str->hfrm != SPARSE) return zisub(i, j);
  if (i == j) return i;
  const long* jasp = str->shes.jasp;
  const long* last = jasp + jasp[i + 1];
  const long* found = std::lower_bound(jasp + jasp[i], last, j);
  return found == last || *found != j ? -1 : found - jasp;
}

}  // namespace tqnlp
