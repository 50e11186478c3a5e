// Build variants of the hot kernels. A kernel is written once as a template over the width W of the
// machine's vectors (2, 4 or 8 doubles) and compiled for three levels of the instruction set; the
// level is chosen once a process. Results are the same at every level: sums are always kept in the
// same eight lanes (see lanes.h), only the number of instructions for eight lanes differs, and
// products and sums are never contracted.
//
// TQNLP_ONE_VARIANT leaves the base level alone, for sanitizer builds and other machines.
#pragma once

#if !defined(__x86_64__) && !defined(TQNLP_ONE_VARIANT)
#define TQNLP_ONE_VARIANT
#endif

// Inlined into each variant, so that it is compiled for the variant's level.
#define TQNLP_BODY [[gnu::always_inline]] static inline

#ifdef TQNLP_ONE_VARIANT

#define TQNLP_DISPATCH(result, name, parameters, arguments) \
  static result name parameters { return name##_body<2> arguments; }

#else

namespace tqnlp {

// 0 base, 1 AVX2 and FMA, 2 AVX-512.
inline const int vector_level = [] {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return 2;
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? 1 : 0;
}();

}  // namespace tqnlp

// GCC would keep to half the width of the registers; clang does not, and has no such word.
#ifdef __clang__
#define TQNLP_AVX512 "avx512f"
#else
#define TQNLP_AVX512 "avx512f,prefer-vector-width=512"
#endif

// Makes a function name(parameters) from the template name_body<W>(parameters).
#define TQNLP_DISPATCH(result, name, parameters, arguments)                   \
  [[gnu::target(TQNLP_AVX512)]] static result name##_avx512 parameters {      \
    return name##_body<8> arguments;                                          \
  }                                                                           \
  [[gnu::target("avx2,fma")]] static result name##_avx2 parameters {          \
    return name##_body<4> arguments;                                          \
  }                                                                           \
  static result name##_base parameters { return name##_body<2> arguments; }   \
  static result name parameters {                                             \
    if (vector_level == 2) return name##_avx512 arguments;                    \
    return vector_level == 1 ? name##_avx2 arguments : name##_base arguments; \
  }

#endif
