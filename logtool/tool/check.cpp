// zebusr-log check LOG: every line against the table of log lines.
#include <array>
#include <cstdio>
#include <string>

#include "lines.hpp"
#include "verbs.hpp"

namespace zlog {

namespace {

constexpr size_t kShownLines = 100;  // lines printed before the rest are only counted
constexpr size_t kShownBytes = 160;  // of each line's text
constexpr size_t kProblems = static_cast<size_t>(Problem::UnexpectedBlank) + 1;

// A line's text as one printable line: cut, other bytes as \xNN.
std::string printable(std::string_view text) {
    std::string out;
    for (unsigned char c : text.substr(0, kShownBytes)) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    if (text.size() > kShownBytes)
        out += "...";
    return out;
}

class Checker : public LineSink {
   public:
    explicit Checker(const std::string &log) : log_(log) {}

    void on_line(const LogLine &l) override {
        if (l.problem == Problem::CrLf && !crlf_noted_) {
            crlf_noted_ = true;
            std::printf("%s:%llu: note: CR LF line ends (read without the CR)\n", log_.c_str(),
                        static_cast<unsigned long long>(l.no));
        }
        if (l.problem == Problem::None || l.problem == Problem::CrLf)
            return;
        counts_[static_cast<size_t>(l.problem)]++;
        if (++bad_ > kShownLines)
            return;
        std::printf("%s:%llu: %s%s%s\n", log_.c_str(), static_cast<unsigned long long>(l.no),
                    problem_text(l.problem), l.text.empty() ? "" : ": ", printable(l.text).c_str());
    }

    // The last lines: how many more were not shown, and the counts.
    void summary(uint64_t lines) const {
        if (bad_ > kShownLines)
            std::printf("... and %llu more\n", static_cast<unsigned long long>(bad_ - kShownLines));
        std::printf("%llu lines: %llu match, %llu do not", static_cast<unsigned long long>(lines),
                    static_cast<unsigned long long>(lines >= bad_ ? lines - bad_ : 0),
                    static_cast<unsigned long long>(bad_));
        const char *sep = " (";
        for (size_t p = 0; p < kProblems; p++) {
            if (!counts_[p])
                continue;
            std::printf("%s%llu %s", sep, static_cast<unsigned long long>(counts_[p]),
                        problem_text(static_cast<Problem>(p)));
            sep = "; ";
        }
        std::printf("%s\n", bad_ ? ")" : "");
    }

    uint64_t bad() const { return bad_; }

   private:
    std::string log_;
    bool crlf_noted_ = false;
    uint64_t bad_ = 0;
    std::array<uint64_t, kProblems> counts_{};
};

}  // namespace

int verb_check(const Words &w) {
    if (w.size() != 1 || (w[0].size() > 1 && w[0][0] == '-')) {
        std::fputs("usage: zebusr-log check LOG   (LOG may be - for standard input)\n", stderr);
        return 2;
    }
    Checker checker(w[0]);
    LineReader reader(checker);
    std::string why;
    if (!read_lines_file(w[0], reader, why)) {
        std::fprintf(stderr, "zebusr-log: cannot read %s\n", why.c_str());
        return 2;
    }
    if (reader.lines() == 0) {
        std::fprintf(stderr, "zebusr-log: %s is empty: no lines to check\n", w[0].c_str());
        return 2;
    }
    checker.summary(reader.lines());
    return checker.bad() ? 1 : 0;
}

}  // namespace zlog
