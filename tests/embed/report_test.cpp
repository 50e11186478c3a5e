// The public matrix, and the writers of reports.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "embed/task.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {
namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();

TEST(MatrixTest, RefusesWhatNoMatrixCanBe) {
  constexpr long HUGE_SIZE = std::numeric_limits<long>::max();
  EXPECT_THROW(Matrix(-1, 2), std::invalid_argument);
  EXPECT_THROW(Matrix(0, -2), std::invalid_argument);
  EXPECT_THROW(Matrix(HUGE_SIZE, HUGE_SIZE), std::invalid_argument);
  EXPECT_THROW(Matrix(HUGE_SIZE / 8, 2), std::invalid_argument);
  EXPECT_THROW(Matrix(2, 2, {1, 2, 3}), std::invalid_argument);
  EXPECT_THROW(Matrix::of({{1, 2}, {3}}), std::invalid_argument);
  const char* nothing = nullptr;
  EXPECT_THROW(Matrix{nothing}, std::invalid_argument);
  const Matrix x = Matrix::row({1, 2, 3});
  EXPECT_THROW(x(1, 0), std::out_of_range);
  EXPECT_THROW(x(0, 3), std::out_of_range);
  EXPECT_THROW(x(0, -1), std::out_of_range);
  EXPECT_THROW(x[3], std::out_of_range);
  EXPECT_THROW(x.text(), std::invalid_argument);
  EXPECT_THROW(Matrix("A")(0, 0), std::invalid_argument);
  try {
    (void)x(2, 5);
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "Matrix: element (2, 5) is outside of a 1x3 matrix");
  }
}

TEST(MatrixTest, ValueSemanticsAlsoOfSingleNumbers) {
  Matrix a = Matrix::scalar(3.0), b = a;
  b(0, 0) = 4.0;
  EXPECT_EQ(a(0, 0), 3.0);
  EXPECT_EQ(*b.data(), 4.0);
  Matrix c = std::move(b);
  EXPECT_EQ(c, Matrix::scalar(4.0));
  EXPECT_TRUE(b.empty());
  EXPECT_EQ(b.data(), nullptr);
  c = Matrix::of({{1, 2}, {3, 4}});
  EXPECT_EQ(c.transposed(), Matrix(2, 2, {1, 3, 2, 4}));
  EXPECT_EQ(Matrix::col({1, 2}).rows(), 2);
  EXPECT_EQ(Matrix::row({missing}), Matrix::scalar(std::nan("")));
  EXPECT_NE(Matrix::row({1, 2}), Matrix::col({1, 2}));
  EXPECT_NE(Matrix("A"), Matrix::scalar(0));
  EXPECT_EQ(Matrix("A").text(), "A");
  EXPECT_TRUE(Matrix(3, 0).empty());
  EXPECT_TRUE(Matrix::row({}).empty());
  EXPECT_EQ(Matrix(2, 2).values(), std::vector<double>(4, 0.0));
  EXPECT_TRUE(is_missing(missing));
  EXPECT_FALSE(is_missing(std::nan("")));
  std::ostringstream out;
  out << Matrix::of({{1, missing}, {0.5, -2}});
  EXPECT_EQ(out.str(), "1 .\n0.5 -2\n");
}

TEST(TextTable, PointsStandBelowOneAnother) {
  const Table table{"Progress",
                    "Base.NLP.Progress",
                    "Iterations",
                    {"Iter", "Ac1", "OptCrit", "MaxGrad"},
                    {{1L, std::string("*"), 24.2, 2.5e3},
                     {2L, Cell(), -4.125, missing},
                     {13L, Cell(), 0.0, INFINITE},
                     {14L, Cell(), -3.4567e-9, 1e-12},
                     {15L, Cell(), Cell(), 0.03127}}};
  EXPECT_EQ(text_table(table),
            "Iterations\n\n"
            "  Iter  Ac1     OptCrit     MaxGrad\n"
            "  ----  ---  ----------  ----------\n"
            "     1  *        24.200  2500.00000\n"
            "     2           -4.125           .\n"
            "    13            0.000    infinity\n"
            "    14       -3.457e-09   1.000e-12\n"
            "    15                      0.03127\n");
}

TEST(TextTable, DecimalsSuitTheColumn) {
  const auto column = [](std::vector<double> values) {
    Table table{"T", "", "", {"A"}, {}};
    for (const double value : values) table.rows.push_back({value});
    const std::string text = text_table(table);
    return text.substr(text.find("-\n") + 2);
  };
  EXPECT_EQ(column({1309.17, 0.00123456}), "  1309.1700000\n     0.0012346\n");
  EXPECT_EQ(column({1.6936078e9, 8946580.0, 87.945855}),
            "  1.693608e+09\n   8946580.000\n        87.946\n");
  EXPECT_EQ(column({-0.0, 1.0}), "  0\n  1\n");
  EXPECT_EQ(column({1e-20, 0.0}), "  1.00000e-20\n            0\n");
  EXPECT_EQ(column({1.0 / 3.0, 2.0e9}), "     0.3333333\n  2.000000e+09\n");
  EXPECT_EQ(column({9999999.0, 0.0001}), "    9999999\n  1.000e-04\n");
  EXPECT_EQ(column({1.7976931348623157e308}), "  1.797693e+308\n");
}

