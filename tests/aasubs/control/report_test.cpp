// Reports of records in every state: columns and their order, the conditions of every table, and
// what their cells say. What a usual run writes at each print level is shown by the golden reports
// of the embedded host. Every table that is written here must stand in docs/reports.md as it is.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "aasubs/control/znlppre.h"
#include "aasubs/control/znlptrm.h"
#include "aasubs/record/covstr.h"
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
  // The cell of a row in the column of a name, as text; "" when it is empty.
  std::string cell(const std::string& name, std::size_t row, const std::string& column) const {
    const Table& t = table(name);
    const auto place = std::find(t.columns.begin(), t.columns.end(), column);
    if (place == t.columns.end() || row >= t.rows.size()) return "no such cell";
    return text_of(t.rows[row][static_cast<std::size_t>(place - t.columns.begin())]);
  }
  static std::string text_of(const Cell& held) {
    if (const auto* text = std::get_if<std::string>(&held)) return *text;
    if (const auto* number = std::get_if<double>(&held)) return embed::readable(*number);
    if (const auto* count = std::get_if<long>(&held)) return std::to_string(*count);
    return "";
  }
  // All cells of a row, and the names of all columns, with bars between them.
  std::string line(const std::string& name, std::size_t row) const {
    if (row >= table(name).rows.size()) return "no such row";
    std::string cells;
    for (const Cell& held : table(name).rows[row]) cells += text_of(held) + "|";
    return cells;
  }
  std::string header(const std::string& name) const {
    std::string names;
    for (const std::string& column : table(name).columns) names += column + "|";
    return names;
  }
  // Labels and values of a table of pairs.
  Names pairs(const std::string& name) const {
    Names list;
    for (const auto& row : table(name).rows)
      list.push_back(text_of(row[0]) + "=" + text_of(row[1]));
    return list;
  }
  std::vector<int> logged() const {
    std::vector<int> numbers;
    for (const LogRecord& line : task.log) numbers.push_back(line.number);
    return numbers;
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
    crit = 1.0;
    grad[0] = 0.5;
    iabc[0] = 1;
    ifxr[0] = 1, ifxr[1] = 0, ifxr[2] = 2;
    nabc = 2;
    nalc = 1;
    iact[0] = 0;
    lagm[0] = 0.5, lagm[1] = 0.25, lagm[2] = -3.0;
    dbug = 4;
  }
};

// ---- Iteration history --------------------------------------------------------------------------

TEST_F(Reports, HistoryColumnsOfEveryTechnique) {
  struct Row {
    Names techniques;  // number, with "n" behind it: with nonlinear constraints
    std::string columns;
    std::size_t start_rows;
  };
  const Row rows[] = {{{"2"}, "DifCrit|MaxGrad|Lambda|Radius|", 4},
                      {{"8"}, "DifCrit|MaxGrad|Lambda|Rho|", 4},
                      {{"4", "5", "6"}, "DifCrit|MaxGrad|Ridge|Rho|", 3},
                      {{"7", "3", "10", "11", "12", "13", "16"}, "DifCrit|MaxGrad|Alpha|Slope|", 3},
                      {{"9"}, "DifCrit|MaxGrad|Lambda|Slope|", 4},
                      {{"14", "15"}, "DifCrit|StdDev|Delta|Size|", 2},
                      {{"11n", "10n"}, "ConMax|Pred|Alpha|LFGMax|", 3},
                      {{"14n"}, "ConMax|MeritF|DifMerit|Rho|", 2}};
  for (const Row& row : rows) {
    for (const std::string& technique : row.techniques) {
      TestRecord run(2, std::stoi(technique));
      run.nlicon = technique.back() == 'n' ? 1 : 0;
      run.dbug = 2;
      deliver(run);
      znlptrm(&run, 10);
      znlpptm(&run, 0, 1);
      ASSERT_EQ(tables(), (Names{"IterStart", "IterHist", "ConvergenceStatus"})) << technique;
      const std::string active = run.nlicon != 0 ? "" : "Act|Ac2|";
      EXPECT_EQ(header("IterHist"), "Iter|Ac1|Rest|NFun|" + active + "OptCrit|" + row.columns);
      EXPECT_EQ(table("IterStart").rows.size(), row.start_rows) << technique;
    }
  }
}

