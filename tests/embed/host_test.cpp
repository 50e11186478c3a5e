// The host's services, driven directly: without a session they work on the thread's own task.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>
#include <string>
#include <thread>

#include "aasubs/record/minstr.h"
#include "aasubs/record/missing.h"
#include "embed/messages.h"
#include "embed/task.h"
#include "host/log.h"
#include "host/memory.h"
#include "host/strings.h"

namespace tqnlp {
namespace {

using embed::Fault;

// A task of its own for each test, so that counters and logs start empty.
class Host : public testing::Test {
 protected:
  embed::Task task;
  embed::Activation activation{task};
};

TEST_F(Host, MemoryIsZeroFilledCountedAndFreedWithItsCall) {
  double outside = 7.0;
  {
    const embed::FrameScope call(task);
    auto* block = static_cast<unsigned char*>(vmalloc_handler(1000, 0));
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(block[i], 0);
    auto* copy = static_cast<double*>(vmalcp_handler(&outside, sizeof outside));
    EXPECT_EQ(*copy, 7.0);
    vmfree_handler(block);
    vmfree_handler(nullptr);
    tqwfre2(nullptr);
    EXPECT_EQ(vmalloc_handler(std::numeric_limits<std::size_t>::max() - 8, 0), nullptr);
    EXPECT_EQ(tqwalo2(-8), nullptr);
    EXPECT_NE(tqwalo2(0), nullptr);
  }
  const auto counters = embed::counters(task);
  EXPECT_EQ(counters.blocks_taken, 3);
  EXPECT_EQ(counters.blocks_given, 1);
  EXPECT_EQ(counters.blocks_left, 2);
  EXPECT_EQ(counters.bytes_left, 8);
}

TEST_F(Host, PoolGivesNoMoreThanItHolds) {
  MemPool* pool = xmpoolc(100);
  auto* a = static_cast<char*>(xmemdef(pool, 60));
  auto* b = static_cast<char*>(xmemdef(pool, 40));
  ASSERT_TRUE(a != nullptr && b != nullptr);
  std::memset(a, 1, 60);
  EXPECT_EQ(b[0], 0);
  EXPECT_EQ(xmemdef(pool, 1), nullptr);
  EXPECT_EQ(xmemdef(nullptr, 1), nullptr);
  xmpoold(pool);
  xmpoold(nullptr);
  EXPECT_EQ(embed::counters(task).blocks_taken, embed::counters(task).blocks_given);
}

TEST_F(Host, PlannedFailuresStrikeTheKthOperation) {
  embed::plan_fault(task, Fault::allocation, 1);
  EXPECT_NE(tqwalo2(8), nullptr);
  EXPECT_TRUE(embed::fault_pending(task, Fault::allocation));
  EXPECT_EQ(tqwres(1, 1, 1), nullptr);
  EXPECT_FALSE(embed::fault_pending(task, Fault::allocation));
  EXPECT_NE(xmpoolc(8), nullptr);
  embed::plan_fault(task, Fault::allocation, 0, true);
  EXPECT_EQ(vmalloc_handler(8, 0), nullptr);
  EXPECT_EQ(tqlrtre("V", 1), nullptr);
  embed::clear_faults(task);
  EXPECT_NE(tqlrtre("V", 1), nullptr);
}

TEST_F(Host, WorkFileReadsBackWhatWasWritten) {
  WorkFile* file = nullptr;
  ASSERT_EQ(xcopen(&file, nullptr), 0);
  const std::array<double, 3> out{1.0, 2.0, 3.0};
  std::array<double, 3> in{};
  EXPECT_EQ(xcwrite(file, out.data(), sizeof out), 0);
  EXPECT_NE(xcread(file, in.data(), 1), 0) << "nothing is left to read";
  EXPECT_EQ(xcpoint(file, 8), 0);
  EXPECT_EQ(xcread(file, in.data(), 16), 0);
  EXPECT_EQ(in[0], 2.0);
  EXPECT_EQ(in[1], 3.0);
  EXPECT_EQ(xcpoint(file, 40), 0);
  EXPECT_NE(xcread(file, in.data(), 0), 0) << "beyond the end";
  EXPECT_EQ(xcwrite(file, out.data(), 8), 0);
  EXPECT_EQ(xcpoint(file, 24), 0);
  EXPECT_EQ(xcread(file, in.data(), 24), 0);
  EXPECT_EQ(in[1], 0.0) << "a gap reads as zero";
  EXPECT_EQ(in[2], 1.0);
  EXPECT_NE(xcpoint(file, -1), 0);
  EXPECT_NE(xcwrite(file, out.data(), -1), 0);
  EXPECT_EQ(xcpoint(file, std::numeric_limits<long>::max()), 0);
  EXPECT_NE(xcwrite(file, out.data(), 8), 0) << "no file grows to that size";
  embed::plan_fault(task, Fault::file_operation, 0);
  EXPECT_NE(xcpoint(file, 0), 0);
  EXPECT_EQ(xcclose(file, 1), 0);
  EXPECT_EQ(xcclose(nullptr, 1), 0);
  EXPECT_TRUE(task.frame().files.empty());
}

TEST_F(Host, StringsArePaddedAndCut) {
  char field[9] = "????????";
  wzstmov(field, 8, "nlp", 3);
  wzstrup(field, 8);
  EXPECT_STREQ(field, "NLP     ");
  wzstmov(field, 8, "abcdefghij", 10);
  EXPECT_STREQ(field, "abcdefgh");
  char name[6];
  EXPECT_EQ(znamfix(name, sizeof name, "X", 12), 3);
  EXPECT_STREQ(name, "X12");
  EXPECT_EQ(znamfix(name, sizeof name, "X", 1234567), 5);
  EXPECT_STREQ(name, "X1234");
}

TEST_F(Host, LogKeepsMessagesWithoutATextAndLiteralLines) {
  xpmlog(OPTIMIZATION, 30000, {3L, 0.5, "GRAD"});
  xpslog("%d of %s", 3, "four");
  xprrlog(0, static_cast<int>(0x80000803));
  ASSERT_EQ(task.log.size(), 3u);
  EXPECT_EQ(task.log[0].text, "message 549/30000: 3, 0.5, GRAD");
  EXPECT_EQ(task.log[0].number, 30000);
  EXPECT_EQ(task.log[1].text, "3 of four");
  EXPECT_NE(task.log[2].text.find("0x80000803"), std::string::npos);
  char buffer[12];
  EXPECT_EQ(xpmstr(buffer, sizeof buffer, OPTIMIZATION, 30000), 11);
  EXPECT_STREQ(buffer, "message 549");
}

TEST_F(Host, NumbersInTextsAreReadable) {
  EXPECT_EQ(embed::readable(120.0), "120");
  EXPECT_EQ(embed::readable(1e-8), "1e-08");
  EXPECT_EQ(embed::readable(1.0 / 3.0), "0.33333333");
  EXPECT_EQ(embed::readable(MISSING), ".");
  EXPECT_EQ(embed::readable(-std::numeric_limits<double>::infinity()), "-infinity");
}

// Every text of the table: places are numbered 1, 2 ... without a gap, braces are places only, no
// number stands twice, and what reads as a sentence ends as one.
TEST(Messages, TextsAreWellFormed) {
  for (const int group : {CALLING_SURFACE, OPTIMIZATION}) {
    int last = 0;
    EXPECT_FALSE(embed::messages(group).empty());
    for (const embed::Message& message : embed::messages(group)) {
      SCOPED_TRACE(std::to_string(group) + "/" + std::to_string(message.number));
      const std::string text = message.text;
      EXPECT_GT(message.number, last) << "twice, or no number";
      last = message.number;
      ASSERT_FALSE(text.empty());
      EXPECT_NE(text.back(), ' ');
      unsigned highest = 0, seen = 0;
      for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '}') ADD_FAILURE() << "a brace that closes nothing";
        if (text[i] != '{') continue;
        ASSERT_LT(i + 2, text.size());
        ASSERT_TRUE(text[i + 1] >= '1' && text[i + 1] <= '9' && text[i + 2] == '}') << text;
        const unsigned place = static_cast<unsigned>(text[i + 1] - '0');
        highest = std::max(highest, place);
        seen |= 1U << place;
        i += 2;
      }
      EXPECT_EQ(seen, (1U << (highest + 1)) - 2) << "a place is left out: " << text;
      // Warnings and errors are sentences; so are notes with a full stop inside.
      const bool sentence =
          message.severity != Severity::note || text.find(". ") != std::string::npos;
      EXPECT_TRUE(!sentence || text.back() == '.') << text;
    }
  }
}

