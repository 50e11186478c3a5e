// How fast does an enzyme work? Michaelis-Menten curves V c / (K + c) of the velocity of a reaction
// over the concentration c of its substrate, fitted to published measurements by least squares with
// NLPLM: first to treated cells alone, then to treated and untreated ones together, with weights,
// and last with the bound that the treatment does not raise K.
//
// Usage: enzyme puromycin.csv [FOLDER]     writes enzyme.svg there
//
// Seen: estimates with standard errors, intervals and correlations, the criterion that ended each
// run, and how far the first fit is from the published one. The picture shows measurements, curves
// and the 95 % confidence bands of the curves.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <numbers>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqnlp/tqnlp.hpp"

using tqnlp::Matrix;

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

// The curve at a concentration, and its derivatives by the parameters: V, K and, when there are
// four, what the treatment adds to V and to K.
static double curve(const Matrix& x, bool treated, double c, double* slope) {
  const bool effect = treated && x.cols() == 4;
  const double v = x(0, 0) + (effect ? x(0, 2) : 0.0), k = x(0, 1) + (effect ? x(0, 3) : 0.0);
  slope[0] = c / (k + c);
  slope[1] = -v * c / ((k + c) * (k + c));
  if (x.cols() == 4) {
    slope[2] = effect ? slope[0] : 0.0;
    slope[3] = effect ? slope[1] : 0.0;
  }
  return v * slope[0];
}

// Weighted residuals: their squares have weights, so that they have the roots of these.
static Matrix residuals(const Matrix& x, const Measurements& data) {
  Matrix r(static_cast<long>(data.size()), 1);
  double slope[4];
  for (long i = 0; i < r.rows(); ++i) {
    const Measurement& at = data[static_cast<std::size_t>(i)];
    r(i, 0) = std::sqrt(at.weight) * (curve(x, at.treated, at.concentration, slope) - at.velocity);
  }
  return r;
}

