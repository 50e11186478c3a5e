// What every subroutine refuses, with code and message, and what it accepts.
#include <gtest/gtest.h>

#include <cstring>

#include "front_call.h"
#include "host/memory.h"
#include "support/pages.h"

namespace tqnlp::test {
namespace {

const Matrix X = Matrix::row({1, 2});

struct Entry {
  const char* name;
  TqxEntry entry;
  std::vector<Matrix> good;  // arguments that pass every check
};

// A function, x0, five absent arguments or the number of functions and four, modules.
std::vector<Matrix> with(std::vector<Matrix> modules, Matrix third = NONE) {
  modules.insert(modules.begin(), {"F", X, std::move(third), NONE, NONE, NONE, NONE});
  return modules;
}

std::vector<Entry> entries() {
  const Matrix m = Matrix::row({2});  // number of functions
  return {{"NLPQUA", tqxqas, {Matrix(2, 2, {2, 0, 0, 2}), X, NONE, NONE, NONE, NONE, NONE, X}},
          {"NLPNMS", tqxnms, with({"N"})},
          {"NLPVMC", tqxvmc, with({"G", "N", "J"})},
          {"NLPCG", tqxcg, with({"G"})},
          {"NLPQN", tqxqn, with({"G", "N", "J"})},
          {"NLPDD", tqxdd, with({"G"})},
          {"NLPTR", tqxtr, with({"G", "H"})},
          {"NLPNRA", tqxnra, with({"G", "H"})},
          {"NLPNRR", tqxnrr, with({"G", "H"})},
          {"NLPLM", tqxlm, with({"G"}, m)},
          {"NLPHQN", tqxhqn, with({"G"}, m)}};
}

void define_modules(Session& session) {
  session.module(
      "F", [](const Matrix& x) { return Matrix::scalar(x(0, 0) * x(0, 0) + x(0, 1) * x(0, 1)); });
  session.module("G", [](const Matrix& x) { return Matrix::row({2 * x(0, 0), 2 * x(0, 1)}); });
  session.module("H", [](const Matrix&) { return Matrix(2, 2, {2, 0, 0, 2}); });
  session.module("N", [](const Matrix& x) { return Matrix::scalar(x(0, 0)); });
  session.module("J", [](const Matrix&) { return Matrix::row({1, 0}); });
  session.termination_module("T", [](const Matrix&, double) { return 1.0; });
}

// One argument of the good list is replaced, at a position from 1; at position 0 the list is cut
// to as many as the value says.
struct Refusal {
  const char* who;  // names of the subroutines; with a minus: all but these
  const char* what;
  std::size_t position;
  Matrix value;
  int code;
  int message;
  bool concerns(const char* name) const {
    return (std::strstr(who, name) == nullptr) == (who[0] == '-');
  }
};

void expect_refusal(const Entry& entry, const Refusal& refusal) {
  SCOPED_TRACE(testing::Message() << entry.name << ": " << refusal.what);
  std::vector<Matrix> arguments = entry.good;
  if (refusal.position == 0) {
    arguments.resize(static_cast<std::size_t>(refusal.value(0, 0)));
  } else {
    arguments.resize(std::max(arguments.size(), refusal.position));
    arguments[refusal.position - 1] = refusal.value;
  }
  Session session;
  define_modules(session);
  const Answer answer = enter(session, entry.entry, std::move(arguments));
  EXPECT_EQ(answer.code, refusal.code);
  ASSERT_FALSE(answer.messages.empty());
  EXPECT_EQ(answer.messages.back(), refusal.message);
  EXPECT_EQ(answer.blocks_left, 0);
  const std::string& text = session.log().back().text;
  EXPECT_EQ(text.rfind(std::string(entry.name) + ": ", 0), 0u) << text;
  EXPECT_EQ(text.find('?'), std::string::npos) << text;
  EXPECT_TRUE(answer.results.empty());
}

const Matrix SQUARE(2, 2);

TEST(Arguments, RefusalsHaveACodeAndAMessageThatNamesTheSubroutine) {
  constexpr const char* ALL = "-";
  constexpr const char* SQUARES = "NLPLM NLPHQN";
  constexpr const char* CONSTRAINED = "NLPQN NLPVMC";
  constexpr const char* HESSIAN = "NLPTR NLPNRA NLPNRR";
  const auto option_9 = [](double value) { return Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, value}); };
  const Refusal refusals[] = {
      {"-NLPLM NLPHQN", "too few", 0, Matrix::scalar(1), 6, 130},
      {SQUARES, "too few", 0, Matrix::scalar(2), 6, 130},
      {ALL, "x0 empty", 2, NONE, 6, 132},
      {ALL, "x0 no vector", 2, SQUARE, 6, 132},
      {ALL, "x0 infinite", 2, Matrix::row({0, INF}), 6, 195},
      {ALL, "opt no vector", 3, SQUARE, 6, 139},
      {ALL, "blc of 3 columns", 4, Matrix(2, 3), 6, 138},
      {ALL, "tc no vector", 5, SQUARE, 6, 153},
      {ALL, "par no vector", 6, SQUARE, 6, 133},
      {ALL, "ptit no name", 7, X, 6, 154},
      {ALL, "ptit not there", 7, "NOSUCH", 3, 154},
      {"-NLPQUA", "fun no name", 1, X, 6, 131},
      {"-NLPQUA", "fun absent", 1, NONE, 6, 131},
      {"-NLPQUA", "fun not there", 1, "NOSUCH", 3, 131},
      {"NLPQUA", "matrix of 3 columns", 1, Matrix(2, 3), 6, 160},
      {"NLPQUA", "matrix a name", 1, "F", 6, 160},
      {"NLPQUA", "vector of 4", 8, Matrix(1, 4), 6, 159},
      {"-NLPQUA NLPNMS", "grd no name", 8, X, 6, 134},
      {"-NLPQUA NLPNMS", "grd not there", 8, "Q", 3, 134},
      {"NLPNMS", "nlc no name", 8, X, 6, 169},
      {"NLPNMS", "nlc not there", 8, "Q", 3, 155},
      {CONSTRAINED, "nlc no name", 9, X, 6, 169},
      {CONSTRAINED, "nlc not there", 9, "Q", 3, 155},
      {CONSTRAINED, "jnc no name", 10, X, 6, 169},
      {CONSTRAINED, "jnc not there", 10, "Q", 3, 155},
      {CONSTRAINED, "more equalities than constraints", 3,
       Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2}), 6, 175},
      {HESSIAN, "hes no name", 9, X, 6, 155},
      {HESSIAN, "hes not there", 9, "Q", 3, 155},
      {HESSIAN, "too many sparse rows", 3, option_9(2147483647.0), 6, 165},
      {SQUARES, "no functions", 3, NONE, 6, 146},
      {SQUARES, "0 functions", 3, Matrix::row({0}), 6, 146},
  };
  for (const Entry& entry : entries())
    for (const Refusal& refusal : refusals)
      if (refusal.concerns(entry.name)) expect_refusal(entry, refusal);
}

