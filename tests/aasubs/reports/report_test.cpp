// Reports of records in states that the golden reports of the embedded host do not show: columns
// and their order, the conditions of tables, and what their cells say. Every table that is written
// here must stand in docs/reports.md as it is.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "aasubs/record/covstr.h"
#include "aasubs/reports/znlppre.h"
#include "aasubs/termination/znlptrm.h"
#include "embed/messages.h"
#include "embed/task.h"
#include "host/log.h"
#include "host/tables.h"
#include "support/pages.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

using Names = std::vector<std::string>;

// A host whose delivery object the record writes to.
class Reports : public testing::Test {
 protected:
  embed::Task task;
  embed::Activation activation{task};

  // Forgets what was reported so far and gives the record a delivery object.
  void deliver(MINSTR& str) {
    task.tables.clear();
    task.log.clear();
    ASSERT_EQ(xobinit(&str.rvx, 0), 0);
  }

  void TearDown() override {
    for (const Table& t : task.tables) {
      if (t.name != "Many" && t.name != "SymDif") expect_documented(t);
    }
  }

  Names tables() const {
    Names names;
    for (const Table& t : task.tables) names.push_back(t.name);
    return names;
  }
  const Table& table(const std::string& name) const {
    for (const Table& t : task.tables) {
      if (t.name == name) return t;
    }
    static const Table none;
    ADD_FAILURE() << "no table " << name;
    return none;
  }
  static std::string text_of(const Cell& held) {
    if (const auto* text = std::get_if<std::string>(&held)) return *text;
    if (const auto* number = std::get_if<double>(&held)) return embed::readable(*number);
    if (const auto* count = std::get_if<long>(&held)) return std::to_string(*count);
    return "";
  }
  static std::string joined(const std::vector<Cell>& cells) {
    std::string text;
    for (const Cell& held : cells) text += text_of(held) + "|";
    return text;
  }
  // All cells of a row, and the names of all columns, with bars behind them.
  std::string line(const std::string& name, std::size_t row) const {
    return row < table(name).rows.size() ? joined(table(name).rows[row]) : "no such row";
  }
  std::string header(const std::string& name) const {
    return joined({table(name).columns.begin(), table(name).columns.end()});
  }
  // Labels and values of a table of pairs.
  Names pairs(const std::string& name) const {
    Names list;
    for (const auto& row : table(name).rows)
      list.push_back(text_of(row[0]) + "=" + text_of(row[1]));
    return list;
  }
};

// Two parameters, one on its lower bound, one linear equality and one slack inequality; everything
// that a report reads is in place.
struct Solved : TestRecord {
  Solved() : TestRecord(3) {
    with_bounds({0.0, -HUGE_VALUE, 2.0}, {HUGE_VALUE, 5.0, 2.0});
    with_rows({{{1.0, -2.0, 0.0}, 0, -2.0}, {{-1.0, -1.0, 0.0}, 1, -10.0}});
    at({0.0, 1.0, 2.0});
    f = [](const double*) { return 1.0; };
    g = [](const double*, double*) {};
    with_callbacks();
    crit = 1.0, grad[0] = 0.5;
    iabc[0] = 1, ifxr[0] = 1, ifxr[1] = 0, ifxr[2] = 2, nabc = 2;
    iact[0] = 0, nalc = 1;
    lagm[0] = 0.5, lagm[1] = 0.25, lagm[2] = -3.0;
    dbug = 4;
  }
};

// ---- Iteration history --------------------------------------------------------------------------

// The golden reports show the other marks of a row.
TEST_F(Reports, HistoryRowsShowTheMomentAndTheUsersSense) {
  TestRecord run(2, 10);
  run.dbug = 2;
  run.imax = 1;
  deliver(run);
  prihist(&run, 10, 21, 23);
  run.nitr = 1.0, run.nfct = 7, run.cold = -3.0, run.crit = -5.0, run.pred = 0.25, run.alfa = 0.5;
  run.gmax = 4.0, run.nabc = 1, run.idac = BLOCK_DROPPED, run.null = 1;
  prihist(&run, 1, 21, 23);
  prihist(&run, 2, 21, 23);  // no line
  run.idac = -2;
  prihist(&run, 3, 21, 23);
  znlpptm(&run, 0, 1);
  ASSERT_EQ(table("IterHist").rows.size(), 2U);
  EXPECT_EQ(line("IterHist", 0), "1|*|0|7|1|\"|5|2|4|0.5|-0.25|");
  EXPECT_EQ(line("IterHist", 1), "1|*|0|7|1|!|5|2|4|0.5|-0.25|");
}

