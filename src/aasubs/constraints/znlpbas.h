// Working set of bounds and general constraints, and its null-space factors (source znlpbas).
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

int znlpfch(MINSTR* str, int job, int job2, int jeps);
int znlpfta(MINSTR* str, int job, int job1, int job2, double* gpro, double* ches, double* hess);
int znlpact(MINSTR* str, int job, int job2, long* nhlf, double* gpro, double* ches);
int znlpdac(MINSTR* str, int job, int job2, long* nhlf, double* ches, double* hess);
int znlpupd(MINSTR* str, int job, int job2, int job3, int koc, long ic, long* nhlf, double* gpro,
            double* ches);
int znlpdod(MINSTR* str, int job, int koc, long ic, long* nhlf, double* gpro, double* ches,
            double* hess);
int znlpcld(MINSTR* str, int job, long* nhlf, double* gpro, double* ches);
int znlpcsr(MINSTR* str, int job, long nglm, long* nhlf, double* gpro, double* ches, double* hess);

}  // namespace tqnlp
