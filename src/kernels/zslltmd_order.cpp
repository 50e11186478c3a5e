// zslumdg: Symmetric Minimum DeGree ordering.
//
// Approximate minimum degree on a quotient graph, after Amestoy, Davis and Duff (1996), SIAM J.
// Matrix Anal. Appl. 17, with the devices that George and Liu (1989), SIAM Review 31, describe for
// minimum degree: element absorption, mass elimination, indistinguishable variables merged into
// supervariables, and rows that are nearly full set aside to the end.
//
// A vertex of the quotient graph is a variable that is still there, or an element: the clique that
// an eliminated pivot left behind. A variable's list holds its elements first and then the
// variables it is joined to by an original element of the matrix; an element's list holds its
// variables. The degree of a variable counts the variables of its elements minus the present
// pivot's clique L, each element on its own, so that the bound is cheap; |E \ L| for all elements E
// that touch L is found in one pass over the lists of L's variables.
//
// The order of elimination is then refined: the elimination tree of the ordered matrix is put in
// postorder, the child with the longest row last, which changes no fill and makes rows of equal
// pattern neighbours.
//
// Work arrays during the ordering (n + 1 longs a field):
//
//   cnt  | start | length | elements |     position and length of a vertex' list in graph, and how
//                                          many elements stand at its front; start of a vertex that
//                                          is gone: flip(vertex that absorbed it)
//   node | weight | degree | stamp |       variables in a supervariable (0: gone, negative: in L)
//   next | next | last | head |            lists of variables by degree; buckets of the hash
//   graph| the lists, with free room behind them that is compacted when it runs out
//
// Afterwards, for zslltsf: graph = row pointers and columns c < r of the ordered matrix, node =
// parent in the elimination tree (n for a root), cnt = off-diagonal length of each row of U.
#include <algorithm>
#include <cmath>

#include "kernels/sparse.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

namespace {

constexpr long NONE = -1;

// Rows longer than DENSE_FACTOR sqrt(n), and than DENSE_LEAST, are ordered last.
constexpr double DENSE_FACTOR = 10.0;
constexpr long DENSE_LEAST = 16;

// A vertex that is gone points to the one that absorbed it by a flipped number; flip(NONE) is NONE.
constexpr long flip(long i) { return -2 - i; }

struct QuotientGraph {
  long n, room, free;  // order; length of list; first free place of it
  long* list;
  long *start, *length, *elements;
  long *weight, *degree, *stamp;
  long *next, *last, *head;
  long mark;      // stamps below it are void
  long least;     // no variable has a smaller degree
  long ordered;   // variables eliminated or set aside
  long sequence;  // place of the next pivot
  long* place;    // first place of each pivot
};

// The clique of the present pivot.
struct Clique {
  long pivot, weight;  // the pivot and the number of variables it stands for
  long begin, end;     // its variables in list
  long size;           // the sum of their weights
};

}  // namespace

static void remove_from_degrees(QuotientGraph& g, long i) {
  const long after = g.next[i], before = g.last[i];
  if (after != NONE) g.last[after] = before;
  if (before != NONE)
    g.next[before] = after;
  else
    g.head[g.degree[i]] = after;
}

static void insert_by_degree(QuotientGraph& g, long i, long degree) {
  const long first = g.head[degree];
  if (first != NONE) g.last[first] = i;
  g.next[i] = first;
  g.last[i] = NONE;
  g.head[degree] = i;
  g.degree[i] = degree;
  g.least = std::min(g.least, degree);
}

// Stamps are w + mark with w <= n; starts anew before they overflow.
static void raise_mark(QuotientGraph& g, long by) {
  constexpr long LIMIT = 1L << 60;
  g.mark += by;
  if (g.mark < LIMIT) return;
  for (long i = 0; i < g.n; ++i)
    if (g.stamp[i] != 0) g.stamp[i] = 1;
  g.mark = 2;
}

