// The callback bridge, one evaluation at a time: shapes, missing values, signs, counters, the norm
// of least squares, and what happens when a module fails.
#include <gtest/gtest.h>

#include <array>

#include "front/tqxnlp_modules.h"
#include "front_call.h"

namespace tqnlp::test {
namespace {

using Counts = std::vector<long>;

// A record of two parameters with one module, whose answer the test sets.
struct Bridge : Decoded {
  Session session;
  embed::Activation activation{session.task()};
  Matrix answer;
  Vector x, grad, func, hess;

  explicit Bridge(long m = 1) : x(2), grad(2), func(static_cast<std::size_t>(m)), hess(3) {
    str.x = x.data();
    str.grad = grad.data();
    str.func = func.data();
    str.hess = hess.data();
    str.indf = IN_RUN;
    str.mequ = str.mfun = m;
    str.lsqu = m > 1 ? 1 : 0;
    session.module("ANSWER", [this](const Matrix&) { return answer; });
  }
  ~Bridge() { release_prepared_calls(&argm); }
  Bridge& prepare(int code, const char* module = "ANSWER                          ") {
    const ModuleKind& kind = *module_kind(code);
    std::copy_n(module, NAME_FIELD, argm.*kind.name);
    argm.*kind.handle = tqsmod(argm.*kind.name, kind.kind);
    argm.*kind.given = 1;
    EXPECT_EQ(setss(&str, code), 0);
    return *this;
  }
  // Calls with an answer; a code must leave tbig set, and 0 must not.
  int call(Callback callback, Matrix with) {
    answer = std::move(with);
    const int code = callback(&str);
    EXPECT_EQ(code != 0, str.tbig != 0.0);
    return code;
  }
  Numbers messages() {
    Numbers numbers;
    for (const LogRecord& line : session.log()) numbers.push_back(line.number);
    return numbers;
  }
};

TEST(Objective, ShapesAndMissingValues) {
  Bridge b;
  b.prepare(CALL_OBJECTIVE);
  for (const Matrix& bad :
       {Matrix::scalar(MISSING), Matrix::scalar(std::nan("")), Matrix::scalar(INF),
        Matrix::scalar(-INF), Matrix::col({1, 2}), Matrix(), Matrix("TEXT")}) {
    EXPECT_EQ(b.call(nlpfunc, bad), -11);
    EXPECT_EQ(b.str.crit, HUGE_VALUE);
    EXPECT_NE(b.argm.funer, 0);
  }
  EXPECT_EQ(b.messages(), Numbers{148});  // three wrong shapes in a row: said once
  EXPECT_EQ(b.call(nlpfunc, Matrix::scalar(1)), 0);
  EXPECT_EQ(b.argm.funer, 0);
  EXPECT_EQ(b.call(nlpfunc, Matrix::row({1, 2})), -11);
  EXPECT_EQ(b.messages(), (Numbers{148, 148}));
}

TEST(Objective, LeastSquares) {
  Bridge b(3);
  b.prepare(CALL_OBJECTIVE);
  EXPECT_EQ(b.call(nlpfunc, Matrix::col({3, -4, 12})), 0);
  EXPECT_DOUBLE_EQ(b.str.crit, 84.5);
  EXPECT_EQ(b.func, (Vector{3, -4, 12}));
  for (const double small : {0.0, 1e-200}) {  // the square underflows, the norm does not
    EXPECT_EQ(b.call(nlpfunc, Matrix::row({small, small, 0})), 0);
    EXPECT_EQ(b.str.crit, 0.0);
  }
  EXPECT_EQ(b.call(nlpfunc, Matrix::row({1, 1e155, 0})), 2);
  EXPECT_EQ(b.str.crit, HUGE_VALUE);
  EXPECT_EQ(b.argm.funer, 0);
  EXPECT_EQ(b.call(nlpfunc, Matrix::row({1e154, 1e154, 1e154})), 3);
  EXPECT_EQ(b.call(nlpfunc, Matrix::row({1e153, 0, 0})), 0);
  EXPECT_DOUBLE_EQ(b.str.crit, 5e305);
  EXPECT_EQ(b.call(nlpfunc, Matrix(3, 3)), -11);
  EXPECT_EQ(b.messages(), Numbers{149});
}

// With the sign of a maximum; the steps of differences, and what is asked for again at the
// solution, are not counted.
TEST(Objective, SignAndCounters) {
  Bridge b;
  b.prepare(CALL_OBJECTIVE).prepare(CALL_GRADIENT);
  b.str.imax = 1;
  EXPECT_EQ(b.call(nlpfunc, Matrix::scalar(3)), 0);
  EXPECT_TRUE(b.str.crit == -3.0 && b.func[0] == -3.0);
  EXPECT_EQ(b.call(nlpfunc, Matrix::scalar(MISSING)), -11);
  EXPECT_EQ(b.str.crit, -HUGE_VALUE);
  EXPECT_EQ(b.call(nlpgrad, Matrix::row({1, -2})), 0);
  EXPECT_EQ(b.grad, (Vector{-1, 2}));
  b.str.indf = GRADIENT_STEP;
  EXPECT_EQ(b.call(nlpfunc, Matrix::scalar(3)), 0);
  b.str.indf = AT_SOLUTION;
  b.argm.dncf = b.argm.dncg = 1;
  EXPECT_EQ(b.call(nlpfunc, Matrix::scalar(3)) + b.call(nlpgrad, Matrix::row({1, 2})), 0);
  EXPECT_EQ((Counts{b.str.nfct, b.str.ngrd}), (Counts{2, 1}));
}

// The Hessian's callback also brings the gradient, from its own module here.
struct HessianBridge : Bridge {
  bool gradient_fails = false;
  HessianBridge() {
    session.module("GRADIENT", [this](const Matrix&) {
      return Matrix::row({1, gradient_fails ? MISSING : 2.0});
    });
    prepare(CALL_HESSIAN).prepare(CALL_GRADIENT, "GRADIENT                        ");
  }
};

TEST(Hessian, DenseTakesTheUpperTriangle) {
  HessianBridge b;
  for (const auto& [above, below, taken] :
       {std::array{1.0, 7.0, 1.0}, {2.0, MISSING, 2.0}, {MISSING, 3.0, 3.0}}) {
    EXPECT_EQ(b.call(nlphess, Matrix(2, 2, {4, above, below, 5})), 0);
    EXPECT_EQ(b.hess, (Vector{4, taken, 5}));
    EXPECT_EQ(b.grad, (Vector{1, 2}));
  }
  EXPECT_EQ(b.call(nlphess, Matrix(2, 2, {4, MISSING, MISSING, 5})), -3);
  EXPECT_EQ(b.call(nlphess, Matrix(2, 3)), -4);
  b.gradient_fails = true;
  EXPECT_EQ(b.call(nlphess, Matrix(2, 2)), -2);
  EXPECT_EQ(b.messages(), (Numbers{151, 150}));
  EXPECT_EQ(b.str.nhes, 6);
  b.gradient_fails = false;
  b.str.imax = 1;
  b.str.fidi = 10000;  // some derivative is differenced: the call is not counted
  EXPECT_EQ(b.call(nlphess, Matrix(2, 2, {4, 1, 1, 5})), 0);
  EXPECT_EQ(b.hess, (Vector{-4, -1, -5}));
  EXPECT_EQ(b.str.nhes, 6);
}

TEST(Constraints, ValuesAndJacobian) {
  Bridge b;
  Vector fcon(3), jcon(6);
  b.str.fcon = fcon.data();
  b.str.jcon = jcon.data();
  EXPECT_EQ(b.call(nlpnlco, Matrix()), 0);  // there are none
  b.str.nnlc = 3;
  b.str.nlicon = 1;
  b.prepare(CALL_CONSTRAINTS).prepare(CALL_CONSTRAINT_JACOBIAN);
  EXPECT_EQ(b.call(nlpnlco, Matrix::col({1, 2, 3})), 0);
  EXPECT_EQ(fcon, (Vector{1, 2, 3}));
  EXPECT_EQ(b.call(nlpnlco, Matrix::row({1, 2})), -11);
  EXPECT_EQ(b.call(nlpjcon, Matrix(3, 2, {1, 2, 3, 4, 5, 6})), 0);
  EXPECT_EQ(jcon, (Vector{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(b.call(nlpjcon, Matrix(2, 3)), -11);
  EXPECT_EQ(b.messages(), (Numbers{148, 150, 208}));
  EXPECT_EQ((Counts{b.str.nfnc, b.str.njnc}), (Counts{2, 2}));
}

TEST(Termination, CodesOfAModuleThatAreNone) {
  Bridge b;
  double value = 0.0;
  b.session.termination_module("ANSWER", [&](const Matrix&, double) { return value; });
  b.prepare(CALL_TERMINATION);
  for (const double large : {1e300, INF}) {
    value = large;
    EXPECT_EQ(nlpterm(&b.str, 1), 2147483647);
  }
  value = MISSING;
  EXPECT_EQ(nlpterm(&b.str, 1), -11);
  EXPECT_NE(b.argm.trmer, 0);
  EXPECT_EQ(b.messages(), Numbers{152});
  EXPECT_EQ(b.str.tbig, 0.0);
}

TEST(IterationVariable, IsMadeAgainWhenTheUserChangedIt) {
  Bridge b;
  SetUp_iter_(0.0, &b.argm);
  EXPECT_EQ(b.session.variable("_ITER_"), Matrix::scalar(0));
  TQLSYM* symbol = tqlrtre("_ITER_", 6);
  tqwfre2(symbol->data);
  *symbol = {NUMERIC, 8, 2, 3, tqwalo2(48)};
  Export_iter_(4.0, b.argm._iterptr_);
  EXPECT_EQ(b.session.variable("_ITER_"), Matrix::scalar(4));
}

}  // namespace
}  // namespace tqnlp::test
