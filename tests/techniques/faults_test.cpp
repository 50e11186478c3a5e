// Whole calls that meet failures: the k-th request to the host is refused, the k-th evaluation of a
// module fails, k = 0, 1, 2 ... until a run comes through; and objectives that no technique can
// make sense of. Every call ends in one of the promised ways, says why, leaves nothing behind, and
// the same call then gives the bits that it gives in a fresh session.
#include "embed/faults.h"

#include <gtest/gtest.h>

#include <cmath>

#include "embed/task.h"
#include "support/rosenbrock.h"

namespace tqnlp::test {
namespace {

using embed::Fault;

const Matrix NONE;
const double M = missing;
const Matrix START = Matrix::row({-1.2, 1});

enum class Way { none, nan, refused, shape, foreign };  // refused: by the host

struct Foreign {};

// What is to happen to the k-th call of a module (and all after it).
struct Plan {
  Way way = Way::none;
  std::string module;
  long k = 0;
  bool onwards = false;
  long calls = 0;

  Matrix spoil(const char* name, Matrix good) {
    if (way == Way::none || way == Way::refused || name != module) return good;
    const long call = calls++;
    if (call != k && !(onwards && call > k)) return good;
    if (way == Way::foreign) throw Foreign{};
    if (way == Way::shape) return Matrix(good.rows() + 1, good.cols());
    good[good.size() - 1] = std::nan("");
    return good;
  }
  bool struck() const { return calls > k; }
};

const std::vector<NamedModule> MODULES = {
    ROSENBROCK[0],
    ROSENBROCK[1],
    ROSENBROCK[2],
    {"T",
     [](const Matrix& x) {
       return Matrix::of(
           {{1, 1, 1200 * x[0] * x[0] - 400 * x[1] + 2}, {2, 1, -400 * x[0]}, {2, 2, 200}});
     }},
    {"R",
     [](const Matrix& x) {
       return Matrix::col({10 * (x[1] - x[0] * x[0]), 1 - x[0], x[0] * x[1]});
     }},
    {"K",
     [](const Matrix& x) {
       return Matrix::of({{-20 * x[0], 10}, {-1, 0}, {x[1], x[0]}});
     }},
    {"C", [](const Matrix& x) { return Matrix::scalar(x[1] - x[0] * x[0]); }},
    {"D",
     [](const Matrix& x) {
       return Matrix::row({-2 * x[0], 1});
     }},
    {"STEEP",
     [](const Matrix& x) {
       double sum = 1;
       for (const double xj : x) sum += std::exp(xj * xj);
       return Matrix::scalar(sum);
     }},
    {"SLOPE",
     [](const Matrix& x) {
       Matrix g(1, x.cols());
       for (long j = 0; j < x.cols(); ++j) g[j] = 2 * x[j] * std::exp(x[j] * x[j]);
       return g;
     }},
};

void define(Session& session, Plan& plan) {
  for (const auto& module : MODULES) {
    session.module(module.name,
                   [&](const Matrix& x) { return plan.spoil(module.name, module.body(x)); });
  }
}

struct Call {
  std::string subroutine;
  std::vector<Matrix> arguments;
  bool work_files = false;  // what may go to work files does
};

Matrix options(double print, double update, double load, double differences) {
  return Matrix::row({0, print, M, update, M, M, load, differences});
}

std::vector<Call> calls() {
  const Matrix far = Matrix::row({9, -9});
  const Matrix bounds = Matrix::of({{-1.2, -0.5}, {0.8, 1}});
  const Matrix sparse = Matrix::row({0, 2, M, M, M, M, M, M, 3});
  // A repeated equality, a repeated inequality.
  const Matrix rows = Matrix::of(
      {{-3, -3, M, M}, {3, 3, M, M}, {1, 2, 0, 1}, {2, 4, 0, 2}, {1, -1, 1, -4}, {1, -1, 1, -4}});
  // The first step from the start is blocked at once, so that the run begins again there.
  const Matrix steep = Matrix::row({1, 1, 5.25});
  const Matrix blocked = Matrix::of({{M, 0.5, 3, M, M},
                                     {M, M, 4.75, M, M},
                                     {0, -0.75, 0.75, -1, 1.9375},
                                     {-1, 0, -1.5, 1, -9.625}});
  const Matrix equality = Matrix::row({0, 4, M, M, M, M, M, M, M, 1, 1});
  const Matrix disk = Matrix::row({0, 2, M, M, M, 1, M, M, M, 1, 0});
  const Matrix tight = Matrix::row({M, M, M, M, M, M, M, 0});
  const Matrix barrier = Matrix::row({0, 5, M, M, M, 1});
  const Matrix close = Matrix::row({M, M, M, M, M, M, M, M, 1e-5});
  return {
      {"NLPQN", {"F", START, options(0, 1, 0, 0), NONE, NONE, NONE, NONE, "G"}},
      {"NLPQN", {"F", far, options(5, 2, 1, 0), rows, NONE, NONE, NONE, "G"}},
      {"NLPQN", {"F", START, options(0, 4, 1, 2), bounds}},
      {"NLPQN", {"F", START, options(0, 1, 0, 11)}},
      {"NLPQN", {"F", START, options(0, 2, 0, 11), bounds, NONE, NONE, NONE, "G"}},
      {"NLPNRR", {"STEEP", steep, options(0, 1, 0, 0), blocked, NONE, NONE, NONE, "SLOPE"}},
      {"NLPNRR", {"STEEP", steep, options(0, 1, 0, 1), blocked}},
      {"NLPNRR", {"F", START, options(0, 1, 0, 11), bounds, NONE, NONE, NONE, "G", "H"}},
      {"NLPNRR", {"F", START, options(0, 1, 0, 0), bounds}},
      {"NLPNRR", {"F", far, options(0, 1, 0, 2), rows, NONE, NONE, NONE, "G"}},
      {"NLPNRR", {"F", START, options(5, 1, 0, 0), NONE, NONE, NONE, NONE, "G", "H"}},
      {"NLPNRA", {"F", START, options(0, 1, 0, 0), bounds}},
      {"NLPNRA", {"F", START, options(5, 1, 0, 0), rows, NONE, NONE, NONE, "G", "H"}},
      {"NLPNRR", {"F", START, sparse, bounds, NONE, NONE, NONE, "G", "T"}},
      {"NLPCG", {"F", START, options(0, 1, 0, 0), rows, NONE, NONE, NONE, "G"}},
      {"NLPCG", {"F", START, options(5, 3, 0, 2), bounds}},
      {"NLPDD", {"F", far, options(5, 1, 1, 0), rows, NONE, NONE, NONE, "G"}},
      {"NLPDD", {"F", START, options(0, 1, 0, 2), bounds}},
      {"NLPTR", {"F", START, options(5, 1, 0, 0), rows, NONE, NONE, NONE, "G", "H"}},
      {"NLPTR", {"F", START, options(0, 1, 0, 0), bounds}},
      {"NLPHQN", {"R", START, Matrix::row({3, 5}), bounds}},
      {"NLPHQN", {"R", far, Matrix::row({3, 1, M, 2, 2, 1, 1}), rows, NONE, NONE, NONE, "K"}},
      {"NLPHQN", {"R", START, Matrix::row({3, 5}), NONE, NONE, NONE, NONE, "K"}},
      {"NLPNMS", {"F", START, options(5, 1, 0, 0), bounds, Matrix::row({M, M, M, M, 1e-12})}},
      {"NLPNMS", {"F", Matrix::row({0.8, 0.1}), NONE, rows, close}},
      {"NLPNMS", {"F", START, equality, bounds, close, NONE, NONE, "C"}},
      {"NLPQN", {"F", START, equality, bounds, tight, NONE, NONE, "G", "C", "D"}},
      {"NLPQN", {"F", Matrix::row({1, -1}), disk, rows, tight, NONE, NONE, "G", "C"}},
      {"NLPVMC", {"F", START, disk, bounds, NONE, NONE, NONE, "G", "C", "D"}},
      {"NLPVMC", {"F", START, equality, NONE, NONE, NONE, NONE, NONE, "C"}},
      {"NLPQUA", {Matrix::of({{2, 1}, {1, 4}}), far, options(5, 1, 0, 0), rows}},
      {"NLPQUA", {Matrix::of({{2, 1}, {1, 4}}), START, options(5, 1, 0, 0), bounds}},
      {"NLPQUA", {Matrix::of({{2, 1}, {1, 4}}), far, barrier, rows}},
      {"NLPQUA", {Matrix::of({{2, 1}, {1, 4}}), far, barrier, rows}, true},
      {"NLPFDD", {"F", START, Matrix::row({1, 11})}},
      {"NLPFDD", {"F", START, NONE, "G"}},
      {"NLPFDD", {"R", START, Matrix::row({3, 1})}},
      {"NLPFEA", {far, rows}},
  };
}

// How a call ended: its results, or the code of what was thrown (-1 a foreign exception).
struct End {
  int error = 0;
  std::vector<Matrix> results;
  bool by_exit() const { return error > 1000; }
};

End run(Session& session, const Call& call) {
  End end;
  try {
    end.results = session.call(call.subroutine, call.arguments);
  } catch (const CallError& error) {
    end.error = error.code();
  } catch (const FatalError& error) {
    end.error = error.code();
  } catch (const Foreign&) {
    end.error = -1;
  }
  return end;
}

class Faults : public testing::TestWithParam<Call> {
 protected:
  Faults() {
    define(session, plan);
    Session fresh;
    define(fresh, plan);
    if (call.work_files) session.task().debug_options["-nlpworkfiles"] = 1;
    reference = run(fresh, call).results;
  }

