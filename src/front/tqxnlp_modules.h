// The kinds of modules that a user may supply, one row each: where the decoded call keeps what
// belongs to a kind. Reading the arguments, preparing the calls and giving them back all go by this
// table. Also the small helpers with which messages name a subroutine or a module.
#pragma once

#include <algorithm>

#include "front/argmts.h"

namespace tqnlp {

// Call codes of the modules, as setss takes them.
inline constexpr int CALL_OBJECTIVE = 0;
inline constexpr int CALL_GRADIENT = 1;  // with least squares the Jacobian
inline constexpr int CALL_HESSIAN = 3;
inline constexpr int CALL_TERMINATION = 4;
inline constexpr int CALL_CONSTRAINTS = 5;
inline constexpr int CALL_CONSTRAINT_JACOBIAN = 6;

struct ModuleKind {
  int code;          // call code
  int kind;          // kind of module for the host
  const char* role;  // what messages call it
  char (ARGMTS::*name)[NAME_FIELD];
  short ARGMTS::*given;  // 1: the module exists
  TQLMOD* ARGMTS::*handle;
  TQLSS* ARGMTS::*prepared;
  TQLSYM ARGMTS::*result;
  TQLSYM ARGMTS::*point;  // the argument matrix that x is copied to
};

inline constexpr ModuleKind MODULE_KINDS[] = {
    {CALL_OBJECTIVE, MODULE_FUNCTION, "objective", &ARGMTS::funnam, &ARGMTS::ifmod, &ARGMTS::funptr,
     &ARGMTS::ssfun, &ARGMTS::arg0, &ARGMTS::arg1},
    {CALL_GRADIENT, MODULE_FUNCTION, "gradient or Jacobian", &ARGMTS::grdnam, &ARGMTS::igmod,
     &ARGMTS::grdptr, &ARGMTS::ssgrd, &ARGMTS::arg2, &ARGMTS::arg3},
    {CALL_HESSIAN, MODULE_FUNCTION, "Hessian", &ARGMTS::hesnam, &ARGMTS::ihmod, &ARGMTS::hesptr,
     &ARGMTS::sshes, &ARGMTS::arg4, &ARGMTS::arg5},
    {CALL_TERMINATION, MODULE_TERMINATION, "termination test", &ARGMTS::trmnam, &ARGMTS::iptit,
     &ARGMTS::trmptr, &ARGMTS::sstrm, &ARGMTS::arg6, &ARGMTS::arg7},
    {CALL_CONSTRAINTS, MODULE_FUNCTION, "nonlinear constraints", &ARGMTS::nlcnam, &ARGMTS::icmod,
     &ARGMTS::nlcptr, &ARGMTS::ssnlc, &ARGMTS::arg9, &ARGMTS::arg10},
    {CALL_CONSTRAINT_JACOBIAN, MODULE_FUNCTION, "Jacobian of the nonlinear constraints",
     &ARGMTS::jncnam, &ARGMTS::jcmod, &ARGMTS::jncptr, &ARGMTS::ssjnc, &ARGMTS::arg11,
     &ARGMTS::arg12},
};

// Row of a call code; null for a number that is none.
constexpr const ModuleKind* module_kind(int code) {
  for (const ModuleKind& kind : MODULE_KINDS) {
    if (kind.code == code) return &kind;
  }
  return nullptr;
}

// Text of a blank-padded field, without the blanks, as messages take it.
struct FieldText {
  char text[NAME_FIELD + 1];
};

inline FieldText field_text(const char* field, long length) {
  length = std::min(length, NAME_FIELD);
  while (length > 0 && (field[length - 1] == ' ' || field[length - 1] == '\0')) --length;
  FieldText trimmed{};
  std::copy_n(field, length, trimmed.text);
  return trimmed;
}

// Name of the subroutine that runs.
inline FieldText call_name(const ARGMTS* argm) { return field_text(argm->calnam, CALL_NAME_FIELD); }

inline FieldText module_name(const ARGMTS* argm, const ModuleKind& kind) {
  return field_text(argm->*kind.name, NAME_FIELD);
}

}  // namespace tqnlp
