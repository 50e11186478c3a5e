// What the log and the report say of calls that are right by the rules and may not be what was
// meant, and of ends that would mislead: one row a call, with the message and words that must
// occur.
#include <gtest/gtest.h>

#include "aasubs/driver/znlpdrv.h"
#include "front_call.h"
#include "support/pages.h"
#include "support/rosenbrock.h"

namespace tqnlp::test {
namespace {

constexpr double M = MISSING;
const Matrix X = Matrix::row({1, 2});
const Matrix LEVEL_4 = Matrix::row({0, 4});

// F has its minimum at (3, -1) and counts its calls; from call `last` on it has no value.
struct Modules {
  Session session;
  long calls = 0, last = 1000000;
  Modules() {
    session.module("F", [this](const Matrix& x) {
      const double u = x[0] - 3, v = x[1] + 1;
      return Matrix::scalar(++calls >= last ? M : u * u + v * v);
    });
    session.module("G", [](const Matrix& x) { return Matrix::row({2 * x[0] - 6, 2 * x[1] + 2}); });
    session.module("HBAD", [](const Matrix&) { return Matrix(2, 2, {M, M, M, M}); });
    session.module("DOWN", [](const Matrix& x) { return Matrix::scalar(-x[0]); });
    // On a level that hides the last decimals.
    session.module("HIGH",
                   [](const Matrix& x) { return Matrix::scalar(5e8 + rosenbrock(x[0], x[1])); });
    session.module("GHIGH", ROSENBROCK[1].body);
    session.module("EDGE", [](const Matrix& x) {  // ends on the way to its minimum
      const double u = x[0] - 3, v = x[1] + 1;
      return Matrix::scalar(x[0] > 1.00001 ? M : 100 + u * u + v * v);
    });
    session.module("H", [](const Matrix&) { return Matrix(2, 2, {2, 0, 0, 2}); });
    session.module("N", [](const Matrix& x) { return Matrix::scalar(x[0]); });
    session.module("J", [](const Matrix&) { return Matrix::row({1, 0}); });
    session.termination_module("SIX", [](const Matrix&, double) { return 6.0; });
  }
  long count(int group, int number) const {
    const auto& log = session.log();
    return std::count_if(log.begin(), log.end(), [=](const LogRecord& line) {
      return line.group == group && line.number == number;
    });
  }
  std::string text_of(int group, int number) const {
    for (const LogRecord& line : session.log())
      if (line.group == group && line.number == number) return line.text;
    return "";
  }
  // Calls, whatever comes; the exception's text.
  std::string call(const std::string& name, std::vector<Matrix> arguments) {
    try {
      session.call(name, std::move(arguments));
    } catch (const Error& error) {
      return error.what();
    }
    return "";
  }
};

Matrix blc(std::vector<double> rows) {
  const long count = static_cast<long>(rows.size()) / 4;
  return Matrix(count, 4, std::move(rows));
}

using Arguments = std::vector<Matrix>;

// Bounds and rows; rows behind two that are empty; opt; par, with bounds.
Arguments with_blc(std::vector<double> rows) { return {"F", X, LEVEL_4, blc(std::move(rows))}; }
Arguments with_rows(std::vector<double> rows) {
  rows.insert(rows.begin(), 8, M);
  return with_blc(std::move(rows));
}
Arguments with_opt(std::vector<double> opt) { return {"F", X, Matrix::row(std::move(opt))}; }
Arguments with_par(std::vector<double> par) {
  return {"F", X, NONE, Matrix(2, 2, {0, 0, 9, 9}), NONE, Matrix::row(std::move(par))};
}
// The termination criteria, the termination module, the gradient, the Hessian.
Arguments of(Matrix f, Matrix x, Matrix tc, Matrix ptit = NONE, Matrix g = NONE, Matrix h = NONE) {
  return {f, x, NONE, NONE, tc, NONE, ptit, g, h};
}

TEST(Remarks, SayWhatCameOfTheCall) {
  const Matrix start = Matrix::row({-1.2, 1}), off = Matrix::row({M, M, M, 0, 0, 0, 0});
  const struct {
    const char* subroutine;
    Arguments arguments;
    int message;                     // group and number
    std::vector<const char*> words;  // of the message; none: it must not be there
  } rows[] = {
      // Rows with one coefficient.
      {"NLPQN", with_rows({1, 0, 1, 1, 2, 0, 1, -4}), 178182, {"row 4", "1 to -2", "replaces 1"}},
      {"NLPQN", with_rows({1, 0, 1, 1, 2, 0, 1, -4}), 178182, {"lower bound of par", "row 3"}},
      {"NLPQN",
       with_blc({M, M, M, M, M, 5, M, M, 0, 1, -1, 7}),
       178182,
       {"row 3", "upper bound of parameter 2 to 7", "replaces 5", "row 2"}},
      {"NLPQN", with_blc({M, M, M, M, M, 5, M, M, 0, 1, -1, 4}), 178182, {}},  // tighter
      // Equalities come first.
      {"NLPQN", with_rows({1, 0, 1, 1, 1, 0, 0, 2}), 178182, {"row 3", "to 1", "row 4"}},
      {"NLPQN", with_rows({-1, 0, 1, 1}), 178183, {"row 3", "negative", "parameter 1 to -1"}},
      // Bounds that cross, also where both would be printed alike.
      {"NLPQN", with_blc({-1, M, M, M, -2, M, M, M}), 178180, {"by 1,", "lower -1", "upper -2"}},
      {"NLPQN", with_blc({-1, M, M, M, -1.0000000001, M, M, M}), 178156, {"by 1.00000", "e-10"}},
      // Rows of bounds that were forgotten.
      {"NLPQN", with_blc({1, 1, -1, 3}), 178181, {"row 1", "columns 3 and 4", "lower"}},
      {"NLPQN", with_blc({1, 1, 0, 0, 2, 2, 0, 0}), 178181, {}},
      {"NLPQN", {"F", X, NONE, NONE, NONE, NONE, NONE, NONE, NONE, "J"}, 178179, {"module J"}},
      // Elements out of range.
      {"NLPQN", with_opt({0, 0, 0, 7}), 178176, {"element 4 of opt is 7", "from 0 to 4; 1 is"}},
      {"NLPQN", with_opt({0, 0, 0, 4, 9}), 178176, {"element 5 of opt is 9", "2 is used"}},
      {"NLPQN", with_opt({0, INF}), 178176, {"element 2", "2147483647", "8 is used"}},
      {"NLPQN", with_opt({0, 0, 9, 4, 8, 2, 0, 39}), 178176, {}},  // does not scale
      {"NLPNRR", with_opt({0, 0, 9}), 178176, {"element 3", "scale of the first iteration"}},
      {"NLPNRR", with_opt({0, 0, 0, 0, 0, 0, 0, 40}), 178176, {"element 8", "0 is used"}},
      {"NLPQN", with_par({M, M, M, M, 0.5}), 178176, {"element 5 of par is 0.5", "0.1 is used"}},
      {"NLPQN", with_par({M, M, M, M, M, -1}), 178176, {"positive; 0.4 is used"}},
      {"NLPQN", with_par({M, M, M, M, 0, 0, 0, 0, 0, 0}), 178176, {}},
      {"NLPQN", with_par({M, M, 1e300}), 178177, {"element 3 of par", "1e+300"}},
      {"NLPFEA", {X, Matrix(2, 2, {0, 0, 9, 9}), Matrix::row({2})}, 178177, {"element 1"}},
      // Told before it is taken: n (n + 1) / 2 elements and some n; the start fails at once.
      {"NLPQN", {"HBAD", Matrix(1, 20000)}, 178178, {"1601 megabytes", "20000"}},
      // Ends that need not be what they seem.
      {"NLPQN", of("F", X, NONE, "SIX", "G"), 549616, {"its code 6"}},
      {"NLPQN", of("F", X, NONE, "SIX", "G"), 549607, {}},
      {"NLPNRR", of("F", X, NONE, NONE, "G", "HBAD"), 549132, {"or Hessian"}},
      {"NLPQN", of("DOWN", X, Matrix::row({20})), 549040, {"unbounded"}},
      {"NLPQN", of("HIGH", start, off, NONE, "GHIGH"), 549142, {"may well be a", "GCONV is off"}},
      {"NLPNRR", of("EDGE", {0, 0.5}, NONE, NONE, "G", "H"), 549143, {"ridge", "Element 3 of opt"}},
  };
  for (const auto& row : rows) {
    Modules modules;
    modules.call(row.subroutine, row.arguments);
    const int group = row.message / 1000, number = row.message % 1000;
    const std::string text = modules.text_of(group, number);
    EXPECT_EQ(modules.count(group, number), row.words.empty() ? 0 : 1)
        << row.message << text_report(modules.session);
    for (const char* word : row.words) EXPECT_NE(text.find(word), std::string::npos) << text;
    EXPECT_EQ(text.find('?'), std::string::npos) << text;
  }
}

// Words that the report of a call must have, and such as it must not.
TEST(Remarks, ReportsSayNothingFalse) {
  const Matrix none_at_all = Matrix::row({0});
  const Matrix box(2, 2, {0, 0, 2, 2});
  const Matrix impossible = blc({0, 0, M, M, 1, 1, M, M, 1, 1, 1, 3});
  const Matrix bad_start = blc({0, 0, M, M, 9, 9, M, M, 1, 1, 0, 0});
  const Arguments minimize{"F", X, LEVEL_4},
      bad{"F", {0, 0}, LEVEL_4, bad_start, {}, {}, {}, "HBAD"},
      wrong{"DOWN", X, LEVEL_4, NONE, NONE, NONE, NONE, "J"};
  const struct {
    const char* subroutine;
    Arguments arguments;
    const char *there, *not_there;
  } rows[] = {
      {"NLPQN", minimize, "\nNLPQN minimizes the objective of module F; parameters: 2.",
       "maximizes"},
      {"NLPNRR", {"DOWN", X, {1, 1}, box}, "NLPNRR maximizes the objective of", "minimizes"},
      // No iteration: nothing has measured the gradient.
      {"NLPQN", {"F", X, LEVEL_4, NONE, none_at_all}, "-8", "Largest projected"},
      {"NLPQN", {"F", X, LEVEL_4, NONE, none_at_all}, "-8", "Slope"},
      // A search that fails at a wrong gradient has taken no step.
      {"NLPQN", wrong, "FCONV: relative change of the objective  open   no step", "0 <= 0"},
      {"NLPQN", {"F", X, LEVEL_4, impossible}, "LowerBC", "Lagrange multipliers"},
      {"NLPQN", bad, "LowerBC", "Lagrange multipliers"},
      // A fraction of a level is dropped: reports at the start and at the end go together.
      {"NLPQN", {"F", X, {0, 1.5}}, "Iteration history", "Start point"},
  };
  for (const auto& row : rows) {
    Modules modules;
    modules.call(row.subroutine, row.arguments);
    const std::string report = text_report(modules.session);
    EXPECT_NE(report.find(row.there), std::string::npos) << report;
    EXPECT_EQ(report.find(row.not_there), std::string::npos) << row.not_there << report;
  }
}

// The result has no value: history, status and point stand in their order all the same.
TEST(Remarks, AResultWithoutAValueHasItsStatus) {
  Modules modules;
  const std::vector<Matrix> arguments{"F", X, LEVEL_4, NONE, NONE, NONE, NONE, "G"};
  modules.call("NLPQN", arguments);
  modules.last = modules.calls;
  modules.calls = 0;
  modules.call("NLPQN", arguments);
  std::string order;
  for (const Table& table : modules.session.tables()) {
    if (table.name == "IterHist" || table.name == "ConvergenceStatus") order += table.name + " ";
    if (table.title == "Result") order += table.name;
  }
  EXPECT_TRUE(order.ends_with("IterHist ConvergenceStatus ParameterEstimates")) << order;
  EXPECT_EQ(modules.count(549, 133), 1);
  EXPECT_NE(modules.text_of(178, 194).find("F (objective)"), std::string::npos);
}

}  // namespace
}  // namespace tqnlp::test
