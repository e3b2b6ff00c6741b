// zebusr-log lines: every line of a log as the reader reads it, one record a
// line, so that scripts (the reliability runs, the VM checks) read logs
// through the same reader as the tool and the tests, with no parser of their
// own.
#include "lines.hpp"

#include <cstdio>
#include <string>
#include <string_view>

#include "verbs.hpp"

namespace zlog {

namespace {

// Records go out through one buffer: a log of a gigabyte is millions of lines.
class Out {
   public:
    ~Out() { flush(); }
    void put(std::string_view s) {
        buf_.append(s);
        if (buf_.size() >= kReadChunk)
            flush();
    }
    void put(char c) { buf_.push_back(c); }
    void num(uint64_t v) { put(std::to_string(v)); }
    void num(int64_t v) { put(std::to_string(v)); }
    void flush() {
        std::fwrite(buf_.data(), 1, buf_.size(), stdout);
        buf_.clear();
    }

   private:
    std::string buf_;
};

// Whether the prefix was read: the stamp, function and level mean something.
bool has_prefix(const LogLine &l) {
    return !l.func.empty();
}

// What follows the prefix, found from where the reader saw the function (no
// second reading of the format here); the whole line when there is no prefix.
std::string_view message_of(const LogLine &l) {
    if (!has_prefix(l))
        return l.text;
    size_t at = static_cast<size_t>(l.func.data() - l.text.data()) + l.func.size();
    std::string tail = std::string(" (") + level_name(l.level) + "): ";
    size_t m = l.text.find(tail, at);
    return m == std::string_view::npos ? std::string_view() : l.text.substr(m + tail.size());
}

void put_time(Out &o, uint64_t tod_us) {
    char s[40];
    auto part = [&](uint64_t div, uint64_t mod) {
        return static_cast<unsigned>(tod_us / div % mod);
    };
    std::snprintf(s, sizeof s, "%02u:%02u:%02u.%06u", part(3600000000u, 100), part(60000000u, 60),
                  part(1000000u, 60), part(1, 1000000u));
    o.put(s);
}

// Control bytes would break the one-record-a-line promise: shown as \xNN.
void put_tsv_text(Out &o, std::string_view s) {
    for (unsigned char c : s) {
        if (c < 0x20 && c != '\t') {
            char e[8];
            std::snprintf(e, sizeof e, "\\x%02x", c);
            o.put(e);
        } else {
            o.put(static_cast<char>(c));
        }
    }
}

void put_tsv(Out &o, const LogLine &l) {
    bool matched = l.msg != Msg::Unknown;
    o.num(l.no);
    o.put('\t');
    if (has_prefix(l))
        put_time(o, l.tod_us);
    else
        o.put('-');
    o.put('\t');
    o.put(has_prefix(l) ? l.func : "-");
    o.put('\t');
    o.put(has_prefix(l) ? level_name(l.level) : "-");
    o.put('\t');
    o.put(matched ? message_info(l.msg).key : "?");
    o.put('\t');
    if (!matched) {
        o.put(problem_text(l.problem));
        o.put('\t');
    }
    put_tsv_text(o, message_of(l));
    o.put('\n');
}

// Length of the valid UTF-8 sequence at s[i], 0 when it is not one.
size_t utf8_len(std::string_view s, size_t i) {
    unsigned char c = s[i];
    size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (n == 0 || i + n > s.size())
        return 0;
    for (size_t k = 1; k < n; k++)
        if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2)
            return 0;
    return n;
}

// A JSON string; bytes that are not UTF-8 become U+FFFD, as a reader of
// JSON would refuse them.
void put_json_str(Out &o, std::string_view s) {
    o.put('"');
    for (size_t i = 0; i < s.size();) {
        unsigned char c = s[i];
        size_t n = utf8_len(s, i);
        if (c == '"' || c == '\\') {
            o.put('\\');
            o.put(static_cast<char>(c));
        } else if (n == 1 && c < 0x20) {
            char e[8];
            std::snprintf(e, sizeof e, "\\u%04x", c);
            o.put(e);
        } else if (n == 0) {
            o.put("\\ufffd");
            n = 1;
        } else {
            o.put(s.substr(i, n));
        }
        i += n ? n : 1;
    }
    o.put('"');
}

// The arguments in the format's order: %d signed, %s text, the rest unsigned.
void put_json_args(Out &o, const LogLine &l) {
    o.put('[');
    const char *f = l.msg == Msg::Unknown ? "" : message_info(l.msg).format;
    for (int k = 0; k < l.nargs; k++) {
        while (*f && *f != '%') f++;
        while (*f == '%' || *f == 'l') f++;
        char conv = *f ? *f++ : 'u';
        if (k)
            o.put(',');
        if (conv == 's')
            put_json_str(o, l.args[k].s);
        else if (conv == 'd')
            o.num(l.args[k].i);
        else
            o.num(l.args[k].u);
    }
    o.put(']');
}

void put_json_or_null(Out &o, bool known, std::string_view s) {
    if (known)
        put_json_str(o, s);
    else
        o.put("null");
}

void put_json(Out &o, const LogLine &l) {
    bool pre = has_prefix(l), matched = l.msg != Msg::Unknown;
    o.put("{\"no\":");
    o.num(l.no);
    o.put(",\"time\":");
    if (pre) {
        o.put('"');
        put_time(o, l.tod_us);
        o.put('"');
    } else {
        o.put("null");
    }
    o.put(",\"func\":");
    put_json_or_null(o, pre, l.func);
    o.put(",\"level\":");
    put_json_or_null(o, pre, pre ? level_name(l.level) : "");
    o.put(",\"key\":");
    put_json_or_null(o, matched, matched ? message_info(l.msg).key : "");
    o.put(",\"message\":");
    put_json_str(o, message_of(l));
    o.put(",\"args\":");
    put_json_args(o, l);
    o.put(",\"problem\":");
    put_json_or_null(o, l.problem != Problem::None, problem_text(l.problem));
    o.put("}\n");
}

class Printer : public LineSink {
   public:
    explicit Printer(bool json) : json_(json) {}
    void on_line(const LogLine &l) override {
        if (json_)
            put_json(out_, l);
        else
            put_tsv(out_, l);
    }

   private:
    bool json_;
    Out out_;
};

}  // namespace

int verb_lines(const Words &w) {
    std::string path;
    bool json = false, wrong = false;
    for (const std::string &a : w) {
        if (a == "--json")
            json = true;
        else if (path.empty() && (a == "-" || a.empty() || a[0] != '-'))
            path = a;
        else
            wrong = true;
    }
    if (wrong || path.empty()) {
        std::fputs("usage: zebusr-log lines LOG [--json]\n", stderr);
        return 2;
    }
    std::string why;
    bool read;
    {
        Printer p(json);
        read = read_lines_file(path, p, why);
    }
    if (!read) {
        std::fprintf(stderr, "zebusr-log: %s\n", why.c_str());
        return 2;
    }
    return std::fflush(stdout) == 0 ? 0 : 2;
}

}  // namespace zlog
