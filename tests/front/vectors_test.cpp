// opt, par and tc: defaults by technique, limits, and how far a vector reaches.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "front_call.h"

namespace tqnlp {
namespace {

using test::Decoded;

constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double DIGITS = 15.653559774527022;
const double NOT_A_NUMBER = std::nan("");

struct WithVector : Decoded {
  std::vector<double> values;
  WithVector(int technique, std::vector<double> v) : Decoded(technique), values(std::move(v)) {
    const int count = static_cast<int>(values.size());
    argm.optn = argm.parm = argm.tcri = values.data();
    argm.nopt = argm.npar = argm.nitc = count;
    str.fdig = DIGITS;
  }
};

struct OptionCase {
  const char* what;
  int job;
  int tech;
  std::vector<double> opt;
  double MINSTR::*real;
  int MINSTR::*whole;
  double expected;
};

TEST(Options, DecodeByJobAndTechnique) {
  const double M = MISSING;
  const OptionCase cases[] = {
      {"maximize", 1, 4, {1}, nullptr, &MINSTR::imax, 1},
      {"negative also maximizes", 0, 14, {-3}, nullptr, &MINSTR::imax, 1},
      {"a plain NaN is missing", 1, 4, {NOT_A_NUMBER}, nullptr, &MINSTR::imax, 0},
      {"print level 1 is 2", 1, 4, {0, 1}, &MINSTR::dbug, nullptr, 2},
      {"print level limit", 1, 4, {0, 50}, &MINSTR::dbug, nullptr, 9},
      {"hesc is 1 for LEVMAR", 2, 8, {3}, nullptr, &MINSTR::hesc, 1},
      {"update 5 is 1", 1, 10, {M, M, M, 5}, nullptr, &MINSTR::tupd, 1},
      {"update 3 is 1 for DBLDOG", 1, 9, {M, M, M, 3}, nullptr, &MINSTR::tupd, 1},
      {"update 3 is 1 for HYQUAN", 2, 12, {3, M, M, 3}, nullptr, &MINSTR::tupd, 1},
      {"line search of least squares", 2, 8, {3}, nullptr, &MINSTR::tlin, 12},
      {"version limit", 1, 11, {M, M, M, M, M, 7}, nullptr, &MINSTR::vers, 2},
      {"infinite", 1, 11, {M, M, INF}, nullptr, &MINSTR::hesc, 2147483647},
  };
  for (const OptionCase& c : cases) {
    WithVector call(c.tech, c.opt);
    setoptn(&call.str, c.job);
    const double value = c.real != nullptr ? call.str.*c.real : call.str.*c.whole;
    EXPECT_EQ(value, c.expected) << c.what;
  }
}

TEST(Options, CountsAndSparseRows) {
  const double M = MISSING;
  WithVector general(4, {M, M, M, M, M, M, M, M, 7, 3, 2, 9, 9});
  setoptn(&general.str, 1);
  EXPECT_EQ(general.argm.hrow, 7);
  EXPECT_EQ(general.str.nnlc, 3);
  EXPECT_EQ(general.str.nlec, 2);

  WithVector quadratic(16, {M, M, M, M, M, M, M, M, 7});
  quadratic.argm.hrow = 5;  // read from the matrix before
  setoptn(&quadratic.str, 1);
  EXPECT_EQ(quadratic.argm.hrow, 5);

  WithVector squares(8, {12, M, M, M, M, M, M, M, 7, 3, 2});
  setoptn(&squares.str, 2);
  EXPECT_EQ(squares.str.mequ, 12);
  EXPECT_EQ(squares.argm.hrow + squares.str.nnlc + squares.str.nlec + squares.str.imax, 0);

  WithVector huge(4, {M, M, M, M, M, M, M, M, 1e300, -1e300});
  setoptn(&huge.str, 1);
  EXPECT_EQ(huge.values[8], 2147483647.0);  // in the caller's vector
  EXPECT_EQ(huge.str.nnlc, -2147483647);
}

// Difference code: tens choose intervals, units the kind.
TEST(Options, DifferenceCode) {
  struct {
    double code, nnlc;
    short gradient;
    int fidi, cfdh;
  } const cases[] = {{0, 0, 0, 0, 0},  {2, 0, 0, 2, 0},   {21, 0, 0, 1, 0}, {21, 2, 0, 1, 2},
                     {11, 0, 0, 1, 1}, {32, 0, 0, 2, 1},  {32, 2, 0, 2, 3}, {32, 2, 1, 2, 2},
                     {41, 2, 0, 1, 0}, {-21, 2, 0, -1, 0}};
  for (const auto& c : cases) {
    const double M = MISSING;
    WithVector call(11, {M, M, M, M, M, M, M, c.code, M, c.nnlc});
    call.argm.igmod = c.gradient;
    setoptn(&call.str, 1);
    EXPECT_EQ(call.str.fidi, c.fidi) << c.code;
    EXPECT_EQ(call.str.cfdh, c.cfdh) << c.code << " with " << c.nnlc;
  }
}

struct ParameterCase {
  const char* what;
  int job;
  int tech;
  int tupd;
  std::vector<double> par;
  double MINSTR::*field;
  double expected;  // MISSING: must be missing
};

TEST(Parameters, DecodeByJobAndTechnique) {
  const double M = MISSING;
  const ParameterCase cases[] = {
      {"ceps floor", 4, 4, 1, {M, M, -1}, &MINSTR::ceps, SMALLEST_TOLERANCE},
      {"infinite is missing", 4, 4, 1, {M, M, INF}, &MINSTR::ceps, 1e-8},
      {"deat may be 0", 0, 14, 1, {M, M, M, 0}, &MINSTR::deat, 0},
      {"ldct 0 keeps", 4, 4, 1, {M, M, M, M, 0}, &MINSTR::ldct, 1e-8},
      {"ldct limit", 4, 4, 1, {M, M, M, M, 5}, &MINSTR::ldct, 0.1},
      {"simplex reads 4 only", 0, 14, 1, {M, M, M, M, 0.01}, &MINSTR::ldct, 1e-8},
      {"sigm NEWRAP", 4, 3, 2, {}, &MINSTR::sigm, 0.9},
      {"sigm HYQUAN update 2", 3, 12, 2, {}, &MINSTR::sigm, 0.06},
      {"sigm update 2", 2, 11, 2, {}, &MINSTR::sigm, 0.06},
      {"restart LEVMAR", 3, 8, 1, {}, &MINSTR::nres, 40},
      {"fdig limit", 4, 4, 1, {M, M, M, M, M, M, M, 99}, &MINSTR::fdig, 2 * DIGITS},
      {"fdig at least 1", 4, 4, 1, {M, M, M, M, M, M, M, 0.5}, &MINSTR::fdig, 1},
      {"damp negative keeps", 2, 11, 1, {M, M, M, M, M, M, -1}, &MINSTR::damp, MISSING},
  };
  for (const ParameterCase& c : cases) {
    WithVector call(c.tech, c.par);
    call.str.tupd = c.tupd;
    setparm(&call.str, c.job);
    if (wzmis(c.expected)) {
      EXPECT_TRUE(wzmis(call.str.*c.field)) << c.what;
    } else {
      EXPECT_EQ(call.str.*c.field, c.expected) << c.what;
    }
  }
  WithVector constrained(14, {});
  constrained.str.nlicon = 1;
  setparm(&constrained.str, 0);
  EXPECT_EQ(constrained.str.salf, 0.5);
}

TEST(Termination, DefaultsByJob) {
  for (const int job : {0, 1, 2}) {
    WithVector call(job == 0 ? 14 : 11, {});
    setterm(&call.str, job);
    EXPECT_EQ(call.str.maxf, (std::vector<double>{3000, 1000, 500})[static_cast<std::size_t>(job)]);
    EXPECT_EQ(call.str.atol, -ROOT_HUGE);
    EXPECT_NEAR(call.str.ftol, 2.2204460492503141e-16, 1e-29);
    EXPECT_EQ(call.str.agtl, job == 0 ? 0.0 : 1e-5);
    call.str.nlicon = call.str.imax = 1;
    setterm(&call.str, job);
    EXPECT_EQ(call.str.atol, ROOT_HUGE);
    EXPECT_EQ(call.str.fto2, 1e-6);
    EXPECT_EQ(call.str.axtl, job == 0 ? 1e-4 : 0.0);
  }
}

// Element k holds the value k, so that a field shows which element it was filled from.
TEST(Termination, VectorsReachElement13Or20) {
  for (const int length : {15, 20, 25}) {
    std::vector<double> elements;
    for (int k = 1; k <= length; ++k) elements.push_back(k);
    WithVector simplex(14, elements);
    setterm(&simplex.str, 0);
    EXPECT_EQ(simplex.str.ftol, 4.0);
    EXPECT_EQ(simplex.str.xsiz, 10.0);
    EXPECT_EQ(simplex.str.gtol, 0.0);
    WithVector other(4, elements);
    setterm(&other.str, 2);
    EXPECT_EQ(other.str.gtol, 4.0);
    EXPECT_EQ(other.str.ftol, 7.0);
    EXPECT_EQ(other.str.xsiz, 13.0);
    EXPECT_EQ(other.str.max2, length >= 20 ? 20.0 : 0.0);
  }
  WithVector infinite(4, {INF, NOT_A_NUMBER, -INF});
  setterm(&infinite.str, 2);
  EXPECT_EQ(infinite.str.maxi, HUGE_VALUE);
  EXPECT_EQ(infinite.str.maxf, 500.0);
  EXPECT_EQ(infinite.str.atol, -HUGE_VALUE);
}

}  // namespace
}  // namespace tqnlp
