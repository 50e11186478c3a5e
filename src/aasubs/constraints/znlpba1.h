// Step limit, linear dependence (source znlpba1) and the feasible start (source znlpfea).
#pragma once

#include "aasubs/constraints/znlplcq.h"
#include "aasubs/record/minstr.h"

namespace tqnlp {

int znlpstl(MINSTR* str, int job, int ibo, long ncon, const double* x, const double* sdir,
            long* icon, long* iwk);
int znlpldc(MINSTR* str, int opro, int aspa, long* jalc, long* naco, double* alcn);
int znlpinc(MINSTR* str, int dofac);
int znlphlo(MINSTR* str);
int znlpclo(MINSTR* str);

int znlpfea(MINSTR* str, int job);
int znlpfe1(MINSTR* str, int job, long kcon);
int znlpfe2(MINSTR* str, int job, long kcon);
int znlplip(MINSTR* str, long ic, long kcon);

}  // namespace tqnlp
