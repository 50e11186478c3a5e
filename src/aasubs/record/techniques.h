// The techniques by number (field tech) and by name. This is the one list of them: the enum, the
// names in reports and messages and the test of a number are made from it.
#pragma once

namespace tqnlp {

// enumerator, number, name (eight characters, padded with blanks). 17 to 20 are free.
#define TQNLP_TECHNIQUES(X)                                                      \
  X(NO_TECHNIQUE, 1, "NONE    ") /* evaluates the start alone */                 \
  X(TRUREG, 2, "TRUREG  ")       /* trust region */                              \
  X(NEWRAP, 3, "NEWRAP  ")       /* Newton-Raphson with line search */           \
  X(NRRIDG, 4, "NRRIDG  ")       /* Newton-Raphson with ridging */               \
  X(NRLINS, 5, "NRLINS  ")       /* older Newton code with line search */        \
  X(OLDRAP, 6, "OLDRAP  ")       /* a name without a technique */                \
  X(GAUNEW, 7, "GAUNEW  ")       /* Gauss-Newton */                              \
  X(LEVMAR, 8, "LEVMAR  ")       /* Levenberg-Marquardt */                       \
  X(DBLDOG, 9, "DBLDOG  ")       /* double dogleg */                             \
  X(QUANEW, 10, "QUANEW  ")      /* quasi-Newton on the inverse */               \
  X(QUANEW_DUAL, 11, "QUANEW  ") /* on the factor; with nonlinear constraints */ \
  X(HYQUAN, 12, "HYQUAN  ")      /* hybrid quasi-Newton for least squares */     \
  X(CONGRA, 13, "CONGRA  ")      /* conjugate gradient */                        \
  X(NMSIMP, 14, "NMSIMP  ")      /* Nelder-Mead; COBYLA with nonlinear ones */   \
  X(NMSIM2, 15, "NMSIM2  ")      /* Nelder-Mead, second form */                  \
  X(QUADAS, 16, "QUADAS  ")      /* quadratic, active set or barrier */          \
  X(VMCWD, 21, "VMCWD   ")       /* variable metric with watchdog */

enum TechniqueNumber : int {
#define TQNLP_NUMBER(enumerator, number, name) enumerator = number,
  TQNLP_TECHNIQUES(TQNLP_NUMBER)
#undef TQNLP_NUMBER
};

// Name of a technique; "UNKNOWN " for a number that the list does not hold.
constexpr const char* technique_name(int tech) {
  switch (tech) {
#define TQNLP_NAME(enumerator, number, name) \
  case enumerator:                           \
    return name;
    TQNLP_TECHNIQUES(TQNLP_NAME)
#undef TQNLP_NAME
    default:
      return "UNKNOWN ";
  }
}

constexpr bool is_technique(int tech) { return technique_name(tech)[0] != 'U'; }

// The value of vers for which QUADAS runs in its barrier form, another code under the same number.
inline constexpr int BARRIER_FORM = 1;

// The techniques that move a simplex of points; they have no gradient.
constexpr bool is_simplex(int tech) { return tech == NMSIMP || tech == NMSIM2; }

// Does the technique work in the full orthogonal frame even when no general constraint is active?
constexpr bool uses_full_frame(int tech) {
  return tech == DBLDOG || tech == QUANEW || tech == QUANEW_DUAL || tech == HYQUAN ||
         tech == QUADAS;
}

}  // namespace tqnlp