static Matrix jacobian(const Matrix& x, const Measurements& data) {
  Matrix jac(static_cast<long>(data.size()), x.cols());
  double slope[4];
  for (long i = 0; i < jac.rows(); ++i) {
    const Measurement& at = data[static_cast<std::size_t>(i)];
    curve(x, at.treated, at.concentration, slope);
    for (long j = 0; j < x.cols(); ++j) jac(i, j) = std::sqrt(at.weight) * slope[j];
  }
  return jac;
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

// ---- Statistics ---------------------------------------------------------------------------------

// P(|T| <= t) of Student's distribution with a whole number of degrees of freedom: the finite
// series in the angle atan(t / sqrt(df)) (Abramowitz and Stegun 1964, 26.7.3 and 26.7.4).
static double student_probability(double t, long df) {
  const double angle = std::atan(t / std::sqrt(static_cast<double>(df)));
  const double cosine = std::cos(angle), sine = std::sin(angle);
  const bool odd = df % 2 == 1;
  double term = odd ? cosine : 1.0, sum = 0.0;
  for (long k = odd ? 3 : 2; k <= df; k += 2) {
    sum += term;
    term *= cosine * cosine * static_cast<double>(k - 1) / static_cast<double>(k);
  }
  return odd ? 2.0 / std::numbers::pi * (angle + sine * sum) : sine * sum;
}

// t with P(|T| <= t) = 0.95, by bisection.
static double student_quantile(long df) {
  double low = 0.0, high = 100.0;
  for (int i = 0; i < 60; ++i) {
    const double t = 0.5 * (low + high);
    (student_probability(t, df) < 0.95 ? low : high) = t;
  }
  return high;
}

// Inverse of a positive definite matrix, by Gauss-Jordan elimination in place. Rows that are not
// free (a diagonal element of 0) stay out of it.
static void invert(Matrix& a) {
  const long n = a.rows();
  for (long k = 0; k < n; ++k) {
    if (a(k, k) == 0.0) continue;
    const double pivot = 1.0 / a(k, k);
    a(k, k) = 1.0;
    for (long j = 0; j < n; ++j) a(k, j) *= pivot;
    for (long i = 0; i < n; ++i) {
      if (i == k) continue;
      const double factor = a(i, k);
      a(i, k) = 0.0;
      for (long j = 0; j < n; ++j) a(i, j) -= factor * a(k, j);
    }
  }
}

struct Fit {
  double code = 0.0;
  Matrix x;           // estimates
  Matrix gradient;    // of half the sum of squares
  Matrix covariance;  // s^2 (J'J)^-1; rows and columns of parameters on a bound are 0
  double sum = 0.0;   // of squares
  long df = 0;        // measurements less free parameters
  double variance() const { return sum / static_cast<double>(df); }
  bool on_bound(long j) const { return covariance(j, j) == 0.0; }
  double error(long j) const { return std::sqrt(covariance(j, j)); }
};

// Sum of squares, gradient J'r and covariance of the estimates. The covariance is that of the
// linear regression on the columns of J; a parameter on its bound counts as known.
static void assess(Fit& fit, const Measurements& data, const Matrix& blc) {
  const Matrix r = residuals(fit.x, data), jac = jacobian(fit.x, data);
  const long n = fit.x.cols();
  fit.gradient = Matrix(1, n);
  fit.covariance = Matrix(n, n);
  fit.df = r.rows();
  const auto is_free = [&](long j) { return fit.x(0, j) != blc(0, j) && fit.x(0, j) != blc(1, j); };
  for (long j = 0; j < n; ++j) fit.df -= is_free(j);
  for (long i = 0; i < r.rows(); ++i) {
    fit.sum += r(i, 0) * r(i, 0);
    for (long j = 0; j < n; ++j) {
      fit.gradient(0, j) += jac(i, j) * r(i, 0);
      for (long k = 0; k < n; ++k) {
        if (is_free(j) && is_free(k)) fit.covariance(j, k) += jac(i, j) * jac(i, k);
      }
    }
  }
  invert(fit.covariance);
  for (double& element : fit.covariance) element *= fit.variance();
}

// ---- Fits ---------------------------------------------------------------------------------------

static void print_estimates(const Fit& fit) {
  static const char* const NAMES[] = {"V", "K", "effect on V", "effect on K"};
  const double t = student_quantile(fit.df);
  std::printf("\n               estimate   std. error   95 %% interval         correlations\n");
  for (long j = 0; j < fit.x.cols(); ++j) {
    std::printf("  %-11s %10.5g", NAMES[j], fit.x(0, j));
    if (fit.on_bound(j)) {
      std::printf("   on its bound; more of it %s the sum of squares: slope %.4g\n",
                  fit.gradient(0, j) < 0.0 ? "would lower" : "would raise", fit.gradient(0, j));
      continue;
    }
    const double error = fit.error(j);
    std::printf("   %10.4g   %8.4g to %8.4g ", error, fit.x(0, j) - t * error,
                fit.x(0, j) + t * error);
    for (long k = 0; k < j; ++k) {
      std::printf(" %6.3f", fit.covariance(j, k) / (error * fit.error(k)));
    }
    std::printf("\n");
  }
  std::printf("Residual standard deviation %.4f on %ld degrees of freedom, t = %.4f\n",
              std::sqrt(fit.variance()), fit.df, t);
}

// Runs NLPLM and prints what it found.
static Fit fit_curves(tqnlp::Session& tql, const char* title, const Measurements& data,
                      const Matrix& start, const Matrix& blc) {
  tql.module("RESIDUALS", [data](const Matrix& x) { return residuals(x, data); });
  tql.module("JACOBIAN", [data](const Matrix& x) { return jacobian(x, data); });
  // The criteria that stop before the last digits are off or sharp: GCONV, ABSGCONV and FCONV,
  // elements 4, 6 and 7 of tc.
  const double no = tqnlp::missing;
  const Matrix none, opt = {data.size(), 1}, tc = {no, no, no, 1e-25, no, 0, 0};
  const auto results =
      tql.call("NLPLM", {"RESIDUALS", start, opt, blc, tc, none, none, "JACOBIAN"});

  std::printf("\n%s\n\n", title);
  for (const tqnlp::Table& table : tql.tables()) {
    if (table.name == "IterHist") std::printf("%s\n", tqnlp::text_table(table).c_str());
  }
  Fit fit;
  fit.code = results[0](0, 0);
  fit.x = results[1];
  assess(fit, data, blc);
  std::printf("Return code %.0f\n", fit.code);
  for (const tqnlp::LogRecord& line : tql.log()) std::printf("%s\n", line.text.c_str());
  print_estimates(fit);
  return fit;
}

// Does the first fit agree with the published one in every digit of it? Bates and Watts (1988).
static bool agrees_with_publication(const Fit& fit) {
  struct Published {
    const char* name;
    double found, value, digit;
  };
  const Published published[] = {
      {"V", fit.x(0, 0), 212.68, 1e-2},
      {"K", fit.x(0, 1), 0.06412, 1e-5},
      {"residual standard deviation", std::sqrt(fit.variance()), 10.93, 1e-2}};
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
// degree of freedom F is the square of a Student t.
static void test_bound(const Fit& fit, const Fit& bounded) {
  const double f = (bounded.sum - fit.sum) / fit.variance();
  std::printf(
      "\nThe bound raises the sum of squares from %.4f to %.4f: F(1, %ld) = %.3f, P = %.3f\n",
      fit.sum, bounded.sum, fit.df, f, 1.0 - student_probability(std::sqrt(f), fit.df));
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
  const double t = student_quantile(fit.df);
  std::string line, upper, lower;
  for (int i = 0; i <= 240; ++i) {
    const double c = MOST_CONCENTRATION * i / 240;
    double slope[4];
    const double height = curve(fit.x, treated, c, slope);
    double variance = 0.0;
    for (long j = 0; j < fit.x.cols(); ++j) {
      for (long k = 0; k < fit.x.cols(); ++k)
        variance += slope[j] * fit.covariance(j, k) * slope[k];
    }
    const double half = t * std::sqrt(variance);
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
  tqnlp::Session tql;
  const double no = tqnlp::missing;

  // A start by eye: V a little above the largest velocity; half of it is reached near 0.1 ppm.
  const Fit first = fit_curves(tql, "1. Treated cells alone: V and K, neither below 0", treated,
                               {220, 0.1}, {{0, 0}, {no, no}});
  const bool good = agrees_with_publication(first);

  for (Measurement& at : all) at.weight = 1.0 / variance_of_repetitions(all, at.treated);
  std::printf(
      "\nRepeated measurements scatter by %.2f (treated) and %.2f (untreated): weights 1 / "
      "variance.\n",
      std::sqrt(variance_of_repetitions(all, true)),
      std::sqrt(variance_of_repetitions(all, false)));
  const Fit both = fit_curves(tql, "2. All cells: V and K, and what the treatment adds to them",
                              all, {220, 0.1, 0, 0}, {{0, 0, no, no}, {no, no, no, no}});
  std::printf(
      "A value near 1 says that the curves leave no more than repetitions do. Treated cells:\n"
      "V = %.6g and K = %.6g as in 1, since no parameter is common to the groups.\n",
      both.x(0, 0) + both.x(0, 2), both.x(0, 1) + both.x(0, 3));

  const Fit bounded = fit_curves(tql, "3. The same with a bound: the treatment does not raise K",
                                 all, {220, 0.1, 0, 0}, {{0, 0, no, no}, {no, no, no, 0}});
  test_bound(both, bounded);

  const std::string file = std::string(argc > 2 ? argv[2] : ".") + "/enzyme.svg";
  draw(both, all, file);
  std::printf("\nCurves of 2 drawn in %s\n", file.c_str());
  return good && first.code > 0 && both.code > 0 && bounded.code > 0 ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "enzyme: %s\n", error.what());
  return 1;
}
