// How long does a ball bearing live? The Weibull distribution of the lives of 23 bearings by
// maximum likelihood, without derivatives, and how well the lives determine its two parameters:
// standard errors, and 95 % limits of two kinds. Wald limits are as far below the estimate as
// above, as if the log-likelihood were a parabola; profile limits follow the log-likelihood itself.
//
// Usage: bearings bearings.csv
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <stdexcept>
#include <string>
#include <vector>

#include "tqnlp/optimize.hpp"

static std::vector<double> read_lives(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot open " + file);
  std::vector<double> lives;
  for (std::string line; std::getline(in, line);) {
    double life = 0.0;
    if (std::sscanf(line.c_str(), "%lf", &life) == 1) lives.push_back(life);
  }
  return lives;
}

static double log_likelihood(double shape, double scale, const std::vector<double>& lives) {
  double sum = 0.0;
  for (double life : lives) {
    const double ratio = std::log(life / scale);
    sum += std::log(shape / scale) + (shape - 1.0) * ratio - std::exp(shape * ratio);
  }
  return sum;
}

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: bearings bearings.csv");
  const std::vector<double> lives = read_lives(argv[1]);
  auto weibull = tqnlp::Problem::maximize(
      2, [&](tqnlp::Point x) { return log_likelihood(x[0], x[1], lives); });
  weibull.names({"shape", "scale"}).bounds({1e-6, 1e-6}, {tqnlp::inf, tqnlp::inf});

  // A start by common sense: lives are spread about their mean with no memory (shape 1).
  const double mean = std::accumulate(lives.begin(), lives.end(), 0.0) / double(lives.size());
  const tqnlp::Result fit = tqnlp::solve(weibull, {1.0, mean});
  std::printf("Lives of %zu ball bearings, Weibull distribution\n\n%s\nLog-likelihood %.5f\n\n",
              lives.size(), fit.status.why(), fit.objective);

  const tqnlp::Covariance covariance = fit.covariance();
  const tqnlp::Limits wald = fit.limits(0.95, tqnlp::LimitKind::wald);
  const tqnlp::Limits profile = fit.limits(0.95);
  std::printf("        estimate  std. error   95 %% by Wald      95 %% by profile\n");
  for (std::size_t j = 0; j < 2; ++j) {
    std::printf("%s %10.4f %11.4f   %6.3f to %6.3f   %6.3f to %6.3f\n", profile[j].name.c_str(),
                fit.x[j], covariance.errors[j], wald[j].lower, wald[j].upper, profile[j].lower,
                profile[j].upper);
  }
  std::printf("Correlation of the estimates %.3f\n", covariance.correlation(0, 1));
  return fit.optimality && covariance ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "bearings: %s\n", error.what());
  return 1;
}
