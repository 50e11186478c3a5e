// What the tests of the calling surface share: an entry called directly, with the argument list,
// the results, the log and the block counts in hand, as no public interface shows them.
#pragma once

#include <cmath>
#include <limits>
#include <vector>

#include "aasubs/setup/run_arrays.h"
#include "embed/task.h"
#include "front/argmts.h"
#include "front/tqxnlp.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_call.h"
#include "front/tqxnlp_decode.h"

namespace tqnlp::test {

inline constexpr double INF = std::numeric_limits<double>::infinity();
inline const double NOT_A_NUMBER = std::nan("");
inline const Matrix NONE;
using Vector = std::vector<double>;
using Numbers = std::vector<int>;

struct Answer {
  int code = 0;  // what the entry returned; -1: it was ended by xexit
  std::vector<Matrix> results;
  std::vector<int> messages;  // numbers of group 178, in order
  long blocks_left = 0;
  long files_left = 0;
};

// Calls an entry on a session without the checks of Session::call.
inline Answer enter(Session& session, TqxEntry entry, std::vector<Matrix> arguments) {
  embed::Task& task = session.task();
  const embed::Activation activation(task);
  Answer answer;
  const std::size_t first = task.log.size();
  {
    const embed::FrameScope frame(task);
    std::vector<TQLARG> held;
    for (Matrix& argument : arguments) held.push_back({std::move(argument)});
    std::vector<TQLARG*> handles;
    for (TQLARG& argument : held) handles.push_back(&argument);
    long count = static_cast<long>(handles.size());
    try {
      answer.code = entry(handles.data(), &count);
    } catch (const embed::ExitRequest&) {
      answer.code = -1;
    }
    answer.results.assign(task.frame().results.begin(), task.frame().results.end());
  }
  for (std::size_t i = first; i < task.log.size(); ++i) {
    if (task.log[i].group == CALLING_SURFACE) answer.messages.push_back(task.log[i].number);
  }
  answer.blocks_left = task.counters.blocks_left;
  answer.files_left = task.counters.files_left;
  return answer;
}

// A record and its decoded call, filled by hand.
struct Decoded {
  MINSTR str{};
  ARGMTS argm{};
  explicit Decoded(int technique = 4, long n = 2) {
    str.secstr = &argm;
    str.acget = nlpaget;
    str.tech = technique;
    str.nvar = n;
    str.nnva = packed_size(n);
    str.mequ = str.mfun = 1;
    str.ceps = str.ldct = 1e-8;
    argm.n = static_cast<int>(n);
    std::copy_n("NLPTEST ", CALL_NAME_FIELD, argm.calnam);
  }
  Decoded(const Decoded&) = delete;
  Decoded& operator=(const Decoded&) = delete;
};

}  // namespace tqnlp::test
