// Films over the unit square: a membrane stretched over a dome (an obstacle problem, with bounds as
// constraints), and the surface of least area in a wavy frame. Each is solved on grids of up to
// 60 x 60 points by NLPNRA with a sparse Hessian, and of up to 320 x 320 points by NLPCG, which
// needs gradients and a few vectors only. The film of a grid is the start on the next finer one.
//
// Usage: membrane [FOLDER]     writes membrane.ppm and surface.ppm there
//
// Seen: for each grid the energy, which settles as the grid gets finer, the points at which the
// film rests on the dome and the share of the square that they take, and what the run took. The
// pictures show the height by brightness, and in red where the film rests on the dome.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

#include "tqnlp/tqnlp.hpp"

using tqnlp::Matrix;

// ---- Films --------------------------------------------------------------------------------------

// The energy of a film is the integral of density(s), s the square of its slope.
struct Film {
  const char* name;
  double (*density)(double s, double* first, double* second);  // and its derivatives
  double (*frame)(double x, double y);
  double (*obstacle)(double x, double y);
};

static double stretching(double s, double* first, double* second) {
  *first = 0.5;
  *second = 0.0;
  return 0.5 * s;
}

static double area(double s, double* first, double* second) {
  const double root = std::sqrt(1.0 + s);
  *first = 0.5 / root;
  *second = -0.25 / (root * root * root);
  return root;
}

static double dome(double x, double y) {
  return 0.5 - 4.0 * ((x - 0.5) * (x - 0.5) + (y - 0.5) * (y - 0.5));
}

static double wave(double x, double y) {
  return 0.3 * std::sin(2.0 * std::numbers::pi * (x + y)) + 0.5 * (x - y) * (x - y);
}

static const Film MEMBRANE = {"membrane", stretching, [](double, double) { return 0.0; }, dome};
static const Film SURFACE = {"surface", area, wave, [](double, double) { return -1e3; }};

// ---- A film on a grid ---------------------------------------------------------------------------

// Heights at side x side points inside the frame, linear on the two triangles of every cell. The
// parameters are the heights of the inner points, row after row.
class Grid {
 public:
  Grid(const Film& film, long side)
      : film_(film),
        side_(side),
        h_(1.0 / static_cast<double>(side + 1)),
        heights_(square(side + 2)) {
    for (long i = 0; i < side + 2; ++i) {
      for (long j = 0; j < side + 2; ++j) {
        const bool edge = i == 0 || j == 0 || i == side + 1 || j == side + 1;
        heights_[place(i, j)] = edge ? film.frame(at(i), at(j)) : 0.0;
      }
    }
  }

  long parameters() const { return side_ * side_; }
  long hessian_rows() const { return static_cast<long>(STENCIL) * parameters(); }

  double energy(const Matrix& x) {
    set_heights(x);
    double sum = 0.0;
    for_each_triangle([&](long c, long right, long down) {
      double first = 0.0, second = 0.0;
      const double p = heights_[right] - heights_[c], q = heights_[down] - heights_[c];
      sum += film_.density((p * p + q * q) / (h_ * h_), &first, &second);
    });
    return 0.5 * h_ * h_ * sum;
  }

  Matrix gradient(const Matrix& x) {
    set_heights(x);
    std::vector<double> g(heights_.size());
    for_each_triangle([&](long c, long right, long down) {
      double first = 0.0, second = 0.0;
      const double p = heights_[right] - heights_[c], q = heights_[down] - heights_[c];
      film_.density((p * p + q * q) / (h_ * h_), &first, &second);
      g[right] += first * p;
      g[down] += first * q;
      g[c] -= first * (p + q);
    });
    Matrix inner(1, parameters());
    for_each_point([&](long k, long i, long j) { inner[k] = g[place(i, j)]; });
    return inner;
  }

