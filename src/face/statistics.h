// What a result remembers of its run, so that statistics can follow.
#pragma once

#include "face/run.h"

namespace tqnlp::face {

struct Origin {
  Problem problem;
  Options options;  // without what watches and stops a run
  Technique technique;
  Units units;
};

std::shared_ptr<const Origin> remember(const Problem& problem, const Shared& shared,
                                       Technique technique);

}  // namespace tqnlp::face