// Both triangles of the pattern, each neighbour once, no diagonal.
static void load_graph(QuotientGraph& g, const long* ja) {
  const long n = g.n;
  std::fill_n(g.length, n, 0L);
  for (long i = 0; i < n; ++i)
    for (long k = ja[i]; k < ja[i + 1]; ++k)
      if (ja[k] != i) {
        ++g.length[i];
        ++g.length[ja[k]];
      }
  long position = 0;
  for (long i = 0; i < n; ++i) {
    g.start[i] = position;
    position += g.length[i];
    g.length[i] = 0;
  }
  for (long i = 0; i < n; ++i)
    for (long k = ja[i]; k < ja[i + 1]; ++k) {
      const long j = ja[k];
      if (j == i) continue;
      g.list[g.start[i] + g.length[i]++] = j;
      g.list[g.start[j] + g.length[j]++] = i;
    }
  std::fill_n(g.stamp, n, NONE);
  for (long i = 0; i < n; ++i) {  // a position stored twice would count twice
    long* row = g.list + g.start[i];
    long kept = 0;
    for (long k = 0; k < g.length[i]; ++k)
      if (g.stamp[row[k]] != i) {
        g.stamp[row[k]] = i;
        row[kept++] = row[k];
      }
    g.length[i] = kept;
  }
  g.free = position;
}

// Isolated variables come first, nearly full ones are set aside, the others enter the degree lists.
static void start_degrees(QuotientGraph& g) {
  const long n = g.n;
  const long dense =
      std::max(DENSE_LEAST, static_cast<long>(DENSE_FACTOR * std::sqrt(static_cast<double>(n))));
  g.ordered = g.sequence = 0;
  g.least = n;
  g.mark = 2;
  std::fill_n(g.head, n + 1, NONE);
  for (long i = 0; i < n; ++i) {
    g.weight[i] = 1;
    g.stamp[i] = 1;
    g.elements[i] = 0;
    g.place[i] = NONE;
  }
  for (long i = 0; i < n; ++i) {
    if (g.length[i] > dense) {
      g.weight[i] = 0;
      g.elements[i] = NONE;
      g.start[i] = flip(n);
      ++g.ordered;
    } else if (g.length[i] == 0) {
      g.elements[i] = NONE;
      g.start[i] = flip(n);
      g.stamp[i] = 0;
      g.place[i] = g.sequence++;
      ++g.ordered;
    } else {
      insert_by_degree(g, i, g.length[i]);
    }
  }
}

// Moves all lists that are in use to the front. The first entry of each one is parked in start, and
// the vertex' number stands flipped in its place meanwhile, so that one sweep finds the lists in
// order.
static void compact_lists(QuotientGraph& g) {
  for (long i = 0; i < g.n; ++i)
    if (g.start[i] >= 0) {
      const long at = g.start[i];
      g.start[i] = g.list[at];
      g.list[at] = flip(i);
    }
  long to = 0;
  for (long from = 0; from < g.free;) {
    const long i = flip(g.list[from++]);
    if (i < 0) continue;
    g.list[to] = g.start[i];
    g.start[i] = to++;
    for (long k = 1; k < g.length[i]; ++k) g.list[to++] = g.list[from++];
  }
  g.free = to;
}

// Takes variable i into the clique, unless it is there or gone.
static void join_clique(QuotientGraph& g, Clique& c, long i) {
  const long w = g.weight[i];
  if (w <= 0) return;
  c.size += w;
  g.weight[i] = -w;
  remove_from_degrees(g, i);
  g.list[c.end++] = i;
}

// Forms the clique of pivot c.pivot: the union of its elements, which it absorbs, and of its own
// variables. Without elements this is done in place; otherwise in the free room. What the clique
// replaces is at least as long as the clique, so lists and clique together never need more than the
// first lists and n places.
static void form_clique(QuotientGraph& g, Clique& c) {
  const long me = c.pivot;
  c.weight = g.weight[me];
  c.size = 0;
  g.weight[me] = -c.weight;
  g.ordered += c.weight;
  const long count = g.elements[me];
  if (count > 0 && g.free + (g.n - g.ordered) > g.room) compact_lists(g);
  const long list = g.start[me];
  c.begin = c.end = count > 0 ? g.free : list;
  for (long k = list; k < list + count; ++k) {
    const long e = g.list[k];
    for (long q = g.start[e]; q < g.start[e] + g.length[e]; ++q) join_clique(g, c, g.list[q]);
    g.start[e] = flip(me);
    g.stamp[e] = 0;
  }
  for (long k = list + count; k < list + g.length[me]; ++k) join_clique(g, c, g.list[k]);
  if (count > 0) g.free = c.end;
  g.start[me] = c.begin;
  g.length[me] = c.end - c.begin;
  g.elements[me] = NONE;
}

