// znlpspm: SParse Matrix, the storage form of the Hessian of a run.
//
// The pattern is built as a counting sort: count the elements of each row, turn counts into row
// pointers, let each pointer run through its row while elements arrive, put the pointers back; then
// sort the rows and merge elements that were given twice (both triangles, or repeated triples). The
// factor's pattern follows by minimum degree and symbolic elimination (George and Liu, Computer
// Solution of Large Sparse Positive Definite Systems, 1981).
//
//   need    n(n+1)/2, the packed matrix
//   sneed   2 (mxja + mxju): values and indices of matrix and factor; above ratio * need the packed
//           form is kept, which is then also the faster one
#include "aasubs/post/znlpspm.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/memory.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

// Pivots of the test factorization: floor, and limit when sing is missing.
static constexpr double LEAST_PIVOT = 1.1102230246251569e-15;
static constexpr double DEFAULT_PIVOT = 1e-12;
// The limit of the room when ratio, being above 1, asks for the sparse form at nearly any price.
static constexpr double GENEROUS = 100.0;

static constexpr int NO_MEMORY = -1;
static constexpr int VALUES_DISAGREE = -2;

template <class T>
static T* take(long count) {
  const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
  T* block = static_cast<T*>(vmalloc_handler(bytes, 0));
  if (block == nullptr) xmemmsg(bytes);
  return block;
}

void release_pattern(SPAR* shes) {
  for (long* block : {shes->jasp, shes->jusp, shes->perm, shes->iprm, shes->jasl, shes->jusl}) {
    vmfree_handler(block);
  }
  *shes = SPAR{};
}

void i2sort(long n, long* idat, double* val) {
  long gap = 1;
  while (gap < n / 3) gap = 3 * gap + 1;
  for (; gap > 0; gap /= 3) {
    for (long i = gap; i < n; ++i) {
      const long key = idat[i];
      const double moved = val != nullptr ? val[i] : 0.0;
      long j = i;
      for (; j >= gap && idat[j - gap] > key; j -= gap) {
        idat[j] = idat[j - gap];
        if (val != nullptr) val[j] = val[j - gap];
      }
      idat[j] = key;
      if (val != nullptr) val[j] = moved;
    }
  }
}

// ---- Elements -----------------------------------------------------------------------------------

// Does an element make a place? Of a matrix that stays, values whose square underflows do not.
static bool counts(int ifrm, double value) {
  if (ifrm == SPM_PLACES) return true;
  return !wzmis(value) && !(std::fabs(value) <= ROOT_TINY);
}

// Calls visit(i, j, value), i >= j, for every element that counts. Returns 0, or the number of the
// first triple with an index out of range.
template <class Visit>
static long visit_elements(const MINSTR* str, int ifrm, long ntri, Visit visit) {
  const double* from = str->hess;
  if (ifrm == SPM_PACKED) {
    for (long i = 0; i < str->nvar; ++i) {
      for (long j = 0; j <= i; ++j, ++from) {
        if (counts(ifrm, *from)) visit(i, j, *from);
      }
    }
    return 0;
  }
  for (long k = 0; k < ntri; ++k, from += 3) {
    const long i = index_of(from[0], str->nvar);
    const long j = index_of(from[1], str->nvar);
    if (i < 0 || j < 0) {
      if (wzmis(from[2])) continue;
      return k + 1;
    }
    if (counts(ifrm, from[2])) visit(std::max(i, j), std::min(i, j), from[2]);
  }
  return 0;
}

// ---- Pattern ------------------------------------------------------------------------------------

bool values_agree(const MINSTR* str, double a, double b) {
  if (a == b || wzmis(a) || wzmis(b)) return true;
  const double size = std::max(std::fabs(a), std::fabs(b));
  return std::fabs(a - b) <= std::max(str->ddif * size, HUNDRED_EPS);
}

