// znlpnms: Nelder-Mead SIMPlex (NMSIMP), technique 14 without general constraints.
//
// Method     The highest of n + 1 vertices is reflected at the centroid of the others; the new
//            point is expanded, taken or contracted by its value, and where nothing helps all
//            vertices go half the way to the lowest. Trial points outside the bounds are moved onto
//            them. Five operations make an iteration. A simplex that has failed (an evaluation did,
//            or it lies flat against the bounds) is built afresh at the best point, with edges
//            parallel to the axes and a smaller size
// Reference  Nelder and Mead (1965), Computer Journal 7; for the bounds Box (1965), same journal 8
// Reads      salf (edges of the first simplex), axtl, sing, ssin, ceps, ipre, bounds
// Writes     x, crit, counters; for the termination test cold, xold (value and point of the highest
//            vertex), pred (deviation of the values), alfa (size at which the next simplex would be
//            built), gmax (mean size of the simplex), chac, nabc
// Work       see simplex.h
// Ends       codes of uster; 10 all parameters fixed; -1 objective failed at the start or at the
//            end; -3 it fails around the best point, however small the simplex; -5 a flat start, or
//            a simplex shrunk to sing
//
//   1  parameters, a start inside the bounds, objective
//   2  simplex at the best point: another size while it cannot be evaluated or is flat
//   3  five operations
//   4  termination test; a simplex that lies flat against the bounds goes back to 2
#include "aasubs/direct/znlpnms.h"

#include "aasubs/direct/simplex_search.h"

namespace tqnlp {

static constexpr SimplexForm FIRST_FORM{
    .own_scale = false, .one_sided = false, .counts_trials = false, .strict = false};

int znlpnms(MINSTR* str) { return simplex_search(str, FIRST_FORM); }

}  // namespace tqnlp
