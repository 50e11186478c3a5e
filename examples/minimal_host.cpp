// A host of the module in one page: memory, log, work files and modules in their simplest form.
//
// The module reaches the outside world only through the functions of src/host, which the linker
// binds to this file. What each must promise is told in docs/writing-a-host.md. This host knows one
// module, ROSEN with its gradient and Hessian, prints the log as it comes, keeps no report tables,
// and forgets to give memory back only when a call is broken off.
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "aasubs/record/missing.h"
#include "front/tqxnlp.h"
#include "host/files.h"
#include "host/language.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/process.h"
#include "host/strings.h"
#include "host/tables.h"

namespace tqnlp {

// ---- Types of the host --------------------------------------------------------------------------

struct Values {
  long rows = 0, cols = 0;
  std::vector<double> numbers;
};
struct TQLARG {
  std::string name;  // a name, or empty for a matrix
  Values matrix;
};
struct TQLMOD {
  const char* name;
  Values (*body)(const double* x);
};
struct TQLCALL {
  const TQLMOD* module;
  Values result;  // stays until the module runs again
};
struct WorkFile {
  std::vector<char> bytes;
  std::size_t at = 0;
};
struct MemPool {
  std::vector<void*> blocks;
};
struct JumpBuffer {
  int unused;
};
struct RvxObject {
  int unused;
};

// ---- The state of the one task ------------------------------------------------------------------

static TQLTASK task;
static TQLSS* current = nullptr;
static int exit_state = 0;
static std::vector<Values> results(8);
static TQLSYM iteration{NUMERIC, 8, 0, 0, nullptr};  // the variable _ITER_
static std::vector<TQLMOD> modules;
static std::deque<TQLCALL> prepared;  // addresses stay; kept to the end of the program

// ---- Memory -------------------------------------------------------------------------------------

void* vmalloc_handler(std::size_t bytes, int) { return std::calloc(1, bytes == 0 ? 1 : bytes); }
void vmfree_handler(void* block) { std::free(block); }
void* vmalcp_handler(const void* from, std::size_t bytes) {
  void* block = vmalloc_handler(bytes, 0);
  return block == nullptr ? nullptr : std::memcpy(block, from, bytes);
}
MemPool* xmpoolc(std::size_t) { return new MemPool; }
void* xmemdef(MemPool* pool, std::size_t bytes) {
  return pool->blocks.emplace_back(vmalloc_handler(bytes, 0));
}
void xmpoold(MemPool* pool) {
  if (pool != nullptr)
    for (void* block : pool->blocks) std::free(block);
  delete pool;
}
void xmemmsg(std::size_t bytes) { std::printf("ERROR: no memory for %zu bytes\n", bytes); }
double* tqwalo2(long bytes) {
  return static_cast<double*>(vmalloc_handler(static_cast<std::size_t>(bytes), 0));
}
void tqwfre2(void* data) { std::free(data); }
void tqwown2(TQLSYM* symbol, double* data) { symbol->data = data; }

// ---- Process: exceptions serve as jumps ---------------------------------------------------------

struct Ended {
  int code;
};
struct Resumed {
  JumpBuffer* point;
  int code;
};
void xexit(int code, int) { throw Ended{code}; }
int wtguard(JumpBuffer** point, int (*body)(MINSTR*), MINSTR* str) {
  JumpBuffer here{};
  JumpBuffer* outer = *point;
  *point = &here;
  int answer = 0;
  try {
    answer = body(str);
  } catch (const Resumed& resumed) {
    *point = outer;
    if (resumed.point != &here) throw;
    return resumed.code;
  } catch (...) {
    *point = outer;
    throw;
  }
  *point = outer;
  return answer;
}
void wtresum(JumpBuffer* point, int code) { throw Resumed{point, code}; }
int zbugi(const char*) { return 0; }
double zdattim() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

// ---- Log: numbers instead of texts --------------------------------------------------------------

static std::string numbered(int group, int number, MsgArgs args) {
  std::string text = std::to_string(group) + "/" + std::to_string(number);
  for (const MsgArg& arg : args) {
    if (const long* count = std::get_if<long>(&arg)) text += " " + std::to_string(*count);
    if (const double* value = std::get_if<double>(&arg)) text += " " + std::to_string(*value);
    if (const auto* word = std::get_if<const char*>(&arg)) text += std::string(" ") + *word;
  }
  return text;
}
void xpmlog(int group, int number, MsgArgs args) {
  std::printf("message %s\n", numbered(group, number, args).c_str());
}
void xpmout(int group, int number, MsgArgs args) { xpmlog(group, number, args); }
long xpmstr(char* buffer, long length, int group, int number, MsgArgs args) {
  const std::string text = numbered(group, number, args);
  std::snprintf(buffer, static_cast<std::size_t>(length), "%s", text.c_str());
  return static_cast<long>(std::strlen(buffer));
}
void xpslog(const char* format, ...) {
  va_list list;
  va_start(list, format);
  std::vprintf(format, list);
  va_end(list);
  std::puts("");
}
void xpsout(const char* format, ...) {
  va_list list;
  va_start(list, format);
  std::vprintf(format, list);
  va_end(list);
  std::puts("");
}
void xprrlog(int, int rc) { std::printf("ERROR: a service answered %d\n", rc); }
long znamfix(char* to, long length, const char* prefix, long number) {
  std::snprintf(to, static_cast<std::size_t>(length), "%s%ld", prefix, number);
  return static_cast<long>(std::strlen(to));
}

// ---- Report tables: taken, and dropped ----------------------------------------------------------

static RvxObject sink;
int xobinit(RvxObject** object, int) {
  *object = &sink;
  return 0;
}
int wobmth(RvxObject*, int, RvxMethod method, std::span<const RvxArg> args) {
  if (method == RvxMethod::open) *std::get<RvxObject**>(args[0]) = &sink;
  return 0;
}
int rvxmsgs(RvxText* cell, int group, int number, MsgArgs args) {
  xpmstr(cell->text, sizeof cell->text, group, number, args);
  return 0;
}
int rvxmsg(RvxText* cell, int group, int number) { return rvxmsgs(cell, group, number, {}); }
int rvxtxt(RvxText* cell, const char* text, long length) {
  std::snprintf(cell->text, sizeof cell->text, "%.*s", static_cast<int>(length), text);
  return 0;
}
int rvxtxts(RvxText* cell, long, const char* format, ...) {
  va_list list;
  va_start(list, format);
  std::vsnprintf(cell->text, sizeof cell->text, format, list);
  va_end(list);
  return 0;
}

// ---- Work files ---------------------------------------------------------------------------------

int xcopen(WorkFile** handle, const WorkFileOptions*) {
  *handle = new WorkFile;
  return 0;
}
int xcpoint(WorkFile* file, long position) {
  file->at = static_cast<std::size_t>(position);
  return 0;
}
int xcread(WorkFile* file, void* buffer, long length) {
  const auto count = static_cast<std::size_t>(length);
  if (file->at + count > file->bytes.size()) return 1;
  std::memcpy(buffer, file->bytes.data() + file->at, count);
  file->at += count;
  return 0;
}
int xcwrite(WorkFile* file, const void* buffer, long length) {
  const auto count = static_cast<std::size_t>(length);
  if (file->at + count > file->bytes.size()) file->bytes.resize(file->at + count);
  std::memcpy(file->bytes.data() + file->at, buffer, count);
  file->at += count;
  return 0;
}
int xcclose(WorkFile* file, int) {
  delete file;
  return 0;
}

// ---- Matrix language ----------------------------------------------------------------------------

int tqwarg2(TQLARG* handle, long* rows, long* columns, long* length, void** data) {
  *rows = *columns = 1;
  *length = static_cast<long>(handle->name.size());
  *data = handle->name.data();
  if (!handle->name.empty()) return ARGUMENT_NAME;
  *rows = handle->matrix.rows;
  *columns = handle->matrix.cols;
  *data = handle->matrix.numbers.empty() ? nullptr : handle->matrix.numbers.data();
  return ARGUMENT_MATRIX;
}
double* tqwres(int k, long rows, long columns) {
  Values& result = results[static_cast<std::size_t>(k)];
  result = {rows, columns, std::vector<double>(static_cast<std::size_t>(rows * columns))};
  return result.numbers.data();
}
TQLMOD* tqsmod(const char* name, int kind) {
  for (TQLMOD& module : modules) {
    const std::size_t length = std::strlen(module.name);
    if (kind == MODULE_FUNCTION && std::memcmp(name, module.name, length) == 0 &&
        name[length] == ' ')
      return &module;
  }
  return nullptr;
}
long tqsget(TQLMOD* module, TQLCALL** call) {
  *call = &prepared.emplace_back(TQLCALL{module, {}});
  return 0;
}
TQLSS* tqsput(TQLSS* ss) { return std::exchange(current, ss); }
TQLTASK* tqlq() { return &task; }
int tqlexst() { return exit_state; }
void tqlrc(int) {
  Values& result = current->call->result;
  result = current->call->module->body(current->argument[0]->data);
  task.result = result.numbers.data();
  current->result->kind = NUMERIC;
  current->result->rows = result.rows;
  current->result->cols = result.cols;
  exit_state = 0;
}
int tqlmiss(const TQLSYM* symbol) {
  for (long i = 0; i < symbol->rows * symbol->cols; ++i)
    if (symbol->data[i] != symbol->data[i]) return 1;
  return 0;
}
TQLSYM* tqlrtre(const char*, long) { return &iteration; }

// ---- Strings ------------------------------------------------------------------------------------

void wzstmov(char* to, long to_length, const char* from, long from_length) {
  for (long i = 0; i < to_length; ++i) to[i] = i < from_length ? from[i] : ' ';
}
void wzstrup(char* field, long length) {
  for (long i = 0; i < length; ++i)
    if (field[i] >= 'a' && field[i] <= 'z') field[i] = static_cast<char>(field[i] - 'a' + 'A');
}

}  // namespace tqnlp

