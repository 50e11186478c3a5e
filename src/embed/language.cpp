// language: arguments, results, variables, and the running of modules.
//
// Running a module is the innermost step of every run, so that tqlrc takes no memory: the prepared
// call keeps the matrix that the module is given, and the result is moved into it. All state of a
// run (current call, exit state, task record) stands in the frame of the running call: a module
// that calls a subroutine works on a new frame, and finds the old one as it was afterwards.
//
// What a module throws must not fly through the code between the module and the caller, which knows
// of no exceptions: it is caught here, kept in the frame, and shows as an exit state. From then on
// every module of the call fails at once, which makes the technique give up after few steps.
#include "host/language.h"

#include <cxxabi.h>

#include <algorithm>
#include <cfenv>
#include <cmath>
#include <cstring>

#include "embed/task.h"

namespace tqnlp {

using embed::Fault;
using embed::Frame;
using embed::Task;

static constexpr long NAME_FIELD = 32;   // bytes of a name padded with blanks
static constexpr int MOST_RESULTS = 64;  // of one call

// Exit states and status words of a module run.
static constexpr int GOOD = 0;
static constexpr int NOT_EVALUATED = 1;  // the module cannot be evaluated at this point
static constexpr int THREW = 2;          // the module threw: the call is to end

// Counts a request for memory; is it one that a test wants to be refused?
static bool refuses_memory(Task& task) {
  return task.faults[static_cast<int>(Fault::allocation)].strikes();
}

// ---- Arguments and results ----------------------------------------------------------------------

// An empty matrix is a matrix without numbers: that it stands for an absent argument is the entry's
// rule, not the host's.
int tqwarg2(TQLARG* handle, long* rows, long* columns, long* length, void** data) {
  *rows = *columns = *length = 0;
  *data = nullptr;
  if (handle == nullptr) return ARGUMENT_ABSENT;
  Matrix& value = handle->value;
  *rows = value.rows();
  *columns = value.cols();
  if (value.is_character()) {
    *length = static_cast<long>(value.text().size());
    *data = const_cast<char*>(value.text().data());  // names are looked at only
    return ARGUMENT_NAME;
  }
  *data = value.data();
  return ARGUMENT_MATRIX;
}

// The numbers stay where they are when further results are made: the module keeps the pointer.
double* tqwres(int k, long rows, long columns) {
  Task& task = embed::current_task();
  if (refuses_memory(task) || k < 1 || k > MOST_RESULTS) return nullptr;
  auto& results = task.frame().results;
  const auto place = static_cast<std::size_t>(k);
  try {
    if (results.size() < place) results.resize(place);
    results[place - 1] = Matrix(rows, columns);
  } catch (const std::exception&) {  // no memory, or a shape that cannot be
    return nullptr;
  }
  // Null would be a refusal.
  return results[place - 1].empty() ? &task.frame().no_numbers : results[place - 1].data();
}

// ---- Modules ------------------------------------------------------------------------------------

// A termination module is not found as a function, nor the other way round.
TQLMOD* tqsmod(const char* name, int kind) {
  const auto& modules = embed::current_task().modules;
  const auto place = modules.find(embed::language_name(std::string(name, NAME_FIELD)));
  return place == modules.end() || place->second->kind != kind ? nullptr : place->second.get();
}

// Where the runs of a module are counted, also when several calls have prepared it.
static std::shared_ptr<ModuleAccount> work_of(Task& task, const std::string& name) {
  for (const auto& work : task.work)
    if (work->name == name) return work;
  task.work.push_back(std::make_shared<ModuleAccount>());
  task.work.back()->name = name;
  return task.work.back();
}

long tqsget(TQLMOD* module, TQLCALL** call) {
  Task& task = embed::current_task();
  *call = nullptr;
  if (module == nullptr || refuses_memory(task)) return 1;
  auto prepared = std::make_unique<TQLCALL>();
  prepared->module = module->shared_from_this();
  prepared->work = work_of(task, module->name);
  *call = prepared.get();
  task.frame().prepared.push_back(std::move(prepared));
  return 0;
}

TQLSS* tqsput(TQLSS* ss) { return std::exchange(embed::current_task().frame().current, ss); }

TQLTASK* tqlq() { return &embed::current_task().frame().record; }

int tqlexst() { return embed::current_task().frame().exit_state; }

// Brings what the bridge filled into the matrix that the module is given. After the first run the
// bridge fills that matrix itself: its numbers are lent to the symbol, and no run copies them.
static void load_argument(Matrix& argument, TQLSYM* symbol) {
  if (symbol == nullptr || symbol->data == nullptr || symbol->data == argument.data()) return;
  if (argument.rows() != symbol->rows || argument.cols() != symbol->cols)
    argument = Matrix(symbol->rows, symbol->cols);
  if (argument.empty()) return;
  std::memcpy(argument.data(), symbol->data,
              static_cast<std::size_t>(argument.size()) * sizeof(double));
  tqwfre2(symbol->data);
  symbol->data = argument.data();
}

// Runs the body of a module into call.result. Returns the exit state.
static int run_body(Task& task, Frame& frame, const TQLSS& ss, TQLCALL& call) {
  const embed::Charge charge(task.clock, &call.work->ticks);
  try {
    load_argument(call.argument, ss.argument[0]);
    const TQLMOD& module = *call.module;
    if (module.kind == MODULE_TERMINATION) {
      const TQLSYM* crit = ss.argument[1];
      const double value = crit != nullptr && crit->data != nullptr ? *crit->data : missing;
      call.result = Matrix::scalar(module.termination(call.argument, value));
    } else {
      call.result = module.function(call.argument);
    }
    return GOOD;
  } catch (const EvaluationFailed&) {
    return NOT_EVALUATED;
  } catch (const abi::__forced_unwind&) {  // the thread is being cancelled: not ours to stop
    throw;
  } catch (...) {
    frame.thrown = std::current_exception();
    frame.thrown_by = "Module " + call.module->name;
    return THREW;
  }
}

// The same with the floating-point flags under watch. A flag that the module raised goes to the
// handler, which resumes at a point further out if there is one.
static int run_watched(Task& task, Frame& frame, TQLSS& ss, TQLCALL& call) {
  static constexpr struct {
    int flag;
    int type;
  } watched[] = {{FE_DIVBYZERO, 13}, {FE_INVALID, 1}, {FE_OVERFLOW, 3}};

  // The flags around the module are the technique's own and must come back as they were.
  std::fexcept_t before;
  std::fegetexceptflag(&before, FE_ALL_EXCEPT);
  std::feclearexcept(FE_ALL_EXCEPT);
  const int state = run_body(task, frame, ss, call);
  const int raised = std::fetestexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW);
  std::fesetexceptflag(&before, FE_ALL_EXCEPT);
  if (state != GOOD || raised == 0) return state;
  for (const auto& watch : watched) {
    if ((raised & watch.flag) == 0) continue;
    const WTMTHERR error{{raised, sizeof(WTMTHERR), call.module->name.c_str(), 0}, watch.type};
    ss.status = frame.exit_state = NOT_EVALUATED;  // what is seen after a resume
    task.math_error(&error);
    break;
  }
  return NOT_EVALUATED;
}