// ---- Process ------------------------------------------------------------------------------------

TEST_F(Host, XexitThrowsAndResumeReachesItsOwnGuard) {
  EXPECT_THROW(xexit(EXIT_WORK_FILE, 0), embed::ExitRequest);
  MINSTR str{};
  const auto resume = [](MINSTR* record) -> int { wtresum(record->mpin, -7); };
  EXPECT_EQ(wtguard(&str.mpin, resume, &str), -7);
  EXPECT_EQ(str.mpin, nullptr);

  // A resume at the outer point passes through the inner guard.
  static JumpBuffer* inner_point;
  static JumpBuffer* outer_point;
  inner_point = nullptr;
  const auto resume_outer = [](MINSTR*) -> int { wtresum(outer_point, 5); };
  const auto outer = [](MINSTR* record) -> int {
    outer_point = record->mpin;
    const auto inner = [](MINSTR*) -> int { wtresum(outer_point, 5); };
    (void)wtguard(&inner_point, inner, record);
    return 1;
  };
  EXPECT_EQ(wtguard(&str.mpin, outer, &str), 5);
  EXPECT_EQ(inner_point, nullptr);
  outer_point = reinterpret_cast<JumpBuffer*>(&str);  // a point that no guard made
  EXPECT_THROW(wtguard(&inner_point, resume_outer, &str), embed::MathResume);
  EXPECT_THROW(wtresum(nullptr, 1), embed::ExitRequest);
}

