// The whole report of one run at every print level, against golden files; the same report through
// the sink; the pages that are made of the code's tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <sstream>

#include "embed/messages.h"
#include "support/pages.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp::test {
namespace {

// Rosenbrock's function with a third parameter that pulls against its bound, and a row that cuts
// off the minimum: the start breaks the row, the result lies on both. Arithmetic alone, so that the
// numbers are the same on every machine.
void define(Session& session) {
  session.module("F", [](const Matrix& x) {
    const double v = x[1] - x[0] * x[0], w = 1 - x[0], u = x[2] - 2;
    return Matrix::scalar(100 * v * v + w * w + u * u);
  });
  session.module("G", [](const Matrix& x) {
    const double v = x[1] - x[0] * x[0];
    return Matrix::row({-400 * x[0] * v - 2 * (1 - x[0]), 200 * v, 2 * (x[2] - 2)});
  });
  session.module("H", [](const Matrix& x) {
    const double a = 1200 * x[0] * x[0] - 400 * x[1] + 2;
    return Matrix::of({{a, -400 * x[0], 0}, {-400 * x[0], 200, 0}, {0, 0, 2}});
  });
}

const Matrix START = Matrix::row({-1.2, 1.0, 0.0});
const Matrix BLC = Matrix::of({{-2, missing, 0, missing, missing},
                               {missing, 5, 1, missing, missing},
                               {1, 1, 0, -1, 1.5},    // x1 + x2 <= 1.5
                               {1, -1, 1, 1, -1.5},   // x1 - x2 + x3 >= -1.5
                               {1, 1, 0, -1, 1.5}});  // again

void run(Session& session, const std::string& subroutine, double level) {
  std::vector<Matrix> arguments{"F", START, Matrix::row({0, level}), BLC, {}, {}, {}, "G"};
  if (subroutine == "NLPNRR") arguments.push_back("H");
  session.call(subroutine, std::move(arguments));
}

// Times differ from run to run: the last column of the work is masked.
std::string masked(const std::string& report) {
  const std::size_t work = report.find("\nWork\n");
  if (work == std::string::npos) return report;
  std::istringstream lines(report.substr(work));
  std::string text = report.substr(0, work);
  for (std::string line; std::getline(lines, line); text += line + "\n") {
    const std::size_t last = line.rfind(' ');
    if (last == std::string::npos || line.find('.', last) == std::string::npos) continue;
    line.erase(line.find_last_not_of(' ', last) + 1);
    line += "  (time)";
  }
  return text;
}

// The lines of a report before its work, whose times differ from run to run; sorted, as messages
// stand in front of a finished report and among the tables in a sink.
std::multiset<std::string> lines_of(const std::string& report) {
  std::istringstream in(report.substr(0, report.find("\nWork\n")));
  std::multiset<std::string> lines;
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.insert(line);
  return lines;
}

TEST(Golden, TextReportOfEveryPrintLevelAlsoThroughTheSink) {
  for (int level = 0; level <= 9; ++level) {
    SCOPED_TRACE(level);
    Session session;
    define(session);
    std::string streamed;
    session.sink([&streamed](std::string_view line) { streamed.append(line) += '\n'; });
    run(session, "NLPNRR", level);
    const std::string finished = text_report(session);
    EXPECT_EQ(session.tables().empty(), level == 0);
    std::size_t histories = 0;
    for (const Table& table : session.tables()) {
      EXPECT_FALSE(table.rows.empty()) << table.name;
      EXPECT_EQ(table.continued, table.name == "IterHist" && histories++ > 0);
      expect_documented(table);
    }
    if (level < 8) {  // above, evaluations stand between messages and tables
      EXPECT_EQ(lines_of(streamed), lines_of(finished));
    }
    EXPECT_NE(json_report(session).find("\"severity\": \"note\", \"text\": \"The "),
              std::string::npos);
    session.sink(nullptr);  // a sink has a line among the work
    run(session, "NLPNRR", level);
    const std::string name = "tests/embed/golden/level-" + std::to_string(std::min(level, 8));
    if (level > 0) expect_contents(name + ".txt", masked(text_report(session)));
  }
}

TEST(Golden, OnlyOptimizersWriteTables) {
  Session session;
  define(session);
  session.call("NLPFDD", {"F", START, Matrix::row({0, 8}), "G"});
  EXPECT_TRUE(session.tables().empty());
  session.call("NLPFEA", {START, BLC});
  EXPECT_TRUE(session.tables().empty());
}

// ---- Pages --------------------------------------------------------------------------------------

std::string message_rows(int group, bool sentences) {
  constexpr const char* SEVERITIES[] = {"note | ", "warning | ", "error | "};
  std::string rows = sentences ? "| Number | Severity | Text |\n|---|---|---|\n"
                               : "| Number | Text |\n|---|---|\n";
  for (const embed::Message& message : embed::messages(group)) {
    const std::string text = message.text;
    if ((text.back() == '.') != sentences) continue;
    rows += "| " + std::to_string(message.number) + " | " +
            (sentences ? SEVERITIES[static_cast<int>(message.severity)] : "") + text + " |\n";
  }
  return rows;
}

TEST(Pages, MessagesAreThoseOfTheCode) {
  expect_contents(
      "docs/messages.md",
      "# Messages\n\n"
      "The texts of all messages, from the tables of the embedded host. `{1}`, `{2}` ... stand for "
      "what\n"
      "a message is told: names, numbers, limits. This page is written by a test, see\n"
      "[reports.md](reports.md).\n\n"
      "## Group 178: the calling surface\n\n" +
          message_rows(178, true) + "\n## Group 549: the optimization code\n\n" +
          message_rows(549, true) + "\n## Group 549: titles, labels and words of reports\n\n" +
          message_rows(549, false));
}

// Messages that other pages speak of exist.
TEST(Pages, NumbersOfMessagesExist) {
  for (const char* name :
       {"return-codes", "calling", "modules", "reports", "algorithms", "regression"}) {
    const std::string page = contents("docs/" + std::string(name) + ".md");
    for (const int group : {CALLING_SURFACE, OPTIMIZATION}) {
      const std::string mark = std::to_string(group) + "/";
      for (std::size_t at = page.find(mark); at != std::string::npos;
           at = page.find(mark, at + 1)) {
        const int number = std::atoi(page.c_str() + at + mark.size());
        EXPECT_NE(embed::find_message(group, number), nullptr) << name << ": " << mark << number;
      }
    }
  }
}

}  // namespace
}  // namespace tqnlp::test
