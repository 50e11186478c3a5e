// zslltmd, patterns: the symbolic factorization, the second pattern of a principal submatrix, and
// the conversion from coordinate form with its sorts.
//
// zslltsf fills the rows of U column by column: row k of U holds column r exactly if k lies on a
// path of the elimination tree from a column of row r of the ordered matrix up to r (the row
// subtree; Liu 1990, SIAM J. Matrix Anal. Appl. 11). As r ascends, so do the columns of every row.
//
//   ordered matrix     factor U          tree
//   0 | x              0 | x . x . x        4          Row 4 has the columns 0 and 3: the paths
//   1 | . x            1 |   x . x .       / \         0-2-4 and 3-4 put column 4 into the rows
//   2 | x . x          2 |     x . f      2   3        0, 2 and 3 of U, f being fill.
//   3 | . x . x        3 |       x x      |   |
//   4 | x . . x x      4 |         x      0   1
//
// zslltiu takes the pattern of the reduced factor from the full one by leaving out rows and
// columns: elimination restricted to fewer variables fills no more places, and what is left is
// closed again.
#include <algorithm>
#include <utility>

#include "kernels/sparse.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

// head[k]: the first row of the run that row k belongs to; last[h]: the end of the run of head h.
// In a run each row has the pattern of the one before without its first column.
static void find_runs(long n, const long* cnt, const long* parent, long* head, long* last) {
  for (long k = 0; k < n; ++k) {
    const bool goes_on = k > 0 && parent[k - 1] == k && cnt[k] == cnt[k - 1] - 1;
    head[k] = goes_on ? head[k - 1] : k;
    last[head[k]] = k;
  }
}

// As zslumdg leaves them: cnt[k] is the length of row k of U without the diagonal, graph[r] where
// the columns c < r of row r begin in graph, node[k] the parent of k in the tree.
int zslltsf(long n, long maxju, const long*, const long*, long* cnt, long* graph, long* node,
            long* next, long* ju) {
  if (n <= 0) return 0;
  long need = n + 1;
  for (long r = 0; r < n; ++r) need += cnt[r];
  if (maxju > n) ju[n] = need;
  if (maxju < need) return 1;
  long *seen = next, *head = next + n + 1, *last = next + 2 * (n + 1);
  find_runs(n, cnt, node, head, last);
  long position = n + 1;
  for (long r = 0; r < n; ++r) {
    ju[r] = position;
    position += cnt[r];
  }
  // Only the heads are filled by walks, which go from run to run: a path that meets a row of a run
  // has its end in the pattern of the run's head too. The pointer of a head moves as its row fills.
  for (long r = 0; r < n; ++r) {
    seen[r] = r;
    for (long q = graph[r]; q < graph[r + 1]; ++q)
      for (long h = head[graph[q]]; seen[h] != r; h = head[node[last[h]]]) {
        seen[h] = r;
        ju[ju[h]++] = r;
        if (head[r] == h) break;
      }
  }
  for (long r = 0; r < n; ++r) {
    if (head[r] == r) {
      ju[r] -= cnt[r];
    } else {
      const long* before = ju + ju[r - 1] + 1;
      std::copy_n(before, cnt[r], ju + ju[r]);
    }
  }
  return 0;
}

// ---- Second pattern ----------------------------------------------------------------------------
//
// Patterns are built as a counting sort: count the columns of each row at pattern[i], turn counts
// into pointers, let each pointer run through its row as columns arrive, and put the pointers back.
// No array beside the pattern is needed.

// Turns counts, row i's at pattern[i], into row pointers; gives the length of the pattern.
static long counts_to_pointers(long n, long* pattern) {
  long position = n + 1;
  for (long i = 0; i < n; ++i) position += std::exchange(pattern[i], position);
  pattern[n] = position;
  return position;
}

// Pointers that have run to the end of their rows go back to the starts.
static void rewind_pointers(long n, long* pattern) {
  for (long i = n - 1; i > 0; --i) pattern[i] = pattern[i - 1];
  if (n > 0) pattern[0] = n + 1;
}

// The reduced matrix, order m, with its values if there are any. An element goes to the larger of
// its two positions, whichever triangle the full matrix keeps it in: positions need not ascend with
// the variables.
static void reduce_matrix(long m, long* jasl, const long* in, long n, const long* ja,
                          const double* a, double* al) {
  std::fill_n(jasl, m + 1, 0L);
  for (long v = 0; v < n; ++v) {
    if (in[v] < 0) continue;
    if (al) al[in[v]] = a[v];
    for (long k = ja[v]; k < ja[v + 1]; ++k)
      if (in[ja[k]] >= 0) ++jasl[std::max(in[v], in[ja[k]])];
  }
  counts_to_pointers(m, jasl);
  for (long v = 0; v < n; ++v) {
    if (in[v] < 0) continue;
    for (long k = ja[v]; k < ja[v + 1]; ++k) {
      const long i = in[v], j = in[ja[k]];
      if (j < 0) continue;
      const long position = jasl[std::max(i, j)]++;
      jasl[position] = std::min(i, j);
      if (al) al[position] = a[k];
    }
  }
  rewind_pointers(m, jasl);
  for (long i = 0; i < m; ++i) {
    const long start = jasl[i], count = jasl[i + 1] - start;
    if (al)
      lsort2(count, jasl + start, al + start);
    else
      lsort(count, jasl + start);
  }
}

