// Whole calls through the public interface: what it refuses, how a call ends, nested calls,
// threads, and the walk through every failure of the host. Rosenbrock's function with its
// derivatives serves as the problem: its run calls every kind of module many times.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cfenv>
#include <chrono>
#include <cmath>
#include <thread>

#include "embed/faults.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {
namespace {

using embed::Fault;

const Matrix START = Matrix::row({-1.2, 1.0});

double rosenbrock(const Matrix& x) {
  const double a = x(0, 0), b = x(0, 1);
  return 100 * (b - a * a) * (b - a * a) + (1 - a) * (1 - a);
}

Matrix gradient(const Matrix& x) {
  const double a = x(0, 0), b = x(0, 1);
  return Matrix::row({-400 * a * (b - a * a) - 2 * (1 - a), 200 * (b - a * a)});
}

Matrix hessian(const Matrix& x) {
  const double a = x(0, 0), b = x(0, 1);
  return Matrix::of({{1200 * a * a - 400 * b + 2, -400 * a}, {-400 * a, 200}});
}

void define(Session& session) {
  session.module("ROSEN", [](const Matrix& x) { return Matrix::scalar(rosenbrock(x)); });
  session.module("grad", gradient);
  session.module("Hess", hessian);
}

// Solves with the modules as they are defined in the session. print is the second option.
std::vector<Matrix> solve(Session& session, double print = 0, const char* test = nullptr) {
  return session.call("NLPNRR",
                      {"rosen", START, Matrix::row({0, print}), Matrix(), Matrix(), Matrix(),
                       test == nullptr ? Matrix() : Matrix(test), "GRAD", "HESS"});
}

bool is_solution(const std::vector<Matrix>& results) {
  return results.size() == 2 && results[0](0, 0) > 0 && std::fabs(results[1](0, 0) - 1) < 1e-4 &&
         std::fabs(results[1](0, 1) - 1) < 1e-4;
}

// After any call: nothing was left behind, and the session still solves.
void expect_usable(Session& session) {
  EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
  EXPECT_EQ(embed::counters(session.task()).files_left, 0);
  define(session);
  EXPECT_TRUE(is_solution(solve(session)));
  EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() { define(session); }
  Session session;
};

TEST_F(SessionTest, SolvesAndKeepsTheArgumentsOfItsCaller) {
  const Matrix start = START;
  EXPECT_TRUE(is_solution(solve(session)));
  EXPECT_EQ(start, START);
  EXPECT_TRUE(session.tables().empty());
  EXPECT_TRUE(is_solution(solve(session, 5)));
  EXPECT_FALSE(session.tables().empty());
  EXPECT_FALSE(session.log().empty());
  for (const LogRecord& line : session.log())
    EXPECT_FALSE(line.text.starts_with("message ")) << line.text << " has no text";
  for (const Table& table : session.tables())
    for (const auto& row : table.rows) EXPECT_EQ(row.size(), table.columns.size()) << table.name;
  solve(session);
  EXPECT_TRUE(session.tables().empty()) << "tables are those of the last call";
  EXPECT_EQ(session.variable("_iter_").size(), 1);
  EXPECT_TRUE(session.variable("OTHER").empty());
}

TEST_F(SessionTest, RefusalsNameTheArgument) {
  struct Row {
    const char* subroutine;
    std::vector<Matrix> arguments;
    int code;
    const char* text;
  };
  const std::string long_name(33, 'A');
  const Row rows[] = {
      {"NLPXX", {"ROSEN", START}, 6, "NLPQN"},
      {"NLPNRR", {"ROSEN"}, 6, "at least 2 arguments"},
      {"NLPNRR", std::vector<Matrix>(10), 6, "at most 9 arguments"},
      {"NLPNRR", {START, START}, 6, "argument 1 must be the name of the module of the objective"},
      {"NLPNRR", {"ROSEN", "START"}, 6, "argument 2 (x0, the start point) must be a numeric"},
      {"NLPNRR",
       {"ROSEN", START, {}, {}, {}, {}, {}, START},
       6,
       "a numeric 1 by 2 matrix is given"},
      {"NLPNRR", {"NOWHERE", START}, 3, "there is no module \"NOWHERE\""},
      {"NLPNRR", {"ROSEN", START, {}, {}, {}, {}, "GRAD"}, 3, "\"GRAD\" is no termination module"},
      {"NLPNRR", {Matrix(long_name), START}, 6, "a text of 33 characters"},
      {"NLPNRR", {Matrix(""), START}, 6, "a text of 0 characters"},
      {"NLPNRR", {"ROSEN", START, {}, Matrix(2, 5)}, 6, "it is a 2 by 5 numeric matrix"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.subroutine) + ", " + row.text);
    try {
      session.call(row.subroutine, row.arguments);
      ADD_FAILURE() << "was not refused";
    } catch (const CallError& error) {
      EXPECT_EQ(error.code(), row.code) << error.what();
      EXPECT_NE(std::string(error.what()).find(row.text), std::string::npos) << error.what();
      EXPECT_FALSE(error.log().empty());
      EXPECT_EQ(error.log().size(), session.log().size());
    }
    EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
  }
  expect_usable(session);
  EXPECT_THROW(session.module(long_name, hessian), std::invalid_argument);
  EXPECT_THROW(session.module("  ", hessian), std::invalid_argument);
  EXPECT_THROW(session.module("A", nullptr), std::invalid_argument);
  EXPECT_TRUE(session.has_module("hess"));
  EXPECT_TRUE(session.remove_module("HESS"));
  EXPECT_THROW(solve(session), CallError);
}