// 0 a is 0 for a finite a alone; the partial sums let the processor look at several at a time.
static bool all_finite(const double* values, long size) {
  static constexpr long SIDE_BY_SIDE = 8;
  double sums[SIDE_BY_SIDE] = {};
  long k = 0;
  for (; k + SIDE_BY_SIDE <= size; k += SIDE_BY_SIDE)
    for (long j = 0; j < SIDE_BY_SIDE; ++j) sums[j] += 0.0 * values[k + j];
  for (; k < size; ++k) sums[0] += 0.0 * values[k];
  double total = 0.0;
  for (double sum : sums) total += sum;
  return total == 0.0;
}

// Did a module give numbers throughout? A Hessian may leave an element to its partner on the other
// side of the diagonal.
static bool has_value(const Matrix& result) {
  if (result.is_character() || result.empty()) return true;
  const long n = result.rows();
  const double* const values = result.data();
  if (all_finite(values, result.size())) return true;
  const auto fits = [=, square = n == result.cols(), cols = result.cols()](long k) {
    if (std::isfinite(values[k])) return true;
    return square && std::isnan(values[k]) && std::isfinite(values[k % cols * n + k / cols]);
  };
  for (long k = 0; k < result.size(); ++k)
    if (!fits(k)) return false;
  return true;
}

void tqlrc(int request) {
  Task& task = embed::current_task();
  Frame& frame = task.frame();
  frame.exit_state = NOT_EVALUATED;
  TQLSS* ss = frame.current;
  if (request != RUN_MODULE || ss == nullptr || ss->call == nullptr) return;
  // Set beforehand, so that every early end and a resume further out leave a failed run behind.
  ss->status = NOT_EVALUATED;
  if (frame.thrown != nullptr) {  // the call is ending: modules are not run again
    ss->status = frame.exit_state = THREW;
    return;
  }
  if (task.faults[static_cast<int>(Fault::module_call)].strikes()) return;
  TQLCALL& call = *ss->call;
  ++call.work->calls;
  frame.failed = &call;
  ++call.work->failed;  // until it is known that it did not, also by a resume further out
  const int state = task.math_error == nullptr ? run_body(task, frame, *ss, call)
                                               : run_watched(task, frame, *ss, call);
  ss->status = frame.exit_state = state;
  if (state != GOOD) return;
  if (has_value(call.result)) {
    --call.work->failed;
    frame.failed = nullptr;
  }
  frame.record.result = call.result.data();
  if (TQLSYM* symbol = ss->result) {
    symbol->kind = call.result.is_character() ? CHARACTER : NUMERIC;
    symbol->rows = call.result.rows();
    symbol->cols = call.result.cols();
  }
}

// A plain NaN counts like the missing value: neither can be compared.
int tqlmiss(const TQLSYM* symbol) {
  if (symbol == nullptr || symbol->kind != NUMERIC || symbol->data == nullptr) return 0;
  const long size = symbol->rows * symbol->cols;
  if (all_finite(symbol->data, size)) return 0;
  for (long i = 0; i < size; ++i)
    if (std::isnan(symbol->data[i])) return 1;
  return 0;
}

// ---- Variables ----------------------------------------------------------------------------------

// Variables belong to the session; references to them stay valid.
TQLSYM* tqlrtre(const char* name, long length) {
  Task& task = embed::current_task();
  if (length < 1 || length > NAME_FIELD) return nullptr;
  const std::string key = embed::language_name(std::string(name, static_cast<std::size_t>(length)));
  const auto place = task.variables.find(key);
  if (place != task.variables.end()) return &place->second;
  if (refuses_memory(task)) return nullptr;
  return &task.variables.emplace(key, TQLSYM{NUMERIC, sizeof(double), 0, 0, nullptr}).first->second;
}

}  // namespace tqnlp
