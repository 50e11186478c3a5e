// The form of a Hessian, and the inverse for covariances. That runs in the sparse form are those in
// the packed one is tested with whole calls.
#include <gtest/gtest.h>

#include "aasubs/constraints/znlpba0.h"
#include "aasubs/post/zcovinv.h"
#include "aasubs/post/znlpspm.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "host/memory.h"
#include "kernels/dense.h"
#include "kernels/matrices.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// Packed matrix of a grid of m x m points with a varying diagonal, which is heavy enough for it to
// be positive definite.
Vec grid(long m) {
  Vec packed(packed_size(m * m));
  const Vec more = random_vector(m * m, 3);
  for (long v = 0; v < m * m; ++v) {
    packed[zisub(v, v)] = 5.5 + more[v];
    if (v % m != 0) packed[zisub(v, v - 1)] = -1.0 - 0.01 * static_cast<double>(v % 7);
    if (v >= m) packed[zisub(v, v - m)] = -1.25;
  }
  return packed;
}

// Its elements as triples, one in two above the diagonal, in a scattered order; twice: all of them
// in both triangles.
Vec triples_of(long n, const Vec& packed, bool twice = false) {
  Vec triples;
  for (long k : random_order(packed_size(n), 5)) {
    const long i = static_cast<long>((std::sqrt(8.0 * static_cast<double>(k) + 1.0) - 1.0) / 2.0);
    const long j = k - packed_size(i);
    if (packed[k] == 0.0) continue;
    const double row = static_cast<double>(i + 1), column = static_cast<double>(j + 1);
    if (k % 2 == 0 || twice) triples.insert(triples.end(), {row, column, packed[k]});
    if (k % 2 != 0 || twice) triples.insert(triples.end(), {column, row, packed[k]});
  }
  return triples;
}

struct SparseRecord : TestRecord {
  Session session;
  embed::Activation activation{session.task()};
  Vec input;

  explicit SparseRecord(long n) : TestRecord(n, 3) {
    ratio = 0.5;
    ddif = 1e-6;
  }
  ~SparseRecord() {
    release_pattern(&shes);
    vmfree_handler(kept_);
  }
  // znlpspm, with the values in a block of the host.
  int choose(int ifrm, Vec with, int jfac = 0) {
    input = std::move(with);
    hess = input.data();
    const int code = znlpspm(this, jfac, 1, ifrm, static_cast<long>(input.size() / 3));
    if (code == 0) {
      vmfree_handler(kept_);
      kept_ = hess;
    }
    return code;
  }

 private:
  double* kept_ = nullptr;
};