long zslltiu(long* jasl, long* jusl, const long* in, long n, const long* ja, const long* ju,
             const long*, const long* iprm, long maxju, const double* a, double* al) {
  long m = 0;
  for (long v = 0; v < n; ++v) m += in[v] >= 0;
  reduce_matrix(m, jasl, in, n, ja, a, a ? al : nullptr);

  // Lengths of the rows first: row q of the reduced factor is the q-th row of a free variable.
  if (maxju < m + 1) return -1;
  long q = 0;
  for (long r = 0; r < n; ++r) {
    if (in[iprm[r]] < 0) continue;
    long count = 0;
    for (long k = ju[r]; k < ju[r + 1]; ++k) count += in[iprm[ju[k]]] >= 0;
    jusl[q++] = count;
  }
  const long length = counts_to_pointers(m, jusl);
  if (maxju < length + m) return -1;

  // Free variables keep the order of their places, so that columns still ascend in each row. in[]
  // numbers them in the caller's order; place translates.
  long* place = jusl + length;
  q = 0;
  for (long r = 0; r < n; ++r)
    if (in[iprm[r]] >= 0) place[in[iprm[r]]] = q++;
  long position = m + 1;
  for (long r = 0; r < n; ++r) {
    if (in[iprm[r]] < 0) continue;
    for (long k = ju[r]; k < ju[r + 1]; ++k) {
      const long i = in[iprm[ju[k]]];
      if (i >= 0) jusl[position++] = place[i];
    }
  }
  return m;
}

// ---- Coordinate form ---------------------------------------------------------------------------

long zslltco(int job, long n, long nz, const long* ir, const long* ic, const double* s, long* ja,
             double* a) {
  if (n <= 0) return nz > 0 ? 1 : 0;
  const bool values = job != 0;
  std::fill_n(ja, n + 1, 0L);
  if (values) std::fill_n(a, n + 1 + nz, 0.0);
  for (long k = 0; k < nz; ++k) {
    if (ir[k] < 0 || ir[k] >= n || ic[k] < 0 || ic[k] >= n) return k + 1;
    if (ir[k] != ic[k])
      ++ja[std::max(ir[k], ic[k])];
    else if (values)
      a[ir[k]] += s[k];
  }
  counts_to_pointers(n, ja);
  for (long k = 0; k < nz; ++k) {
    if (ir[k] == ic[k]) continue;
    const long position = ja[std::max(ir[k], ic[k])]++;
    ja[position] = std::min(ir[k], ic[k]);
    if (values) a[position] = s[k];
  }
  rewind_pointers(n, ja);

  // Sort each row and draw equal positions together.
  long to = n + 1;
  long start = ja[0];
  for (long i = 0; i < n; ++i) {
    const long end = ja[i + 1], first = to;
    if (values)
      lsort2(end - start, ja + start, a + start);
    else
      lsort(end - start, ja + start);
    ja[i] = first;
    for (long k = start; k < end; ++k) {
      const bool again = to > first && ja[to - 1] == ja[k];
      if (!again) {
        ja[to] = ja[k];
        if (values) a[to] = a[k];
        ++to;
      } else if (values) {
        a[to - 1] += a[k];
      }
    }
    start = end;
  }
  ja[n] = to;
  return 0;
}

// ---- Sorts -------------------------------------------------------------------------------------

// Rows up to this length are sorted by insertion.
static constexpr long SHORT_ROW = 16;

static void insertion_sort(long n, long* key, double* val) {
  for (long i = 1; i < n; ++i) {
    const long k = key[i];
    const double v = val ? val[i] : 0.0;
    long j = i;
    for (; j > 0 && key[j - 1] > k; --j) {
      key[j] = key[j - 1];
      if (val) val[j] = val[j - 1];
    }
    key[j] = k;
    if (val) val[j] = v;
  }
}

// Lets the key at root sink until the heap of n keys, the largest on top, holds again below it.
static void sift_down(long root, long n, long* key, double* val) {
  for (long child = 2 * root + 1; child < n; root = child, child = 2 * root + 1) {
    if (child + 1 < n && key[child + 1] > key[child]) ++child;
    if (key[root] >= key[child]) return;
    std::swap(key[root], key[child]);
    if (val) std::swap(val[root], val[child]);
  }
}

// Long rows by heap, in place: no order of the input is slow and no stack of pieces is kept.
static void sort_pairs(long n, long* key, double* val) {
  if (n <= SHORT_ROW) return insertion_sort(n, key, val);
  for (long root = n / 2 - 1; root >= 0; --root) sift_down(root, n, key, val);
  for (long end = n - 1; end > 0; --end) {
    std::swap(key[0], key[end]);
    if (val) std::swap(val[0], val[end]);
    sift_down(0, end, key, val);
  }
}

void lsort(long n, long* key) { sort_pairs(n, key, nullptr); }

void lsort2(long n, long* key, double* val) { sort_pairs(n, key, val); }

}  // namespace tqnlp