TEST_F(Host, ClockRunsForwardAndOptionsAreFound) {
  const double start = zdattim();
  embed::advance_clock(task, 100.0);
  EXPECT_GE(zdattim() - start, 100.0);
  task.debug_options["-nlpitermsg"] = 2;
  EXPECT_EQ(zbugi("-nlpitermsg"), 2);
  EXPECT_EQ(zbugi("-other"), 0);
}

// ---- Matrix language ----------------------------------------------------------------------------

// A prepared call as the bridge makes it, with room for three numbers.
struct Prepared {
  std::array<double, 3> point{};
  TQLSYM argument{NUMERIC, 8, 1, 3, point.data()};
  TQLSYM result{NUMERIC, 8, 1, 1, nullptr};
  TQLSS ss{};

  explicit Prepared(const std::string& name) {
    std::string field = name;
    field.resize(32, ' ');
    ss.funptr = tqsmod(field.c_str(), MODULE_FUNCTION);
    EXPECT_EQ(tqsget(ss.funptr, &ss.call), 0);
    ss.argument[0] = &argument;
    ss.result = &result;
  }
  // Runs the module, and answers its exit state.
  int run() {
    TQLSS* outer = tqsput(&ss);
    tqlrc(RUN_MODULE);
    tqsput(outer);
    result.data = tqlq()->result;
    return tqlexst();
  }
};

static void define(embed::Task& task, const std::string& name, Session::Function body) {
  task.modules[name] = std::make_shared<TQLMOD>();
  task.modules[name]->function = std::move(body);
}

TEST_F(Host, ModulesAreFoundRunAndAskedForTheirState) {
  define(task, "SUM", [](const Matrix& x) { return Matrix::scalar(x(0, 0) + x(0, 1) + x(0, 2)); });
  define(task, "WORD", [](const Matrix&) { return Matrix("text"); });
  define(task, "HOLE", [](const Matrix&) { return Matrix::row({1.0, missing}); });
  define(task, "FAIL", [](const Matrix&) -> Matrix { throw EvaluationFailed(); });
  char unknown[33];
  std::memset(unknown, ' ', sizeof unknown);
  EXPECT_EQ(tqsmod(unknown, MODULE_FUNCTION), nullptr);
  TQLCALL* call = nullptr;
  EXPECT_NE(tqsget(nullptr, &call), 0);

  Prepared sum("SUM");
  sum.point = {1, 2, 3};
  EXPECT_EQ(sum.run(), 0);
  EXPECT_EQ(*sum.result.data, 6.0);
  EXPECT_EQ(tqlmiss(&sum.result), 0);
  Prepared word("WORD");
  EXPECT_EQ(word.run(), 0);
  EXPECT_EQ(word.result.kind, CHARACTER);
  Prepared hole("HOLE");
  EXPECT_EQ(hole.run(), 0);
  EXPECT_EQ(hole.result.cols, 2);
  EXPECT_EQ(tqlmiss(&hole.result), 1);
  hole.result.data[1] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(tqlmiss(&hole.result), 1) << "any NaN counts";
  Prepared fail("FAIL");
  EXPECT_NE(fail.run(), 0);
  EXPECT_NE(fail.ss.status, 0);
  EXPECT_EQ(sum.run(), 0) << "a failed evaluation ends nothing";
  EXPECT_EQ(sum.ss.status, 0);
  embed::plan_fault(task, Fault::module_call, 0);
  EXPECT_NE(sum.run(), 0);
  TQLSS* none = tqsput(nullptr);
  EXPECT_EQ(none, nullptr);
  tqlrc(RUN_MODULE);
  EXPECT_NE(tqlexst(), 0) << "no call is current";
}

