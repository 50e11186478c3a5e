// Distribution functions and quantiles.
//
// Incomplete beta and gamma functions by series and continued fractions; quantiles by Newton's
// method on them. A tail probability is nearly a power of the argument, or falls even faster, so
// that its logarithm as a function of log x is nearly straight or bent one way: Newton converges
// there from anywhere, and small probabilities keep all their digits.
//
// Reference  Hastings (1955), Approximations for Digital Computers, for the start of the normal
//            quantile; Wilson and Hilferty (1931), PNAS 17, for that of chi-square; Lentz (1976),
//            Applied Optics 15, for continued fractions
#include "kernels/distributions.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "aasubs/record/constants.h"

namespace tqnlp {

static constexpr double INFINITE = std::numeric_limits<double>::infinity();
static constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
static constexpr int MOST_TERMS = 10000;

// ---- Incomplete beta function -------------------------------------------------------------------

// A partial denominator may come out as zero by chance, and the next one divides by it.
static double away_from_zero(double value) { return std::fabs(value) < TINY ? TINY : value; }

// Continued fraction of the incomplete beta function (Abramowitz and Stegun 26.5.8), by Lentz. Good
// for x below (a + 1) / (a + b + 2).
static double beta_fraction(double a, double b, double x) {
  double c = 1.0;
  double d = 1.0 / away_from_zero(1.0 - (a + b) * x / (a + 1.0));
  double value = d;
  for (int i = 1; i <= MOST_TERMS; ++i) {
    const double m = i;
    const double even = m * (b - m) * x / ((a + 2.0 * m - 1.0) * (a + 2.0 * m));
    d = 1.0 / away_from_zero(1.0 + even * d);
    c = away_from_zero(1.0 + even / c);
    value *= c * d;
    const double odd = -(a + m) * (a + b + m) * x / ((a + 2.0 * m) * (a + 2.0 * m + 1.0));
    d = 1.0 / away_from_zero(1.0 + odd * d);
    c = away_from_zero(1.0 + odd / c);
    const double factor = c * d;
    value *= factor;
    if (!(std::fabs(factor - 1.0) > 4.0 * EPS)) break;
  }
  return value;
}

// By symmetry the fraction is only used where it converges fast; the front is formed from
// logarithms, as the gamma functions of large degrees of freedom overflow.
double zbetai(double a, double b, double x) {
  if (x <= 0.0) return 0.0;
  if (x >= 1.0) return 1.0;
  const double front = std::exp(std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b) +
                                a * std::log(x) + b * std::log1p(-x));
  if (x < (a + 1.0) / (a + b + 2.0)) return front * beta_fraction(a, b, x) / a;
  return 1.0 - front * beta_fraction(b, a, 1.0 - x) / b;
}

// ---- Incomplete gamma functions -----------------------------------------------------------------

// x^a e^-x / Gamma(a)
static double gamma_front(double a, double x) {
  return std::exp(a * std::log(x) - x - std::lgamma(a));
}

// P by its power series, which converges fast for x below a + 1.
static double gamma_series(double a, double x) {
  double term = 1.0 / a;
  double sum = term;
  for (int i = 1; i <= MOST_TERMS && term > EPS * sum; ++i) {
    term *= x / (a + i);
    sum += term;
  }
  return sum * gamma_front(a, x);
}

// Q by its continued fraction (Abramowitz and Stegun 6.5.31, contracted), for x above a + 1.
static double gamma_fraction(double a, double x) {
  double b = x + 1.0 - a;
  double c = HUGE_VALUE;
  double d = 1.0 / away_from_zero(b);
  double value = d;
  for (int i = 1; i <= MOST_TERMS; ++i) {
    const double numerator = -i * (i - a);
    b += 2.0;
    d = 1.0 / away_from_zero(numerator * d + b);
    c = away_from_zero(b + numerator / c);
    value *= c * d;
    if (!(std::fabs(c * d - 1.0) > 4.0 * EPS)) break;
  }
  return value * gamma_front(a, x);
}

double zgammap(double a, double x) {
  if (!(x > 0.0)) return std::isnan(x) ? x : 0.0;
  return x < a + 1.0 ? gamma_series(a, x) : 1.0 - gamma_fraction(a, x);
}

double zgammaq(double a, double x) {
  if (!(x > 0.0)) return std::isnan(x) ? x : 1.0;
  return x < a + 1.0 ? 1.0 - gamma_series(a, x) : gamma_fraction(a, x);
}

// ---- Quantiles ----------------------------------------------------------------------------------

