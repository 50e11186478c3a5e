// opt, par and tc: defaults by technique, limits, and how far a vector reaches.
#include <gtest/gtest.h>

#include <numeric>
#include <variant>

#include "front_call.h"

namespace tqnlp::test {
namespace {

constexpr double DIGITS = 15.653559774527022;
const double M = MISSING;

struct WithVector : Decoded {
  Vector values;
  WithVector(int technique, Vector v) : Decoded(technique), values(std::move(v)) {
    const int count = static_cast<int>(values.size());
    argm.optn = argm.parm = argm.tcri = values.data();
    argm.nopt = argm.npar = argm.nitc = count;
    str.fdig = DIGITS;
  }
};

using Field = std::variant<double MINSTR::*, int MINSTR::*>;

TEST(Options, DecodeByJobAndTechnique) {
  const struct {
    const char* what;
    int job, tech;
    Vector opt;
    Field field;
    double expected;
  } cases[] = {
      {"maximize", 1, 4, {1}, &MINSTR::imax, 1},
      {"negative also maximizes", 0, 14, {-3}, &MINSTR::imax, 1},
      {"a plain NaN is missing", 1, 4, {NOT_A_NUMBER}, &MINSTR::imax, 0},
      {"print level 1 is 2", 1, 4, {0, 1}, &MINSTR::dbug, 2},
      {"print level limit", 1, 4, {0, 50}, &MINSTR::dbug, 9},
      {"hesc is 1 for LEVMAR", 2, 8, {3}, &MINSTR::hesc, 1},
      {"update 5 is 1", 1, 10, {M, M, M, 5}, &MINSTR::tupd, 1},
      {"update 3 is 1 for DBLDOG", 1, 9, {M, M, M, 3}, &MINSTR::tupd, 1},
      {"line search of least squares", 2, 8, {3}, &MINSTR::tlin, 12},
      {"version limit", 1, 11, {M, M, M, M, M, 7}, &MINSTR::vers, 2},
      {"infinite", 1, 11, {M, M, INF}, &MINSTR::hesc, 2147483647},
  };
  for (const auto& c : cases) {
    WithVector call(c.tech, c.opt);
    setoptn(&call.str, c.job);
    std::visit([&](auto field) { EXPECT_EQ(call.str.*field, c.expected) << c.what; }, c.field);
  }
}

TEST(Options, CountsAndSparseRows) {
  const auto counts = [](int job, int tech, Vector opt) {
    WithVector call(tech, std::move(opt));
    call.argm.hrow = 5;  // of a quadratic, read from its matrix before
    setoptn(&call.str, job);
    EXPECT_EQ(call.str.imax, 0);
    EXPECT_EQ(call.str.mequ, job == 2 ? 12 : 1);
    return std::vector<long>{call.argm.hrow, call.str.nnlc, call.str.nlec};
  };
  using Counts = std::vector<long>;
  EXPECT_EQ(counts(1, 4, {M, M, M, M, M, M, M, M, 7, 3, 2, 9, 9}), (Counts{7, 3, 2}));
  EXPECT_EQ(counts(1, 16, {M, M, M, M, M, M, M, M, 7})[0], 5);
  EXPECT_EQ(counts(2, 8, {12, M, M, M, M, M, M, M, 7, 3, 2}), (Counts{5, 0, 0}));
  WithVector huge(4, {M, M, M, M, M, M, M, M, 1e300});
  setoptn(&huge.str, 1);
  EXPECT_EQ(huge.values[8], 2147483647.0);  // in the caller's vector
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
    WithVector call(11, {M, M, M, M, M, M, M, c.code, M, c.nnlc});
    call.argm.igmod = c.gradient;
    setoptn(&call.str, 1);
    EXPECT_EQ(call.str.fidi, c.fidi) << c.code;
    EXPECT_EQ(call.str.cfdh, c.cfdh) << c.code << " with " << c.nnlc;
  }
}

TEST(Parameters, DecodeByJobAndTechnique) {
  const struct {
    const char* what;
    int job, tech, tupd;
    Vector par;
    double MINSTR::*field;
    double expected;  // MISSING: must be missing
  } cases[] = {
      {"ceps floor", 4, 4, 1, {M, M, -1}, &MINSTR::ceps, SMALLEST_TOLERANCE},
      {"infinite is missing", 4, 4, 1, {M, M, INF}, &MINSTR::ceps, 1e-8},
      {"deat may be 0", 0, 14, 1, {M, M, M, 0}, &MINSTR::deat, 0},
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
  for (const auto& c : cases) {
    WithVector call(c.tech, c.par);
    call.str.tupd = c.tupd;
    setparm(&call.str, c.job);
    const double value = call.str.*c.field;
    EXPECT_TRUE(value == c.expected || (wzmis(value) && wzmis(c.expected))) << c.what;
  }
  WithVector constrained(14, {});
  constrained.str.nlicon = 1;
  setparm(&constrained.str, 0);
  EXPECT_EQ(constrained.str.salf, 0.5);
}

TEST(Termination, DefaultsByJob) {
  const double limits[] = {3000, 1000, 500};
  for (const int job : {0, 1, 2}) {
    WithVector call(job == 0 ? 14 : 11, {});
    MINSTR& str = call.str;
    setterm(&str, job);
    EXPECT_EQ((Vector{str.maxf, str.atol}), (Vector{limits[job], -ROOT_HUGE}));
    EXPECT_NEAR(str.ftol, 2.2204460492503141e-16, 1e-29);
    EXPECT_EQ(str.agtl, job == 0 ? 0.0 : 1e-5);
    str.nlicon = str.imax = 1;
    setterm(&str, job);
    EXPECT_EQ((Vector{str.atol, str.fto2}), (Vector{ROOT_HUGE, 1e-6}));
    EXPECT_EQ(str.axtl, job == 0 ? 1e-4 : 0.0);
  }
}

// Element k holds the value k, so that a field shows which element it was filled from.
TEST(Termination, VectorsReachElement13Or20) {
  for (const int length : {15, 20, 25}) {
    Vector elements(static_cast<std::size_t>(length));
    std::iota(elements.begin(), elements.end(), 1.0);
    WithVector simplex(14, elements);
    setterm(&simplex.str, 0);
    EXPECT_EQ((Vector{simplex.str.ftol, simplex.str.xsiz, simplex.str.gtol}), (Vector{4, 10, 0}));
    WithVector other(4, elements);
    setterm(&other.str, 2);
    EXPECT_EQ((Vector{other.str.gtol, other.str.ftol, other.str.xsiz, other.str.max2}),
              (Vector{4, 7, 13, length >= 20 ? 20.0 : 0.0}));
  }
}

}  // namespace
}  // namespace tqnlp::test
