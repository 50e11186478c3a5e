// znlpnm2: Nelder-Mead SIMplex, second form (NMSIM2), technique 15. No subroutine selects it.
//
// Method     The search of znlpnms, but: a simplex is rebuilt at most at its own mean size; a flat
//            start shrinks where the first form grows; trials that bounds stopped are counted
//            themselves; a contraction that cannot be evaluated asks for a smaller simplex, and a
//            shrink that leaves more than three quarters of the distances ends the run with -5
// Reference, fields and work as for znlpnms; nabc stays the number of fixed parameters.
#include "aasubs/direct/znlpnm2.h"

#include "aasubs/direct/simplex_search.h"

namespace tqnlp {

static constexpr SimplexForm SECOND_FORM{
    .own_scale = true, .one_sided = true, .counts_trials = true, .strict = true};

int znlpnm2(MINSTR* str) { return simplex_search(str, SECOND_FORM); }

}  // namespace tqnlp
