// Parts of the text writer that both the finished report and the sink use, so that a line reads the
// same in either.
#pragma once

#include <string>

#include "embed/task.h"

namespace tqnlp::embed {

// The iteration history: the one table that grows over a run. Its columns have fixed forms and
// widths, so that a row looks the same whatever rows come after it.
bool is_history(const Table& table);

// Title (none when the table goes on an earlier one) and column headings, each line with its end.
std::string history_head(const Table& table);

// Row k of the history, one line with its end.
std::string history_row(const Table& table, std::size_t k);

// A line of the log with its severity in front; literal lines as they are.
std::string log_line(const LogRecord& line);

// A number with so many decimals; words for numbers that are not finite.
std::string fixed_text(double value, int decimals);

}  // namespace tqnlp::embed