// An exception of a module that no library knows.
struct Private {
  int value;
};

TEST_F(SessionTest, AnExceptionReachesTheCallerFromEveryRole) {
  int later = 0;  // evaluations after the exception
  const auto thrower = [&later](int good_calls) {
    return [&later, good_calls, calls = 0](const Matrix& x) mutable -> Matrix {
      if (calls > good_calls) ++later;
      if (calls++ == good_calls) throw Private{good_calls};
      return Matrix::scalar(rosenbrock(x));
    };
  };
  for (const int good_calls : {0, 1, 5, 20}) {
    session.module("ROSEN", thrower(good_calls));
    try {
      solve(session, 5);
      ADD_FAILURE() << "no exception";
    } catch (const Private& caught) {
      EXPECT_EQ(caught.value, good_calls);
    }
    EXPECT_EQ(later, 0) << "a module ran after the exception";
    expect_usable(session);
  }
  // The object is the same one, not a copy.
  const std::exception_ptr thrown = std::make_exception_ptr(std::runtime_error("mine"));
  const auto role = [&thrown](const Matrix&) -> Matrix { std::rethrow_exception(thrown); };
  session.termination_module(
      "STOP", [&thrown](const Matrix&, double) -> double { std::rethrow_exception(thrown); });
  const void* original = nullptr;
  try {
    std::rethrow_exception(thrown);
  } catch (const std::runtime_error& error) {
    original = &error;
  }
  for (const char* name : {"ROSEN", "GRAD", "HESS", "STOP"}) {
    SCOPED_TRACE(name);
    define(session);
    const bool is_test = std::string(name) == "STOP";
    if (!is_test) session.module(name, role);
    try {
      solve(session, 0, is_test ? "STOP" : nullptr);
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(&error, original);
    }
    expect_usable(session);
  }
}

TEST_F(SessionTest, PointsThatCannotBeEvaluatedAreBackedAwayFrom) {
  for (const int way : {0, 1, 2}) {
    int failed = 0;
    session.module("ROSEN", [&failed, way](const Matrix& x) {
      // The first full step from the start leads near here.
      if (x(0, 0) > -1.19 && x(0, 0) < -1.0 && ++failed > 0) {
        if (way == 0) throw EvaluationFailed("no value");
        return Matrix::scalar(way == 1 ? missing : std::nan(""));
      }
      return Matrix::scalar(rosenbrock(x));
    });
    EXPECT_NO_THROW(solve(session)) << way;
    EXPECT_GT(failed, 0) << "the region was not met";
    expect_usable(session);
  }
  // A point that can never be evaluated ends the run with a code, not with an exception.
  session.module("ROSEN", [](const Matrix&) -> Matrix { throw EvaluationFailed(); });
  const auto results = solve(session);
  EXPECT_LT(results.at(0)(0, 0), 0);
  expect_usable(session);
}

