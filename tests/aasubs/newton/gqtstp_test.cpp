// Steps of gqtstp against the exact solution from an eigenvalue decomposition.
#include "aasubs/newton/gqtstp.h"

#include <gtest/gtest.h>

#include "kernels/matrices.h"
#include "support/record.h"

namespace tqnlp::test {
namespace {

// H = V diag(l) V' by cyclic Jacobi rotations.
struct Eigen {
  Vec l;
  Dense v;
};

Eigen decompose(Dense a) {
  const long n = a.rows;
  Dense v = identity(n);
  for (int sweep = 0; sweep < 30; ++sweep) {
    for (long p = 0; p < n; ++p) {
      for (long q = p + 1; q < n; ++q) {
        if (a(p, q) == 0.0) continue;
        const double angle = 0.5 * std::atan2(2 * a(p, q), a(q, q) - a(p, p));
        const double c = std::cos(angle), s = std::sin(angle);
        const auto turn = [&](double& x, double& y) {
          const double old = x;
          x = c * old - s * y;
          y = s * old + c * y;
        };
        for (long k = 0; k < n; ++k) turn(a(k, p), a(k, q));
        for (long k = 0; k < n; ++k) turn(a(p, k), a(q, k));
        for (long k = 0; k < n; ++k) turn(v(k, p), v(k, q));
      }
    }
  }
  Vec l(n);
  for (long i = 0; i < n; ++i) l[i] = a(i, i);
  return {l, v};
}

// Least value of the model within delt: the largest value of its dual, by bisection.
double least_value(const Eigen& e, const Vec& g, double delt) {
  const Vec gamma = transpose(e.v) * g;
  const double low = std::max(0.0, -*std::min_element(e.l.begin(), e.l.end()));
  const auto sum = [&](double above, int power) {  // lambda = low + above
    double total = 0.0;
    for (std::size_t i = 0; i < gamma.size(); ++i) {
      if (std::fabs(gamma[i]) <= 1e-14 * size(gamma)) continue;  // rounding of zero
      total += gamma[i] * gamma[i] / std::pow(e.l[i] + low + above, power);
    }
    return total;
  };
  double a = 0.0, b = 2.0 * std::sqrt(dot(g, g)) / delt + 1e-300;
  for (int k = 0; k < 300; ++k) {
    const double middle = (a + b) / 2;
    (middle > 0.0 && sum(middle, 2) > delt * delt ? a : b) = middle;
  }
  return -0.5 * sum(b, 1) - 0.5 * (low + b) * delt * delt;
}

// Eigenvalues with their gradient components in the same place.
struct Model {
  const char* name;
  Vec l, gamma;
};

std::vector<Model> models() {
  const Vec g = {1, -2, 0.5, 3, -1, 0.7};
  const Vec few = {0, 0, 0.5, 3, -1, 0.7};
  const Vec none(6, 0.0);
  return {{"definite", {1, 2, 3, 4, 50, 600}, g},
          {"indefinite", {-2, -1, 0.5, 1, 2, 3}, g},
          {"negative definite", {-3, -2.5, -2, -1, -0.5, -0.1}, g},
          {"singular", {0, 1, 2, 3, 4, 5}, g},
          {"singular, compatible", {0, 0, 2, 3, 4, 5}, few},
          {"zero", none, g},
          {"hard", {-1, 1, 2, 3, 4, 5}, {0, 1, 0.5, 3, -1, 0.7}},
          {"hard, double eigenvalue", {-1, -1, 2, 3, 4, 5}, few},
          {"nearly hard", {-1, 1, 2, 3, 4, 5}, {1e-11, 1, 0.5, 3, -1, 0.7}},
          {"nearly hard, double", {-1, -1 + 1e-9, 2, 3, 4, 5}, {1e-6, 1e-7, 0.5, 3, -1, 0.7}},
          {"hard, singular", {0, 1, 2, 3, 4, 500}, {0, 1, 0.5, 3, -1, 0.7}},
          {"hard, next to no gradient", {-1, 1, 2, 3, 4, 5}, {0, 1e-7, 0, 1e-7, 0, 0}},
          {"no gradient, indefinite", {-1, 1, 2, 3, 4, 5}, none},
          {"no gradient, definite", {1, 1, 2, 3, 4, 5}, none},
          {"wide", {-1e-6, 1e-3, 1, 10, 1e4, 1e6}, g}};
}

TEST(TrustRegionStep, IsWithinItsAccuracyOfTheExactOne) {
  const double radii[] = {1, 0.3, 0.01, 0.05, 1.5, 8, 1e-4, 3, 1e3, 2, 0.5, 1e5, 1};
  long calls = 0, factorizations = 0;
  const std::vector<Model> all = models();
  for (const Model& model : all) {
    for (const unsigned seed : {0u, 1u, 2u, 3u}) {  // 0: the diagonal form
      for (const double scale : {1.0, 1e-5, 1e5}) {
        const long n = 6;
        const Dense basis = seed == 0 ? identity(n) : decompose(symmetric(n, seed)).v;
        Dense h = basis * Dense(n, n, [&](long i, long j) { return i == j ? model.l[i] : 0.0; }) *
                  transpose(basis);
        h = multiplied(h, scale);
        const Vec g = multiplied(basis, scale) * model.gamma;
        const Eigen eigen = seed == 0 ? Eigen{h * Vec(n, 1.0), basis} : decompose(h);

        TestRecord record(n, TRUREG);
        record.hfrm = seed == 0 ? 2 : 0;
        record.hesc = 0;
        // Curvature below sing counts as none, which the last model would show.
        record.sing = &model == &all.back() ? 1e-13 : 1e-8;
        for (long i = 0; i < n; ++i) record.gold[i] = -g[i];
        const Vec stored = seed == 0 ? eigen.l : pack(h);
        std::copy(stored.begin(), stored.begin() + (seed == 0 ? n : packed_size(n)), record.hess);
        DGWSTR d{};
        d.minstr = &record;
        d.dgnm = std::sqrt(dot(g, g));
        open_step_search(&d);
        for (const double radius : radii) {
          SCOPED_TRACE(testing::Message() << model.name << ", seed " << seed << ", scale " << scale
                                          << ", radius " << radius << ", lamb " << record.lamb);
          record.delt = radius;
          const long before = std::max(d.kagqt, 0L);
          gqtstp(&d);
          ++calls;
          factorizations += d.kagqt - before;
          const Vec s(record.sdir, record.sdir + n);
          const double length = std::sqrt(dot(s, s));
          const double value = dot(g, s) + 0.5 * dot(s, h * s);
          const double least = least_value(eigen, g, 0.9 * radius);
          const double rounding = 1e-9 * scale * (radius + radius * radius);
          EXPECT_LE(length, 1.1 * radius * (1 + 1e-12));
          EXPECT_NEAR(d.dstn, length, 1e-9 * length);
          EXPECT_NEAR(d.gtst, dot(g, s), 1e-7 * std::fabs(d.gtst) + rounding);
          EXPECT_NEAR(-record.pred, value, 1e-7 * std::fabs(value) + rounding);
          EXPECT_LE(value, 0.85 * least + rounding);
          if (record.lamb > 0.0) {
            EXPECT_NEAR(value, least_value(eigen, g, length), 1e-6 * -value + rounding);
          }
        }
      }
    }
  }
  EXPECT_LE(factorizations, 1.7 * calls);
}

}  // namespace
}  // namespace tqnlp::test
