// Profile-likelihood limits: against bisection on a minimization by golden section, and every way a
// search can end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "aasubs/linesearch/znlplis.h"
#include "aasubs/post/znlppli.h"
#include "aasubs/quasinewton/znlpupd.h"
#include "aasubs/record/stop_codes.h"
#include "aasubs/setup/constraint_rows.h"
#include "aasubs/setup/defaults.h"
#include "aasubs/setup/derivative_choice.h"
#include "aasubs/setup/run_arrays.h"
#include "aasubs/termination/znlptrm.h"
#include "embed/faults.h"
#include "embed/task.h"
#include "host/files.h"
#include "host/log.h"
#include "kernels/distributions.h"
#include "kernels/vector.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// The log goes to a session.
struct Profile : testing::Test {
  Session session;
  embed::Activation activation{session.task()};
  bool logged(int number) const {
    return std::any_of(session.log().begin(), session.log().end(), [=](const LogRecord& line) {
      return line.group == OPTIMIZATION && line.number == number;
    });
  }
};

using Levels = std::vector<double>;

// A record with post-analysis and its limits.
struct Limits {
  Levels levels;
  std::vector<PLLIM> out;
  PLCSTR options{};
  COVSTR post{};

  Limits(MINSTR& record, Levels alfa, int forchi) : levels(std::move(alfa)) {
    out.resize(2 * std::max(levels.size(), 4UL) * static_cast<std::size_t>(record.nvar));
    options.job = 1, options.forchi = forchi, options.ffac = options.maxi = MISSING;
    options.nalf = static_cast<int>(levels.size()), options.alfa = levels.data();
    options.limits = out.data();
    post.plcstr = &options;
    record.covstr = &post;
    record.updat = znlpbfg, record.linse = znlpls2;
  }
  const PLLIM& at(long parameter, std::size_t level, int side) const {
    return out[2 * (static_cast<std::size_t>(parameter) * levels.size() + level) + (side > 0)];
  }
};

using Objective = std::function<double(const double*)>;

double golden_minimum(const std::function<double(double)>& f, double low, double high) {
  const double golden = 0.5 * (std::sqrt(5.0) - 1.0);
  double least = HUGE_VALUE;
  for (int i = 0; i < 80; ++i) {
    const double l = high - golden * (high - low), h = low + golden * (high - low);
    const double at_l = f(l), at_h = f(h);
    least = std::min({least, at_l, at_h});
    (at_l < at_h ? high : low) = at_l < at_h ? h : l;
  }
  return least;
}

// Minimum over the other of two parameters, which is sought between 0.6 and 1.6 times its estimate.
double profiled(const Objective& f, const double* x, int p, double a) {
  const auto value = [&](double b) {
    const double y[] = {p == 0 ? a : b, p == 0 ? b : a};
    return f(y);
  };
  return golden_minimum(value, 0.6 * x[1 - p], 1.6 * x[1 - p]);
}

double bisected(const Objective& f, const double* x, int p, int side, double level) {
  double inside = x[p], outside = x[p] * (1.0 + 0.5 * side);
  EXPECT_GT(profiled(f, x, p, outside), level);
  while (std::fabs(outside - inside) > 1e-13 * std::fabs(x[p])) {
    const double middle = 0.5 * (inside + outside);
    (profiled(f, x, p, middle) > level ? outside : inside) = middle;
  }
  return inside;
}

void expect_limits(const Limits& l, const Objective& f, const double* x,
                   const std::function<double(double)>& rise) {
  const double crit =
      golden_minimum([&](double a) { return profiled(f, x, 0, a); }, 0.9 * x[0], 1.1 * x[0]);
  for (long p = 0; p < 2; ++p) {
    for (std::size_t k = 0; k < l.levels.size(); ++k) {
      for (const int side : {-1, 1}) {
        const PLLIM& limit = l.at(p, k, side);
        ASSERT_EQ(limit.status, LIMIT_FOUND) << p << ' ' << k << ' ' << side;
        const double wanted = bisected(f, x, static_cast<int>(p), side, crit + rise(l.levels[k]));
        EXPECT_NEAR(limit.value / wanted, 1.0, 1e-7);
        // The Wald limit is near: the same quantile and scale.
        EXPECT_NEAR(limit.wald - x[p], limit.value - x[p], 0.4 * std::fabs(limit.value - x[p]));
      }
    }
  }
}

