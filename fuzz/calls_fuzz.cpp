// Whole calls of the public interface, decoded from a byte string: a subroutine of the table, its
// arguments in any shape and with any values, modules that do as they should and modules that fail,
// throw, give wrong shapes or call subroutines themselves.
//
// What must hold after each, whatever the call was:
//   - only the documented errors come out, and of foreign exceptions only one that a module threw;
//   - the session works: a fixed call gives the same results and report as in a fresh session;
//   - nothing is left behind, and the work is bounded by the limits of the call;
//   - a positive code comes with a finite point, where the objective, computed apart from the
//     modules, is finite, and which satisfies bounds and linear constraints.
// Every subroutine of the table takes part; those that are not built yet refuse their calls.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>

#include "bytes.h"
#include "embed/faults.h"
#include "problem.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::fuzz {

static constexpr long MOST_RUNS = 200000;  // of modules in a call; its own limits lie far below
static constexpr int MOST_NESTED = 3;      // calls by modules of a call, each of some fifty runs

// With TQNLP_FUZZ_TELL set, calls are told in words: for reading a reproducer.
static const bool telling = std::getenv("TQNLP_FUZZ_TELL") != nullptr;

[[noreturn]] static void fail(const std::string& what, const Session& session) {
  std::cerr << "FAULT: " << what << "\n" << text_report(session);
  std::abort();
}

// ---- The fixed call -----------------------------------------------------------------------------

static void define_reference(Session& session) {
  session.module("REF", [](const Matrix& x) {
    const double a = x[1] - x[0] * x[0], b = 1 - x[0];
    return Matrix{100 * a * a + b * b};
  });
}

// Results and report, without the times.
static std::string reference_call(Session& session) {
  const Matrix blc{
      {-2, missing, missing, missing}, {missing, 3, missing, missing}, {1, 1, -1, 1.5}};
  const auto results = session.call("NLPNRR", {"REF", {-1.2, 1}, {0, 3}, blc});
  std::string text;
  for (const Matrix& result : results)
    for (const double value : result) {
      char digits[40];
      std::snprintf(digits, sizeof digits, "%a ", value);
      text += digits;
    }
  for (const LogRecord& line : session.log()) text += line.text + "\n";
  for (const Table& table : session.tables()) text += json_table(table);
  return text;
}

static const std::string& expected_reference() {
  static const std::string expected = [] {
    Session fresh;
    define_reference(fresh);
    return reference_call(fresh);
  }();
  return expected;
}

// ---- Modules ------------------------------------------------------------------------------------

// What the modules of a call share.
struct State {
  Session session, other;
  Problem problem;
  bool squares = false;  // the objective's module gives residuals
  bool lies = false;     // and at times values of its own, which the run has to believe
  long runs = 0;
  int nested = 0;
  bool threw = false;
};

static Matrix misbehave(State& state, Misbehaviour::Kind kind, const Matrix& right) {
  const long rows = right.rows(), cols = right.cols();
  Matrix wrong = right;
  switch (kind) {
    case Misbehaviour::gives_missing:
      if (!wrong.empty()) wrong[0] = missing;
      return wrong;
    case Misbehaviour::gives_infinity:
      return Matrix::filled(rows, cols, -HUGE_VAL);
    case Misbehaviour::gives_huge:
      return Matrix::filled(rows, cols, -1e308);
    case Misbehaviour::gives_nonsense:
      for (double& value : wrong) value = 1 - 3 * value;
      return wrong;
    case Misbehaviour::wrong_shape:
      return Matrix(rows + 1, cols);
    case Misbehaviour::gives_name:
      return "NAME";
    case Misbehaviour::gives_nothing:
      return {};
    case Misbehaviour::cannot_evaluate:
      throw EvaluationFailed();
    case Misbehaviour::throws_foreign:
      state.threw = true;
      throw Foreign{7};
    default:
      break;
  }
  if (state.nested++ < MOST_NESTED) {
    Session& session = kind == Misbehaviour::calls_again ? state.session : state.other;
    reference_call(session);
  }
  return right;
}

// Counts the runs of a module and lets it misbehave when it is time.
template <class Right>
static auto faulty(State& state, Misbehaviour fault, Right right) {
  return [&state, fault, right, run = 0](const Matrix& x) mutable -> Matrix {
    if (++state.runs > MOST_RUNS) fail("the call does not end", state.session);
    const bool now = fault.onwards ? run >= fault.first : run == fault.first;
    ++run;
    return now ? misbehave(state, fault.kind, right(x)) : right(x);
  };
}

