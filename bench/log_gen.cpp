// The log tool's benchmark helper (scripts/bench-logtool.sh drives it):
//
//   log_gen scenario OUT.json SECONDS
//       the full-tables scenario: 8 CPUs, 128 flows on gold CPUs that are all
//       in slow start, so every verbose cycle logs 128 gold and 128
//       slow-start entries, the flow history and every policy's checks.
//   log_gen log TEMPLATE OUT MIB
//       a log of at least MIB mebibytes from a real verbose log of the daemon
//       on those tables: its start-up and first table cycles, then its steady
//       cycles over and over with advancing stamps and sequence numbers, then
//       its end. The stamps start so that midnight passes halfway.
//   log_gen measure -- PROGRAM ARG...
//       runs PROGRAM with its output to /dev/null and prints
//       "wall_s user_s sys_s max_rss_kb exit_status" from wait4's account.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr uint64_t kDayUs = 86400ull * 1000000;
constexpr size_t kStamp = 16;  // " HH:MM:SS.uuuuuu"

[[noreturn]] void die(const std::string &why) {
    std::fprintf(stderr, "log_gen: %s\n", why.c_str());
    std::exit(2);
}

int scenario(const char *out, double seconds) {
    std::ofstream f(out);
    f << "{\"name\": \"full-tables\", \"duration_s\": " << seconds
      << ", \"tick_ms\": 100, \"cpus\": [";
    // Silver CPUs are never loaded and never fit a gold flow; gold CPUs are
    // even, so every flow is checked against every CPU and nothing moves.
    for (int c = 0; c < 8; ++c)
        f << (c ? ", " : "") << "{\"cpu\": " << c << ", \"max_pps\": " << (c < 4 ? 100000 : 1000000)
          << ", \"load_pps\": " << (c < 4 ? 70000 : 0) << "}";
    f << "], \"flows\": [";
    for (int i = 0; i < 128; ++i)
        f << (i ? ",\n  " : "") << "{\"hash\": \"0x" << std::hex << 0x10000 + i << std::dec
          << "\", \"name\": \"flow" << i << "\", \"cpu\": " << 4 + i % 4
          << ", \"pps\": 20000, \"bps\": 400000000, \"slow_start\": true}";
    f << "]}\n";
    return f ? 0 : 2;
}

// The stamp's time of day in microseconds, or -1 when the line has none.
int64_t stamp_us(std::string_view l) {
    if (l.size() < kStamp || l[0] != ' ' || l[3] != ':' || l[6] != ':' || l[9] != '.')
        return -1;
    int64_t v[4] = {0, 0, 0, 0};
    const int at[4] = {1, 4, 7, 10}, len[4] = {2, 2, 2, 6};
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < len[k]; ++j) {
            char c = l[size_t(at[k] + j)];
            if (c < '0' || c > '9')
                return -1;
            v[k] = v[k] * 10 + (c - '0');
        }
    return ((v[0] * 60 + v[1]) * 60 + v[2]) * 1000000 + v[3];
}

struct Line {
    std::string_view text;
    uint64_t t = 0;  // run time: the template's stamps with midnight unwrapped
    bool stamped = false;
    int64_t seq = -1;  // the number after "seq_num ", when the line has one
    size_t seq_at = 0, seq_len = 0;
};

void find_seq(Line &l) {
    size_t p = l.text.find("seq_num ");
    if (p == std::string_view::npos)
        return;
    p += 8;
    size_t e = p;
    while (e < l.text.size() && e < p + 9 && l.text[e] >= '0' && l.text[e] <= '9') ++e;
    if (e == p)
        return;
    l.seq = std::atoll(std::string(l.text.substr(p, e - p)).c_str());
    l.seq_at = p;
    l.seq_len = e - p;
}

std::vector<Line> split(const std::string &text) {
    std::vector<Line> out;
    uint64_t prev = 0, day = 0;
    for (size_t at = 0; at < text.size();) {
        size_t e = text.find('\n', at);
        if (e == std::string::npos)
            e = text.size();
        Line l{std::string_view(text).substr(at, e - at)};
        int64_t s = stamp_us(l.text);
        if (s >= 0) {
            if (uint64_t(s) + day + kDayUs / 2 < prev)
                day += kDayUs;
            l.t = prev = uint64_t(s) + day;
            l.stamped = true;
        }
        find_seq(l);
        out.push_back(l);
        at = e + 1;
    }
    return out;
}

// The template cut in three: [0, first) start-up and the first table
// cycles, [first, last) the steady cycles that repeat, [last, end) the end.
struct Cut {
    size_t first = 0, last = 0;
    uint64_t span_us = 0;
    int64_t seq_span = 0;
    size_t head_bytes = 0, block_bytes = 0, tail_bytes = 0;
};