TEST(Arguments, GoodListsPass) {
  for (const Entry& entry : entries()) {
    SCOPED_TRACE(entry.name);
    Session session;
    define_modules(session);
    const Answer answer = enter(session, entry.entry, entry.good);
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.blocks_left, 0);
    const std::string page = contents("docs/calling.md");
    EXPECT_NE(page.find(std::string("\n| `") + entry.name + "` | "), std::string::npos);
  }
}

// Remarks that do not refuse the call, the sparse form of NLPQUA, and the calls at a point: every
// message of a call, in the order of the log.
TEST(Arguments, MessagesOfACallInOrder) {
  const Matrix sparse = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 4});
  const Matrix constraints = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 0, 3});
  const Matrix triples(5, 3, {1, 1, 1, 2, 2, 1, 3, 3, 1, 4, 4, 1, 2, 1, 0.5});
  const Matrix box(2, 2, {0, 0, 9, 9});
  const struct {
    TqxEntry entry;
    std::vector<Matrix> arguments;
    int code;
    Numbers messages;
  } cases[] = {
      {tqxcg, with({"G"}, sparse), 0, {163}},
      {tqxqn, with({"G"}, constraints), 0, {174}},
      {tqxqn, with({"G", "N"}), 0, {190}},
      {tqxtr, with({NONE, "H"}, sparse), 0, {145, 163}},
      {tqxnrr, {"F", X, NONE, Matrix(2, 4), NONE, NONE, NONE, "G"}, 0, {172}},
      {tqxqas, {triples, Matrix::row({0, 0, 0, 0})}, 0, {}},
      {tqxqas, {triples, Matrix::row({0, 0, 0})}, 6, {160}},  // the sparse form begins at order 4
      {tqxfdd, {"F"}, 6, {130}},
      {tqxfdd, {"NOSUCH", X}, 3, {131}},
      {tqxfdd, {"F", X, Matrix(4, 3)}, 6, {133}},
      {tqxfdd, {"F", X, SQUARE}, 0, {}},  // a small matrix passes
      {tqxfdd, {"F", X, Matrix::row({INF, 1e300, INF}), "Q"}, 3, {134}},
      {tqxfdd, {"F", X, NONE, "G"}, 0, {}},
      {tqxfea, {X}, 6, {130}},
      {tqxfea, {X, NONE}, 6, {138}},
      {tqxfea, {X, Matrix(3, 2)}, 6, {138}},
      {tqxfea, {X, box, SQUARE}, 6, {133}},
      {tqxfea, {X, box}, 0, {}},
  };
  for (const auto& c : cases) {
    Session session;
    define_modules(session);
    const Answer answer = enter(session, c.entry, c.arguments);
    EXPECT_EQ(answer.code, c.code);
    EXPECT_EQ(answer.messages, c.messages);
  }
}

TEST(Table, RowsAndEntries) {
  auto* table = static_cast<FNCUSR*>(qorinlp(1));
  auto* routines = static_cast<FNCENT*>(qorinlp(2));
  EXPECT_EQ(qorinlp(3), nullptr);
  ASSERT_TRUE(table->nfnc == 13 && routines->nfnc == 13);
  EXPECT_STREQ(table->fncitem[6].fncname, "NLPQN");
  EXPECT_EQ(table->fncitem[6].fncstr.fargi, 02222111112);  // octal, one digit an argument
  EXPECT_EQ(routines->entry[6], tqxqn);
  vmfree_handler(table);
  vmfree_handler(routines);
}

}  // namespace
}  // namespace tqnlp::test
