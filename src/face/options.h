// Options into the record.
#pragma once

#include "aasubs/record/minstr.h"
#include "face/scaling.h"
#include "face/techniques.h"

namespace tqnlp::face {

// Throws std::invalid_argument for an option out of its range, or that cannot be meant.
void check_options(const Options& options);

// Fills method, parameters, limits and criteria of a record whose constraint flags (nlicon, lincon)
// and imax stand.
void apply_options(const Options& options, const TechniqueRow& row, MINSTR* str);

// Brings the criteria that the user has set into the units of the record: the strictest ones where
// the units of the parameters differ. Defaults stay, and so does what says how a method begins.
void convert_options(const Options& options, const Units& units, MINSTR* str);

}  // namespace tqnlp::face
