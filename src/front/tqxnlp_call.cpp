// tqxnlp, the life of a call: beginning and end that all entries share. Clean-up stands here once.
//
//   entry           begin_call        steps of the entry          deliver_report    end_call
//   record          on the frame, zero-filled; the host's running record from begin to end
//   arrays                            take_arrays                                   release_arrays
//   prepared calls                    setss                                         released
//   report object   made              tables                      closed            closed if left
//   current call    put aside                                                       put back
//
// An entry may run inside of a module of another run: what belongs to the outer call (running
// record, current prepared call) is put aside at the beginning and put back at the end, whatever
// happened between. If xexit ends the call instead, the host frees what it lent.
#include "front/tqxnlp_call.h"

#include <algorithm>
#include <cmath>

#include "aasubs/setup/run_arrays.h"
#include "front/tqxnlp.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_modules.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "host/tables.h"

namespace tqnlp {

// Makes the delivery object of the call, and names the message group of its texts to it. An object
// that does not take that is no fault of the call but of the host.
static int make_report(MINSTR* str) {
  const int rc = xobinit(&str->rvx, 0);
  if (rc != 0) {
    xprrlog(0, rc);
    return ENTRY_NO_REPORT;
  }
  const RvxArg manager[] = {"rvx", "manager", static_cast<long>(OPTIMIZATION)};
  const int made = wobmth(str->rvx, 0, RvxMethod::manager, manager);
  if (made != 0) {
    xprrlog(0, made);
    xexit(EXIT_INCONSISTENT, 0);
  }
  return 0;
}

// Names are fields padded with blanks, also those of modules that are not given.
static void blank_names(ARGMTS* argm) {
  for (char* name :
       {argm->funnam, argm->trmnam, argm->grdnam, argm->hesnam, argm->nlcnam, argm->jncnam}) {
    std::fill_n(name, NAME_FIELD, ' ');
  }
}

// The running record is known to the host from here on, so that the math-error trap finds it.
int begin_call(MINSTR* str, ARGMTS* argm, TQLARG** arg, const char* name, OuterCall* outer) {
  TQLTASK* task = tqlq();
  *outer = {task->record, tqsput(nullptr)};
  task->record = str;
  str->secstr = argm;
  argm->arg = arg;
  blank_names(argm);
  std::copy_n(name, CALL_NAME_FIELD, argm->calnam);
  const int rc = make_report(str);
  if (rc == 0) SetUp_iter_(0.0, argm);
  return rc;
}

// Closing the delivery object releases it, whatever the answer.
int deliver_report(MINSTR* str) {
  const int rc = wobmth(str->rvx, 0, RvxMethod::close, {});
  str->rvx = nullptr;
  if (rc == 0) return 0;
  xprrlog(0, rc);
  return ENTRY_NO_REPORT;
}

// The only clean-up of an entry: arrays in the order of their table, then the prepared calls. A
// call that was refused has taken some or none of them.
int end_call(MINSTR* str, ARGMTS* argm, const OuterCall& outer, int rc) {
  release_arrays(str);
  tqsput(nullptr);
  release_prepared_calls(argm);
  if (str->rvx != nullptr) wobmth(str->rvx, 0, RvxMethod::close, {});  // of a call that ended early
  str->rvx = nullptr;
  tqsput(outer.current);
  tqlq()->record = outer.record;
  return rc;
}

// The host owns results; a refusal is one of memory.
int make_row_result(int k, const double* values, long count) {
  double* result = tqwres(k, 1, count);
  if (result == nullptr) {
    xmemmsg(static_cast<std::size_t>(count) * sizeof(double));
    return ENTRY_NO_MEMORY;
  }
  std::copy_n(values, count, result);
  return 0;
}

int take_arrays(MINSTR* str, long nonzeros) {
  const ARGMTS* argm = str->secstr;
  const FieldText name = call_name(argm);
  return allocate_arrays(
      str, {name.text, nonzeros, argm->igmod != 0, argm->hrow != 0, hessian_by_rows(argm)});
}

int take_matrices(MINSTR* str) {
  const FieldText name = call_name(str->secstr);
  return allocate_matrices(str, {name.text, 0, str->secstr->igmod != 0, true, false});
}

// A missing start value is 0, as the callers are told; an ordinary NaN counts as missing.
void copy_start(MINSTR* str) {
  const double* x0 = str->secstr->xinp;
  for (long j = 0; j < str->nvar; ++j) str->x[j] = std::isnan(x0[j]) ? 0.0 : x0[j];
}

}  // namespace tqnlp