TEST_F(SessionTest, ModulesMayCallSubroutines) {
  const auto plain = solve(session);
  Session other;
  define(other);
  int nested = 0;
  double largest_iteration = 0;
  const double* argument = nullptr;
  session.module("OUTER", [&](const Matrix& x) {
    // The same matrix at every evaluation: none is made anew.
    EXPECT_TRUE(argument == nullptr || argument == x.data());
    argument = x.data();
    largest_iteration = std::max(largest_iteration, session.variable("_ITER_")(0, 0));
    ++nested;
    EXPECT_TRUE(nested % 4 != 1 || is_solution(solve(other)));
    EXPECT_TRUE(nested % 4 != 3 || is_solution(solve(session)));
    try {
      if (nested % 4 == 0) session.call("NLPNRR", {"NOWHERE", START});
    } catch (const CallError&) {  // the nested call's own error
    }
    return Matrix::scalar(rosenbrock(x));
  });
  const auto results = session.call("NLPNRR", {"OUTER", START, {}, {}, {}, {}, {}, "GRAD", "HESS"});
  EXPECT_TRUE(is_solution(results));
  EXPECT_EQ(results[1], plain[1]) << "nested calls disturb the outer run";
  EXPECT_GT(nested, 4);
  EXPECT_GT(largest_iteration, 1);
  EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
  // A module that calls itself through a subroutine is stopped before the stack is used up.
  session.module("SELF", [this](const Matrix& x) {
    return session.call("NLPNRR", {"SELF", x, {}, {}, {}, {}, {}, "GRAD", "HESS"})[1];
  });
  try {
    session.call("NLPNRR", {"SELF", START, {}, {}, {}, {}, {}, "GRAD", "HESS"});
    ADD_FAILURE() << "no error";
  } catch (const CallError& error) {
    EXPECT_NE(std::string(error.what()).find("deep"), std::string::npos);
  }
  expect_usable(session);
  // An exception passes through both calls.
  session.module("INNER", [](const Matrix&) -> Matrix { throw Private{7}; });
  session.module("OUTER", [this](const Matrix&) {
    return session.call("NLPNRR", {"INNER", START, {}, {}, {}, {}, {}, "GRAD", "HESS"})[0];
  });
  EXPECT_THROW(session.call("NLPNRR", {"OUTER", START, {}, {}, {}, {}, {}, "GRAD", "HESS"}),
               Private);
  expect_usable(session);
}

