// The host's services, driven directly: without a session they work on the thread's own task.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <utility>

#include "aasubs/record/minstr.h"
#include "aasubs/record/missing.h"
#include "embed/messages.h"
#include "embed/task.h"
#include "host/log.h"
#include "host/memory.h"

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
  const auto counters = embed::counters(task);
  EXPECT_TRUE(counters.blocks_taken == 3 && counters.blocks_given == 1);
  EXPECT_TRUE(counters.blocks_left == 2 && counters.bytes_left == 8);
  // A pool gives no more than it holds, and all of it back.
  MemPool* pool = xmpoolc(100);
  auto* a = static_cast<char*>(xmemdef(pool, 60));
  auto* b = static_cast<char*>(xmemdef(pool, 40));
  ASSERT_TRUE(a != nullptr && b != nullptr);
  std::memset(a, 1, 60);
  EXPECT_EQ(b[0], 0);
  EXPECT_EQ(xmemdef(pool, 1), nullptr);
  xmpoold(pool);
  xmpoold(nullptr);
  EXPECT_EQ(embed::counters(task).blocks_left, 2);
}

// The walks through all failures of a call stand on these.
TEST_F(Host, PlannedFailuresStrikeTheKthOperation) {
  embed::plan_fault(task, Fault::allocation, 1);
  EXPECT_NE(tqwalo2(8), nullptr);
  EXPECT_EQ(tqwres(1, 1, 1), nullptr);
  EXPECT_FALSE(embed::fault_pending(task, Fault::allocation));
  embed::plan_fault(task, Fault::allocation, 0, true);
  EXPECT_TRUE(vmalloc_handler(8, 0) == nullptr && tqlrtre("V", 1) == nullptr);
  embed::clear_faults(task);
  EXPECT_NE(tqlrtre("V", 1), nullptr);
}

TEST_F(Host, WorkFileReadsBackWhatWasWritten) {
  const std::filesystem::path here = testing::TempDir() + "work_files";
  std::filesystem::create_directory(here);
  for (const std::size_t limit : {1000, 0, 24, 39}) {
    SCOPED_TRACE(limit);
    setenv("TMPDIR", here.c_str(), 1);
    task.log.clear();
    task.work_file_memory = limit;
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
    EXPECT_TRUE(read(8, 16) && in[0] == 2.0 && in[1] == 3.0);
    EXPECT_FALSE(read(40, 0)) << "beyond the end";
    EXPECT_TRUE(write(8));
    EXPECT_TRUE(read(24, 24) && in[1] == 0.0 && in[2] == 1.0) << "a gap reads as zero";
    EXPECT_FALSE(read(-1, 8) || write(-1));
    EXPECT_EQ(xcclose(file, 1), 0);
    EXPECT_EQ(xcclose(nullptr, 1), 0);
    EXPECT_EQ(task.work_file_bytes, 0u);
    EXPECT_TRUE(std::filesystem::is_empty(here));

    setenv("TMPDIR", "/dev/null", 1);
    ASSERT_EQ(xcopen(&file, nullptr), 0);
    EXPECT_EQ(write(24), limit >= 24);
    EXPECT_EQ(task.log.empty(), limit >= 24) << "a disk that fails is told of";
    EXPECT_EQ(xcclose(file, 1), 0);
  }
  unsetenv("TMPDIR");
  std::filesystem::remove(here);
}

TEST_F(Host, LogKeepsMessagesWithoutATextAndLiteralLines) {
  xpmlog(OPTIMIZATION, 30000, {3L, 1.0 / 3.0, MISSING, "GRAD"});
  xpslog("%d of %s", 3, "four");
  ASSERT_EQ(task.log.size(), 2u);
  EXPECT_EQ(task.log[0].text, "message 549/30000: 3, 0.33333333, ., GRAD");
  EXPECT_EQ(task.log[1].text, "3 of four");
  char buffer[12];
  EXPECT_EQ(xpmstr(buffer, sizeof buffer, OPTIMIZATION, 30000), 11);
  EXPECT_STREQ(buffer, "message 549");
}

// Every text of the table: places are numbered 1, 2 ... without a gap, braces are places only, no
// number stands twice, and what reads as a sentence ends as one.
TEST(Messages, TextsAreWellFormed) {
  for (const int group : {CALLING_SURFACE, OPTIMIZATION}) {
    int last = 0;
    for (const embed::Message& message : embed::messages(group)) {
      std::string text = message.text;
      SCOPED_TRACE(std::to_string(group) + "/" + std::to_string(message.number) + ": " + text);
      EXPECT_GT(message.number, std::exchange(last, message.number)) << "twice, or no number";
      const bool sentence =
          message.severity != Severity::note || text.find(". ") != std::string::npos;
      ASSERT_FALSE(text.empty() || text.back() == ' ' || (sentence && text.back() != '.'));
      for (char place = '1'; text.find({'{', place, '}'}) != std::string::npos; ++place)
        for (std::size_t at; (at = text.find({'{', place, '}'})) != std::string::npos;)
          text.erase(at, 3);
      EXPECT_EQ(text.find_first_of("{}"), std::string::npos);
    }
    EXPECT_GT(last, 0);
  }
}

// ---- Process ------------------------------------------------------------------------------------

TEST_F(Host, ResumeReachesItsOwnGuard) {
  MINSTR str{};
  const auto resume = [](MINSTR* record) -> int { wtresum(record->mpin, -7); };
  EXPECT_EQ(wtguard(&str.mpin, resume, &str), -7);
  EXPECT_EQ(str.mpin, nullptr);

  EXPECT_THROW(wtresum(nullptr, 1), embed::ExitRequest);
}

TEST_F(Host, ClockRunsForwardAndOptionsAreFound) {
  const double start = zdattim();
  embed::advance_clock(task, 100.0);
  EXPECT_GE(zdattim() - start, 100.0);
  task.debug_options["-nlpitermsg"] = 2;
  EXPECT_EQ(zbugi("-nlpitermsg") + zbugi("-other"), 2);
}

TEST(HostWithoutSession, EachThreadHasATaskOfItsOwn) {
  embed::Task* other = nullptr;
  std::thread([&other] {
    other = &embed::current_task();
    (void)vmalloc_handler(32, 0);  // freed with the thread's task
  }).join();
  EXPECT_NE(other, &embed::current_task());
}

}  // namespace
}  // namespace tqnlp
