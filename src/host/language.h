// Host services: the matrix language. Arguments and results of a call, matrices that are handed to
// modules, and the running of a module.
//
// A module of the user is prepared once (tqsget) and run many times: the bridge makes the prepared
// call current (tqsput), runs it (tqlrc) and asks for its exit state (tqlexst). The task record
// (tqlq) holds what the interpreter must find again when a module calls a subroutine in turn.
#pragma once

namespace tqnlp {

struct MINSTR;
struct TQLARG;   // handle of an argument; a type of the host
struct TQLMOD;   // handle of a module; a type of the host
struct TQLCALL;  // the host's own part of a prepared call

inline constexpr int ARGUMENT_ABSENT = 0;
inline constexpr int ARGUMENT_MATRIX = 1;
inline constexpr int ARGUMENT_NAME = 2;  // character

inline constexpr char NUMERIC = 'n';
inline constexpr char CHARACTER = 'c';

inline constexpr int MODULE_FUNCTION = 1;  // kinds of modules for tqsmod
inline constexpr int MODULE_TERMINATION = 2;

inline constexpr int RUN_MODULE = 305;  // request of tqlrc

// A matrix that is handed to a module or comes back from it, by rows.
struct TQLSYM {
  char kind;   // NUMERIC or CHARACTER
  int elsize;  // bytes of an element: 8 for numbers
  long rows;
  long cols;
  double* data;  // rows x cols numbers; null when empty or character
};

// A prepared call of a module. The bridge allocates it; status is nonzero after a failed run.
struct TQLSS {
  long status;
  TQLMOD* funptr;       // the module
  TQLCALL* call;        // the host's part, from tqsget
  TQLSYM* result;       // where the result stands after a run
  TQLSYM* argument[2];  // what the module is given; null beyond its number of arguments
  long position[2];     // statement position of the caller, saved while the module runs
};

// The task record of the language.
struct TQLTASK {
  long position[2];  // statement position
  int module_runs;   // nonzero while a module runs
  double* result;    // data of the last module's result
  MINSTR* record;    // the running problem record, for the math-error trap; or null
};

// Looks at an argument. Returns ARGUMENT_MATRIX with rows, columns and the numbers by rows (null if
// empty; the caller may change them), ARGUMENT_NAME for a character matrix with *length the length
// of its first element and *data its first character, ARGUMENT_ABSENT for no matrix at all.
int tqwarg2(TQLARG* handle, long* rows, long* columns, long* length, void** data);

// Makes result k (from 1) of the call and returns its numbers, zero-filled; null on refusal.
double* tqwres(int k, long rows, long columns);

// Memory of matrices: takes bytes bytes, zero-filled (null on refusal); gives them back (null is
// accepted); makes data, taken by tqwalo2, the property of the matrix symbol.
double* tqwalo2(long bytes);
void tqwfre2(void* data);
void tqwown2(TQLSYM* symbol, double* data);

// Finds a module by its name, a field of 32 bytes padded with blanks. Null: there is none.
TQLMOD* tqsmod(const char* name, int kind);

// Prepares a call of a module: 0 and the host's part in *call, or a nonzero status.
long tqsget(TQLMOD* module, TQLCALL** call);

// Makes a prepared call the current one; null leaves none. Returns the one that was current.
TQLSS* tqsput(TQLSS* ss);

// The task record of the running thread.
TQLTASK* tqlq();

// Runs the current module (request RUN_MODULE): hands it the argument matrices, whose data (taken
// by tqwalo2) it may replace by memory of its own, to be filled the next time; fills kind, rows and
// cols of the result symbol and result of the task record. The numbers stay valid until the
// module runs again. A failure shows in tqlexst and in the status word.
void tqlrc(int request);

// Exit state of the last run module: 0 good.
int tqlexst();

// Does a numeric matrix hold a missing value (any NaN counts)?
int tqlmiss(const TQLSYM* symbol);

// Finds or makes the variable of the language with this name (32 bytes padded with blanks; length
// of the name proper). Null on refusal.
TQLSYM* tqlrtre(const char* name, long length);

}  // namespace tqnlp
