// How fast does an enzyme work? Michaelis-Menten curves V c / (K + c) of the velocity of a reaction
// over the concentration c of its substrate, fitted to published measurements by least squares:
// first to treated cells alone, then to treated and untreated ones together, with weights, and last
// with the bound that the treatment does not raise K.
//
// Usage: enzyme puromycin.csv [FOLDER]     writes enzyme.svg there
//
// Seen: estimates with standard errors and correlations, their limits by standard errors (Wald) and
// by the profile of the sum of squares, why each run ended, and how far the first fit is from the
// published one. The picture shows measurements, curves and the 95 % confidence bands of the
// curves.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqnlp/optimize.hpp"

using tqnlp::inf;
using tqnlp::Limit;
using tqnlp::Point;
using tqnlp::Problem;
using tqnlp::Values;

// ---- Data and model -----------------------------------------------------------------------------

struct Measurement {
  bool treated;
  double concentration, velocity;
  double weight = 1.0;
};

using Measurements = std::vector<Measurement>;

static Measurements read_measurements(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot open " + file);
  Measurements data;
  for (std::string line; std::getline(in, line);) {
    int treated = 0;
    double concentration = 0.0, velocity = 0.0;
    if (std::sscanf(line.c_str(), "%d,%lf,%lf", &treated, &concentration, &velocity) == 3) {
      data.push_back({treated != 0, concentration, velocity});
    }
  }
  return data;
}

// The curve at a concentration, and its derivatives by the parameters b: V, K and, when there are
// four, what the treatment adds to V and to K.
static double curve(Point b, bool treated, double c, Values slope) {
  const bool effect = treated && b.size() == 4;
  const double v = b[0] + (effect ? b[2] : 0.0), k = b[1] + (effect ? b[3] : 0.0);
  slope[0] = c / (k + c);
  slope[1] = -v * c / ((k + c) * (k + c));
  if (b.size() == 4) {
    slope[2] = effect ? slope[0] : 0.0;
    slope[3] = effect ? slope[1] : 0.0;
  }
  return v * slope[0];
}

// Residuals and their derivatives. The squares have weights, so that residuals have the roots of
// these. V and K of untreated cells are not negative.
static Problem curves(const Measurements& data, const std::vector<double>& most) {
  const std::size_t n = most.size(), m = data.size();
  auto problem = Problem::least_squares(long(n), long(m), [=](Point b, Values residuals) {
    double slope[4];
    for (std::size_t i = 0; i < m; ++i) {
      const double height = curve(b, data[i].treated, data[i].concentration, slope);
      residuals[i] = std::sqrt(data[i].weight) * (height - data[i].velocity);
    }
  });
  problem.jacobian([=](Point b, Values jacobian) {
    for (std::size_t i = 0; i < m; ++i) {
      const Values row = jacobian.subspan(i * n, n);
      curve(b, data[i].treated, data[i].concentration, row);
      for (double& slope : row) slope *= std::sqrt(data[i].weight);
    }
  });
  std::vector<double> least = {0.0, 0.0, -inf, -inf};
  std::vector<std::string> names = {"V", "K", "effect on V", "effect on K"};
  least.resize(n);
  names.resize(n);
  return problem.bounds(least, most).names(names);
}

// Variance of measurements of one group that were repeated at the same concentration, about their
// pair's mean: what the method of measuring scatters, whatever the curve is.
static double variance_of_repetitions(const Measurements& data, bool treated) {
  double sum = 0.0;
  int pairs = 0;
  for (std::size_t i = 1; i < data.size(); ++i) {
    const Measurement &a = data[i - 1], &b = data[i];
    if (a.treated != treated || b.treated != treated || a.concentration != b.concentration)
      continue;
    sum += 0.5 * (a.velocity - b.velocity) * (a.velocity - b.velocity);
    ++pairs;
  }
  return sum / pairs;
}

// ---- Fits ---------------------------------------------------------------------------------------

struct Fit {
  tqnlp::Result result;
  tqnlp::Covariance covariance;
  tqnlp::Limits wald, profile;  // 95 % limits of each parameter
  double sum() const { return 2.0 * result.objective; }
  double deviation() const { return std::sqrt(covariance.residual_variance); }
  // How many standard errors the Wald limits lie from the estimates: the quantile of Student's
  // distribution for the degrees of freedom.
  double student() const { return (wald[0].upper - wald[0].estimate) / covariance.errors[0]; }
};

static void print_limits(const Limit& limit) {
  const auto print = [](double value, Limit::Ending ending) {
    if (ending == Limit::found) {
      std::printf(" %9.4g", value);
    } else {
      std::printf(" %9s", ending == Limit::at_bound ? "bound" : "none");
    }
  };
  print(limit.lower, limit.lower_ending);
  print(limit.upper, limit.upper_ending);
}

