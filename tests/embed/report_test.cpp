// The public matrix, and the writers of reports.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <sstream>

#include "embed/task.h"
#include "tqnlp/tqnlp.hpp"

namespace tqnlp {
namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();

TEST(MatrixTest, RefusesWhatNoMatrixCanBe) {
  constexpr long HUGE_SIZE = std::numeric_limits<long>::max();
  const char* nothing = nullptr;
  const std::vector<double> three(3);
  const auto ragged = [] { return Matrix::of({{1, 2}, {3}}); };
  const std::function<Matrix()> bad_shapes[] = {[] { return Matrix(-1, 2); },
                                                [] { return Matrix(0, -2); },
                                                [] { return Matrix(HUGE_SIZE, HUGE_SIZE); },
                                                [] { return Matrix(HUGE_SIZE / 8, 2); },
                                                [&] { return Matrix(2, 2, three); },
                                                ragged,
                                                [=] { return Matrix(nothing); },
                                                [] { return Matrix(Matrix::scalar(1).text()); },
                                                [] { return Matrix::scalar(Matrix("A")(0, 0)); }};
  for (const auto& make : bad_shapes) EXPECT_THROW(make(), std::invalid_argument);
  const Matrix x = Matrix::row({1, 2, 3});
  EXPECT_THROW(x(1, 0), std::out_of_range);
  EXPECT_THROW(x(0, -1), std::out_of_range);
  EXPECT_THROW(x[3], std::out_of_range);
  try {
    (void)x(0, 3);
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "Matrix: element (0, 3) is outside of a 1x3 matrix");
  }
}

TEST(MatrixTest, ValueSemanticsAlsoOfSingleNumbers) {
  Matrix a = Matrix::scalar(3.0), b = a;
  b(0, 0) = 4.0;
  EXPECT_TRUE(a(0, 0) == 3.0 && *b.data() == 4.0);
  Matrix c = std::move(b);
  EXPECT_EQ(c, Matrix::scalar(4.0));
  EXPECT_TRUE(b.empty() && b.data() == nullptr && Matrix(3, 0).empty() && Matrix::row({}).empty());
  c = Matrix::of({{1, 2}, {3, 4}});
  EXPECT_EQ(c.transposed(), Matrix(2, 2, {1, 3, 2, 4}));
  EXPECT_EQ(Matrix::row({missing}), Matrix::scalar(std::nan("")));
  EXPECT_TRUE(Matrix::row({1, 2}) != Matrix::col({1, 2}) && Matrix("A") != Matrix::scalar(0));
  EXPECT_EQ(Matrix("A").text(), "A");
  EXPECT_EQ(Matrix(2, 2).values(), std::vector<double>(4, 0.0));
  EXPECT_TRUE(is_missing(missing) && !is_missing(std::nan("")));
  std::ostringstream out;
  out << Matrix::of({{1, missing}, {0.5, -2}});
  EXPECT_EQ(out.str(), "1 .\n0.5 -2\n");
}

TEST(TextTable, DecimalsSuitTheColumn) {
  const struct {
    std::vector<double> values;
    const char* written;
  } rows[] = {
      {{1309.17, 0.00123456}, "  1309.1700000\n     0.0012346\n"},
      {{1.6936078e9, 8946580.0, 87.945855}, "  1.693608e+09\n   8946580.000\n        87.946\n"},
      {{-0.0, 1.0}, "  0\n  1\n"},
      {{1e-20, 0.0}, "  1.00000e-20\n            0\n"},
      {{1.0 / 3.0, 2.0e9}, "     0.3333333\n  2.000000e+09\n"},
      {{9999999.0, 0.0001}, "    9999999\n  1.000e-04\n"},
      {{1.7976931348623157e308}, "  1.797693e+308\n"},
      {{missing, INFINITE, 0.5}, "         .\n  infinity\n       0.5\n"}};
  for (const auto& row : rows) {
    Table table{"T", "", "", {"A"}, {}};
    for (const double value : row.values) table.rows.push_back({value});
    const std::string text = text_table(table);
    EXPECT_EQ(text.substr(text.find("-\n") + 2), row.written);
  }
}

TEST(Json, EscapesTextsAndHasNoNumbersThatJsonLacks) {
  const Table table{"T",
                    "B.T",
                    "say \"a\\b\"\n\x01\xff\xc3\xa9",
                    {"A"},
                    {{0.1}, {missing}, {INFINITE}, {Cell()}, {7L}, {std::string("x")}}};
  std::string text = json_table(table);
  EXPECT_NE(text.find("say \\\"a\\\\b\\\"\\n\\u0001\xEF\xBF\xBD\xC3\xA9"), std::string::npos)
      << text;
  std::erase_if(text, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_TRUE(text.ends_with("\"rows\":[[0.1],[null],[null],[null],[7],[\"x\"]]}")) << text;
}

}  // namespace
}  // namespace tqnlp
