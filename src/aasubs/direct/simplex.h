// The simplex of the Nelder-Mead techniques: n + 1 vertices over the n free parameters, their
// values, and the points around them. Parameters with equal bounds are left out of all rows and
// sums; what the objective gets is always the whole x.
//
// Work, of order n = nvar (fixed parameters leave the tails unused)
//   wrk2   vertices, n + 1 rows (n(n + 1)) | values (n + 1) | centroid (n) | two trial points (2n)
//          | best point (n) | step scales (n)
//   ipiv   numbers of the free parameters          iwk   bound counts of the vertices (n + 1)
//   work   centroid of all vertices, for the angles
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

// Length of wrk2 for n parameters.
constexpr long simplex_work(long n) { return (n + 1) * (n + 1) + 5 * n; }

struct Simplex {
  long nmask = 0;          // free parameters
  long* free = nullptr;    // their numbers
  double* poly = nullptr;  // vertices, nmask + 1 rows of nmask
  double* y = nullptr;     // their values
  long* iwk = nullptr;     // parameters that a bound stopped when the vertex was made
  double* cent = nullptr;  // centroid of all vertices but the highest
  double* p1 = nullptr;    // trial points
  double* p2 = nullptr;
  double* best = nullptr;  // lowest point so far
  double* step = nullptr;  // step scales: a simplex of size siz has edges siz * step
  double ybest = 0.0;
  double siz = 1.0;
  long khi = 0, klo = 0;                       // highest and lowest vertex
  double yhi = 0.0, ysecond = 0.0, ylo = 0.0;  // their values, and that of the second highest

  double* vertex(long k) const { return poly + k * nmask; }
};

// Lays the arrays of the simplex out for the free parameters of the record. Returns their number.
long open_simplex(MINSTR* str, Simplex& s);

// x from the free parameters p, and back.
void put_point(MINSTR* str, const Simplex& s, const double* p);
void get_point(const MINSTR* str, const Simplex& s, double* p);

// Objective at x, after x was moved onto the bounds that it crosses. Returns the number of
// parameters moved, or -1 when the evaluation failed.
long bcfun(MINSTR* str);

// Objective at the trial point p, which becomes the point inside the bounds; *y: its value. A point
// lower than the best one becomes the best. Returns as bcfun.
long try_point(MINSTR* str, Simplex& s, double* p, double* y);

// Number of bounds on which x stands, within (|bound| + 1) ceps 10^ipre; fixed parameters count.
long nactbc(const MINSTR* str, const double* x);

// Largest change of x by the step delt * step, as floating-point numbers have it.
double xdis(long n, double delt, const double* x, const double* step);

// Vertex k takes another point.
void replace_vertex(Simplex& s, long k, const double* p, double y, long moved);

// Finds highest, second highest and lowest vertex, the first among equals.
void rank_vertices(Simplex& s);

// Centroid of all vertices but the highest, into cent; of all vertices, into center.
void form_centroid(Simplex& s);
void form_center(const Simplex& s, double* center);

// Standard deviation of the values.
double value_deviation(const Simplex& s);

// Mean over the other vertices of their distance from the lowest: the sum of |differences| in units
// of step.
double mean_size(const Simplex& s);

// Does a vertex lie in nearly the direction of vertex k, seen from the centroid of all nm + 1
// vertices (in work)? The rows of poly have nm elements. Returns the place of the first vertex,
// from 1, at an angle below tst degrees to vertex k; 0: none.
long tstangl(const MINSTR* str, long k, long nm, double tst, const double* poly);

}  // namespace tqnlp