  // Rows (i, j, value): a point meets itself, its right and lower neighbours, and the one across
  // the diagonal of a cell. Pairs with the frame have no value.
  Matrix hessian(const Matrix& x) {
    set_heights(x);
    std::vector<double> own(heights_.size()), right(own), down(own), across(own);
    for_each_triangle([&](long c, long r, long d) {
      double first = 0.0, second = 0.0;
      const double p = (heights_[r] - heights_[c]) / h_, q = (heights_[d] - heights_[c]) / h_;
      film_.density(p * p + q * q, &first, &second);
      const double pp = first + 2.0 * second * p * p, qq = first + 2.0 * second * q * q;
      const double pq = 2.0 * second * p * q;
      own[c] += pp + qq + 2.0 * pq;
      own[r] += pp;
      own[d] += qq;
      right[std::min(c, r)] -= pp + pq;
      down[std::min(c, d)] -= qq + pq;
      across[std::min(r, d)] += pq;
    });
    Matrix rows(hessian_rows(), 3);
    long row = 0;
    for_each_point([&](long k, long i, long j) {
      const bool last_row = i == side_, last = j == side_, first = j == 1;
      const long c = place(i, j);
      const double none = tqnlp::missing;
      const double pairs[STENCIL][2] = {{0.0, own[c]},
                                        {1.0, last ? none : right[c]},
                                        {double(side_), last_row ? none : down[c]},
                                        {double(side_ - 1), last_row || first ? none : across[c]}};
      for (const auto& [offset, value] : pairs) {
        rows(row, 0) = double(k + 1);
        rows(row, 1) = double(k + 1) + (tqnlp::is_missing(value) ? 0.0 : offset);
        rows(row++, 2) = value;
      }
    });
    return rows;
  }

  double obstacle(long i, long j) const { return film_.obstacle(at(i), at(j)); }

  // The height at any place, between the points of the grid.
  double height(double x, double y) const {
    const double u = x / h_, v = y / h_;
    const long i = std::min(static_cast<long>(u), side_), j = std::min(static_cast<long>(v), side_);
    const double a = u - double(i), b = v - double(j);
    return (1 - a) * ((1 - b) * heights_[place(i, j)] + b * heights_[place(i, j + 1)]) +
           a * ((1 - b) * heights_[place(i + 1, j)] + b * heights_[place(i + 1, j + 1)]);
  }

  // Lower bounds, and none above.
  Matrix bounds() const {
    Matrix blc(2, parameters());
    for_each_point([&](long k, long i, long j) {
      blc(0, k) = obstacle(i, j);
      blc(1, k) = tqnlp::missing;
    });
    return blc;
  }

  // A film laid on this grid, and lifted off the obstacle where it would pass through.
  template <typename Height>
  Matrix laid(Height height_at) const {
    Matrix x(1, parameters());
    for_each_point(
        [&](long k, long i, long j) { x[k] = std::max(height_at(at(i), at(j)), obstacle(i, j)); });
    return x;
  }

  template <typename Body>
  void for_each_point(Body body) const {
    long k = 0;
    for (long i = 1; i <= side_; ++i) {
      for (long j = 1; j <= side_; ++j) body(k++, i, j);
    }
  }

  void set_heights(const Matrix& x) {
    for (long i = 1; i <= side_; ++i) {
      std::copy_n(x.data() + (i - 1) * side_, side_, heights_.data() + place(i, 1));
    }
  }

 private:
  static constexpr int STENCIL = 4;

  static std::size_t square(long n) { return static_cast<std::size_t>(n * n); }
  long place(long i, long j) const { return i * (side_ + 2) + j; }
  double at(long i) const { return double(i) * h_; }

  // The corner with the right angle, the one beside it in its row, the one in its column.
  template <typename Body>
  void for_each_triangle(Body body) const {
    const long width = side_ + 2;
    for (long i = 0; i <= side_; ++i) {
      for (long c = i * width; c < i * width + side_ + 1; ++c) {
        body(c, c + 1, c + width);
        body(c + width + 1, c + width, c + 1);
      }
    }
  }

  Film film_;
  long side_;
  double h_;
  std::vector<double> heights_;  // with the frame around them
};

// ---- Solving and showing ------------------------------------------------------------------------

