// Jet: a number with its gradient and Hessian, for exact derivatives of test problems (second-order
// forward differentiation). A constant carries no derivatives at all, and jets of slopes no
// Hessian.
#pragma once

#include <cmath>
#include <vector>

namespace tqnlp::problems {

class Jet {
 public:
  // Length of a packed Hessian: lower triangle by rows, (i, j) with j <= i at hessian_size(i) + j.
  static constexpr long hessian_size(long n) { return n * (n + 1) / 2; }

  Jet(double value = 0.0) : value_(value) {}

  // The variable with index i of n, at a value.
  static Jet variable(double value, long i, long n) {
    Jet jet(value);
    jet.n_ = n;
    jet.d_.assign(static_cast<std::size_t>(n + hessian_size(n)), 0.0);
    jet.d_[static_cast<std::size_t>(i)] = 1.0;
    return jet;
  }

  // The same without a Hessian, for gradients at less cost. The two kinds never meet.
  static Jet slope(double value, long i, long n) {
    Jet jet(value);
    jet.n_ = n;
    jet.d_.assign(static_cast<std::size_t>(n), 0.0);
    jet.d_[static_cast<std::size_t>(i)] = 1.0;
    return jet;
  }

  double value() const { return value_; }
  double gradient(long i) const { return d_.empty() ? 0.0 : d_[static_cast<std::size_t>(i)]; }
  double hessian(long packed) const {
    return d_.empty() ? 0.0 : d_[static_cast<std::size_t>(n_ + packed)];
  }

  // f(a) for a function with values f, f' and f'' at a.
  static Jet chain(const Jet& a, double f, double f1, double f2) {
    Jet result(f);
    if (a.d_.empty()) return result;
    result.n_ = a.n_;
    result.d_ = a.d_;
    for (double& d : result.d_) d *= f1;
    result.add_outer(f2, a, a, 0.5);
    return result;
  }

  Jet& operator+=(const Jet& b) {
    value_ += b.value_;
    add_scaled(1.0, b);
    return *this;
  }
  Jet& operator-=(const Jet& b) {
    value_ -= b.value_;
    add_scaled(-1.0, b);
    return *this;
  }
  Jet& operator*=(const Jet& b) { return *this = *this * b; }

  friend Jet operator+(Jet a, const Jet& b) { return a += b; }
  friend Jet operator-(Jet a, const Jet& b) { return a -= b; }
  friend Jet operator-(const Jet& a) { return chain(a, -a.value_, -1.0, 0.0); }
  friend Jet operator*(const Jet& a, const Jet& b) {
    Jet result(a.value_ * b.value_);
    result.add_scaled(b.value_, a);
    result.add_scaled(a.value_, b);
    if (!a.d_.empty() && !b.d_.empty()) result.add_outer(1.0, a, b, 1.0);
    return result;
  }
  friend Jet operator/(const Jet& a, const Jet& b) {
    const double r = 1.0 / b.value_;
    return a * chain(b, r, -r * r, 2.0 * r * r * r);
  }

 private:
  void add_scaled(double factor, const Jet& b) {
    if (b.d_.empty()) return;
    if (d_.empty()) {
      n_ = b.n_;
      d_.assign(b.d_.size(), 0.0);
    }
    for (std::size_t k = 0; k < d_.size(); ++k) d_[k] += factor * b.d_[k];
  }

  // Adds factor * share * (ga gb' + gb ga') to the Hessian.
  void add_outer(double factor, const Jet& a, const Jet& b, double share) {
    if (factor == 0.0 || d_.size() == static_cast<std::size_t>(n_)) return;
    for (long i = 0; i < n_; ++i) {
      for (long j = 0; j <= i; ++j) {
        d_[static_cast<std::size_t>(n_ + hessian_size(i) + j)] +=
            factor * share * (a.gradient(i) * b.gradient(j) + b.gradient(i) * a.gradient(j));
      }
    }
  }

  double value_;
  long n_ = 0;
  std::vector<double> d_;  // gradient, then packed Hessian if any; empty: a constant
};

inline Jet exp(const Jet& a) {
  const double f = std::exp(a.value());
  return Jet::chain(a, f, f, f);
}
inline Jet log(const Jet& a) {
  const double r = 1.0 / a.value();
  return Jet::chain(a, std::log(a.value()), r, -r * r);
}
inline Jet sqrt(const Jet& a) {
  const double f = std::sqrt(a.value());
  return Jet::chain(a, f, 0.5 / f, -0.25 / (f * a.value()));
}
inline Jet sin(const Jet& a) {
  return Jet::chain(a, std::sin(a.value()), std::cos(a.value()), -std::sin(a.value()));
}
inline Jet cos(const Jet& a) {
  return Jet::chain(a, std::cos(a.value()), -std::sin(a.value()), -std::cos(a.value()));
}
inline Jet atan(const Jet& a) {
  const double r = 1.0 / (1.0 + a.value() * a.value());
  return Jet::chain(a, std::atan(a.value()), r, -2.0 * a.value() * r * r);
}
inline Jet pow(const Jet& a, double p) {
  const double v = a.value();
  return Jet::chain(a, std::pow(v, p), p * std::pow(v, p - 1), p * (p - 1) * std::pow(v, p - 2));
}
inline Jet pow(const Jet& a, const Jet& b) { return exp(b * log(a)); }

inline double value_of(double x) { return x; }
inline double value_of(const Jet& x) { return x.value(); }

}  // namespace tqnlp::problems
