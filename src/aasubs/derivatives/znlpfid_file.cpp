// znlpfid, the Jacobian in its utility file utjacm, because it may be too large for memory.
//
// Layout  a 4-byte int with the job, then by job
//           0 sparse column   pairs (row: 8-byte integer, value: double), then the row number -1
//           1 dense column    m doubles
//           2 dense row       n doubles
//         one record a column (row), in increasing order
#include <algorithm>
#include <cmath>

#include "aasubs/derivatives/differences.h"
#include "aasubs/derivatives/znlpfid.h"
#include "host/files.h"
#include "host/log.h"
#include "host/process.h"

namespace tqnlp {

enum Layout : int { sparse_columns = 0, dense_columns = 1, dense_rows = 2 };

static constexpr double ENTRY_TO_COLUMN = 1.110223024625157e-15;  // smaller entries are rounding
static constexpr double LEAST_ENTRY = 2.2250738585072019e-308;
static constexpr long END_OF_COLUMN = -1;

// A failing work file ends the call.
static void check(int code) {
  if (code == 0) return;
  xprrlog(0, code);
  xexit(EXIT_WORK_FILE, 0);
}

template <typename T>
static void write(WorkFile* file, const T* values, long count) {
  check(xcwrite(file, values, count * static_cast<long>(sizeof(T))));
}

template <typename T>
static void read(WorkFile* file, T* values, long count) {
  check(xcread(file, values, count * static_cast<long>(sizeof(T))));
}

static int rewind_and_read_layout(WorkFile* file) {
  int layout = 0;
  check(xcpoint(file, 0));
  read(file, &layout, 1);
  return layout;
}

// Calls use(row, value) for each entry of the next sparse column.
template <typename F>
static void read_sparse_column(WorkFile* file, F use) {
  for (;;) {
    long row = 0;
    double value = 0.0;
    read(file, &row, 1);
    if (row == END_OF_COLUMN) return;
    read(file, &value, 1);
    use(row, value);
  }
}

static void write_sparse_column(MINSTR* str, long inc, double* column) {
  double largest = 0.0;
  for (long i = 0; i < str->mequ; ++i) {
    double& value = column[i * inc];
    if (wzmis(value)) value = 0.0;
    largest = std::max(largest, std::fabs(value));
  }
  const double least = std::max(ENTRY_TO_COLUMN * largest, LEAST_ENTRY);
  for (long i = 0; i < str->mequ; ++i) {
    const double value = column[i * inc];
    if (!(std::fabs(value) > least)) continue;
    write(str->utjacm, &i, 1);
    write(str->utjacm, &value, 1);
  }
  write(str->utjacm, &END_OF_COLUMN, 1);
}

int znlpjwt(MINSTR* str, int job, long jc, long inc, double* jcol) {
  if (jc == 0) {
    check(xcpoint(str->utjacm, 0));
    write(str->utjacm, &job, 1);
  }
  if (job == sparse_columns) {
    write_sparse_column(str, inc, jcol);
    return 0;
  }
  const long count = job == dense_rows ? str->nvar : str->mequ;
  if (inc == 1) {
    write(str->utjacm, jcol, count);
  } else {
    for (long i = 0; i < count; ++i) write(str->utjacm, &jcol[i * inc], 1);
  }
  return 0;
}

int znlpjve(MINSTR* str, const double* vec, double* res) {
  const int layout = rewind_and_read_layout(str->utjacm);
  vzfdl(0.0, res, str->mequ);
  double value = 0.0;
  if (layout == dense_rows) {
    for (long i = 0; i < str->mequ; ++i) {
      for (long j = 0; j < str->nvar; ++j) {
        read(str->utjacm, &value, 1);
        res[i] += value * vec[j];
      }
    }
    return 0;
  }
  for (long j = 0; j < str->nvar; ++j) {
    if (layout == sparse_columns) {
      read_sparse_column(str->utjacm, [&](long i, double entry) { res[i] += entry * vec[j]; });
      continue;
    }
    for (long i = 0; i < str->mequ; ++i) {
      read(str->utjacm, &value, 1);
      res[i] += value * vec[j];
    }
  }
  return 0;
}

int znlpjrd(MINSTR* str, double* jacm) {
  const long n = str->nvar;
  const int layout = rewind_and_read_layout(str->utjacm);
  if (layout == dense_rows) {
    read(str->utjacm, jacm, str->mequ * n);
    return 0;
  }
  vzfdl(0.0, jacm, str->mequ * n);
  for (long j = 0; j < n; ++j) {
    if (layout == sparse_columns) {
      read_sparse_column(str->utjacm, [&](long i, double entry) { jacm[i * n + j] = entry; });
      continue;
    }
    for (long i = 0; i < str->mequ; ++i) read(str->utjacm, &jacm[i * n + j], 1);
  }
  return 0;
}

// ---- Crossproduct ------------------------------------------------------------------------------

// Second-order term of a sum of terms f: a b / f, or 0 where f is too small to divide by.
static double quotient_term(const MINSTR* str, double f, double a, double b) {
  const double product = a * b;
  if (std::fabs(f) >= 1.0) return product / f;
  const double negligible = std::max(HUNDRED_EPS * std::fabs(str->crit), SMALLEST_TOLERANCE);
  if (std::fabs(f) <= negligible || SUM_CEILING * std::fabs(f) <= std::fabs(product)) return 0.0;
  return product / f;
}

int add_crossproduct_term(const MINSTR* str, double* sum, double f, double a, double b) {
  int code = 0;
  if (str->icpj == 0) {
    code = tstsum2(sum, a, b);
  } else if (str->lsqu != 0) {
    code = tstsum2(sum, a * f, f * b);
  } else {
    code = tstsum(sum, quotient_term(str, f, a, b));
  }
  return code != 0 ? -1 : 0;
}

int hupd(const MINSTR* str, double* sum, double f, double a, double b) {
  const bool negate = str->icpj != 0 && str->lsqu == 0 && str->imax != 0;
  return add_crossproduct_term(str, sum, negate ? -f : f, a, b);
}

int znlpjdt(MINSTR* str, long jc, const double* func, const double* jcol, double* res) {
  const int layout = rewind_and_read_layout(str->utjacm);
  if (layout != sparse_columns && layout != dense_columns) xexit(EXIT_INCONSISTENT, 0);
  for (long c = 0; c <= jc; ++c) {
    res[c] = 0.0;
    int code = 0;
    const auto add = [&](long i, double entry) {
      if (code == 0) code = add_crossproduct_term(str, &res[c], func[i], jcol[i], entry);
    };
    if (layout == sparse_columns) {
      read_sparse_column(str->utjacm, add);
    } else {
      double entry = 0.0;
      for (long i = 0; i < str->mequ; ++i) {
        read(str->utjacm, &entry, 1);
        add(i, entry);
      }
    }
    if (code != 0) return code;
  }
  // The next column is written behind the ones just read.
  return 0;
}

}  // namespace tqnlp