Cut cut(const std::vector<Line> &ls) {
    std::vector<size_t> syncs;
    for (size_t i = 0; i < ls.size(); ++i)
        if (ls[i].stamped && ls[i].seq >= 0 && ls[i].text.find("SYNC START") != std::string::npos)
            syncs.push_back(i);
    // The connection's sync, the first tables and the segmentation requests
    // they bring come before the steady cycles.
    if (syncs.size() < 6)
        die("the template has fewer than 6 cycles");
    Cut c;
    c.first = syncs[3];
    c.last = syncs.back();
    c.span_us = ls[c.last].t - ls[c.first].t;
    c.seq_span = ls[c.last].seq - ls[c.first].seq;
    for (size_t i = 0; i < ls.size(); ++i)
        (i < c.first  ? c.head_bytes
         : i < c.last ? c.block_bytes
                      : c.tail_bytes) += ls[i].text.size() + 1;
    return c;
}

class Writer {
   public:
    explicit Writer(const char *path) : f_(std::fopen(path, "wb")) {
        if (!f_)
            die(std::string("cannot write ") + path);
        buf_.reserve(kFlush + 4096);
    }
    ~Writer() {
        flush();
        if (std::fclose(f_) != 0)
            die("write failed");
    }
    // The line with its stamp moved to `tod_us` and its sequence number by `dseq`.
    void put(const Line &l, uint64_t tod_us, int64_t dseq) {
        if (!l.stamped) {
            buf_.append(l.text).push_back('\n');
            return maybe_flush();
        }
        uint64_t s = tod_us / 1000000;
        char st[32];
        std::snprintf(st, sizeof st, " %02u:%02u:%02u.%06u", unsigned(s / 3600),
                      unsigned(s / 60 % 60), unsigned(s % 60), unsigned(tod_us % 1000000));
        buf_.append(st, kStamp);
        if (l.seq < 0 || dseq == 0) {
            buf_.append(l.text.substr(kStamp));
        } else {
            buf_.append(l.text.substr(kStamp, l.seq_at - kStamp));
            buf_.append(std::to_string(l.seq + dseq));
            buf_.append(l.text.substr(l.seq_at + l.seq_len));
        }
        buf_.push_back('\n');
        maybe_flush();
    }

   private:
    static constexpr size_t kFlush = 1 << 20;
    void maybe_flush() {
        if (buf_.size() >= kFlush)
            flush();
    }
    void flush() {
        if (!buf_.empty() && std::fwrite(buf_.data(), 1, buf_.size(), f_) != buf_.size())
            die("write failed");
        buf_.clear();
    }
    std::FILE *f_;
    std::string buf_;
};

int make_log(const char *tpl, const char *out, uint64_t mib) {
    std::ifstream in(tpl, std::ios::binary);
    if (!in)
        die(std::string("cannot read ") + tpl);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();
    std::vector<Line> ls = split(text);
    Cut c = cut(ls);
    uint64_t want = mib << 20, fixed = c.head_bytes + c.tail_bytes;
    uint64_t reps = want > fixed ? (want - fixed + c.block_bytes - 1) / c.block_bytes : 1;
    uint64_t t0 = ls.front().t, total = ls.back().t - t0 + (reps - 1) * c.span_us;
    uint64_t base = (kDayUs - (total / 2) % kDayUs) % kDayUs;  // midnight halfway through
    {
        Writer w(out);
        auto at = [&](size_t i, uint64_t r) {
            return (base + ls[i].t - t0 + r * c.span_us) % kDayUs;
        };
        for (size_t i = 0; i < c.first; ++i) w.put(ls[i], at(i, 0), 0);
        for (uint64_t r = 0; r < reps; ++r)
            for (size_t i = c.first; i < c.last; ++i)
                w.put(ls[i], at(i, r), int64_t(r) * c.seq_span);
        for (size_t i = c.last; i < ls.size(); ++i)
            w.put(ls[i], at(i, reps - 1), int64_t(reps - 1) * c.seq_span);
    }
    std::printf("%llu steady cycles of %zu bytes repeated %llu times over %.1f s of stamps\n",
                (unsigned long long)(c.seq_span), c.block_bytes, (unsigned long long)reps,
                double(total) / 1e6);
    return 0;
}

int measure(char **argv) {
    auto t0 = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid < 0)
        die("fork failed");
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0)
            dup2(null, 1);
        execvp(argv[0], argv);
        std::perror(argv[0]);
        _exit(127);
    }
    int status = 0;
    struct rusage ru {};
    if (wait4(pid, &status, 0, &ru) != pid)
        die("wait4 failed");
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    auto sec = [](const timeval &tv) { return double(tv.tv_sec) + double(tv.tv_usec) / 1e6; };
    std::printf("%.3f %.3f %.3f %ld %d\n", wall, sec(ru.ru_utime), sec(ru.ru_stime), ru.ru_maxrss,
                WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "scenario" && argc == 4)
        return scenario(argv[2], std::atof(argv[3]));
    if (mode == "log" && argc == 5)
        return make_log(argv[2], argv[3], std::strtoull(argv[4], nullptr, 10));
    if (mode == "measure" && argc > 3 && !std::strcmp(argv[2], "--"))
        return measure(argv + 3);
    std::fputs(
        "usage: log_gen scenario OUT.json SECONDS | log TEMPLATE OUT MIB | measure -- PROGRAM "
        "ARG...\n",
        stderr);
    return 2;
}