static void print_estimates(const Fit& fit) {
  std::printf("\n%-13s%9s%14s%18s%20s%17s\n", "", "estimate", "std. error", "95 % by Wald",
              "95 % by profile", "correlations");
  for (std::size_t j = 0; j < fit.result.x.size(); ++j) {
    std::printf("  %-11s%9.5g", fit.wald[j].name.c_str(), fit.result.x[j]);
    if (fit.covariance.states[j] == tqnlp::Covariance::at_bound) {
      std::printf("%14s", "on its bound");
    } else {
      std::printf("%14.4g", fit.covariance.errors[j]);
    }
    print_limits(fit.wald[j]);
    print_limits(fit.profile[j]);
    for (std::size_t k = 0; k < j && fit.covariance.errors[j] > 0.0; ++k) {
      std::printf("%8.3f", fit.covariance.correlation(long(j), long(k)));
    }
    std::printf("\n");
  }
  std::printf("Residual standard deviation %.4f on %.0f degrees of freedom, t = %.4f\n",
              fit.deviation(), fit.covariance.freedom, fit.student());
}

static Fit fit_curves(const char* title, const Problem& problem, std::vector<double> start) {
  Fit fit;
  fit.result = tqnlp::solve(problem, std::move(start));
  fit.covariance = fit.result.covariance();
  fit.wald = fit.result.limits(0.95, tqnlp::LimitKind::wald);
  fit.profile = fit.result.limits(0.95, tqnlp::LimitKind::profile);
  std::printf("\n%s\n\n%ld iterations. %s\n", title, fit.result.counts.iterations,
              fit.result.status.why());
  print_estimates(fit);
  return fit;
}

// Does the first fit agree with the published one in every digit of it? Bates and Watts (1988).
static bool agrees_with_publication(const Fit& fit) {
  struct Published {
    const char* name;
    double found, value, digit;
  };
  const Published published[] = {{"V", fit.result.x[0], 212.68, 1e-2},
                                 {"K", fit.result.x[1], 0.06412, 1e-5},
                                 {"residual standard deviation", fit.deviation(), 10.93, 1e-2}};
  bool all = true;
  std::printf("\nBeside the publication:\n");
  for (const Published& row : published) {
    const bool good = std::fabs(row.found - row.value) <= 0.5 * row.digit;
    std::printf("  %-28s %11.6g, published %8g: %s\n", row.name, row.found, row.value,
                good ? "agrees in all its digits" : "DIFFERS");
    all = all && good;
  }
  return all;
}

// Is the bound in contradiction to the data? F test of the sum of squares that it adds; with one
// degree of freedom the quantile of F is the square of Student's.
static void test_bound(const Fit& fit, const Fit& bounded) {
  const double f = (bounded.sum() - fit.sum()) / fit.covariance.residual_variance;
  const double quantile = fit.student() * fit.student();
  std::printf(
      "Half the sum of squares falls by %.4g for a unit that the bound is raised.\n"
      "The bound raises the sum of squares from %.4f to %.4f: F(1, %.0f) = %.3f, its 95 %%\n"
      "quantile is %.3f, and the bound %s the data, as the limits by profile in 2 say.\n",
      -bounded.result.multipliers.bounds[3], fit.sum(), bounded.sum(), fit.covariance.freedom, f,
      quantile, f < quantile ? "does not contradict" : "contradicts");
}

// ---- Picture ------------------------------------------------------------------------------------

static constexpr double WIDTH = 720, HEIGHT = 480;
static constexpr double LEFT = 72, RIGHT = 696, TOP = 64, BOTTOM = 420;
static constexpr double MOST_CONCENTRATION = 1.2, MOST_VELOCITY = 250;

static double across(double concentration) {
  return LEFT + (RIGHT - LEFT) * concentration / MOST_CONCENTRATION;
}
static double down(double velocity) { return BOTTOM - (BOTTOM - TOP) * velocity / MOST_VELOCITY; }

static const char* color(bool treated) { return treated ? "#0072b2" : "#d55e00"; }

static void draw_marker(std::ofstream& out, bool treated, double x, double y) {
  if (treated) {
    out << "<circle cx='" << x << "' cy='" << y << "' r='4.5'";
  } else {
    out << "<path d='M" << x << ' ' << y - 5.5 << "l5.5 5.5l-5.5 5.5l-5.5 -5.5z'";
  }
  out << " fill='" << color(treated) << "' stroke='white'/>\n";
}

static void draw_text(std::ofstream& out, double x, double y, const char* style,
                      const std::string& text) {
  out << "<text x='" << x << "' y='" << y << "' " << style << '>' << text << "</text>\n";
}

static void draw_axes(std::ofstream& out) {
  for (int v = 0; v <= 250; v += 50) {
    const double y = down(v);
    out << "<path d='M" << LEFT << ' ' << y << "H" << RIGHT << "' stroke='#e4e4e4'/>\n";
    draw_text(out, LEFT - 9, y + 4.5, "text-anchor='end'", std::to_string(v));
  }
  for (int c = 0; c <= 12; c += 2) {
    const double x = across(0.1 * c);
    out << "<path d='M" << x << ' ' << BOTTOM << "v6' stroke='#444'/>\n";
    const std::string label = std::to_string(c / 10) + '.' + std::to_string(c % 10);
    draw_text(out, x, BOTTOM + 21, "text-anchor='middle'", label);
  }
  out << "<path d='M" << LEFT << ' ' << BOTTOM << "H" << RIGHT << "' stroke='#444'/>\n";
  draw_text(out, (LEFT + RIGHT) / 2, BOTTOM + 46, "text-anchor='middle'",
            "substrate concentration [ppm]");
  draw_text(out, 0, 0, "text-anchor='middle' transform='translate(24 242) rotate(-90)'",
            "velocity [counts/min²]");
  draw_text(out, LEFT, 28, "font-size='17' font-weight='bold'",
            "An enzyme's velocity, with and without puromycin");
  draw_text(out, LEFT, 47, "fill='#555'",
            "Measurements, Michaelis-Menten curves and 95 % confidence bands of the curves");
}