// Elements of each row at their places, rows unsorted. values may be null. The diagonal of a sparse
// matrix is zero where it is not given.
static void distribute(const MINSTR* str, int ifrm, long ntri, long* jasp, double* values) {
  const long n = str->nvar;
  std::fill_n(jasp, n + 1, 0L);
  visit_elements(str, ifrm, ntri, [jasp](long i, long j, double) { jasp[i] += i != j; });
  long position = n + 1;
  for (long i = 0; i <= n; ++i) position += std::exchange(jasp[i], position);
  if (values != nullptr) {
    vzfdl(MISSING, values, jasp[n]);
    vzfdl(0.0, values, n);
  }
  visit_elements(str, ifrm, ntri, [jasp, values](long i, long j, double value) {
    const long place = i == j ? i : jasp[i]++;
    if (i != j) jasp[place] = j;
    if (values != nullptr) values[place] = value;
  });
  for (long i = n - 1; i > 0; --i) jasp[i] = jasp[i - 1];
  jasp[0] = n + 1;
}

// Sorts the rows and merges what was given twice. False when two values of a place disagree.
static bool sort_and_merge(const MINSTR* str, long* jasp, double* values) {
  const long n = str->nvar;
  long to = n + 1;
  for (long i = 0, begin = jasp[0]; i < n; ++i) {
    const long end = jasp[i + 1];
    i2sort(end - begin, jasp + begin, values != nullptr ? values + begin : nullptr);
    const long row = jasp[i] = to;
    for (long k = begin; k < end; ++k) {
      if (to > row && jasp[to - 1] == jasp[k]) {
        if (values != nullptr && !values_agree(str, values[to - 1], values[k])) return false;
        continue;
      }
      jasp[to] = jasp[k];
      if (values != nullptr) values[to] = values[k];
      ++to;
    }
    begin = end;
  }
  jasp[n] = to;
  return true;
}

// ---- Ordering and factor ------------------------------------------------------------------------

// Most longs and doubles that the sparse form may need.
static double most_room(const MINSTR* str, double ratio) {
  const double packed = static_cast<double>(packed_size(str->nvar));
  return ratio * packed * (ratio > 1.0 ? GENEROUS : 1.0);
}

static bool too_long(const MINSTR* str, double ratio, long mxja, long mxju) {
  return 2.0 * (static_cast<double>(mxja) + static_cast<double>(mxju)) > most_room(str, ratio);
}

// Is the matrix positive definite? Returns 0, 1 or -1 as getchol.
static int test_factor(const MINSTR* str, const long* jasp, const double* hess) {
  const SPAR& s = str->shes;
  const double sing = wzmis(str->sing) ? DEFAULT_PIVOT : std::max(str->sing, LEAST_PIVOT);
  double* factor = take<double>(s.jusp[str->nvar]);
  if (factor == nullptr) return NO_MEMORY;
  const int failed = zslltnf(1, 0, str->nvar, sing, jasp, s.jusp, s.perm, hess, factor);
  vmfree_handler(factor);
  return failed != 0 ? 1 : 0;
}

// Symbolic factorization. What it needs is known only by trying: the first try with the least room
// tells the length. With bounds there is room for the places that follow a second pattern.
static int make_factor_pattern(MINSTR* str, long* iprm, long mxja, double ratio, long* work,
                               long* graph) {
  const long n = str->nvar;
  const long stride = 3 * n + 3;
  const long places = str->bounds != 0 ? n : 0;
  SPAR& s = str->shes;
  for (long room = n + 1;;) {
    s.jusp = take<long>(room + places);
    if (s.jusp == nullptr) return NO_MEMORY;
    const int failed =
        zslltsf(n, room, iprm, s.perm, work, graph, work + stride, work + 2 * stride, s.jusp);
    room = s.jusp[n];
    s.mxju = room + places;
    if (too_long(str, ratio, mxja, room)) return 1;
    if (failed == 0) return 0;
    vmfree_handler(std::exchange(s.jusp, nullptr));
  }
}