// ---- Problem and options ------------------------------------------------------------------------

TEST_F(Reports, ProblemInWords) {
  TestRecord run(4, 11);
  run.with_bounds({0.0, 0.0, -HUGE_VALUE, 1.0}, {HUGE_VALUE, 2.0, HUGE_VALUE, 1.0});
  run.dbug = run.ider = run.fidi = 1;
  run.tupd = 2, run.maxi = 50.0, run.gtol = 1e-6, run.upti = 9.0;
  deliver(run);
  pritech(&run);
  EXPECT_EQ(pairs("InputOpts"),
            (Names{"Largest number of iterations=50", "Largest number of function calls=500",
                   "Time limit in seconds=9", "GCONV: relative predicted reduction=1e-06"}));
  Names problem = pairs("ProblemDescription");
  EXPECT_EQ(problem[1], "Update=DFP on the factor of the Hessian");
  task.tables.clear();
  run.nlicon = 1, run.nnlc = 3, run.nlec = 1;
  pritech(&run);
  problem[0] = "Technique=sequential quadratic programming (QUANEW)";
  problem[2] = "Version of the method=2";
  problem.insert(problem.end(), {"Nonlinear constraints=3", "Nonlinear equality constraints=1"});
  EXPECT_EQ(pairs("ProblemDescription"), problem);
}

// ---- Tables of a point --------------------------------------------------------------------------

TEST_F(Reports, Estimates) {
  const struct {
    int level;
    std::function<void(Solved&)> change;
    const char* columns;
  } rows[] = {
      {-1, [](Solved& s) { s.iabc[2] = 0; }, "GradObj|LowerBC|UpperBC|"},
      {-10, [](Solved&) {}, "LowerBC|UpperBC|ActiveBC|"},
      {1, [](Solved& s) { s.nlbc = 1; }, "GradObj|ActiveBC|LinDep|"},
      {1, [](Solved& s) { s.usgrd = nullptr; }, "ActiveBC|"},
      {1, [](Solved& s) { s.bounds = 0, s.nlicon = 1, s.grlf = s.grad; }, "GradObj|GradLag|"},
      {1, [](Solved& s) { s.ster = s.gold, s.bounds = 0; }, "AppStdErr|tValue|Probt|GradObj|"}};
  for (const auto& row : rows) {
    Solved run;
    deliver(run);
    row.change(run);
    znlppre(&run, row.level, 0);
    EXPECT_EQ(header("ParameterEstimates"),
              std::string("TitleText1|Number|Parameter|Estimate|") + row.columns);
  }
  Solved run;
  deliver(run);
  run.imax = 1;
  run.x[1] = 6.0;  // above its bound
  run.grad[2] = MISSING;
  znlppre(&run, -1, 0);
  EXPECT_EQ(line("ParameterEstimates", 0),
            "Start values of the parameters|1|X1|0|-0.5|0|| Lower BC |");
  EXPECT_EQ(line("ParameterEstimates", 1), "|2|X2|6|0||5|Violat. BC|");
  EXPECT_EQ(line("ParameterEstimates", 2), "|3|X3|2||2|2| Equal BC |");
}

// P(|T| > 2) is 0.0733880 for 10 degrees of freedom, and 0.0455003 in the normal limit.
TEST_F(Reports, ProbabilityOfATValue) {
  TestRecord run(2, 4);
  COVSTR post{};
  run.dbug = 1;
  run.covstr = &post;
  run.ster = run.gold;
  run.at({-2.0, 1.0});
  run.ster[0] = 1.0, run.ster[1] = MISSING;
  for (const auto& [freedom, shown] :
       {std::pair{10.0, "0.073388035|"}, {MISSING, "0.045500264|"}}) {
    deliver(run);
    post.df = freedom;
    znlppre(&run, 1, 0);
    EXPECT_TRUE(line("ParameterEstimates", 0).ends_with(std::string("|1|X1|-2|1|-2|") + shown));
    EXPECT_EQ(line("ParameterEstimates", 1), "|2|X2|1||||");
  }
}