TEST_F(Reports, HistoryRowsShowTheMomentAndTheUsersSense) {
  TestRecord run(2, 10);
  run.dbug = 2;
  run.imax = 1;
  deliver(run);
  prihist(&run, 10, 21, 23);
  run.nitr = 1.0, run.nfct = 7, run.cold = -3.0, run.crit = -5.0, run.pred = 0.25, run.alfa = 0.5;
  run.gmax = 4.0, run.nabc = 1, run.idac = 2, run.null = 1;
  prihist(&run, 1, 21, 23);
  prihist(&run, 2, 21, 23);  // no line
  run.nitr = 2.0, run.idac = BLOCK_DROPPED, run.null = 0;
  prihist(&run, -5, 21, 23);
  run.idac = -2;
  prihist(&run, 3, 21, 23);
  znlpptm(&run, 0, 1);
  ASSERT_EQ(table("IterHist").rows.size(), 3U);
  EXPECT_EQ(line("IterHist", 0), "1|*|0|7|1|'|5|2|4|0.5|-0.25|");
  EXPECT_EQ(line("IterHist", 1), "2| |0|7|1|\"|5|2|4|0.5|-0.25|");
  EXPECT_EQ(line("IterHist", 2), "2| |0|7|1|!|5|2|4|0.5|-0.25|");
}

TEST_F(Reports, LevelOneHasAHistoryWithoutRows) {
  TestRecord run(2, 4);
  run.dbug = 1;
  deliver(run);
  znlptrm(&run, 10);
  run.nitr = 1.0;
  znlptrm(&run, 1);
  znlpptm(&run, 0, 1);
  EXPECT_TRUE(table("IterHist").rows.empty());
}

// ---- Problem and options ------------------------------------------------------------------------

TEST_F(Reports, ProblemInWords) {
  TestRecord run(4, 11);
  run.dbug = 1;
  run.tupd = 2;
  run.ider = 1;
  run.fidi = 1;
  run.with_bounds({0.0, 0.0, -HUGE_VALUE, 1.0}, {HUGE_VALUE, 2.0, HUGE_VALUE, 1.0});
  run.maxi = 50.0;
  run.gtol = 1e-6;
  deliver(run);
  pritech(&run);
  EXPECT_EQ(tables(), (Names{"InputOpts", "ProblemDescription"}));
  EXPECT_EQ(pairs("InputOpts"),
            (Names{"Largest number of iterations=50", "Largest number of function calls=500",
                   "Time limit in seconds=none", "GCONV: relative predicted reduction=1e-06"}));
  EXPECT_EQ(
      pairs("ProblemDescription"),
      (Names{"Technique=dual quasi-Newton (QUANEW)", "Update=DFP on the factor of the Hessian",
             "Line search=cubic interpolation, slope after sufficient decrease",
             "Gradient=forward differences", "Parameters=4", "Lower bounds=3", "Upper bounds=2"}));
}

TEST_F(Reports, ProblemOfConstrainedSearchAndDiagonalNewton) {
  TestRecord search(2, 14);
  search.dbug = 1;
  search.nlicon = 1;
  search.nnlc = 3;
  search.nlec = 1;
  search.axtl = 1e-4;
  search.fidi = 20000;
  search.ider = 1;
  deliver(search);
  pritech(&search);
  EXPECT_EQ(table("InputOpts").rows.size(), 3U);  // all criteria at their defaults
  EXPECT_EQ(pairs("ProblemDescription"),
            (Names{"Technique=constrained search by linear models (NMSIMP, COBYLA)",
                   "Jacobian of the nonlinear constraints=central differences", "Parameters=2",
                   "Nonlinear constraints=3", "Nonlinear equality constraints=1"}));
  TestRecord newton(2, 2);
  newton.dbug = 1;
  newton.fidi = 3000;
  newton.hfrm = 2;
  deliver(newton);
  pritech(&newton);
  EXPECT_EQ(pairs("ProblemDescription"),
            (Names{"Technique=trust region (TRUREG)", "Hessian=forward differences of the gradient",
                   "Parameters=2", "Form of the Hessian=diagonal"}));
}

