// What every subroutine refuses, with code and message, and what it accepts.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "front_call.h"
#include "host/memory.h"

namespace tqnlp {
namespace {

using test::Answer;
using test::enter;

constexpr double INF = std::numeric_limits<double>::infinity();

struct Entry {
  const char* name;
  TqxEntry entry;
  std::vector<Matrix> good;  // arguments that pass every check
  int not_built;             // the message that then refuses the call; 0: it runs
};

const Matrix NONE;
const Matrix X = Matrix::row({1, 2});

std::vector<Entry> entries() {
  const Matrix m = Matrix::row({2});  // number of functions
  return {
      {"NLPQUA", tqxqas, {Matrix(2, 2, {2, 0, 0, 2}), X, NONE, NONE, NONE, NONE, NONE, X}, 199},
      {"NLPNMS", tqxnms, {"F", X, NONE, NONE, NONE, NONE, NONE, "N"}, 199},
      {"NLPVMC", tqxvmc, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "N", "J"}, 199},
      {"NLPCG", tqxcg, {"F", X, NONE, NONE, NONE, NONE, NONE, "G"}, 199},
      {"NLPQN", tqxqn, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "N", "J"}, 0},
      {"NLPDD", tqxdd, {"F", X, NONE, NONE, NONE, NONE, NONE, "G"}, 199},
      {"NLPTR", tqxtr, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "H"}, 199},
      {"NLPNRA", tqxnra, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "H"}, 199},
      {"NLPNRR", tqxnrr, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "H"}, 0},
      {"NLPLM", tqxlm, {"F", X, m, NONE, NONE, NONE, NONE, "G"}, 199},
      {"NLPHQN", tqxhqn, {"F", X, m, NONE, NONE, NONE, NONE, "G"}, 199},
  };
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

// One argument of the good list is replaced, at a position from 1.
struct Refusal {
  const char* what;
  std::size_t position;
  Matrix value;
  int code;
  int message;
};

void expect_refusal(const Entry& entry, std::vector<Matrix> arguments, const Refusal& refusal) {
  Session session;
  define_modules(session);
  const Answer answer = enter(session, entry.entry, std::move(arguments));
  EXPECT_EQ(answer.code, refusal.code) << entry.name << ": " << refusal.what;
  ASSERT_FALSE(answer.messages.empty()) << entry.name << ": " << refusal.what;
  EXPECT_EQ(answer.messages.back(), refusal.message) << entry.name << ": " << refusal.what;
  EXPECT_EQ(answer.blocks_left, 0);
  const std::string& text = session.log().back().text;
  EXPECT_EQ(text.rfind(std::string(entry.name) + ": ", 0), 0u) << text;
  EXPECT_EQ(text.find('?'), std::string::npos) << text;
  EXPECT_TRUE(answer.results.empty());
}

void expect_refusals(const Entry& entry, const std::vector<Refusal>& refusals) {
  for (const Refusal& refusal : refusals) {
    std::vector<Matrix> arguments = entry.good;
    arguments.resize(std::max(arguments.size(), refusal.position));
    arguments[refusal.position - 1] = refusal.value;
    expect_refusal(entry, std::move(arguments), refusal);
  }
}

const Matrix SQUARE(2, 2);
const Matrix LONG_NAME(std::string(33, 'F'));

