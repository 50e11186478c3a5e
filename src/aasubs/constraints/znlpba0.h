// Projected operators (source znlpba0): between the full space of n parameters and the reduced
// space of the working set.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

void znlpgcs(MINSTR* str, double* gpro);
void znlpgmx(MINSTR* str, int job, double* gpro);
int znlptcs(MINSTR* str, double* gpro, long* icon, long* iwk);
void znlphgp(MINSTR* str, int job, int hfrm, double* gpro, double* hess, double* hpro);
void znlphpr(MINSTR* str, int job, int iqid, int hfrm, double* gpro, double* hess, double* hpro);
double znlpgs(MINSTR* str, const double* spro, const double* gpro, const double* sdir,
              const double* grad);
void znlpvre(MINSTR* str, const double* sdir, double* spro);
void znlpvex(MINSTR* str, const double* spro, double* sdir);
double znlpsp2(MINSTR* str, int job, double* spro, double* sdir);
void znlphsc(MINSTR* str, int hfrm, long n, double* hpro);
double znlphs2(MINSTR* str, int hfrm, double* spro);
void znlpscd(MINSTR* str, double* spro);
void znlpglm(MINSTR* str, int job, const double* vv, double* lagm);
int znlplm2(MINSTR* str);
void znlplfg(MINSTR* str, int ider);
int znlphin(MINSTR* str, int job, int load, int hesc, int chol, double* hess);
double znlpalf(MINSTR* str, double gs0);
int znlpsdi(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, const double* gold,
            double* half);
int znlpsd2(MINSTR* str, int job, int jpiv, int icho, long nosi, double* spro, double* sdir,
            double* half);
int znlppro(MINSTR* str, int job, double* dgs);
int znlpfbc(MINSTR* str, int job);

// Dot product that skips terms whose product would underflow.
double dotprd(long n, const double* x, const double* y);

}  // namespace tqnlp