TEST_F(Host, AThrowingModuleStopsAllModulesOfItsCallOnly) {
  int runs = 0;
  define(task, "COUNT", [&runs](const Matrix&) { return Matrix::scalar(++runs); });
  define(task, "THROW", [](const Matrix&) -> Matrix { throw 42; });
  {
    const embed::FrameScope call(task);
    Prepared count("COUNT"), thrower("THROW");
    EXPECT_EQ(count.run(), 0);
    EXPECT_NE(thrower.run(), 0);
    EXPECT_NE(count.run(), 0);
    EXPECT_EQ(runs, 1);
    EXPECT_THROW(std::rethrow_exception(task.frame().thrown), int);
  }
  Prepared count("COUNT");
  EXPECT_EQ(count.run(), 0);
}

TEST_F(Host, VariablesOutliveTheCall) {
  {
    const embed::FrameScope call(task);
    TQLSYM* variable = tqlrtre("_iter_                          ", 32);
    tqwown2(variable, tqwalo2(8));
    variable->rows = variable->cols = 1;
    *variable->data = 4.0;
  }
  EXPECT_EQ(embed::counters(task).blocks_left, 0);
  EXPECT_EQ(*tqlrtre("_ITER_", 6)->data, 4.0);
  EXPECT_EQ(tqlrtre("", 0), nullptr);
}

TEST_F(Host, ArgumentsAndResults) {
  long rows, cols, length;
  void* data;
  TQLARG name{Matrix("ROSEN")}, empty{Matrix()}, numbers{Matrix::of({{1, 2}, {3, 4}})};
  EXPECT_EQ(tqwarg2(nullptr, &rows, &cols, &length, &data), ARGUMENT_ABSENT);
  EXPECT_EQ(tqwarg2(&name, &rows, &cols, &length, &data), ARGUMENT_NAME);
  EXPECT_EQ(std::string(static_cast<char*>(data), static_cast<std::size_t>(length)), "ROSEN");
  EXPECT_EQ(tqwarg2(&empty, &rows, &cols, &length, &data), ARGUMENT_MATRIX);
  EXPECT_EQ(rows * cols, 0);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(tqwarg2(&numbers, &rows, &cols, &length, &data), ARGUMENT_MATRIX);
  EXPECT_EQ(static_cast<double*>(data)[2], 3.0);
  EXPECT_EQ(tqwres(1, -1, 2), nullptr);
  EXPECT_EQ(tqwres(0, 1, 1), nullptr);
  EXPECT_EQ(tqwres(1, std::numeric_limits<long>::max(), 2), nullptr);
  double* result = tqwres(2, 1, 2);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(tqwres(1, 1, 1)[0], 0.0);
  result[1] = 5.0;
  EXPECT_EQ(task.frame().results[1](0, 1), 5.0);
}

// ---- Report tables ------------------------------------------------------------------------------

static int method(RvxObject* object, RvxMethod which, std::initializer_list<RvxArg> args = {}) {
  return wobmth(object, 0, which, std::span<const RvxArg>(args.begin(), args.size()));
}