// The curve of a group and its band: t times the standard error of the curve's height, which is the
// root of slope' C slope.
static void draw_curve(std::ofstream& out, const Fit& fit, bool treated) {
  const std::size_t n = fit.result.x.size();
  std::string line, upper, lower;
  for (int i = 0; i <= 240; ++i) {
    const double c = MOST_CONCENTRATION * i / 240;
    double slope[4];
    const double height = curve(fit.result.x, treated, c, slope);
    double variance = 0.0;
    for (std::size_t j = 0; j < n; ++j) {
      for (std::size_t k = 0; k < n; ++k)
        variance += slope[j] * fit.covariance(long(j), long(k)) * slope[k];
    }
    const double half = fit.student() * std::sqrt(variance);
    const auto point = [c](double v) {
      return std::to_string(across(c)) + ' ' + std::to_string(down(v)) + ' ';
    };
    line += point(height);
    upper += point(height + half);
    lower = point(height - half) + lower;
  }
  out << "<polygon points='" << upper << lower << "' fill='" << color(treated)
      << "' opacity='0.14'/>\n"
      << "<polyline points='" << line << "' fill='none' stroke='" << color(treated)
      << "' stroke-width='2'/>\n";
}

static void draw(const Fit& fit, const Measurements& data, const std::string& file) {
  std::ofstream out(file);
  out << "<svg xmlns='http://www.w3.org/2000/svg' width='" << WIDTH << "' height='" << HEIGHT
      << "' viewBox='0 0 " << WIDTH << ' ' << HEIGHT
      << "' font-family='Helvetica, Arial, DejaVu Sans, sans-serif' font-size='13' fill='#222'>\n"
      << "<rect width='100%' height='100%' fill='white'/>\n";
  draw_axes(out);
  for (const bool treated : {true, false}) draw_curve(out, fit, treated);
  for (const Measurement& at : data) {
    draw_marker(out, at.treated, across(at.concentration), down(at.velocity));
  }
  for (const bool treated : {true, false}) {
    const double y = treated ? 352 : 378;
    out << "<path d='M526 " << y << "h36' stroke='" << color(treated) << "' stroke-width='2'/>\n";
    draw_marker(out, treated, 544, y);
    draw_text(out, 572, y + 4.5, "", treated ? "treated cells" : "untreated cells");
  }
  out << "</svg>\n";
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

int main(int argc, char** argv) try {
  if (argc != 2 && argc != 3) throw std::runtime_error("usage: enzyme puromycin.csv [FOLDER]");
  Measurements all = read_measurements(argv[1]), treated;
  std::copy_if(all.begin(), all.end(), std::back_inserter(treated),
               [](const Measurement& at) { return at.treated; });

  // A start by eye: V a little above the largest velocity; half of it is reached near 0.1 ppm.
  const Fit first = fit_curves("1. Treated cells alone: V and K, neither below 0",
                               curves(treated, {inf, inf}), {220, 0.1});
  const bool agrees = agrees_with_publication(first);

  const double scatter[] = {variance_of_repetitions(all, false),
                            variance_of_repetitions(all, true)};
  for (Measurement& at : all) at.weight = 1.0 / scatter[at.treated];
  std::printf(
      "\nRepeated measurements scatter by %.2f (treated) and %.2f (untreated): weights 1 / "
      "variance.\n",
      std::sqrt(scatter[1]), std::sqrt(scatter[0]));
  const Fit both = fit_curves("2. All cells: V and K, and what the treatment adds to them",
                              curves(all, {inf, inf, inf, inf}), {220, 0.1, 0, 0});
  const std::vector<double>& b = both.result.x;
  std::printf(
      "A deviation near 1 says that the curves leave no more than repetitions do. Treated cells:\n"
      "V = %.6g and K = %.6g as in 1, since no parameter is common to the groups.\n",
      b[0] + b[2], b[1] + b[3]);

  const Fit bounded = fit_curves("3. The same with a bound: the treatment does not raise K",
                                 curves(all, {inf, inf, inf, 0}), {220, 0.1, 0, 0});
  test_bound(both, bounded);

  const std::string file = std::string(argc > 2 ? argv[2] : ".") + "/enzyme.svg";
  draw(both, all, file);
  std::printf("\nCurves of 2 drawn in %s\n", file.c_str());
  const auto good = [](const Fit& fit) { return fit.result.optimality && fit.covariance; };
  return agrees && good(first) && good(both) && good(bounded) ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "enzyme: %s\n", error.what());
  return 1;
}
