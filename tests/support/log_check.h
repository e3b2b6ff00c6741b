// The one table of every line the daemon writes, and the check that holds
// every captured log to it.
#pragma once

#include <string>

namespace zt {

struct LogLine {
    std::string func, level, message;
};

// Splits a line that has a prefix; false for any other line.
bool split_log_line(const std::string &line, LogLine *out);

// "" when every line has a prefix and a message that its function writes at
// that level, with the empty line after each message that ends in a newline;
// else why and the first line at fault.
std::string check_log(const std::string &text);

}  // namespace zt
