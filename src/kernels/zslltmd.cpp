// zslltmd: Sparse LL' by Minimum Degree; solves, half solves, products and forms. The triangular
// solves themselves stand in zslltmd_solve.cpp.
//
// Between the order of variables and that of the places b is permuted by way of a copy of fixed
// size or, if it is longer, in place along the cycles of perm, at several places side by side.
// Visited places are marked in a bit field of fixed size; beyond its reach a cycle is followed from
// its least member.
//
//   perm = 2 0 1 3:  b0 -> place 2, b2 -> place 1, b1 -> place 0;  b3 stays      one cycle 0 2 1
//
// A kernel takes no memory, so that a copy serves short vectors alone. A lone walk along a cycle
// waits for memory at every step, because the next address is what it reads; hence the walkers,
// whose loads do not depend on one another.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "kernels/sparse.h"
#include "kernels/sparse_core.h"

namespace tqnlp {

// Places that the bit field of a permutation can mark (64 KB), and entries of a copy (128 KB).
static constexpr long MARKED_PLACES = 1L << 19;
static constexpr long COPIED_PLACES = 1L << 14;

// Walkers that follow the cycles of a permutation side by side: each step waits for memory.
static constexpr int WALKERS = 16;

namespace {

struct Walker {
  long start, at;  // where it set out, where it is
  double carried;  // permute: the value to put down next; unpermute: the one taken up at the start
};

// A walker of sparse_permute puts down what it carries wherever it comes and takes up what was
// there.
struct Carry {
  double* b;
  void begin(Walker& w) const { w.carried = b[w.start]; }
  void step(Walker& w, long to) const { std::swap(w.carried, b[to]); }
  void end(Walker& w, const Walker& next) const { b[next.start] = w.carried; }
};

// A walker of sparse_unpermute fetches the value from the next place to where it stands.
struct Fetch {
  double* b;
  void begin(Walker& w) const { w.carried = b[w.start]; }
  void step(Walker& w, long to) const { b[w.at] = b[to]; }
  void end(Walker& w, const Walker& next) const { b[w.at] = next.carried; }
};

}  // namespace

// Sends the walkers of one round from their starts along perm, each one up to the start of one of
// them: together they cover the cycles of all starts.
template <class Move>
static void walk_round(int count, Walker* walker, const long* perm, std::uint64_t* seen,
                       const Move& move) {
  // Whose turn it is: walkers that have arrived are taken out, the last one fills the gap.
  int active[WALKERS];
  for (int k = 0; k < count; ++k) active[k] = k;
  for (int left = count; left > 0;)
    for (int k = 0; k < left; ++k) {
      Walker& w = walker[active[k]];
      const long to = perm[w.at];
      const std::uint64_t bit = std::uint64_t{1} << (to % 64);
      if (!(seen[to / 64] & bit)) {
        seen[to / 64] |= bit;
        move.step(w, to);
        w.at = to;
        continue;
      }
      // A visited place is a start of this round: every cycle that is under way began with one, and
      // earlier rounds left none half done. What belongs at that start is handed over to it.
      int next = 0;
      while (next + 1 < count && walker[next].start != to) ++next;
      move.end(w, walker[next]);
      active[k--] = active[--left];
    }
}

// Is v the least member of its cycle? Asked without marks, at the price of following the cycle
// until a smaller member shows up.
static bool is_least_of_cycle(const long* perm, long v) {
  long p = perm[v];
  while (p > v) p = perm[p];
  return p == v;
}

// Moves all values along the cycles of perm. Fixed points cost nothing.
template <class Move>
static void walk_cycles(long n, const long* perm, const Move& move) {
  if (n > MARKED_PLACES) {
    for (long v = 0; v < n; ++v) {
      if (perm[v] == v || !is_least_of_cycle(perm, v)) continue;
      Walker w{v, v, 0.0};
      move.begin(w);
      for (long p = perm[v]; p != v; p = perm[p]) {
        move.step(w, p);
        w.at = p;
      }
      move.end(w, w);
    }
    return;
  }
  std::uint64_t seen[MARKED_PLACES / 64];
  std::fill_n(seen, (n + 63) / 64, std::uint64_t{0});
  Walker walker[WALKERS];
  for (long v = 0; v < n;) {
    int count = 0;
    for (; v < n && count < WALKERS; ++v) {
      if (perm[v] == v || (seen[v / 64] >> (v % 64) & 1)) continue;
      seen[v / 64] |= std::uint64_t{1} << (v % 64);
      walker[count] = {v, v, 0.0};
      move.begin(walker[count++]);
    }
    walk_round(count, walker, perm, seen, move);
  }
}

void sparse_permute(long n, const long* perm, double* b) {
  if (n > COPIED_PLACES) return walk_cycles(n, perm, Carry{b});
  double copy[COPIED_PLACES];
  std::copy_n(b, n, copy);
  for (long v = 0; v < n; ++v) b[perm[v]] = copy[v];
}

void sparse_unpermute(long n, const long* perm, double* b) {
  if (n > COPIED_PLACES) return walk_cycles(n, perm, Fetch{b});
  double copy[COPIED_PLACES];
  std::copy_n(b, n, copy);
  for (long v = 0; v < n; ++v) b[v] = copy[perm[v]];
}

// b := L b from the last row, so that each entry is read before it is changed.
static void multiply_lower(long n, const long* ju, const double* u, double* b) {
  for (long r = n - 1; r >= 0; --r) {
    const double x = b[r];
    for (long k = ju[r]; k < ju[r + 1]; ++k) b[ju[k]] += u[k] * x;
    b[r] = u[r] != 0.0 ? x / u[r] : 0.0;
  }
}

// b := U b from the first row, for the same reason. Both divide, since u holds reciprocals of the
// diagonal, and give 0 in the place of a failed row, as the solves do.
static void multiply_upper(long n, const long* ju, const double* u, double* b) {
  for (long r = 0; r < n; ++r) {
    double sum = u[r] != 0.0 ? b[r] / u[r] : 0.0;
    for (long k = ju[r]; k < ju[r + 1]; ++k) sum += u[k] * b[ju[k]];
    b[r] = sum;
  }
}

// Applies one triangular operation in the order that job names: operation works in the order of the
// places, b comes and goes in that of the variables.
static void in_places(int job, long n, const long* perm, const long* ju, const double* u, double* b,
                      void (*operation)(long, const long*, const double*, double*)) {
  if (n <= 0) return;
  const long* order = job == 0 ? perm : job == 1 ? second_places(n, ju) : nullptr;
  if (order) sparse_permute(n, order, b);
  operation(n, ju, u, b);
  if (order) sparse_unpermute(n, order, b);
}

// ---- Entries ------------------------------------------------------------------------------------

static void solve_both(long n, const long* ju, const double* u, double* b) {
  sparse_forward(n, ju, u, b);
  sparse_backward(n, ju, u, b);
}

void zslltso(long n, const long* perm, const long* ju, const double* u, double* b) {
  in_places(0, n, perm, ju, u, b, solve_both);
}

void zsllts2(long n, const long*, const long* jusl, const long*, const double* u, double* b) {
  in_places(1, n, nullptr, jusl, u, b, solve_both);
}

void zslltli(int job, long n, const long* perm, const long* ju, const double* u, double* b) {
  in_places(job, n, perm, ju, u, b, sparse_forward);
}

void zslltui(int job, long n, const long* perm, const long* ju, const double* u, double* b) {
  in_places(job, n, perm, ju, u, b, sparse_backward);
}

void zslltml(int job, long n, const long* perm, const long* ju, const double* u, double* b) {
  in_places(job, n, perm, ju, u, b, multiply_lower);
}

void zslltmu(int job, long n, const long* perm, const long* ju, const double* u, double* b) {
  in_places(job, n, perm, ju, u, b, multiply_upper);
}

// One pass over the elements: each serves (i,j) and (j,i). x[i] may wait in a register meanwhile,
// as no position of row i holds column i.
void zslltma(long n, const long* ja, const double* a, const double* b, double* x) {
  for (long i = 0; i < n; ++i) x[i] = a[i] * b[i];
  for (long i = 0; i < n; ++i) {
    double sum = x[i];
    for (long k = ja[i]; k < ja[i + 1]; ++k) {
      const long j = ja[k];
      sum += a[k] * b[j];
      x[j] += a[k] * b[i];
    }
    x[i] = sum;
  }
}

// The elements beside the diagonal are summed apart, so that they are doubled once.
double zslltqf(long n, const long* ja, const double* a, const double* b) {
  double diagonal = 0.0, beside = 0.0;
  for (long i = 0; i < n; ++i) {
    double sum = 0.0;
    for (long k = ja[i]; k < ja[i + 1]; ++k) sum += a[k] * b[ja[k]];
    beside += sum * b[i];
    diagonal += a[i] * b[i] * b[i];
  }
  return diagonal + 2.0 * beside;
}

double zslltre(long n, const long* ja, const double* a, const double* x, const double* b,
               double* r) {
  zslltma(n, ja, a, x, r);
  double largest = 0.0;
  for (long i = 0; i < n; ++i) {
    r[i] = b[i] - r[i];
    // A NaN is not below anything, and stays.
    if (!(std::fabs(r[i]) <= largest) && !std::isnan(largest)) largest = std::fabs(r[i]);
  }
  return largest;
}

}  // namespace tqnlp
