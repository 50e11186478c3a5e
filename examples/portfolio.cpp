// Which portfolio has the least risk for a wanted return? Six classes of assets, their shares not
// negative and adding up to 1: the variance of the return is a quadratic in the shares, the mean is
// linear, and a quadratic program finds the least variance for each mean, the frontier of Markowitz
// (1952). The other way round, the most return for a risk, is linear with a nonlinear constraint.
//
// Usage: portfolio returns.csv [FOLDER]     writes portfolio.svg there
//
// Seen: the portfolios along the frontier and, for each, the price of return: the multiplier of the
// wanted mean says how much variance a little more of it costs. It is checked against the
// neighbouring portfolios. Then the portfolio of the largest mean for each of three limits on the
// risk, which must lie on the frontier and have the same price. The picture shows the frontier, the
// classes alone, and the shares along the frontier.
//
// The returns are made up: three years of months, in percent.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqnlp/optimize.hpp"

using tqnlp::inf;
using tqnlp::Point;
using tqnlp::Problem;
using tqnlp::Values;

// ---- Data ---------------------------------------------------------------------------------------

constexpr std::size_t CLASSES = 6;
static const char* const NAMES[CLASSES] = {"bills",           "bonds",    "large companies",
                                           "small companies", "property", "gold"};
static const char* const COLORS[CLASSES] = {"#9aa5b1", "#5b8db8", "#2f6b4f",
                                            "#79b791", "#c98a3b", "#e3c34a"};

struct Market {
  std::vector<double> mean = std::vector<double>(CLASSES);
  std::vector<double> covariance = std::vector<double>(CLASSES * CLASSES);  // by rows

  double mean_of(Point shares) const {
    return std::inner_product(shares.begin(), shares.end(), mean.begin(), 0.0);
  }
  // Covariances of each class with the portfolio: half the slope of its variance.
  void covariances_with(Point shares, Values c) const {
    for (std::size_t i = 0; i < CLASSES; ++i) {
      const auto row = covariance.begin() + long(i * CLASSES);
      c[i] = std::inner_product(shares.begin(), shares.end(), row, 0.0);
    }
  }
  double variance_of(Point shares) const {
    double c[CLASSES];
    covariances_with(shares, c);
    return std::inner_product(shares.begin(), shares.end(), c, 0.0);
  }
};

using Month = std::array<double, CLASSES>;

static std::vector<Month> read_returns(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot open " + file);
  std::vector<Month> months;
  for (std::string line; std::getline(in, line);) {
    std::replace(line.begin(), line.end(), ',', ' ');
    std::istringstream cells(line);
    Month month;
    bool numbers = true;
    for (double& cell : month) numbers = numbers && cells >> cell;
    if (numbers) months.push_back(month);
  }
  return months;
}

static Market measure_market(const std::vector<Month>& returns) {
  Market market;
  const auto months = static_cast<double>(returns.size());
  for (const Month& month : returns) {
    for (std::size_t i = 0; i < CLASSES; ++i) market.mean[i] += month[i] / months;
  }
  for (const Month& month : returns) {
    for (std::size_t i = 0; i < CLASSES; ++i) {
      for (std::size_t j = 0; j < CLASSES; ++j) {
        const double product = (month[i] - market.mean[i]) * (month[j] - market.mean[j]);
        market.covariance[i * CLASSES + j] += product / (months - 1.0);
      }
    }
  }
  return market;
}

// ---- The frontier -------------------------------------------------------------------------------

struct Portfolio {
  std::vector<double> shares;
  double mean = 0.0, variance = 0.0;
  double price = 0.0;  // of return: variance for one more unit of mean
  double risk() const { return std::sqrt(variance); }
};

// From equal shares. The shares are not negative, and the portfolio is all there is.
static tqnlp::Result best_shares(Problem problem) {
  problem.bounds(std::vector<double>(CLASSES, 0.0), std::vector<double>(CLASSES, inf))
      .linear(std::vector<double>(CLASSES, 1.0), 1.0, 1.0, "whole")
      .names({std::begin(NAMES), std::end(NAMES)});
  auto found = tqnlp::solve(problem, std::vector<double>(CLASSES, 1.0 / CLASSES));
  if (!found.optimality) throw std::runtime_error("no portfolio: " + found.optimality.sentence());
  return found;
}

// Least variance among the portfolios with at least this mean.
static Portfolio least_variance(const Market& market, double mean) {
  std::vector<double> twice = market.covariance;  // a quadratic is x'Hx / 2
  for (double& element : twice) element *= 2.0;
  auto problem = Problem::quadratic({CLASSES, twice});
  problem.linear(market.mean, mean, inf, "wanted mean");
  const auto found = best_shares(problem);
  return {found.x, market.mean_of(found.x), found.objective, found.multipliers.linear[0]};
}