TEST_F(SessionTest, ThreadsRunSideBySide) {
  const auto alone = solve(session, 5);
  const std::string report = text_report(session);
  std::atomic<int> same{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      Session own;
      define(own);
      for (int i = 0; i < 20; ++i)
        if (solve(own, 5) == alone && own.log().size() == session.log().size()) ++same;
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(same, 80);
  // One session serves one thread at a time.
  bool refused = false;
  session.module("ROSEN", [this, &refused](const Matrix& x) {
    std::thread([this, &refused] {
      try {
        session.call("NLPNRR", {"ROSEN", START});
      } catch (const std::logic_error&) {
        refused = true;
      }
    }).join();
    return Matrix::scalar(rosenbrock(x));
  });
  EXPECT_TRUE(is_solution(solve(session)));
  EXPECT_TRUE(refused);
}

TEST_F(SessionTest, MathErrorsAreTrappedOnDemand) {
  volatile double zero = 0.0;
  const auto with_error = [&](int kind) {
    session.module("ROSEN", [&zero, kind](const Matrix& x) {
      volatile double sink = 1.0;
      if (kind == 13) sink = sink / zero;
      if (kind == 1) sink = zero / zero;
      if (kind == 3) sink = std::exp(1000.0 + zero);
      return Matrix::scalar(rosenbrock(x));
    });
  };
  const auto has_line = [this](const char* text) {
    for (const LogRecord& line : session.log())
      if (line.text.find(text) != std::string::npos) return true;
    return false;
  };
  struct Row {
    int kind;
    const char* text;
  };
  for (const Row row : {Row{13, "Division by 0"}, Row{1, "Domain"}, Row{3, "Overflow"}}) {
    SCOPED_TRACE(row.text);
    with_error(row.kind);
    session.trap_math_errors(false);
    EXPECT_TRUE(is_solution(solve(session)));
    session.trap_math_errors(true);
    const auto results = solve(session);
    EXPECT_LT(results.at(0)(0, 0), 0);
    EXPECT_TRUE(has_line(row.text)) << text_report(session);
    expect_usable(session);
  }
  // A nested call's own arithmetic is no error of the module, and flags of the caller stay.
  session.module("ROSEN", [this](const Matrix& x) {
    session.module("EASY", [](const Matrix& y) { return Matrix::scalar(rosenbrock(y)); });
    session.call("NLPNRR", {"EASY", START, {}, {}, {}, {}, {}, "GRAD", "HESS"});
    return Matrix::scalar(rosenbrock(x));
  });
  std::feclearexcept(FE_ALL_EXCEPT);
  std::feraiseexcept(FE_UNDERFLOW);
  EXPECT_TRUE(is_solution(solve(session)));
  EXPECT_EQ(std::fetestexcept(FE_UNDERFLOW | FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW),
            FE_UNDERFLOW);
}

TEST_F(SessionTest, TerminationModuleTakesThePlaceOfTheTest) {
  std::vector<double> values;
  session.termination_module("Stop", [&values](const Matrix& x, double crit) {
    EXPECT_EQ(crit, rosenbrock(x));
    values.push_back(crit);
    return values.size() < 4 ? 0.0 : 7.9;
  });
  const auto results = solve(session, 5, "stop");
  EXPECT_EQ(results.at(0)(0, 0), 7) << "the answer is cut to a whole number";
  ASSERT_GE(values.size(), 4u);
  EXPECT_LT(values[3], values[0]);
  EXPECT_THROW(session.call("NLPNRR", {"STOP", START}), CallError) << "not an objective";
}

// A nested call writes to the sink of its session among the rows of the outer history; the headings
// come again, and every line keeps its columns.
TEST_F(SessionTest, TheSinkFollowsNestedCalls) {
  std::vector<std::string> lines;
  session.sink([&](std::string_view line) {
    lines.emplace_back(line);
    if (lines.size() == 3) solve(session, 1);  // what the sink causes is not given to it
  });
  int evaluations = 0;
  session.module("OUTER", [&](const Matrix& x) {
    if (++evaluations == 20) solve(session, 1);
    return Matrix::scalar(rosenbrock(x));
  });
  session.call("NLPNRR", {"OUTER", START, Matrix::row({0, 1}), {}, {}, {}, {}, "GRAD", "HESS"});
  const auto count = [&lines](const std::string& wanted) {
    return std::count(lines.begin(), lines.end(), wanted);
  };
  EXPECT_EQ(count("Iteration history"), 2);
  EXPECT_EQ(count("End of the optimization"), 2);
  std::size_t rule = 0;
  long headings = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].starts_with("  -----  ---  ----")) rule = lines[i].size(), ++headings;
    if (rule != 0 && lines[i].empty()) rule = 0;
    EXPECT_TRUE(rule == 0 || lines[i].size() == rule) << lines[i];
  }
  EXPECT_EQ(headings, 3);
  EXPECT_EQ(session.work().modules.size(), 4U);
  session.sink(nullptr);
  lines.clear();
  solve(session, 1);
  EXPECT_TRUE(lines.empty());
}

