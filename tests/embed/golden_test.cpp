// The whole report of one run at every print level, against golden files; the same report through
// the sink; the pages that are made of the code's tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "embed/messages.h"
#include "problems/problem.h"
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

TEST(Golden, TextReportOfEveryPrintLevel) {
  for (int level = 1; level <= 9; ++level) {
    SCOPED_TRACE(level);
    Session session;
    define(session);
    run(session, "NLPNRR", level);
    const std::string name = "tests/embed/golden/level-" + std::to_string(std::min(level, 8));
    expect_contents(name + ".txt", masked(text_report(session)));
  }
}

using Names = std::vector<std::string>;

TEST(Golden, TablesOfEverySubroutineAndLevel) {
  for (const std::string subroutine : {"NLPNRR", "NLPQN", "NLPFDD", "NLPFEA"}) {
    for (int level = 0; level <= 9; ++level) {
      SCOPED_TRACE(subroutine + " at " + std::to_string(level));
      Session session;
      define(session);
      if (subroutine == "NLPFDD") session.call(subroutine, {"F", START, Matrix(), "G"});
      if (subroutine == "NLPFEA") session.call(subroutine, {START, BLC});
      const bool optimizer = subroutine != "NLPFDD" && subroutine != "NLPFEA";
      if (optimizer) run(session, subroutine, level);
      Names wanted;
      const auto add = [&wanted](bool when, const Names& names) {
        if (when) wanted.insert(wanted.end(), names.begin(), names.end());
      };
      add(level > 1, {"LinConDel", "ParameterEstimates", "LinCon"});
      add(level > 2, {"Lagrange", "ProjGrad"});
      add(level > 0, {"InputOpts", "ProblemDescription", "IterStart", "IterHist", "IterStop",
                      "ConvergenceStatus"});
      add(level > 1, {"ParameterEstimates", "LinConSol"});
      add(level > 2, {"Lagrange", "ProjGrad"});
      if (!optimizer) wanted.clear();
      Names written;
      std::map<std::string, long> tables;
      bool row_of_history = false;
      for (const Table& table : session.tables()) {
        EXPECT_EQ(table.template_name, "Base.NLP." + table.name);
        EXPECT_FALSE(table.rows.empty()) << table.name;
        EXPECT_EQ(table.continued, table.name == "IterHist" && row_of_history);
        expect_documented(table);
        if (table.name == "IterHist") row_of_history = true;
        ++tables[table.name];
        if (table.name == "Grad") {
          EXPECT_EQ(table.columns.size(), level > 4 ? 3U : 2U);
        } else if (table.name != "Step" && table.name != "Criteria" && !table.continued) {
          written.push_back(table.name);
        }
      }
      EXPECT_EQ(written, wanted);
      EXPECT_EQ(tables["Grad"] > 0, optimizer && level > 3);
      EXPECT_EQ(tables["Step"], level > 5 ? tables["Grad"] : 0);
      EXPECT_EQ(tables["Criteria"], level > 6 ? tables["Grad"] : 0);
    }
  }
}

TEST(Golden, TheSinkGetsTheSameReport) {
  for (int level = 0; level <= 5; ++level) {
    SCOPED_TRACE(level);
    Session session;
    define(session);
    std::string streamed;
    session.sink([&streamed](std::string_view line) { streamed.append(line) += '\n'; });
    run(session, "NLPNRR", level);
    std::string finished = text_report(session);
    finished.resize(std::min(finished.size(), finished.find("\nWork\n")));
    // Messages stand in front of the finished report, and among the tables in the sink.
    for (const LogRecord& message : session.log()) {
      for (std::string* text : {&streamed, &finished}) {
        const std::size_t at = text->find(message.text);
        ASSERT_NE(at, std::string::npos) << message.text;
        std::size_t begin = text->rfind('\n', at) + 1;
        if (text->substr(0, begin).ends_with("\n\n")) --begin;  // behind a table
        text->erase(begin, text->find('\n', at) + 1 - begin);
      }
    }
    EXPECT_EQ(streamed, finished);
    EXPECT_EQ(level > 0, session.work().modules.size() == 3 && streamed.size() > 1000);
  }
}

// The verdicts agree with the test that ended the run: its criterion was within the tolerance, and
// none that comes after it in the order of the tests was.
TEST(Criteria, VerdictsAgreeWithTheCode) {
  std::set<int> codes;
  for (const Problem& p : more_garbow_hillstrom()) {
    for (const double gtol : {1e-8, 0.0}) {
      Session session;
      session.module("F", [&p](const Matrix& x) { return Matrix::scalar(p.value(x.data())); });
      session.module("G", [&p](const Matrix& x) {
        Matrix g(1, p.n);
        p.evaluate(x.data(), g.data());
        return g;
      });
      // Tolerances in reach of every criterion in turn.
      const Matrix tc = Matrix::row({200, 500, missing, gtol, 0, gtol, 1e-9, 0, 0, 0, 1e-7, 0});
      const auto results = session.call(
          "NLPQN", {"F", Matrix::row(p.start), Matrix::row({0, 1}), {}, tc, {}, {}, "G"});
      const int code = static_cast<int>(results[0][0]);
      if (code < 2 || code > 9) continue;
      codes.insert(code);
      const char* names[] = {"", "", "ABSFCONV", "ABSGCONV", "ABSXCONV", "FCONV", "GCONV", "XCONV"};
      for (const Table& table : session.tables()) {
        if (table.name != "IterStop") continue;
        for (const auto& row : table.rows) {
          const std::string& label = std::get<std::string>(row[0]);
          for (int k = code; k <= 7; ++k) {
            if (!label.starts_with(std::string(names[k]) + ":")) continue;
            const std::string& verdict = std::get<std::string>(row[1]);
            EXPECT_EQ(verdict.substr(0, 4), k == code ? "met " : "open") << p.name << ": " << label;
            double measure = 0.0, tolerance = 0.0;
            char relation[8];
            ASSERT_EQ(
                std::sscanf(verdict.c_str(), "%*s %lf %7s %lf", &measure, relation, &tolerance), 3)
                << verdict;
            EXPECT_EQ(measure <= tolerance, k == code) << p.name << ": " << label << verdict;
          }
        }
      }
    }
  }
  EXPECT_GE(codes.size(), 3U);
}

// ---- Pages --------------------------------------------------------------------------------------

std::string message_rows(int group, bool sentences) {
  constexpr const char* SEVERITIES[] = {"note", "warning", "error"};
  std::string rows;
  for (const embed::Message& message : embed::messages(group)) {
    std::string text = message.text;
    if ((text.back() == '.') != sentences) continue;
    rows += "| " + std::to_string(message.number) + " | ";
    if (sentences) rows += std::string(SEVERITIES[static_cast<int>(message.severity)]) + " | ";
    rows += text + " |\n";
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
      "## Group 178: the calling surface\n\n| Number | Severity | Text |\n|---|---|---|\n" +
          message_rows(178, true) +
          "\n## Group 549: the optimization code\n\n| Number | Severity | Text |\n|---|---|---|\n" +
          message_rows(549, true) +
          "\n## Group 549: titles, labels and words of reports\n\n| Number | Text |\n|---|---|\n" +
          message_rows(549, false));
}

// Messages that other pages speak of exist.
TEST(Pages, NumbersOfMessagesExist) {
  for (const char* name : {"return-codes", "calling", "modules", "reports", "algorithms"}) {
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