// From the least variance of all to the largest mean, in equal steps of the mean. At the ends there
// is no price: the first needs no wanted mean, and no mean is above the last.
static std::vector<Portfolio> frontier(const Market& market, int steps) {
  std::vector<Portfolio> along = {least_variance(market, -inf)};
  const double first = along[0].mean;
  const double last = *std::max_element(market.mean.begin(), market.mean.end());
  for (int i = 1; i <= steps; ++i) {
    along.push_back(least_variance(market, first + (last - first) * i / steps));
  }
  along.back().price = 0.0;
  return along;
}

static void print_portfolio(const Portfolio& p) {
  std::printf("%7.3f %7.3f ", p.mean, p.risk());
  if (p.price > 0.0) {
    std::printf("%9.3f ", p.price);
  } else {
    std::printf("     none ");
  }
  for (double share : p.shares) std::printf(" %6.1f", 100.0 * std::fabs(share));
  std::printf("\n");
}

static void print_heading(const char* title) {
  std::printf("\n%s\n\n   mean    risk     price   shares in percent:", title);
  for (const char* name : NAMES)
    std::printf(" %s%s", name, name == NAMES[CLASSES - 1] ? "\n" : ",");
}

// The price of return is the slope of the variance along the frontier. It rises, and lies between
// the slopes to the neighbours on both sides.
static bool prices_agree(const std::vector<Portfolio>& along) {
  bool good = true;
  for (std::size_t i = 1; i + 1 < along.size(); ++i) {
    const auto slope = [&](std::size_t k) {
      return (along[k + 1].variance - along[k].variance) / (along[k + 1].mean - along[k].mean);
    };
    good = good && along[i].price >= slope(i - 1) - 1e-9 && along[i].price <= slope(i) + 1e-9;
  }
  std::printf("\nPrices between the slopes to the neighbours: %s\n", good ? "all" : "NOT ALL");
  return good;
}

// ---- The most return for a risk -----------------------------------------------------------------

// The largest mean among the portfolios with at most this risk. The multiplier of the variance is
// the mean that one more unit of it buys.
static Portfolio most_return(const Market& market, double limit) {
  auto problem = Problem::maximize(CLASSES, [&](Point shares) { return market.mean_of(shares); });
  problem
      .gradient([&](Point, Values slope) {
        std::copy(market.mean.begin(), market.mean.end(), slope.begin());
      })
      .nonlinear({-inf}, {limit * limit},
                 [&](Point shares, Values variance) { variance[0] = market.variance_of(shares); })
      .nonlinear_jacobian([&](Point shares, Values slope) {
        market.covariances_with(shares, slope);
        for (double& element : slope) element *= 2.0;
      });
  const auto found = best_shares(problem);
  return {found.x, found.objective, found.constraints[0], 1.0 / found.multipliers.nonlinear[0]};
}

// Both ways lead to the same portfolio: the least variance for the mean that was found.
static bool lies_on_the_frontier(const Market& market, const Portfolio& p) {
  const Portfolio least = least_variance(market, p.mean);
  return std::fabs(least.variance - p.variance) <= 1e-6 * p.variance &&
         std::fabs(least.price - p.price) <= 1e-4 * p.price;
}

static std::vector<Portfolio> limited_portfolios(const Market& market, bool* good) {
  std::vector<Portfolio> limited;
  print_heading("The largest mean for a risk of 0.5, 1 and 2 percent");
  for (const double limit : {0.5, 1.0, 2.0}) {
    const Portfolio p = most_return(market, limit);
    print_portfolio(p);
    std::printf("        one more hundredth of risk buys %.4f more mean\n",
                0.01 * 2.0 * p.risk() / p.price);
    *good = *good && lies_on_the_frontier(market, p);
    limited.push_back(p);
  }
  std::printf("\nOn the frontier, at the same price: %s\n", *good ? "all" : "NOT ALL");
  return limited;
}

// ---- Picture ------------------------------------------------------------------------------------

constexpr double WIDTH = 740, HEIGHT = 620, LEFT = 70, RIGHT = 690, TOP = 70, MIDDLE = 400;
constexpr double SHARES_TOP = 450, SHARES_BOTTOM = 580, MOST_RISK = 6.0;

static double across(double risk) { return LEFT + (RIGHT - LEFT) * risk / MOST_RISK; }
static double down(double mean, double most) { return MIDDLE - (MIDDLE - TOP) * mean / most; }

static void draw_text(std::ofstream& out, double x, double y, const std::string& style,
                      const std::string& text) {
  out << "<text x='" << x << "' y='" << y << "' " << style << ">" << text << "</text>\n";
}

