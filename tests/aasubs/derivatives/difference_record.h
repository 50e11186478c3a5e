// A problem record for the difference routines: m functions of n parameters and constraints, given
// as callables, with every evaluation written down. A NaN in a result is a failed evaluation.
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
using Routine = int (*)(MINSTR*);

struct DifferenceRecord : TestRecord {
  using Callable = std::function<Vec(const double* x)>;
  Callable functions, gradient, constraints, constraint_jacobian;
  std::vector<Vec> visited;  // points of function evaluations, in order
  long gradients = 0;
  long calls = 0, fails_from = 0, fails_to = 0;  // calls of any kind; these fail (from 1)

  DifferenceRecord(long n, long m, long c = 0) : TestRecord(n) {
    mequ = mfun = m;
    nnlc = c;
    nlicon = c > 0 ? 1 : 0;
    arrays_.assign(static_cast<std::size_t>(3 * m + std::max(m, n) + c * (n + 1) + 2 * n), MISSING);
    func = arrays_.data(), fold = func + m, wfid = fold + m;
    fcon = wfid + m + std::max(m, n), jcon = fcon + c, hfwd = jcon + c * n, hcnt = hfwd + n;
    flags_.assign(static_cast<std::size_t>(n), 0);
    ofco = flags_.data();
    usfct = call_functions;
    usgrd = [](MINSTR* str) {
      ++of(str)->gradients;
      return of(str)->call(of(str)->gradient, str->grad, str->nvar);
    };
    if (c > 0) {
      usnlc = [](MINSTR* str) {
        of(str)->visited.push_back(of(str)->point());
        return of(str)->call(of(str)->constraints, str->fcon, str->nnlc);
      };
      usjnc = [](MINSTR* str) {
        return of(str)->call(of(str)->constraint_jacobian, str->jcon, str->nnlc * str->nvar);
      };
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

  int call(const Callable& callable, double* result, long count) {
    ++calls;
    const Vec values = callable(x);
    std::copy_n(values.data(), count, result);
    const bool planned = calls >= fails_from && calls <= fails_to;
    const bool bad = std::any_of(result, result + count, [](double r) { return std::isnan(r); });
    tbig = planned || bad ? 1.0 : 0.0;
    return planned || bad ? -11 : 0;
  }

  static int call_functions(MINSTR* str) {
    if (str->indf < GRADIENT_STEP) ++str->nfct;
    of(str)->visited.push_back(of(str)->point());
    const int code = of(str)->call(of(str)->functions, str->func, str->mequ);
    str->crit = code == 0 ? 0.0 : 1e300;  // which must not reach a result
    for (long i = 0; code == 0 && i < str->mequ; ++i) {
      const double r = str->func[i];
      str->crit += str->lsqu != 0 ? 0.5 * r * r : (str->l1nm != 0 ? std::fabs(r) : r);
    }
    return code;
  }

  Vec arrays_;
  std::vector<short> flags_;
  WorkFileOptions options_;
};

}  // namespace tqnlp::test