TEST_F(Reports, FunctionsAndIntervals) {
  TestRecord run(2, 8);
  short codes[] = {0, 1};
  run.dbug = 5, run.lsqu = 1, run.mequ = 2, run.cfdh = 1;
  run.func[0] = 1.5, run.func[1] = -2.0;
  run.hfwd = run.gold, run.hcnt = run.sdir;
  run.hfwd[0] = 0.25, run.hcnt[0] = 0.5;
  run.ofco = codes;
  deliver(run);
  znlppre(&run, -1, 1);
  EXPECT_EQ(tables(), (Names{"ParameterEstimates", "OptStartRes", "FiniteDiff"}));
  EXPECT_EQ(line("OptStartRes", 1), "|2|F2|-2|");
  EXPECT_EQ(line("FiniteDiff", 0), "Relative to |x| + 1|1|X1|0|0.25|0.5||");
  EXPECT_EQ(line("FiniteDiff", 1), "|2|X2|0|0|0|constant|");
}

TEST_F(Reports, ViolatedAndRemovedConstraints) {
  Solved run;
  deliver(run);
  run.x[1] = 20.0;
  run.liwk[0] = -1;
  znlppre(&run, -10, 0);
  pricon(&run, 2);
  EXPECT_TRUE(line("LinCon", 0).ends_with("|1|-38|:|VIO|-2| == | + |1| * |X1|"));
  EXPECT_EQ(line("LinCon", 2), "|2|-10|:|VIO|10| >= | + |1| * |X1|");
  EXPECT_EQ(table("LinConDel").rows.size(), 2U);
}

TEST_F(Reports, NonlinearConstraintsAndDependencies) {
  Solved run;
  deliver(run);
  double values[] = {0.0, -1.0, 4.0}, jacobian[] = {1, 0, 0, 0, -2, 0, 0, 0, 3};
  run.nlicon = 1, run.nnlc = 3, run.nlec = 1;
  run.fcon = values, run.jcon = jacobian, run.grlf = run.grad;
  run.nalc = 2, run.iact[1] = 2;  // first nonlinear constraint
  run.nldc = 2, run.iact[2] = 1, run.iact[3] = 3;
  run.nabc = 1, run.nlbc = 1;  // the fixed parameter is the last of ifxr
  run.lagm[1] = -3.0, run.lagm[2] = 0.75;
  znlppre(&run, 3, 0);
  EXPECT_EQ(tables(), (Names{"ParameterEstimates", "LinConSol", "DepBoundCons", "LinDepLinCon",
                             "DepNonlinCon", "LinDepGradNonLin", "NonLinCons", "Lagrange"}));
  EXPECT_TRUE(line("ParameterEstimates", 0).ends_with("| LinDep |"));
  EXPECT_TRUE(line("ParameterEstimates", 2).ends_with("||"));
  EXPECT_EQ(line("DepBoundCons", 0), "X1| Lower BC |");
  EXPECT_EQ(line("LinDepLinCon", 0), "Left out of the working set|2|9|:||10| >= | + |1| * |X1|");
  EXPECT_EQ(line("DepNonlinCon", 0), "C4_2|");
  EXPECT_EQ(line("LinDepGradNonLin", 0), "Left out of the working set|2|-1|:|VIO||| - |2| * |X2|");
  EXPECT_EQ(line("NonLinCons", 0), "1|C3_1|0|0|0.75|ACT||");
  EXPECT_EQ(line("NonLinCons", 1), "2|C4_2|-1|-1||VIO| LinDep |");
  EXPECT_EQ(line("NonLinCons", 2), "3|C4_3|4|4||||");
}

TEST_F(Reports, MultipliersOfSecondOrderAndMissingObjectives) {
  Solved run;
  deliver(run);
  run.nabc = 1, run.ulm2 = 1;
  run.lagm[0] = 0.25, run.lagm[1] = -3.0, run.lag2[1] = -2.5;
  znlppre(&run, 3, 0);
  EXPECT_TRUE(line("Lagrange", 0).ends_with("|1| Equal BC |X3|0.25|0|"));
  EXPECT_EQ(line("Lagrange", 1), "|2| Linear EC|C1_1|-3|-2.5|");
  task.tables.clear();
  run.crit = MISSING;  // no objective, nothing behind the constraints
  znlppre(&run, 3, 0);
  EXPECT_EQ(tables(), (Names{"ParameterEstimates", "LinConSol"}));
}

TEST_F(Reports, MatrixOfNamedRows) {
  TestRecord run(2);
  deliver(run);
  std::vector<double> values(2345, 4.0);
  const char* names[] = {"ALPHA   ", "BETA"};
  znlppmt(run.rvx, "SymDif", 2, 2, values.data(), names, 1, 741);
  EXPECT_EQ(header("SymDif") + line("SymDif", 1), "Parms|ALPHA|BETA|BETA|4|4|");
  znlppmt(run.rvx, "Many", 2345, 1, values.data(), nullptr, 0, 0);
  EXPECT_EQ(header("Many") + line("Many", 2344), "Parms|Many|X2345|4|");
}

