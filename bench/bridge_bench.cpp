// The cost of the callback bridge: one evaluation of a module that returns at once, through the
// whole road from the record to the user's function and back, beside a direct call of the same
// function.
#include <benchmark/benchmark.h>

#include "embed/task.h"
#include "front/argmts.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_modules.h"

namespace tqnlp {

static Matrix returns_at_once(const Matrix& x) { return Matrix::scalar(x(0, 0)); }

static void direct_call(benchmark::State& state) {
  const std::function<Matrix(const Matrix&)> function = returns_at_once;
  const Matrix x(1, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(function(x)(0, 0));
}

static void through_the_bridge(benchmark::State& state) {
  const long n = state.range(0);
  Session session;
  session.module("F", returns_at_once);
  const embed::Activation activation(session.task());
  const embed::FrameScope frame(session.task());
  std::vector<double> x(static_cast<std::size_t>(n), 1.0);
  double func[2] = {};
  MINSTR str{};
  ARGMTS argm{};
  str.secstr = &argm;
  str.nvar = n;
  str.mequ = str.mfun = 1;
  str.x = x.data();
  str.func = func;
  str.indf = IN_RUN;
  char name[32];
  std::fill_n(name, 32, ' ');
  name[0] = 'F';
  argm.ifmod = 1;
  argm.funptr = tqsmod(name, MODULE_FUNCTION);
  if (argm.funptr == nullptr || setss(&str, CALL_OBJECTIVE) != 0) {
    state.SkipWithError("the call could not be prepared");
    return;
  }
  for (auto _ : state) {
    if (nlpfunc(&str) != 0) state.SkipWithError("the evaluation failed");
    benchmark::DoNotOptimize(str.crit);
  }
  release_prepared_calls(&argm);
}

BENCHMARK(direct_call)->ArgName("n")->Arg(2)->Arg(20)->Arg(200);
BENCHMARK(through_the_bridge)->ArgName("n")->Arg(2)->Arg(20)->Arg(200);

}  // namespace tqnlp

BENCHMARK_MAIN();