TEST_F(Host, TablesReadTheirColumnsWhenARowIsAdded) {
  RvxObject* delivery = nullptr;
  RvxObject* table = nullptr;
  ASSERT_EQ(xobinit(&delivery, 0), 0);
  EXPECT_EQ(method(delivery, RvxMethod::manager, {"rvx", "manager", 549L}), 0);
  ASSERT_EQ(method(delivery, RvxMethod::open, {&table, "IterHist", "Base.NLP.IterHist"}), 0);
  EXPECT_EQ(method(table, RvxMethod::title, {"Iterations"}), 0);
  double crit = 2.5;
  long calls = 1;
  int restarts = 0;
  RvxText mark{};
  const double* nothing = nullptr;
  EXPECT_EQ(method(table, RvxMethod::column, {"OptCrit", &crit}), 0);
  EXPECT_EQ(method(table, RvxMethod::column, {"NFun", static_cast<const long*>(&calls)}), 0);
  EXPECT_EQ(method(table, RvxMethod::column, {"Rest", static_cast<const int*>(&restarts)}), 0);
  EXPECT_EQ(method(table, RvxMethod::column, {"Ac1", &mark}), 0);
  EXPECT_EQ(method(table, RvxMethod::column, {"Slope", nothing}), 0);
  EXPECT_EQ(method(table, RvxMethod::row), 0);
  crit = MISSING;
  calls = 9;
  rvxtxts(&mark, 3, "%s", "abcdef");
  EXPECT_EQ(method(table, RvxMethod::row), 0);
  EXPECT_LT(method(table, RvxMethod::pair, {"a", 1L}), 0) << "columns and pairs do not mix";
  EXPECT_LT(method(table, RvxMethod::open, {&table, "A", "B"}), 0);
  EXPECT_EQ(method(table, RvxMethod::close), 0);
  EXPECT_LT(method(table, RvxMethod::close), 0) << "closed before";
  EXPECT_EQ(method(delivery, RvxMethod::close), 0);

  ASSERT_EQ(task.tables.size(), 1u);
  const Table& recorded = task.tables[0];
  EXPECT_EQ(recorded.title, "Iterations");
  EXPECT_EQ(recorded.rows[0][0], Cell(2.5));
  EXPECT_EQ(recorded.rows[0][1], Cell(1L));
  EXPECT_EQ(recorded.rows[0][4], Cell());
  EXPECT_EQ(recorded.rows[1][0], Cell());
  EXPECT_EQ(recorded.rows[1][1], Cell(9L));
  EXPECT_EQ(recorded.rows[1][2], Cell(0L));
  EXPECT_EQ(recorded.rows[1][3], Cell(std::string("abc")));
}

TEST_F(Host, PairsAndFailingReports) {
  RvxObject* delivery = nullptr;
  RvxObject* table = nullptr;
  embed::plan_fault(task, Fault::report, 0);
  EXPECT_NE(xobinit(&delivery, 0), 0);
  EXPECT_EQ(delivery, nullptr);
  ASSERT_EQ(xobinit(&delivery, 0), 0);
  ASSERT_EQ(method(delivery, RvxMethod::open, {&table, "IterStop", "Base.NLP.IterStop"}), 0);
  EXPECT_EQ(method(table, RvxMethod::pair, {"Iterations", 12L}), 0);
  EXPECT_EQ(method(table, RvxMethod::pair, {"Radius", MISSING}), 0);
  EXPECT_LT(method(nullptr, RvxMethod::row), 0);
  RvxText text{};
  EXPECT_LT(rvxmsg(&text, OPTIMIZATION, 30000), 0);
  EXPECT_STREQ(text.text, "message 549/30000");
  embed::hand_on_open_tables(task);  // as at the end of a call that broke off
  ASSERT_EQ(task.tables.size(), 1u);
  EXPECT_EQ(task.tables[0].columns, (std::vector<std::string>{"Label", "Value"}));
  EXPECT_EQ(task.tables[0].rows[1][1], Cell());
}

TEST(HostWithoutSession, EachThreadHasATaskOfItsOwn) {
  void* block = vmalloc_handler(16, 0);
  embed::Task* other = nullptr;
  std::thread([&other] {
    other = &embed::current_task();
    xpslog("from a thread");
    (void)vmalloc_handler(32, 0);  // freed with the thread's task
  }).join();
  EXPECT_NE(other, &embed::current_task());
  EXPECT_TRUE(embed::current_task().log.empty() ||
              embed::current_task().log.back().text != "from a thread");
  vmfree_handler(block);
}

}  // namespace
}  // namespace tqnlp