// ---- End of a run -------------------------------------------------------------------------------

// The row of a code in docs/return-codes.md names the messages that the log has for it.
void expect_code_documented(int code, const std::vector<int>& log) {
  static const std::string page = contents("docs/return-codes.md");
  const bool near = code > 100;
  const std::size_t at =
      page.find(near ? "\n| 102 to 109 | " : "\n| " + std::to_string(code) + " | ");
  ASSERT_NE(at, std::string::npos) << code;
  const std::string row = page.substr(at + 1, page.find('\n', at + 1) - at);
  for (const int number : log) {
    const std::string message = "549/" + std::to_string(number);
    const bool beside =
        number == 4 || (number >= 136 && number <= 143) || number == 253 || number == 616;
    EXPECT_NE((beside ? page : row).find(message), std::string::npos) << code << ": " << message;
  }
}

TEST_F(Reports, MessagesOfEveryEnd) {
  using Str = MINSTR&;
  const auto as_is = [](Str) {};
  const struct {
    int code, job;
    std::function<void(MINSTR&)> change;
    std::vector<int> log;
    const char* told;  // part of the reason, or of the last line of the log
  } rows[] = {{0, 0, as_is, {614}, "The technique ended without"},
              {0, 0, [](Str s) { s.nitr = 0.0; }, {613}, "No technique ran"},
              {9, 0, as_is, {607}, "Convergence criterion GCONV2 satisfied"},
              {10, 0, as_is, {609}, "Every parameter is fixed"},
              {102, 0, as_is, {611}, "Convergence criterion ABSFCONV held"},
              {104, 0, [](Str s) { s.toln[3] = 5; }, {611}, "ABSXCONV held, though not yet for 5"},
              {-1, 0, as_is, {4, 131}, "The objective or a nonlinear"},
              {-3, 0, [](Str s) { s.gmax = 0.002; }, {4, 133}, "The objective could not"},
              {-4, 0, as_is, {4, 134}, "At a point of the run"},
              {-5, 0, as_is, {4, 1}, "No step lowers"},
              {-5, 0, [](Str s) { s.mini = 4; }, {4, 3}, "required minimum"},
              {-5, 0, [](Str s) { s.nlicon = 1, s.ipre = 4; }, {4, 146, 137}, "contradict"},
              {-6, 0, as_is, {4, 8}, "A step left"},
              {-8, 0, as_is, {4, 605}, "NRRIDG needs more than 200 iterations or 500"},
              {-8, 0, [](Str s) { s.zmsg = 3; }, {4, 605}, "used up"},
              {-8, 0, [](Str s) { s.nlicon = 1, s.x[0] = 2e6; }, {4, 605, 141}, "to 2000000 in"},
              {-9, 0, [](Str s) { s.upti = 2.5; }, {4, 2}, "limit of 2.5 seconds was reached."},
              {-9, 0, [](Str s) { s.zmsg = 3, s.upti = 1.0; }, {4, 2}, "allow more"},
              {-11, 0, as_is, {4}, "A module of the user"},
              {3, 0, [](Str s) { s.ipre = 2; }, {607, 137}, "1e-06"},
              {3, 0, [](Str s) { s.ipre = 10; }, {607, 253}, "10^10"},
              {3, 0, [](Str s) { s.gmax = 0.002, s.idac = -1; }, {607, 136, 138}, "wrong sign"},
              {3, 1, [](Str s) { s.gmax = 0.002; }, {607}, "ABSGCONV"}};
  for (const auto& row : rows) {
    TestRecord run(2);
    run.dbug = 2;
    run.nitr = 3.0;
    deliver(run);
    row.change(run);
    znlpptm(&run, row.code, row.job);
    std::vector<int> log;
    for (const LogRecord& line : task.log) log.push_back(line.number);
    EXPECT_EQ(log, row.log) << row.told;
    expect_code_documented(row.code, row.log);
    EXPECT_EQ(task.tables.size(), row.job == 0 ? 2U : 1U);  // a short end has no summary
    EXPECT_EQ(table("ConvergenceStatus").rows[0][0], Cell(long{row.code}));
    const std::string reason = text_of(table("ConvergenceStatus").rows[0][1]);
    EXPECT_NE((reason + task.log.back().text).find(row.told), std::string::npos) << reason;
    EXPECT_EQ(reason.back(), '.');  // a whole sentence, not cut to the room of a cell
  }
}

