// tqxnlp, the callback bridge: the quadratic c + g'x + x'Hx / 2 of NLPQUA, which needs no module.
//
// The matrix comes n x n or as rows (i, j, value), and is kept packed, sparse or diagonal,
// whichever is the smallest. It is symmetric, so that the gradient is g + Hx; a matrix that is not
// is refused, because its user means something else by it. Maximizing, all of it is negated once.
// A packed matrix that outgrows memory is written to utquad instead, for the form of QUADAS that
// reads it row by row.
#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba1.h"
#include "aasubs/post/znlpspm.h"
#include "aasubs/setup/evaluations.h"
#include "aasubs/setup/hessian_form.h"
#include "aasubs/setup/run_arrays.h"
#include "front/tqxnlp.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_decode.h"
#include "front/tqxnlp_modules.h"
#include "host/files.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "kernels/vector.h"

namespace tqnlp {

static constexpr int MESSAGE_NOT_SYMMETRIC = 210;
static constexpr int MESSAGE_NO_ELEMENT = 211;
static constexpr int MESSAGE_NO_PLACE = 212;
static constexpr int MESSAGE_NO_NUMBER = 213;
static constexpr int MESSAGE_ROWS_DISAGREE = 214;
static constexpr int MESSAGE_NO_CURVATURE = 215;
static constexpr int MESSAGE_LINEAR_TERM = 216;

// ---- The n x n form -----------------------------------------------------------------------------

// Element (i, j) of the symmetric matrix. One may be missing on one side of the diagonal.
static double dense_element(const MINSTR* str, long i, long j) {
  const double* matrix = str->secstr->qmat;
  const double lower = matrix[i * str->nvar + j];
  const double upper = matrix[j * str->nvar + i];
  if (std::isnan(lower)) return upper;
  return std::isnan(upper) || lower == upper ? lower : 0.5 * (lower + upper);
}

static int refuse_element(const MINSTR* str, int message, long i, long j) {
  const ARGMTS* argm = str->secstr;
  const long n = str->nvar;
  xpmlog(CALLING_SURFACE, message,
         {call_name(argm).text, i + 1, j + 1, argm->qmat[i * n + j], argm->qmat[j * n + i]});
  return ENTRY_BAD_ARGUMENT;
}

static int check_dense(const MINSTR* str) {
  const long n = str->nvar;
  const double* matrix = str->secstr->qmat;
  for (long i = 0; i < n; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double lower = matrix[i * n + j];
      const double upper = matrix[j * n + i];
      if (std::isinf(lower) || std::isinf(upper) || !std::isfinite(dense_element(str, i, j))) {
        return refuse_element(str, MESSAGE_NO_ELEMENT, i, j);
      }
      if (std::isnan(lower) || std::isnan(upper) || values_agree(str, lower, upper)) continue;
      return refuse_element(str, MESSAGE_NOT_SYMMETRIC, i, j);
    }
  }
  return 0;
}

// Pattern of the elements that are not zero, if that is worth it.
static int choose_dense_form(MINSTR* str) {
  const std::size_t bytes = static_cast<std::size_t>(str->nnva) * sizeof(double);
  double* packed = static_cast<double*>(vmalloc_handler(bytes, 0));
  if (packed == nullptr) {
    xmemmsg(bytes);
    return ENTRY_NO_MEMORY;
  }
  double* to = packed;
  for (long i = 0; i < str->nvar; ++i) {
    for (long j = 0; j <= i; ++j) *to++ = dense_element(str, i, j);
  }
  str->hess = packed;  // read only
  const int result = znlpspm(str, 0, 0, SPM_PACKED, 0);
  str->hess = nullptr;
  vmfree_handler(packed);
  return result < 0 ? ENTRY_NO_MEMORY : 0;
}

static void load_dense(MINSTR* str) {
  vzfdl(0.0, str->hess, hessian_length(str));
  for (long i = 0; i < str->nvar; ++i) {
    for (long j = 0; j <= i; ++j) {
      const double value = dense_element(str, i, j);
      const long place = value != 0.0 ? hessian_place(str, i, j) : -1;
      if (place >= 0) str->hess[place] = value;
    }
  }
}

// ---- The matrix in its file ----

static void check_file(int status) {
  if (status == 0) return;
  xprrlog(0, status);
  xexit(EXIT_WORK_FILE, 0);
}

static void write_doubles(MINSTR* str, const double* from, long count) {
  check_file(xcwrite(str->utquad, from, count * static_cast<long>(sizeof(double))));
}

// nlpwqad: Writes the QuADratic, linear term and packed rows, to utquad; the run's sign is on them.
static void nlpwqad(MINSTR* str) {
  const WorkFileOptions options;
  check_file(xcopen(&str->utquad, &options));
  write_doubles(str, str->qvec, str->nvar);
  const double sign = str->imax != 0 ? -1.0 : 1.0;
  for (long i = 0; i < str->nvar; ++i) {
    for (long j = 0; j <= i; ++j) str->work[j] = sign * dense_element(str, i, j);
    write_doubles(str, str->work, i + 1);
  }
}

// ---- Rows (i, j, value) -------------------------------------------------------------------------

