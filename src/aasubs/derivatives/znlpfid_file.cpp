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

// ---- Pieces ------------------------------------------------------------------------------------

// The file is asked for a piece at a time, because a service of the host costs more than an entry.
static constexpr long PIECE = 64;

namespace {

// A word of a sparse column: a row number or a value.
union Word {
  long row;
  double value;
};
static_assert(sizeof(Word) == 8);

// Words that are read ahead of their use, or wait to be written.
struct Piece {
  WorkFile* file;
  long columns;    // reading: columns that are not yet read to their end
  long count = 0;  // words in the piece
  long at = 0;     // reading: the next one
  Word words[PIECE] = {};
};

}  // namespace

static void put(Piece& piece, Word word) {
  piece.words[piece.count++] = word;
  if (piece.count < PIECE) return;
  write(piece.file, piece.words, piece.count);
  piece.count = 0;
}

// The next word of the columns; due is 1 for a value, of which the file holds one more word than
// the columns' closing ones. How long a column is, is not known beforehand; but every column still
// to come has its closing word, and a row number has its value behind it. So many words can be read
// without going beyond the last column, where the next one is to be written.
static Word take(Piece& piece, long due) {
  if (piece.at == piece.count) {
    piece.count = std::min(PIECE, piece.columns + due);
    read(piece.file, piece.words, piece.count);
    piece.at = 0;
  }
  return piece.words[piece.at++];
}

// Calls use(row, value) for each entry of the next sparse column.
template <typename F>
static void read_sparse_column(Piece& piece, F use) {
  for (;;) {
    const long row = take(piece, 0).row;
    if (row == END_OF_COLUMN) break;
    use(row, take(piece, 1).value);
  }
  --piece.columns;
}

// Calls use(k, value) for the next count values of the file.
template <typename F>
static void read_values(WorkFile* file, long count, F use) {
  double values[PIECE];
  for (long first = 0; first < count; first += PIECE) {
    const long piece = std::min(PIECE, count - first);
    read(file, values, piece);
    for (long k = 0; k < piece; ++k) use(first + k, values[k]);
  }
}

// Calls use(row, value) for the entries of the next column, in either form.
template <typename F>
static void read_column(MINSTR* str, int layout, Piece& piece, F use) {
  if (layout == sparse_columns) {
    read_sparse_column(piece, use);
  } else {
    read_values(str->utjacm, str->mequ, use);
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
  Piece piece{str->utjacm, 1};
  for (long i = 0; i < str->mequ; ++i) {
    const double value = column[i * inc];
    if (!(std::fabs(value) > least)) continue;
    put(piece, {.row = i});
    put(piece, {.value = value});
  }
  put(piece, {.row = END_OF_COLUMN});
  write(piece.file, piece.words, piece.count);
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
  if (layout == dense_rows) {
    for (long i = 0; i < str->mequ; ++i) {
      read_values(str->utjacm, str->nvar, [&](long j, double value) { res[i] += value * vec[j]; });
    }
  } else {
    Piece piece{str->utjacm, str->nvar};
    for (long j = 0; j < str->nvar; ++j) {
      read_column(str, layout, piece, [&](long i, double value) { res[i] += value * vec[j]; });
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
  Piece piece{str->utjacm, n};
  for (long j = 0; j < n; ++j) {
    read_column(str, layout, piece, [&](long i, double value) { jacm[i * n + j] = value; });
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

// All columns are read even after an overflow, so that the file stands behind them: there the next
// column is written.
int znlpjdt(MINSTR* str, long jc, const double* func, const double* jcol, double* res) {
  const int layout = rewind_and_read_layout(str->utjacm);
  if (layout != sparse_columns && layout != dense_columns) xexit(EXIT_INCONSISTENT, 0);
  const bool plain = str->icpj == 0;
  Piece piece{str->utjacm, jc + 1};
  bool overflow = false;
  for (long c = 0; c <= jc; ++c) {
    double sum = 0.0;
    read_column(str, layout, piece, [&](long i, double value) {
      overflow |= (plain ? tstsum2(&sum, jcol[i], value)
                         : add_crossproduct_term(str, &sum, func[i], jcol[i], value)) != 0;
    });
    res[c] = sum;
  }
  return overflow ? -1 : 0;
}

}  // namespace tqnlp
