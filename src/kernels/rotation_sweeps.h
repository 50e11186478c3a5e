// Inner loop of the product form of a quasi-Newton update: rotations of neighbours along the rows
// of a packed triangle, from the end of a row to its front and back again.
#pragma once

namespace tqnlp {

// Rotation k joins the elements k and k+1 of a row:
//   a(k) := c a(k) + s a(k+1),   a(k+1) := c a(k+1) - s a(k)
struct RotationSweeps {
  struct Rotations {
    double* c;
    double* s;
  };
  Rotations up;   // the first sweep, k descending
  double factor;  // between the sweeps element 0 of row j grows by factor * v[j]
  const double* v;
  Rotations down;  // the second sweep, k ascending
};

// Rows i .. i+count-1 of the packed lower triangle c, count a multiple of eight, through the
// rotations i-1 .. 0, the change of element 0, and the rotations 0 .. i-1: what the rows have in
// common before their own small triangle.
void sweep_rows(const RotationSweeps& sweeps, long i, long count, double* c);

}  // namespace tqnlp