// The termination module ends every run after some iterations.
static void define_termination(State& state, Bytes& bytes) {
  const Misbehaviour fault = read_misbehaviour(bytes);
  const int last = bytes.below(30);
  const double code = bytes.number();
  auto body = faulty(state, fault, [](const Matrix&) { return Matrix{0}; });
  state.session.termination_module("STOP",
                                   [body, last, code, run = 0](const Matrix& x, double) mutable {
                                     if (run++ >= last) return run > last + 5 ? -9.0 : code;
                                     const Matrix answer = body(x);
                                     return answer.is_scalar() ? answer[0] : missing;
                                   });
}

static void define_modules(State& state, Bytes& bytes) {
  const Problem& problem = state.problem;
  Session& session = state.session;
  const Misbehaviour fault = read_misbehaviour(bytes);
  state.lies = fault.kind == Misbehaviour::gives_huge || fault.kind == Misbehaviour::gives_nonsense;
  // A start of another length than the problem has: the modules know nothing there.
  const auto knows = [&problem](const Matrix& x) { return x.size() == problem.n; };
  session.module("FUN", faulty(state, fault, [&state, knows](const Matrix& x) {
                   if (!knows(x)) return Matrix{missing};
                   return state.squares ? state.problem.residuals(x)
                                        : Matrix{state.problem.objective(x)};
                 }));
  const auto define = [&](const char* name, auto method) {
    session.module(
        name, faulty(state, read_misbehaviour(bytes), [&problem, method, knows](const Matrix& x) {
          return knows(x) ? (problem.*method)(x) : Matrix{missing};
        }));
  };
  define("GRD", &Problem::gradient);
  define("HES", &Problem::hessian);
  define("JAC", &Problem::jacobian);
  define("NLC", &Problem::constraints);
  define("JNC", &Problem::constraint_jacobian);
  define_termination(state, bytes);
}

// ---- Arguments ----------------------------------------------------------------------------------

// What the arguments of a subroutine hold, a letter each. A row that the table has and this list
// has not is called by the kinds of its arguments.
static const std::map<std::string, const char*> roles_of = {
    {"NLPFDD", "fxdg"},      {"NLPFEA", "xbp"},        {"NLPQUA", "qxobtpsl"},
    {"NLPNMS", "fxobtpsc"},  {"NLPVMC", "fxobtpsgck"}, {"NLPCG", "fxobtpsg"},
    {"NLPQN", "fxobtpsgck"}, {"NLPDD", "fxobtpsg"},    {"NLPTR", "fxobtpsgh"},
    {"NLPNRA", "fxobtpsgh"}, {"NLPNRR", "fxobtpsgh"},  {"NLPLM", "fxobtpsj"},
    {"NLPHQN", "fxobtpsj"}};

static std::string roles(const Subroutine& subroutine) {
  const auto found = roles_of.find(subroutine.name);
  if (found != roles_of.end()) return found->second;
  std::string letters;
  for (const auto kind : subroutine.arguments)
    letters += kind == Subroutine::Argument::name ? 'f' : 'x';
  return letters;
}

static Matrix any_matrix(Bytes& bytes, long rows, long cols) {
  Matrix matrix(rows, cols);
  for (double& value : matrix) value = bytes.number();
  return matrix;
}

static Matrix options(const State& state, Bytes& bytes) {
  static constexpr double CHOICES[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 12, 21, 31, -1, 1e300};
  Matrix opt = Matrix::filled(1, bytes.below(13), missing);
  for (double& value : opt) {
    if (bytes.one_in(2)) value = bytes.pick(CHOICES);
    if (bytes.one_in(16)) value = bytes.number();
  }
  if (opt.size() > 0 && state.squares) opt[0] = static_cast<double>(state.problem.m);
  if (opt.size() > 8 && !bytes.one_in(8)) opt[8] = 0;
  if (opt.size() > 9) opt[9] = static_cast<double>(state.problem.nnlc);
  if (opt.size() > 10) opt[10] = bytes.below(2);
  return opt;
}

// Bounds and rows; most cells are empty or tame, so that many regions have an inside.
static Matrix constraints(const State& state, Bytes& bytes) {
  const long rows = bytes.below(7), n = state.problem.n;
  if (rows == 0) return {};
  Matrix blc = Matrix::filled(rows, n + 2, missing);
  for (long i = 0; i < rows; ++i) {
    for (long j = 0; j < n; ++j) {
      if (bytes.one_in(2))
        blc(i, j) = i < 2 ? bytes.tame() / 4 + (i == 0 ? -2.0 : 2.0) : bytes.tame();
      if (bytes.one_in(32)) blc(i, j) = bytes.number();
    }
    if (i < 2) continue;
    blc(i, n) = bytes.one_in(32) ? bytes.number() : 1 - bytes.below(3);
    blc(i, n + 1) = bytes.one_in(32) ? bytes.number() : bytes.tame();
  }
  return blc;
}

