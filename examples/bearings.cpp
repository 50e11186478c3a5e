// How long does a ball bearing live? Weibull distribution of the lives of 23 bearings, by maximum
// likelihood with NLPQN and no derivative modules; standard errors from the Hessian by NLPFDD. The
// report is printed while the run makes it.
//
// Usage: bearings bearings.csv
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "tqnlp/tqnlp.hpp"

using tqnlp::Matrix;

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

// Log-likelihood of shape x(0) and scale x(1).
static double log_likelihood(const Matrix& x, const std::vector<double>& lives) {
  const double shape = x(0, 0), scale = x(0, 1);
  double sum = 0.0;
  for (double life : lives) {
    const double ratio = std::log(life / scale);
    sum += std::log(shape / scale) + (shape - 1.0) * ratio - std::exp(shape * ratio);
  }
  return sum;
}

// Standard errors from the Hessian of the log-likelihood: roots of the diagonal of -H^-1.
static void print_estimates(const Matrix& x, const Matrix& h) {
  const double determinant = h(0, 0) * h(1, 1) - h(0, 1) * h(1, 0);
  const double variance[2] = {-h(1, 1) / determinant, -h(0, 0) / determinant};
  const char* names[2] = {"shape", "scale"};
  std::printf("\n           estimate   std. error   95 %% interval\n");
  for (long j = 0; j < 2; ++j) {
    const double error = std::sqrt(variance[j]);
    std::printf("  %-7s %10.5f %12.5f   %.3f to %.3f\n", names[j], x(0, j), error,
                x(0, j) - 1.96 * error, x(0, j) + 1.96 * error);
  }
}

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: bearings bearings.csv");
  const std::vector<double> lives = read_lives(argv[1]);
  tqnlp::Session tql;
  tql.module("LOGLIK", [&](const Matrix& x) { return Matrix::scalar(log_likelihood(x, lives)); });

  // A start by common sense: lives are spread about their mean with no memory (shape 1). Both
  // parameters are positive.
  double mean = 0.0;
  for (double life : lives) mean += life / static_cast<double>(lives.size());
  const Matrix positive(2, 2, {1e-6, 1e-6, tqnlp::missing, tqnlp::missing});
  std::printf("\nLives of 23 ball bearings, Weibull distribution\n\n");
  tql.sink([](std::string_view line) { std::cout << line << std::endl; });
  const auto fit =
      tql.call("NLPQN", {"LOGLIK", Matrix::row({1, mean}), Matrix::row({1, 2}), positive});
  std::cout << '\n' << tqnlp::text_work(tql.work()) << std::flush;

  const Matrix& x = fit[1];
  const auto at_solution = tql.call("NLPFDD", {"LOGLIK", x, Matrix::row({1, 1})});
  print_estimates(x, at_solution[2]);
  std::printf("\nReturn code %.0f, log-likelihood %.5f\n", fit[0](0, 0), at_solution[0](0, 0));
  return fit[0](0, 0) > 0 ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "bearings: %s\n", error.what());
  return 1;
}