// The history of a technique has its columns. Its summary shows the criteria that it looks at and
// what the test compares: with the tolerance just above or below the measure shown, the test
// answers the code or goes on.
class Summary : public Reports {
 protected:
  struct Kind {
    int technique, squares, nonlinear, frame;
    std::string columns;  // of the history, behind those that all have
  };
  struct End {
    int code;
    double measure;  // shown of the one criterion that is on, if it is met
  };

  End test_with(const Kind& kind, const Criterion& on, double tolerance) {
    TestRecord run(2, kind.technique);
    run.dbug = 2, run.lsqu = kind.squares, run.nlicon = kind.nonlinear, run.opro = kind.frame;
    for (const Criterion& c : CRITERIA) run.*c.tolerance = c.code == 1 ? -ROOT_HUGE : 0.0;
    run.*on.tolerance = tolerance;
    run.at({1.0, 2.0});
    run.gmax = run.gmlf = run.crit = run.cold = 200.0;
    deliver(run);
    znlptrm(&run, 10);
    run.nitr = 1.0, run.crit = 5.0, run.cold = 6.5, run.xold[0] = 0.2, run.xold[1] = 1.9;
    run.pred = 0.3, run.gmax = 0.4, run.gmlf = 0.5, run.gcri = 0.6, run.gihg = 0.7;
    run.alfa = 0.8, run.rhor = 0.9;
    End end{znlptrm(&run, 1), 0.0};
    run.cold = run.crit, run.xold[0] = 1.0, run.xold[1] = 2.0;  // as a failed search leaves it
    znlptrm(&run, -5);
    znlpptm(&run, -8, 0);
    const std::string active = kind.nonlinear != 0 ? "" : "Act|Ac2|";
    EXPECT_EQ(header("IterHist"), "Iter|Ac1|Rest|NFun|" + active + "OptCrit|" + kind.columns);
    std::string met;
    for (const std::string& row : pairs("IterStop"))
      if (std::sscanf(row.c_str(), "%*[^=]=met %lf", &end.measure) == 1)
        met += row.substr(0, row.find(':'));
    const std::string name = on.name;
    EXPECT_EQ(met, end.code == 0 ? "" : name.substr(0, name.find(' ')));
    return end;
  }
};

TEST_F(Summary, FollowsTheTestOfEveryTechnique) {
  const std::string alfa = "DifCrit|MaxGrad|Alpha|Slope|";
  const Kind kinds[] = {{2, 0, 0, 0, "DifCrit|MaxGrad|Lambda|Radius|"},
                        {8, 1, 0, 0, "DifCrit|MaxGrad|Lambda|Rho|"},
                        {4, 0, 0, 0, "DifCrit|MaxGrad|Ridge|Rho|"},
                        {9, 0, 0, 0, "DifCrit|MaxGrad|Lambda|Slope|"},
                        {11, 0, 1, 0, "ConMax|Pred|Alpha|LFGMax|"},
                        {14, 0, 0, 0, "DifCrit|StdDev|Delta|Size|"},
                        {14, 0, 1, 0, "ConMax|MeritF|DifMerit|Rho|"},
                        {3, 0, 0, 0, alfa},
                        {7, 1, 0, 0, alfa},
                        {12, 1, 0, 0, alfa},
                        {10, 0, 0, 0, alfa},
                        {11, 0, 0, 0, alfa},
                        {13, 0, 0, 2, alfa}};
  for (const Kind& kind : kinds) {
    for (const Criterion& on : CRITERIA) {
      SCOPED_TRACE(std::to_string(kind.technique) + " " + on.name);
      const End end = test_with(kind, on, 100.0);
      if (end.code == 0) continue;
      EXPECT_EQ(test_with(kind, on, end.measure * (1.0 + 1e-6)).code, on.code);
      EXPECT_EQ(test_with(kind, on, end.measure * (1.0 - 1e-6)).code, 0);
    }
  }
}

TEST(Pages, CriteriaHaveTheirNames) {
  const std::string codes = contents("docs/return-codes.md");
  for (const Criterion& c : CRITERIA) {
    const std::string name = c.name;
    const std::string row =
        "\n| " + std::to_string(c.code) + " | 549/607 | " + name.substr(0, name.find(' ')) + ":";
    EXPECT_NE(codes.find(row), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace tqnlp::test
