// The named face and the calling surface fill the same record: the same problem, options and
// derivatives give the same point to the last bit, and the same code, for every technique.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "face/face_problem.h"

namespace tqnlp::test {
namespace {

struct Pair {
  Technique technique;
  const char* subroutine;
  Form form = Form::scalar;
  int update = 0;  // opt element 4
};

const Pair PAIRS[] = {
    {Technique::trust_region, "NLPTR"},
    {Technique::newton_line_search, "NLPNRA"},
    {Technique::newton_ridge, "NLPNRR"},
    {Technique::quasi_newton, "NLPQN"},
    {Technique::quasi_newton_inverse, "NLPQN", Form::scalar, 3},
    {Technique::double_dogleg, "NLPDD"},
    {Technique::conjugate_gradient, "NLPCG"},
    {Technique::levenberg_marquardt, "NLPLM", Form::squares},
    {Technique::hybrid_quasi_newton, "NLPHQN", Form::squares},
    {Technique::nelder_mead, "NLPNMS"},
    {Technique::watchdog, "NLPVMC"},
};

using Vector = std::vector<double>;

bool same_bits(const std::vector<double>& a, const std::vector<double>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

// The problem, with a count of the objective's points beyond a bound: at these the two faces
// differ.
problems::Problem watched(const problems::Problem& p, long* outside) {
  problems::Problem copy = p;
  const auto look = [p, outside](const double* x) {
    for (std::size_t j = 0; j < p.lower.size(); ++j)
      *outside += x[j] < p.lower[j] || x[j] > p.upper[j];
  };
  copy.value = [p, look](const double* x) {
    look(x);
    return p.value(x);
  };
  copy.residuals = [p, look](const double* x, double* r) {
    look(x);
    p.residuals(x, r);
  };
  return copy;
}

TEST(SameBits, ForEveryTechnique) {
  long compared = 0, beyond = 0;
  const auto library = problem_library();
  for (std::size_t k = 0; k < library.size(); k += 3) {  // a third of them is told apart as well
    const problems::Problem& p = library[k];
    for (const Pair& pair : PAIRS) {
      const bool simplex = pair.technique == Technique::nelder_mead;
      if ((pair.form == Form::squares && p.m == 0) || (simplex && !p.rows.empty())) continue;
      for (const Modules modules : {Modules::all, Modules::none}) {
        if (simplex && modules == Modules::all) continue;
        Options options;
        options.technique = pair.technique;
        options.analysis = false;
        options.scaling = Scaling::off;
        Matrix opt(1, 4);
        opt(0, 3) = pair.update;
        if (pair.form == Form::squares) opt(0, 2) = missing;
        long outside = 0, outside_in_face = 0;
        const auto face =
            tqnlp::solve(face_problem(p, pair.form, modules, &outside_in_face), p.start, options);
        const Outcome call = solve(watched(p, &outside), pair.subroutine, 1e-6,
                                   simplex ? Matrix() : opt, Matrix(), modules);
        SCOPED_TRACE(p.name + " " + pair.subroutine + " " + std::to_string(int(modules)));
        EXPECT_EQ(outside_in_face, 0);
        beyond += outside > 0;
        if (outside > 0) continue;
        EXPECT_EQ(face.status.code, call.code);
        EXPECT_TRUE(!face.status || same_bits(face.x, call.x));
        ++compared;
      }
    }
  }
  EXPECT_GT(compared, 500);
  EXPECT_GT(beyond, 0);
}

Vector call_constrained(const problems::Problem& p, const std::string& subroutine) {
  Session tql;
  tql.module("F", [&](const Matrix& x) { return Matrix::scalar(p.value(x.data())); });
  tql.module("G", [&](const Matrix& x) {
    Matrix g(1, p.n);
    p.evaluate(x.data(), g.data());
    return g;
  });
  tql.module("C", [&](const Matrix& x) {
    Matrix c(1, p.constraints);
    p.constraint_values(x.data(), c.data());
    return c;
  });
  tql.module("J", [&](const Matrix& x) {
    Matrix j(p.constraints, p.n);
    p.constraint_jacobian(x.data(), j.data());
    return j;
  });
  Matrix opt = Matrix::filled(1, 11, missing);
  opt[9] = double(p.constraints), opt[10] = double(p.equalities);
  std::vector<Matrix> arguments = {
      "F", Matrix::row(p.start), opt, constraint_matrix(p), Matrix(), Matrix(), Matrix()};
  if (subroutine == "NLPNMS") {
    arguments.emplace_back("C");
  } else {
    for (const char* module : {"G", "C", "J"}) arguments.emplace_back(module);
  }
  const auto results = tql.call(subroutine, arguments);
  Vector all = results[1].values();
  all.push_back(results[0](0, 0));
  return all;
}

TEST(SameBits, WithNonlinearConstraints) {
  const auto library = hock_schittkowski_nonlinear();
  for (std::size_t k = 0; k < library.size(); k += 4) {
    const problems::Problem& p = library[k];
    for (const auto& [technique, subroutine] :
         {std::pair(Technique::quasi_newton, "NLPQN"), std::pair(Technique::watchdog, "NLPVMC"),
          std::pair(Technique::cobyla, "NLPNMS")}) {
      if (technique == Technique::cobyla && !p.lower.empty()) continue;  // it looks beyond bounds
      Options options;
      options.technique = technique;
      options.analysis = false;
      options.scaling = Scaling::off;
      const Result face =
          tqnlp::solve(face_problem(p, Form::scalar, Modules::all), p.start, options);
      Vector all = face.x;
      all.push_back(face.status.code);
      SCOPED_TRACE(p.name + " " + subroutine);
      const Vector call = call_constrained(p, subroutine);
      EXPECT_EQ(face.status.code, call.back());
      EXPECT_TRUE(!face.status || same_bits(all, call));
    }
  }
}

TEST(SameBits, OfQuadratics) {
  const long n = 6;
  Matrix dense(n, n), rows(2 * n - 1, 3), g(1, n + 1);
  std::vector<Element> elements;
  for (long i = 0; i < n; ++i) {
    elements.push_back({i, i, i == 2 ? -1.0 : 2.0 + double(i)});
    if (i > 0) elements.push_back({i, i - 1, 0.5});
    g(0, i) = double(i) - 2.5;
  }
  g(0, n) = 7.0;
  for (std::size_t k = 0; k < elements.size(); ++k) {
    const Element& e = elements[k];
    dense(e.row, e.col) = dense(e.col, e.row) = e.value;
    const auto row = static_cast<long>(k);
    rows(row, 0) = double(e.row + 1), rows(row, 1) = double(e.col + 1), rows(row, 2) = e.value;
  }
  const Vector linear(g.data(), g.data() + n), start(n, 0.25), bound(n, 2.0), least(n, -2.0);
  Matrix blc(2, n);
  std::fill_n(blc.data(), n, -2.0);
  std::fill_n(blc.data() + n, n, 2.0);
  Options options;
  options.analysis = false;
  options.scaling = Scaling::off;
  for (const bool sparse : {false, true}) {
    Session tql;
    const auto call = tql.call("NLPQUA", {sparse ? rows : dense, Matrix::row(start), Matrix(), blc,
                                          Matrix(), Matrix(), Matrix(), g});
    const auto problem = tqnlp::Problem::quadratic(
        sparse ? SymmetricMatrix(n, elements) : SymmetricMatrix(n, dense.values()), linear, 7.0);
    const Result face = solve(tqnlp::Problem(problem).bounds(least, bound), start, options);
    EXPECT_EQ(face.technique, Technique::quadratic_active_set);
    EXPECT_TRUE(same_bits(face.x, call[1].values()));
  }
}

}  // namespace
}  // namespace tqnlp::test
