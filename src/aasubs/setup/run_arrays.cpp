// The arrays of a run. The table below is the one list of them: a row holds the field, the
// number of elements (0: this run has no such array) and, for a block that holds several arrays,
// the step that sets the references into it.
//
// With nonlinear constraints every size is that of a problem with one more parameter: the quadratic
// subproblem carries a slack.
//
// Blocks (m functions, N coefficients of linear constraints, w = max(n, general constraints)):
//
//   det    5 | x n | work n | grad n | xold n | gold n | sdir n
//   func   m or 1 | fold m or 1 | two more of m for a line search that keeps them
//   hfwd   n | hcnt n                     lb     n | ub n
//   alcn   N | blcn ncon                  naco   ncon | jalc N
//   gpro   n | lagm n | dcds 2n | awrk n | qlcn n x n | llcn packed n; in the range-space frame
//          of r rows qlcn r x n (none when they stand in a file) | llcn r
//   iact   w | liwk w                     fcon   nnlc | jcon nnlc x n
//   qvec   n | product of a quadratic's matrix n
//
// One piece of memory for what is always taken together means fewer refusals to handle; the price
// is that only the first field of a block may be given back.
#include "aasubs/setup/run_arrays.h"

#include <algorithm>
#include <limits>
#include <type_traits>
#include <variant>

#include "aasubs/constraints/znlpftr.h"
#include "aasubs/direct/simplex.h"
#include "aasubs/direct/znlpcob.h"
#include "aasubs/post/znlpspm.h"
#include "aasubs/quadratic/znlpqas_factor.h"
#include "aasubs/setup/derivative_choice.h"
#include "aasubs/setup/hessian_form.h"
#include "aasubs/sqp/vmcstr.h"
#include "host/files.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"

