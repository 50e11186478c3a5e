// The host's services, driven directly: without a session they work on the thread's own task.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <utility>

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
  const double outside = 7.0;
  {
    const embed::FrameScope call(task);
    auto* block = static_cast<unsigned char*>(vmalloc_handler(1000, 0));
    EXPECT_EQ(std::count(block, block + 1000, 0), 1000);
    EXPECT_EQ(*static_cast<double*>(vmalcp_handler(&outside, sizeof outside)), 7.0);
    vmfree_handler(block);
    vmfree_handler(nullptr);
    tqwfre2(nullptr);
    EXPECT_EQ(vmalloc_handler(std::numeric_limits<std::size_t>::max() - 8, 0), nullptr);
    EXPECT_EQ(tqwalo2(-8), nullptr);
    EXPECT_NE(tqwalo2(0), nullptr);
  }
  auto counters = embed::counters(task);
  EXPECT_EQ(counters.blocks_taken, 3);
  EXPECT_EQ(counters.blocks_given, 1);
  EXPECT_EQ(counters.blocks_left, 2);
  EXPECT_EQ(counters.bytes_left, 8);
  // A pool gives no more than it holds, and all of it back.
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
  counters = embed::counters(task);
  EXPECT_EQ(counters.blocks_taken, counters.blocks_given + 2);
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
  const double out[] = {1.0, 2.0, 3.0};
  double in[3];
  const auto read = [&](long place, long bytes) {
    std::fill(in, in + 3, -1.0);
    return xcpoint(file, place) == 0 && xcread(file, in, bytes) == 0;
  };
  const auto write = [&](long bytes) { return xcwrite(file, out, bytes) == 0; };
  EXPECT_TRUE(write(24));
  EXPECT_NE(xcread(file, in, 1), 0) << "nothing is left to read";
  EXPECT_TRUE(read(8, 16));
  EXPECT_EQ(in[0], 2.0);
  EXPECT_EQ(in[1], 3.0);
  EXPECT_FALSE(read(40, 0)) << "beyond the end";
  EXPECT_TRUE(write(8));
  EXPECT_TRUE(read(24, 24));
  EXPECT_EQ(in[1], 0.0) << "a gap reads as zero";
  EXPECT_EQ(in[2], 1.0);
  EXPECT_FALSE(read(-1, 8));
  EXPECT_FALSE(write(-1));
  EXPECT_EQ(xcpoint(file, std::numeric_limits<long>::max()), 0);
  EXPECT_FALSE(write(8)) << "no file grows to that size";
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
  const std::pair<double, const char*> numbers[] = {
      {120.0, "120"},
      {1e-8, "1e-08"},
      {1.0 / 3.0, "0.33333333"},
      {MISSING, "."},
      {-std::numeric_limits<double>::infinity(), "-infinity"}};
  for (const auto& [number, text] : numbers) EXPECT_EQ(embed::readable(number), text);
}

// Every text of the table: places are numbered 1, 2 ... without a gap, braces are places only, no
// number stands twice, and what reads as a sentence ends as one.
TEST(Messages, TextsAreWellFormed) {
  for (const int group : {CALLING_SURFACE, OPTIMIZATION}) {
    int last = 0;
    EXPECT_FALSE(embed::messages(group).empty());
    for (const embed::Message& message : embed::messages(group)) {
      const std::string text = message.text;
      SCOPED_TRACE(std::to_string(group) + "/" + std::to_string(message.number) + ": " + text);
      EXPECT_GT(message.number, last) << "twice, or no number";
      last = message.number;
      ASSERT_FALSE(text.empty() || text.back() == ' ');
      std::set<std::string> seen;
      for (std::size_t at = text.find('{'); at != std::string::npos; at = text.find('{', at + 1)) {
        EXPECT_TRUE(std::isdigit(text[at + 1]) && text[at + 2] == '}');
        seen.insert(text.substr(at + 1, 1));
      }
      EXPECT_TRUE(seen.empty() || *seen.rbegin() == std::to_string(seen.size()));
      EXPECT_EQ(std::count(text.begin(), text.end(), '{'),
                std::count(text.begin(), text.end(), '}'));
      // Warnings and errors are sentences; so are notes with a full stop inside.
      const bool sentence =
          message.severity != Severity::note || text.find(". ") != std::string::npos;
      EXPECT_TRUE(!sentence || text.back() == '.');
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
  define(task, "THROW", [](const Matrix&) -> Matrix { throw 42; });
  EXPECT_EQ(tqsmod(std::string(32, ' ').c_str(), MODULE_FUNCTION), nullptr);
  TQLCALL* call = nullptr;
  EXPECT_NE(tqsget(nullptr, &call), 0);

  Prepared sum("SUM"), word("WORD"), hole("HOLE"), fail("FAIL");
  sum.point = {1, 2, 3};
  EXPECT_EQ(sum.run(), 0);
  EXPECT_EQ(*sum.result.data, 6.0);
  EXPECT_EQ(tqlmiss(&sum.result), 0);
  EXPECT_EQ(word.run(), 0);
  EXPECT_EQ(word.result.kind, CHARACTER);
  EXPECT_EQ(hole.run(), 0);
  EXPECT_EQ(hole.result.cols, 2);
  EXPECT_EQ(tqlmiss(&hole.result), 1);
  hole.result.data[1] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(tqlmiss(&hole.result), 1) << "any NaN counts";
  EXPECT_NE(fail.run(), 0);
  EXPECT_NE(fail.ss.status, 0);
  EXPECT_EQ(sum.run(), 0) << "a failed evaluation ends nothing";
  EXPECT_EQ(sum.ss.status, 0);
  embed::plan_fault(task, Fault::module_call, 0);
  EXPECT_NE(sum.run(), 0);
  EXPECT_EQ(tqsput(nullptr), nullptr);
  tqlrc(RUN_MODULE);
  EXPECT_NE(tqlexst(), 0) << "no call is current";
  {
    const embed::FrameScope inner(task);
    Prepared thrower("THROW");
    EXPECT_NE(thrower.run(), 0);
    EXPECT_NE(sum.run(), 0) << "no module runs after an exception";
    EXPECT_THROW(std::rethrow_exception(task.frame().thrown), int);
  }
  EXPECT_EQ(sum.run(), 0) << "the exception of another call";
}

TEST_F(Host, VariablesAndResults) {
  {
    const embed::FrameScope call(task);
    TQLSYM* variable = tqlrtre("_iter_                          ", 32);
    tqwown2(variable, tqwalo2(8));
    *variable->data = 4.0;
  }
  EXPECT_EQ(embed::counters(task).blocks_left, 0) << "a variable outlives the call";
  EXPECT_EQ(*tqlrtre("_ITER_", 6)->data, 4.0);
  EXPECT_EQ(tqlrtre("", 0), nullptr);
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
  const std::pair<const char*, RvxArg> columns[] = {{"OptCrit", &crit},
                                                    {"NFun", static_cast<const long*>(&calls)},
                                                    {"Rest", static_cast<const int*>(&restarts)},
                                                    {"Ac1", &mark},
                                                    {"Slope", nothing}};
  for (const auto& [name, source] : columns)
    EXPECT_EQ(method(table, RvxMethod::column, {name, source}), 0);
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
  EXPECT_EQ(task.tables[0].title, "Iterations");
  using Rows = std::vector<std::vector<Cell>>;
  EXPECT_EQ(task.tables[0].rows, (Rows{{2.5, 1L, 0L, std::string(), Cell()},
                                       {Cell(), 9L, 0L, std::string("abc"), Cell()}}));
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