// The sink throws at each of its lines in turn, from an outer and from a nested call.
TEST_F(SessionTest, AnExceptionOfTheSinkEndsTheRunInOrder) {
  const auto nested = [this](const Matrix& x) {
    session.remove_module("NEST");  // a prepared call goes on with it
    solve(session, 4);
    return Matrix::scalar(rosenbrock(x));
  };
  bool threw = true;
  long k = 0;
  for (; threw && k < 2000; ++k) {
    SCOPED_TRACE(k);
    define(session);
    session.module("NEST", nested);
    long left = k, after = 0;
    threw = false;
    session.sink([&](std::string_view) {
      if (threw) ++after;
      if (left-- > 0) return;
      threw = true;
      throw Private{static_cast<int>(k)};
    });
    try {
      session.call("NLPNRR", {k % 2 == 0 ? "NEST" : "ROSEN",
                              START,
                              Matrix::row({0, 4}),
                              {},
                              {},
                              {},
                              {},
                              "GRAD",
                              "HESS"});
      EXPECT_FALSE(threw);
    } catch (const Private& caught) {
      EXPECT_EQ(caught.value, k);
    }
    EXPECT_EQ(after, 0) << "the sink got a line after its exception";
    EXPECT_EQ(threw, text_report(session).find("The sink threw an exception") != std::string::npos);
    session.sink(nullptr);
    if (k % 10 == 0) expect_usable(session);
  }
  EXPECT_GT(k, 100);
}

TEST_F(SessionTest, WorkCountsRunsAndFailures) {
  int runs = 0, failures = 0;
  session.module("ROSEN", [&](const Matrix& x) {
    ++runs;
    if (x(0, 0) > -1.19 && x(0, 0) < -1.0) return ++failures, Matrix::scalar(missing);
    return Matrix::scalar(rosenbrock(x));
  });
  solve(session, 1);
  const Work work = session.work();
  ASSERT_EQ(work.modules.size(), 3U);
  EXPECT_EQ(work.modules[0].name, "ROSEN");
  EXPECT_EQ(work.modules[0].calls, runs);
  EXPECT_EQ(work.modules[0].failed, failures);
  EXPECT_GT(failures, 0);
  EXPECT_EQ(work.modules[2].failed, 0);
  EXPECT_GT(work.seconds_in_library, 0.0);
  EXPECT_NE(json_report(session).find("{\"name\": \"ROSEN\", \"calls\": " + std::to_string(runs)),
            std::string::npos);
  // Time belongs to who spends it, also when a module makes a call.
  session.module("SLOW", [](const Matrix& x) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return Matrix::scalar(x(0, 0));
  });
  session.module("AROUND", [this](const Matrix& x) {
    return session.call("NLPFDD", {"SLOW", x})[0];
  });
  session.call("NLPFDD", {"AROUND", Matrix::scalar(1)});
  for (const ModuleWork& module : session.work().modules) {
    EXPECT_EQ(module.seconds > 0.02, module.name == "SLOW") << module.name << module.seconds;
  }
}

// Plans the failure of operation k of a kind (or of all from the k-th on), for k = 0, 1, 2 ...
// until a run does not meet it. Every run ends in one of the ways that are promised and leaves
// nothing behind.
class FaultWalk : public testing::TestWithParam<std::tuple<Fault, bool>> {};

TEST_P(FaultWalk, EveryFailureLeavesAUsableSession) {
  const auto [kind, onwards] = GetParam();
  Session session;
  define(session);
  const auto reference = solve(session, 5);
  long k = 0;
  for (bool met = true; met && k < 5000 && !HasFailure(); ++k) {
    SCOPED_TRACE("operation " + std::to_string(k));
    const long before = embed::operations(session.task(), kind);
    embed::plan_fault(session.task(), kind, k, onwards);
    try {
      EXPECT_EQ(solve(session, 5).size(), 2u);
    } catch (const CallError& error) {
      const int expected = kind == Fault::allocation ? 1 : 100;
      EXPECT_EQ(error.code(), expected) << error.what();
      EXPECT_NE(kind, Fault::module_call);
    } catch (const FatalError& error) {
      const int expected = kind == Fault::allocation ? 1016 : 9999;
      EXPECT_EQ(error.code(), expected) << error.what();
      EXPECT_FALSE(session.log().empty());
      EXPECT_NE(kind, Fault::module_call);
    }
    met = embed::operations(session.task(), kind) - before > k;
    embed::clear_faults(session.task());
    EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
    EXPECT_EQ(solve(session, 5), reference);
  }
  EXPECT_GT(k, 10);
  EXPECT_LT(k, 5000);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FaultWalk,
                         testing::Combine(testing::Values(Fault::allocation, Fault::module_call,
                                                          Fault::report),
                                          testing::Bool()));

}  // namespace
}  // namespace tqnlp