// ---- Tables of a point --------------------------------------------------------------------------

TEST_F(Reports, AnUnknownObjectiveEndsThePointBeforeTheMultipliers) {
  for (const int level : {-10, 3}) {
    for (const double crit : {1.0, MISSING}) {
      Solved run;
      deliver(run);
      run.crit = crit;
      znlppre(&run, level, 0);
      Names expected = {"ParameterEstimates", level < 0 ? "LinCon" : "LinConSol"};
      if (crit == 1.0) expected.push_back("Lagrange");
      EXPECT_EQ(tables(), expected) << level;
      run.dbug = 0;
      znlppre(&run, level, 1);
      EXPECT_EQ(tables(), expected) << "written at print level 0";
    }
  }
}

TEST_F(Reports, Estimates) {
  const struct {
    int level;
    std::function<void(Solved&)> change;
    const char* columns;
  } rows[] = {
      {-1, [](Solved&) {}, "GradObj|LowerBC|UpperBC|ActiveBC|"},
      {-1, [](Solved& s) { s.iabc[2] = 0; }, "GradObj|LowerBC|UpperBC|"},
      {-10, [](Solved&) {}, ""},
      {1, [](Solved& s) { s.nlbc = 1; }, "GradObj|ActiveBC|LinDep|"},
      {1, [](Solved& s) { s.iabc[0] = s.iabc[2] = 0; }, "GradObj|"},
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
  for (const double freedom : {10.0, MISSING}) {
    deliver(run);
    post.df = freedom;
    znlppre(&run, 1, 0);
    EXPECT_NEAR(std::stod(cell("ParameterEstimates", 0, "Probt")),
                freedom > 0.0 ? 0.0733880 : 0.0455003, 1e-7);
    EXPECT_EQ(line("ParameterEstimates", 1), "|2|X2|1||||");
  }
}

TEST_F(Reports, FunctionsAndIntervals) {
  TestRecord run(2, 8);
  run.dbug = 5;
  run.lsqu = 1;
  run.mequ = 2;
  run.func[0] = 1.5, run.func[1] = -2.0;
  run.cfdh = 1;
  run.hfwd = run.gold, run.hcnt = run.sdir;
  run.hfwd[0] = 0.25, run.hcnt[0] = 0.5;
  short codes[] = {0, 1};
  deliver(run);
  znlppre(&run, -1, 1);
  EXPECT_EQ(tables(), (Names{"ParameterEstimates", "OptStartRes", "FiniteDiff"}));
  EXPECT_EQ(line("OptStartRes", 1), "|2|F2|-2|");
  EXPECT_EQ(header("FiniteDiff"), "TitleText2|Number|Parameter|Estimate|Forward|Central|");
  task.tables.clear();
  run.ofco = codes;
  znlppre(&run, 1, 0);
  EXPECT_EQ(tables(), (Names{"ParameterEstimates", "FiniteDiff"}));
  EXPECT_EQ(line("FiniteDiff", 0), "Relative to |x| + 1|1|X1|0|0.25|0.5||");
  EXPECT_EQ(line("FiniteDiff", 1), "|2|X2|0|0|0|constant|");
}

TEST_F(Reports, ViolatedAndRemovedConstraints) {
  Solved run;
  deliver(run);
  run.x[1] = 20.0;
  znlppre(&run, -10, 0);
  EXPECT_EQ(cell("LinCon", 0, "Restriction") + cell("LinCon", 2, "Restriction"), "VIOVIO");
  run.liwk[0] = -1;
  pricon(&run, 2);
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
  EXPECT_EQ(cell("ParameterEstimates", 0, "LinDep"), " LinDep ");
  EXPECT_EQ(cell("ParameterEstimates", 2, "LinDep"), "");
  EXPECT_EQ(line("DepBoundCons", 0), "X1| Lower BC |");
  EXPECT_EQ(cell("LinDepLinCon", 0, "Number"), "2");
  EXPECT_EQ(line("DepNonlinCon", 0), "C4_2|");
  EXPECT_EQ(line("LinDepGradNonLin", 0), "Left out of the working set|2|-1|:|VIO||| - |2| * |X2|");
  EXPECT_EQ(line("NonLinCons", 0), "1|C3_1|0|0|0.75|ACT||");
  EXPECT_EQ(line("NonLinCons", 1), "2|C4_2|-1|-1||VIO| LinDep |");
  EXPECT_EQ(line("NonLinCons", 2), "3|C4_3|4|4||||");
}

TEST_F(Reports, MultipliersAndProjectedGradient) {
  Solved run;
  deliver(run);
  run.nabc = 1;
  run.lagm[0] = 0.25, run.lagm[1] = -3.0, run.lag2[1] = -2.5;
  run.ulm2 = 1;
  znlppre(&run, 3, 0);
  EXPECT_EQ(cell("Lagrange", 0, "Parameter1") + cell("Lagrange", 0, "Parameter2"), " Equal BC X3");
  EXPECT_EQ(line("Lagrange", 1), "|2| Linear EC|C1_1|-3|-2.5|");
  task.tables.clear();
  run.nalc = 0;
  znlppre(&run, 3, 0);
  EXPECT_EQ(table("ProjGrad").rows.size(), 2U);
  EXPECT_EQ(cell("ProjGrad", 0, "FreeDimension"), "X2");
}

TEST_F(Reports, MatrixOfNamedRows) {
  TestRecord run(2);
  deliver(run);
  const double matrix[] = {1, 2, 3, 4};
  const char* names[] = {"ALPHA   ", "BETA"};
  znlppmt(run.rvx, "SymDif", 2, 2, matrix, names, 1, 741);
  EXPECT_EQ(header("SymDif"), "Parms|ALPHA|BETA|");
  EXPECT_EQ(line("SymDif", 1), "BETA|3|4|");
  std::vector<double> many(2345);
  for (std::size_t i = 0; i < many.size(); ++i) many[i] = static_cast<double>(i + 1);
  znlppmt(run.rvx, "Many", 2345, 1, many.data(), nullptr, 0, 0);
  EXPECT_EQ(header("Many"), "Parms|Many|");
  EXPECT_EQ(line("Many", 8), "X9|9|");
  EXPECT_EQ(line("Many", 2344), "X2345|2345|");
  task.tables.clear();
  embed::plan_fault(task, embed::Fault::allocation, 1);
  znlppmt(run.rvx, "Many", 2345, 1, many.data(), nullptr, 0, 0);
  EXPECT_TRUE(task.tables.empty());
  EXPECT_NE(task.log.back().text.find("80000803"), std::string::npos);
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
    const bool beside = number == 4 || (number >= 136 && number <= 138) || number == 253;
    EXPECT_NE((beside ? page : row).find(message), std::string::npos) << code << ": " << message;
  }
}