TEST_F(Profile, Weibull) {
  const double lives[] = {17.88, 28.92, 33.0,   41.52,  42.12,  45.6,   48.48, 51.84,
                          51.96, 54.12, 55.56,  67.8,   68.64,  68.64,  68.88, 84.12,
                          93.12, 98.64, 105.12, 105.84, 127.92, 128.04, 173.4};
  const Problem model = scalar_problem("Weibull", {1.5, 60.0}, {}, [&](const auto* x) {
    using std::exp, std::log;
    auto sum = x[0] - x[0];
    for (const double life : lives) {
      const auto ratio = log(life / x[1]);
      sum -= log(x[0] / x[1]) + (x[0] - 1.0) * ratio - exp(x[0] * ratio);
    }
    return sum;
  });
  // A module that is soon content judges the run, and not the optimizations behind the limits; nor
  // does the output of the run belong to them.
  const auto content = [](MINSTR* str, int job) {
    const int code = znlptrm(str, job);
    return code == 0 && str->nitr > 0 && str->gmax < 0.05 ? 20 : code;
  };
  static long outputs;
  struct Row {
    int technique, imax;
    int (*uster)(MINSTR*, int);
  };
  const Row rows[] = {{TRUREG, 0, znlptrm},      {NEWRAP, 0, znlptrm}, {NRRIDG, 0, znlptrm},
                      {QUANEW, 0, content},      {DBLDOG, 0, content}, {CONGRA, 0, znlptrm},
                      {QUANEW_DUAL, 0, znlptrm}, {TRUREG, 1, znlptrm}, {QUANEW, 1, znlptrm}};
  for (const Row& row : rows) {
    SCOPED_TRACE(technique_name(row.technique) + std::to_string(row.imax));
    TestRecord record(2, row.technique);
    install(record, model);
    record.imax = row.imax, record.atol = row.imax != 0 ? ROOT_HUGE : -ROOT_HUGE;
    record.uster = row.uster;
    record.usfout = [](MINSTR*) { return ++outputs, 0; };
    outputs = 0;
    Limits l(record, {0.01, 0.05, 0.5}, 1);
    ASSERT_GT(run_technique(record), 0);
    EXPECT_EQ(outputs, record.nter);
    const std::vector<double> x = record.point();
    expect_limits(l, model.value, x.data(), [](double alfa) { return 0.5 * zqc(1.0 - alfa, 1.0); });
    EXPECT_EQ(record.crit, model.value(record.x));
    EXPECT_LT(l.options.nrun, 80);
  }
}

// J'J, which LEVMAR wants.
int crossproduct(MINSTR* str) {
  auto* record = static_cast<TestRecord*>(str);
  const long m = str->mequ, n = str->nvar;
  std::vector<double> j(static_cast<std::size_t>(m * n));
  record->jac(str->x, j.data());
  for (long k = 0; k < n; ++k) {
    for (long l = 0; l <= k; ++l)
      str->hess[zisub(k, l)] = zvdotjj(m, n, j.data() + k, n, j.data() + l);
  }
  return str->usjac(str);
}

TEST_F(Profile, LeastSquares) {
  for (const Regression& set : nist_regressions()) {
    if (set.name != "Misra1a" && set.name != "DanWood") continue;
    for (const int technique : {GAUNEW, LEVMAR}) {
      SCOPED_TRACE(set.name + technique_name(technique));
      TestRecord record(2, technique);
      install_residuals(record, set.start_2);
      record.ushes = technique == LEVMAR ? crossproduct : nullptr;
      Limits l(record, {0.05, 0.2}, 2);
      std::vector<double> errors = set.deviations;
      record.ster = errors.data();
      ASSERT_GT(run_technique(record), 0);
      const std::vector<double> x = record.point();
      const Objective half = [&](const double* y) { return 0.5 * set.start_2.value(y); };
      const auto freedom = static_cast<double>(set.degrees_of_freedom);
      expect_limits(l, half, x.data(), [&](double alfa) {
        const double t = zqt(0.5 * alfa, freedom);
        return half(x.data()) / freedom * t * t;
      });
    }
  }
}