TEST(Arguments, CommonRefusals) {
  const Matrix inf_start = Matrix::row({0, INF});
  for (const Entry& entry : entries()) {
    expect_refusals(entry, {{"x0 empty", 2, NONE, 6, 132},
                            {"x0 no vector", 2, SQUARE, 6, 132},
                            {"x0 a name", 2, "F", 6, 132},
                            {"x0 infinite", 2, inf_start, 6, 195},
                            {"opt no vector", 3, SQUARE, 6, 139},
                            {"blc of 3 columns", 4, Matrix(2, 3), 6, 138},
                            {"blc of 3 rows and n columns", 4, Matrix(3, 2), 6, 138},
                            {"blc with a bad operator", 4,
                             Matrix(3, 4, {0, 0, 0, 0, 9, 9, 0, 0, 1, 1, 5, 0}), 6, 173},
                            {"tc no vector", 5, SQUARE, 6, 153},
                            {"par no vector", 6, SQUARE, 6, 133},
                            {"par a name", 6, "F", 6, 133},
                            {"ptit no name", 7, X, 6, 154},
                            {"ptit not there", 7, "NOSUCH", 3, 154},
                            {"ptit of the wrong kind", 7, "F", 3, 154}});
    const bool squares =
        std::strcmp(entry.name, "NLPLM") == 0 || std::strcmp(entry.name, "NLPHQN") == 0;
    const std::size_t fewest = squares ? 3 : 2;
    std::vector<Matrix> few(entry.good.begin(),
                            entry.good.begin() + static_cast<std::ptrdiff_t>(fewest) - 1);
    expect_refusal(entry, few, {"too few", 0, NONE, 6, 130});
    if (std::strcmp(entry.name, "NLPQUA") == 0) continue;
    expect_refusals(entry, {{"fun no name", 1, X, 6, 131},
                            {"fun absent", 1, NONE, 6, 131},
                            {"fun of 33 characters", 1, LONG_NAME, 6, 131},
                            {"fun not there", 1, "NOSUCH", 3, 131},
                            {"fun a termination module", 1, "T", 3, 131}});
  }
}

TEST(Arguments, RefusalsOfTheirOwn) {
  const Matrix opt_equalities = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2});
  const Matrix opt_sparse = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 2147483647.0});
  const Matrix opt_sparse_small = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 4});
  for (const Entry& entry : entries()) {
    const std::string name = entry.name;
    if (name == "NLPQUA") {
      expect_refusals(entry, {{"matrix of 3 columns", 1, Matrix(2, 3), 6, 160},
                              {"matrix a name", 1, "F", 6, 160},
                              {"vector of 4", 8, Matrix(1, 4), 6, 159},
                              {"vector no vector", 8, SQUARE, 6, 159}});
      continue;
    }
    if (name == "NLPNMS") {
      expect_refusals(entry, {{"nlc no name", 8, X, 6, 169}, {"nlc not there", 8, "Q", 3, 155}});
      continue;
    }
    expect_refusals(entry, {{"grd no name", 8, X, 6, 134}, {"grd not there", 8, "Q", 3, 134}});
    if (name == "NLPQN" || name == "NLPVMC") {
      expect_refusals(entry, {{"nlc no name", 9, X, 6, 169},
                              {"nlc not there", 9, "Q", 3, 155},
                              {"jnc no name", 10, X, 6, 169},
                              {"jnc not there", 10, "Q", 3, 155},
                              {"more equalities than constraints", 3, opt_equalities, 6, 175}});
    }
    if (name == "NLPTR" || name == "NLPNRA" || name == "NLPNRR") {
      expect_refusals(entry, {{"hes no name", 9, X, 6, 155},
                              {"hes not there", 9, "Q", 3, 155},
                              {"too many sparse rows", 3, opt_sparse, 6, 165}});
    }
    if (name == "NLPLM" || name == "NLPHQN") {
      expect_refusals(
          entry, {{"no functions", 3, NONE, 6, 146}, {"0 functions", 3, Matrix::row({0}), 6, 146}});
    }
    if (name == "NLPNRR") {
      expect_refusals(entry, {{"sparse", 3, opt_sparse_small, 6, 197}});
    }
  }
}

TEST(Arguments, GoodListsPass) {
  for (const Entry& entry : entries()) {
    Session session;
    define_modules(session);
    const Answer answer = enter(session, entry.entry, entry.good);
    EXPECT_EQ(answer.code, entry.not_built == 0 ? 0 : 6) << entry.name;
    if (entry.not_built != 0) {
      ASSERT_FALSE(answer.messages.empty()) << entry.name;
      EXPECT_EQ(answer.messages.back(), entry.not_built) << entry.name;
    }
    EXPECT_EQ(answer.blocks_left, 0) << entry.name;
  }
}