TEST_F(Reports, MessagesOfEveryEnd) {
  auto as_is = [](MINSTR&) {};
  const struct {
    int code, job;
    std::function<void(MINSTR&)> change;
    std::vector<int> log;
    const char* told;  // part of the reason, or of the last line of the log
  } rows[] = {
      {0, 0, as_is, {614}, "The technique ended without"},
      {0, 0, [](MINSTR& s) { s.nitr = 0.0; }, {613}, "No technique ran"},
      {1, 0, as_is, {607}, "Convergence criterion ABSCONV satisfied"},
      {9, 0, as_is, {607}, "Convergence criterion GCONV2 satisfied"},
      {10, 0, as_is, {609}, "Every parameter is fixed"},
      {102, 0, as_is, {611}, "Convergence criterion ABSFCONV held"},
      {104, 0, [](MINSTR& s) { s.toln[3] = 5; }, {611}, "ABSXCONV held, though not yet for 5"},
      {109, 0, as_is, {611}, "Convergence criterion GCONV2 held"},
      {-1, 0, as_is, {4, 131}, "The objective or a nonlinear"},
      {-3, 0, [](MINSTR& s) { s.gmax = 0.002; }, {4, 133}, "The objective could not"},
      {-4, 0, as_is, {4, 134}, "A derivative"},
      {-5, 0, as_is, {4, 1}, "No step lowers"},
      {-5, 0, [](MINSTR& s) { s.mini = 4; }, {4, 3}, "required minimum"},
      {-6, 0, as_is, {4, 8}, "A step left"},
      {-8, 0, as_is, {4, 605}, "NRRIDG needs more than 200 iterations or 500"},
      {-8, 0, [](MINSTR& s) { s.tech = 1; }, {605}, "NONE"},  // no technique to blame
      {-8, 0, [](MINSTR& s) { s.zmsg = 3; }, {4, 605}, "used up"},
      {-9, 0, [](MINSTR& s) { s.upti = 2.5; }, {4, 2}, "limit of 2.5 seconds was reached."},
      {-9, 0, [](MINSTR& s) { s.zmsg = 3, s.upti = 1.0; }, {4, 2}, "allow more"},
      {-11, 0, as_is, {4}, "A module of the user"},
      {3, 0, [](MINSTR& s) { s.ipre = 2; }, {607, 137}, "1e-06"},
      {3, 0, [](MINSTR& s) { s.ipre = 10; }, {607, 253}, "10^10"},
      {3, 0, [](MINSTR& s) { s.gmax = 0.002, s.idac = -1; }, {607, 136, 138}, "wrong sign"},
      {3, 1, [](MINSTR& s) { s.gmax = 0.002; }, {607}, "ABSGCONV"}};
  for (const auto& row : rows) {
    for (const double level : {0.0, 2.0}) {
      TestRecord run(2);
      run.dbug = level;
      run.nitr = 3.0;
      deliver(run);
      row.change(run);
      znlpptm(&run, row.code, row.job);
      EXPECT_EQ(logged(), row.log) << row.told;
      expect_code_documented(row.code, row.log);
      if (level == 0.0) {
        EXPECT_TRUE(task.tables.empty());
        continue;
      }
      EXPECT_EQ(task.tables.size(), row.job == 0 ? 2U : 1U);  // a short end has no summary
      EXPECT_EQ(cell("ConvergenceStatus", 0, "Status"), std::to_string(row.code));
      const std::string reason = cell("ConvergenceStatus", 0, "Reason");
      EXPECT_NE((reason + task.log.back().text).find(row.told), std::string::npos) << reason;
      EXPECT_EQ(reason.back(), '.');  // a whole sentence, not cut to the room of a cell
    }
  }
  TestRecord foreign(2);
  deliver(foreign);
  znlpptm(&foreign, 77, 0);  // a code of the user's termination module
  EXPECT_TRUE(task.log.empty());
}