// stamp[e] := mark + |E \ L| for every element E that touches the clique L.
static void measure_elements(QuotientGraph& g, const Clique& c) {
  for (long q = c.begin; q < c.end; ++q) {
    const long i = g.list[q];
    const long w = -g.weight[i];
    for (long k = g.start[i]; k < g.start[i] + g.elements[i]; ++k) {
      const long e = g.list[k];
      if (g.stamp[e] >= g.mark)
        g.stamp[e] -= w;
      else if (g.stamp[e] != 0)
        g.stamp[e] = g.degree[e] + g.mark - w;
    }
  }
}

// Prunes the lists of variable i of the clique: gone and absorbed elements and variables leave, an
// element that lies within the clique is absorbed, the pivot becomes the first element. Gives the
// degree outside the clique and a hash of what is left.
static void prune_variable(QuotientGraph& g, const Clique& c, long i, long& degree, long& hash) {
  const long list = g.start[i];
  const long elements_end = list + g.elements[i], end = list + g.length[i];
  long to = list;
  degree = hash = 0;
  for (long k = list; k < elements_end; ++k) {
    const long e = g.list[k];
    if (g.stamp[e] == 0) continue;
    const long outside = g.stamp[e] - g.mark;
    if (outside > 0) {
      degree += outside;
      g.list[to++] = e;
      hash += e;
    } else {
      g.start[e] = flip(c.pivot);
      g.stamp[e] = 0;
    }
  }
  const long kept = to - list;
  const long variables = to;
  for (long k = elements_end; k < end; ++k) {
    const long j = g.list[k];
    if (g.weight[j] <= 0) continue;
    degree += g.weight[j];
    g.list[to++] = j;
    hash += j;
  }
  // At least one entry left (the pivot or an element it absorbed): there is a place for the pivot.
  g.list[to] = g.list[variables];
  g.list[variables] = g.list[list];
  g.list[list] = c.pivot;
  g.elements[i] = kept + 1;
  g.length[i] = to + 1 - list;
}

// Finds the new degrees of the clique's variables. One without neighbours outside is eliminated
// with the pivot; the others go into hash buckets, which share head with the degree lists: a bucket
// behind a degree list hangs from the last field of the list's first variable, else head holds it
// flipped.
static void update_degrees(QuotientGraph& g, Clique& c) {
  for (long q = c.begin; q < c.end; ++q) {
    const long i = g.list[q];
    long degree, hash;
    prune_variable(g, c, i, degree, hash);
    if (degree == 0) {
      const long w = -g.weight[i];
      g.start[i] = flip(c.pivot);
      g.weight[i] = 0;
      g.elements[i] = NONE;
      c.size -= w;
      c.weight += w;
      g.ordered += w;
      continue;
    }
    g.degree[i] = std::min(g.degree[i], degree);
    hash %= g.n;
    const long first = g.head[hash];
    if (first <= NONE) {
      g.next[i] = flip(first);
      g.head[hash] = flip(i);
    } else {
      g.next[i] = g.last[first];
      g.last[first] = i;
    }
    g.last[i] = hash;
  }
}

// Takes the bucket of variable i's hash out, NONE if it was taken before.
static long take_bucket(QuotientGraph& g, long i) {
  const long hash = g.last[i];
  const long first = g.head[hash];
  if (first == NONE) return NONE;
  if (first < NONE) {
    g.head[hash] = NONE;
    return flip(first);
  }
  const long bucket = g.last[first];
  g.last[first] = NONE;
  return bucket;
}

// Are the lists of j the ones whose entries carry the present mark?
static bool same_lists(const QuotientGraph& g, long i, long j) {
  if (g.length[i] != g.length[j] || g.elements[i] != g.elements[j]) return false;
  for (long k = g.start[j] + 1; k < g.start[j] + g.length[j]; ++k)
    if (g.stamp[g.list[k]] != g.mark) return false;
  return true;
}

