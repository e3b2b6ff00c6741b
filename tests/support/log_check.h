// Every captured log held to the table of log lines, through zebusr-log's
// own line reader: the tests keep no second parser of the log.
#pragma once

#include <string>

namespace zt {

struct LogLine {
    std::string func, level, message;
};

// Splits a line whose prefix the reader can read; false for any other line.
bool split_log_line(const std::string &line, LogLine *out);

// "" when every line has a prefix and a message that its function writes at
// that level, with the empty line after each message that ends in a newline;
// else what is wrong and the first line at fault, with its number.
std::string check_log(const std::string &text);

}  // namespace zt