TEST(SparseForm, IsChosenWhereItIsSmaller) {
  constexpr long N = 100;
  const Vec sparse = grid(10);
  Vec indefinite = sparse, zeros = sparse, small{4, 1, 4};
  indefinite[0] = -1.0;
  for (long i = 0; i < N; ++i)
    for (long j = 0; j < i; ++j) zeros[zisub(i, j)] = sparse[zisub(i, j)] == 0.0 ? MISSING : 1e-160;
  Vec places = triples_of(N, sparse);
  for (std::size_t k = 0; k < places.size(); k += 3)
    if (places[k] != places[k + 1]) places[k + 2] = 0.0;
  const Vec bad{1, 1, 4, 2, 2, 5, 101, 2, 1};
  const struct {
    const char* name;
    long n;
    int ifrm;
    Vec input;
    double ratio;
    int code, form;
  } rows[] = {
      {"sparse", N, SPM_PACKED, sparse, 0.5, 0, 1},
      {"linear constraints", N, SPM_PACKED, sparse, 0.0, 0, 0},
      {"test factor fails", N, SPM_PACKED, indefinite, 0.5, 0, 0},
      {"random, no zeros", N, SPM_PACKED, random_vector(packed_size(N), 1), 0.5, 0, 0},
      {"small", 2, SPM_PACKED, small, 0.5, 0, 0},
      {"small, at any price", 2, SPM_PACKED, small, 2.0, 0, 1},
      {"nothing off the diagonal", N, SPM_PACKED, zeros, 0.0, 0, 2},
      {"zeros that may change", N, SPM_PLACES, places, 0.5, 0, 1},
      {"zeros that stay", N, SPM_TRIPLES, places, 0.5, 0, 2},
      {"index out of range", N, SPM_TRIPLES, bad, 0.5, 3, 0},
      {"two values", N, SPM_TRIPLES, {2, 1, 1, 1, 2, 1.001}, 0.5, -2, 0},
      {"nearly the same", N, SPM_TRIPLES, {2, 1, 1, 1, 2, 1.0000001, 1, 2, 1}, 0.5, 0, 1},
      {"a row left out", N, SPM_PLACES, {7, 7, 1, MISSING, 0, MISSING}, 0.5, 0, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SparseRecord r(row.n);
    r.ratio = row.ratio;
    EXPECT_EQ(r.choose(row.ifrm, row.input, row.ifrm == SPM_PACKED), row.code);
    EXPECT_EQ(r.hfrm, row.form);
    EXPECT_EQ(r.shes.jasp != nullptr, row.form == 1);
    if (row.form == 0 && row.code == 0) {
      EXPECT_EQ(row.input, Vec(r.hess, r.hess + packed_size(row.n)));
    }
  }
  // Whatever request is refused, no pattern is left.
  SparseRecord r(N);
  r.bounds = 1;
  embed::Task& task = r.session.task();
  bool met = true;
  for (long k = 0; met; ++k) {
    ASSERT_LT(k, 20);
    embed::plan_fault(task, embed::Fault::allocation, k);
    const int code = r.choose(SPM_TRIPLES, triples_of(N, sparse), 1);
    met = !embed::fault_pending(task, embed::Fault::allocation);
    embed::clear_faults(task);
    EXPECT_EQ(code, met ? -1 : 0) << k;
    EXPECT_EQ(r.shes.jasp == nullptr, met) << k;
  }
}

// ---- Inverse for covariances --------------------------------------------------------------------

// A G A = A, and G is symmetric of the rank of A; the counts are those of the eigenvalues.
TEST(CovarianceInverse, DefiniteIndefiniteSingularDiagonal) {
  for (long n : {1, 2, 5, 30})
    for (const double spread : {1.0, 1e40, 1e-40})  // sizes of the variables
      for (const char* kind : {"definite", "indefinite", "singular", "zero"}) {
        SCOPED_TRACE(testing::Message() << kind << " " << n << " " << spread);
        const bool singular = *kind == 's' || *kind == 'z';
        const long rank = *kind == 'z' ? 0 : (singular ? n - 1 : n);
        const Dense b = random_dense(n, rank, 4);
        Dense a = b * transpose(b);
        if (*kind == 'i')
          for (long i = 0; i < n; ++i)
            a(i, i) += (i % 2 == 0 ? -2.0 : 2.0) * static_cast<double>(n);
        Vec packed(packed_size(n)), det(5), scales(n), work(n);
        Longs pivots(n);
        const auto size = [spread](long i) { return i % 3 == 0 ? spread : 1.0; };
        for (long i = 0; i < n; ++i)
          for (long j = 0; j <= i; ++j) packed[zisub(i, j)] = a(i, j) * size(i) * size(j);
        const Vec given = packed;
        const auto invert = [&](int job) {
          packed = given;
          return run(zcovinv, job, 0, n, MISSING, MISSING, 1e-9, packed, det, scales, work, pivots);
        };
        EXPECT_EQ(invert(1), singular ? -1 : 0);
        ASSERT_EQ(invert(0), 0);
        EXPECT_EQ(det[4], static_cast<double>(n - rank));
        EXPECT_EQ(det[3], *kind == 'i' ? static_cast<double>((n + 1) / 2) : 0.0);
        EXPECT_EQ(det[0] == 0.0, singular);
        const Dense g(n, n,
                      [&](long i, long j) { return packed[zisub(i, j)] * size(i) * size(j); });
        const Dense back = a * g * a;
        for (long i = 0; i < n; ++i)
          for (long j = 0; j < n; ++j) EXPECT_NEAR(back(i, j), a(i, j), 1e-9);
      }
  // Limits: the pivots are 1 and 1e-6.
  const struct {
    double asin, msin, vsin;
    int zeros;
  } limits[] = {{0, 0, 0, 0}, {1e-5, 0, 0, 1}, {0, 1e-5, 0, 1}, {0, 0, 1e-5, 0}, {2, 0, 0, 2}};
  for (int cfrm : {0, 2})
    for (const auto& limit : limits) {
      Vec matrix = cfrm == 2 ? Vec{1e-6, -1} : Vec{1e-6, 0, -1}, det(5), scales(2), work(2);
      Longs pivots(2);
      EXPECT_EQ(run(zcovinv, 0, cfrm, 2, limit.asin, limit.msin, limit.vsin, matrix, det, scales,
                    work, pivots),
                0);
      EXPECT_EQ(det[4], limit.zeros);
      EXPECT_DOUBLE_EQ(matrix[0], limit.zeros == 0 ? 1e6 : 0.0);
      EXPECT_EQ(matrix.back(), limit.zeros == 2 ? 0.0 : -1.0);
      if (limit.zeros == 0) {
        EXPECT_NEAR(det[0] * std::pow(10.0, det[1]), -1e-6, 1e-20);
      }
      matrix[0] = std::nan("");
      EXPECT_EQ(run(zcovinv, 0, cfrm, 2, 0.0, 0.0, 0.0, matrix, det, scales, work, pivots), -1);
    }
}

}  // namespace
}  // namespace tqnlp::test
