// tqnlp: the nonlinear optimization subroutines of the matrix language TQL, for C++ programs.
//
// A Session holds the modules (functions) of its user, runs the subroutines (NLPQN, NLPTR, NLPLM
// ...) on them by name, and keeps the log and the report tables of the last call.
//
//   tqnlp::Session tql;
//   tql.module("ROSEN", [](const tqnlp::Matrix& x) {
//     const double a = x(0, 0), b = x(0, 1);
//     return tqnlp::Matrix::scalar(100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a));
//   });
//   auto results = tql.call("NLPQN", {"ROSEN", tqnlp::Matrix::row({-1.2, 1.0})});
//   double rc = results[0](0, 0);
//   tqnlp::Matrix x = results[1];
//
// Sessions share nothing: each thread may run a call on a session of its own. One session serves
// one thread at a time.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tqnlp {

namespace embed {
struct Task;
}

// ---- Matrices -----------------------------------------------------------------------------------

// The missing value: a NaN with bits of its own. Test with is_missing, never by comparison.
extern const double missing;
bool is_missing(double value);

// One number of a list in braces, of any arithmetic type: {n, 0.5} needs no casts.
class Number {
 public:
  template <class Arithmetic>
  requires std::is_arithmetic_v<Arithmetic> Number(Arithmetic value)
      : value_(static_cast<double>(value)) {}
  operator double() const { return value_; }

 private:
  double value_;
};

// A numeric matrix by rows, or a 1x1 character matrix that holds a name. Copying copies the
// numbers. A matrix without elements stands for an absent argument.
//
// Numbers in braces are always the numbers of the matrix, sizes stand in parentheses:
//
//   tql.call("NLPQN", {"F", {-1.2, 1}, {0, 2}})   {-1.2, 1} and {0, 2}: rows of two numbers
//   {{1, 2}, {3, 4}}                              two rows, as Matrix::of makes them
//   Matrix(2, 5)                                  two by five zeros; no list in braces makes these
//
// Sizes below zero, sizes whose product no memory can hold and a list of the wrong length are
// refused with std::invalid_argument; an index outside the matrix with std::out_of_range; reading
// numbers of a character matrix with std::invalid_argument.
class Matrix {
 public:
  Matrix() = default;                                                 // empty, 0x0
  Matrix(std::initializer_list<Number> row);                          // {1, 2}: a row
  Matrix(std::initializer_list<std::initializer_list<Number>> rows);  // {{1, 2}, {3, 4}}
  explicit Matrix(long rows, long cols);                              // zeros
  Matrix(long rows, long cols, std::vector<double> by_rows);          // the numbers row after row
  Matrix(const char* name);                                           // character
  Matrix(std::string name);                                           // character
  Matrix(std::nullptr_t) = delete;
  Matrix(const Matrix&) = default;
  Matrix& operator=(const Matrix&) = default;
  Matrix(Matrix&& from) noexcept;
  Matrix& operator=(Matrix&& from) noexcept;
  ~Matrix() = default;

  static Matrix row(std::vector<double> values);
  static Matrix col(std::vector<double> values);
  static Matrix scalar(double value);
  static Matrix filled(long rows, long cols, double value);
  static Matrix identity(long n);
  // Matrix::of({{1, 2}, {3, 4}}): every row of the same length.
  static Matrix of(std::initializer_list<std::initializer_list<Number>> rows);

  long rows() const { return rows_; }
  long cols() const { return cols_; }
  long size() const { return rows_ * cols_; }
  bool empty() const { return size() == 0; }
  bool is_character() const { return character_; }
  bool is_scalar() const { return !character_ && size() == 1; }
  const std::string& text() const;  // the name that a character matrix holds

  double& operator()(long i, long j) { return data_unchecked()[offset(i, j)]; }  // zero-based
  double operator()(long i, long j) const { return data_unchecked()[offset(i, j)]; }
  double& operator[](long k) { return data_unchecked()[offset(k)]; }  // k-th number by rows
  double operator[](long k) const { return data_unchecked()[offset(k)]; }

  double* data();  // by rows; null for an empty or a character matrix
  const double* data() const;
  double* begin() { return data(); }
  double* end();
  const double* begin() const { return data(); }
  const double* end() const;
  std::vector<double> values() const;  // a copy of the numbers by rows
  Matrix transposed() const;

  // Same kind, shape and contents; two values that are no numbers (NaN) count as equal.
  friend bool operator==(const Matrix& a, const Matrix& b);

