// zebusr-log explain: each decision of a log with the numbers that made it
// and the kernel's answer, the connection's story, and a summary.
#pragma once

#include <ostream>
#include <string_view>

namespace zlog {

// Explains a log held in memory (and, when `csv` is not null, its CSV
// capture) into `out`. Returns the exit status: 0 the log was read (problems
// included), 2 nothing could be read.
int explain_text(std::string_view log, std::ostream &out, const std::string_view *csv = nullptr);

}  // namespace zlog