// ---- How a search can end -----------------------------------------------------------------------

struct Model {
  std::function<double(const double*)> f;
  std::function<void(const double*, double*)> g;
};

struct Box {
  std::vector<double> start, lower, upper;
};

struct Side {
  LimitStatus status;
  double at;
};

struct End {
  const char* name;
  const Model& model;
  Box box;
  Side low, high;  // of parameter 0
  std::vector<LinearRow> rows = {};
  double error = 0.0;  // standard error of parameter 0; 0: the run has none at all
};

// A parabola with a second parameter that follows the first: the rise of 2 is at a distance of 2.
double parabola(const double* x) { return 0.5 * (x[0] * x[0] + (x[1] - x[0]) * (x[1] - x[0])); }
void slope_of_parabola(const double* x, double* g) {
  g[0] = x[0] - (x[1] - x[0]);
  g[1] = x[1] - x[0];
}

TEST_F(Profile, EveryEndOfASearch) {
  const double none = HUGE_VALUE;
  const Model following{parabola, slope_of_parabola};
  const Model saturating{[](const double* x) {
                           return x[0] * x[0] / (1.0 + x[0] * x[0]) + (x[1] - x[0]) * (x[1] - x[0]);
                         },
                         [](const double* x, double* g) {
                           const double s = 1.0 + x[0] * x[0];
                           g[0] = 2.0 * x[0] / (s * s) - 2.0 * (x[1] - x[0]);
                           g[1] = 2.0 * (x[1] - x[0]);
                         }};
  // Undefined below 0; the rise of 2 is at the roots of x - log x = 3.
  const Model logarithmic{
      [](const double* x) { return x[0] > 0.0 ? x[0] - std::log(x[0]) + 0.5 * x[1] * x[1] : NAN; },
      [](const double* x, double* g) { g[0] = 1.0 - 1.0 / x[0], g[1] = x[1]; }};
  // The lower of two wells is at -1, behind a barrier of less than 2.
  const Model wells{[](const double* x) {
                      const double s = x[0] * x[0] - 1.0;
                      return s * s + 0.2 * x[0] + 0.5 * x[1] * x[1];
                    },
                    [](const double* x, double* g) {
                      g[0] = 4.0 * x[0] * (x[0] * x[0] - 1.0) + 0.2, g[1] = x[1];
                    }};
  // Tails so heavy that the first step sees nothing of the width.
  const Model heavy{[](const double* x) {
                      const double d = 1e5 * (x[0] - 1.0);
                      return 50.0 * std::log1p(0.01 * d * d) + 0.5 * x[1] * x[1];
                    },
                    [](const double* x, double* g) {
                      const double d = 1e5 * (x[0] - 1.0);
                      g[0] = 1e5 * d / (1.0 + 0.01 * d * d), g[1] = x[1];
                    }};
  // Nothing but a sum is determined.
  const Model valley{
      [](const double* x) { return 0.5 * (x[0] + 0.3 * x[1]) * (x[0] + 0.3 * x[1]); },
      [](const double* x, double* g) { g[0] = x[0] + 0.3 * x[1], g[1] = 0.3 * g[0]; }};
  const auto at = [](double value) { return Side{LIMIT_FOUND, value}; };
  const Side edge{LIMIT_AT_BOUND, MISSING}, flat{LIMIT_NOT_REACHED, MISSING};
  const Side below{LIMIT_LOWER_POINT, MISSING};
  const double root = 1.414213562373095;
  const End ends[] = {
      {"bounds", following, {{1, 1}, {-1.5, -none}, {2.5, none}}, edge, at(2)},
      {"on a bound", following, {{3, 1}, {1, -none}, {none, none}}, edge, at(2.2360679775)},
      {"other's", following, {{1, 1}, {-none, -none}, {none, 0.5}}, at(-2), at(1.641941090707)},
      {"row", following, {{0, 0.2}, {-none, 0}, {none, 5}}, at(-root), edge, {{{-1, -1}, 1, -1}}},
      {"saturating", saturating, {{0.5, 0.2}, {}, {}}, flat, flat},
      {"logarithmic", logarithmic, {{2, 1}, {}, {}}, at(0.0524690974577), at(4.5052414957929)},
      {"absurd error",
       logarithmic,
       {{2, 1}, {}, {}},
       at(0.0524690974577),
       at(4.5052414957929),
       {},
       1e12},
      {"heavy",
       heavy,
       {{1.000001, 1}, {}, {}},
       at(0.9999797983235),
       at(1.0000202016765),
       {},
       MISSING},
      {"valley", valley, {{1, 1}, {}, {}}, flat, flat},
      {"wells", wells, {{1, 1}, {}, {}}, below, at(1.5409407690233)},
  };
  for (const End& end : ends) {
    SCOPED_TRACE(end.name);
    TestRecord record(2, QUANEW_DUAL), plain(2, QUANEW_DUAL);
    Limits l(record, {1.0 - std::erf(std::sqrt(2.0))}, 1);  // z = 2, a rise of 2
    std::vector<double> lower(2);
    l.options.xlow = lower.data();
    double errors[] = {end.error, MISSING};
    if (end.error != 0.0) record.ster = errors;
    ASSERT_EQ(xcopen(&l.options.utprof, nullptr), 0);
    plain.updat = znlpbfg, plain.linse = znlpls2;
    for (TestRecord* r : {&record, &plain}) {
      r->ider = 1;
      r->f = end.model.f, r->g = end.model.g;
      r->with_callbacks().at(end.box.start);
      if (!end.box.lower.empty()) r->with_bounds(end.box.lower, end.box.upper);
      if (!end.rows.empty()) r->with_rows(end.rows);
    }
    EXPECT_EQ(run_technique(record), run_technique(plain));
    // The run is left as it was.
    EXPECT_EQ(record.point(), plain.point());
    EXPECT_EQ(record.crit, plain.crit);
    EXPECT_EQ(record.nfct, plain.nfct);
    EXPECT_EQ(record.bounds, plain.bounds);
    EXPECT_TRUE(std::equal(record.grad, record.grad + 2, plain.grad));
    EXPECT_TRUE(std::equal(record.ifxr, record.ifxr + 2, plain.ifxr));
    EXPECT_TRUE(std::equal(record.iabc, record.iabc + 2, plain.iabc));
    EXPECT_EQ(l.options.plcs, nullptr);

    for (const int side : {-1, 1}) {
      const PLLIM& limit = l.at(0, 0, side);
      const Side& wanted = side < 0 ? end.low : end.high;
      EXPECT_EQ(limit.status, wanted.status);
      EXPECT_EQ(wzmis(limit.value), limit.status != LIMIT_FOUND);
      EXPECT_TRUE(wzmis(limit.wald) || &end.model != &valley);
      if (wzmis(limit.value)) continue;
      EXPECT_NEAR(limit.value, wanted.at, 2e-8);
    }
    const bool met = end.low.status == LIMIT_LOWER_POINT;
    EXPECT_EQ(wzmis(l.options.flow), !met);
    EXPECT_EQ(logged(286), met);
    EXPECT_TRUE(!met || l.options.flow == end.model.f(lower.data()));
    // Points on file: the last of a side is the limit.
    std::vector<PLPNT> points(static_cast<std::size_t>(l.options.npnt));
    const auto bytes = static_cast<long>(points.size() * sizeof(PLPNT));
    EXPECT_TRUE(xcpoint(l.options.utprof, 0) == 0 &&
                xcread(l.options.utprof, points.data(), bytes) == 0);
    for (const PLPNT& point : points) EXPECT_TRUE(std::isfinite(point.xval + point.yval));
    xcclose(l.options.utprof, 1);
  }
}

