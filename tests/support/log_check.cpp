#include "log_check.h"

#include <cctype>
#include <fstream>
#include <sstream>
#include <vector>

// Next to the test binary where the build does not name it (a device).
#ifndef ZEBUSR_LOG_TABLE_PATH
#define ZEBUSR_LOG_TABLE_PATH "log_lines.tsv"
#endif

namespace zt {

namespace {

struct Known {
    std::string func, level, fmt;
};

std::string unescape(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s[i] == '\\' && i + 1 < s.size() && (s[i + 1] == 'n' || s[i + 1] == 't'))
            out += s[++i] == 'n' ? '\n' : '\t';
        else
            out += s[i];
    }
    return out;
}

const std::vector<Known> &known() {
    static const std::vector<Known> table = [] {
        std::vector<Known> rows;
        std::ifstream in(ZEBUSR_LOG_TABLE_PATH);
        for (std::string line; std::getline(in, line);) {
            if (line.empty() || line[0] == '#')
                continue;
            line = line.substr(line.find('\t') + 1);  // past the key
            size_t a = line.find('\t'), b = line.find('\t', a + 1);
            if (b == std::string::npos)
                continue;
            rows.push_back(
                {line.substr(0, a), line.substr(a + 1, b - a - 1), unescape(line.substr(b + 1))});
        }
        return rows;
    }();
    return table;
}

// Whether `m` is what printf could print for format `f` (conversions
// %d %u %x %lu print a number, %s anything; "\n" at the end is the line's).
bool fmt_match(const char *f, const char *m) {
    for (;; f++, m++) {
        if (*f == '\n' && f[1] == '\0')
            return *m == '\0';
        if (*f != '%') {
            if (*f != *m)
                return false;
            if (*f == '\0')
                return true;
            continue;
        }
        f++;
        if (*f == 'l')
            f++;
        if (*f == 's') {
            for (const char *rest = m;; rest++) {
                if (fmt_match(f + 1, rest))
                    return true;
                if (*rest == '\0')
                    return false;
            }
        }
        const char *start = m;
        if (*m == '-')
            m++;
        while (isxdigit(static_cast<unsigned char>(*m))) m++;
        if (m == start)
            return false;
        m--;
    }
}

// "" when the line is right: a prefix, a known message of its
// function at its level. `blank_next` says whether an empty line must follow.
std::string check_line(const std::string &line, bool *blank_next) {
    LogLine l;
    if (!split_log_line(line, &l))
        return "no prefix";
    std::string found_level;
    for (const Known &k : known()) {
        if (l.func != k.func || !fmt_match(k.fmt.c_str(), l.message.c_str()))
            continue;
        found_level = k.level;
        if (found_level == l.level) {
            *blank_next = k.fmt.back() == '\n';
            return "";
        }
    }
    return found_level.empty() ? "not a message of " + l.func : "level should be " + found_level;
}

}  // namespace

// The columns themselves are checked once, in the log writer's own test.
bool split_log_line(const std::string &line, LogLine *out) {
    size_t paren = line.find("():"), level = line.find(" (", paren),
           close = line.find("): ", level);
    if (line.size() < 17 || line[0] != ' ' || close == std::string::npos)
        return false;
    size_t name = line.find_last_of(' ', paren) + 1;
    out->func = line.substr(name, paren - name);
    out->level = line.substr(level + 2, close - level - 2);
    out->message = line.substr(close + 3);
    return out->level == "HIGH" || out->level == "ERR" || out->level == "MED" ||
           out->level == "LOW";
}

std::string check_log(const std::string &text) {
    std::istringstream in(text);
    bool blank_next = false;
    for (std::string line; std::getline(in, line);) {
        if (blank_next) {
            blank_next = false;
            if (line.empty())
                continue;
            return "no empty line after a message ending in a newline, before: " + line;
        }
        std::string why = check_line(line, &blank_next);
        if (!why.empty())
            return why + ": " + line;
    }
    return "";
}

}  // namespace zt
