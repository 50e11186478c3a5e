// Uniform random numbers (source zranuni).
#pragma once

namespace tqnlp {

// The next number of the stream, strictly between 0 and 1. *seed holds the state: any value from 1
// to 2147483646 starts a stream, and the same seed the same stream on every machine. A seed outside
// that range is replaced by 1. The period is 2147483646.
double zranuni(long* seed);

}  // namespace tqnlp