static bool solve(Grid& grid, const char* subroutine, Matrix start, bool bounded,
                  Matrix* solution) {
  tqnlp::Session tql;
  tql.module("ENERGY", [&](const Matrix& x) { return Matrix::scalar(grid.energy(x)); });
  tql.module("GRADIENT", [&](const Matrix& x) { return grid.gradient(x); });
  tql.module("HESSIAN", [&](const Matrix& x) { return grid.hessian(x); });

  const bool newton = std::string(subroutine) == "NLPNRA";
  const Matrix none;
  Matrix opt(1, 9);
  std::fill(opt.begin(), opt.end(), tqnlp::missing);
  if (newton) opt[8] = double(grid.hessian_rows());
  const Matrix tc = Matrix::row({5000, 20000, tqnlp::missing, 1e-10});
  std::vector<Matrix> arguments = {"ENERGY", start, opt,  bounded ? grid.bounds() : none,
                                   tc,       none,  none, "GRADIENT"};
  if (newton) arguments.push_back("HESSIAN");
  const auto begin = std::chrono::steady_clock::now();
  const auto results = tql.call(subroutine, std::move(arguments));
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;

  *solution = results[1];
  long contact = 0;
  grid.for_each_point([&](long k, long i, long j) {
    if ((*solution)[k] <= grid.obstacle(i, j) + 1e-12) ++contact;
  });
  const auto work = tql.work();
  const double n = double(grid.parameters());
  std::printf("  %-7s %7ld %14.8f %8ld %8.2f%% %7.0f %8ld %8ld %7.2f %5.0f\n", subroutine,
              grid.parameters(), grid.energy(*solution), contact, 100.0 * double(contact) / n,
              tql.variable("_ITER_")[0], work.modules[0].calls, work.modules[1].calls, time.count(),
              results[0][0]);
  return results[0][0] > 0;
}

static void draw(const Grid& grid, const Film& film, const std::string& file) {
  static constexpr long PIXELS = 400;
  std::ofstream out(file, std::ios::binary);
  out << "P6\n" << PIXELS << ' ' << PIXELS << "\n255\n";
  for (long i = 0; i < PIXELS; ++i) {
    for (long j = 0; j < PIXELS; ++j) {
      const double x = (double(i) + 0.5) / PIXELS, y = (double(j) + 0.5) / PIXELS;
      const double height = grid.height(x, y);
      const double light = 255.0 * std::clamp(0.3 + 1.1 * height, 0.0, 1.0);
      const bool rests = height <= film.obstacle(x, y) + 1e-4;
      const double colour[3] = {rests ? 230.0 : light, rests ? 0.3 * light : light,
                                rests ? 0.3 * light : light};
      for (double c : colour) out.put(static_cast<char>(static_cast<unsigned char>(c)));
    }
  }
  std::printf("  picture: %s\n", file.c_str());
}

// From a coarse grid to a fine one: the film of a grid, laid on the next, is nearly solved there,
// and most of its points of contact are known. Without that, each costs about an iteration.
static bool stretch(const Film& film, bool bounded, const std::string& folder) {
  static constexpr struct {
    const char* subroutine;
    long side;
    bool afresh;  // from the height of the frame
  } LEVELS[] = {{"NLPNRA", 15, true}, {"NLPNRA", 30, false}, {"NLPNRA", 60, false},
                {"NLPCG", 60, true},  {"NLPCG", 160, false}, {"NLPCG", 320, false}};
  std::printf("\n%s\n  %-7s %7s %14s %8s %9s %7s %8s %8s %7s %5s\n", film.name, "", "points",
              "energy", "contact", "", "iter", "values", "grads", "sec", "code");
  Matrix x;
  bool good = true;
  Grid before(film, LEVELS[0].side);
  for (const auto& level : LEVELS) {
    Grid grid(film, level.side);
    const Matrix start = level.afresh
                             ? grid.laid(film.frame)
                             : grid.laid([&](double u, double v) { return before.height(u, v); });
    good &= solve(grid, level.subroutine, start, bounded, &x);
    before = Grid(film, level.side);
    before.set_heights(x);
  }
  draw(before, film, folder + "/" + film.name + ".ppm");
  return good;
}

int main(int argc, char** argv) try {
  const std::string folder = argc > 1 ? argv[1] : ".";
  const bool membrane = stretch(MEMBRANE, true, folder);
  const bool surface = stretch(SURFACE, false, folder);
  return membrane && surface ? 0 : 1;
} catch (const std::exception& error) {
  std::fprintf(stderr, "membrane: %s\n", error.what());
  return 1;
}
