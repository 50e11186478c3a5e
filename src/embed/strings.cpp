// strings: fields of fixed length, padded with blanks.
#include "host/strings.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace tqnlp {

void wzstmov(char* to, long to_length, const char* from, long from_length) {
  const long moved = std::clamp(from_length, 0L, std::max(to_length, 0L));
  if (moved > 0) std::memmove(to, from, static_cast<std::size_t>(moved));
  if (to_length > moved) std::memset(to + moved, ' ', static_cast<std::size_t>(to_length - moved));
}

void wzstrup(char* field, long length) {
  for (long i = 0; i < length; ++i)
    field[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(field[i])));
}

}  // namespace tqnlp
