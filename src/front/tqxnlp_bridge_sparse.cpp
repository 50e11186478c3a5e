// tqxnlp, the callback bridge: Hessians that the module gives as rows (i, j, value).
//
// The first call, at the start point of the run, tells the pattern: whatever a row names then has a
// place, be its value zero or missing. From then on the pattern, its ordering and its symbolic
// factor stay for the run. Both triangles may be given; two rows for one element must agree, since
// neither adding them up nor taking the last would be what every user means.
#include <algorithm>
#include <cmath>

#include "aasubs/post/znlpspm.h"
#include "aasubs/setup/hessian_form.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "host/log.h"

namespace tqnlp {

static constexpr int MESSAGE_MATRIX = 150;
static constexpr int MESSAGE_OUTSIDE_PATTERN = 164;
static constexpr int MESSAGE_NO_NUMBER = 206;
static constexpr int MESSAGE_ROWS_DISAGREE = 207;

// Names the row of the three-column form and the indices as the module gave them. A module that is
// wrong in one call is so in the next: once is enough.
static bool refuse_row(const MINSTR* str, int message, const double* values, long row,
                       double other = MISSING) {
  const ARGMTS* argm = str->secstr;
  if (argm->heser == FLAG_UNUSABLE) return false;
  const double* triple = values + 3 * row;
  xpmlog(CALLING_SURFACE, message,
         {call_name(argm).text, module_name(argm, *module_kind(CALL_HESSIAN)).text, row + 1,
          triple[0], triple[1], triple[2], other});
  return false;
}

RowsTaken take_hessian_rows(MINSTR* str, const double* values) {
  const long length = hessian_length(str);
  vzfdl(MISSING, str->hess, length);
  for (long row = 0; row < str->secstr->hrow; ++row) {
    const double* triple = values + 3 * row;
    if (wzmis(triple[2])) continue;
    const long i = index_of(triple[0], str->nvar);
    const long j = index_of(triple[1], str->nvar);
    const long place = i < 0 || j < 0 ? -1 : hessian_place(str, std::max(i, j), std::min(i, j));
    if (place < 0) return {RowFault::outside, row, MISSING};
    if (!std::isfinite(triple[2])) return {RowFault::no_number, row, MISSING};
    double& element = str->hess[place];
    if (!values_agree(str, element, triple[2])) return {RowFault::disagrees, row, element};
    element = triple[2];
  }
  for (long k = 0; k < length; ++k) {
    if (wzmis(str->hess[k])) str->hess[k] = 0.0;
  }
  return {};
}

bool take_sparse_hessian(MINSTR* str, const double* values) {
  const RowsTaken taken = take_hessian_rows(str, values);
  switch (taken.fault) {
    case RowFault::none:
      return true;
    case RowFault::outside:
      return refuse_row(str, MESSAGE_OUTSIDE_PATTERN, values, taken.row);
    case RowFault::no_number:
      return refuse_row(str, MESSAGE_NO_NUMBER, values, taken.row);
    case RowFault::disagrees:
      break;
  }
  return refuse_row(str, MESSAGE_ROWS_DISAGREE, values, taken.row, taken.other);
}

int nlphstr(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  const int code = run_module(str, argm->sshes, {argm->hrow, 3, false}, Elements::any,
                              MESSAGE_MATRIX, &argm->heser);
  if (code != EVALUATED) return code == EVALUATION_NO_MEMORY ? code : HESSIAN_GRADIENT_FAILED;
  double* values = argm->arg4.data;
  if (str->tech != NEWRAP) str->ratio = 0.0;
  str->hess = values;  // read only; the numbers are the host's
  const int result = znlpspm(str, 0, 0, SPM_PLACES, argm->hrow);
  str->hess = nullptr;
  if (result < 0) return EVALUATION_NO_MEMORY;
  if (result > 0) {
    refuse_row(str, MESSAGE_OUTSIDE_PATTERN, values, result - 1);
    end_evaluation(str, &argm->heser, HESSIAN_NOT_USABLE);
    argm->heser = FLAG_UNUSABLE;
    return HESSIAN_GRADIENT_FAILED;
  }
  return end_evaluation(str, &argm->heser, EVALUATED);
}

}  // namespace tqnlp