// Remarks that do not refuse the call, in the order of the log.
TEST(Arguments, WarningsGoOn) {
  const auto messages = [](TqxEntry entry, std::vector<Matrix> arguments) {
    Session session;
    define_modules(session);
    return enter(session, entry, std::move(arguments)).messages;
  };
  using Numbers = std::vector<int>;
  const Matrix sparse = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 4});
  const Matrix constraints = Matrix::row({0, 0, 0, 0, 0, 0, 0, 0, 0, 3});
  EXPECT_EQ(messages(tqxcg, {"F", X, sparse, NONE, NONE, NONE, NONE, "G"}), (Numbers{163, 199}));
  EXPECT_EQ(messages(tqxqn, {"F", X, constraints, NONE, NONE, NONE, NONE, "G"}), (Numbers{174}));
  EXPECT_EQ(messages(tqxqn, {"F", X, NONE, NONE, NONE, NONE, NONE, "G", "N"}), (Numbers{190}));
  EXPECT_EQ(messages(tqxtr, {"F", X, sparse, NONE, NONE, NONE, NONE, NONE, "H"}),
            (Numbers{145, 163, 199}));
  EXPECT_EQ(messages(tqxnrr, {"F", X, NONE, Matrix(2, 4), NONE, NONE, NONE, "G"}), (Numbers{172}));
}

TEST(Arguments, QuadraticTakesTheSparseFormFromOrderFourOn) {
  Session session;
  const Matrix four = Matrix::row({0, 0, 0, 0});
  const Matrix triples(5, 3, {1, 1, 1, 2, 2, 1, 3, 3, 1, 4, 4, 1, 2, 1, 0.5});
  EXPECT_EQ(enter(session, tqxqas, {triples, four}).messages, std::vector<int>{199});
  EXPECT_EQ(enter(session, tqxqas, {triples, Matrix::row({0, 0, 0})}).messages,
            std::vector<int>{160});
}

TEST(Arguments, PointCalls) {
  Session session;
  define_modules(session);
  const auto last = [&session](TqxEntry entry, std::vector<Matrix> arguments) {
    const Answer answer = enter(session, entry, std::move(arguments));
    EXPECT_EQ(answer.code == 0, answer.messages.empty());
    return answer.messages.empty() ? 0 : answer.messages.back();
  };
  EXPECT_EQ(last(tqxfdd, {"F"}), 130);
  EXPECT_EQ(last(tqxfdd, {"F", SQUARE}), 132);
  EXPECT_EQ(last(tqxfdd, {"NOSUCH", X}), 131);
  EXPECT_EQ(last(tqxfdd, {"F", X, Matrix(4, 3)}), 133);
  EXPECT_EQ(last(tqxfdd, {"F", X, SQUARE}), 0);  // a small matrix passes
  EXPECT_EQ(last(tqxfdd, {"F", X, Matrix::row({INF, 1e300, INF}), "Q"}), 134);
  EXPECT_EQ(last(tqxfdd, {"F", X, NONE, "G"}), 0);
  EXPECT_EQ(last(tqxfea, {X}), 130);
  EXPECT_EQ(last(tqxfea, {X, NONE}), 138);
  EXPECT_EQ(last(tqxfea, {X, Matrix(3, 2)}), 138);
  EXPECT_EQ(last(tqxfea, {SQUARE, Matrix(2, 2)}), 132);
  EXPECT_EQ(last(tqxfea, {X, Matrix(2, 2, {0, 0, 9, 9}), SQUARE}), 133);
  EXPECT_EQ(last(tqxfea, {X, Matrix(2, 2, {0, 0, 9, 9})}), 0);
}

TEST(Table, RowsAndEntries) {
  auto* table = static_cast<FNCUSR*>(qorinlp(1));
  auto* routines = static_cast<FNCENT*>(qorinlp(2));
  EXPECT_EQ(qorinlp(3), nullptr);
  ASSERT_EQ(table->nfnc, 13);
  ASSERT_EQ(routines->nfnc, 13);
  const FNCITEM& qn = table->fncitem[6];
  EXPECT_STREQ(qn.fncname, "NLPQN");
  EXPECT_EQ(qn.fncstr.fmin, 2);
  EXPECT_EQ(qn.fncstr.fmax, 10);
  EXPECT_EQ(qn.fncstr.fargi, 02222111112);  // octal: one digit an argument, the first last
  EXPECT_EQ(routines->entry[6], tqxqn);
  EXPECT_EQ(table->fncitem[11].fncstr.fmin, 3);
  vmfree_handler(table);
  vmfree_handler(routines);

  Session session;
  const embed::Activation activation(session.task());
  embed::plan_fault(session.task(), embed::Fault::allocation, 0);
  EXPECT_THROW(qorinlp(1), embed::ExitRequest);
}

}  // namespace
}  // namespace tqnlp