TEST_F(Reports, StopSummaryByTechnique) {
  const std::string point = "Active c|Objectiv|Largest |";
  const struct {
    int technique, squares, nonlinear, frame;
    std::string labels;
  } rows[] = {{2, 0, 0, 0, "Hessian |" + point + "Levenber|Actual o|Trust-re|"},
              {8, 1, 0, 0, "Jacobian|" + point + "Levenber|Actual o|Trust-re|"},
              {4, 0, 0, 0, "Hessian |" + point + "Actual o|Ridge|"},
              {3, 0, 0, 0, "Hessian |" + point + "Slope of|"},
              {12, 1, 0, 0, "Jacobian|" + point + "Slope of|"},
              {9, 0, 0, 0, "Gradient|" + point + "Slope of|Trust-re|"},
              {10, 0, 0, 0, "Gradient|" + point + "Slope of|"},
              {13, 0, 0, 2, "Gradient|" + point + "Slope of|"},
              {11, 0, 1, 0, "Gradient|Objectiv|Largest |Largest |Merit fu|Largest |"},
              {14, 0, 0, 0, "Restarts|Active c|Objectiv|Standard|Length o|Size of |"},
              {14, 0, 1, 0, "Restarts|Objectiv|Largest |Merit fu|Trust-re|"}};
  for (const auto& row : rows) {
    TestRecord run(2, row.technique);
    run.dbug = 1;
    run.lsqu = row.squares, run.nlicon = row.nonlinear, run.opro = row.frame;
    deliver(run);
    znlpptm(&run, 3, 0);
    std::string labels;
    for (const auto& cells : table("IterStop").rows) labels += text_of(cells[0]).substr(0, 8) + "|";
    EXPECT_EQ(labels, "Iteratio|Function|" + row.labels) << row.technique;
  }
}

