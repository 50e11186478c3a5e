// Vector kernels. n may be 0 or negative: sums are then 0 and nothing is written. Strides (incx
// ...) count doubles and may be negative only where a caller passes a pointer that fits. The digits
// and letters of a name tell the strides: 1 contiguous, j with a stride, s by an index list. Long
// sums keep several partial sums side by side, the same in every build variant, so that a result
// does not depend on the processor.
#pragma once

namespace tqnlp {

// Euclidean norm of x, free of overflow and underflow. An element too small to matter beside the
// largest one is skipped on purpose where its square could underflow. A NaN in x gives NaN.
double zvenorm(long n, long incx, const double* x);

// Largest absolute value; 0 for an empty vector; a NaN is passed over.
double zvamx(long n, const double* x);
double zvamxj(long n, long incx, const double* x);

// Dot products. zvdots1: x given by an index list, sum of x[ind[k]] * y[k]. zinner is zvdot11 under
// the name that the older Newton code uses.
double zvdot11(long n, const double* x, const double* y);
double zvdotj1(long n, long incx, const double* x, const double* y);
double zvdotjj(long n, long incx, const double* x, long incy, const double* y);
double zvdots1(long n, const long* ind, const double* x, const double* y);
double zinner(long n, const double* x, const double* y);

// z := alpha x + y; z may be x or y, else the vectors must not overlap.
void zvaxpy(double* z, const double* x, const double* y, long n, double alpha);

// a := a + alpha b, in the named strides.
void zvxay11(long n, double* a, double alpha, const double* b);
void zvxay1j(long n, double* a, double alpha, long incb, const double* b);
void zvxayj1(long n, long inca, double* a, double alpha, const double* b);

// z := alpha x; x := alpha x.
void zvz111(long n, double* z, double alpha, const double* x);
void zvscl11(long n, double* x, double alpha);

// Largest change between x and y (n elements) relative to max(|x|, |y|, xsiz), guarded against
// overflow; 0 for n = 0. A NaN element makes the result NaN.
double reldx(long n, double xsiz, const double* x, const double* y);

// Euclidean norm of x - y; 0 for n = 0.
double xdif(long n, const double* x, const double* y);

// Are all elements of x finite numbers? Are they between lower and upper? A NaN is not.
bool all_finite(long n, const double* x);
bool all_between(long n, const double* x, const double* lower, const double* upper);

}  // namespace tqnlp