 private:
  // A single number needs no memory of its own: most results of modules are one number.
  double* data_unchecked() { return rows_ * cols_ == 1 ? &single_ : values_.data(); }
  const double* data_unchecked() const { return rows_ * cols_ == 1 ? &single_ : values_.data(); }
  long offset(long i, long j) const {
    if (i < 0 || i >= rows_ || j < 0 || j >= cols_ || character_) refuse_index(i, j);
    return i * cols_ + j;
  }
  long offset(long k) const {
    if (k < 0 || k >= rows_ * cols_ || character_) refuse_index(k);
    return k;
  }
  [[noreturn]] void refuse_index(long i, long j) const;
  [[noreturn]] void refuse_index(long k) const;

  long rows_ = 0;
  long cols_ = 0;
  double single_ = 0.0;
  std::vector<double> values_;
  std::string text_;
  bool character_ = false;
};

// Rows on lines of their own, elements separated by blanks; a name as it is.
std::ostream& operator<<(std::ostream& out, const Matrix& matrix);

// ---- Log and report tables ----------------------------------------------------------------------

enum class Severity { note, warning, error };

// A line of the log. Group 178: the calling surface; 549: the optimization code; group 0 with
// number 0: a literal line, or a remark of the host.
struct LogRecord {
  int group = 0;
  int number = 0;
  Severity severity = Severity::note;
  std::string text;
};

// A cell of a table: empty, a number, a count or a text.
using Cell = std::variant<std::monostate, double, long, std::string>;

// A report table. A table of labels and values has the columns "Label" and "Value".
struct Table {
  std::string name;           // "IterHist"
  std::string template_name;  // "Base.NLP.IterHist"
  std::string title;
  std::vector<std::string> columns;
  std::vector<std::vector<Cell>> rows;  // each as long as columns
  // The table goes on an earlier one of this name: a history that other tables interrupted.
  bool continued = false;
};

// What a module did in a call: its runs, how many of them failed (no value at that point, or an
// exception), and the time in it, without the time of subroutines that it called itself.
struct ModuleWork {
  std::string name;
  long calls = 0;
  long failed = 0;
  double seconds = 0.0;
};

// Where the time of a call went. Evaluations for differences, which the subroutines' own counts
// leave out, are counted here.
struct Work {
  std::vector<ModuleWork> modules;  // in the order in which they were prepared
  double seconds_in_sink = 0.0;
  double seconds_in_library = 0.0;  // everything else: the techniques themselves, and reports
};

// ---- Errors -------------------------------------------------------------------------------------

// What all errors of a call have in common: the log lines that say why. Also in what().
class Error : public std::runtime_error {
 public:
  Error(const std::string& text, std::vector<LogRecord> log)
      : std::runtime_error(text), log_(std::move(log)) {}
  const std::vector<LogRecord>& log() const { return log_; }

 private:
  std::vector<LogRecord> log_;
};

// The subroutine refused the call: code() is 1 out of memory, 3 a named module does not exist, 6
// bad argument (also one that is refused before the subroutine runs, and an unknown subroutine),
// 100 no report object.
class CallError : public Error {
 public:
  CallError(int code, const std::string& text, std::vector<LogRecord> log)
      : Error(text, std::move(log)), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// The call could not go on: code() is 1016 no memory for the table of subroutines, 1020 a work file
// failed, 9999 a state that the technique cannot go on from: a module that failed where its value
// was needed, which the text names, or an inconsistency. All memory of the call has been released;
// the session goes on.
class FatalError : public Error {
 public:
  FatalError(int code, const std::string& text, std::vector<LogRecord> log)
      : Error(text, std::move(log)), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

// Thrown by a module that cannot be evaluated at a point: the technique then backs up. Returning
// the missing value, any other NaN, or an infinite value says the same.
class EvaluationFailed : public std::runtime_error {
 public:
  EvaluationFailed() : std::runtime_error("the module cannot be evaluated at this point") {}
  using std::runtime_error::runtime_error;
};

// ---- Sessions -----------------------------------------------------------------------------------

// What a subroutine takes.
struct Subroutine {
  enum class Argument { matrix, name };
  std::string name;
  int fewest = 0;                   // arguments
  int most = 0;                     // arguments
  std::vector<Argument> arguments;  // the kind of each of the most arguments
};

class Session {
 public:
  using Function = std::function<Matrix(const Matrix& x)>;
  using Termination = std::function<double(const Matrix& x, double crit)>;
  using Sink = std::function<void(std::string_view line)>;

