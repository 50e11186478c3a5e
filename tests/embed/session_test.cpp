// Whole calls through the public interface: what it refuses, how a call ends, nested calls,
// threads, the sink. Rosenbrock's function with its derivatives serves as the problem: its run
// calls every kind of module many times. (tests/techniques walks through the failures of host and
// modules.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>

#include "embed/faults.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {
namespace {

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

// Minimizes the objective of a name with the derivatives in the session. print is the second
// option.
std::vector<Matrix> solve(Session& session, double print = 0, const char* objective = "rosen",
                          const Matrix& test = {}) {
  return session.call(
      "NLPNRR", {objective, START, Matrix::row({0, print}), {}, {}, {}, test, "GRAD", "HESS"});
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

TEST_F(SessionTest, LogAndTablesAreThoseOfTheLastCall) {
  EXPECT_TRUE(is_solution(solve(session, 5)));
  EXPECT_FALSE(session.tables().empty() || session.log().empty());
  for (const LogRecord& line : session.log())
    EXPECT_FALSE(line.text.starts_with("message ")) << line.text << " has no text";
  for (const Table& table : session.tables())
    for (const auto& row : table.rows) EXPECT_EQ(row.size(), table.columns.size()) << table.name;
  solve(session);
  EXPECT_TRUE(session.tables().empty());
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
      {"NLPNRR", {"ROSEN", "START"}, 6, "argument 2 (x0, the start point) must be a numeric"},
      {"NLPNRR", {"ROSEN", START, {}, {}, {}, {}, {}, START}, 6, "a numeric 1 by 2 matrix is"},
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

TEST_F(SessionTest, ACallThatCannotGoOnIsAFatalError) {
  embed::plan_fault(session.task(), embed::Fault::allocation, 0);
  try {
    solve(session);
    ADD_FAILURE() << "no error";
  } catch (const FatalError& error) {
    EXPECT_EQ(error.code(), 1016) << error.what();
    EXPECT_EQ(error.log().size(), 1U);
  }
  expect_usable(session);
}

// An exception of a module that no library knows.
struct Private {
  int value;
};

TEST_F(SessionTest, AnExceptionReachesTheCallerFromEveryRole) {
  for (const int good_calls : {0, 5, 20}) {
    int calls = 0;
    session.module("ROSEN", [&](const Matrix& x) {
      if (calls++ == good_calls) throw Private{good_calls};
      return Matrix::scalar(rosenbrock(x));
    });
    EXPECT_THROW(solve(session, 5), Private);
    EXPECT_EQ(calls, good_calls + 1) << "a module ran after the exception";
    expect_usable(session);
  }
  // The object is the same one, not a copy.
  const std::exception_ptr thrown = std::make_exception_ptr(std::runtime_error("mine"));
  const auto address = [](const auto& thrower) -> const void* {
    try {
      thrower();
    } catch (const std::runtime_error& error) {
      return &error;
    }
    return nullptr;
  };
  const auto rethrow = [&thrown] { std::rethrow_exception(thrown); };
  for (const std::string name : {"ROSEN", "GRAD", "HESS", "STOP"}) {
    define(session);
    session.module(name, [&](const Matrix&) { return rethrow(), Matrix(); });
    if (name == "STOP")
      session.termination_module(name, [&](const Matrix&, double) { return rethrow(), 0.0; });
    const Matrix test = name == "STOP" ? Matrix(name) : Matrix();
    EXPECT_EQ(address([&] { solve(session, 0, "ROSEN", test); }), address(rethrow)) << name;
    EXPECT_EQ(session.log().size(), 1U) << "another module is accused";
    EXPECT_EQ(session.log().back().text,
              "Module " + name + " threw an exception, which ended the run: mine");
    expect_usable(session);
  }
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
    if (nested % 4 == 0) {
      EXPECT_THROW(solve(session, 0, "NOWHERE"), CallError);
    }
    return Matrix::scalar(rosenbrock(x));
  });
  EXPECT_EQ(solve(session, 0, "OUTER"), plain) << "nested calls disturb the outer run";
  EXPECT_GT(nested, 4);
  EXPECT_GT(largest_iteration, 1);
  // A module that calls itself through a subroutine is stopped before the stack is used up.
  session.module("SELF", [this](const Matrix&) { return solve(session, 0, "SELF")[1]; });
  try {
    solve(session, 0, "SELF");
    ADD_FAILURE() << "no error";
  } catch (const CallError& error) {
    EXPECT_NE(std::string(error.what()).find("deep"), std::string::npos);
  }
  expect_usable(session);
  // An exception passes through both calls.
  session.module("INNER", [](const Matrix&) -> Matrix { throw Private{7}; });
  session.module("OUTER", [this](const Matrix&) { return solve(session, 0, "INNER")[0]; });
  EXPECT_THROW(solve(session, 0, "OUTER"), Private);
  expect_usable(session);
}

TEST_F(SessionTest, ServesOneThreadAtATime) {
  bool refused = false;
  session.module("ROSEN", [this, &refused](const Matrix& x) {
    std::thread([this, &refused] {
      try {
        solve(session);
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
  const struct {
    std::function<double()> error;
    const char* text;
  } rows[] = {{[&] { return 1.0 / zero; }, "Division by 0"},
              {[&] { return zero / zero; }, "Domain"},
              {[&] { return std::exp(1000.0 + zero); }, "Overflow"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    session.module("ROSEN", [&row](const Matrix& x) {
      const volatile double sink = row.error();
      return Matrix::scalar(sink == 1.5 ? sink : rosenbrock(x));
    });
    session.trap_math_errors(false);
    EXPECT_TRUE(is_solution(solve(session)));
    session.trap_math_errors(true);
    EXPECT_LT(solve(session)[0][0], 0);
    EXPECT_NE(text_report(session).find(row.text), std::string::npos) << text_report(session);
    expect_usable(session);
  }
  // A nested call's own arithmetic is no error of the module, and flags of the caller stay.
  session.module("EASY", [](const Matrix& x) { return Matrix::scalar(rosenbrock(x)); });
  session.module("OUTER", [this](const Matrix& x) {
    solve(session, 0, "EASY");
    return Matrix::scalar(rosenbrock(x));
  });
  std::feclearexcept(FE_ALL_EXCEPT);
  std::feraiseexcept(FE_UNDERFLOW);
  EXPECT_TRUE(is_solution(solve(session, 0, "OUTER")));
  EXPECT_EQ(std::fetestexcept(FE_UNDERFLOW | FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW),
            FE_UNDERFLOW);
}

TEST_F(SessionTest, TerminationModuleTakesThePlaceOfTheTest) {
  int runs = 0;
  session.termination_module("Stop", [&runs](const Matrix& x, double crit) {
    EXPECT_EQ(crit, rosenbrock(x));
    return ++runs < 4 ? 0.0 : 7.9;
  });
  EXPECT_EQ(solve(session, 5, "rosen", "stop")[0][0], 7) << "not cut to a whole number";
  EXPECT_THROW(solve(session, 0, "STOP"), CallError) << "not an objective";
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
  solve(session, 1, "OUTER");
  for (const char* title : {"Iteration history", "End of the optimization"})
    EXPECT_EQ(std::count(lines.begin(), lines.end(), title), 2) << title;
  std::size_t rule = 0;
  long headings = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].starts_with("  -----  ---  ----")) rule = lines[i].size(), ++headings;
    if (lines[i].empty() || lines[i].starts_with("NLPNRR minimizes")) rule = 0;
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
  const auto nest = [this](const Matrix& x) {
    session.remove_module("NEST");  // a prepared call goes on with it
    solve(session, 4);
    return Matrix::scalar(rosenbrock(x));
  };
  bool threw = true;
  long k = 0;
  for (; threw && k < 2000; ++k) {
    SCOPED_TRACE(k);
    session.module("NEST", nest);
    long given = 0;
    threw = false;
    session.sink([&](std::string_view) {
      EXPECT_FALSE(threw) << "the sink got a line after its exception";
      threw = given++ == k;
      if (threw) throw Private{static_cast<int>(k)};
    });
    try {
      solve(session, 4, k % 2 == 0 ? "NEST" : "ROSEN");
      EXPECT_FALSE(threw);
    } catch (const Private& caught) {
      EXPECT_EQ(caught.value, k);
    }
    EXPECT_EQ(threw, text_report(session).find("The sink threw an exception") != std::string::npos);
    session.sink(nullptr);
    if (k % 10 == 0) expect_usable(session);
  }
  EXPECT_GT(k, 100);
}

// A list in braces is read as numbers or does not compile; never as sizes.
template <class List>
concept IsList = requires(Session& session, List list) {
  session.call("NLPQN", {"F", list});
};
static_assert(!std::is_convertible_v<double, Matrix> && !IsList<std::vector<double>> &&
              !IsList<double>);

TEST_F(SessionTest, BracesHoldNumbers) {
  const int n = 3;
  const std::vector<Matrix> read{
      {1, 2}, {-1.2, n}, {5}, {{1, 2}, {3, 4}}, {}, {"F"}, {2, 2, {1, 2, 3, 4}}, Matrix{2, 3}};
  const std::vector<Matrix> meant{Matrix::row({1, 2}),
                                  Matrix::row({-1.2, 3}),
                                  Matrix::scalar(5),
                                  Matrix::of({{1, 2}, {3, 4}}),
                                  Matrix(),
                                  Matrix("F"),
                                  Matrix(2, 2, std::vector<double>{1, 2, 3, 4}),
                                  Matrix::row({2, 3})};
  EXPECT_EQ(read, meant);
  EXPECT_EQ(session.call("NLPNRR", {"ROSEN", {-1.2, 1}, {0, 0}}),
            session.call("NLPNRR", {"ROSEN", START, Matrix(1, 2)}));
  EXPECT_THROW((Matrix{{1, 2}, {3}}), std::invalid_argument);
}

TEST_F(SessionTest, SessionsMoveOnlyWhileNoCallRuns) {
  Session other = std::move(session);
  EXPECT_THROW(solve(session), std::logic_error);
  EXPECT_THROW(session.module("A", hessian), std::logic_error);
  EXPECT_THROW(text_report(session), std::logic_error);
  EXPECT_TRUE(is_solution(solve(other)));
  session = std::move(other);
  expect_usable(session);
  session.module("ASSIGN", [this](const Matrix&) {
    session = Session();
    return Matrix();
  });
  EXPECT_THROW(solve(session, 0, "ASSIGN"), std::logic_error);
  expect_usable(session);
  // The end of a session ends the calls on it in order, nested ones too, whoever catches in
  // between.
  for (const bool nested : {false, true}) {
    auto held = std::make_unique<Session>();
    int runs_afterwards = 0;
    held->module("END", [&](const Matrix&) {
      runs_afterwards += held == nullptr;
      held.reset();
      return Matrix{1};
    });
    held->module("OUTER", [&](const Matrix&) {
      EXPECT_THROW(held->call("NLPQN", {"END", START}), std::logic_error);
      return Matrix{1};
    });
    EXPECT_THROW(held->call("NLPQN", {nested ? "OUTER" : "END", START}), std::logic_error);
    EXPECT_EQ(runs_afterwards, 0);
  }
}

// Calls within a module leave their reports in those of the outer call, but not without end; what
// they threw holds its lines all the same.
TEST_F(SessionTest, ReportsOfNestedCallsAreLimited) {
  std::size_t longest = 0;
  session.module("OUTER", [&](const Matrix& x) {
    for (int k = 0; k < 2000; ++k) {
      try {
        session.call("NLPFDD", {"NOWHERE", x});
      } catch (const CallError& error) {
        EXPECT_EQ(error.log().size(), 1U);
      }
    }
    longest = std::max(longest, session.log().size());
    return Matrix::scalar(rosenbrock(x));
  });
  EXPECT_TRUE(is_solution(solve(session, 1, "OUTER")));
  EXPECT_LE(longest, 10000U);
  EXPECT_GT(longest, 9000U);
  EXPECT_TRUE(session.log().back().text.ends_with("calls made by modules are left out."));
  EXPECT_FALSE(session.tables().empty());
}

TEST_F(SessionTest, WorkCountsRunsAndFailures) {
  int runs = 0, failures = 0;
  session.module("ROSEN", [&](const Matrix& x) {
    ++runs;
    const bool fails = x(0, 0) > -1.19 && x(0, 0) < -1.0;  // on the way
    failures += fails;
    return Matrix::scalar(fails ? missing : rosenbrock(x));
  });
  EXPECT_GT(solve(session, 1)[0][0], 0) << "a point that cannot be evaluated is backed away from";
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
    return x;
  });
  session.module("AROUND", [this](const Matrix& x) {
    return session.call("NLPFDD", {"SLOW", x})[0];
  });
  session.call("NLPFDD", {"AROUND", Matrix::scalar(1)});
  for (const ModuleWork& module : session.work().modules)
    EXPECT_EQ(module.seconds > 0.02, module.name == "SLOW") << module.name << module.seconds;
}

}  // namespace
}  // namespace tqnlp