// Levels from next to nothing up, and those whose rise is lost in the rounding of the objective.
// Post-analysis may know the objective by another function than the run, and is told of the limits
// when the record is what it was.
TEST_F(Profile, Levels) {
  static std::vector<PLLIM> told;
  for (const double offset : {0.0, 1e18}) {
    TestRecord record(2, QUANEW_DUAL);
    record.ider = 1;
    record.f = [=](const double* x) { return offset + parabola(x); };
    record.g = slope_of_parabola;
    record.with_callbacks().at({0, 0}).atol = ROOT_HUGE;  // no run, as it were
    Limits l(record, {1e-20, 0.05, 1e-300, 1.0}, 1);
    l.post.usfct = [](MINSTR* str) {
      str->crit = 100.0 + parabola(str->x);
      return 0;
    };
    l.post.usfout = [](MINSTR* str) {
      const PLCSTR* o = str->covstr->plcstr;
      told.assign(o->limits, o->limits + 2 * o->npar * o->nalf);
      return str->crit == 100.0 + parabola(str->x) ? 0 : (told.clear(), 1);
    };
    l.options.limits = nullptr;
    EXPECT_GT(run_technique(record), 0);
    EXPECT_TRUE(wzmis(l.options.flow));
    ASSERT_EQ(told.size(), 16U);
    for (const PLLIM& limit : told) {
      if (offset > 0.0 || limit.alfa == 1.0) {
        EXPECT_EQ(limit.status, LIMIT_NO_TARGET);
        continue;
      }
      ASSERT_EQ(limit.status, LIMIT_FOUND) << limit.alfa;
      const double z = limit.side * limit.value / (limit.ipar == 0 ? 1.0 : std::sqrt(2.0));
      EXPECT_NEAR(std::erfc(z / std::sqrt(2.0)) / limit.alfa, 1.0, 1e-5);
      EXPECT_NEAR(limit.wald / limit.value, 1.0, 1e-4);
    }
  }
}

