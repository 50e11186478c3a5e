// Host services: strings in fields of fixed length, padded with blanks.
#pragma once

namespace tqnlp {

// Moves from_length bytes into a field of to_length bytes; what is left of the field turns blank,
// what does not fit is cut.
void wzstmov(char* to, long to_length, const char* from, long from_length);

// Turns a field to upper case in place.
void wzstrup(char* field, long length);

}  // namespace tqnlp