static int refuse_row(const MINSTR* str, int message, long row, double other = MISSING) {
  const ARGMTS* argm = str->secstr;
  const double* triple = argm->qmat + 3 * row;
  const double value = message == MESSAGE_NO_PLACE ? static_cast<double>(str->nvar) : triple[2];
  xpmlog(CALLING_SURFACE, message,
         {call_name(argm).text, row + 1, triple[0], triple[1], value, other});
  return ENTRY_BAD_ARGUMENT;
}

static bool is_index(const MINSTR* str, double number) {
  return index_of(number, str->nvar) >= 0 && number == std::floor(number);
}

static int choose_form_of_rows(MINSTR* str) {
  ARGMTS* argm = str->secstr;
  for (long row = 0; row < argm->hrow; ++row) {
    const double* triple = argm->qmat + 3 * row;
    const bool place = is_index(str, triple[0]) && is_index(str, triple[1]);
    if (!place && !wzmis(triple[2])) return refuse_row(str, MESSAGE_NO_PLACE, row);
  }
  str->hess = argm->qmat;  // read only; the numbers are the host's
  const int result = znlpspm(str, 0, 0, SPM_PLACES, argm->hrow);
  str->hess = nullptr;
  if (result > 0) return refuse_row(str, MESSAGE_NO_PLACE, result - 1);
  return result < 0 ? ENTRY_NO_MEMORY : 0;
}

// A parameter that no row names is linear, or was forgotten.
static void remark_parameters_without_rows(MINSTR* str) {
  const ARGMTS* argm = str->secstr;
  const long n = str->nvar;
  long* named = str->ipiv;
  std::fill_n(named, n, 0L);
  for (long k = 0; k < 3 * argm->hrow; k += 3) {
    if (wzmis(argm->qmat[k + 2])) continue;
    named[index_of(argm->qmat[k], n)] = named[index_of(argm->qmat[k + 1], n)] = 1;
  }
  const long first = std::find(named, named + n, 0L) - named;
  const long missing = std::count(named, named + n, 0L);
  if (missing > 0) {
    xpmlog(CALLING_SURFACE, MESSAGE_NO_CURVATURE, {call_name(argm).text, first + 1, missing});
  }
}

static int load_rows(MINSTR* str) {
  const RowsTaken taken = take_hessian_rows(str, str->secstr->qmat);
  switch (taken.fault) {
    case RowFault::none:
      remark_parameters_without_rows(str);
      return 0;
    case RowFault::outside:
      return refuse_row(str, MESSAGE_NO_PLACE, taken.row);
    case RowFault::no_number:
      return refuse_row(str, MESSAGE_NO_NUMBER, taken.row);
    case RowFault::disagrees:
      break;
  }
  return refuse_row(str, MESSAGE_ROWS_DISAGREE, taken.row, taken.other);
}

// ---- The call -----------------------------------------------------------------------------------

int prepare_quadratic(MINSTR* str) {
  if (str->secstr->hrow != 0) return choose_form_of_rows(str);
  const int rc = check_dense(str);
  return rc != 0 ? rc : choose_dense_form(str);
}

int load_quadratic(MINSTR* str) {
  const ARGMTS* argm = str->secstr;
  const long n = str->nvar;
  const bool in_file = matrix_in_file(str, argm->hrow != 0);
  if (argm->hrow == 0) {
    if (!in_file) load_dense(str);
  } else if (const int rc = load_rows(str); rc != 0) {
    return rc;
  }
  str->qlin = argm->qlin;
  str->qcon = argm->qcon != 0 ? argm->qvec[n] : 0.0;
  vzfdl(0.0, str->qvec, n);
  for (long j = 0; argm->qlin != 0 && j < n + argm->qcon; ++j) {
    if (std::isinf(argm->qvec[j])) {
      xpmlog(CALLING_SURFACE, MESSAGE_LINEAR_TERM,
             {call_name(argm).text, j + 1, static_cast<long>(argm->iargq)});
      return ENTRY_BAD_ARGUMENT;
    }
    if (j < n && !std::isnan(argm->qvec[j])) str->qvec[j] = argm->qvec[j];
  }
  if (str->imax != 0) {
    if (!in_file) zvscl11(hessian_length(str), str->hess, -1.0);
    zvscl11(n, str->qvec, -1.0);
    str->qcon = -str->qcon;
  }
  if (in_file) nlpwqad(str);
  return 0;
}

// ---- Callbacks ----------------------------------------------------------------------------------

static int end_quadratic(MINSTR* str, bool good) {
  str->tbig = good ? 0.0 : 1.0;
  return good ? EVALUATED : EVALUATION_FAILED;
}

int nlpfqad(MINSTR* str) {
  if (str->secstr->dncf == 0 && str->indf < GRADIENT_STEP) ++str->nfct;
  str->crit = str->func[0] = quadratic_value(str);
  return end_quadratic(str, std::isfinite(str->crit));
}

int nlpgqad(MINSTR* str) {
  if (str->secstr->dncg == 0) ++str->ngrd;
  quadratic_gradient(str);
  return end_quadratic(str, all_finite(str->nvar, str->grad));
}

}  // namespace tqnlp
