// One line's prefix, read column by column as the daemon's writer puts it:
// " HH:MM:SS.uuuuuu" in 16 columns, the function right-aligned in 40, "():",
// the source line in at least 3, " (LEVEL): ".
#include "lines.hpp"

namespace zlog {

namespace {

constexpr size_t kStampLen = kStampWidth - 1;         // "HH:MM:SS.uuuuuu"
constexpr size_t kFuncStart = kStampWidth + 1;        // after the stamp and its blank
constexpr size_t kFuncEnd = kFuncStart + kFuncWidth;  // "():" here for names of 40 or less
constexpr size_t kMaxSrcDigits = 9;                   // keeps the source line in `unsigned`

bool digit(char c) {
    return c >= '0' && c <= '9';
}
bool name_byte(char c) {
    return digit(c) || c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

size_t skip_blanks(std::string_view t, size_t p) {
    while (p < t.size() && t[p] == ' ') p++;
    return p;
}

size_t skip_name(std::string_view t, size_t p) {
    while (p < t.size() && name_byte(t[p])) p++;
    return p;
}

// The digits at t[p..] as a number; returns the end, p itself when none.
size_t read_digits(std::string_view t, size_t p, unsigned &v) {
    size_t q = p;
    for (v = 0; q < t.size() && digit(t[q]) && q - p < kMaxSrcDigits; q++)
        v = v * 10 + (t[q] - '0');
    return q;
}

// " (LEVEL): " at t[p..]; returns the message's start, 0 when absent.
size_t read_level(std::string_view t, size_t p, Level &level) {
    static const std::string_view kWords[] = {" (HIGH): ", " (ERR): ", " (MED): ", " (LOW): "};
    static const Level kLevels[] = {Level::High, Level::Err, Level::Med, Level::Low};
    for (int i = 0; i < 4; i++) {
        if (t.substr(p, kWords[i].size()) == kWords[i]) {
            level = kLevels[i];
            return p + kWords[i].size();
        }
    }
    return 0;
}

// The prefix exactly where the writer puts it; returns the message's start,
// 0 when anything is off.
size_t read_prefix(std::string_view t, LogLine &out) {
    if (t.size() < kFuncEnd || t[0] != ' ' || t[kStampWidth] != ' ' ||
        !parse_stamp(t.substr(1, kStampLen), out.tod_us))
        return 0;
    size_t b = skip_blanks(t, kFuncStart), e = skip_name(t, b);
    if (e == b || e < kFuncEnd || (b > kFuncStart && e != kFuncEnd) || t.substr(e, 3) != "():")
        return 0;
    out.func = t.substr(b, e - b);
    size_t p = e + 3, d = skip_blanks(t, p), q = read_digits(t, d, out.src_line);
    bool width_ok = q - p == kSrcLineWidth || (d == p && q - p > kSrcLineWidth);
    if (q == d || !width_ok || (t[d] == '0' && q - d > 1))
        return 0;
    return read_level(t, q, out.level);
}

// The same parts with any spacing: a line of the log whose columns are off
// rather than something else.
bool read_loose_prefix(std::string_view t, LogLine &out) {
    size_t s = skip_blanks(t, 0);
    if (!parse_stamp(t.substr(s, kStampLen), out.tod_us))
        return false;
    size_t b = skip_blanks(t, s + kStampLen), e = skip_name(t, b);
    if (b == s + kStampLen || e == b || t.substr(e, 3) != "():")
        return false;
    out.func = t.substr(b, e - b);
    size_t d = skip_blanks(t, e + 3), q = read_digits(t, d, out.src_line);
    return q > d && read_level(t, q, out.level) != 0;
}

}  // namespace

bool parse_stamp(std::string_view s, uint64_t &tod_us) {
    if (s.size() < kStampLen || s[2] != ':' || s[5] != ':' || s[8] != '.')
        return false;
    static const size_t kDigits[] = {0, 1, 3, 4, 6, 7, 9, 10, 11, 12, 13, 14};
    for (size_t i : kDigits)
        if (!digit(s[i]))
            return false;
    auto two = [&](size_t i) { return uint64_t(s[i] - '0') * 10 + (s[i + 1] - '0'); };
    uint64_t h = two(0), m = two(3), sec = two(6), us = 0;
    for (size_t i = 9; i < kStampLen; i++) us = us * 10 + (s[i] - '0');
    if (h > 23 || m > 59 || sec > 60)  // 60: a leap second
        return false;
    tod_us = ((h * 60 + m) * 60 + sec) * 1000000 + us;
    return true;
}

bool parse_line(std::string_view text, uint64_t no, LogLine &out) {
    out.no = no;
    out.text = text;
    out.problem = Problem::None;
    out.tod_us = 0;
    out.func = {};
    out.src_line = 0;
    out.level = Level::Low;
    out.msg = Msg::Unknown;
    out.nargs = 0;
    size_t msg = read_prefix(text, out);
    if (msg == 0) {
        out.problem = read_loose_prefix(text, out) ? Problem::Columns : Problem::NoPrefix;
        return false;
    }
    return match_message(text.substr(msg), out);
}

}  // namespace zlog
