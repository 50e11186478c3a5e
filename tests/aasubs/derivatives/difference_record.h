// A problem record for the difference routines: m functions of n parameters and constraints, given
// as callables, with every evaluation written down.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "aasubs/record/covstr.h"
#include "host/files.h"
#include "support/record.h"

namespace tqnlp::test {

using Vec = std::vector<double>;

struct DifferenceRecord : TestRecord {
  std::function<void(const double* x, double* r)> functions;
  std::function<void(const double* x, double* g)> gradient;
  std::function<void(const double* x, double* c)> constraints;
  std::function<void(const double* x, double* j)> constraint_jacobian;
  std::vector<Vec> visited;                      // points of function evaluations, in order
  long gradients = 0;                            //
  long calls = 0, fails_from = 0, fails_to = 0;  // calls of any kind; these fail (from 1)

  DifferenceRecord(long n, long m, long c = 0) : TestRecord(n) {
    mequ = mfun = m;
    nnlc = c;
    nlicon = c > 0 ? 1 : 0;
    func_.assign(static_cast<std::size_t>(2 * m), 0.0);
    difference_.assign(static_cast<std::size_t>(m + std::max(m, n)), 0.0);
    constraint_.assign(static_cast<std::size_t>(c * (n + 1)), 0.0);
    intervals_.assign(static_cast<std::size_t>(2 * n), MISSING);
    flags_.assign(static_cast<std::size_t>(n), 0);
    func = func_.data();
    fold = func + m;
    wfid = difference_.data();
    fcon = constraint_.data();
    jcon = fcon + c;
    hfwd = intervals_.data();
    hcnt = hfwd + n;
    ofco = flags_.data();
    usfct = call_functions;
    usgrd = call_gradient;
    if (c > 0) {
      usnlc = call_constraints;
      usjnc = call_constraint_jacobian;
    }
    xcopen(&utjacm, &options_);
  }
  ~DifferenceRecord() { xcclose(utjacm, 1); }

  // Stands at a point, with the functions evaluated there and the log of calls emptied.
  void start(const Vec& point) {
    at(point);
    indf = IN_RUN;
    usfct(this);
    if (nnlc > 0) usnlc(this);
    calls = gradients = 0;
    visited.clear();
  }

  // The next calls with these numbers (from 1) fail.
  void fail(long from, long to) {
    calls = 0;
    fails_from = from;
    fails_to = to;
  }

 private:
  static DifferenceRecord* of(MINSTR* str) { return static_cast<DifferenceRecord*>(str); }

  bool planned_failure() {
    ++calls;
    return calls >= fails_from && calls <= fails_to;
  }

  static int end(MINSTR* str, bool good) {
    str->tbig = good ? 0.0 : 1.0;
    return good ? 0 : -11;
  }

  static int call_functions(MINSTR* str) {
    DifferenceRecord* record = of(str);
    if (str->indf < GRADIENT_STEP) ++str->nfct;
    record->visited.push_back(record->point());
    str->crit = 1e300;  // what stands there after a failure must not reach a result
    const bool failure = record->planned_failure();
    record->functions(str->x, str->func);
    if (failure ||
        std::any_of(str->func, str->func + str->mequ, [](double r) { return std::isnan(r); })) {
      return end(str, false);
    }
    str->crit = 0.0;
    for (long i = 0; i < str->mequ; ++i) {
      const double r = str->func[i];
      str->crit += str->lsqu != 0 ? 0.5 * r * r : (str->l1nm != 0 ? std::fabs(r) : r);
    }
    return end(str, true);
  }

  static int call_gradient(MINSTR* str) {
    DifferenceRecord* record = of(str);
    ++record->gradients;
    record->gradient(str->x, str->grad);
    return end(str, !record->planned_failure());
  }

  static int call_constraints(MINSTR* str) {
    DifferenceRecord* record = of(str);
    record->visited.push_back(record->point());
    record->constraints(str->x, str->fcon);
    return end(str, !record->planned_failure());
  }

  static int call_constraint_jacobian(MINSTR* str) {
    DifferenceRecord* record = of(str);
    record->constraint_jacobian(str->x, str->jcon);
    return end(str, !record->planned_failure());
  }

  Vec func_, difference_, constraint_, intervals_;
  std::vector<short> flags_;
  WorkFileOptions options_;
};

}  // namespace tqnlp::test