static void draw_axes(std::ofstream& out, double most) {
  out << "<path d='M" << LEFT << ' ' << TOP << "V" << MIDDLE << "H" << RIGHT
      << "' fill='none' stroke='#222'/>\n";
  for (int risk = 0; risk <= MOST_RISK; ++risk) {
    draw_text(out, across(risk), MIDDLE + 18, "text-anchor='middle'", std::to_string(risk));
  }
  for (double mean = 0.0; mean < most; mean += 0.5) {
    char label[16];
    std::snprintf(label, sizeof label, "%.1f", mean);
    draw_text(out, LEFT - 8, down(mean, most) + 4, "text-anchor='end'", label);
  }
  draw_text(out, (LEFT + RIGHT) / 2, MIDDLE + 36, "text-anchor='middle'",
            "risk: standard deviation of the monthly return [percent]");
  draw_text(out, 0, 0, "text-anchor='middle' transform='translate(24 235) rotate(-90)'",
            "mean monthly return [percent]");
  draw_text(out, LEFT, 30, "font-size='17' font-weight='bold'", "The least risk for a return");
  draw_text(out, LEFT, 50, "fill='#555'",
            "The frontier, the classes alone, and the shares along the frontier");
}

// The shares of each class over the risk of the portfolio, one band on the other.
static void draw_shares(std::ofstream& out, const std::vector<Portfolio>& along) {
  std::vector<double> below(along.size(), 0.0);
  for (std::size_t j = 0; j < CLASSES; ++j) {
    std::string upper, lower;
    for (std::size_t i = 0; i < along.size(); ++i) {
      const auto point = [&](double share) {
        const double y = SHARES_BOTTOM - (SHARES_BOTTOM - SHARES_TOP) * share;
        return std::to_string(across(along[i].risk())) + ' ' + std::to_string(y) + ' ';
      };
      lower = point(below[i]) + lower;
      below[i] += along[i].shares[j];
      upper += point(below[i]);
    }
    out << "<polygon points='" << upper << lower << "' fill='" << COLORS[j] << "'/>\n";
  }
  draw_text(out, LEFT - 8, SHARES_TOP + 10, "text-anchor='end'", "100 %");
  draw_text(out, LEFT - 8, SHARES_BOTTOM, "text-anchor='end'", "0 %");
  draw_text(out, (LEFT + RIGHT) / 2, SHARES_BOTTOM + 22, "text-anchor='middle'",
            "shares of the portfolio on the frontier above, in the colors of their classes");
}

static void draw(const Market& market, const std::vector<Portfolio>& along,
                 const std::vector<Portfolio>& limited, const std::string& file) {
  const double most = 1.15 * *std::max_element(market.mean.begin(), market.mean.end());
  std::ofstream out(file);
  out << "<svg xmlns='http://www.w3.org/2000/svg' width='" << WIDTH << "' height='" << HEIGHT
      << "' viewBox='0 0 " << WIDTH << ' ' << HEIGHT
      << "' font-family='Helvetica, Arial, DejaVu Sans, sans-serif' font-size='13' fill='#222'>\n"
      << "<rect width='100%' height='100%' fill='white'/>\n";
  draw_axes(out, most);
  out << "<polyline fill='none' stroke='#b03a2e' stroke-width='2' points='";
  for (const Portfolio& p : along) out << across(p.risk()) << ' ' << down(p.mean, most) << ' ';
  out << "'/>\n";
  for (const Portfolio& p : limited) {
    out << "<circle cx='" << across(p.risk()) << "' cy='" << down(p.mean, most)
        << "' r='5' fill='white' stroke='#b03a2e' stroke-width='2'/>\n";
  }
  for (std::size_t j = 0; j < CLASSES; ++j) {
    const double x = across(std::sqrt(market.covariance[j * CLASSES + j])),
                 y = down(market.mean[j], most);
    out << "<circle cx='" << x << "' cy='" << y << "' r='5' fill='" << COLORS[j] << "'/>\n";
    const std::string name = NAMES[j];
    if (name == "bills") {
      draw_text(out, x + 10, y + 4, "", name);  // off the axis
    } else if (name == "property") {
      draw_text(out, x - 4, y + 20, "text-anchor='end'", name);  // off its neighbour on the right
    } else {
      draw_text(out, x, y + 20, "text-anchor='middle'", name);
    }
  }
  draw_shares(out, along);
  out << "</svg>\n";
  if (!out.flush()) throw std::runtime_error("cannot write " + file);
}

int main(int argc, char** argv) try {
  if (argc < 2 || argc > 3) throw std::runtime_error("usage: portfolio returns.csv [FOLDER]");
  const Market market = measure_market(read_returns(argv[1]));
  const std::vector<Portfolio> along = frontier(market, 60);
  print_heading("The least risk for a mean");
  for (std::size_t i = 0; i < along.size(); i += 6) print_portfolio(along[i]);
  bool good = prices_agree(along);
  const std::vector<Portfolio> limited = limited_portfolios(market, &good);
  const std::string file = std::string(argc > 2 ? argv[2] : ".") + "/portfolio.svg";
  draw(market, along, limited, file);
  std::printf("\nFrontier drawn in %s\n", file.c_str());
  return good ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "portfolio: %s\n", error.what());
  return 1;
}