// Merges variables of the clique with equal lists.
static void merge_variables(QuotientGraph& g, const Clique& c) {
  for (long q = c.begin; q < c.end; ++q) {
    long i = g.list[q];
    if (g.weight[i] >= 0) continue;
    for (i = take_bucket(g, i); i != NONE && g.next[i] != NONE; i = g.next[i]) {
      for (long k = g.start[i] + 1; k < g.start[i] + g.length[i]; ++k) g.stamp[g.list[k]] = g.mark;
      for (long before = i, j = g.next[i]; j != NONE; j = g.next[j]) {
        if (same_lists(g, i, j)) {
          g.start[j] = flip(i);
          g.weight[i] += g.weight[j];
          g.weight[j] = 0;
          g.elements[j] = NONE;
          g.next[before] = g.next[j];
        } else {
          before = j;
        }
      }
      raise_mark(g, 1);
    }
  }
}

// Puts the clique's variables that are left back into the degree lists and closes its list.
static void finish_clique(QuotientGraph& g, Clique& c) {
  const long left = g.n - g.ordered;
  long to = c.begin;
  for (long q = c.begin; q < c.end; ++q) {
    const long i = g.list[q];
    const long w = -g.weight[i];
    if (w <= 0) continue;
    g.weight[i] = w;
    insert_by_degree(g, i, std::max(0L, std::min(g.degree[i] + c.size - w, left - w)));
    g.list[to++] = i;
  }
  const long me = c.pivot;
  g.weight[me] = c.weight;
  g.length[me] = to - c.begin;
  if (g.length[me] == 0) {
    g.start[me] = flip(g.n);
    g.stamp[me] = 0;
  }
  if (g.free == c.end) g.free = to;
  g.degree[me] = c.size;
  g.place[me] = g.sequence;
  g.sequence += c.weight;
}

static void eliminate_all(QuotientGraph& g) {
  while (g.ordered < g.n) {
    while (g.head[g.least] == NONE) ++g.least;
    Clique c{};
    c.pivot = g.head[g.least];
    remove_from_degrees(g, c.pivot);
    form_clique(g, c);
    measure_elements(g, c);
    g.degree[c.pivot] = c.size;
    g.stamp[c.pivot] = 1;
    update_degrees(g, c);
    raise_mark(g, g.n);  // every stamp of this pivot is below mark + n
    merge_variables(g, c);
    finish_clique(g, c);
  }
}

// Orders the variables by their pivots: each one follows the chain of those that absorbed it up to
// a pivot. Variables set aside come last.
static void number_variables(QuotientGraph& g, long* iprm, long* perm) {
  for (long v = 0; v < g.n; ++v) {
    long rep = v;
    while (g.place[rep] == NONE && g.start[rep] != flip(g.n)) rep = flip(g.start[rep]);
    for (long k = v; k != rep;) {  // shorten the chain
      const long up = flip(g.start[k]);
      g.start[k] = flip(rep);
      k = up;
    }
    perm[v] = g.place[rep] == NONE ? g.sequence++ : g.place[rep]++;
  }
  for (long v = 0; v < g.n; ++v) iprm[perm[v]] = v;
}

// Row pointers and columns c < r of the ordered matrix.
static void order_rows(long n, const long* ja, const long* perm, long* graph) {
  std::fill_n(graph, n + 1, 0L);
  for (long i = 0; i < n; ++i)
    for (long k = ja[i]; k < ja[i + 1]; ++k)
      if (ja[k] != i) ++graph[std::max(perm[i], perm[ja[k]])];
  long position = n + 1;
  for (long r = 0; r <= n; ++r) {
    const long count = graph[r];
    graph[r] = position;
    position += count;
  }
  // Each pointer runs to the end of its row, which is the start of the next one.
  for (long i = 0; i < n; ++i)
    for (long k = ja[i]; k < ja[i + 1]; ++k) {
      if (ja[k] == i) continue;
      const long r = perm[i], c = perm[ja[k]];
      graph[graph[std::max(r, c)]++] = std::min(r, c);
    }
  for (long r = n; r > 0; --r) graph[r] = graph[r - 1];
  graph[0] = n + 1;
}

