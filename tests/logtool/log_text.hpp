// Logs as the daemon writes them, for the log tool's suites: the line
// prefix, and whole logs written from message keys.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "logmodel.hpp"

namespace zlog::test {

// " HH:MM:SS.uuuuuu", the function right-aligned in 40 columns, "():", the
// source line in 3 and the level: the daemon's prefix at US microseconds
// past midnight.
inline std::string prefix(uint64_t us, const char *func, unsigned src, const char *level) {
    uint64_t s = us / 1000000 % 86400;
    char b[160];
    std::snprintf(b, sizeof b, " %02u:%02u:%02u.%06u %40s():%3u (%s): ", unsigned(s / 3600),
                  unsigned(s / 60 % 60), unsigned(s % 60), unsigned(us % 1000000), func, src,
                  level);
    return b;
}

// Lines in the daemon's prefix format from a script: steps separated by ';'
// or a new line, each a message key and its arguments ('_' for a blank in
// one), "@SECONDS" for the stamp, and two shorthands: "reply SEQ CODE" (the
// wait and the kernel's code) and "caps PPS" (a capacity table whose entry 6
// names silver cpu 2 again, with that pps).
class Log {
   public:
    Log &at(double seconds) {
        us_ = static_cast<uint64_t>(seconds * 1e6 + 0.5);
        return *this;
    }
    Log &put(Msg m, const std::vector<std::string> &args = {}) {
        const MessageInfo &info = message_info(m);
        text += prefix(us_, info.func, 42, level_name(info.level));
        size_t next = 0;
        for (const char *f = info.format; *f; f++) {
            if (*f != '%') {
                text += *f;
                continue;
            }
            while (*++f == 'l') {
            }
            text += next < args.size() ? args[next++] : "0";
        }
        text += "\n";
        us_ += 10;  // lines of one step come microseconds apart
        return *this;
    }
    Log &script(std::string steps) {
        std::replace(steps.begin(), steps.end(), '\n', ';');
        std::istringstream in(steps);
        for (std::string step; std::getline(in, step, ';');) run(step);
        return *this;
    }
    std::string text;

   private:
    void run(const std::string &step) {
        std::istringstream words(step);
        std::string key, w;
        std::vector<std::string> args;
        words >> key;
        if (!key.empty() && key[0] == '@') {
            at(std::stod(key.substr(1)));
            words >> key;
        }
        while (words >> w) {
            std::replace(w.begin(), w.end(), '_', ' ');
            args.push_back(w);
        }
        if (key == "reply")
            put(Msg::recv_int_waiting).put(Msg::recv_int_code, args);
        else if (key == "caps")
            caps(args.at(0));
        else if (!key.empty())
            put(msg(key), args);
    }
    void caps(const std::string &silver_pps) {
        put(Msg::caps_header);
        const char *cpus = "01234527";
        for (int i = 0; i < 8; i++)
            put(Msg::caps_entry, {std::string(1, cpus[i]),
                                  i == 6 ? silver_pps : std::to_string(20000 + i), "50000", "0"});
    }
    static Msg msg(const std::string &key) {
        for (int i = 0; i < kMessageCount; i++)
            if (key == kMessages[i].key)
                return static_cast<Msg>(i);
        ADD_FAILURE() << "no message " << key;
        return Msg::Unknown;
    }
    uint64_t us_ = 0;
};

inline std::string script(const char *steps) {
    return Log{}.script(steps).text;
}

}  // namespace zlog::test
