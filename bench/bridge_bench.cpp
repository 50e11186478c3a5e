// The cost of the callback bridge, with a module that returns at once: one evaluation through the
// whole road from the record to the user's function and back, beside a direct call of the same
// function; and one evaluation of a gradient by differences, through the bridge and in a record
// whose callback does next to nothing, which leaves the differences themselves. Both faces.
#include <benchmark/benchmark.h>

#include "aasubs/derivatives/znlpfid.h"
#include "embed/task.h"
#include "face/run.h"
#include "front/argmts.h"
#include "front/tqxnlp_bridge.h"
#include "front/tqxnlp_modules.h"

namespace tqnlp {

static Matrix returns_at_once(const Matrix& x) { return Matrix::scalar(x(0, 0)); }

static int nothing_but_a_value(MINSTR* str) {
  str->func[0] = str->crit = str->x[0];
  str->tbig = 0.0;
  return 0;
}

// A record with one function of n parameters, prepared to run the module.
struct Bridge {
  Session session;
  embed::Activation activation{session.task()};
  embed::FrameScope frame{session.task()};
  std::vector<double> arrays;
  MINSTR str{};
  ARGMTS argm{};
  bool ready = false;

  explicit Bridge(long n) : arrays(static_cast<std::size_t>(4 * n + 4), 1.0) {
    session.module("F", returns_at_once);
    str.secstr = &argm;
    str.nvar = n;
    str.mequ = str.mfun = 1;
    str.x = arrays.data();
    str.grad = str.x + n;
    str.wfid = str.grad + n;
    str.func = str.wfid + 2 * n + 2;
    str.indf = IN_RUN;
    char name[32];
    std::fill_n(name, 32, ' ');
    name[0] = 'F';
    argm.ifmod = 1;
    argm.funptr = tqsmod(name, MODULE_FUNCTION);
    str.usfct = nlpfunc;
    ready = argm.funptr != nullptr && setss(&str, CALL_OBJECTIVE) == 0;
  }
  ~Bridge() { release_prepared_calls(&argm); }
};

static void direct_call(benchmark::State& state) {
  const std::function<Matrix(const Matrix&)> function = returns_at_once;
  const Matrix x(1, state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(function(x)(0, 0));
}

static void through_the_bridge(benchmark::State& state) {
  Bridge bridge(state.range(0));
  if (!bridge.ready) return state.SkipWithError("the call could not be prepared");
  for (auto _ : state) {
    if (nlpfunc(&bridge.str) != 0) state.SkipWithError("the evaluation failed");
    benchmark::DoNotOptimize(bridge.str.crit);
  }
}

// A gradient: side 1 forward, 2 central; in the record alone, or with the module behind it.
static void gradient(benchmark::State& state, bool in_record) {
  const long n = state.range(0);
  Bridge bridge(n);
  if (!bridge.ready) return state.SkipWithError("the call could not be prepared");
  bridge.str.fidi = static_cast<int>(state.range(1));
  if (in_record) bridge.str.usfct = nothing_but_a_value;
  for (auto _ : state) {
    if (nlpgrad(&bridge.str) != 0) state.SkipWithError("the gradient failed");
    benchmark::DoNotOptimize(bridge.str.grad[0]);
  }
  state.counters["s_per_evaluation"] = benchmark::Counter(
      static_cast<double>(n * state.range(1)),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The same of the named face: its callback on a prepared record, beside a direct call of the
// function that it holds.
static double first_element(Point x) { return x[0]; }

static void direct_call_of_the_face(benchmark::State& state) {
  const Problem::Objective function = first_element;
  const std::vector<double> x(static_cast<std::size_t>(state.range(0)), 1.0);
  for (auto _ : state) benchmark::DoNotOptimize(function(x));
}

static void through_the_face(benchmark::State& state) {
  const long n = state.range(0);
  const auto size = static_cast<std::size_t>(n);
  Problem problem = Problem::minimize(n, first_element);
  if (state.range(1) != 0)
    problem.bounds(std::vector<double>(size, 0.0), std::vector<double>(size, 2.0));
  const Options options;
  const face::Constraints constraints = face::normalize(problem.data());
  embed::Task task;
  const embed::Activation activation(task);
  const embed::FrameScope frame(task);
  face::Shared shared{problem.data(), constraints, options};
  face::Run run(shared, face::row_of(Technique::nelder_mead));
  face::prepare_run(run, std::vector<double>(size, 1.0));
  for (auto _ : state) {
    if (run.usfct(&run) != 0) state.SkipWithError("the evaluation failed");
    benchmark::DoNotOptimize(run.crit);
  }
}

BENCHMARK(direct_call_of_the_face)->ArgName("n")->Arg(2)->Arg(20)->Arg(200);
BENCHMARK(through_the_face)->ArgNames({"n", "bounds"})->ArgsProduct({{2, 20, 200}, {0, 1}});
BENCHMARK(direct_call)->ArgName("n")->Arg(2)->Arg(20)->Arg(200);
BENCHMARK(through_the_bridge)->ArgName("n")->Arg(2)->Arg(20)->Arg(200);
BENCHMARK_CAPTURE(gradient, record, true)
    ->ArgNames({"n", "side"})
    ->ArgsProduct({{2, 20, 200}, {1, 2}});
BENCHMARK_CAPTURE(gradient, bridge, false)
    ->ArgNames({"n", "side"})
    ->ArgsProduct({{2, 20, 200}, {1, 2}});

}  // namespace tqnlp

BENCHMARK_MAIN();
