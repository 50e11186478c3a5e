// znlpba0, matrices: the projected Hessian Z'HZ and the measure of the gradient in its metric, the
// scale vector dsca with the scaled Newton system, and the start of a quasi-Newton matrix.
//
// Reduction, scaling and factorization of a Newton or quasi-Newton matrix in the null space of the
// active constraints: Gill, Murray and Wright, Practical Optimization (1981), sections 5.1 and 5.2.
// The rules that update the scale are those of scaled trust regions, More (1978), in Numerical
// Analysis, Lecture Notes in Mathematics 630.
//
// Work: work and a target that is written later (n each) for the projections; the tail of llcn
// behind the rows of the active constraints holds a projected matrix while it replaces its own
// source. It has room: the packed sizes of nalc and of nzmm together never exceed that of n.

#include <algorithm>
#include <cmath>

#include "aasubs/constraints/znlpba0.h"
#include "host/log.h"
#include "host/process.h"
#include "kernels/dense.h"
#include "kernels/sparse.h"
#include "kernels/vector.h"

namespace tqnlp {

// Smallest scale of a parameter, and smallest gradient that sizes a start matrix.
static constexpr double SMALLEST_SCALE = 1.053671212772351e-08;
// Curvature of a start matrix as a share of the largest gradient element, and its limits.
static constexpr double GRADIENT_TO_CURVATURE = 0.2;
static constexpr double SMALLEST_CURVATURE = 0.01;
static constexpr double LARGEST_CURVATURE = 100.0;
// Share of its old value that a scale keeps under the forgetful rule.
static constexpr double SCALE_MEMORY = 0.6;

static constexpr int FACTOR_FORM = 2;  // job of znlphpr: hess holds a Cholesky factor

// ---- Projection ---------------------------------------------------------------------------------

// Matrix from its packed lower factor, in place: M := L L'. Rows from the last, and in a row from
// the diagonal to the left, so that no element is needed after it was replaced.
static void multiply_out(long n, double* matrix) {
  for (long i = n - 1; i >= 0; --i) {
    double* row = matrix + packed_size(i);
    for (long j = i; j >= 0; --j) row[j] = zvdot11(j + 1, row, matrix + packed_size(j));
  }
}

// Z'HZ in the full frame. A result in the place of its own source goes through the tail of llcn.
static void reduce_by_basis(MINSTR* str, int hfrm, const double* sym, double* res, double* spare) {
  const long order = reduced_dimension(str);
  double* target = res == sym ? str->llcn + packed_size(str->nalc) : res;
  znlpred(hfrm, str->nvar, free_count(str), order, str->nvar, str->ifxr, sym, str->qlcn, target,
          str->work, spare);
  if (res == sym) {
    std::copy_n(target, packed_size(order), res);
    vzfdl(0.0, target, packed_size(order));
  }
}

static bool is_identity(long n, const long* index) {
  for (long k = 0; k < n; ++k) {
    if (index[k] != k) return false;
  }
  return true;
}

// Diagonal matrix on the free parameters, in place or not: a vector without linear constraints,
// packed with them, because every user of that frame goes on with a packed matrix.
static void reduce_diagonal(MINSTR* str, const double* sym, double* res) {
  const long free = free_count(str);
  for (long k = 0; k < free; ++k) str->work[k] = sym[str->ifxr[k]];
  if (str->lincon == 0) {
    std::copy_n(str->work, free, res);
    return;
  }
  vzfdl(0.0, res, packed_size(free));
  for (long k = 0; k < free; ++k) res[zisub(k, k)] = str->work[k];
}

// Z'HZ in any frame; spare: n doubles.
static void reduce_matrix(MINSTR* str, Frame frame, int iqid, int hfrm, double* sym, double* res,
                          double* spare) {
  const long n = str->nvar;
  const bool diagonal = hfrm == 2;
  if (frame == Frame::full) {
    reduce_by_basis(str, hfrm, sym, res, spare);
  } else if (frame == Frame::identity) {
    if (res != sym) std::copy_n(sym, diagonal ? n : packed_size(n), res);
  } else if (diagonal) {
    reduce_diagonal(str, sym, res);
  } else if (iqid != 0 && str->nabc == 0 && is_identity(n, str->ifxr)) {
    if (res != sym) std::copy_n(sym, packed_size(n), res);
  } else {
    znlpre2(hfrm, n, free_count(str), str->ifxr, sym, res, str->work, spare);
  }
}

// With bounds a sparse matrix is condensed to the pattern of the free parameters, also when all are
// free: the second pattern is the one that the factorization then works with.
static bool sparse_is_condensed(const MINSTR* str) {
  return str->bounds != 0 && str->shes.jasl != nullptr && str->shes.jusl != nullptr;
}

// A matrix that takes its own place is made in str->hpro first, which is there for that. What lies
// behind its last element is cleared.
static void reduce_sparse(MINSTR* str, const double* hess, double* hpro) {
  const long n = str->nvar;
  const SPAR& pattern = str->shes;
  if (!sparse_is_condensed(str)) {
    if (hpro != hess && hpro != nullptr) std::copy_n(hess, pattern.mxja, hpro);
    return;
  }
  double* target = hpro == hess || hpro == nullptr ? str->hpro : hpro;
  if (target == nullptr) xexit(EXIT_INCONSISTENT, 0);
  long* position = str->iwk;
  std::fill_n(position, n, -1L);
  for (long k = 0; k < free_count(str); ++k) position[str->ifxr[k]] = k;
  const long order = zslltiu(pattern.jasl, pattern.jusl, position, n, pattern.jasp, pattern.jusp,
                             pattern.perm, pattern.iprm, pattern.mxju, hess, target);
  if (order < 0) xexit(EXIT_INCONSISTENT, 0);
  const long length = pattern.jasl[order];
  target[order] = 0.0;
  vzfdl(0.0, target + length, pattern.mxja - length);
  if (hpro == hess) std::copy_n(target, pattern.mxja, hpro);
}

// H from its factor: L L', or the squares of a diagonal of roots.
static void restore_matrix(long n, int hfrm, const double* factor, double* matrix) {
  if (matrix != factor) std::copy_n(factor, hfrm == 2 ? n : packed_size(n), matrix);
  if (hfrm == 2) {
    for (long j = 0; j < n; ++j) matrix[j] *= matrix[j];
  } else {
    multiply_out(n, matrix);
  }
}

void znlphpr(MINSTR* str, int job, int iqid, int hfrm, double* gpro, double* hess, double* hpro) {
  if (reduced_dimension(str) < 1) return;
  if (hfrm == 1) {
    reduce_sparse(str, hess, hpro);
  } else {
    double* source = hess;
    if (job == FACTOR_FORM) {
      restore_matrix(str->nvar, hfrm, hess, hpro);
      source = hpro;
    }
    // gpro is free until the gradient is projected, and serves as scratch.
    reduce_matrix(str, frame_of(str), iqid, hfrm, source, hpro, gpro);
  }
  znlpgcs(str, gpro);
}

// Diagonal element k of the reduced matrix that znlphpr left in hpro.
static double reduced_diagonal(const MINSTR* str, int hfrm, const double* hpro, long k) {
  if (hfrm == 1) {
    const bool by_position = str->bounds == 0 || sparse_is_condensed(str);
    return hpro[by_position ? k : str->ifxr[k]];
  }
  return hfrm == 2 && str->lincon == 0 ? hpro[k] : hpro[zisub(k, k)];
}

void znlphgp(MINSTR* str, int job, int hfrm, double* gpro, double* hess, double* hpro) {
  if (free_count(str) == 0) {
    str->gcri = str->gmax = 0.0;
    return;
  }
  znlphpr(str, job, 0, hfrm, gpro, hess, hpro);
  znlpgmx(str, 1, gpro);
  if (str->tech == QUADAS) return;
  const double* matrix = hpro;
  if (hpro == nullptr) matrix = sparse_is_condensed(str) ? str->hpro : hess;
  str->gcri = 0.0;
  // A missing crit, and curvature that vanishes against it, leave the measure at 0.
  for (long k = 0; k < reduced_dimension(str); ++k) {
    const double curvature = reduced_diagonal(str, hfrm, matrix, k);
    const double product = std::fabs(curvature * str->crit);
    if (!(curvature > 0.0 && product > TINY)) continue;
    str->gcri = std::max(str->gcri, std::fabs(gpro[k]) / std::sqrt(product));
  }
}

// ---- Scale --------------------------------------------------------------------------------------

static double scale_from_curvature(double curvature) {
  return std::max(std::sqrt(std::fabs(curvature)), SMALLEST_SCALE);
}

void znlphsc(MINSTR* str, int hfrm, long n, double* hpro) {
  const bool fresh = str->itre == 0 || (str->lincon != 0 && str->chac != 0);
  for (long i = 0; i < n; ++i) {
    const double curvature = hfrm == 1 || hfrm == 2 ? hpro[i] : hpro[zisub(i, i)];
    const double scale = scale_from_curvature(curvature);
    double& kept = str->dsca[i];
    if (str->null != 0) {
      // A singular or indefinite matrix gives no trustworthy scale.
      kept = 1.0;
    } else if (fresh) {
      kept = str->hesc != 0 ? scale : 1.0;
    } else if (str->hesc == 1) {
      kept = std::max(scale, kept);
    } else if (str->hesc == 2) {
      kept = std::max(scale, SCALE_MEMORY * kept);
    } else if (str->hesc == 3) {
      kept = scale;
    }
  }
}

// Sparse values in their pattern: that of the free parameters with bounds, else of all.
static void scale_sparse(const MINSTR* str, double* values) {
  const bool condensed = sparse_is_condensed(str);
  const long* ja = condensed ? str->shes.jasl : str->shes.jasp;
  const long order = condensed ? free_count(str) : str->nvar;
  for (long i = 0; i < order; ++i) {
    const double scale = condensed ? component_scale(str, i) : str->dsca[i];
    values[i] /= scale * scale;
    for (long p = ja[i]; p < ja[i + 1]; ++p) {
      values[p] /= scale * (condensed ? component_scale(str, ja[p]) : str->dsca[ja[p]]);
    }
  }
}

// D^-1 H D^-1 for the reduced matrix in its form.
static void scale_matrix(const MINSTR* str, int hfrm, double* matrix) {
  const long order = reduced_dimension(str);
  if (hfrm == 1) {
    scale_sparse(str, matrix);
    return;
  }
  for (long i = 0; i < order; ++i) {
    const double scale = component_scale(str, i);
    if (hfrm == 2 && str->lincon == 0) {
      matrix[i] /= scale * scale;
      continue;
    }
    double* row = matrix + packed_size(i);
    for (long j = 0; j <= i; ++j) row[j] /= scale * component_scale(str, j);
  }
}

double znlphs2(MINSTR* str, int hfrm, double* spro) {
  const long order = reduced_dimension(str);
  if (order < 1) return 0.0;
  const bool linear = str->lincon != 0;
  for (long k = 0; k < order; ++k) {
    const double g = linear             ? str->gpro[k]
                     : str->bounds != 0 ? str->grad[str->ifxr[k]]
                                        : str->grad[k];
    spro[k] = str->hesc != 0 ? -g / component_scale(str, k) : -g;
  }
  if (str->hesc != 0) scale_matrix(str, hfrm, linear ? str->hpro : str->hess);
  return zvenorm(order, 1, spro);
}

// ---- Start of a matrix --------------------------------------------------------------------------

// Curvature of a multiple of the identity, sized by the gradient when no multiple is given. The
// largest element counts: a start matrix that is too flat costs more than one that is too steep.
static double start_curvature(const MINSTR* str) {
  if (!wzmis(str->dhes)) return str->dhes;
  double largest = SMALLEST_SCALE;
  for (long j = 0; j < str->nvar; ++j) largest = std::max(largest, std::fabs(str->grad[j]));
  return std::clamp(GRADIENT_TO_CURVATURE * largest, SMALLEST_CURVATURE, LARGEST_CURVATURE);
}

static void start_matrix(MINSTR* str, int load, double* hess) {
  const long n = str->nvar;
  if (load == 0) {
    vzfdl(0.0, hess, packed_size(n));
    const double curvature = start_curvature(str) + str->ridg;
    for (long i = 0; i < n; ++i) hess[zisub(i, i)] = curvature;
  } else if (str->ridg > 0.0) {
    for (long i = 0; i < n; ++i) hess[zisub(i, i)] += str->ridg;
  }
}

// Is a matrix that is known to be diagonal a multiple of the identity?
static bool is_scalar(long n, const double* hess) {
  for (long i = 1; i < n; ++i) {
    if (hess[zisub(i, i)] != hess[0]) return false;
  }
  return true;
}

// Z'HZ in place. A multiple of the identity keeps its value exactly in every frame.
static void reduce_start_matrix(MINSTR* str, int load, double* hess) {
  const long order = reduced_dimension(str);
  if (load == 0 && is_scalar(str->nvar, hess)) {
    const double curvature = hess[0];
    vzfdl(0.0, hess, packed_size(order));
    for (long i = 0; i < order; ++i) hess[zisub(i, i)] = curvature;
    return;
  }
  reduce_matrix(str, frame_of(str), 0, 0, hess, hess, str->sdir);
}

// Factor or inverse of a diagonal packed matrix; 1 when a pivot is not positive (factor) or is
// nothing (inverse).
static int factor_diagonal(bool inverse, int chol, long order, double* hess) {
  for (long i = 0; i < order; ++i) {
    double& cell = hess[zisub(i, i)];
    if (inverse) {
      if (!(cell >= TINY)) return 1;
      cell = 1.0 / cell;
    } else {
      if (!(cell > 0.0)) return 1;
      if (chol == 2) cell = std::sqrt(cell);
    }
  }
  return 0;
}

static int project_and_factor(MINSTR* str, int load, int hesc, int chol, double* hess) {
  const long order = reduced_dimension(str);
  // Without linear constraints a scale belongs to a parameter, with them to a reduced component.
  const bool by_parameter = str->lincon == 0;
  // They are taken from the matrix before it is factored: a factor has another diagonal.
  if (hesc != 0 && by_parameter) {
    for (long j = 0; j < str->nvar; ++j) str->dsca[j] = scale_from_curvature(hess[zisub(j, j)]);
  }
  reduce_start_matrix(str, load, hess);
  if (hesc != 0 && !by_parameter) {
    for (long k = 0; k < order; ++k) str->dsca[k] = scale_from_curvature(hess[zisub(k, k)]);
  }
  if (chol == 0) return 0;
  // The form follows the technique: the update of technique 10 acts on the inverse, those of the
  // others on LDL' (without constraints) or LL'.
  const bool inverse = str->tech == QUANEW;
  if (load == 0 && frame_of(str) != Frame::full) {
    return factor_diagonal(inverse, chol, order, hess);
  }
  if (inverse) return znlpcin(str, 2, order, str->sing, hess, hess, str->work);
  double logdet = 0.0;
  return static_cast<int>(znlpcde(str, chol, order, str->sing, &logdet, hess, hess, str->work));
}

int znlphin(MINSTR* str, int job, int load, int hesc, int chol, double* hess) {
  if (chol > 2) {
    xpslog(" ***ZNLPHIN: wrong chol parameter");
    xexit(EXIT_INCONSISTENT, 0);
  }
  if (job != 2) {
    start_matrix(str, load, hess);
    return 0;
  }
  return reduced_dimension(str) < 1 ? 0 : project_and_factor(str, load, hesc, chol, hess);
}

}  // namespace tqnlp
