// Quantiles against values of 30-digit arithmetic.
#include "kernels/distributions.h"

#include <gtest/gtest.h>

#include <cmath>

namespace tqnlp::test {
namespace {

TEST(Distributions, Quantiles) {
  static constexpr struct {
    double (*quantile)(double, double);
    double p, df, value;
  } ROWS[] = {{[](double p, double) { return zprobit(p); }, 0.975, 0, 1.9599639845400539},
              {[](double p, double) { return zprobit(p); }, 0.3, 0, -0.52440051270804082},
              {[](double p, double) { return zprobit(p); }, 1e-20, 0, -9.2623400897984076},
              {[](double p, double) { return zprobit(p); }, 1e-300, 0, -37.047096299361199},
              {zqc, 0.95, 1, 3.8414588206941245},
              {zqc, 0.001, 1, 1.5707971492624899e-6},
              {zqc, 0.5, 0.1, 1.1147756881492495e-6},
              {zqc, 0.95, 2, 5.9914645471079802},
              {zqc, 0.99, 10, 23.209251158954357},
              {zqc, 1e-10, 10, 0.05233106563190541},
              {zqc, 0.3, 1000, 976.07359125777414},
              {zqc, 0.999, 1000, 1143.9170926196792},
              {zqt, 0.025, 1, -12.7062047361747},
              {zqt, 0.025, 5, -2.57058183563632},
              {zqt, 0.55, 3, 0.136598199353699},
              {zqt, 1e-6, 2, -707.105720525934},
              {zqt, 0.3, 1e4, -0.524417228345467},
              {zqt, 0.75, 7.5, 0.708599580444259}};
  for (const auto& row : ROWS) {
    EXPECT_NEAR(row.quantile(row.p, row.df) / row.value, 1.0, row.df > 100 ? 1e-11 : 5e-14)
        << row.p << ' ' << row.df;
  }
  EXPECT_TRUE(std::isinf(zprobit(1.0)) && std::isinf(zqc(1.0, 3)) && zqc(0.0, 3) == 0.0);
  EXPECT_TRUE(std::isnan(zprobit(1.5)) && std::isnan(zqc(0.5, 0)) && std::isnan(zqt(NAN, 1)));
}

}  // namespace
}  // namespace tqnlp::test
