// znlpfid, the Jacobian in its utility file utjacm, because it may be too large for memory.
//
// Layout  a 4-byte int with the job, then by job
//           0 sparse column   pairs (row: 8-byte integer, value: double), then the row number -1
//           1 dense column    m doubles
//           2 dense row       n doubles
//         one record a column (row), in increasing order
//
// The Jacobian that a module gives is in memory already, by rows, and stays there until the module
// runs again: jacm. Readers take it from there, with the same entries as from a file, and most
// techniques never read it at all. Only where one does is it written before the next one comes.
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

// ---- Pieces ------------------------------------------------------------------------------------

// The file is asked for a piece at a time, because a service of the host costs more than an entry.
static constexpr long PIECE = 4096;

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
  long left;       // reading: words of the file behind the piece
  long count = 0;  // words in the piece
  long at = 0;     // reading: the next one
  Word words[PIECE];

  Piece(WorkFile* f, long rest) : file(f), left(rest) {}
};

}  // namespace

static void flush(MINSTR* str, Piece& piece) {
  write(piece.file, piece.words, piece.count);
  str->jacend += piece.count * static_cast<long>(sizeof(Word));
  piece.count = 0;
}

static void put(MINSTR* str, Piece& piece, Word word) {
  if (piece.count == PIECE) flush(str, piece);
  piece.words[piece.count++] = word;
}

static Word take(Piece& piece) {
  if (piece.at == piece.count) {
    piece.count = std::min(PIECE, piece.left);
    if (piece.count < 1) xexit(EXIT_INCONSISTENT, 0);  // more columns are asked for than there are
    read(piece.file, piece.words, piece.count);
    piece.left -= piece.count;
    piece.at = 0;
  }
  return piece.words[piece.at++];
}

// Calls use(row, value) for the entries of the next column, in either form.
template <typename F>
static void read_column(const MINSTR* str, int layout, Piece& piece, F use) {
  if (layout == sparse_columns) {
    for (long row = take(piece).row; row != END_OF_COLUMN; row = take(piece).row) {
      use(row, take(piece).value);
    }
  } else {
    for (long i = 0; i < str->mequ; ++i) use(i, take(piece).value);
  }
}

// The layout of the file, which stands at its first column (row) then.
static int rewind_and_read_layout(const MINSTR* str) {
  if (str->jacend == 0) xexit(EXIT_INCONSISTENT, 0);  // there is no Jacobian
  int layout = 0;
  check(xcpoint(str->utjacm, 0));
  read(str->utjacm, &layout, 1);
  return layout;
}

static Piece from_the_front(const MINSTR* str) {
  constexpr auto head = static_cast<long>(sizeof(int));
  return {str->utjacm, (str->jacend - head) / static_cast<long>(sizeof(Word))};
}

// ---- Writing -----------------------------------------------------------------------------------

// Entries not above this are rounding beside the largest one of their column.
static double least_entry(double largest) {
  return std::max(ENTRY_TO_COLUMN * largest, LEAST_ENTRY);
}

static void put_sparse_column(MINSTR* str, Piece& piece, long inc, double* column) {
  double largest = 0.0;
  for (long i = 0; i < str->mequ; ++i) {
    double& value = column[i * inc];
    if (wzmis(value)) value = 0.0;
    largest = std::max(largest, std::fabs(value));
  }
  const double least = least_entry(largest);
  for (long i = 0; i < str->mequ; ++i) {
    const double value = column[i * inc];
    if (!(std::fabs(value) > least)) continue;
    put(str, piece, {.row = i});
    put(str, piece, {.value = value});
  }
  put(str, piece, {.row = END_OF_COLUMN});
}

// A reader may stand anywhere in the file, so that the position is set for each column.
int znlpjwt(MINSTR* str, int job, long jc, long inc, double* jcol) {
  if (jc == 0) {
    str->jacm = nullptr;
    check(xcpoint(str->utjacm, 0));
    write(str->utjacm, &job, 1);
    str->jacend = sizeof job;
  } else {
    check(xcpoint(str->utjacm, str->jacend));
  }
  Piece piece(str->utjacm, 0);
  if (job == sparse_columns) {
    put_sparse_column(str, piece, inc, jcol);
  } else {
    const long count = job == dense_rows ? str->nvar : str->mequ;
    for (long i = 0; i < count; ++i) put(str, piece, {.value = jcol[i * inc]});
  }
  flush(str, piece);
  return 0;
}