// ---- A call -------------------------------------------------------------------------------------

using namespace tqnlp;

static Values rosenbrock(const double* x) {
  const double u = x[1] - x[0] * x[0], v = 1 - x[0];
  return {1, 1, {100 * u * u + v * v}};
}
static Values gradient(const double* x) {
  const double u = x[1] - x[0] * x[0];
  return {1, 2, {-400 * x[0] * u - 2 * (1 - x[0]), 200 * u}};
}
static Values hessian(const double* x) {
  return {2, 2, {1200 * x[0] * x[0] - 400 * x[1] + 2, -400 * x[0], -400 * x[0], 200}};
}

// The entry of a subroutine, by its row in the module's table.
static TqxEntry find_entry(const char* name) {
  auto* table = static_cast<FNCUSR*>(qorinlp(1));
  auto* entries = static_cast<FNCENT*>(qorinlp(2));
  TqxEntry found = nullptr;
  for (long i = 0; i < table->nfnc; ++i)
    if (std::strcmp(table->fncitem[i].fncname, name) == 0) found = entries->entry[i];
  vmfree_handler(table);
  vmfree_handler(entries);
  return found;
}

int main() {
  modules = {{"ROSEN", rosenbrock}, {"GRAD", gradient}, {"HESS", hessian}};
  std::vector<TQLARG> given(9);
  given[0].name = "ROSEN";
  given[1].matrix = {1, 2, {-1.2, 1.0}};
  given[7].name = "GRAD";
  given[8].name = "HESS";
  std::vector<TQLARG*> handles;
  for (TQLARG& argument : given) handles.push_back(&argument);
  long count = static_cast<long>(handles.size());
  try {
    const int code = find_entry("NLPNRR")(handles.data(), &count);
    if (code != 0) {
      std::printf("NLPNRR refused the call with %d\n", code);
      return 1;
    }
  } catch (const Ended& ended) {
    std::printf("the call ended with exit code %d\n", ended.code);
    return 1;
  }
  std::printf("rc = %g, x = (%g, %g)\n", results[1].numbers[0], results[2].numbers[0],
              results[2].numbers[1]);
  std::free(iteration.data);
  return 0;
}
