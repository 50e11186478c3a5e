// Reports of a run (source znlppre): start, end, stop summary, status.
#pragma once

#include "aasubs/record/minstr.h"

namespace tqnlp {

void pritech(MINSTR* str);
void znlppre(MINSTR* str, int job, int pfun);
void prifdh(MINSTR* str);
void pricon(MINSTR* str, int job);
void pricon1(MINSTR* str, int job);
void pricon2(MINSTR* str);
void pricon3(MINSTR* str);
void prinlc(MINSTR* str, int job);
void znlpptm(MINSTR* str, int fail, int job);
void znlppmt(RvxObject* rvx, const char* onam, long nr, long nc, const double* pd,
             const char* const* pnam, int titl, int label);

}  // namespace tqnlp