// Limits under a nonlinear constraint c(x) = or >= 0.
struct Curved : MINSTR {
  Curved(Objective objective, Objective constraint, long equalities)
      : MINSTR{}, f(std::move(objective)), c(std::move(constraint)) {
    default_start(this, QUANEW_DUAL, 1, 2);
    nlicon = bounds = opro = 1;
    nnlc = 1, nlec = equalities, fidi = 20002;
    default_method(this, false);
    default_parameters(this, SETTINGS_GENERAL);
    default_limits(this, SETTINGS_GENERAL);
    default_criteria(this, SETTINGS_GENERAL);
    uster = znlptrm;
    usfct = [](MINSTR* str) {
      str->crit = str->func[0] = static_cast<Curved*>(str)->f(str->x);
      return ++str->nfct, str->tbig = 0.0, 0;
    };
    usnlc = [](MINSTR* str) {
      str->fcon[0] = static_cast<Curved*>(str)->c(str->x);
      return str->tbig = 0.0, 0;
    };
    usgrd = difference_service(fidi, DIGIT_GRADIENT, false);
    usjnc = difference_service(fidi, DIGIT_CONSTRAINT_JACOBIAN, false);
    allocate_arrays(this, {});
    vzfdl(-HUGE_VALUE, lb, 2), vzfdl(HUGE_VALUE, ub, 2);
    complete_constraints(this, false);
    x[0] = 0.8, x[1] = 0.9;
  }
  ~Curved() { release_arrays(this); }
  Objective f, c;
};

