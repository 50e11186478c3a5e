// zranuni: RANdom numbers, UNIform.
//
// Method     multiplicative congruential generator s := 48271 s mod (2^31 - 1), a prime modulus of
//            which the multiplier is a primitive root: full period, no state but the seed
// Reference  Park, Miller and Stockmeyer (1993), Communications of the ACM 36(7), 108-110
//
// The product stays below 2^47, so that 64-bit integers hold it exactly.
#include "kernels/zranuni.h"

namespace tqnlp {

static constexpr long MODULUS = 2147483647;
static constexpr long MULTIPLIER = 48271;

double zranuni(long* seed) {
  if (*seed < 1 || *seed >= MODULUS) *seed = 1;
  *seed = *seed * MULTIPLIER % MODULUS;
  return static_cast<double>(*seed) / static_cast<double>(MODULUS);
}

}  // namespace tqnlp