// The upper tail q <= 1/2 of the normal distribution: the approximation is good to 4.5e-4, and each
// of Halley's steps triples the digits.
static double normal_beyond(double q) {
  static const double ROOT_TWO = std::sqrt(2.0);
  static const double ROOT_TWO_PI = std::sqrt(2.0 * std::acos(-1.0));
  const double t = std::sqrt(-2.0 * std::log(q));
  double x = t - (2.515517 + t * (0.802853 + t * 0.010328)) /
                     (1.0 + t * (1.432788 + t * (0.189269 + t * 0.001308)));
  for (int i = 0; i < 3; ++i) {
    const double density = std::exp(-0.5 * x * x) / ROOT_TWO_PI;
    if (!(density > 0.0)) break;
    const double u = (0.5 * std::erfc(x / ROOT_TWO) - q) / density;
    x += u / (1.0 + 0.5 * x * u);
  }
  return x;
}

double zprobit(double p) {
  if (!(p >= 0.0 && p <= 1.0)) return NOT_A_NUMBER;
  if (p == 0.0 || p == 1.0) return p == 0.0 ? -INFINITE : INFINITE;
  return p <= 0.5 ? -normal_beyond(p) : normal_beyond(1.0 - p);
}

// The x > 0 where a probability, monotone in x, has the value p. tail(x, &density) returns the
// probability and the modulus of its derivative; rising tells its direction. Newton in logarithms,
// and bisection where that leaves what is known to bracket the solution.
template <class Tail>
static double solve_tail(Tail tail, double p, bool rising, double start) {
  double low = std::log(TINY);
  double high = std::log(HUGE_VALUE);
  double w = std::clamp(std::log(start), low, high);
  for (int i = 0; i < 200; ++i) {
    const double x = std::exp(w);
    double density = 0.0;
    const double probability = tail(x, &density);
    ((probability > p) == rising ? high : low) = w;
    const double slope = (rising ? 1.0 : -1.0) * x * density / probability;
    double next = w - (std::log(probability) - std::log(p)) / slope;
    if (!(next > low && next < high)) next = 0.5 * (low + high);
    const double change = std::fabs(next - w);
    w = next;
    if (change <= 2.0 * EPS * std::max(1.0, std::fabs(w))) break;
  }
  return std::exp(w);
}

double zqc(double p, double df) {
  if (!(p >= 0.0 && p <= 1.0 && df > 0.0)) return NOT_A_NUMBER;
  if (p == 0.0 || p == 1.0) return p == 0.0 ? 0.0 : INFINITE;
  if (df == 1.0 && p > 0.1) {  // the square of a normal variable; further down digits would go
    const double z = normal_beyond(0.5 * (1.0 - p));
    return z * z;
  }
  const double a = 0.5 * df;
  const double spread = 2.0 / (9.0 * df);
  const double cube = 1.0 - spread + zprobit(p) * std::sqrt(spread);
  // Far down, P(x) = x^a / Gamma(a + 1).
  const double start =
      cube > 0.1 ? a * cube * cube * cube : std::exp((std::log(p) + std::lgamma(a + 1.0)) / a);
  const bool rising = p <= 0.5;
  const auto tail = [=](double x, double* density) {
    *density = gamma_front(a, x) / x;
    return rising ? zgammap(a, x) : zgammaq(a, x);
  };
  return 2.0 * solve_tail(tail, rising ? p : 1.0 - p, rising, std::max(start, TINY));
}

// P(T > x) for far points, P(0 < T < x) for near ones: each keeps its digits where it is used.
static double student_beyond(double q, double df) {
  const bool far = q < 0.25;
  const double front = std::exp(std::lgamma(0.5 * df + 0.5) - std::lgamma(0.5 * df)) /
                       std::sqrt(df * std::acos(-1.0));
  const auto tail = [=](double x, double* density) {
    *density = front * std::exp(-0.5 * (df + 1.0) * std::log1p(x * x / df));
    const double ratio = x * x / df;
    return far ? 0.5 * zbetai(0.5 * df, 0.5, 1.0 / (1.0 + ratio))
               : 0.5 * zbetai(0.5, 0.5 * df, ratio / (1.0 + ratio));
  };
  return solve_tail(tail, far ? q : 0.5 - q, !far, std::max(normal_beyond(q), 1e-3));
}

double zqt(double p, double df) {
  if (!(p >= 0.0 && p <= 1.0 && df > 0.0)) return NOT_A_NUMBER;
  if (p == 0.0 || p == 1.0) return p == 0.0 ? -INFINITE : INFINITE;
  if (p == 0.5) return 0.0;
  return p < 0.5 ? -student_beyond(p, df) : student_beyond(1.0 - p, df);
}

}  // namespace tqnlp