TEST_F(Profile, NonlinearConstraints) {
  const auto around = [](double x0, double x1) {
    return [=](const double* x) { return 0.5 * (std::pow(x[0] - x0, 2) + std::pow(x[1] - x1, 2)); };
  };
  const auto hyperbola = [](const double* x) { return x[0] * x[1] - 1.0; };
  const auto disk = [](const double* x) { return 1.0 - x[0] * x[0] - x[1] * x[1]; };
  // On x0 x1 = 1 the rise at x0 = a is (s - 2) s / 2 with s = a + 1/a.
  const double s = 1.0 + std::sqrt(5.0), root = std::sqrt(s * s - 4.0);
  // Beyond its edge the disk ends the profile.
  const struct {
    Objective f, c;
    long equalities;
    Side low, high;
  } rows[] = {
      {around(1, 1),
       hyperbola,
       1,
       {LIMIT_FOUND, 0.5 * (s - root)},
       {LIMIT_FOUND, 0.5 * (s + root)}},
      {around(0.1, 0), disk, 0, {LIMIT_AT_BOUND, MISSING}, {LIMIT_AT_BOUND, MISSING}},
      {around(2, 0), disk, 0, {LIMIT_FOUND, 2.0 - std::sqrt(5.0)}, {LIMIT_AT_BOUND, MISSING}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    Curved record(row.f, row.c, row.equalities);
    Limits l(record, {1.0 - std::erf(std::sqrt(2.0))}, 1);  // a rise of 2
    choose_methods(&record);
    EXPECT_GT(run_technique(record), 0);
    for (const int side : {-1, 1}) {
      const PLLIM& limit = l.at(0, 0, side);
      const Side& wanted = side < 0 ? row.low : row.high;
      EXPECT_EQ(limit.status, wanted.status);
      EXPECT_TRUE(wzmis(limit.value) || std::fabs(limit.value - wanted.at) < 1e-6) << limit.value;
    }
  }
}

// Time that is over, and a function that has no values any more, end all searches at once.
TEST_F(Profile, EndOfTheAnalysis) {
  for (const bool time : {true, false}) {
    TestRecord record(2, QUANEW_DUAL);
    record.ider = 1;
    bool gone = false;
    record.f = [&](const double* x) {
      if (time && record.indf == AT_SOLUTION) record.upti = 0.0;
      gone = gone || (!time && x[0] > 1.5);
      return gone ? NAN : parabola(x);
    };
    record.g = slope_of_parabola;
    record.with_callbacks().at({1, 1});
    double errors[] = {1.0, 1.0};
    record.ster = errors;
    Limits l(record, {0.05, 0.01}, 1);
    EXPECT_GT(run_technique(record), 0);
    EXPECT_EQ(l.at(0, 0, -1).status, time ? LIMIT_STOPPED : LIMIT_FOUND);
    for (const PLLIM* limit : {&l.at(0, 0, 1), &l.at(0, 1, 1), &l.at(1, 0, -1), &l.at(1, 1, 1)})
      EXPECT_EQ(limit->status, LIMIT_STOPPED);
    EXPECT_FALSE(logged(271));
  }
}

TEST_F(Profile, Refusals) {
  static constexpr struct {
    int tech, plal;
    double ffac;
    int code, message;
    long npar, parameter;
  } ROWS[] = {{NO_TECHNIQUE, 0, 2.0, 0, 280, 1, 0}, {20, 0, 2.0, 0, 280, 1, 0},
              {NRRIDG, 2, 2.0, 1, 282, 1, 0},       {NRRIDG, 0, 0.0, -1, 284, 1, 0},
              {NRRIDG, 0, 2.0, -1, 0, 1, 2},        {NRRIDG, 0, 2.0, -1, 0, 3, 0}};
  std::vector<double> unknown(2, MISSING);
  for (const auto& row : ROWS) {
    TestRecord record(2, row.tech);
    Limits l(record, {0.05}, 1);
    l.options.plal = row.plal, l.options.ffac = row.ffac;
    std::vector<long> wanted(3, row.parameter);
    l.options.npar = row.npar, l.options.mpar = wanted.data();
    l.out[0].status = LIMIT_FOUND;
    record.ster = unknown.data();
    EXPECT_EQ(znlppli(&record), row.code);
    EXPECT_EQ(l.options.rcod, row.code);
    EXPECT_TRUE(row.message == 0 || logged(row.message)) << row.message;
    EXPECT_EQ(l.options.nrun, 0);
    EXPECT_EQ(l.out[0].status, LIMIT_NOT_SOUGHT);
  }
  // Whatever request is refused, nothing is left behind.
  embed::Task& task = session.task();
  for (long k = 0;; ++k) {
    ASSERT_LT(k, 100);
    TestRecord record(2, QUANEW_DUAL);
    record.f = parabola, record.g = slope_of_parabola;
    record.with_callbacks().at({1, 1});
    Limits l(record, {0.05}, 1);
    const long kept = embed::counters(task).blocks_taken - embed::counters(task).blocks_given;
    embed::plan_fault(task, embed::Fault::allocation, k);
    EXPECT_GT(run_technique(record), 0);
    const bool met = !embed::fault_pending(task, embed::Fault::allocation);
    embed::clear_faults(task);
    EXPECT_EQ(embed::counters(task).blocks_taken - embed::counters(task).blocks_given, kept);
    if (!met) break;
  }
}

}  // namespace
}  // namespace tqnlp::test