// ---- A Jacobian that stays in memory -----------------------------------------------------------

void hold_jacobian(MINSTR* str, double* jacobian) { str->jacm = jacobian; }

// Who has read all of a Jacobian may want it again when the next one cannot be had. (Products with
// it are made at once or not at all.)
void let_go_jacobian(MINSTR* str) {
  double* jacobian = str->jacm;
  if (jacobian == nullptr) return;
  str->jacm = nullptr;
  str->jacend = 0;
  for (long j = 0; str->jacrd != 0 && j < str->nvar; ++j) {
    znlpjwt(str, sparse_columns, j, str->nvar, jacobian + j);
  }
}

// Calls use(row, column, value) for the entries of the Jacobian in memory, those of a row in
// ascending order: the same entries that its columns on file would have. By strips of columns.
template <typename F>
static void read_held(MINSTR* str, F use) {
  static constexpr long STRIP = 64;
  const long n = str->nvar;
  for (long first = 0; first < n; first += STRIP) {
    const long width = std::min(STRIP, n - first);
    double least[STRIP] = {};
    for (long i = 0; i < str->mequ; ++i) {
      const double* row = str->jacm + i * n + first;
      for (long k = 0; k < width; ++k) least[k] = std::max(least[k], std::fabs(row[k]));
    }
    for (double& bound : least) bound = least_entry(bound);
    for (long i = 0; i < str->mequ; ++i) {
      const double* row = str->jacm + i * n + first;
      for (long k = 0; k < width; ++k) {
        if (std::fabs(row[k]) > least[k]) use(i, first + k, row[k]);
      }
    }
  }
}

// ---- Reading -----------------------------------------------------------------------------------

// Calls use(row, column, value) for the entries of the Jacobian, wherever it is.
template <typename F>
static void read_jacobian(MINSTR* str, F use) {
  if (str->jacm != nullptr) return read_held(str, use);
  const int layout = rewind_and_read_layout(str);
  Piece piece = from_the_front(str);
  if (layout == dense_rows) {
    for (long i = 0; i < str->mequ; ++i) {
      for (long j = 0; j < str->nvar; ++j) use(i, j, take(piece).value);
    }
  } else {
    for (long j = 0; j < str->nvar; ++j) {
      read_column(str, layout, piece, [&](long i, double value) { use(i, j, value); });
    }
  }
}

int znlpjve(MINSTR* str, const double* vec, double* res) {
  vzfdl(0.0, res, str->mequ);
  read_jacobian(str, [&](long i, long j, double value) { res[i] += value * vec[j]; });
  return 0;
}

int znlpjtv(MINSTR* str, const double* vec, double* res) {
  vzfdl(0.0, res, str->nvar);
  read_jacobian(str, [&](long i, long j, double value) { res[j] += value * vec[i]; });
  return 0;
}

int znlpjrd(MINSTR* str, double* jacm) {
  const long n = str->nvar;
  str->jacrd = 1;
  vzfdl(0.0, jacm, str->mequ * n);
  read_jacobian(str, [&](long i, long j, double value) { jacm[i * n + j] = value; });
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
  str->jacrd = 1;
  let_go_jacobian(str);
  const int layout = rewind_and_read_layout(str);
  if (layout != sparse_columns && layout != dense_columns) xexit(EXIT_INCONSISTENT, 0);
  const bool plain = str->icpj == 0;
  Piece piece = from_the_front(str);
  for (long c = 0; c <= jc; ++c) {
    double sum = 0.0;
    bool overflow = false;
    read_column(str, layout, piece, [&](long i, double value) {
      overflow |= (plain ? tstsum2(&sum, jcol[i], value)
                         : add_crossproduct_term(str, &sum, func[i], jcol[i], value)) != 0;
    });
    res[c] = sum;
    if (overflow) return -1;
  }
  return 0;
}

}  // namespace tqnlp