namespace tqnlp {

namespace {

// What sizes depend on.
struct Sizes {
  const MINSTR* str;
  long n;       // order of the arrays
  long packed;  // packed size of that order
  const ArrayRequest& request;
  bool bounds;
  bool linear;
  bool nonlinear;
};

}  // namespace

// Does the run work in the frame of general constraints? One that asks for it without any still
// needs the frame's arrays.
static bool general(const Sizes& s) {
  return s.linear || s.nonlinear || s.str->opro != 0 || is_barrier(s.str);
}

// Only a run that may optimize has a technique; NLPFEA and NLPFDD have none.
static bool has_technique(const Sizes& s) { return s.str->tech != 0; }

// Without a technique: does the call ask for a Hessian by differences (NLPFDD of one function)?
static bool wants_hessian(const Sizes& s) { return fidi_digit(s.str->fidi, DIGIT_HESSIAN) != 0; }

// The techniques that work with a Hessian: TRUREG, NEWRAP, NRRIDG.
static bool second_order(const Sizes& s) { return s.str->tech >= 2 && s.str->tech <= 4; }

static constexpr int QUADRATIC_SEARCH = 12;  // line search of least squares that keeps func apart

static constexpr long DETERMINANT = 5;  // doubles at the head of the block det
static constexpr long VECTORS_BEHIND_DET = 6;
static constexpr long TERMINATION_COUNTS = 30;

// Length of the second work vector without nonlinear constraints: what the techniques say in their
// headers. A technique whose need grows must grow here too.
static long technique_work(const MINSTR* str, long n, bool jacobian_supplied) {
  switch (str->tech) {
    case TRUREG:
      return 6 * n;
    case NEWRAP:
      return 2 * n;
    case NRRIDG:
      return 6 * n;
    case GAUNEW:
      return 2 * n;
    case LEVMAR:
      return std::max(7 * n, jacobian_supplied ? str->mequ : 0);
    case DBLDOG:
      return 7 * n;
    case QUANEW:
    case QUANEW_DUAL:
      return n;
    case HYQUAN:
      return std::max(3 * n, jacobian_supplied ? str->mequ : 0);
    case CONGRA:
      return str->tupd < 2 ? 3 * n : n;
    case NMSIMP:
    case NMSIM2:
      return simplex_work(n);
    case QUADAS:
      return QUADAS_WORK * n;
    default:
      return 0;
  }
}

// NMSIMP with constraints is COBYLA, whose arrays are those of a simplex.
static bool linear_models(const Sizes& s) { return s.nonlinear && s.str->tech == NMSIMP; }

// With nonlinear constraints wrk2 holds the quadratic subproblem's matrix and vectors.
static long work_length(const Sizes& s) {
  if (!s.nonlinear) return technique_work(s.str, s.n, s.request.jacobian_supplied);
  if (linear_models(s)) return cobyla_work(s.str->nvar, s.str->ntco);
  return sqp_work(s.str->nvar, s.str->nnlc + s.str->ncon, s.bounds);
}

// func and, behind it, fold; the quadratic line search keeps two more copies.
static long function_values(const Sizes& s) {
  if (s.str->lsqu == 0) return 2;
  const bool search_keeps =
      s.str->tech == GAUNEW || (s.str->tech == HYQUAN && s.str->tlin == QUADRATIC_SEARCH);
  return (search_keeps ? 4 : 2) * s.str->mequ;
}

// wfid: saved function values and one column of differences.
static long difference_work(const Sizes& s) {
  if (s.str->fidi == 0) return 0;
  if (s.str->lsqu != 0) return std::max(2 * s.str->mequ, s.str->mequ + s.n);
  return std::max(2L, s.n + 1);
}

// ---- Matrices of a Hessian ----------------------------------------------------------------------

// Is a matrix left as it is by the form hfrm? With linear constraints the reduced one is packed,
// but the range-space frame does not reduce.
static bool keeps_form(const Sizes& s) {
  return s.str->hfrm != 0 && (!s.linear || is_barrier(s.str));
}

static long hess_length(const Sizes& s) {
  const bool none = s.str->tech == CONGRA || is_simplex(s.str->tech);
  const bool used = has_technique(s) ? !none : wants_hessian(s);
  if (!used || matrix_in_file(s.str, s.request.triples)) return 0;
  return s.str->hfrm == 0 ? s.packed : hessian_length(s.str);
}

// A factor in the form of the matrix that it belongs to, other than packed.
static long factor_length(const MINSTR* str) { return str->hfrm == 1 ? str->shes.mxju : str->nvar; }

// The Hessian of the Lagrangian and its companions; for TRUREG and NEWRAP the factor and two copies
// of the matrix, of which the sparse form needs the factor alone.
static long half_length(const Sizes& s) {
  if (s.str->tech == HYQUAN) return s.packed;
  if (s.str->tech == QUADAS) return keeps_form(s) ? factor_length(s.str) : s.packed;
  const bool second_copy = s.str->tech == TRUREG || s.str->tech == NEWRAP;
  if (!s.nonlinear && !second_copy) return 0;
  if (!keeps_form(s)) return 3 * s.packed;
  return s.str->hfrm == 1 ? s.str->shes.mxju : 3 * s.n;
}

// The projected Hessian; in the sparse form the room in which the free parameters' part is made, in
// the diagonal form that of the test for negative curvature.
static long hpro_length(const Sizes& s) {
  if (s.str->tech == LEVMAR) return s.linear ? s.packed : 0;
  if (s.str->tech == HYQUAN) return keeps_form(s) ? s.n : s.packed;
  if (is_barrier(s.str)) return 0;
  if (s.str->tech == QUADAS) return s.str->hfrm == 1 && s.bounds ? hessian_length(s.str) : 0;
  if (!second_order(s)) return 0;
  if (keeps_form(s)) return s.str->hfrm == 2 || s.bounds ? hessian_length(s.str) : 0;
  return s.str->tech == NRRIDG || s.linear ? s.packed : 0;
}

// ---- The range-space frame ----------------------------------------------------------------------

// What is larger than this goes to a work file. A debug option sends everything there.
static constexpr double MOST_BYTES = 1073741824.0;

static bool goes_to_file(double doubles) {
  return doubles * sizeof(double) > MOST_BYTES || zbugi("-nlpworkfiles") != 0;
}

// A packed matrix is read row by row; the sparse forms are small beside their factor.
bool matrix_in_file(const MINSTR* str, bool triples) {
  const bool by_matrix = is_barrier(str) && str->hfrm == 0 && !triples;
  return by_matrix && goes_to_file(static_cast<double>(str->nnva));
}

static long rows_of_frame(const Sizes& s) { return frame_rows(s.n, s.str->ncon); }

static bool rows_in_file(const Sizes& s) {
  return goes_to_file(static_cast<double>(s.n) * static_cast<double>(rows_of_frame(s)));
}

static long row_room(const Sizes& s) { return rows_in_file(s) ? 0 : s.n * rows_of_frame(s); }

static long frame_room(const Sizes& s) {
  if (is_barrier(s.str)) return 5 * s.n + row_room(s) + rows_of_frame(s);
  return general(s) ? s.n * (s.n + 5) + s.packed : 0;
}

// ---- Blocks that hold several arrays ------------------------------------------------------------

static void divide_det(MINSTR* str, const Sizes& s) {
  str->x = str->det + DETERMINANT;
  str->work = str->x + s.n;
  str->grad = str->work + s.n;
  str->xold = str->grad + s.n;
  str->gold = str->xold + s.n;
  str->sdir = str->gold + s.n;
}

static void divide_func(MINSTR* str, const Sizes& s) {
  str->fold = str->func + (s.str->lsqu != 0 ? s.str->mequ : 1);
}

static void divide_intervals(MINSTR* str, const Sizes& s) { str->hcnt = str->hfwd + s.n; }

static void divide_bounds(MINSTR* str, const Sizes& s) { str->ub = str->lb + s.n; }

static void divide_alcn(MINSTR* str, const Sizes& s) { str->blcn = str->alcn + s.request.nonzeros; }

static void divide_naco(MINSTR* str, const Sizes& s) { str->jalc = str->naco + s.str->ncon; }

static void divide_gpro(MINSTR* str, const Sizes& s) {
  str->lagm = str->gpro + s.n;
  str->dcds = str->lagm + s.n;
  str->awrk = str->dcds + 2 * s.n;
  str->qlcn = str->awrk + s.n;
  str->llcn = str->qlcn + s.n * s.n;
  if (!is_barrier(str)) return;
  str->llcn = str->qlcn + row_room(s);
  if (rows_in_file(s)) str->qlcn = nullptr;
}

// A working set may hold every constraint, and never needs more than it or n. In a subproblem every
// parameter has both bounds.
static long working_set(const Sizes& s) {
  if (s.nonlinear) return s.str->ncon + s.str->nnlc + 2 * s.n;
  return std::max(s.str->ntco, s.n);
}

static void divide_iact(MINSTR* str, const Sizes& s) { str->liwk = str->iact + working_set(s); }

// Values and their Jacobian; COBYLA keeps the values of all constraints, and a simplex of them.
static long constraint_values(const Sizes& s) {
  return linear_models(s) ? s.str->ntco : s.str->nnlc;
}

static long constraint_length(const Sizes& s) {
  if (!s.nonlinear) return 0;
  if (linear_models(s)) return constraint_values(s) + cobyla_values(s.str->nvar, s.str->ntco);
  return (s.n + 1) * s.str->nnlc;
}

static void divide_fcon(MINSTR* str, const Sizes& s) {
  str->jcon = str->fcon + constraint_values(s);
}

static void mark_hess(MINSTR* str, const Sizes&) { str->hesalo = 1; }
static void mark_hpro(MINSTR* str, const Sizes&) { str->hpralo = 1; }
static void mark_half(MINSTR* str, const Sizes&) { str->hlfalo = 1; }

static void start_permutation(MINSTR* str, const Sizes& s) {
  for (long j = 0; j < s.n; ++j) str->ifxr[j] = j;
}

// ---- The table ----------------------------------------------------------------------------------

namespace {

using Field =
    std::variant<double * MINSTR::*, long * MINSTR::*, int * MINSTR::*, short * MINSTR::*>;

struct RunArray {
  Field field;
  long (*count)(const Sizes& s);                // elements; 0: not in this run
  void (*divide)(MINSTR* str, const Sizes& s);  // what follows once it is there; or null
};

}  // namespace

// In the order of allocation and of release. A new array of the record needs a row here, and its
// reference, if it lies in a block, a line in release_arrays.
static constexpr RunArray ARRAYS[] = {
    {&MINSTR::toln, [](const Sizes& s) { return has_technique(s) ? TERMINATION_COUNTS : 0; },
     nullptr},
    {&MINSTR::det, [](const Sizes& s) { return VECTORS_BEHIND_DET * s.n + DETERMINANT; },
     divide_det},
    {&MINSTR::func, function_values, divide_func},
    {&MINSTR::ipiv, [](const Sizes& s) { return s.n; }, nullptr},
    {&MINSTR::iwk, [](const Sizes& s) { return (s.nonlinear ? 3 : 1) * s.n + 1; }, nullptr},
    {&MINSTR::wrk2, work_length, nullptr},
    {&MINSTR::hess, [](const Sizes& s) { return s.request.late_hessian ? 0 : hess_length(s); },
     mark_hess},
    {&MINSTR::dsca,
     [](const Sizes& s) {
       const bool scaled = s.str->tech == DBLDOG || s.str->tech == LEVMAR ||
                           s.str->tech == GAUNEW || second_order(s);
       return scaled ? s.n : 0;
     },
     nullptr},
    {&MINSTR::wfid, difference_work, nullptr},
    {&MINSTR::hfwd, [](const Sizes& s) { return s.str->cfdh != 0 ? 2 * s.n : 0; },
     divide_intervals},
    {&MINSTR::ofco, [](const Sizes& s) { return s.str->cfdh != 0 ? s.n : 0; }, nullptr},
    {&MINSTR::ifxr, [](const Sizes& s) { return s.bounds || general(s) ? s.n : 0; },
     start_permutation},
    {&MINSTR::iabc, [](const Sizes& s) { return s.bounds || general(s) ? s.n : 0; }, nullptr},
    {&MINSTR::lb, [](const Sizes& s) { return s.bounds ? 2 * s.n : 0; }, divide_bounds},
    {&MINSTR::alcn, [](const Sizes& s) { return s.linear ? s.request.nonzeros + s.str->ncon : 0; },
     divide_alcn},
    {&MINSTR::naco, [](const Sizes& s) { return s.linear ? s.request.nonzeros + s.str->ncon : 0; },
     divide_naco},
    {&MINSTR::gpro, frame_room, divide_gpro},
    {&MINSTR::iact, [](const Sizes& s) { return general(s) ? 2 * working_set(s) : 0; },
     divide_iact},
    {&MINSTR::ldco,
     [](const Sizes& s) {
       if (is_barrier(s.str)) return s.n + s.str->ncon;
       return s.nonlinear ? working_set(s) : 0;
     },
     nullptr},
    {&MINSTR::half, [](const Sizes& s) { return s.request.late_hessian ? 0 : half_length(s); },
     mark_half},
    {&MINSTR::hpro, [](const Sizes& s) { return s.request.late_hessian ? 0 : hpro_length(s); },
     mark_hpro},
    {&MINSTR::qvec,
     [](const Sizes& s) { return s.str->fqad != 0 ? 2 * s.n
                                 : s.nonlinear    ? s.n
                                                  : 0; }, nullptr},
    {&MINSTR::grlf, [](const Sizes& s) { return s.nonlinear ? s.n : 0; }, nullptr},
    {&MINSTR::fcon, constraint_length, divide_fcon},
    {&MINSTR::ywrk, [](const Sizes& s) { return is_barrier(s.str) ? FRAME_ROW_WORK * s.n : 0; },
     nullptr},
    {&MINSTR::uvwg,
     [](const Sizes& s) { return is_barrier(s.str) ? frame_vectors(s.n, s.str->ncon) : 0; },
     nullptr},
};

// Takes count elements for a field. False, with a line in the log, when the host refuses or the
// size in bytes is beyond what can be counted.
template <class T>
static bool take(MINSTR* str, T* MINSTR::*field, long count) {
  static constexpr long MOST = std::numeric_limits<long>::max() / static_cast<long>(sizeof(T));
  const std::size_t bytes = count > MOST ? std::numeric_limits<std::size_t>::max()
                                         : static_cast<std::size_t>(count) * sizeof(T);
  str->*field = static_cast<T*>(vmalloc_handler(bytes, 0));
  if (str->*field != nullptr) return true;
  xmemmsg(bytes);
  return false;
}

// The Jacobian of least squares may outgrow memory and lives in a file.
static void open_jacobian_file(MINSTR* str) {
  const WorkFileOptions options;
  const int rc = xcopen(&str->utjacm, &options);
  if (rc == 0) return;
  xprrlog(0, rc);
  xexit(EXIT_WORK_FILE, 0);
}

// Elements of an array that is wanted and not there yet.
static long missing_count(const Sizes& sizes, const RunArray& array) {
  const MINSTR* str = sizes.str;
  const bool there = std::visit([str](auto field) { return str->*field != nullptr; }, array.field);
  return there ? 0 : std::max(array.count(sizes), 0L);
}

// Memory that is felt is told of before it is taken.
static void announce_memory(const Sizes& sizes) {
  static constexpr double FELT = 1073741824.0;
  static constexpr double MEGABYTE = 1e6;
  double bytes = 0.0;
  for (const RunArray& array : ARRAYS) {
    const double count = static_cast<double>(missing_count(sizes, array));
    bytes += std::visit(
        [count](auto field) {
          using Element = std::remove_pointer_t<std::remove_reference_t<decltype(MINSTR{}.*field)>>;
          return count * static_cast<double>(sizeof(Element));
        },
        array.field);
  }
  if (bytes < FELT) return;
  xpmlog(CALLING_SURFACE, 178,
         {sizes.request.caller, static_cast<long>(bytes / MEGABYTE), sizes.str->nvar});
}

// Takes the arrays of the table that are not there yet. The first refusal ends it; what stands
// until then is given back by the entry's clean-up.
static int take_arrays(MINSTR* str, const ArrayRequest& request) {
  // VMCWD solves the subproblem without nonlinear constraints too.
  const bool nonlinear = str->nlicon != 0 || str->tech == VMCWD;
  const long n = str->nvar + (nonlinear ? 1 : 0);
  const Sizes sizes{str, n, packed_size(n), request, str->bounds != 0, str->lincon != 0, nonlinear};
  announce_memory(sizes);
  for (const RunArray& array : ARRAYS) {
    const long count = missing_count(sizes, array);
    if (count == 0) continue;
    const bool taken =
        std::visit([str, count](auto field) { return take(str, field, count); }, array.field);
    if (!taken) return 1;
    if (array.divide != nullptr) array.divide(str, sizes);
  }
  return 0;
}

int allocate_arrays(MINSTR* str, const ArrayRequest& request) {
  if (str->lsqu != 0) open_jacobian_file(str);
  return take_arrays(str, request);
}

int allocate_matrices(MINSTR* str, ArrayRequest request) {
  request.nonzeros = 0;
  request.late_hessian = false;
  return take_arrays(str, request);
}

// The references into blocks are cleared too: the record outlives its arrays on the way out of an
// entry, and a stale reference would be taken for an array.
void release_arrays(MINSTR* str) {
  for (const RunArray& array : ARRAYS) {
    std::visit(
        [str](auto field) {
          vmfree_handler(str->*field);
          str->*field = nullptr;
        },
        array.field);
  }
  str->x = str->work = str->grad = str->xold = str->gold = str->sdir = nullptr;
  str->fold = str->hcnt = str->ub = str->blcn = str->jcon = nullptr;
  str->lagm = str->dcds = str->awrk = str->qlcn = str->llcn = nullptr;
  str->jalc = str->liwk = nullptr;
  str->hesalo = str->hpralo = str->hlfalo = 0;
  release_pattern(&str->shes);
  for (WorkFile** file : {&str->utjacm, &str->utquad, &str->utq}) {
    xcclose(*file, 1);
    *file = nullptr;
  }
}

}  // namespace tqnlp
