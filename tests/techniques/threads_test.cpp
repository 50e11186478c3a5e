// Eight threads, each with a session of its own, run bounded and linearly constrained calls at the
// same time; every answer equals that of a run alone, bit for bit.
#include <gtest/gtest.h>

#include <thread>

#include "support/record.h"
#include "techniques/outcome.h"

namespace tqnlp::test {
namespace {

TEST(Threads, EightSessionsSolveTheirOwnProblems) {
  constexpr std::size_t threads = 8;
  const std::vector<Problem> problems = hock_schittkowski_linear();
  std::vector<std::vector<Outcome>> found(threads);
  std::vector<std::thread> running;
  for (std::size_t t = 0; t < threads; ++t) {
    running.emplace_back([&, t] {
      // Each starts elsewhere in the list, so that different problems run side by side.
      for (std::size_t k = 0; k < problems.size(); ++k)
        found[t].push_back(solve(problems[(k + 4 * t) % problems.size()], "NLPNRR", 1e-6));
    });
  }
  for (std::thread& thread : running) thread.join();
  for (std::size_t k = 0; k < problems.size(); ++k) {
    const Outcome alone = solve(problems[k], "NLPNRR", 1e-6);
    for (std::size_t t = 0; t < threads; ++t) {
      const Outcome& beside = found[t][(k + problems.size() * 4 - 4 * t) % problems.size()];
      EXPECT_EQ(beside.x, alone.x) << problems[k].name << " thread " << t;
      EXPECT_EQ(beside.functions, alone.functions);
    }
  }
}

}  // namespace
}  // namespace tqnlp::test