static Matrix termination(Bytes& bytes) {
  static const double tolerances[] = {0, 1e-8, 1e-3, 1e-14, -1, 1e300, 5e-324, missing, HUGE_VAL};
  const int length = bytes.pick({0, 2, 13, 20});
  Matrix tc = Matrix::filled(1, length, missing);
  for (double& value : tc)
    if (bytes.one_in(4)) value = bytes.pick(tolerances);
  if (length > 1) tc[0] = bytes.below(60), tc[1] = bytes.byte() * 2;
  return tc;
}

static Matrix parameters(Bytes& bytes) {
  static const double choices[] = {1e-8, 1e-4, 1e-12, 0.5, 1, 3, 0, -1, 10, 100, 1e300, 1e-300};
  Matrix par = Matrix::filled(1, bytes.below(11), missing);
  for (double& value : par)
    if (bytes.one_in(2)) value = bytes.one_in(8) ? bytes.number() : bytes.pick(choices);
  return par;
}

static Matrix argument(const State& state, char role, Bytes& bytes) {
  const long n = state.problem.n;
  if (bytes.one_in(48)) return any_matrix(bytes, bytes.below(5), bytes.below(8));
  const auto given = [&bytes](const char* name) {
    return bytes.one_in(2) ? Matrix(name) : Matrix();
  };
  switch (role) {
    case 'f':
      return "FUN";
    case 'x': {
      Matrix x(1, n);
      for (double& value : x) value = bytes.one_in(24) ? bytes.number() : bytes.tame();
      return bytes.one_in(4) ? x.transposed() : x;
    }
    case 'o':
      return options(state, bytes);
    case 'b':
      return constraints(state, bytes);
    case 't':
      return termination(bytes);
    case 'p':
      return parameters(bytes);
    case 'd':
      return {1, bytes.below(40), bytes.number()};
    case 'q':
      return bytes.one_in(4) ? any_matrix(bytes, n, n)
                             : state.problem.hessian(Matrix::filled(1, n, 1));
    case 'l':
      return any_matrix(bytes, 1, n + bytes.below(2));
    case 's':
      return bytes.one_in(4) ? Matrix("STOP") : Matrix();
    case 'g':
      return given("GRD");
    case 'h':
      return given("HES");
    case 'j':
      return given("JAC");
    case 'c':
      return given("NLC");
    default:
      return given("JNC");
  }
}

// ---- A call and what must hold after it ---------------------------------------------------------

struct Call {
  std::string name, roles;
  std::vector<Matrix> arguments;

  // The argument of a role; empty when it was not given.
  Matrix of(char role) const {
    const std::size_t place = roles.find(role);
    return place < arguments.size() ? arguments[place] : Matrix();
  }
};

static Call read_call(State& state, Bytes& bytes) {
  static const std::vector<Subroutine> table = Session::subroutines();
  const Subroutine& row =
      table[static_cast<std::size_t>(bytes.below(static_cast<int>(table.size())))];
  Call call{row.name, roles(row), {}};
  state.squares = call.roles.find('j') != std::string::npos;
  state.problem = read_problem(bytes);
  define_reference(state.session);
  define_reference(state.other);
  define_modules(state, bytes);
  std::size_t count = call.roles.size();
  if (bytes.one_in(4)) count = static_cast<std::size_t>(bytes.below(static_cast<int>(count) + 2));
  for (std::size_t k = 0; k < count; ++k)
    call.arguments.push_back(argument(state, k < call.roles.size() ? call.roles[k] : 'x', bytes));
  return call;
}

static void tell(const Call& call, const State& state) {
  std::cerr << call.name << " family " << state.problem.family << " coupling "
            << state.problem.coupling << " a " << Matrix::row(state.problem.a);
  for (const Matrix& value : call.arguments)
    std::cerr << "-- " << value.rows() << "x" << value.cols() << "\n" << value << "\n";
}

// The results, or nothing where the call ended by an error that may come out.
static std::optional<std::vector<Matrix>> run(const Call& call, State& state) {
  try {
    return state.session.call(call.name, call.arguments);
  } catch (const CallError& error) {
    const int code = error.code();
    if (code != 1 && code != 3 && code != 6)
      fail("refused with " + std::to_string(code), state.session);
  } catch (const FatalError& error) {
    fail(std::string("no host service failed, but ") + error.what(), state.session);
  } catch (const Foreign&) {
    if (!state.threw) fail("an exception that no module threw", state.session);
  }
  return std::nullopt;
}