TEST(TextTable, PairsStandTwoALine) {
  const Table table{"S",
                    "",
                    "Summary",
                    {"Label", "Value"},
                    {{std::string("Iterations"), 12L},
                     {std::string("Function calls"), 117L},
                     {std::string("Objective"), 0.25}}};
  EXPECT_EQ(text_table(table),
            "Summary\n\n"
            "  Iterations    12    Function calls  117\n"
            "  Objective   0.25\n");
}

// Columns of the history do not depend on what is in them, as far as it fits.
TEST(TextTable, HistoryHasFixedForms) {
  Table table{"IterHist", "", "History", {"Iter", "Ac1", "OptCrit", "Slope"}, {}};
  table.rows = {{1L, std::string("*"), 24.2, -1309.17},
                {20L, std::string(" "), -123456.7, 12345.6},
                {21L, std::string(" "), 1e-300, -0.0},
                {22L, Cell(), 1.7976931348623157e308, -1e-17},
                {123456L, Cell(), missing, 0.01}};
  const std::string rows =
      "   Iter  Ac1        OptCrit        Slope\n"
      "  -----  ---  -------------  -----------\n"
      "      1  *        24.200000  -1309.17000\n"
      "     20       -1.234567e+05   1.2346e+04\n"
      "     21       1.000000e-300            0\n"
      "     22       1.797693e+308  -1.0000e-17\n"
      "  123456                   .      0.01000\n";
  EXPECT_EQ(text_table(table), "History\n\n" + rows);
  table.continued = true;
  EXPECT_EQ(text_table(table), rows);
}

TEST(TextTable, TextsOfPairsStandOnLinesOfTheirOwn) {
  const Table table{"S",
                    "",
                    "Summary",
                    {"Label", "Value"},
                    {{std::string("Iterations"), 12L},
                     {std::string("Limit"), std::string("none at all")},
                     {std::string("Calls"), 7L},
                     {std::string("Objective"), -0.25}}};
  EXPECT_EQ(text_table(table),
            "Summary\n\n"
            "  Iterations  12\n"
            "  Limit       none at all\n"
            "  Calls        7    Objective  -0.25\n");
}

TEST(TextTable, RemarksStandAboveTheirRows) {
  const std::string remark = "Value of objective = 3";
  const Table table{"P",
                    "",
                    "Estimates",
                    {"TitleText1", "Number", "Parameter"},
                    {{remark, 1L, std::string("X1")}, {remark, 2L, std::string("X2")}}};
  EXPECT_EQ(text_table(table),
            "Estimates\n\n"
            "  Value of objective = 3\n"
            "  Number  Parameter\n"
            "  ------  ---------\n"
            "       1  X1\n"
            "       2  X2\n");
}

TEST(Json, EscapesTextsAndHasNoNumbersThatJsonLacks) {
  const Table table{"T",
                    "B.T",
                    "say \"a\\b\"\n\x01\xff\xc3\xa9",
                    {"A"},
                    {{0.1}, {missing}, {INFINITE}, {Cell()}, {7L}, {std::string("x")}}};
  const std::string text = json_table(table);
  EXPECT_NE(text.find("say \\\"a\\\\b\\\"\\n\\u0001\xEF\xBF\xBD\xC3\xA9"), std::string::npos)
      << text;
  std::string rows = text.substr(text.find("\"rows\""));
  std::erase_if(rows, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_EQ(rows, "\"rows\":[[0.1],[null],[null],[null],[7],[\"x\"]]}");
}

TEST(Reports, KeepTheOrderOfLogTablesAndPrintedLines) {
  Session session;
  embed::Task& task = session.task();
  {
    const embed::Activation activation(task);
    xpslog("a literal line");
    embed::add_log(task, 178, 130, Severity::error, "Too few.");
    xpmlog(OPTIMIZATION, 655);
    xpmout(OPTIMIZATION, 655);  // told in the log already
    task.tables.push_back({"A", "", "First", {"N"}, {{1L}}});
    xpsout("between");
    task.tables.push_back({"B", "", "Second", {"N"}, {}});
  }
  EXPECT_EQ(text_report(session),
            "a literal line\nERROR: Too few.\nNOTE: none\n\nFirst\n\n  N\n  -\n  1\nbetween\n");
  EXPECT_NE(json_report(session).find("\"severity\": \"error\", \"text\": \"Too few.\""),
            std::string::npos);
}

}  // namespace
}  // namespace tqnlp