// The elimination tree (Liu 1990, SIAM J. Matrix Anal. Appl. 11): the parent of k is the first
// column of row k of U, n for none. ancestor shortens the climbs.
static void find_parents(long n, const long* graph, long* parent, long* ancestor) {
  for (long r = 0; r < n; ++r) {
    parent[r] = ancestor[r] = n;
    for (long q = graph[r]; q < graph[r + 1]; ++q)
      for (long k = graph[q]; k < r;) {
        const long up = ancestor[k];
        ancestor[k] = r;
        if (up == n) parent[k] = r;
        k = up == n ? r : up;
      }
  }
}

// Column r of U holds the rows that lie on the paths of the tree from row r's columns up to r.
static void count_rows(long n, const long* graph, const long* parent, long* count, long* seen) {
  for (long r = 0; r < n; ++r) {
    count[r] = 0;
    seen[r] = r;
    for (long q = graph[r]; q < graph[r + 1]; ++q)
      for (long k = graph[q]; seen[k] != r; k = parent[k]) {
        seen[k] = r;
        ++count[k];
      }
  }
}

// post[r]: the place of r in a postorder of the tree in which the child with the longest row comes
// last. child and sibling are work; child has n + 1 places, the roots are the children of n.
static void number_tree(long n, const long* parent, const long* count, long* post, long* child,
                        long* sibling) {
  std::fill_n(child, n + 1, NONE);
  for (long r = n - 1; r >= 0; --r) {  // lists in ascending order
    sibling[r] = child[parent[r]];
    child[parent[r]] = r;
  }
  for (long p = 0; p < n; ++p) {  // the longest row to the end of its list
    long longest = NONE, before_longest = NONE, end = NONE;
    for (long c = child[p]; c != NONE; c = sibling[c]) {
      if (longest == NONE || count[c] >= count[longest]) {
        before_longest = end;
        longest = c;
      }
      end = c;
    }
    if (longest == end) continue;
    if (before_longest == NONE)
      child[p] = sibling[longest];
    else
      sibling[before_longest] = sibling[longest];
    sibling[longest] = NONE;
    sibling[end] = longest;
  }
  long place = 0;
  for (long r = child[n]; r != NONE && r != n;) {
    if (child[r] != NONE) {  // down, once: the list is used up
      const long down = child[r];
      child[r] = NONE;
      r = down;
      continue;
    }
    post[r] = place++;
    r = sibling[r] != NONE ? sibling[r] : parent[r];
  }
}

void sparse_graph(long n, const long* ja, const long* perm, long* cnt, long* graph, long* node,
                  long* next) {
  order_rows(n, ja, perm, graph);
  find_parents(n, graph, node, next);
  count_rows(n, graph, node, cnt, next);
}

int zslumdg(long n, long maxju, const long* ja, long* iprm, long* perm, long* cnt, long* graph,
            long* node, long* next, int keep) {
  if (n <= 0) return 0;
  if (maxju < 2 * (ja[n] - n - 1) + n + 1) return 1;
  const long field = n + 1;
  QuotientGraph g{};
  g.n = n;
  g.room = maxju;
  g.list = graph;
  g.start = cnt;
  g.length = cnt + field;
  g.elements = cnt + 2 * field;
  g.weight = node;
  g.degree = node + field;
  g.stamp = node + 2 * field;
  g.next = next;
  g.last = next + field;
  g.head = next + 2 * field;
  g.place = iprm;
  load_graph(g, ja);
  start_degrees(g);
  eliminate_all(g);
  number_variables(g, iprm, perm);

  // Postorder, and the tree and the counts in its numbers.
  long *parent = node, *old_parent = node + field, *count = cnt, *old_count = cnt + field;
  order_rows(n, ja, perm, graph);
  find_parents(n, graph, old_parent, next);
  count_rows(n, graph, old_parent, old_count, next);
  long* post = next;
  number_tree(n, old_parent, old_count, post, next + field, next + 2 * field);
  for (long r = 0; r < n; ++r) {
    parent[post[r]] = old_parent[r] < n ? post[old_parent[r]] : n;
    count[post[r]] = old_count[r];
  }
  for (long v = 0; v < n; ++v) {
    perm[v] = post[perm[v]];
    iprm[perm[v]] = v;
  }
  if (keep) order_rows(n, ja, perm, graph);
  return 0;
}

}  // namespace tqnlp
