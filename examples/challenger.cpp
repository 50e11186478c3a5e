// Did cold make the shuttle's O-rings fail? Logistic regression of joint distress on temperature
// for the 23 launches before January 1986, by maximum likelihood with NLPNRR.
//
// Usage: challenger challenger.csv
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "tqnlp/tqnlp.hpp"

using tqnlp::Matrix;

struct Launch {
  double temperature;  // degrees F
  double distress;     // 0 or 1
};

static std::vector<Launch> read_launches(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot open " + file);
  std::vector<Launch> launches;
  for (std::string line; std::getline(in, line);) {
    Launch launch{};
    if (std::sscanf(line.c_str(), "%lf,%lf", &launch.temperature, &launch.distress) == 2) {
      launches.push_back(launch);
    }
  }
  return launches;
}

// Probability of distress at a temperature, for intercept x(0) and slope x(1).
static double probability(const Matrix& x, double temperature) {
  return 1.0 / (1.0 + std::exp(-(x(0, 0) + x(0, 1) * temperature)));
}

static void define_modules(tqnlp::Session& tql, const std::vector<Launch>& launches) {
  tql.module("LOGLIK", [launches](const Matrix& x) {
    double sum = 0.0;
    for (const Launch& launch : launches) {
      const double eta = x(0, 0) + x(0, 1) * launch.temperature;
      // log(1 + exp(eta)) without overflow for a large eta
      sum += launch.distress * eta - (eta > 0 ? eta + std::log1p(std::exp(-eta))  //
                                              : std::log1p(std::exp(eta)));
    }
    return Matrix::scalar(sum);
  });
  tql.module("SCORE", [launches](const Matrix& x) {
    Matrix g(1, 2);
    for (const Launch& launch : launches) {
      const double residual = launch.distress - probability(x, launch.temperature);
      g(0, 0) += residual;
      g(0, 1) += residual * launch.temperature;
    }
    return g;
  });
  tql.module("CURVATURE", [launches](const Matrix& x) {
    Matrix h(2, 2);
    for (const Launch& launch : launches) {
      const double p = probability(x, launch.temperature);
      const double weight = p * (1.0 - p);
      h(0, 0) -= weight;
      h(0, 1) -= weight * launch.temperature;
      h(1, 1) -= weight * launch.temperature * launch.temperature;
    }
    h(1, 0) = h(0, 1);
    return h;
  });
}

// Runs NLPNRR, prints its report and the fitted risk, and returns the exit code of the example.
static int fit(tqnlp::Session& tql, const char* title, const Matrix& start, const Matrix& blc) {
  const Matrix opt = Matrix::row({1, 2});  // maximize; history and estimates
  const Matrix none;
  const auto results =
      tql.call("NLPNRR", {"LOGLIK", start, opt, blc, none, none, none, "SCORE", "CURVATURE"});
  std::printf("\n%s\n\n%s", title, tqnlp::text_report(tql).c_str());

  const double code = results[0](0, 0);
  const Matrix& x = results[1];
  std::printf("\nReturn code %.0f: intercept %.7f, slope %.7f\n", code, x(0, 0), x(0, 1));
  std::printf("Probability of distress: %.3f at 75 F, %.3f at 53 F, %.3f at 31 F\n",
              probability(x, 75), probability(x, 53), probability(x, 31));
  return code > 0 ? 0 : 1;
}

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: challenger challenger.csv");
  tqnlp::Session tql;
  define_modules(tql, read_launches(argv[1]));

  const int plain = fit(tql, "1. Maximum likelihood", Matrix::row({0, 0}), Matrix());

  // The slope lies in [-0.15, 0], and at 81 F (the warmest launch) the odds of distress are at most
  // 1 to 9. The start (0, 0.5) breaks both.
  const double none = tqnlp::missing;
  const Matrix blc(3, 4,
                   {none, -0.15, none, none,  // lower bounds
                    none, 0.00, none, none,   // upper bounds
                    1, 81, -1, -std::log(9.0)});
  const int bounded = fit(tql, "2. With bounds and a linear constraint, from an infeasible start",
                          Matrix::row({0, 0.5}), blc);
  return plain + bounded;
} catch (const std::exception& error) {
  std::fprintf(stderr, "challenger: %s\n", error.what());
  return 1;
}