int getchol(MINSTR* str, int jfac, long* iprm, const long* jasp, const double* hess, double ratio) {
  const long n = str->nvar;
  const long mxja = jasp[n];
  const long stride = 3 * n + 3;
  const long graph_length = 2 * (mxja - n - 1) + n + 1;
  // Even a factor without fill would be too long.
  if (too_long(str, ratio, mxja, mxja)) return 1;
  long* work = take<long>(3 * stride + graph_length);
  if (work == nullptr) return NO_MEMORY;
  long* graph = work + 3 * stride;
  zslumdg(n, graph_length, jasp, iprm, str->shes.perm, work, graph, work + stride,
          work + 2 * stride, 1);
  int code = make_factor_pattern(str, iprm, mxja, ratio, work, graph);
  vmfree_handler(work);
  if (code == 0 && jfac != 0 && hess != nullptr) code = test_factor(str, jasp, hess);
  return code;
}

// Room for the second pattern.
static int take_second_pattern(const MINSTR* str, SPAR* s) {
  if (str->bounds == 0) return 0;
  s->jasl = take<long>(s->mxja);
  s->jusl = take<long>(s->mxju);
  return s->jasl != nullptr && s->jusl != nullptr ? 0 : NO_MEMORY;
}

// ---- The forms ----------------------------------------------------------------------------------

// Pattern, ordering and factor of a matrix with the given number of elements off the diagonal.
// Returns 0, 1 when the packed form is to be kept, or a negative code of znlpspm. *values receives
// the values when they are wanted.
static int make_sparse(MINSTR* str, int jfac, int jmem, int ifrm, long ntri, long off_diagonal,
                       double** values) {
  const long n = str->nvar;
  SPAR& s = str->shes;
  s.jasp = take<long>(n + 1 + off_diagonal);
  s.perm = take<long>(n);
  s.iprm = take<long>(n);
  if (s.jasp == nullptr || s.perm == nullptr || s.iprm == nullptr) return NO_MEMORY;
  if (jmem != 0 && (*values = take<double>(n + 1 + off_diagonal)) == nullptr) return NO_MEMORY;
  distribute(str, ifrm, ntri, s.jasp, *values);
  if (!sort_and_merge(str, s.jasp, *values)) return VALUES_DISAGREE;
  s.mxja = s.jasp[n];
  const int code = getchol(str, jfac, s.iprm, s.jasp, *values, str->ratio);
  return code != 0 ? code : take_second_pattern(str, &s);
}

// Values in the packed form, or the diagonal alone; places that are not given are zero.
static int make_dense(MINSTR* str, int ifrm, long ntri, double** values) {
  const bool diagonal = str->hfrm == 2;
  const long length = diagonal ? str->nvar : packed_size(str->nvar);
  double* to = *values = take<double>(length);
  if (to == nullptr) return NO_MEMORY;
  vzfdl(0.0, to, length);
  visit_elements(str, ifrm, ntri, [to, diagonal](long i, long j, double value) {
    to[diagonal ? i : zisub(i, j)] = value;
  });
  return 0;
}

// No pattern, and nothing of a form that was given up.
static int keep_packed(MINSTR* str, double** values, int code) {
  release_pattern(&str->shes);
  vmfree_handler(std::exchange(*values, nullptr));
  str->hfrm = 0;
  return code;
}

int znlpspm(MINSTR* str, int jfac, int jmem, int ifrm, long ntri) {
  double* values = nullptr;
  keep_packed(str, &values, 0);
  long off_diagonal = 0;
  const long bad = visit_elements(
      str, ifrm, ntri, [&off_diagonal](long i, long j, double) { off_diagonal += i != j; });
  if (bad != 0) return static_cast<int>(bad);

  int code = 0;
  if (off_diagonal == 0) {
    str->hfrm = 2;
  } else if (str->ratio > 0.0) {
    code = make_sparse(str, jfac, jmem, ifrm, ntri, off_diagonal, &values);
    if (code < 0) return keep_packed(str, &values, code);
    str->hfrm = code == 0 ? 1 : keep_packed(str, &values, 0);
  }
  if (jmem == 0) return 0;
  if (str->hfrm != 1) code = make_dense(str, ifrm, ntri, &values);
  if (code < 0) return keep_packed(str, &values, code);
  str->hess = values;
  return 0;
}

}  // namespace tqnlp
