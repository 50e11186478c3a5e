#include "support/record.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "aasubs/derivatives/znlpfid.h"
#include "aasubs/direct/simplex.h"
#include "aasubs/driver/znlpdrv.h"
#include "aasubs/termination/znlptrm.h"
#include "embed/task.h"
#include "host/files.h"
#include "host/log.h"
#include "kernels/vector.h"

namespace tqnlp::test {

// Row i of the constraint matrix, expanded; tests have no nonlinear constraints.
static int expand_row(MINSTR* str, long i, double* w) {
  vzfdl(0.0, w, str->nvar);
  for (long k = i > 0 ? str->naco[i - 1] : 0; k < str->naco[i]; ++k) w[str->jalc[k]] = str->alcn[k];
  return 0;
}

static int call_objective(MINSTR* str) {
  auto* record = static_cast<TestRecord*>(str);
  if (str->indf < GRADIENT_STEP) ++str->nfct;
  str->tbig = 1.0;
  const double value = record->f(str->x);
  if (std::isnan(value)) return -11;
  str->crit = str->func[0] = value;
  str->tbig = 0.0;
  return 0;
}

static int finish_array(MINSTR* str, const double* values, long count) {
  str->tbig = std::any_of(values, values + count, [](double v) { return std::isnan(v); });
  return str->tbig != 0.0 ? -11 : 0;
}

static int call_gradient(MINSTR* str) {
  ++str->ngrd;
  static_cast<TestRecord*>(str)->g(str->x, str->grad);
  return finish_array(str, str->grad, str->nvar);
}

static int call_hessian(MINSTR* str) {
  auto* record = static_cast<TestRecord*>(str);
  ++str->nhes;
  record->g(str->x, str->grad);
  record->h(str->x, str->hess);
  if (finish_array(str, str->grad, str->nvar) != 0) return -11;
  return finish_array(str, str->hess, str->nnva);
}

static int call_residuals(MINSTR* str) {
  if (str->indf < GRADIENT_STEP) ++str->nfct;
  static_cast<TestRecord*>(str)->res(str->x, str->func);
  str->crit = 0.5 * zvdot11(str->mequ, str->func, str->func);
  return finish_array(str, str->func, str->mequ);
}

static int call_jacobian(MINSTR* str) {
  const long n = str->nvar;
  const long m = str->mequ;
  ++str->nhes;
  std::vector<double> jacobian(static_cast<std::size_t>(m * n));
  static_cast<TestRecord*>(str)->jac(str->x, jacobian.data());
  vzfdl(0.0, str->grad, n);
  for (long i = 0; i < m; ++i) zvxay11(n, str->grad, str->func[i], jacobian.data() + i * n);
  if (finish_array(str, jacobian.data(), m * n) != 0) return -11;
  for (long k = 0; k < n; ++k) znlpjwt(str, 0, k, n, jacobian.data() + k);
  return 0;
}

TestRecord::TestRecord(long n, int technique) : MINSTR{} {
  nvar = n, nnva = packed_size(n);
  mequ = mfun = tupd = zmsg = 1;
  vers = tlin = 2;
  tech = technique, ider = 4;
  dhes = damp = rtop = dfes = deat = MISSING;
  nres = NEVER;
  ceps = ldct = sing = gtol = 1e-8;
  salf = 1.0, sigm = 0.4, ssin = 1e20;
  fdig = cdig = 15.653559774527022;
  maxi = 200, maxf = 500, upti = HUGE_VALUE;
  atol = -1.3407807929942999e154, ftol = 2.2204460492503141e-16, agtl = 1e-5;
  uster = znlptrm, acget = expand_row;

  toln = longs(30), ipiv = longs(n), iwk = longs(3 * n + 1), ifxr = longs(n);
  std::iota(ifxr, ifxr + n, 0L);
  det = doubles(6 * n + 5);
  x = det + 5, work = x + n, grad = work + n, xold = grad + n, gold = xold + n, sdir = gold + n;
  func = doubles(2), fold = func + 1;
  wrk2 = doubles(std::max(10 * n, simplex_work(n))), hess = doubles(nnva), hpro = doubles(nnva),
  half = doubles(3 * nnva);
  hesalo = hpralo = hlfalo = 1;
  dsca = doubles(n), wfid = doubles(n + 2), lag2 = doubles(2 * n);
  status_.assign(static_cast<std::size_t>(n) + 1, 0);
  iabc = status_.data();
  lb = doubles(n), ub = doubles(n);
  vzfdl(-HUGE_VALUE, lb, n);
  vzfdl(HUGE_VALUE, ub, n);
  gpro = doubles(n * (n + 5) + nnva);
  lagm = gpro + n, dcds = lagm + n, awrk = dcds + 2 * n, qlcn = awrk + n, llcn = qlcn + n * n;
  iact = longs(2 * n), liwk = iact + n;
}

double* TestRecord::doubles(long count) {
  return double_arrays_.emplace_back(static_cast<std::size_t>(count) + 1, 0.0).data();
}

long* TestRecord::longs(long count) {
  return long_arrays_.emplace_back(static_cast<std::size_t>(count) + 1, 0).data();
}

void TestRecord::count_constraints() {
  ntec = neqc + nbec;
  ntco = nbec + nbic + ncon;
  const long capacity = ntco > nvar ? ntco : nvar;
  iact = longs(2 * capacity);
  liwk = iact + capacity;
}

TestRecord& TestRecord::with_bounds(std::vector<double> lower, std::vector<double> upper) {
  bounds = 1;
  nbec = nbic = 0;
  for (long j = 0; j < nvar; ++j) {
    lb[j] = lower[static_cast<std::size_t>(j)];
    ub[j] = upper[static_cast<std::size_t>(j)];
    if (lb[j] == ub[j]) {
      iabc[j] = 2;
      ++nbec;
    } else {
      nbic += (lower_exists(lb[j]) ? 1 : 0) + (upper_exists(ub[j]) ? 1 : 0);
    }
  }
  count_constraints();
  return *this;
}

TestRecord& TestRecord::with_rows(const std::vector<LinearRow>& rows) {
  lincon = opro = aspa = 1;
  ncon = static_cast<long>(rows.size()), neqc = 0;
  alcn = doubles(ncon * nvar), jalc = longs(ncon * nvar);
  blcn = doubles(ncon), naco = longs(ncon);
  long stored = 0;
  for (long i = 0; i < ncon; ++i) {
    const LinearRow& row = rows[static_cast<std::size_t>(i)];
    if (row.op == 0) ++neqc;
    blcn[i] = row.b;
    for (long j = 0; j < nvar; ++j) {
      if (row.a[static_cast<std::size_t>(j)] == 0.0) continue;
      alcn[stored] = row.a[static_cast<std::size_t>(j)];
      jalc[stored++] = j;
    }
    naco[i] = stored;
  }
  count_constraints();
  return *this;
}

TestRecord& TestRecord::with_residuals(long m, Body residuals, Body jacobian) {
  lsqu = 1;
  ider = 2;
  mequ = mfun = m;
  func = doubles(4 * m);
  fold = func + m;
  wfid = doubles(2 * m + nvar);
  res = std::move(residuals);
  jac = std::move(jacobian);
  usfct = call_residuals;
  usgrd = usjac = call_jacobian;
  xcopen(&utjacm, nullptr);
  return *this;
}

TestRecord::~TestRecord() { xcclose(utjacm, 1); }

TestRecord& TestRecord::at(const std::vector<double>& start) {
  std::copy_n(start.begin(), nvar, x);
  return *this;
}

TestRecord& TestRecord::with_callbacks() {
  usfct = f ? call_objective : nullptr;
  usgrd = g ? call_gradient : nullptr;
  ushes = h ? call_hessian : nullptr;
  return *this;
}

void install(TestRecord& record, const Problem& problem) {
  record.f = [&](const double* x) { return problem.value(x); };
  record.g = [&](const double* x, double* g) { problem.evaluate(x, g); };
  record.h = [&](const double* x, double* h) {
    std::vector<double> g(static_cast<std::size_t>(problem.n));
    problem.evaluate(x, g.data(), h);
  };
  record.with_callbacks().at(problem.start);
}

int run_technique(MINSTR& record) {
  const int code = znlpdrv(&record, 1, 0, 0, 0);
  return code != 0 ? code : znlpdrv(&record, 2, 0, 0, 0);
}

int exit_code_of(const std::function<void()>& body) {
  try {
    body();
  } catch (const embed::ExitRequest& request) {
    return request.code;
  }
  return 0;
}

void install_residuals(TestRecord& record, const Problem& problem) {
  record.with_residuals(problem.m, problem.residuals,
                        [&](const double* x, double* jacobian) { problem.jacobian(x, jacobian); });
  record.at(problem.start);
}

}  // namespace tqnlp::test