  double distance(const Matrix& x) const {
    double largest = 0;
    for (long j = 0; j < x.size(); ++j)
      largest = std::max(largest, std::fabs(x[j] - reference[1][j]));
    return largest;
  }

  // What holds after any failure. An end by xexit leaves its blocks to the host.
  void expect_sound(const End& end) {
    const embed::Counters left = embed::counters(session.task());
    EXPECT_TRUE(end.by_exit() || (left.blocks_left == 0 && left.files_left == 0));
    EXPECT_FALSE(session.log().empty() && call.subroutine != "NLPFDD");
    for (const Matrix& result : end.results) {
      for (const double value : result) EXPECT_TRUE(std::isfinite(value));
    }
    plan = Plan{};
    embed::clear_faults(session.task());
    EXPECT_EQ(run(session, call).results, reference);
    EXPECT_EQ(embed::counters(session.task()).blocks_left, 0);
  }

  const Call call = GetParam();
  Plan plan;
  Session session;
  std::vector<Matrix> reference;
};

// A refusal ends the call with its code, or costs no more than a line of the report.
TEST_P(Faults, OfTheHost) {
  const struct {
    Fault kind;
    int refused, fatal;
  } rows[] = {{Fault::allocation, 1, 1016},
              {Fault::file_operation, 1020, 1020},
              {Fault::report, 100, 9999}};
  for (const auto& row : rows) {
    for (const bool onwards : {false, true}) {
      bool met = true;
      for (long k = 0; met && !HasFailure(); ++k) {
        SCOPED_TRACE(testing::Message() << int(row.kind) << " operation " << k);
        const long before = embed::operations(session.task(), row.kind);
        embed::plan_fault(session.task(), row.kind, k, onwards);
        const End end = run(session, call);
        met = embed::operations(session.task(), row.kind) - before > k;
        EXPECT_TRUE(end.error == row.refused || end.error == row.fatal ||
                    (end.error == 0 && end.results == reference));
        expect_sound(end);
      }
    }
  }
}

// One failure may cost a run its success, but a run that reports success has found the solution;
// failures that do not end are reported as such.
TEST_P(Faults, OfModules) {
  for (const auto& module : MODULES) {
    for (const Way way : {Way::nan, Way::refused, Way::shape, Way::foreign}) {
      if (way == Way::refused && &module != &MODULES[0]) continue;  // whatever the module
      for (const bool onwards : {false, true}) {
        bool struck = true;
        for (long k = 0; struck && !HasFailure(); ++k) {
          SCOPED_TRACE(testing::Message() << module.name << " way " << int(way) << " call " << k);
          plan = {way, module.name, k, onwards};
          const bool by_host = way == Way::refused;
          if (by_host) embed::plan_fault(session.task(), Fault::module_call, k, onwards);
          const long before = embed::operations(session.task(), Fault::module_call);
          const End end = run(session, call);
          const long made = embed::operations(session.task(), Fault::module_call) - before;
          struck = by_host ? made > k : plan.struck();
          if (!struck || way == Way::foreign) {
            EXPECT_EQ(end.error, struck ? -1 : 0);
          } else if (end.error != 0) {
            EXPECT_TRUE(end.error == 6 && call.subroutine == "NLPFDD");
          } else if (end.results.size() == 2) {
            const double code = end.results[0][0];
            const bool failed = code <= -1 && code >= -4;
            EXPECT_TRUE(failed || (!onwards && (code == -5 || (code >= 1 && code <= 10)))) << code;
            EXPECT_TRUE(code <= 0 || distance(end.results[1]) < 1e-3) << code;
          }
          expect_sound(end);
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Walk, Faults, testing::ValuesIn(calls()), [](const auto& call) {
  return call.param.subroutine + std::to_string(call.index);
});

// ---- Objectives of no use -----------------------------------------------------------------------

struct Bad {
  const char* subroutine;
  std::vector<double> start;
  std::function<double(double a, double b)> f;
  std::function<Matrix(double a, double b)> g;
  const char* h;
  double differences;
  int code;
  const char* says;  // in the log
};

TEST(BadInput, EndsSoonWithAReason) {
  int calls = 0;
  const std::function<Matrix(double, double)> none;
  const auto constant = [](double u, double v) {
    return [u, v](double, double) { return Matrix::row({u, v}); };
  };
  const auto uphill = [](double a, double b) {
    return Matrix::row({400 * a * (b - a * a) + 2 * (1 - a), -200 * (b - a * a)});
  };
  const auto fails_at = [&calls](int call) {
    return [&calls, call](double a, double b) { return calls == call ? M : rosenbrock(a, b); };
  };
  const auto steep_kink = [](double a, double b) { return 1e304 * (std::fabs(a) + std::fabs(b)); };
  const auto needs_positive = [](double a, double b) { return a - std::log(a) + b * b; };
  const auto plane = [](double a, double b) { return 3 * a - 2 * b; };
  const auto flat = [](double, double) { return 3.0; };
  const auto only_there = [](double a, double b) { return a == 1 && b == 1 ? 0.0 : M; };
  const Bad rows[] = {
      {"NLPQN", {-1.2, 1}, rosenbrock, uphill, nullptr, 0, -5, "check the derivatives"},
      {"NLPNRR", {-1.2, 1}, rosenbrock, uphill, nullptr, 0, -5, "check the derivatives"},
      {"NLPTR", {-1.2, 1}, rosenbrock, uphill, nullptr, 0, -5, "check the derivatives"},
      {"NLPDD", {-1.2, 1}, rosenbrock, uphill, nullptr, 0, -5, "check the derivatives"},
      // A step of length 1 gains nothing beside an objective of -1e15.
      {"NLPDD", {-1.2, 1}, plane, constant(3, -2), nullptr, 0, -5, "rounding error"},
      {"NLPQN", {-1.2, 1}, rosenbrock, constant(M, 0), nullptr, 0, -2, "module G (gradient"},
      {"NLPNRR", {-1.2, 1}, rosenbrock, uphill, "H", 0, -2, "module H (Hess"},
      {"NLPTR", {-1.2, 1}, rosenbrock, uphill, "H", 0, -2, "module H (Hess"},
      // Estimated intervals: the value beside the start.
      {"NLPQN", {-1.2, 1}, fails_at(2), none, nullptr, 11, -2, "module F (objective)"},
      // The solution, which is evaluated once more after the run.
      {"NLPQN", {-1.2, 1}, fails_at(3), constant(0, 0), nullptr, 0, -3, "could not be evaluated"},
      // Second differences overflow where first ones do not, and the step would be none.
      {"NLPNRR", {0, 0}, steep_kink, none, nullptr, 0, -2, "module F (objective)"},
      {"NLPQN", {5, 2}, needs_positive, none, nullptr, 2, 3, "ABSGCONV"},
      {"NLPQN", {-1.2, 1}, plane, constant(3, -2), nullptr, 0, 6, "seems to be unbounded"},
      // A simplex that sees nothing, however large; a value at the start alone.
      {"NLPNMS", {-1.2, 1}, flat, none, nullptr, 0, -5, "No step lowers"},
      {"NLPNMS", {1, 1}, only_there, none, nullptr, 0, -3, "run is F (objective)"},
      {"NLPNMS", {5, 2}, needs_positive, none, nullptr, 0, 8, "FCONV2"},
  };
  for (const Bad& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    calls = 0;
    Session session;
    session.module("F", [&](const Matrix& x) {
      EXPECT_LE(++calls, 3000);
      EXPECT_TRUE(std::isfinite(x[0]) && std::isfinite(x[1]));
      return Matrix::scalar(row.f(x[0], x[1]));
    });
    if (row.g) session.module("G", [&row](const Matrix& x) { return row.g(x[0], x[1]); });
    session.module("H", [](const Matrix&) -> Matrix { throw EvaluationFailed(); });
    std::vector<Matrix> arguments = {
        "F",  Matrix::row(row.start),    options(0, 1, 0, row.differences), NONE, NONE, NONE,
        NONE, row.g ? Matrix("G") : NONE};
    if (row.h != nullptr) arguments.emplace_back(row.h);
    const auto results = session.call(row.subroutine, arguments);
    EXPECT_EQ(results[0][0], row.code);
    EXPECT_NE(text_report(session).find(row.says), std::string::npos) << text_report(session);
  }
}

}  // namespace
}  // namespace tqnlp::test