// The verdicts know which criteria a technique looks at, and show what the test compares: with the
// tolerance just above or below the measure shown, the test answers the code or goes on.
TEST_F(Reports, VerdictsFollowTheTestOfEveryTechnique) {
  struct Kind {
    int technique, squares, nonlinear;
  };
  const Kind kinds[] = {{2, 0, 0},  {4, 0, 0},  {8, 1, 0},  {9, 0, 0},  {11, 0, 0},
                        {12, 1, 0}, {13, 0, 0}, {14, 0, 0}, {11, 0, 1}, {14, 0, 1}};
  double shown = 0.0;  // measure of the one criterion that is on
  const auto test_with = [&](const Kind& kind, const Criterion& on, double tolerance) {
    TestRecord run(2, kind.technique);
    run.dbug = 2, run.lsqu = kind.squares, run.nlicon = kind.nonlinear;
    for (const Criterion& c : CRITERIA) run.*c.tolerance = c.code == 1 ? -ROOT_HUGE : 0.0;
    run.*on.tolerance = tolerance;
    run.at({1.0, 2.0});
    run.gmax = run.gmlf = run.crit = run.cold = 200.0;
    deliver(run);
    znlptrm(&run, 10);
    run.nitr = 1.0, run.crit = 5.0, run.cold = 6.5, run.xold[0] = 0.2, run.xold[1] = 1.9;
    run.pred = 0.3, run.gmax = 0.4, run.gmlf = 0.5, run.gcri = 0.6, run.gihg = 0.7;
    run.alfa = 0.8, run.rhor = 0.9;
    const int code = znlptrm(&run, 1);
    run.cold = run.crit;  // as the driver leaves it
    znlpptm(&run, -8, 0);
    std::string met;
    for (const std::string& row : pairs("IterStop")) {
      if (std::sscanf(row.c_str(), "%*[^=]=met %lf", &shown) == 1)
        met += row.substr(0, row.find(':'));
    }
    const std::string name = on.name;
    EXPECT_EQ(met, code == 0 ? "" : name.substr(0, name.find(' ')));
    return code;
  };
  for (const Kind& kind : kinds) {
    for (const Criterion& on : CRITERIA) {
      SCOPED_TRACE(std::to_string(kind.technique) + " " + on.name);
      if (test_with(kind, on, 100.0) == 0) continue;
      const double measure = shown;
      EXPECT_EQ(test_with(kind, on, measure * (1.0 + 1e-6)), on.code);
      EXPECT_EQ(test_with(kind, on, measure * (1.0 - 1e-6)), 0);
    }
  }
}

// Whatever service of the report fails, the run's answer stays and every table is given back.
TEST_F(Reports, FailuresOfTheReportDoNotTouchTheRun) {
  bool struck = true;
  for (long k = 0; struck && k < 2000; ++k) {
    Solved run;
    deliver(run);
    run.agtl = run.cold = 1.0;
    const std::size_t objects = task.frame().reports.size();
    embed::plan_fault(task, embed::Fault::report, k);
    pritech(&run);
    znlppre(&run, -3, 1);
    run.nabc = 0, run.nalc = 0;
    EXPECT_EQ(znlptrm(&run, 10), 3);
    run.nitr = 1.0;
    EXPECT_EQ(znlptrm(&run, 1), 6);
    znlpptm(&run, 3, 0);
    EXPECT_EQ(run.ithis, nullptr);
    struck = !embed::fault_pending(task, embed::Fault::report);
    embed::clear_faults(task);
    EXPECT_EQ(std::count_if(task.log.begin(), task.log.end(),
                            [](const LogRecord& line) { return line.severity == Severity::error; }),
              struck ? 1 : 0)
        << k;
    // At most the one table whose close was refused is left to the end of the call.
    EXPECT_LE(task.frame().reports.size(), objects + 1) << k;
  }
  EXPECT_FALSE(struck);
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