  // A session that was moved from refuses everything with std::logic_error until another one is
  // moved into it. While a call runs on a session, from within its modules, assigning to it throws
  // std::logic_error; destroying it ends the run in order, and the caller gets a std::logic_error.
  Session();
  ~Session();
  Session(Session&&) noexcept;
  Session& operator=(Session&&);

  // Makes a module known under a name of 1 to 32 characters, upper and lower case being the same; a
  // module of that name is replaced. The body gets the point as a 1xn matrix, valid until it
  // returns, and answers a matrix of the shape that its role asks for. It may call subroutines, on
  // this session or another. An exception ends the run and reaches the caller of call as the same
  // object, except EvaluationFailed, which marks the point as one that cannot be evaluated.
  void module(std::string name, Function body);

  // A module that takes the place of the termination test: it gets the point and the objective
  // there, and answers the code of the test as a number (0 goes on).
  void termination_module(std::string name, Termination body);

  // Forgets a module. Returns whether there was one.
  bool remove_module(const std::string& name);
  bool has_module(const std::string& name) const;

  // Calls a subroutine by name (upper and lower case being the same) with positional arguments;
  // empty matrices stand for absent ones. The arguments are copied. Returns the results in order:
  // of the optimizers the return code of the run (1x1) and the final point (1xn). A run that ends
  // with a negative code is no error here.
  // Throws CallError when the call is refused (also when calls stand more than 100 deep inside one
  // another's modules), FatalError when it could not go on, and what a module threw;
  // std::logic_error when another thread is running a call on this session.
  std::vector<Matrix> call(std::string subroutine, std::vector<Matrix> arguments);

  // Gives the report to a function line by line while it is written, so that a long run can be
  // watched: the messages of the log when they are logged, the rows of the iteration history when
  // the iterations end, other tables when they are complete. Lines come without their line ends,
  // and read as in text_report; a view is valid until the function returns. Calls on this session
  // from within its modules write to the same sink. An exception of the sink ends the run like one
  // of a module. What the sink itself causes to be written on this session is not given to it. An
  // empty function ends the watching. A new sink takes over with the next line.
  //
  //   session.sink([](std::string_view line) { std::cerr << line << '\n'; });
  void sink(Sink write);

  // Log and tables of the last call. Every call that is not made from within a module of this
  // session clears both at its start; nested calls add to those of the call around them, as long as
  // these are short: beyond 10,000 lines and rows a nested call leaves nothing behind, and the log
  // tells how many did not.
  const std::vector<LogRecord>& log() const;
  const std::vector<Table>& tables() const;
  // Lines of the last call's report that stand outside of tables.
  const std::vector<LogRecord>& printed() const;

  // Runs of the modules and times of the last call, nested calls included.
  Work work() const;

  // A variable of the session, such as "_ITER_", the iteration of the run; a module may read it.
  // Empty when there is no variable of this name.
  Matrix variable(std::string name) const;

  // Sets a debug option of the module, such as "-nlpitermsg".
  void debug_option(std::string name, int value);

  // When on, a division by zero, an invalid operation or an overflow in a module is written to the
  // log and counts as a failed evaluation, whatever the module returns. Off at first.
  void trap_math_errors(bool on);

  // Bytes of memory that the work files of a call may take together, 1 GiB at first. They hold the
  // Jacobian of a least-squares run without a Jacobian module (about 16 bytes a nonzero), and
  // matrices of quadratics. A file that would grow beyond goes to a file without a name in the
  // directory of temporary files (TMPDIR), with the same results, and leaves nothing behind there.
  // A disk that is full or cannot be written ends the call with FatalError; the log tells why.
  void work_file_memory(std::size_t bytes);

  // The subroutines that can be called.
  static std::vector<Subroutine> subroutines();

  // For the tests of this library.
  embed::Task& task() { return live(); }
  const embed::Task& task() const { return live(); }

 private:
  embed::Task& live() const;  // refuses a session that was moved from

  std::shared_ptr<embed::Task> task_;  // a running call holds it too
};

// The last call of a session as text to read (log, then tables, then the work), as a JSON document,
// and single parts of it. In JSON, numbers that are not finite and empty cells are null.
std::string text_report(const Session& session);
std::string json_report(const Session& session);
std::string text_table(const Table& table);
std::string text_work(const Work& work);
std::string json_table(const Table& table);

}  // namespace tqnlp