// Largest violation of bounds and rows beside their size. Rows of one coefficient replace bounds,
// and bounds that cross fix a parameter at one of them: these are not looked at.
static double violation(const Matrix& blc, const Matrix& x) {
  const long n = x.size();
  if (blc.rows() < 1 || blc.cols() < n) return 0.0;
  std::vector<bool> replaced(static_cast<std::size_t>(n), false);
  double worst = 0.0;
  for (long i = 2; i < blc.rows(); ++i) {
    const double b = std::isnan(blc(i, n + 1)) ? 0.0 : blc(i, n + 1);
    double value = 0.0, size = 1 + std::fabs(b);
    long coefficients = 0, last = 0;
    for (long j = 0; j < n; ++j) {
      if (std::isnan(blc(i, j)) || blc(i, j) == 0.0) continue;
      value += blc(i, j) * x[j];
      size += std::fabs(blc(i, j) * x[j]);
      ++coefficients, last = j;
    }
    if (coefficients == 1) replaced[static_cast<std::size_t>(last)] = true;
    if (coefficients < 2) continue;
    const double off = blc(i, n) == 0.0 ? std::fabs(value - b) : blc(i, n) * (b - value);
    worst = std::max(worst, off / size);
  }
  for (long j = 0; j < n; ++j) {
    const double lower = blc(0, j), upper = blc.rows() > 1 ? blc(1, j) : missing;
    if (replaced[static_cast<std::size_t>(j)] || lower * (1 + 1e-7) > upper || lower > upper)
      continue;
    const double size = 1 + std::fabs(x[j]);
    if (lower > x[j]) worst = std::max(worst, (lower - x[j]) / size);
    if (upper < x[j]) worst = std::max(worst, (x[j] - upper) / size);
  }
  return worst;
}

static bool logged(const Session& session, int group, int number) {
  return std::any_of(session.log().begin(), session.log().end(), [=](const LogRecord& line) {
    return line.group == group && line.number == number;
  });
}

// The tolerance that the call asked for, with room for its scaling. A run that says that it is
// feasible within a wider one only has told the truth.
static void check_feasible(const Call& call, const Session& session, const Matrix& x) {
  static constexpr int FEASIBLE_WITHIN_WIDER = 137, NOT_FEASIBLE = 253, ROWS_DROPPED = 135;
  const Matrix par = call.of('p');
  const long place = call.name == "NLPFEA" ? 0 : 2;
  double tolerance = par.size() > place && std::isfinite(par[place]) ? par[place] : 1e-8;
  tolerance = std::max(100 * tolerance, 1e-12);
  for (const int number : {FEASIBLE_WITHIN_WIDER, NOT_FEASIBLE, ROWS_DROPPED})
    if (logged(session, 549, number)) return;
  const double worst = violation(call.of('b'), x);
  if (!(worst <= tolerance)) fail("infeasible by " + std::to_string(worst), session);
}

static bool all_finite(const Matrix& x) {
  return std::all_of(x.begin(), x.end(), [](double value) { return std::isfinite(value); });
}

static void check_results(const Call& call, const State& state,
                          const std::vector<Matrix>& results) {
  const Session& session = state.session;
  if (call.name == "NLPFDD") return;
  const Matrix& x = results.back();
  if (call.name == "NLPFEA") {
    if (!std::isnan(x[0])) check_feasible(call, session, x);
    return;
  }
  if (results.size() != 2 || x.size() != call.of('x').size())
    fail("results of another shape", session);
  const bool own_test = call.of('s').is_character();
  if (!own_test && results[0][0] == 0.0) fail("code 0", session);
  if (!(results[0][0] > 0)) return;
  if (!all_finite(x)) fail("a positive code at no point", session);
  const bool finite = state.lies || call.roles[0] != 'f' ||
                      (state.squares ? all_finite(state.problem.residuals(x))
                                     : std::isfinite(state.problem.objective(x)));
  if (!finite) fail("a positive code where the objective has no value", session);
  if (!own_test) check_feasible(call, session, x);
}

static void check_session(State& state) {
  if (embed::counters(state.session.task()).blocks_left != 0)
    fail("memory left behind", state.session);
  if (json_report(state.session).empty()) fail("no report", state.session);
  state.nested = MOST_NESTED;
  if (reference_call(state.session) != expected_reference())
    fail("the fixed call gives something else afterwards", state.session);
}

static void run_one(Bytes bytes) {
  State state;
  const Call call = read_call(state, bytes);
  if (telling) tell(call, state);
  const auto results = run(call, state);
  if (telling) std::cerr << text_report(state.session);
  if (results) check_results(call, state, *results);
  check_session(state);
}

}  // namespace tqnlp::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  tqnlp::fuzz::run_one({data, size});
  return 0;
}
